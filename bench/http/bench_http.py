"""What the extension costs a real server: wrk against nginx + php-fpm
serving a small page, in three set-ups measured in one run:

  off        the extension not loaded
  sampled    loaded, every request sampled, events to a local UDP listener
  unsampled  loaded, no request sampled (corvidine.sample_rate 0)

For each: requests per second under load (wrk, CONNECTIONS connections),
the php-fpm workers' CPU time per request, and latency with one connection.

Wall-clock figures drift with whatever else the machine runs, so:
- the set-ups take turns (off, sampled, unsampled, unsampled, sampled,
  off, ...) over ROUNDS rounds, and each round's ratio is taken against the "off" run of the same
  round, next to it in time; the summary gives the median of those ratios
  and their spread (lowest..highest);
- with two CPUs or more, php-fpm (master and workers) runs on one CPU and
  nginx and wrk on another, so that the PHP side is what limits throughput
  and the three never take CPU from each other (BENCH_PIN=0 turns it off).
Which figure to believe: for steering, the instruction counts of
tools/bench-request-cost.sh (deterministic). Of these, the median ratio;
where req/s swings from round to round, the worker CPU ratio, which leaves
out time spent waiting for a CPU. A spread wider than the distance to a
target says this run cannot tell.
Loopback only; every run is bounded by its duration.

    /usr/bin/python3 bench/http/bench_http.py MODULE
Environment: BENCH_SECONDS (8), BENCH_LATENCY_SECONDS (5), BENCH_ROUNDS (5),
BENCH_CONNECTIONS (8), BENCH_CHILDREN (2 pinned, else 4), BENCH_PIN (1),
BENCH_SUMMARY (a file the summary lines are also written to).
"""
import os
import re
import socket
import statistics
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "..", "tests", "integration"))

import harness  # noqa: E402

SECONDS = int(os.environ.get("BENCH_SECONDS", "8"))
LATENCY_SECONDS = int(os.environ.get("BENCH_LATENCY_SECONDS", "5"))
ROUNDS = int(os.environ.get("BENCH_ROUNDS", "5"))
CONNECTIONS = int(os.environ.get("BENCH_CONNECTIONS", "8"))
CPUS = sorted(os.sched_getaffinity(0))
PIN = os.environ.get("BENCH_PIN", "1") != "0" and len(CPUS) >= 2
CHILDREN = int(os.environ.get("BENCH_CHILDREN", "2" if PIN else "4"))
# php-fpm on the last CPU; nginx, wrk and this script on the first.
PHP_CPU, FRONT_CPU = (CPUS[-1], CPUS[0]) if PIN else (None, None)

# Targets: throughput kept, against the server without the extension.
TARGET_SAMPLED = 0.95
TARGET_UNSAMPLED = 0.98


class UdpListener:
    """Where the UDP reporter sends its events. It never reads while the
    load runs, so that it takes no CPU from the server: the kernel counts
    what overflows the receive buffer (the drops column of /proc/net/udp),
    and what stays queued is counted when asked."""

    def __init__(self):
        self.sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.sock.bind(("127.0.0.1", 0))
        self.sock.setblocking(False)
        self.port = self.sock.getsockname()[1]
        self.read = 0

    def drops(self):
        with open("/proc/net/udp") as handle:
            for line in handle.readlines()[1:]:
                fields = line.split()
                if fields[1].endswith(":%04X" % self.port):
                    return int(fields[-1])
        return 0

    def count(self):
        """Datagrams received so far (queued ones are read now)."""
        while True:
            try:
                self.sock.recv(65535)
                self.read += 1
            except BlockingIOError:
                break
        return self.read + self.drops()

    def stop(self):
        self.sock.close()


UNITS = {"us": 1.0, "ms": 1000.0, "s": 1000000.0}


def to_us(text):
    match = re.match(r"([\d.]+)(us|ms|s)$", text)
    return float(match.group(1)) * UNITS[match.group(2)]


