#!/usr/bin/env bash
# What the agent adds to an outbound call: curl_exec() on one handle (keep-
# alive) to nginx serving a small file on loopback, in a loop, with the
# extension not loaded, loaded on an untraced run (the X-Trace header goes
# out, no events) and on a traced run (entry and exit events, UDP reporter
# to a listener of this script that counts them; the file reporter syncs
# each event to disk and would measure the disk).
# Prints µs per call (median of alternating rounds) and the microseconds the
# agent adds; goals: <= 5 µs untraced, <= 20 µs traced. On a busy machine
# the times swing; callgrind's instructions per call in the PHP process
# (loop minus no loop) are shown as well, as the steady figure.
#
#   tools/bench-curl.sh [nts|zts] [ROUNDS]      default: nts, 7 rounds
set -euo pipefail
export CORVIDINE_CLOUD_METADATA=off  # never a cloud lookup from a demo or benchmark

FLAVOUR=${1:-nts}
ROUNDS=${2:-7}
ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

SO=${CORVIDINE_SO:-$("$ROOT/tools/test-ext.sh" "$FLAVOUR" --build-only | tail -n1)}
if [ "$FLAVOUR" = zts ]; then
  . "$ROOT/tools/php-zts/env.sh"
  PHP=$PHP_ZTS_BIN
else
  PHP=$(/usr/bin/php-config8.2 --php-binary)
fi

WORK=$(mktemp -d /tmp/corvidine-bench-curl.XXXXXX)
NGINX_PID=
cleanup() {
  [ -n "$NGINX_PID" ] && kill "$NGINX_PID" 2>/dev/null && wait "$NGINX_PID" 2>/dev/null
  rm -rf "$WORK"
}
trap cleanup EXIT

PORT=$(/usr/bin/python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
mkdir -p "$WORK/www" "$WORK/tmp"
printf 'ok\n' >"$WORK/www/ok.txt"
cat >"$WORK/nginx.conf" <<CONF
daemon off;
worker_processes 1;
user root;
error_log $WORK/nginx-error.log warn;
pid $WORK/nginx.pid;
events { worker_connections 64; }
http {
    access_log off;
    client_body_temp_path $WORK/tmp;
    keepalive_requests 1000000;
    server { listen 127.0.0.1:$PORT; root $WORK/www; }
}
CONF
/usr/sbin/nginx -p "$WORK" -c "$WORK/nginx.conf" &
NGINX_PID=$!
for _ in $(seq 50); do curl -s -o /dev/null "http://127.0.0.1:$PORT/ok.txt" && break; sleep 0.1; done

cat >"$WORK/exec.php" <<'PHP'
<?php
[$url, $n] = [$argv[1], (int)$argv[2]];
$h = curl_init($url);
curl_setopt_array($h, [CURLOPT_RETURNTRANSFER => true, CURLOPT_HTTPHEADER => ['Accept: text/plain']]);
curl_exec($h); // connection and name lookup out of the loop
$start = hrtime(true);
for ($i = 0; $i < $n; $i++) {
    if (curl_exec($h) !== "ok\n") {
        exit("bad answer\n");
    }
}
echo json_encode(['us' => (hrtime(true) - $start) / 1e3 / max($n, 1)]), "\n";
PHP

/usr/bin/python3 - "$PHP" "$SO" "$WORK" "$ROUNDS" "http://127.0.0.1:$PORT/ok.txt" <<'PY'
import json
import os
import re
import shutil
import socket
import statistics
import subprocess
import sys
import threading

php, so, work, rounds, url = sys.argv[1], sys.argv[2], sys.argv[3], int(sys.argv[4]), sys.argv[5]
ext_dir = subprocess.run([php, "-n", "-r", "echo PHP_EXTENSION_DIR;"], capture_output=True, text=True).stdout
curl = ["-d", "extension=curl"] if os.path.exists(os.path.join(ext_dir, "curl.so")) else []
agent = ["-d", "extension=" + so, "-d", "corvidine.enable_cli=1"]
variants = [("without extension", []), ("untraced", agent + ["-d", "corvidine.sample_rate=0"]), ("traced", agent)]
N = 5000
listener = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 8 << 20)
listener.bind(("127.0.0.1", 0))
received = [0]


def drain():
    while True:
        listener.recv(65536)
        received[0] += 1


threading.Thread(target=drain, daemon=True).start()
env = {"PATH": os.environ.get("PATH", "/usr/bin:/bin"), "CORVIDINE_REPORTER": "udp",
       "CORVIDINE_COLLECTOR": "127.0.0.1:%d" % listener.getsockname()[1]}


def run(args):
    before = received[0]
    out = subprocess.run([php, "-n"] + curl + args + [os.path.join(work, "exec.php"), url, str(N)], env=env,
                         capture_output=True, text=True, check=True).stdout
    us = json.loads(out.strip().splitlines()[-1])["us"]
    return us, received[0] - before


print("PHP %s, extension %s; %d calls a run, %d rounds" % (
    subprocess.run([php, "-n", "-r", "echo PHP_VERSION, PHP_ZTS ? ' ZTS' : ' NTS';"], capture_output=True,
                   text=True).stdout, so, N, rounds))
times = {name: [] for name, _ in variants}
written = {}
for r in range(rounds):
    for name, args in (variants if r % 2 == 0 else list(reversed(variants))):
        us, size = run(args)
        times[name].append(us)
        written[name] = size
base = statistics.median(times["without extension"])
for name, _ in variants:
    m = statistics.median(times[name])
    print("%-18s %7.2f us/call   added %+6.2f us   (%d events received in the last run)" % (name, m, m - base, written[name]))
assert written["traced"] >= N, "the traced run sent too few events"


def instructions(args, n):
    err = subprocess.run(["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null", php, "-n"] + curl + args +
                         [os.path.join(work, "exec.php"), url, str(n)], env=env, capture_output=True, text=True,
                         check=True).stderr
    return int(re.search(r"Collected : (\d+)", err).group(1))


if shutil.which("valgrind"):
    n = 300
    per = {name: (instructions(args, n) - instructions(args, 0)) / n for name, args in variants}
    for name, _ in variants:
        print("callgrind: %-18s %8.0f instructions/call   added %+7.0f" % (name, per[name], per[name] - per["without extension"]))
PY
