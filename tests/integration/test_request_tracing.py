"""Request tracing through nginx + php-fpm and the built-in server; documents read with python3-bson."""
import atexit
import os
import shutil
import tempfile
import time
import unittest
import uuid

from bson.int64 import Int64

import harness
from harness import curl, openssl_signature, signature


def task_of(xtrace): return xtrace[2:42]
def op_of(xtrace): return xtrace[42:58]
def flags_of(xtrace): return xtrace[-2:]
def new_xtrace(flags="01"): return "2B" + uuid.uuid4().hex.upper() + uuid.uuid4().hex.upper()[:24] + flags
def marker(): return uuid.uuid4().hex


class ServerCase(unittest.TestCase):
    """One server per class: SERVER its kind, INI and ENV its configuration (none: a case starts its own)."""

    SERVER = None
    INI = {}
    ENV = {}
    CHILDREN = 2

    @classmethod
    def setUpClass(cls):
        if cls.SERVER is harness.FpmServer and harness.CURRENT_PHP.fpm is None:
            raise unittest.SkipTest("no php-fpm for this PHP build")
        extra = {"children": cls.CHILDREN} if cls.SERVER is harness.FpmServer else {}
        if cls.SERVER is not None:
            cls.server = cls.SERVER(harness.CURRENT_PHP, cls.INI, cls.ENV, **extra).start()

    @classmethod
    def tearDownClass(cls):
        if cls.SERVER:
            crashes = cls.server.crashes()
            cls.server.stop()
            assert not crashes, "server crashed: %s" % crashes

    def get(self, path, headers=None):
        return curl(self.server.url(path), headers)

    def traced(self, mark, timeout=5.0):
        entry, exit_ = self.server.traces.wait_trace(lambda e: mark in e.get("URL", ""), timeout)
        self.assertIsNotNone(entry, "no entry/exit pair for %s" % mark)
        return entry, exit_

    def assert_not_traced(self, xtrace):
        time.sleep(0.3)  # events may be written after the connection closes
        self.assertEqual([], self.server.traces.by_task(task_of(xtrace)))


def on_both_servers(cases):
    """Fpm<Name> and Builtin<Name>: the cases against each server."""
    for prefix, server in (("Fpm", harness.FpmServer), ("Builtin", harness.BuiltinServer)):
        name = prefix + cases.__name__
        globals()[name] = type(name, (cases, ServerCase), {"SERVER": server})


