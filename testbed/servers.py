"""Servers as Debian has them, for the internet's side of a test: SERVERS is what there is.
Each is a piece of shell that begins in an empty folder of its own, makes its
configuration there and listens on all addresses."""

import glob
import os
import shutil
import subprocess
from typing import NamedTuple

from testbed.internet import NAME_SERVER, SERVER_ADDRESS
from testbed.processes import end_process
from testbed.programs import BIN_DIR
from testbed.waiting import wait_until

LOAD_PORT = 7000
LOAD_PROGRAM = BIN_DIR.parent / "bench-bin/load"  # see load.cc


class Server(NamedTuple):
    """|setup| comes first; |command| becomes the server, which is ready when it listens
    on |port| and |probe| succeeds. All run as |user|."""

    port: str
    command: str
    setup: str = ""
    user: str = "root"
    probe: str = ":"


SERVERS = {
    "ftp": Server("tcp 21", "exec vsftpd $PWD/conf", """
        mkdir -p files/up empty
        chmod 777 files/up
        head -c 1000000 /dev/urandom >files/down
        cat >conf <<END
listen=YES
background=NO
anonymous_enable=YES
anon_root=$PWD/files
no_anon_password=YES
write_enable=YES
anon_upload_enable=YES
anon_umask=022
secure_chroot_dir=$PWD/empty
END"""),
    "web": Server("tcp 80", "exec apache2 -d $PWD -f $PWD/conf -DFOREGROUND", """
        mkdir files
        install -d -o www-data files/up locks
        head -c 50000 /dev/urandom >files/50k
        for n in {1..100}; do
          head -c $((n * 100)) /dev/urandom >files/$n
          echo "<a href=$n>$n</a>"
        done >files/index.html
        cat >conf <<END
LoadModule mpm_event_module /usr/lib/apache2/modules/mod_mpm_event.so
LoadModule authz_core_module /usr/lib/apache2/modules/mod_authz_core.so
LoadModule dir_module /usr/lib/apache2/modules/mod_dir.so
LoadModule mime_module /usr/lib/apache2/modules/mod_mime.so
LoadModule dav_module /usr/lib/apache2/modules/mod_dav.so
LoadModule dav_fs_module /usr/lib/apache2/modules/mod_dav_fs.so
ServerName www.example.test
DefaultRuntimeDir $PWD
PidFile $PWD/pid
ErrorLog $PWD/errors
TypesConfig /dev/null
AddType text/html .html
Listen 0.0.0.0:80
MaxKeepAliveRequests 0
DocumentRoot $PWD/files
DirectoryIndex index.html
DavLockDB $PWD/locks/db
User www-data
Group www-data
<Location /up>
  Dav on
</Location>
END"""),
    # Of its dumps only that of bodies, which shows what an upload has brought.
    "http3": Server("udp 443", "exec gtlsserver --no-quic-dump -d files 0.0.0.0 443 key cert", """
        mkdir files
        head -c 500000 /dev/urandom >files/down
        echo thanks >files/up
        openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 \\
          -keyout key -out cert -subj /CN=www.example.test 2>openssl.log"""),
    "mail": Server("tcp 25", "exec /usr/bin/python3 -m aiosmtpd -n -l 0.0.0.0:25 "
                   "-c aiosmtpd.handlers.Mailbox mails", "mkdir -p mails/{cur,new,tmp}"),
    "redis": Server("tcp 6379", "exec redis-server --bind 0.0.0.0 --protected-mode no --save ''"),
    "postgres": Server(
        "tcp 5432", "exec $POSTGRES/postgres -D data -h 0.0.0.0 -k $PWD -c fsync=off", """
        $POSTGRES/initdb -D data -A trust -U app --no-sync >initdb.log
        echo 'host all all all trust' >>data/pg_hba.conf
        cat >>data/postgresql.conf <<END
max_connections = 200
END""", user="postgres",
        # It listens at once, and refuses everyone until it has looked at its files.
        probe="$POSTGRES/pg_isready -q -h $PWD"),
    "git": Server("tcp 9418", "exec git daemon --base-path=$PWD --export-all "
                  "--enable=receive-pack --reuseaddr --listen=0.0.0.0", """
        git init -q --bare project
        head -c 500000 /dev/urandom >blob
        tree=$(printf '100644 blob %s\\tblob\\n' $(git -C project hash-object -w ../blob) |
          git -C project mktree)
        git -C project branch main $(git -C project -c user.name=a -c user.email=a@example.test \\
          commit-tree -m start $tree)
        git -C project symbolic-ref HEAD refs/heads/main"""),
    "rsync": Server("tcp 873", "exec rsync --daemon --no-detach --config=conf", """
        mkdir -p files/down files/up
        for n in {1..200}; do
          head -c $((n * 10)) /dev/urandom >files/down/$n
        done
        cat >conf <<END
use chroot = no
[files]
path = $PWD/files
read only = no
uid = root
END"""),
    "ssh": Server("tcp 22", """
        # sshd wants this directory, which is no business of the machine's.
        exec unshare --mount sh -c 'mount -t tmpfs run /run && mkdir /run/sshd && exec "$@"' sh \\
          /usr/sbin/sshd -D -e -f /dev/null -h $PWD/host -o StrictModes=no -o PidFile=none \\
          -o AuthorizedKeysFile=$PWD/user.pub -o MaxStartups=100""", """
        for key in host user; do
          ssh-keygen -q -t ed25519 -N '' -f $key
        done
        chmod 644 user"""),
    "mqtt": Server("tcp 1883", "exec mosquitto -c conf", """
        cat >conf <<END
listener 1883 0.0.0.0
allow_anonymous true
user root
END"""),
    # It has room for 500 questions at once, and answers from the address that was asked.
    "names": Server("udp 53", "exec nsd -d -c conf", """
        cat >conf <<END
server:
  server-count: 1
  rrl-ratelimit: 0
  ip-address: 198.51.100.80
  ip-address: 198.51.100.81
  ip-address: 198.51.100.82
  username: ""
  chroot: ""
  zonesdir: "$PWD"
  pidfile: "$PWD/pid"
  zonelistfile: "$PWD/zones"
  xfrdfile: "$PWD/state"
  xfrdir: "$PWD"
  database: ""
remote-control:
  control-enable: no
zone:
  name: example.test
  zonefile: example.test
END
        cat >example.test <<END
@ 3600 SOA ns admin 1 3600 600 86400 60
@ 3600 NS ns
* 3600 A 198.51.100.80
END"""),
    "plain-web": Server("tcp 8000", "exec /usr/bin/python3 -m http.server --protocol HTTP/1.1 "
                        "--bind 0.0.0.0", "head -c 50000 /dev/urandom >50k"),
    # What connections write: checksums of all of one, lines of all of them.
    "sums": Server("tcp 7001", "exec socat -u TCP-LISTEN:7001,fork,reuseaddr,backlog=128 "
                   "SYSTEM:'sha256sum >>sums'"),
    "lines": Server("tcp 7002", "exec socat -u TCP-LISTEN:7002,fork,reuseaddr,backlog=128 "
                    "OPEN:lines,creat,append"),
}