def wrk(url, seconds, connections):
    out = subprocess.run(["wrk", "-t", "1" if connections == 1 else "2", "-c", str(connections),
                          "-d", "%ds" % seconds, "--latency", url],
                         capture_output=True, text=True, timeout=seconds + 30, check=True).stdout
    rps = float(re.search(r"Requests/sec:\s+([\d.]+)", out).group(1))
    requests = int(re.search(r"(\d+) requests in", out).group(1))
    avg = to_us(re.search(r"^\s*Latency\s+(\S+)", out, re.M).group(1))
    p50 = to_us(re.search(r"^\s*50%\s+(\S+)", out, re.M).group(1))
    p99 = to_us(re.search(r"^\s*99%\s+(\S+)", out, re.M).group(1))
    errors = re.search(r"Non-2xx or 3xx responses: (\d+)|Socket errors: (.*)", out)
    if errors:
        raise RuntimeError("wrk saw errors: %s" % errors.group(0))
    return {"rps": rps, "requests": requests, "avg_us": avg, "p50_us": p50, "p99_us": p99}


def worker_cpu_ns(master_pid):
    """CPU time the php-fpm workers have used so far, every thread (a
    reporter's too), in nanoseconds (/proc/PID/task/TID/schedstat): less
    sensitive to other load on the machine than requests per second."""
    children = subprocess.run(["pgrep", "-P", str(master_pid)], capture_output=True, text=True).stdout.split()
    total = 0
    for pid in children:
        try:
            for task in os.listdir("/proc/%s/task" % pid):
                with open("/proc/%s/task/%s/schedstat" % (pid, task)) as handle:
                    total += int(handle.read().split()[0])
        except (FileNotFoundError, ProcessLookupError):
            pass
    return total


def write_summary(summary):
    """Prints the summary lines, and appends them to BENCH_SUMMARY when set (`make bench` collects them)."""
    for line in summary:
        print(line)
    if os.environ.get("BENCH_SUMMARY"):
        with open(os.environ["BENCH_SUMMARY"], "a") as handle:
            handle.write("".join(line + "\n" for line in summary))


def setups(listener):
    udp = {"CORVIDINE_REPORTER": "udp", "CORVIDINE_COLLECTOR": "127.0.0.1:%d" % listener.port,
           # Large buckets: the rate limit must not be what decides.
           "CORVIDINE_TOKEN_BUCKET_CAPACITY": "10000000", "CORVIDINE_TOKEN_BUCKET_RATE": "10000000"}
    return [
        ("off", {}, udp, False),
        ("sampled", {"corvidine.sample_rate": "1000000"}, udp, True),
        ("unsampled", {"corvidine.sample_rate": "0"}, udp, True),
    ]


def measure(php, name, ini, env, load, listener):
    prefix = ["taskset", "-c", str(PHP_CPU)] if PIN else None
    server = harness.FpmServer(php, ini, env, children=CHILDREN, fpm_prefix=prefix, load_module=load)
    server.start()
    try:
        url = server.url("/index.php")
        check = harness.curl(url)
        if check.status != 200:
            raise RuntimeError("%s: status %d" % (name, check.status))
        has_header = check.header("X-Trace") is not None
        if has_header != load:
            raise RuntimeError("%s: X-Trace header %s" % (name, "present" if has_header else "missing"))
        wrk(url, 2, CONNECTIONS)  # warm-up: workers, connections, caches
        before = listener.count()
        cpu_before = worker_cpu_ns(server.processes[0].pid)
        load_run = wrk(url, SECONDS, CONNECTIONS)
        load_run["cpu_us"] = (worker_cpu_ns(server.processes[0].pid) - cpu_before) / 1000.0 / load_run["requests"]
        latency_run = wrk(url, LATENCY_SECONDS, 1)
        server_crashes = server.crashes()
        if server_crashes:
            raise RuntimeError("%s: %s" % (name, server_crashes))
        return load_run, latency_run, listener.count() - before, load_run["requests"] + latency_run["requests"]
    finally:
        server.stop()