@on_both_servers
class Sampled:
    """Every request is sampled (the local reporter's default record)."""

    def test_sampled_request_makes_entry_and_exit_and_answers_with_exit_id(self):
        mark = marker()
        r = self.get("/index.php?m=" + mark, {"X-Forwarded-For": "203.0.113.7", "X-Forwarded-Host": "shop.test"})
        self.assertEqual((200, b"ok\n"), (r.status, r.body))
        entry, exit_ = self.traced(mark)
        expected = {"URL": "/index.php?m=" + mark, "HTTP-Host": "127.0.0.1:%d" % self.server.port, "Method": "GET",
                    "ClientIP": "127.0.0.1", "Forwarded-For": "203.0.113.7", "Forwarded-Host": "shop.test",
                    "Layer": "PHP", "SampleSource": 6, "SampleRate": 1000000}
        self.assertEqual(expected, {k: entry.get(k) for k in expected})
        self.assertEqual([], [k for k in ("Edge", "TriggeredTrace", "PDKeys") if k in entry], "a new, plain trace")
        self.assertEqual(task_of(entry["X-Trace"]), task_of(exit_["X-Trace"]))
        self.assertEqual((op_of(entry["X-Trace"]), -1, 200, "/index.php"),
                         (exit_["Edge"], exit_["ProfileSpans"], exit_["Status"], exit_["TransactionName"]))
        self.assertIsInstance(exit_["Status"], Int64)
        self.assertEqual([exit_["X-Trace"]], r.headers["x-trace"])
        self.assertIsNone(r.header("X-Trace-Options-Response"))

        mark = marker()
        r = self.get("/status.php?code=503&m=" + mark)
        _, exit_ = self.traced(mark)  # the response code, too
        self.assertEqual((503, 503, r.header("X-Trace")), (r.status, exit_["Status"], exit_["X-Trace"]))

    def test_incoming_identifiers(self):
        """Parsed identifiers keep version and task id (only version 2 counts for the decision); others: a new trace."""
        good = [new_xtrace("01") for _ in range(6)]
        zero = "2B" + "0" * 40 + op_of(good[0])
        cases = [  # name, X-Trace, traced, answered with itself
            ("sampled", good[0], True, False), ("not sampled", good[1][:-2] + "00", False, True),
            ("version 1, sampled", "1B" + good[2][2:], True, False),
            ("version 3, not sampled", "3B" + good[3][2:-2] + "00", False, False),
            ("zero task, not sampled", zero + "00", False, True), ("zero task, sampled", zero + "01", False, False),
            ("lower-case hex", good[4].lower(), None, False), ("not hex", "ZZ" + good[4][2:], None, False),
            ("odd length", good[4] + "0", None, False), ("too short", good[4][:40], None, False),
            ("empty", "", None, False),
        ]
        for name, value, traced, echoed in cases:
            with self.subTest(name):
                mark = marker()
                r = self.get("/index.php?m=" + mark, {"X-Trace": value})
                self.assertEqual(200, r.status)
                answer = r.header("X-Trace")
                if traced is None:  # a new trace
                    entry, exit_ = self.traced(mark)
                    self.assertNotIn("Edge", entry)
                    self.assertNotEqual(task_of(good[4]), task_of(entry["X-Trace"]))
                    self.assertEqual((exit_["X-Trace"], "01"), (answer, flags_of(answer)))
                    continue
                self.assertEqual((value[:42], flags_of(value)), (answer[:42], flags_of(answer)))
                if echoed:
                    self.assertEqual(value, answer)
                if traced:
                    entry, exit_ = self.traced(mark)
                    self.assertEqual((op_of(value), value[:42]), (entry["Edge"], entry["X-Trace"][:42]))
                    self.assertEqual(exit_["X-Trace"], answer)
                    self.assertNotEqual(op_of(value), op_of(answer))
                else:
                    self.assert_not_traced(value)

    def test_options_ignored_list_custom_keys_and_trimming(self):
        cases = [("trigger-trace=1;ts=5;foo;custom-a=b", "trigger-trace=not-requested;ignored=trigger-trace,foo",
                  {"custom-a": "b"}),
                 (" pd-keys = k1 ;custom-x; ;;;=v;pd-keys=k2;custom-y= two words ;ts;pd-keys",
                  "trigger-trace=not-requested;ignored=ts,pd-keys",
                  {"PDKeys": "k2", "custom-x": "", "custom-y": "two words"})]
        for options, answer, keys in cases:
            mark = marker()
            r = self.get("/index.php?m=" + mark, {"X-Trace-Options": options})
            self.assertEqual(answer, r.header("X-Trace-Options-Response"))
            entry, _ = self.traced(mark)
            self.assertEqual(keys, {k: entry.get(k) for k in keys})
            self.assertNotIn("TriggeredTrace", entry)

    def test_trigger_trace_with_good_signature(self):
        mark, options = marker(), "trigger-trace;ts=%d;custom-k=v" % int(time.time())
        sig = openssl_signature(options)
        self.assertEqual(signature(options), sig)
        r = self.get("/index.php?m=" + mark, {"X-Trace-Options": options, "X-Trace-Options-Signature": sig})
        self.assertEqual("auth=ok;trigger-trace=ok", r.header("X-Trace-Options-Response"))
        entry, exit_ = self.traced(mark)
        self.assertEqual((True, 0, 0, "v"),
                         (entry["TriggeredTrace"], entry["SampleRate"], entry["SampleSource"], entry["custom-k"]))
        self.assertEqual(exit_["X-Trace"], r.header("X-Trace"))

    def test_failed_signatures_end_the_answer_and_stop_tracing(self):
        good, stale = ("trigger-trace;ts=%d" % (int(time.time()) - age) for age in (0, 1000))
        cases = {
            "wrong key": (good, "0" * 40, "auth=bad-signature"),
            "upper-case hex": (good, signature(good).upper(), "auth=bad-signature"),
            "short": (good, signature(good)[:39], "auth=bad-signature"),
            "stale timestamp": (stale, signature(stale), "auth=bad-timestamp"),
        }
        for name, (options, sig, expected) in cases.items():
            with self.subTest(name):
                r = self.get("/index.php?m=" + marker(),
                             {"X-Trace-Options": options, "X-Trace-Options-Signature": sig})
                self.assertEqual((200, expected), (r.status, r.header("X-Trace-Options-Response")))
                self.assertEqual("00", flags_of(r.header("X-Trace")))
                self.assert_not_traced(r.header("X-Trace"))

    def test_trigger_trace_with_sampled_incoming_identifier_is_ignored(self):
        mark, incoming = marker(), new_xtrace("01")
        r = self.get("/index.php?m=" + mark, {"X-Trace": incoming, "X-Trace-Options": "trigger-trace"})
        self.assertEqual("trigger-trace=ignored", r.header("X-Trace-Options-Response"))
        entry, _ = self.traced(mark)
        self.assertEqual((op_of(incoming), None), (entry["Edge"], entry.get("TriggeredTrace")))