class Servers:
    """Those that were needed so far, each in a folder of |directory| with its name; they
    serve every road. What one says is in NAME.log beside that."""

    def __init__(self, directory):
        self.dir = directory
        self._processes = {}
        # Debian keeps these programs out of the path.
        self._environment = {**os.environ, "POSTGRES": max(
            glob.glob("/usr/lib/postgresql/*/bin"), default="")}

    def start(self, name):
        """Its process, once it is ready; one that runs already goes on."""
        if name in self._processes:
            return self._processes[name]
        server, directory = SERVERS[name], self.dir / name
        directory.mkdir()
        shutil.chown(directory, server.user)
        shell = ["setpriv", f"--reuid={server.user}", f"--regid={server.user}", "--clear-groups",
                 "bash", "-euo", "pipefail", "-c"]
        with open(self.dir / f"{name}.log", "ab") as log:
            options = {"cwd": directory, "env": self._environment, "stdin": subprocess.DEVNULL,
                       "stdout": log, "stderr": log}
            setup = subprocess.run([*shell, server.setup], **options)
            assert setup.returncode == 0, self._log(name)
            process = self._processes[name] = subprocess.Popen([*shell, server.command], **options)
            wait_until(lambda: process.poll() is not None or is_listening(server.port) and
                       subprocess.run([*shell, server.probe], **options).returncode == 0, name)
        assert process.poll() is None, self._log(name)
        return process

    def _log(self, name):
        return (self.dir / f"{name}.log").read_text(errors="replace")

    def close(self):
        for process in self._processes.values():
            end_process(process)


def is_listening(port):
    kind, number = port.split()
    return subprocess.run(["ss", "-Hln", f"--{kind}", f"sport = :{number}"], check=True,
                          capture_output=True).stdout != b""


# It keeps the user that it has. With --no-daemon instead it would answer nobody else for
# as long as one client keeps a connection open, as resolvers do.
NAME_SERVER_COMMAND = ["dnsmasq", "--keep-in-foreground", "--user=", "--group=", "--pid-file=",
                       "--conf-file=/dev/null", "--no-resolv", "--no-hosts"]


def start_name_server(*names):
    """One for which |names|, and all below them, are at SERVER_ADDRESS."""
    server = subprocess.Popen([
        *NAME_SERVER_COMMAND, f"--listen-address={NAME_SERVER}", "--bind-interfaces",
        *(f"--address=/{name}/{SERVER_ADDRESS}" for name in names)], stderr=subprocess.DEVNULL)
    probe = ["dig", "+short", "+tries=1", "+time=1", f"@{NAME_SERVER}", names[0]]
    wait_until(lambda: SERVER_ADDRESS.encode() in subprocess.run(
        probe, capture_output=True).stdout, "the name server")
    return server


def start_load_server():
    """The internet's end of all loads, in the network of the caller."""
    process = subprocess.Popen(
        [LOAD_PROGRAM, "serve", "--address", SERVER_ADDRESS, "--port", str(LOAD_PORT)],
        stdout=subprocess.PIPE)
    assert process.stdout.readline() == b"ready\n"
    return process
