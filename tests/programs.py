"""What programs of users do as applications of a device, beside SERVERS of the testbed.
PROGRAMS is all that test_real_programs.py runs over each road."""

from typing import NamedTuple

from testbed.device import BROWSER_UID, PACKAGES


# Each application writes to an address of its own, so that the address of a stream
# tells whose it is.
ADDRESSES = {uid: f"198.51.100.{80 + n}" for n, uid in enumerate(PACKAGES)}


class Program(NamedTuple):
    """|script| is what each of |applications| does, all of them at once, each with a $HOME
    of its own. It prints what it has got and what has arrived at the server, which is the
    same over every road.

    $HOST     where all of |servers| are
    $SERVERS  their folders
    $ID       what it calls what it leaves there: its own, and another one over each road
    $N        the application's number, one digit
    $BIG      a file of 300 kB, also its own"""

    name: str
    servers: str
    script: str
    applications: list = list(ADDRESSES)
    # The road carries 250,000 bytes/s.
    slow: bool = False
    # How many times as long as over a cable it may take, where a fault once made it far
    # longer; others end, and no more is said of them.
    most_times: int = None
    # So many connections of each application may be closed before the daemon can find whose
    # they are. Those are charged to nobody, but never to another.
    ends_early: int = 0


NEEDED = """ab apache2 dnsperf git gtlsclient gtlsserver lftp mosquitto mosquitto_pub nc nsd
  openssl psql redis-benchmark redis-server rsync socat ssh sshd tnftp vsftpd wget""".split()
ONE = [BROWSER_UID]
# arrived N FILE WORDS: the first N lines with WORDS in FILE, once they are there.
FUNCTIONS = """
arrived() {
  { timeout 10 tail -n +1 -F "$2" 2>/dev/null || true; } | grep -m "$1" -- "$3"
}
checksum() { sha256sum "$@" | cut -d' ' -f1; }
"""