@on_both_servers
class Unsampled:
    """corvidine.sample_rate 0: ordinary requests are not sampled, trigger trace still is."""

    INI = {"corvidine.sample_rate": "0"}

    def test_unsampled_requests_answer_with_unsampled_identifier(self):
        for options, answer in ((None, None), ("custom-a=1;bogus", "trigger-trace=not-requested;ignored=bogus")):
            r = self.get("/index.php?m=" + marker(), {"X-Trace-Options": options} if options else {})
            self.assertEqual(200, r.status)
            self.assertEqual((60, "00"), (len(r.header("X-Trace")), flags_of(r.header("X-Trace"))))
            self.assertEqual(answer, r.header("X-Trace-Options-Response"))
            self.assert_not_traced(r.header("X-Trace"))

    def test_trigger_trace_samples_what_the_rate_would_not(self):
        mark = marker()
        r = self.get("/index.php?m=" + mark, {"X-Trace-Options": "trigger-trace;pd-keys=lo:se"})
        self.assertEqual("trigger-trace=ok", r.header("X-Trace-Options-Response"))
        entry, exit_ = self.traced(mark)
        self.assertEqual((True, "lo:se"), (entry["TriggeredTrace"], entry["PDKeys"]))
        self.assertEqual(exit_["X-Trace"], r.header("X-Trace"))


class BuiltinRefused(ServerCase):
    """Empty token buckets (good signature) or tracing disabled: the answer says why."""

    CASES = [({"CORVIDINE_TOKEN_BUCKET_CAPACITY": "0", "CORVIDINE_TOKEN_BUCKET_RATE": "0"}, {},
              "auth=ok;trigger-trace=rate-exceeded"),
             ({}, {"corvidine.tracing": "disabled"}, "trigger-trace=tracing-disabled")]

    def test_refused_trigger(self):
        for env, ini, answer in self.CASES:
            with harness.BuiltinServer(harness.CURRENT_PHP, ini, env) as self.server:
                options = "trigger-trace;ts=%d" % int(time.time())
                sig = {"X-Trace-Options-Signature": signature(options)} if env else {}
                r = self.get("/index.php", dict({"X-Trace-Options": options}, **sig))
                self.assertEqual(answer, r.header("X-Trace-Options-Response"))
                self.assertEqual("00", flags_of(r.header("X-Trace")))
                self.assert_not_traced(r.header("X-Trace"))
                self.assertEqual([], self.server.crashes())


