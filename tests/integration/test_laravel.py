"""Laravel spans: a Laravel-shaped fixture of our own under the CLI with every known version
(laravel/fixture), and a real Laravel 8 app on Debian's php-laravel-framework through nginx + php-fpm
(laravel/app8). Events read with python3-bson, written here as "layer label"."""
import os
import shutil
import tempfile
import time
import unittest

import harness
import laravel_app

LARAVEL = os.path.join(harness.HERE, "laravel")
FIXTURE = os.path.join(LARAVEL, "fixture")
CLI_INI = {"corvidine.enable_cli": "1", "corvidine.enable_laravel_tracing": "1"}

# The fixture's HTTP request, as every table sees it; the span of an [class, method] listener is only in Laravel 8's.
HTTP_BEFORE_LISTENERS = [
    "laravel_autoload entry", "laravel_autoload exit", "laravel_bootstrap entry",
    "laravel_service_provider_register entry", "laravel_service_provider_register exit",
    "laravel_service_provider_boot entry", "laravel_service_provider_boot exit",
    "laravel_bootstrap exit", "laravel_handle entry",
    "laravel_middleware_before entry", "laravel_middleware_before exit",
    "laravel_controller_execute entry", "laravel_view_render entry", "laravel_view_render exit",
    "laravel_event_listener entry", "laravel_event_listener exit",
]
ARRAY_LISTENER = ["laravel_event_listener entry", "laravel_event_listener exit"]
HTTP_AFTER_LISTENERS = (
    ["laravel_event_listener entry", "laravel_event_listener exit",   # the listener that throws
     "laravel_sql entry", "laravel_sql exit"] +
    ["laravel_cache entry", "laravel_cache exit"] * 14 +
    ["laravel error", "laravel error", "laravel_controller_execute exit",
     "laravel_middleware_after entry", "laravel_middleware_after exit", "laravel_handle exit",
     "laravel_respond entry", "laravel_respond exit", "laravel_terminate entry",
     "laravel_middleware_terminate entry", "laravel_middleware_terminate exit", "laravel_terminate exit",
     "laravel_event_listener entry", "laravel_event_listener exit"])

# (version text, LaravelVersion, has the array listener)
VERSIONS = [("5.5.10", "5.5", False), ("5.7.29", "5.7", False), ("5.8.38", "5.8", False),
            ("6.18.0", "6", False), ("8.83.26", "8", True)]

# Cache calls of the fixture's controller: (KVOp, KVKey, Flavor, RemoteHost).
CACHE = [("get", "k-get", "file", "127.0.0.1"), ("put", "k-put", "file", "127.0.0.1"),
         ("increment", "k-inc", "file", "127.0.0.1"), ("decrement", "k-dec", "file", "127.0.0.1"),
         ("forget", "k-forget", "file", "127.0.0.1"), ("flush", None, "file", "127.0.0.1"),
         ("get", "k-ArrayStore", "array", "127.0.0.1"), ("get", "k-ApcStore", "apc", "127.0.0.1"),
         ("get", "k-RedisStore", "redis", "redis.test"), ("get", "k-MemcachedStore", "memcached", "memcached.test"),
         ("get", "k-DatabaseStore", "database", "db.test"), ("get", "k-DynamoDbStore", "dynamodb", None),
         ("get", "k-NullStore", "unknown", None), ("get", "k-RedisStore", "redis", None)]

APP_OUTPUT = b"caught listener failed at line 46\n<p>view home</p>\nhttp done\n"


def named(events):
    return ["%s %s" % (e.get("Layer"), e.get("Label")) for e in events if e.get("Layer") != "PHP"]


def first(events, layer, label="entry"):
    return next(e for e in events if e.get("Layer") == layer and e.get("Label") == label)


