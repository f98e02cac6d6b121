"""Plots with gnuplot."""

import subprocess


def draw(path, commands, blocks, size="760,420"):
    """A plot from named blocks of data: {name: rows of values}."""
    data = "".join(f"${name} << EOD\n" + "\n".join(
        " ".join(f'"{value}"' if isinstance(value, str) else f"{value:g}" for value in row)
        for row in rows) + "\nEOD\n" for name, rows in blocks.items())
    script = (f'set terminal svg size {size} background "white" font "sans,12"\n'
              f'set output "{path}"\nset grid ytics\nset key outside top center horizontal\n'
              f"{data}{commands}\n")
    subprocess.run(["gnuplot"], input=script, text=True, check=True)