def settings_file(text):
    with tempfile.NamedTemporaryFile("w", prefix="corvidine-it-settings-", suffix=".ini", delete=False) as handle:
        handle.write(text)
    atexit.register(os.unlink, handle.name)
    return handle.name


RULES = settings_file("""
; Whole .php URLs without a query string are not traced.
[no-plain-php]
type = url
extensions = "css php"
tracing = disabled
[no-created]
type = url
regexp = "http://[^/]+/status\\.php\\?code=201.*"
tracing = disabled
[not-a-url-rule]
type = ftp
regexp = ".*"
tracing = disabled
[odd-mode]
type = url
regexp = ".*odd=1.*"
tracing = sometimes
[bad-regexp-no-extensions]
type = url
regexp = "("
tracing = disabled
""")


@on_both_servers
class TransactionSettings:
    INI = {"corvidine.transaction_settings_file": RULES}

    def test_rules_in_order(self):
        for path, flags in (("/index.php", "00"), ("/status.php?code=201", "00"), ("/index.php?m=", "01")):
            mark = marker() if flags == "01" else ""
            r = self.get(path + mark)
            self.assertEqual(flags, flags_of(r.header("X-Trace")), path)
            if mark:
                self.traced(mark)

    def test_unknown_mode_warns_and_falls_back(self):
        mark = marker()
        self.assertEqual("01", flags_of(self.get("/index.php?odd=1&m=" + mark).header("X-Trace")))
        self.traced(mark)
        self.assertIn("Unknown tracing mode 'sometimes' in file '%s'" % RULES, self.server.php_errors())


class BuiltinNeverWithEnablingRule(ServerCase):
    SERVER = harness.BuiltinServer
    INI = {"corvidine.tracing": "never",
           "corvidine.transaction_settings_file": settings_file('[on]\ntype = url\nregexp = ".*[?&]on=1.*"\n'
                                                                'tracing = enabled\n')}

    def test_rule_enables_what_the_mode_turns_off(self):
        mark = marker()
        self.assertEqual("01", flags_of(self.get("/index.php?on=1&m=" + mark).header("X-Trace")))
        self.traced(mark)
        self.assertEqual("00", flags_of(self.get("/index.php?on=2").header("X-Trace")))


class FpmBadSettingsFiles(ServerCase):
    """A missing file warns on every request, a malformed one once; tracing goes on."""

    MISSING = "/nonexistent/corvidine-settings.ini"
    MALFORMED = settings_file("[broken\ntype = url\nregexp = \"(\"\n")

    def test_bad_files(self):
        if harness.CURRENT_PHP.fpm is None:
            self.skipTest("no php-fpm for this PHP build")
        missing = "File '%s' not found. Check your configuration 'corvidine.transaction_settings_file'" % self.MISSING
        for path, warning, count in ((self.MISSING, missing, 3), (self.MALFORMED, "syntax error", 1)):
            ini = {"corvidine.transaction_settings_file": path, "corvidine.tracing": "enabled"}
            with harness.FpmServer(harness.CURRENT_PHP, ini, children=1) as self.server:
                for _ in range(3):
                    mark = marker()
                    self.assertEqual(200, self.get("/index.php?m=" + mark).status)
                    self.traced(mark)
                self.assertEqual(count, self.server.php_errors().count(warning))


