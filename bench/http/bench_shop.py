"""The whole agent on a real application: wrk against the demo shop's product
page (nginx + php-fpm, a mysqli query on MariaDB, a Redis call), in three
set-ups measured in one run:

  off        the extension not loaded
  unsampled  loaded on its ssl reporter, no request sampled (corvidine.sample_rate 0)
  sampled    loaded, every request sampled and sent to the local development
             Collector (tools/collector/dev_collector.py, in this process)

For each: requests per second and p99 latency under load (wrk, CONNECTIONS
connections). As bench_http.py: the set-ups take turns over ROUNDS rounds,
each round's ratios are taken against the "off" run of the same round, the
summary gives their median and spread; php-fpm runs on one CPU and
everything else (nginx, wrk, MariaDB, Redis, the Collector) on another.
The Collector's threads run at the lowest priority, standing for a Collector
on another machine: it takes only CPU time the others leave.
Ratios: throughput = req/s of the set-up / req/s off; p99 = p99 off / p99 of
the set-up; worker CPU = CPU time per request of the php-fpm workers (every
thread, the reporter's included) off / set-up. 1.0 when the agent costs
nothing, lower is worse.
Loopback only; every run is bounded by its duration.

    /usr/bin/python3 bench/http/bench_shop.py MODULE
Environment: BENCH_SECONDS (8), BENCH_ROUNDS (5), BENCH_CONNECTIONS (8),
BENCH_SUMMARY (a file the summary lines are also written to).
"""
import json
import os
import statistics
import sys
import shutil
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "..", "tools", "demo"))
sys.path.insert(0, HERE)

import bench_http  # noqa: E402  (CPU pinning, wrk's time units)
import harness  # noqa: E402
import serve_demo  # noqa: E402
import dev_collector  # noqa: E402  (on the path serve_demo sets)

SECONDS = int(os.environ.get("BENCH_SECONDS", "8"))
ROUNDS = int(os.environ.get("BENCH_ROUNDS", "5"))
CONNECTIONS = int(os.environ.get("BENCH_CONNECTIONS", "8"))
PAGE = "/product.php?id=1"
TARGET_THROUGHPUT, TARGET_P99 = 0.97, 0.90
SETUPS = [("off", False, {}), ("unsampled", True, {"corvidine.sample_rate": "0"}),
          ("sampled", True, {"corvidine.sample_rate": "1000000"})]


def main(argv):
    if len(argv) != 2:
        print(__doc__, file=sys.stderr)
        return 2
    directory = tempfile.mkdtemp(prefix="corvidine-bench-shop-")
    with open(os.path.join(directory, "settings.json"), "w") as handle:
        # Large buckets: the rate limit must not be what decides.
        json.dump(dict(dev_collector.DEFAULT_SETTINGS, bucket_capacity=1e7, bucket_rate=1e7), handle)
    pin = bench_http.PIN
    if pin:
        os.sched_setaffinity(0, {bench_http.FRONT_CPU})  # nginx, wrk, the databases and the Collector inherit it
        print("CPUs: php-fpm on %d, the rest on %d" % (bench_http.PHP_CPU, bench_http.FRONT_CPU))
    shop = serve_demo.DemoShop(argv[1], directory, profiling=False)
    shop.collector.background = True
    results = {}
    try:
        shop.start_backends()
        for round_number in range(ROUNDS):
            order = SETUPS if round_number % 2 == 0 else list(reversed(SETUPS))
            for name, load, ini in order:
                server = shop.start_services(load_module=load, ini=ini, children=bench_http.CHILDREN,
                                             fpm_prefix=["taskset", "-c", str(bench_http.PHP_CPU)] if pin else None)
                try:
                    url = server.url(PAGE)
                    check = harness.curl(url)
                    if check.status != 200 or (check.header("X-Trace") is not None) != load:
                        raise RuntimeError("%s: status %d, X-Trace %s" % (name, check.status, check.header("X-Trace")))
                    bench_http.wrk(url, 2, CONNECTIONS)  # warm-up: workers, connections, caches
                    events = shop.collector.store.counts().get("events", 0)
                    cpu = sum(bench_http.worker_cpu_ns(s.processes[0].pid) for s in shop.servers)
                    run = bench_http.wrk(url, SECONDS, CONNECTIONS)
                    run["cpu_us"] = (sum(bench_http.worker_cpu_ns(s.processes[0].pid) for s in shop.servers) - cpu) / 1000.0 / \
                        (run["rps"] * SECONDS)
                    run["events"] = shop.collector.store.counts().get("events", 0) - events
                    if name == "sampled" and run["events"] == 0:
                        raise RuntimeError("sampled: no event reached the Collector")
                    if shop.crashes():
                        raise RuntimeError("%s: %s" % (name, shop.crashes()))
                finally:
                    shop.stop_services()
                print("round %d %-9s %8.0f req/s   p99 %8.1f us   worker CPU %6.1f us/req   events stored %d"
                      % (round_number + 1, name, run["rps"], run["p99_us"], run["cpu_us"], run["events"]), flush=True)
                results.setdefault(name, []).append(run)
    finally:
        shop.stop()
        shutil.rmtree(directory, ignore_errors=True)

    summary = []
    for name in ("unsampled", "sampled"):
        pairs = list(zip(results[name], results["off"]))
        for what, ratios, target in (
                ("throughput", [run["rps"] / off["rps"] for run, off in pairs], TARGET_THROUGHPUT),
                ("p99", [off["p99_us"] / run["p99_us"] for run, off in pairs], TARGET_P99),
                ("worker CPU", [off["cpu_us"] / run["cpu_us"] for run, off in pairs], None)):
            ratio = statistics.median(ratios)
            goal = "" if target is None else " (goal >= %.2f) %s" % (target, "met" if ratio >= target else "NOT met")
            summary.append("shop %-9s %-10s ratio %.3f median of %d rounds, spread %.3f..%.3f%s"
                           % (name, what, ratio, len(ratios), min(ratios), max(ratios), goal))
    print()
    for name in ("off", "unsampled", "sampled"):
        print("%-10s %8.0f req/s   p99 %8.1f us (medians)" % (name, statistics.median(r["rps"] for r in results[name]),
                                                            statistics.median(r["p99_us"] for r in results[name])))
    bench_http.write_summary(summary)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
