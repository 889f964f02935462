"""Request threads never wait for the Collector: wrk against nginx +
php-fpm with the ssl reporter, every request traced, while the test
Collector is up, down (stopped after its settings were taken) or
black-holed (takes the posts, never answers). Prints latency p50/p99 per
state and the workers' largest RSS after the run, which the bounded queues
must keep flat. Loopback only; the cloud lookup is off.

    /usr/bin/python3 bench/http/collector_states.py MODULE
Environment: BENCH_SECONDS (20), BENCH_CONNECTIONS (8), BENCH_CHILDREN (2).
"""
import os
import re
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "..", "tests", "integration"))

import harness  # noqa: E402
import test_collector_reporter as it  # noqa: E402
from bench_http import to_us  # noqa: E402

SECONDS = int(os.environ.get("BENCH_SECONDS", "20"))
CONNECTIONS = int(os.environ.get("BENCH_CONNECTIONS", "8"))
CHILDREN = int(os.environ.get("BENCH_CHILDREN", "2"))


def wrk(url):
    out = subprocess.run(["wrk", "-t", "2", "-c", str(CONNECTIONS), "-d", "%ds" % SECONDS, "--latency", url],
                         capture_output=True, text=True, timeout=SECONDS + 30, check=True).stdout
    return {"requests": int(re.search(r"(\d+) requests in", out).group(1)),
            "rps": float(re.search(r"Requests/sec:\s+([\d.]+)", out).group(1)),
            "p50": to_us(re.search(r"^\s*50%\s+(\S+)", out, re.M).group(1)),
            "p99": to_us(re.search(r"^\s*99%\s+(\S+)", out, re.M).group(1))}


def largest_worker_rss_kb(master):
    children = subprocess.run(["pgrep", "-P", str(master)], capture_output=True, text=True).stdout.split()
    largest = 0
    for pid in children:
        try:
            with open("/proc/%s/status" % pid) as handle:
                largest = max(largest, int(re.search(r"VmRSS:\s+(\d+)", handle.read()).group(1)))
        except (OSError, AttributeError):
            pass
    return largest


def run(state):
    collector = it.collector()
    fpm = it.server(collector.port, children=CHILDREN).start()
    try:
        if not it.traced_requests(collector, fpm, CHILDREN * 2, "warm"):
            raise RuntimeError("%s: no trace reached the Collector" % state)
        if state == "down":
            collector.stop()
        elif state == "black-holed":
            collector.script("postEvents", *(["HANG"] * 1000))
        rss_before = largest_worker_rss_kb(fpm.processes[0].pid)
        result = wrk(fpm.url("/index.php"))
        result["rss_before"] = rss_before
        result["rss_after"] = largest_worker_rss_kb(fpm.processes[0].pid)
        return result
    finally:
        fpm.stop()
        collector.stop()


def main(argv):
    if len(argv) != 2:
        print(__doc__, file=sys.stderr)
        return 2
    harness.CURRENT_PHP = harness.Php("nts", argv[1])
    print("%-12s %9s %9s %10s %10s %14s" % ("Collector", "requests", "req/s", "p50 (us)", "p99 (us)",
                                            "worker RSS KB"))
    for state in ("up", "down", "black-holed"):
        r = run(state)
        print("%-12s %9d %9.0f %10.0f %10.0f %7d->%6d" % (state, r["requests"], r["rps"], r["p50"], r["p99"],
                                                          r["rss_before"], r["rss_after"]), flush=True)
        time.sleep(1)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
