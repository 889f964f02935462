"""The development Collector end to end: the demo shop (nginx + php-fpm, MariaDB, Redis, the inventory service)
with the agent on its ssl reporter, and the Collector's page read by headless Chromium as a person would see it:
the trace list, a trace's spans in order across both services with the sanitized query and the errors, the
percentile table from the agent's histograms, and the profile. Screenshots go to build-logs/."""
import html.parser
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

import harness

ROOT = os.path.dirname(os.path.dirname(harness.HERE))
sys.path.insert(0, os.path.join(ROOT, "tools", "demo"))
CHROMIUM = shutil.which("chromium")
LOGS = os.path.join(ROOT, "build-logs")
shop = None


def setUpModule():
    global shop
    php = harness.CURRENT_PHP
    missing = [what for what, ok in (("php-fpm", php.fpm), ("chromium", CHROMIUM), ("NTS PHP", php.flavour == "nts"),
                                     ("mariadb", harness.MariaDB.available()),
                                     ("redis-server", harness.RedisServer.available()),
                                     ("phpredis", harness.key_value_ini(php))) if not ok]
    if missing:
        raise unittest.SkipTest("the demo shop needs %s" % ", ".join(missing))
    import serve_demo
    shop = serve_demo.DemoShop(php.module, tempfile.mkdtemp(prefix="corvidine-it-dev-"))
    try:
        shop.start()
        shop.traffic()
        # A worker's first metrics document waits for the full minute (its interval is known only after it).
        shop.wait_for(len(serve_demo.TRAFFIC), metrics_seconds=75)
    except BaseException:
        shop.stop()
        raise


def tearDownModule():
    if shop is not None:
        crashes = shop.crashes()
        shop.stop()
        shutil.rmtree(shop.collector.directory, ignore_errors=True)
        assert not crashes, crashes


class Tables(html.parser.HTMLParser):
    """The text of every table cell, per table class: {class: [[cell, ...], ...]} (header rows left out), and
    the indentation of each row's first cell as the page draws it (its padding-left in px)."""

    def __init__(self, dom):
        super().__init__()
        self.tables, self.indents, self.current, self.row, self.cell = {}, {}, None, None, None
        self.feed(dom)

    def handle_starttag(self, tag, attrs):
        if tag == "table":
            name = dict(attrs).get("class", "")
            self.current, self.indent = self.tables.setdefault(name, []), self.indents.setdefault(name, [])
        elif tag == "tr" and self.current is not None:
            self.row = []
        elif tag == "td" and self.row is not None:
            self.cell = ""
            if not self.row:
                padding = re.search(r"padding-left:\s*(\d+)px", dict(attrs).get("style") or "")
                self.indent.append(int(padding.group(1)) if padding else 0)

    def handle_endtag(self, tag):
        if tag == "td" and self.cell is not None:
            self.row.append(self.cell.strip())
            self.cell = None
        elif tag == "tr" and self.row:
            self.current.append(self.row)
            self.row = None
        elif tag == "table":
            self.current = None

    def handle_data(self, data):
        if self.cell is not None:
            self.cell += data


def browser(path, screenshot=None):
    """The page's DOM after its scripts ran, as Chromium has it; optionally a screenshot into build-logs/."""
    profile = tempfile.mkdtemp(prefix="corvidine-it-chromium-")
    command = [CHROMIUM, "--headless", "--no-sandbox", "--disable-gpu", "--user-data-dir=" + profile,
               "--virtual-time-budget=10000", "--window-size=1280,1000"]
    try:
        if screenshot:
            os.makedirs(LOGS, exist_ok=True)
            subprocess.run(command + ["--screenshot=" + os.path.join(LOGS, screenshot), shop.web.url + path],
                           capture_output=True, timeout=120, check=True)
        return subprocess.run(command + ["--dump-dom", shop.web.url + path], capture_output=True, text=True,
                              timeout=120, check=True).stdout
    finally:
        shutil.rmtree(profile, ignore_errors=True)