def main(argv):
    if len(argv) != 2:
        print(__doc__, file=sys.stderr)
        return 2
    php = harness.Php("nts", argv[1])
    if PIN:
        # nginx and wrk inherit this CPU.
        os.sched_setaffinity(0, {FRONT_CPU})
        print("CPUs: php-fpm on %d, nginx and wrk on %d; %d php-fpm workers" % (PHP_CPU, FRONT_CPU, CHILDREN))
    else:
        print("CPUs: not pinned (%d available); %d php-fpm workers" % (len(CPUS), CHILDREN))
    listener = UdpListener()
    results = {}
    try:
        for round_number in range(ROUNDS):
            # Every other round backwards, so that no set-up always runs
            # furthest from its round's "off".
            order = setups(listener)
            if round_number % 2 == 1:
                order.reverse()
            for name, ini, env, load in order:
                load_run, latency_run, datagrams, requests = measure(php, name, ini, env, load, listener)
                print("round %d %-9s %9.0f req/s   worker CPU %6.1f us/req   latency avg %7.1f us  p50 %7.1f us"
                      "   events %d for %d requests"
                      % (round_number + 1, name, load_run["rps"], load_run["cpu_us"], latency_run["avg_us"],
                         latency_run["p50_us"], datagrams, requests), flush=True)
                results.setdefault(name, []).append((load_run, latency_run, datagrams, requests))
    finally:
        listener.stop()

    def median(name, run, key):
        return statistics.median(r[run][key] for r in results[name])

    rps = {name: median(name, 0, "rps") for name in results}
    avg = {name: median(name, 1, "avg_us") for name in results}
    p50 = {name: median(name, 1, "p50_us") for name in results}
    cpu = {name: median(name, 0, "cpu_us") for name in results}
    events_per_request = (sum(r[2] for r in results["sampled"]) / max(1, sum(r[3] for r in results["sampled"])))

    def round_ratios(name, key, inverse=False):
        """Per round, the set-up against the "off" run of the same round."""
        pairs = zip(results[name], results["off"])
        if inverse:  # CPU per request: less is better
            return [off[0][key] / run[0][key] for run, off in pairs]
        return [run[0][key] / off[0][key] for run, off in pairs]

    print()
    print("%-10s %12s %16s %14s %14s" % ("setup", "req/s", "worker CPU (us)", "lat avg (us)", "lat p50 (us)"))
    for name in ("off", "sampled", "unsampled"):
        print("%-10s %12.0f %16.1f %14.1f %14.1f" % (name, rps[name], cpu[name], avg[name], p50[name]))
    print()
    summary = []
    for name, target in (("sampled", TARGET_SAMPLED), ("unsampled", TARGET_UNSAMPLED)):
        ratios = round_ratios(name, "rps")
        cpu_ratios = round_ratios(name, "cpu_us", inverse=True)
        ratio = statistics.median(ratios)
        verdict = "met" if ratio >= target else "NOT met"
        if min(ratios) < target <= max(ratios):
            verdict += " (the spread straddles the target)"
        summary.append("wrk %-9s req/s ratio %.3f median of %d rounds, spread %.3f..%.3f (target >= %.2f) %s"
                       % (name, ratio, len(ratios), min(ratios), max(ratios), target, verdict))
        summary.append("wrk %-9s worker CPU ratio %.3f median, spread %.3f..%.3f"
                       % (name, statistics.median(cpu_ratios), min(cpu_ratios), max(cpu_ratios)))
    write_summary(summary)
    print("added latency per sampled request: %.1f us (p50), %.1f us (avg); per unsampled: %.1f us (p50)"
          % (p50["sampled"] - p50["off"], avg["sampled"] - avg["off"], p50["unsampled"] - p50["off"]))
    print("added worker CPU per request: %.1f us sampled, %.1f us unsampled"
          % (cpu["sampled"] - cpu["off"], cpu["unsampled"] - cpu["off"]))
    print("events received per sampled request: %.2f (entry and exit: 2)" % events_per_request)
    print("believe: the median ratios above, the worker CPU ratio where req/s swings (it leaves out time spent\n"
          "waiting for a CPU); for steering, the instruction counts of tools/bench-request-cost.sh")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