class FixtureCase(unittest.TestCase):
    """The fixture under the CLI, pretending one Laravel version."""

    def run_fixture(self, version, mode="http", ini=None, env=None, with_module=True, prefix=None):
        directory = tempfile.mkdtemp(prefix="corvidine-laravel-")
        self.addCleanup(shutil.rmtree, directory, True)
        app = os.path.join(directory, "app")
        shutil.copytree(FIXTURE, app)
        framework = os.path.join(app, "framework.php")
        with open(framework) as handle:
            text = handle.read().replace("%VERSION%", version)
        harness.write_text(framework, text)
        self.result, traces, _ = harness.run_cli(harness.CURRENT_PHP, os.path.join(app, "index.php"),
                                                 dict(CLI_INI, **(ini or {})), env, [mode], directory, with_module,
                                                 prefix)
        return traces.events()

    def test_every_row_of_every_table(self):
        for version, label, array_listener in VERSIONS:
            with self.subTest(version=version):
                events = self.run_fixture(version)
                self.assertEqual(0, self.result.returncode, self.result.stderr)
                self.assertEqual(APP_OUTPUT, self.result.stdout)
                expected = HTTP_BEFORE_LISTENERS + (ARRAY_LISTENER if array_listener else []) + HTTP_AFTER_LISTENERS
                self.assertEqual(expected, named(events))
                self.check_keys(events, label)

    def check_keys(self, events, label):
        exit_ = events[-1]
        self.assertEqual(("PHP", "exit", "App\\Http\\Controllers\\Home.index"),
                         (exit_["Layer"], exit_["Label"], exit_["TransactionName"]))
        expected = {
            "laravel_bootstrap": ("exit", {"LaravelVersion": label, "LaravelRequestType": "Http"}),
            "laravel_service_provider_register": ("entry", {"ServiceProvider": "App\\Providers\\AppServiceProvider"}),
            "laravel_service_provider_boot": ("entry", {"ServiceProvider": "App\\Providers\\AppServiceProvider"}),
            "laravel_middleware_before": ("entry", {"Middleware": "App\\Http\\Middleware\\Stamp"}),
            "laravel_middleware_after": ("entry", {"Middleware": "App\\Http\\Middleware\\Stamp"}),
            "laravel_middleware_terminate": ("entry", {"Middleware": "App\\Http\\Middleware\\Stamp"}),
            "laravel_controller_execute": ("entry", {"Controller": "App\\Http\\Controllers\\Home", "Action": "index"}),
            "laravel_view_render": ("entry", {"View": "home"}),
            "laravel_sql": ("entry", {"Spec": "query", "Flavor": "sqlite", "Query": "select ? as x",
                                      "Database": "main", "RemoteHost": "localhost"}),
        }
        self.assertNotIn("Backtrace", first(events, "laravel_view_render"))  # laravel_enable_backtrace is off
        for layer, (kind, keys) in expected.items():
            event = first(events, layer, kind)
            self.assertEqual(keys, {k: event.get(k) for k in keys}, layer)
        listeners = [(e.get("Listener"), e.get("Handle"), e.get("Events"), e.get("Queued"))
                     for e in events if e.get("Layer") == "laravel_event_listener" and e["Label"] == "entry"]
        self.assertEqual(("App\\Listeners\\RecordOrder", "handle", "App\\Events\\OrderPlaced", 0), listeners[0])
        self.assertEqual(("App\\Listeners\\Explode", "handle", "failing", 0), listeners[-2])
        self.assertEqual(("App\\Listeners\\MailOrder", "handle", "App\\Events\\OrderPlaced", 1), listeners[-1])
        cache = [(e["KVOp"], e.get("KVKey"), e["Flavor"], e.get("RemoteHost"))
                 for e in events if e.get("Layer") == "laravel_cache" and e["Label"] == "entry"]
        self.assertEqual(CACHE, cache)
        errors = [e for e in events if e.get("Layer") == "laravel" and e["Label"] == "error"]
        self.assertRegex(errors[0]["ErrorMsg"], r"^exception 'RuntimeException' with message 'disk full' in .*app\.php:\d+$")
        self.assertIn("Backtrace", errors[0])
        self.assertRegex(errors[1]["ErrorMsg"], r"^exception 'LogicException' in .*app\.php:\d+$")

    def test_console_command(self):
        events = self.run_fixture("5.5.40", "console", ini={"corvidine.laravel_enable_backtrace": "1"})
        self.assertEqual(b"console done\n", self.result.stdout)
        self.assertEqual((True, False), ("Backtrace" in first(events, "laravel_handle", "entry"),
                                         "Backtrace" in first(events, "laravel_handle", "exit")))
        self.assertEqual("Console", first(events, "laravel_bootstrap", "exit")["LaravelRequestType"])
        self.assertEqual(["laravel_handle entry", "laravel_handle exit", "laravel_terminate entry",
                          "laravel_terminate exit"], named(events)[-4:])
        self.assertEqual("artisan-migrate", events[-1]["TransactionName"])

    def test_middleware_that_answers_itself(self):
        # Its after span was never opened: closing it closes every open span with a bare exit, and the kernel's
        # own exit then finds the stack empty and sends nothing.
        events = self.run_fixture("5.8.38", "blocked")
        self.assertEqual(["laravel_handle entry", "laravel_middleware_before entry",
                          "laravel_middleware_before exit", "laravel_handle exit",
                          "laravel_respond entry", "laravel_respond exit"], named(events)[8:14])
        self.assertEqual(["laravel_middleware_before", "laravel_handle"],
                         [e["Layer"] for e in events[11:13] if "Middleware" not in e])

    def test_unsupported_versions_fall_back_to_plain_tracing(self):
        for version in ("5.6.3", "7.0.0", "5.50.1", "60.0"):
            with self.subTest(version=version):
                events = self.run_fixture(version)
                self.assertEqual(APP_OUTPUT, self.result.stdout)
                self.assertEqual(["laravel_autoload entry", "laravel_autoload exit", "laravel_bootstrap entry",
                                  "laravel error", "laravel_bootstrap exit"], named(events))
                error = first(events, "laravel", "error")
                self.assertEqual(("ZqUnsupportedLaravel", "Laravel %s is not supported." % version),
                                 (error["ErrorClass"], error["ErrorMsg"]))

    def test_detection_gives_up_after_eight_first_runs(self):
        # The entry script, n other functions, then vendor/autoload.php.
        for warmup, detected in ((6, True), (7, False)):
            with self.subTest(warmup=warmup):
                events = self.run_fixture("5.8.0", env={"FIXTURE_WARMUP": str(warmup)})
                self.assertEqual(APP_OUTPUT, self.result.stdout)
                self.assertEqual(detected, "laravel_handle entry" in named(events))

    def test_switched_off(self):
        events = self.run_fixture("5.8.0", ini={"corvidine.enable_laravel_tracing": "0"})
        self.assertEqual(APP_OUTPUT, self.result.stdout)
        self.assertEqual([], named(events))
        self.assertEqual(["entry", "exit"], [e["Label"] for e in events])

    @unittest.skipUnless(shutil.which("valgrind"), "valgrind is not installed")
    def test_under_valgrind(self):
        # PHP's allocator off so that valgrind sees every block; the fatal error's unclosed spans too (their
        # order is checked on the real Laravel 8 below).
        for mode, status in (("http", 0), ("fatal", 255)):
            with self.subTest(mode=mode):
                events = self.run_fixture("6.0.4", mode, env={"USE_ZEND_ALLOC": "0"},
                                          prefix=["valgrind", "--error-exitcode=99", "--leak-check=no"])
                self.assertEqual(status, self.result.returncode, self.result.stderr[-4000:])
                self.assertIn("laravel_controller_execute exit", named(events))
                if mode == "fatal":
                    self.assertEqual("Unclosed span 'laravel_handle'", events[-3].get("ErrorMsg"))

    def test_application_sees_the_same_without_the_agent(self):
        self.run_fixture("8.83.26", with_module=False)
        self.assertEqual((0, APP_OUTPUT), (self.result.returncode, self.result.stdout))


