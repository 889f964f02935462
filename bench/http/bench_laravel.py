"""What Laravel tracing costs a real Laravel 8 request: wrk against the
application of tests/integration/laravel/app8 (nginx + php-fpm, opcache on),
in four set-ups measured in turns:

  off            the extension not loaded
  traced         loaded, every request sampled, Laravel spans on (UDP
                 reporter to a local listener)
  traced-plain   the same with corvidine.enable_laravel_tracing=0
  unsampled      loaded, Laravel tracing on, no request sampled: what the
                 call observer and the dispatcher cost without events

Prints requests per second, worker CPU per request and their ratios against
"off". Target: traced within 1.10 of off (worker CPU per request).

    /usr/bin/python3 bench/http/bench_laravel.py MODULE
Environment: as bench_http.py (BENCH_SECONDS, BENCH_ROUNDS, BENCH_CONNECTIONS,
BENCH_CHILDREN).
"""
import os
import statistics
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
sys.path.insert(0, os.path.join(HERE, "..", "..", "tests", "integration"))

import bench_http  # noqa: E402
import harness  # noqa: E402
import laravel_app  # noqa: E402

TARGET = 1.10


def measure(php, name, ini, env, load):
    server = laravel_app.Laravel8Server(php, ini, env, children=bench_http.CHILDREN, load_module=load)
    server.start()
    try:
        url = server.url("/shop")
        check = harness.curl(url)
        if check.status != 200 or (check.header("X-Trace") is not None) != load:
            raise RuntimeError("%s: status %d, X-Trace %s" % (name, check.status, check.header("X-Trace")))
        bench_http.wrk(url, 2, bench_http.CONNECTIONS)
        cpu_before = bench_http.worker_cpu_ns(server.processes[0].pid)
        run = bench_http.wrk(url, bench_http.SECONDS, bench_http.CONNECTIONS)
        run["cpu_us"] = (bench_http.worker_cpu_ns(server.processes[0].pid) - cpu_before) / 1000.0 / run["requests"]
        if server.crashes():
            raise RuntimeError("%s: %s" % (name, server.crashes()))
        return run
    finally:
        server.stop()


def main(argv):
    if len(argv) != 2:
        print(__doc__, file=sys.stderr)
        return 2
    php = harness.Php("nts", argv[1])
    listener = bench_http.UdpListener()
    udp = {"CORVIDINE_REPORTER": "udp", "CORVIDINE_COLLECTOR": "127.0.0.1:%d" % listener.port,
           "CORVIDINE_TOKEN_BUCKET_CAPACITY": "10000000", "CORVIDINE_TOKEN_BUCKET_RATE": "10000000"}
    traced = {"corvidine.sample_rate": "1000000"}
    setups = [("off", {}, udp, False), ("traced", traced, udp, True),
              ("traced-plain", dict(traced, **{"corvidine.enable_laravel_tracing": "0"}), udp, True),
              ("unsampled", {"corvidine.sample_rate": "0"}, udp, True)]
    results = {}
    try:
        for round_number in range(bench_http.ROUNDS):
            for name, ini, env, load in setups:
                run = measure(php, name, ini, env, load)
                print("round %d %-13s %8.0f req/s   worker CPU %7.1f us/req" % (round_number + 1, name, run["rps"],
                                                                               run["cpu_us"]), flush=True)
                results.setdefault(name, []).append(run)
    finally:
        listener.stop()
    rps = {n: statistics.median(r["rps"] for r in runs) for n, runs in results.items()}
    cpu = {n: statistics.median(r["cpu_us"] for r in runs) for n, runs in results.items()}
    print()
    for name, _, _, _ in setups:
        print("%-13s %8.0f req/s (%.3f of off)   worker CPU %7.1f us/req (%.3f of off)"
              % (name, rps[name], rps[name] / rps["off"], cpu[name], cpu[name] / cpu["off"]))
    ratio = cpu["traced"] / cpu["off"]
    print("traced Laravel request: %.3f of not loaded in worker CPU (target <= %.2f) %s"
          % (ratio, TARGET, "met" if ratio <= TARGET else "NOT met"))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