PROGRAMS = [
    Program("FTP, PASV: lftp", "ftp", """
        lftp -c "set net:max-retries 1; set ftp:prefer-epsv no; open ftp://$HOST
          get down
          put $BIG -o up/$ID"
        checksum down "$SERVERS/ftp/files/up/$ID" """),
    Program("FTP, EPSV: ftp", "ftp", """
        tnftp -V -o down "ftp://$HOST/down"
        tnftp -V -u "ftp://$HOST/up/$ID.epsv" "$BIG"
        checksum down "$SERVERS/ftp/files/up/$ID.epsv" """),
    Program("FTP, upload of 300 kB, slow link", "ftp", """
        tnftp -V -u "ftp://$HOST/up/$ID.slow" "$BIG"
        checksum "$SERVERS/ftp/files/up/$ID.slow" """, ONE, slow=True),
    Program("nc -N, upload of 300 kB, slow link", "sums", """
        { echo "$ID"; cat "$BIG"; } >own
        nc -N "$HOST" 7001 <own
        arrived 1 "$SERVERS/sums/sums" "$(checksum own)" >/dev/null
        echo whole""", ONE, slow=True),
    # At its end it opens some more, which it does not need.
    Program("ab -c 100", "web", """
        ab -q -c 100 -n 300 "http://$HOST/1" | grep -E '^(Complete|Failed|Non-2xx|HTML)'""",
            most_times=50, ends_early=100),
    Program("curl, page of 100 files, 100 connections", "web", """
        curl -sS -Z --parallel-immediate --parallel-max 100 -o '#1' "http://$HOST/[1-100]"
        checksum {1..100}""", most_times=50),
    Program("curl, 200 answers of 50 kB, one connection", "plain-web", """
        curl -sS "http://$HOST:8000/50k?[1-200]" | checksum""", most_times=8),
    Program("wget -r, page of 100 files", "web", """
        wget -q -r -nH "http://$HOST/"
        checksum {1..100} index.html"""),
    Program("HTTP/3 down, 500 kB, slow link", "http3", """
        gtlsclient -q --exit-on-all-streams-close --download=. "$HOST" 443 "https://$HOST/down"
        checksum down""", ONE, slow=True),
    Program("HTTP/3 up, 300 kB, slow link", "http3", """
        before=$(wc -c <"$SERVERS/http3.log")
        gtlsclient -q --exit-on-all-streams-close --download=. -d "$BIG" \\
          "$HOST" 443 "https://$HOST/up"
        cat up
        # The server prints as a hex dump what it gets.
        tail -c "+$((before + 1))" "$SERVERS/http3.log" |
          sed -nE 's/^[0-9a-f]{8}  ([0-9a-f ]+) \\|.*/\\1/p' | tr -d ' \\n' | tr a-f A-F |
          basenc -d --base16 | checksum""", ONE, slow=True),
    Program("SMTP, 50 mails at once: curl", "mail", """
        for n in {1..50}; do
          printf 'Subject: %s\\r\\n\\r\\n%s number %s.\\r\\n' $n $ID $n >mail$n
        done
        curl -sS -Z --parallel-immediate --parallel-max 50 --mail-from a@example.test \\
          --mail-rcpt b@example.test -T 'mail[1-50]' "smtp://$HOST"
        grep -rhoP "^$ID \\Knumber .*" "$SERVERS/mail/mails/new" | sort""", most_times=50),
    Program("redis-benchmark, 50 clients", "redis", """
        redis-benchmark -h "$HOST" -c 50 -n 500 -t ping,set,get --csv | cut -d, -f1
        head -c 10000 "$BIG" | base64 | redis-cli -h "$HOST" -x set "$ID"
        redis-cli -h "$HOST" get "$ID" """),
    Program("pgbench, 20 clients, new connections", "postgres", """
        export PGHOST=$HOST PGUSER=app PGDATABASE=postgres
        pgbench -n -C -c 20 -t 3 -f - <<<'select 1' | grep -E '^number of (trans|failed)'
        psql -Atc 'select n, md5(n::text) from generate_series(1, 20000) n' | checksum"""),
    Program("git clone, push", "git", """
        git clone -q "git://$HOST/project" clone
        cp "$BIG" clone/new
        git -C clone add new
        git -C clone -c user.name=a -c user.email=a@example.test commit -qm new
        git -C clone push -q origin "HEAD:refs/heads/$ID"
        checksum clone/blob
        git -C clone rev-parse "HEAD^{tree}"
        [ "$(git -C clone rev-parse HEAD)" = "$(cat "$SERVERS/git/project/refs/heads/$ID")" ]"""),
    Program("rsync daemon, both ways", "rsync", """
        rsync -a "rsync://$HOST/files/down/" down
        checksum down/{1..200}
        cp "$BIG" down
        rsync -a down/ "rsync://$HOST/files/up/$ID"
        checksum $SERVERS/rsync/files/up/$ID/*"""),
    Program("ssh, -L and -D", "ssh web", """
        install -m 600 "$SERVERS/ssh/user" key
        forward=127.0.0.1:300$N proxy=127.0.0.1:400$N
        there() {
          ssh -F none -i key -o StrictHostKeyChecking=no -o UserKnownHostsFile=/dev/null \\
            -o LogLevel=ERROR -o ExitOnForwardFailure=yes -S control "$@"
        }
        there "root@$HOST" sha256sum <"$BIG"
        there -M -f -N -L "$forward:$HOST:80" -D "$proxy" "root@$HOST" >log 2>&1
        curl -sS "http://$forward/50k" | checksum
        curl -sS -Z --parallel-immediate --socks5 "$proxy" -o '#1' "http://$HOST/[1-20]"
        checksum {1..20}
        there -O exit "$HOST" 2>>log"""),
    Program("MQTT, 200 subscribers", "mqtt", """
        pub() { mosquitto_pub -h "$HOST" "$@"; }
        pub -q 1 -r -t "$ID" -m hello
        for n in {1..67}; do
          mosquitto_sub -h "$HOST" -t "$ID" -q 1 -C 2 -W 20 >>got &
        done
        [ "$(arrived 67 got hello | wc -l)" = 67 ]
        pub -q 1 -t "$ID" -m news
        wait
        grep -c news got """),
    Program("mosquitto_pub, 20 messages", "mqtt", """
        mosquitto_pub -h "$HOST" -q 1 -r -t "one/$ID" -m hello
        mosquitto_sub -h "$HOST" -t "one/$ID" -q 1 -C 21 -W 10 >>got &
        arrived 1 got hello >/dev/null
        for n in {1..20}; do
          mosquitto_pub -h "$HOST" -t "one/$ID" -m "message $n"
        done
        wait
        sort got """),
    Program("logger -T, 20 lines", "lines", """
        for n in {1..20}; do
          logger -T -n "$HOST" -P 7002 -t "$ID" "line $n."
        done
        arrived 20 "$SERVERS/lines/lines" "$ID" | grep -o 'line .*\\.' | sort""", ends_early=20),
    Program("echo >/dev/tcp, 20 lines", "lines", """
        for n in {1..20}; do
          echo "$ID: four $n" >"/dev/tcp/$HOST/7002"
        done
        arrived 20 "$SERVERS/lines/lines" "$ID: four" | grep -o 'four .*' | sort""", ends_early=20),
    Program("dnsperf -q 500", "names", """
        for n in {1..5000}; do
          echo "www$n.example.test A"
        done >names
        dnsperf -s "$HOST" -d names -q 500 -c 4 -t 3 | grep -E '^ *(Queries|Response)' |
          grep -v second""", ONE),
]
