#!/usr/bin/env bash
# What one web request costs with the extension, in instructions counted by
# callgrind, which unlike wall time does not drift with other load on the
# machine.
#
#   tools/bench-request-cost.sh [fpm|cgi] [REQUESTS]   default: fpm, 400
#   CORVIDINE_SO=path tools/bench-request-cost.sh      an already built module
#   BENCH_PROFILE_DIR=dir tools/bench-request-cost.sh  keep the callgrind files
#                                                      (callgrind_annotate them)
#   BENCH_CALLGRIND_ARGS="--cache-sim=yes" ...         more callgrind options
#   BENCH_SUMMARY=file ...                             append the summary lines
#   BENCH_CLI_RUNS=n ...                               timed CLI runs (40)
#
# fpm: php-fpm8.2 with one worker under callgrind, as tools/bench-http.sh
#      runs it (clear_env = no), answering REQUESTS FastCGI requests that
#      carry what nginx's fastcgi_params pass for a GET of the benchmark page
#      (it echoes "ok"), one connection each. The worker's count is taken.
# cgi: php-cgi8.2 -T REQUESTS, the same page in the same CGI environment,
#      every request through full request start-up and shut-down.
#
# Only what runs inside PHP's request start-up, script and shut-down is
# counted (callgrind --toggle-collect): the extension's work happens there,
# and process start and exit, whose path differs from run to run, stay out.
# The process environment is fixed (about 40 variables, the usual size), so
# that counts compare across machines. Each set-up runs with REQUESTS and
# 2 x REQUESTS requests: the difference divided by REQUESTS is the cost of one
# request, without what happens once (first-use set-up).
#
# Set-ups: the extension not loaded; loaded but turned off (corvidine.enable
# 0); loaded with the null reporter (nothing is sampled); with the UDP
# reporter and sample rate 0 (unsampled, as in
# tools/bench-http.sh); with sample rate 1000000 (every request sampled, its
# entry and exit events sent to a local UDP listener). Every set-up has the
# same environment (PHP reads it at request start too). Targets are checked
# against "off" of the same run.
#
# Last, in fpm mode, the fixed cost of a traced CLI run of an empty script:
# instructions of the whole process, and CPU time (median of runs in turns).
set -euo pipefail
export CORVIDINE_CLOUD_METADATA=off  # never a cloud lookup from a demo or benchmark

MODE=${1:-fpm}
REQUESTS=${2:-400}
case $MODE in fpm | cgi) ;; *) echo "usage: $0 [fpm|cgi] [REQUESTS]" >&2; exit 2 ;; esac
ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

