"""Pictures of terminals: what somebody typed, and what the programs said."""

from html import escape

COLUMNS = 96
_CHARACTER, _LINE, _EDGE, _BAR, _GAP = 7.8, 17, 14, 26, 12  # pixels
_STYLE = """
.window { fill: #1e2127; stroke: #555b66 } .title { fill: #9aa2ae; text-anchor: middle }
text { font: 13px "DejaVu Sans Mono", Menlo, Consolas, monospace; fill: #c8ccd4 }
.prompt { fill: #7fb785 } .typed { fill: #ffffff; font-weight: bold }
"""


class Window:
    def __init__(self, title):
        self.title = title
        self._lines = []  # of (class, text)s

    def type(self, prompt, words):
        self._lines.append([("prompt", prompt + " "), ("typed", words)])

    def print(self, text):
        for line in text.splitlines():
            self._lines += [[("", line[at:at + COLUMNS])]
                            for at in range(0, max(len(line), 1), COLUMNS)]

    def height(self):
        return _BAR + len(self._lines) * _LINE + _EDGE

    def draw(self, top, width):
        yield (f'<rect class="window" x=".5" y="{top + .5}" width="{width - 1}" '
               f'height="{self.height() - 1}" rx="6"/>')
        yield f'<text class="title" x="{width / 2:g}" y="{top + 18}">{escape(self.title)}</text>'
        for number, line in enumerate(self._lines, 1):
            pieces = "".join(f'<tspan class="{name}">{escape(text)}</tspan>'
                             for name, text in line)
            yield (f'<text xml:space="preserve" x="{_EDGE}" '
                   f'y="{top + _BAR + number * _LINE - 4}">{pieces}</text>')


def draw(path, windows):
    """One below the other, to an SVG."""
    width = int(COLUMNS * _CHARACTER + 2 * _EDGE)
    height = sum(window.height() + _GAP for window in windows) - _GAP
    lines, top = [], 0
    for window in windows:
        lines += window.draw(top, width)
        top += window.height() + _GAP
    path.write_text("\n".join([
        f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
        f'viewBox="0 0 {width} {height}">', f"<style>{_STYLE}</style>", *lines, "</svg>\n"]))
