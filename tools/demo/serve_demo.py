#!/usr/bin/python3
"""`make run`: the demo shop (tools/demo/app) through nginx + php-fpm with a
MariaDB, a Redis and a second service (tools/demo/inventory, its own nginx +
php-fpm, called over HTTP), the agent on its `ssl` reporter sending to the
local development Collector (tools/collector/dev_collector.py); a little
traffic, then the web page's address and a text summary.

It keeps serving until Ctrl-C when standard input is a terminal, and ends
after the summary otherwise or with CORVIDINE_DEMO_EXIT=1. The Collector
keeps its CA, settings and database in build-dev-collector/ (or
CORVIDINE_DEV_DIR); CORVIDINE_DEV_WEB_PORT picks the page's port.

Usage: serve_demo.py PATH/TO/corvidine.so
"""
import os
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path.insert(0, os.path.join(ROOT, "tests", "integration"))
sys.path.insert(0, os.path.join(ROOT, "tools", "collector"))

import harness  # noqa: E402
from dev_collector import DevCollector, WebPage  # noqa: E402

DEMO = os.path.join(ROOT, "tools", "demo")
# Shared modules the demo needs, in load order (a -n run loads none).
MODULES = ("curl", "mysqlnd", "mysqli", "pdo", "pdo_mysql", "igbinary", "msgpack", "redis")
SEED = """<?php
$pdo = new PDO('mysql:host=127.0.0.1;port=' . getenv('DEMO_DB_PORT') . ';dbname=test', 'root', '');
$pdo->exec('CREATE TABLE IF NOT EXISTS products (id INT PRIMARY KEY, name VARCHAR(40), price DECIMAL(8,2))');
$pdo->exec('CREATE TABLE IF NOT EXISTS orders (id INT AUTO_INCREMENT PRIMARY KEY, total DECIMAL(8,2), receipt CHAR(12))');
$pdo->exec("REPLACE INTO products VALUES (1, 'kettle', 24.90), (2, 'teapot', 31.50), (3, 'cups (6)', 18.00)");
$redis = new Redis();
$redis->connect('127.0.0.1', (int)getenv('DEMO_REDIS_PORT'));
$redis->del('catalog');
$redis->hMSet('stock', ['1' => 7, '2' => 0, '3' => 12]);
"""
TRAFFIC = ["/index.php", "/product.php?id=1", "/product.php?id=2", "/product.php?id=9", "/checkout.php",
           "/index.php", "/checkout.php", "/broken.php", "/product.php?id=3", "/checkout.php"]


class DemoShop:
    """The Collector, the databases and the two services, started together and stopped together."""

    def __init__(self, module, directory, web_port=0, profiling=True, log=None):
        self.php = harness.Php("nts", module)
        self.collector = DevCollector(directory)
        self.web = WebPage(self.collector.store, web_port)
        self.servers, self.daemons = [], []
        self.profiling, self.log = profiling, log or (lambda message: None)
        self.since = 0.0  # when the traffic began: the traces to wait for came after it

    def agent_env(self, service):
        return {"CORVIDINE_REPORTER": "ssl", "CORVIDINE_COLLECTOR": "127.0.0.1:%d" % self.collector.port,
                "CORVIDINE_TRUSTEDPATH": self.collector.trusted, "CORVIDINE_CLOUD_METADATA": "off",
                "CORVIDINE_SERVICE_KEY": "0123456789abcdef0123456789abcdef:" + service,
                "CORVIDINE_FLUSH_MAX_WAIT_TIME": "2000"}

    def ini(self):
        ini = harness.shared_modules(self.php, MODULES)
        ini.update({"corvidine.max_ready_wait_time": "3000",
                    "corvidine.enable_profiling": "1" if self.profiling else "0"})
        return ini

    def start(self, **services):
        self.start_backends()
        return self.start_services(**services)

    def start_backends(self):
        """MariaDB and Redis, seeded."""
        self.db, self.redis = harness.MariaDB().start(), harness.RedisServer().start()
        self.daemons = [self.redis, self.db]
        self.ports = {"DEMO_DB_PORT": str(self.db.port), "DEMO_REDIS_PORT": str(self.redis.port)}
        seed = subprocess.run([self.php.cli] + self.php.ini_args(self.ini(), "/dev/null", False) + ["-r", SEED[5:]],
                              env=dict(os.environ, **self.ports), capture_output=True, text=True, timeout=60)
        if seed.returncode != 0 or seed.stdout.strip():
            raise RuntimeError("seeding the demo data failed: %s%s" % (seed.stdout, seed.stderr))

    def start_services(self, load_module=True, ini=None, children=2, fpm_prefix=None):
        """The inventory service, then the shop (whose server this returns); ini: more INI entries for both."""
        for name, root in (("inventory", os.path.join(DEMO, "inventory")), ("shop", os.path.join(DEMO, "app"))):
            env = dict(self.agent_env(name), **self.ports)
            if self.servers:
                env["DEMO_INVENTORY_URL"] = self.servers[0].url("")
            server = harness.FpmServer(self.php, dict(self.ini(), **(ini or {})), env, children=children, root=root,
                                       load_module=load_module, fpm_prefix=fpm_prefix)
            self.servers.append(server)
            server.start()
        return self.shop

    def stop_services(self):
        for server in reversed(self.servers):
            server.stop()
        self.servers = []

    @property
    def shop(self):
        return self.servers[-1]

    def traffic(self, paths=TRAFFIC):
        """Sends the requests one by one; returns [(path, status, X-Trace)]."""
        self.since, answers = time.time(), []
        for path in paths:
            response = harness.curl(self.shop.url(path))
            answers.append((path, response.status, response.header("X-Trace")))
            self.log("GET %-22s -> %d" % (path, response.status))
        return answers

    def wait_for(self, traces, metrics_seconds=0.0, timeout=20.0):
        """Waits until `traces` traces have their root span closed, then up to metrics_seconds for the metrics
        documents sent after that (every worker sends on the same clock tick); returns the store's counts."""
        deadline = time.time() + timeout
        store = self.collector.store
        while time.time() < deadline and sum(1 for t in store.traces(since=self.since) if t["transaction"]) < traces:
            time.sleep(0.2)
        done, deadline = time.time(), time.time() + metrics_seconds
        while time.time() < deadline and store.last_received("metrics") < done:
            time.sleep(0.5)
        if store.last_received("metrics") >= done:
            time.sleep(1.0)  # the other workers' documents of the same tick
        return store.counts()

    def crashes(self):
        return [c for s in self.servers for c in s.crashes()]

    def stop(self):
        self.stop_services()
        for daemon in self.daemons:
            daemon.stop()
        self.servers, self.daemons = [], []
        self.web.stop()
        self.collector.stop()