# A request to /shop, provider spans left out: (layer label, keys).
SHOP = [
    ("laravel_autoload entry", {}), ("laravel_autoload exit", {}), ("laravel_bootstrap entry", {}),
    ("laravel_bootstrap exit", {"LaravelVersion": "8", "LaravelRequestType": "Http"}), ("laravel_handle entry", {}),
    ("laravel_middleware_before entry", {"Middleware": "App\\Http\\Middleware\\StampResponse"}),
    ("laravel_middleware_before exit", {}),
    ("laravel_controller_execute entry", {"Controller": "App\\Http\\Controllers\\ShopController", "Action": "index"}),
    ("laravel_event_listener entry", {"Listener": "App\\Listeners\\RecordOrder", "Handle": "handle",
                                      "Events": "App\\Events\\OrderPlaced", "Queued": 0}),
    ("laravel_event_listener exit", {}),
    ("laravel_sql entry", {"Spec": "query", "Flavor": "sqlite", "Query": "select ? as answer"}),
    ("php_pdo entry", {"Flavor": "sqlite"}), ("php_pdo exit", {}),  # the PDO wrapper inside the SQL span
    ("laravel_sql exit", {}),
    ("laravel_cache entry", {"KVOp": "put", "KVKey": "visits", "Flavor": "file", "RemoteHost": "127.0.0.1"}),
    ("laravel_cache exit", {}),
    ("laravel_cache entry", {"KVOp": "get", "KVKey": "visits", "Flavor": "file", "RemoteHost": "127.0.0.1"}),
    ("laravel_cache exit", {}),
    ("laravel_view_render entry", {"View": "shop"}), ("laravel_view_render exit", {}),
    ("laravel_controller_execute exit", {}),
    ("laravel_middleware_after entry", {"Middleware": "App\\Http\\Middleware\\StampResponse"}),
    ("laravel_middleware_after exit", {}), ("laravel_handle exit", {}),
    ("laravel_respond entry", {}), ("laravel_respond exit", {}), ("laravel_terminate entry", {}),
    ("laravel_middleware_terminate entry", {"Middleware": "App\\Http\\Middleware\\StampResponse"}),
    ("laravel_middleware_terminate exit", {}), ("laravel_terminate exit", {}),
]