missing=()
[ "$MODE" = cgi ] && [ ! -x /usr/bin/php-cgi8.2 ] && missing+=(php8.2-cgi)
[ "$MODE" = fpm ] && [ ! -x /usr/sbin/php-fpm8.2 ] && missing+=(php8.2-fpm)
command -v valgrind >/dev/null || missing+=(valgrind)
if [ ${#missing[@]} -gt 0 ]; then
  if [ "$(id -u)" -ne 0 ]; then
    echo "bench-request-cost: missing packages: ${missing[*]} (run as root to install them)" >&2
    exit 1
  fi
  DEBIAN_FRONTEND=noninteractive apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

SO=${CORVIDINE_SO:-$("$ROOT/tools/test-ext.sh" nts --build-only | tail -n1)}

exec /usr/bin/python3 - "$MODE" "$SO" "$ROOT/tests/integration/www/index.php" "$REQUESTS" \
  "${BENCH_PROFILE_DIR:-}" <<'PY'
import os
import re
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time

mode, so, script, requests, profile_dir = sys.argv[1], sys.argv[2], sys.argv[3], int(sys.argv[4]), sys.argv[5]

# What nginx's fastcgi_params pass for "GET /index.php".
params = {
    "QUERY_STRING": "", "REQUEST_METHOD": "GET", "CONTENT_TYPE": "", "CONTENT_LENGTH": "",
    "SCRIPT_FILENAME": script, "SCRIPT_NAME": "/index.php", "REQUEST_URI": "/index.php",
    "DOCUMENT_URI": "/index.php", "DOCUMENT_ROOT": os.path.dirname(script), "SERVER_PROTOCOL": "HTTP/1.1",
    "REQUEST_SCHEME": "http", "GATEWAY_INTERFACE": "CGI/1.1", "SERVER_SOFTWARE": "nginx/1.22.1",
    "REMOTE_ADDR": "127.0.0.1", "REMOTE_PORT": "51234", "SERVER_ADDR": "127.0.0.1", "SERVER_PORT": "8080",
    "SERVER_NAME": "localhost", "REDIRECT_STATUS": "200", "HTTP_HOST": "127.0.0.1:8080",
    "HTTP_USER_AGENT": "wrk", "HTTP_ACCEPT": "*/*",
}
process_env = {"PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", "HOME": "/root",
               "LANG": "C.UTF-8", "SHELL": "/bin/bash", "USER": "root", "PWD": "/", "TERM": "xterm"}
for i in range(33):
    process_env["BENCH_ENV_%02d" % i] = "value-of-an-inherited-variable-%02d" % i

# Callgrind counts only inside these, the whole of a request's PHP work.
COLLECT = ["--collect-atstart=no", "--toggle-collect=php_request_startup", "--toggle-collect=php_execute_script",
           "--toggle-collect=php_request_shutdown"] + os.environ.get("BENCH_CALLGRIND_ARGS", "").split()

udp = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
udp.bind(("127.0.0.1", 0))
received = [0]


def drain():
    while True:
        try:
            udp.recv(65535)
        except OSError:
            return
        received[0] += 1


threading.Thread(target=drain, daemon=True).start()
udp_env = {"CORVIDINE_REPORTER": "udp", "CORVIDINE_COLLECTOR": "127.0.0.1:%d" % udp.getsockname()[1],
           "CORVIDINE_TOKEN_BUCKET_CAPACITY": "10000000", "CORVIDINE_TOKEN_BUCKET_RATE": "10000000"}
ext = ["-d", "extension=" + so, "-d", "corvidine.service_key=bench:bench"]
setups = [
    ("off", [], udp_env),
    ("loaded, corvidine.enable=0", ext + ["-d", "corvidine.enable=0"], udp_env),
    ("unsampled, null reporter", ext, dict(udp_env, CORVIDINE_REPORTER="null")),
    ("unsampled, UDP, rate 0", ext + ["-d", "corvidine.sample_rate=0"], udp_env),
    ("sampled, UDP, rate 1000000", ext + ["-d", "corvidine.sample_rate=1000000"], udp_env),
]


def fcgi_record(kind, content, request_id=1):
    return struct.pack(">BBHHBB", 1, kind, request_id, len(content), 0, 0) + content


def fcgi_pair(name, value):
    name, value = name.encode(), value.encode()
    head = b""
    for length in (len(name), len(value)):
        head += struct.pack(">B", length) if length < 128 else struct.pack(">I", length | 0x80000000)
    return head + name + value


def fcgi_get(port):
    """One request on a connection of its own; returns stdout."""
    body = b"".join(fcgi_pair(k, v) for k, v in params.items())
    message = (fcgi_record(1, struct.pack(">HB5x", 1, 0)) + fcgi_record(4, body) + fcgi_record(4, b"") +
               fcgi_record(5, b""))
    with socket.create_connection(("127.0.0.1", port), timeout=60) as sock:
        sock.sendall(message)
        data = b""
        out = b""
        while True:
            chunk = sock.recv(65536)
            if not chunk:
                break
            data += chunk
            while len(data) >= 8:
                _, kind, _, length, padding, _ = struct.unpack(">BBHHBB", data[:8])
                if len(data) < 8 + length + padding:
                    break
                if kind == 6:
                    out += data[8:8 + length]
                data = data[8 + length + padding:]
                if kind == 3:
                    return out.decode("latin-1")
    return out.decode("latin-1")


def free_port():
    with socket.socket() as sock:
        sock.bind(("127.0.0.1", 0))
        return sock.getsockname()[1]


def wait_for_port(port, process, timeout=120):
    deadline = time.time() + timeout
    while time.time() < deadline:
        if process.poll() is not None:
            raise RuntimeError("php-fpm exited with status %s" % process.returncode)
        try:
            with socket.create_connection(("127.0.0.1", port), timeout=0.5):
                return
        except OSError:
            time.sleep(0.2)
    raise RuntimeError("php-fpm did not listen")


FPM_CONF = """[global]
pid = {dir}/fpm.pid
error_log = {dir}/fpm.log
daemonize = no
[www]
listen = 127.0.0.1:{port}
pm = static
pm.max_children = 1
clear_env = no
"""


def run_fpm(name, args, env, count, out_prefix):
    work = tempfile.mkdtemp(prefix="corvidine-cost-")
    port = free_port()
    with open(os.path.join(work, "fpm.conf"), "w") as handle:
        handle.write(FPM_CONF.format(dir=work, port=port))
    out = os.path.join(work, "callgrind.%p")
    command = ["valgrind", "--tool=callgrind", "--callgrind-out-file=" + out] + COLLECT + [
        "/usr/sbin/php-fpm8.2", "-F", "-R", "-n", "-y", os.path.join(work, "fpm.conf")] + args
    fpm = subprocess.Popen(command, env=env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        wait_for_port(port, fpm)
        deadline = time.time() + 60
        while True:
            children = subprocess.run(["pgrep", "-P", str(fpm.pid)], capture_output=True, text=True).stdout.split()
            if len(children) == 1 or time.time() > deadline:
                break
            time.sleep(0.2)
        if len(children) != 1:
            raise RuntimeError("%s: %d php-fpm workers" % (name, len(children)))
        for _ in range(count):
            page = fcgi_get(port)
            check(name, args, page)
    finally:
        fpm.send_signal(signal.SIGQUIT)
        fpm.wait(timeout=120)
    worker = os.path.join(work, "callgrind.%s" % children[0])
    total = collected(worker)
    if out_prefix:
        os.replace(worker, out_prefix)
    subprocess.run(["rm", "-rf", work])
    return total


def collected(path):
    with open(path) as handle:
        for line in handle:
            if line.startswith("totals:") or line.startswith("summary:"):
                return int(line.split()[1])
    raise RuntimeError("no totals in %s" % path)


def run_cgi(name, args, env, count, out_prefix):
    env = dict(env, **params)
    out = out_prefix or "/dev/null"
    run = subprocess.run(["valgrind", "--tool=callgrind", "--callgrind-out-file=" + out] + COLLECT +
                         ["/usr/bin/php-cgi8.2", "-n"] + args + ["-T", str(count), script],
                         env=env, capture_output=True, text=True)
    if run.returncode != 0:
        sys.exit("bench-request-cost: %s failed (%d):\n%s" % (name, run.returncode, run.stderr[-2000:]))
    check(name, args, run.stdout)
    return int(re.search(r"Collected : (\d+)", run.stderr).group(1))


def check(name, args, page):
    tracing = bool(args) and "corvidine.enable=0" not in args
    if "ok" not in page:
        sys.exit("bench-request-cost: %s: unexpected page %r" % (name, page[:300]))
    if ("X-Trace:" in page) != tracing:
        sys.exit("bench-request-cost: %s: X-Trace header %s" % (name, "missing" if tracing else "present"))


def instructions(name, args, extra_env, count):
    env = dict(process_env, **extra_env)
    out_prefix = None
    if profile_dir:
        out_prefix = os.path.join(profile_dir, "callgrind.%s.%s.%d" % (
            mode, re.sub(r"[^a-z0-9]+", "-", name.lower()).strip("-"), count))
    return (run_fpm if mode == "fpm" else run_cgi)(name, args, env, count, out_prefix)


if profile_dir:
    os.makedirs(profile_dir, exist_ok=True)
print("%s: %d and %d requests under callgrind; module %s" % (
    "php-fpm8.2 worker" if mode == "fpm" else "php-cgi8.2 -T", requests, 2 * requests, so), flush=True)
print("%-28s %14s %14s %10s" % ("setup", "instr/request", "added", "of off"), flush=True)
# Targets against "off" of the same run: (absolute instructions, ratio).
TARGETS = {"loaded, corvidine.enable=0": (40400, None), "unsampled, UDP, rate 0": (42500, 1.06),
           "sampled, UDP, rate 1000000": (48000, 1.20)}
summary = []
base = None
for name, args, extra_env in setups:
    before = received[0]
    per_request = (instructions(name, args, extra_env, 2 * requests) -
                   instructions(name, args, extra_env, requests)) / requests
    if base is None:
        base = per_request
    note = ""
    if "UDP" in name:
        time.sleep(0.2)  # the last datagrams
        datagrams = (received[0] - before) / (3.0 * requests)
        note = "  (%.2f datagrams/request, with one __Init per run)" % datagrams
    print("%-28s %14.0f %14.0f %10.3f%s" % (name, per_request, per_request - base, per_request / base, note),
          flush=True)
    line = "instructions/request %-28s %7.0f (%.3f of off)" % (name, per_request, per_request / base)
    if name in TARGETS:
        most, ratio = TARGETS[name]
        met = per_request <= most and (ratio is None or per_request / base <= ratio)
        line += "  target <= %d%s %s" % (most, " and <= %.2fx" % ratio if ratio else "", "met" if met else "NOT met")
    summary.append(line)


def cli_run(args, env, count_instructions):
    """One CLI run of an empty script: its instructions, or its wall time."""
    command = ["/usr/bin/php8.2", "-n"] + args + [empty_script]
    if count_instructions:
        run = subprocess.run(["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null"] + command,
                             env=env, capture_output=True, text=True)
        return int(re.search(r"Collected : (\d+)", run.stderr).group(1))
    # CPU time (user + system) of the process: on a busy machine its wall
    # time is mostly waiting for a CPU.
    child = subprocess.Popen(command, env=env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    _, status, usage = os.wait4(child.pid, 0)
    child.returncode = status
    if status != 0:
        sys.exit("bench-request-cost: %s exited with status %d" % (" ".join(command), status))
    return usage.ru_utime + usage.ru_stime


# What a traced CLI run (cron job, queue worker) pays once: module start,
# __Init, one request and shut-down, against PHP alone. Time: the median CPU
# time of runs taken in turns.
if mode == "fpm" and os.path.exists("/usr/bin/php8.2"):
    empty_dir = tempfile.mkdtemp(prefix="corvidine-cli-")
    empty_script = os.path.join(empty_dir, "empty.php")
    with open(empty_script, "w") as handle:
        handle.write("<?php\n")
    cli_env = dict(process_env, **udp_env)
    traced = ext + ["-d", "corvidine.enable_cli=1", "-d", "corvidine.sample_rate=1000000"]
    added = cli_run(traced, cli_env, True) - cli_run([], cli_env, True)
    times = {"off": [], "traced": []}
    for _ in range(int(os.environ.get("BENCH_CLI_RUNS", "40"))):
        times["off"].append(cli_run([], cli_env, False))
        times["traced"].append(cli_run(traced, cli_env, False))
    import statistics
    added_ms = (statistics.median(times["traced"]) - statistics.median(times["off"])) * 1000
    subprocess.run(["rm", "-rf", empty_dir])
    print("traced CLI run, empty script: %d instructions added (target <= 1000000), %.2f ms CPU time added "
          "(median of %d runs each; PHP alone %.2f ms; target <= 0.5 ms)"
          % (added, added_ms, len(times["off"]), statistics.median(times["off"]) * 1000), flush=True)
    summary.append("traced CLI run fixed cost %d instructions (target <= 1000000 %s), %.2f ms CPU (target <= 0.5 %s)"
                   % (added, "met" if added <= 1000000 else "NOT met", added_ms, "met" if added_ms <= 0.5 else "NOT met"))

if os.environ.get("BENCH_SUMMARY"):
    with open(os.environ["BENCH_SUMMARY"], "a") as handle:
        handle.write("".join(line + "\n" for line in summary))
PY