def summary(store, url, since=0.0, out=sys.stdout):
    counts = store.counts()
    out.write("\n== traces at %s (this run's below)\n" % url)
    out.write("received: %s\n\n" % ", ".join("%s %d" % kv for kv in sorted(counts.items())))
    out.write("%-40s %-20s %9s %6s %7s  %s\n" % ("transaction", "url", "ms", "spans", "errors", "services"))
    for t in store.traces(20, since):
        spans = store.trace(t["task"])
        out.write("%-40s %-20s %9.1f %6d %7d  %s\n" % (t["transaction"][:40], t["url"][:20], t["duration"] / 1000.0,
                                                      len(spans), t["errors"],
                                                      " ".join(sorted({s["service"] for s in spans}))))
    rows = store.percentiles()["rows"]
    out.write("\nresponse times (ms) from the metrics histograms (all requests so far):\n")
    if not rows:
        out.write("  none yet (the agent sends metrics every MetricsFlushInterval seconds)\n")
    for r in rows:
        p = r["percentiles"]
        out.write("  %-12s %-36s n=%-5d p50 %7.1f  p90 %7.1f  p99 %7.1f  max %7.1f\n"
                  % (r["service"], r["transaction"][:36], r["count"], p["p50"] / 1000.0, p["p90"] / 1000.0,
                     p["p99"] / 1000.0, r["max"] / 1000.0))
    leaves = {}
    for s in store.profile():
        leaf = s["stack"][-1] if s["stack"] else "?"
        leaves[leaf] = leaves.get(leaf, 0) + s["samples"]
    if leaves:
        out.write("\nprofiling samples by innermost frame (all requests so far):\n")
        for leaf, samples in sorted(leaves.items(), key=lambda kv: -kv[1])[:6]:
            out.write("  %5d  %s\n" % (samples, leaf))


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    for name in ("MariaDB", "RedisServer"):
        if not getattr(harness, name).available():
            sys.exit("the demo needs %s (tools/install-deps.sh)" % name)
    directory = os.environ.get("CORVIDINE_DEV_DIR", os.path.join(ROOT, "build-dev-collector"))
    shop = DemoShop(sys.argv[1], directory, int(os.environ.get("CORVIDINE_DEV_WEB_PORT", "0")), log=print)
    try:
        shop.start()
        print("== the shop on %s, the inventory service on %s, agent -> dev Collector 127.0.0.1:%d (trusts %s)\n"
              % (shop.shop.url("/"), shop.servers[0].url("/"), shop.collector.port, shop.collector.trusted))
        shop.traffic()
        print("\n== waiting for the traces, and for the metrics (a worker's first come on the full minute)")
        shop.wait_for(len(TRAFFIC), metrics_seconds=75)
        summary(shop.collector.store, shop.web.url, shop.since)
        if shop.crashes():
            print("php-fpm workers crashed: %s" % shop.crashes())
            return 1
        if sys.stdin.isatty() and os.environ.get("CORVIDINE_DEMO_EXIT") != "1":
            print("\nopen %s in a browser; the shop stays up (%s). Ctrl-C ends." % (shop.web.url, shop.shop.url("/")))
            while True:
                time.sleep(3600)
    except KeyboardInterrupt:
        print()
    finally:
        shop.stop()
    return 0


if __name__ == "__main__":
    sys.exit(main())