@unittest.skipUnless(os.path.exists(laravel_app.DEBIAN_FRAMEWORK), "php-laravel-framework is not installed")
class Laravel8Case(unittest.TestCase):
    """laravel/app8 on Debian's Laravel 8 through nginx + php-fpm (one worker, opcache on), our Composer-shaped loader."""

    @classmethod
    def setUpClass(cls):
        if harness.CURRENT_PHP.fpm is None:
            raise unittest.SkipTest("no php-fpm for this PHP build")
        cls.server = laravel_app.Laravel8Server(harness.CURRENT_PHP)
        cls.server.start()

    @classmethod
    def tearDownClass(cls):
        cls.server.stop()

    def trace(self, path):
        response = harness.curl(self.server.url(path))
        task = response.header("X-Trace")[2:42]
        # Laravel terminates after the response went out: wait for the request's own exit event.
        deadline = time.time() + 5
        while True:
            events = self.server.traces.by_task(task)
            if events and events[-1].get("Layer") == "PHP" and events[-1]["Label"] == "exit":
                return response, events
            self.assertLess(time.time(), deadline, self.server.php_errors())
            time.sleep(0.05)

    def test_request_spans_and_transaction_name(self):
        # Twice on the one worker: every request detects and traces anew.
        for attempt in (1, 2):
            with self.subTest(attempt=attempt):
                response, events = self.trace("/shop")
                self.assertEqual((200, b"<p>answer 42, visits 1</p>\n", "stamped"),
                                 (response.status, response.body, response.header("X-Shop")))
                spans = [e for e in events if e.get("Layer") != "PHP" and "service_provider" not in e["Layer"]]
                self.assertEqual([name for name, _ in SHOP], named(spans))
                for (name, keys), event in zip(SHOP, spans):
                    self.assertEqual(keys, {k: event.get(k) for k in keys}, name)
                self.assertIn("App\\Providers\\AppServiceProvider",
                              [e.get("ServiceProvider") for e in events if e.get("Layer") ==
                               "laravel_service_provider_register"])
                self.assertEqual("App\\Http\\Controllers\\ShopController.index", events[-1]["TransactionName"])

    def test_fatal_error_in_controller(self):
        response, events = self.trace("/fatal")
        self.assertEqual(500, response.status)
        # Laravel's shutdown handler reports and renders the error; what it left open is reported at request end.
        self.assertIn("Allowed memory size", first(events, "laravel", "error")["ErrorMsg"])
        self.assertEqual([("laravel", "error", "Unclosed span 'laravel_controller_execute'"),
                          ("laravel_controller_execute", "exit", None),
                          ("laravel", "error", "Unclosed span 'laravel_handle'"),
                          ("laravel_handle", "exit", None),
                          ("PHP", "exit", None)],
                         [(e["Layer"], e["Label"], e.get("ErrorMsg")) for e in events[-5:]])
        self.assertEqual([], self.server.crashes())