class FpmPreload(ServerCase):
    """opcache preloading's own request in the php-fpm master is not traced and warns about nothing."""

    SERVER = harness.FpmServer
    INI = {"zend_extension": "opcache", "opcache.preload": os.path.join(harness.WWW, "preload.php"),
           "opcache.preload_user": "root"}

    def test_only_the_request_is_traced(self):
        mark = marker()
        self.assertEqual(b"ok\n", self.get("/index.php?m=" + mark).body)
        self.traced(mark)
        self.assertEqual(1, len([e for e in self.server.traces.events() if e["Label"] == "entry"]))
        self.assertEqual("", self.server.php_errors())


class Cli(unittest.TestCase):
    SCRIPT = os.path.join(harness.WWW, "headers.php")
    INI = {"corvidine.enable_cli": "1", "corvidine.max_ready_wait_time": "-1"}

    def run_cli(self, ini=None, env=None, directory=None):
        result, traces, directory = harness.run_cli(harness.CURRENT_PHP, self.SCRIPT, dict(self.INI, **(ini or {})),
                                                    env, directory=directory)
        self.addCleanup(shutil.rmtree, directory, True)
        self.assertEqual((0, b"done\n"), (result.returncode, result.stdout), "no header may be added under the CLI")
        return result, traces, directory

    def test_cli_run_is_traced_without_headers_and_named_by_its_script(self):
        _, traces, _ = self.run_cli()
        entry, exit_ = traces.wait_trace(lambda e: e.get("URL") == self.SCRIPT)
        self.assertNotIn("Edge", entry)
        self.assertEqual((op_of(entry["X-Trace"]), "headers.php"), (exit_["Edge"], exit_["TransactionName"]))

    def test_cli_continues_the_configured_identifier(self):
        incoming = new_xtrace("01")
        _, traces, _ = self.run_cli({"corvidine.xtrace": incoming})
        entry, _ = traces.wait_trace(lambda e: e.get("URL") == self.SCRIPT)
        self.assertEqual((op_of(incoming), task_of(incoming)), (entry["Edge"], task_of(entry["X-Trace"])))

    def test_switches_are_off_only_when_their_low_byte_is_0(self):
        cases = [("enable_cli", "0", False), ("enable_cli", "2", True), ("enable_cli", "-1", True),
                 ("enable_cli", "256", False), ("enable", "0", False), ("enable", "2", True), ("enable", "512", False)]
        for name, value, traced in cases:
            with self.subTest(name + "=" + value):
                _, traces, _ = self.run_cli({"corvidine." + name: value})
                self.assertEqual(traced, traces.events() != [])

    def test_agent_notes_go_to_its_log_file_not_to_php_output(self):
        """No $_SERVER, or a preload request: output unchanged, the notes in CORVIDINE_LOGNAME's file."""
        preload = {"zend_extension": "opcache", "opcache.enable_cli": "1", "opcache.preload_user": "root",
                   "opcache.preload": os.path.join(harness.WWW, "preload.php")}
        # The Collector reporter aims at a closed loopback port: nothing leaves the machine.
        collector = {"CORVIDINE_COLLECTOR": "127.0.0.1:1", "CORVIDINE_FLUSH_MAX_WAIT_TIME": "100"}
        for reporter, ini, note, env in (("file", {"variables_order": "GPC"}, "couldn't find SCRIPT_NAME", {}),
                                         ("file", preload, "Initializing 'file' reporter", {}),
                                         ("ssl", {}, "Initializing 'ssl' reporter", collector)):
            with self.subTest(reporter + " " + note):
                directory = tempfile.mkdtemp(prefix="corvidine-it-cli-")
                log = os.path.join(directory, "agent.log")
                result, traces, _ = self.run_cli(ini, dict(env, CORVIDINE_REPORTER=reporter, CORVIDINE_LOGNAME=log,
                                                           CORVIDINE_DEBUG_LEVEL="4"), directory)
                self.assertEqual(b"", result.stderr)
                with open(log, errors="replace") as handle:
                    self.assertIn(note, handle.read())
                entries = [e for e in traces.events() if e["Label"] == "entry"]
                self.assertEqual(1 if reporter == "file" else 0, len(entries))