class DevCollectorPage(unittest.TestCase):
    def trace_of(self, url):
        tasks = [t["task"] for t in shop.collector.store.traces() if t["url"] == url]
        self.assertTrue(tasks, "no trace of %s" % url)
        return Tables(browser("#/trace/" + tasks[0], "dev-collector-%s.png" % url.strip("/").split(".")[0]))

    def test_trace_list_and_percentiles(self):
        tables = Tables(browser("", "dev-collector-home.png")).tables
        # (time, transaction, URL, status, ms, events, hosts, services, badges): every request sent, its status.
        seen = {(row[2], row[3]) for row in tables.get("traces", [])}
        checkout = [row[7] for row in tables["traces"] if row[2] == "/checkout.php"][0]
        self.assertEqual(checkout.split(", "), sorted(s.url("")[len("http://"):] for s in shop.servers))
        for url, status in (("/index.php", "200"), ("/product.php?id=9", "404"), ("/checkout.php", "200"),
                            ("/broken.php", "500")):
            self.assertIn((url, status), seen)
        # (transaction, count, p50, p90, p95, p99, max), a service column first when the histograms name one.
        percentiles = {row[-7]: row[-6:] for row in tables.get("percentiles", [])}
        self.assertTrue(percentiles, "no percentile table (metrics received: %s)" % shop.collector.store.counts())
        for transaction, least in (("/checkout.php", 3), ("/product.php", 4), ("/index.php", 2)):
            with self.subTest(transaction=transaction):
                row = percentiles[transaction]
                self.assertGreaterEqual(int(row[0]), least)
                p50, p90, p95, p99, top = map(float, row[1:])
                self.assertTrue(0 < p50 <= p90 <= p95 <= p99 <= top, row)
        # checkout waits for the inventory service, which sleeps 20 ms: no fast checkout.
        self.assertGreater(float(percentiles["/checkout.php"][1]), 20.0)

    def test_checkout_waterfall_across_services(self):
        page = self.trace_of("/checkout.php")
        spans = [(row[0].split(" ", 1)[0], row[0], row[1]) for row in page.tables["waterfall"]]
        expected = [("PHP", "GET /checkout.php"), ("phpredis", "connect"), ("phpredis", "get catalog"),
                    ("cURL", "/stock.php?ids=1,2,3 → 200"), ("PHP", "GET /stock.php"), ("phpredis", "connect"),
                    ("phpredis", "hget"), ("phpredis", "hget"), ("phpredis", "hget"),
                    ("php_http", "/warehouse.php → 200"), ("PHP", "GET /warehouse.php"),
                    ("php_pdo", "INSERT INTO orders (total, receipt) VALUES (?, ?)")]
        self.assertEqual([layer for layer, _, _ in spans], [layer for layer, _ in expected])
        # Nesting: the remote service's request under the cURL call, the warehouse under the HTTP stream call.
        depths = [0, 1, 1, 1, 2, 3, 3, 3, 3, 3, 4, 1]
        self.assertEqual(page.indents["waterfall"], [8 + 16 * d for d in depths])
        for (layer, text, service), (_, shown) in zip(spans, expected):
            self.assertIn(shown, text)
        services = [service for _, _, service in spans]
        self.assertEqual(services[4:11], [shop.servers[0].url("")[len("http://"):]] * 7)
        self.assertEqual({services[0]} | set(services[1:4]) | {services[11]}, {shop.shop.url("")[len("http://"):]})
        # A 30 ms request sampled every 20 ms: at least one stack, whose outermost frame is a script's top level.
        frames = [row[0] for row in page.tables.get("frames", [])]
        self.assertTrue([f for f in frames if re.fullmatch(r"\{main\} \((checkout|stock|warehouse)\.php:\d+\)", f)],
                        frames)

    def test_errors_shown_on_their_span(self):
        dom = browser("#/trace/" + [t["task"] for t in shop.collector.store.traces() if t["url"] == "/broken.php"][0])
        rows = [r[0] for r in Tables(dom).tables["waterfall"]]
        # The request's span, its two errors under it, then the failed query's span with its sanitized text.
        self.assertEqual(len(rows), 4, rows)
        self.assertTrue(rows[0].startswith("PHP GET /broken.php → 500"), rows)
        self.assertIn("stock count looks stale", rows[1])
        self.assertIn("Uncaught RuntimeException: payment backend refused the card", rows[2])
        self.assertEqual(rows[3], "php_pdo SELECT * FROM no_such_table WHERE id = 0")
