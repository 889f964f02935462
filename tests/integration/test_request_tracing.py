"""Request tracing through real servers: one request becomes one trace, and
the client gets its answer in response headers.

Each case class runs against nginx + php-fpm and against PHP's built-in
server (php -S). Documents are read back with Debian's python3-bson.
"""
import atexit
import os
import shutil
import tempfile
import time
import unittest
import uuid

import harness
from harness import curl, is_int64, openssl_signature, signature


def task_of(xtrace):
    return xtrace[2:42]


def op_of(xtrace):
    return xtrace[42:58]


def flags_of(xtrace):
    return xtrace[58:60]


def new_xtrace(flags="01"):
    return "2B" + uuid.uuid4().hex.upper() + uuid.uuid4().hex.upper()[:8] + uuid.uuid4().hex.upper()[:16] + flags


def marker():
    return uuid.uuid4().hex


class ServerCase(unittest.TestCase):
    """Starts one server per class: SERVER is the kind, INI and ENV its
    configuration."""

    SERVER = None
    INI = {}
    ENV = {}
    CHILDREN = 2

    @classmethod
    def setUpClass(cls):
        php = harness.CURRENT_PHP
        if cls.SERVER is harness.FpmServer:
            if php.fpm is None:
                raise unittest.SkipTest("no php-fpm for this PHP build")
            cls.server = harness.FpmServer(php, cls.INI, cls.ENV, children=cls.CHILDREN)
        else:
            cls.server = cls.SERVER(php, cls.INI, cls.ENV)
        cls.server.start()

    @classmethod
    def tearDownClass(cls):
        crashes = cls.server.crashes()
        cls.server.stop()
        if crashes:
            raise AssertionError("server crashed: %s" % crashes)

    def get(self, path, headers=None):
        return curl(self.server.url(path), headers)

    def traced(self, mark, timeout=5.0):
        entry, exit_ = self.server.traces.wait_trace(lambda e: mark in e.get("URL", ""), timeout)
        self.assertIsNotNone(entry, "no entry/exit pair for %s" % mark)
        return entry, exit_

    def assert_not_traced(self, xtrace):
        # Events are written before the response ends; a short grace covers
        # a server that closes the connection first.
        time.sleep(0.3)
        self.assertEqual([], self.server.traces.by_task(task_of(xtrace)))


class SampledCases:
    """Every request is sampled (the local reporter's default record)."""

    def test_sampled_request_makes_entry_and_exit_and_answers_with_exit_id(self):
        mark = marker()
        r = self.get("/index.php?m=" + mark, {"X-Forwarded-For": "203.0.113.7", "X-Forwarded-Host": "shop.test"})
        self.assertEqual(200, r.status)
        self.assertEqual(b"ok\n", r.body)
        entry, exit_ = self.traced(mark)

        self.assertEqual("/index.php?m=" + mark, entry["URL"])
        self.assertEqual("127.0.0.1:%d" % self.server.port, entry["HTTP-Host"])
        self.assertEqual("GET", entry["Method"])
        self.assertEqual("127.0.0.1", entry["ClientIP"])
        self.assertEqual("203.0.113.7", entry["Forwarded-For"])
        self.assertEqual("shop.test", entry["Forwarded-Host"])
        self.assertEqual("PHP", entry["Layer"])
        self.assertEqual(6, entry["SampleSource"])
        self.assertEqual(1000000, entry["SampleRate"])
        self.assertNotIn("Edge", entry, "a new trace has no parent")
        self.assertNotIn("TriggeredTrace", entry)
        self.assertNotIn("PDKeys", entry)

        self.assertEqual(task_of(entry["X-Trace"]), task_of(exit_["X-Trace"]))
        self.assertEqual(op_of(entry["X-Trace"]), exit_["Edge"])
        self.assertEqual(-1, exit_["ProfileSpans"])
        self.assertEqual(200, exit_["Status"])
        self.assertTrue(is_int64(exit_["Status"]))
        self.assertEqual("/index.php", exit_["TransactionName"])

        self.assertEqual(exit_["X-Trace"], r.header("X-Trace"))
        self.assertEqual(1, len(r.header_all("X-Trace")))
        self.assertIsNone(r.header("X-Trace-Options-Response"))

    def test_exit_event_carries_the_response_code(self):
        mark = marker()
        r = self.get("/status.php?code=503&m=" + mark)
        self.assertEqual(503, r.status)
        _, exit_ = self.traced(mark)
        self.assertEqual(503, exit_["Status"])
        self.assertEqual(exit_["X-Trace"], r.header("X-Trace"))

    def test_sampled_incoming_identifier_is_continued(self):
        mark = marker()
        incoming = new_xtrace("01")
        r = self.get("/index.php?m=" + mark, {"X-Trace": incoming})
        entry, exit_ = self.traced(mark)
        self.assertEqual(task_of(incoming), task_of(entry["X-Trace"]))
        self.assertEqual(op_of(incoming), entry["Edge"])
        self.assertEqual(op_of(entry["X-Trace"]), exit_["Edge"])
        self.assertEqual(exit_["X-Trace"], r.header("X-Trace"))
        self.assertNotEqual(op_of(incoming), op_of(r.header("X-Trace")))

    def test_unsampled_incoming_identifier_is_answered_but_not_traced(self):
        incoming = new_xtrace("00")
        r = self.get("/index.php?m=" + marker(), {"X-Trace": incoming})
        self.assertEqual(200, r.status)
        self.assertEqual(incoming, r.header("X-Trace"))
        self.assertIsNone(r.header("X-Trace-Options-Response"))
        self.assert_not_traced(incoming)

    def test_unusable_incoming_identifier_starts_a_new_trace(self):
        good = new_xtrace("01")
        cases = {
            "lower-case hex": good.lower(),
            "not hex": "ZZ" + good[2:],
            "odd length": good + "0",
            "too short": good[:40],
            "zero task id": "2B" + "0" * 40 + good[42:],
            "version 1": "1B" + good[2:],
            "empty": "",
        }
        for name, value in cases.items():
            with self.subTest(name):
                mark = marker()
                r = self.get("/index.php?m=" + mark, {"X-Trace": value})
                self.assertEqual(200, r.status)
                entry, exit_ = self.traced(mark)
                self.assertNotIn("Edge", entry)
                self.assertNotEqual(task_of(good), task_of(entry["X-Trace"]))
                self.assertEqual(exit_["X-Trace"], r.header("X-Trace"))
                self.assertEqual("01", flags_of(r.header("X-Trace")))

    def test_options_ignored_list_and_custom_keys(self):
        mark = marker()
        r = self.get("/index.php?m=" + mark, {"X-Trace-Options": "trigger-trace=1;ts=5;foo;custom-a=b"})
        self.assertEqual("trigger-trace=not-requested;ignored=trigger-trace,foo",
                         r.header("X-Trace-Options-Response"))
        entry, _ = self.traced(mark)
        self.assertEqual("b", entry["custom-a"])
        self.assertNotIn("TriggeredTrace", entry)

    def test_options_trimming_empty_entries_and_later_pd_keys(self):
        mark = marker()
        r = self.get("/index.php?m=" + mark,
                     {"X-Trace-Options": " pd-keys = k1 ;custom-x; ;;;=v;pd-keys=k2;custom-y= two words ;ts;pd-keys"})
        self.assertEqual("trigger-trace=not-requested;ignored=ts,pd-keys", r.header("X-Trace-Options-Response"))
        entry, _ = self.traced(mark)
        self.assertEqual("k2", entry["PDKeys"])
        self.assertEqual("", entry["custom-x"])
        self.assertEqual("two words", entry["custom-y"])

    def test_trigger_trace_with_good_signature(self):
        mark = marker()
        options = "trigger-trace;ts=%d;custom-k=v" % int(time.time())
        sig = openssl_signature(options)
        self.assertEqual(signature(options), sig)
        r = self.get("/index.php?m=" + mark, {"X-Trace-Options": options, "X-Trace-Options-Signature": sig})
        self.assertEqual("auth=ok;trigger-trace=ok", r.header("X-Trace-Options-Response"))
        entry, exit_ = self.traced(mark)
        self.assertIs(True, entry["TriggeredTrace"])
        self.assertEqual(0, entry["SampleRate"])
        self.assertEqual(0, entry["SampleSource"])
        self.assertEqual("v", entry["custom-k"])
        self.assertEqual(exit_["X-Trace"], r.header("X-Trace"))

    def test_failed_signatures_end_the_answer_and_stop_tracing(self):
        now = int(time.time())
        good = "trigger-trace;ts=%d" % now
        stale = "trigger-trace;ts=%d" % (now - 1000)
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
                self.assertEqual(200, r.status)
                self.assertEqual(expected, r.header("X-Trace-Options-Response"))
                self.assertEqual("00", flags_of(r.header("X-Trace")))
                self.assert_not_traced(r.header("X-Trace"))

    def test_trigger_trace_with_sampled_incoming_identifier_is_ignored(self):
        mark = marker()
        incoming = new_xtrace("01")
        r = self.get("/index.php?m=" + mark, {"X-Trace": incoming, "X-Trace-Options": "trigger-trace"})
        self.assertEqual("trigger-trace=ignored", r.header("X-Trace-Options-Response"))
        entry, _ = self.traced(mark)
        self.assertEqual(op_of(incoming), entry["Edge"])
        self.assertNotIn("TriggeredTrace", entry)


class FpmSampled(SampledCases, ServerCase):
    SERVER = harness.FpmServer


class BuiltinSampled(SampledCases, ServerCase):
    SERVER = harness.BuiltinServer


class UnsampledCases:
    """corvidine.sample_rate 0: ordinary requests are not sampled, trigger
    trace still is."""

    INI = {"corvidine.sample_rate": "0"}

    def test_unsampled_request_answers_with_unsampled_identifier(self):
        r = self.get("/index.php?m=" + marker())
        self.assertEqual(200, r.status)
        xtrace = r.header("X-Trace")
        self.assertEqual(60, len(xtrace))
        self.assertEqual("00", flags_of(xtrace))
        self.assertIsNone(r.header("X-Trace-Options-Response"))
        self.assert_not_traced(xtrace)

    def test_options_are_answered_on_unsampled_requests(self):
        r = self.get("/index.php?m=" + marker(), {"X-Trace-Options": "custom-a=1;bogus"})
        self.assertEqual("trigger-trace=not-requested;ignored=bogus", r.header("X-Trace-Options-Response"))
        self.assertEqual("00", flags_of(r.header("X-Trace")))
        self.assert_not_traced(r.header("X-Trace"))

    def test_trigger_trace_samples_what_the_rate_would_not(self):
        mark = marker()
        r = self.get("/index.php?m=" + mark, {"X-Trace-Options": "trigger-trace;pd-keys=lo:se"})
        self.assertEqual("trigger-trace=ok", r.header("X-Trace-Options-Response"))
        self.assertEqual("01", flags_of(r.header("X-Trace")))
        entry, exit_ = self.traced(mark)
        self.assertIs(True, entry["TriggeredTrace"])
        self.assertEqual("lo:se", entry["PDKeys"])
        self.assertEqual(exit_["X-Trace"], r.header("X-Trace"))


class FpmUnsampled(UnsampledCases, ServerCase):
    SERVER = harness.FpmServer


class BuiltinUnsampled(UnsampledCases, ServerCase):
    SERVER = harness.BuiltinServer


class BuiltinRateLimited(ServerCase):
    """Empty token buckets: the signature is good, the trigger is refused."""

    SERVER = harness.BuiltinServer
    ENV = {"CORVIDINE_TOKEN_BUCKET_CAPACITY": "0", "CORVIDINE_TOKEN_BUCKET_RATE": "0"}

    def test_good_signature_under_rate_limit(self):
        options = "trigger-trace;ts=%d" % int(time.time())
        r = self.get("/index.php", {"X-Trace-Options": options, "X-Trace-Options-Signature": signature(options)})
        self.assertEqual("auth=ok;trigger-trace=rate-exceeded", r.header("X-Trace-Options-Response"))
        self.assertEqual("00", flags_of(r.header("X-Trace")))
        self.assert_not_traced(r.header("X-Trace"))


class BuiltinTracingDisabled(ServerCase):
    SERVER = harness.BuiltinServer
    INI = {"corvidine.tracing": "disabled"}

    def test_nothing_is_traced_and_the_trigger_says_why(self):
        r = self.get("/index.php", {"X-Trace-Options": "trigger-trace"})
        self.assertEqual("trigger-trace=tracing-disabled", r.header("X-Trace-Options-Response"))
        self.assertEqual("00", flags_of(r.header("X-Trace")))
        self.assert_not_traced(r.header("X-Trace"))


class DomainCases:
    INI = {"corvidine.transaction_prepend_domain": "1"}

    def test_domain_is_prepended_with_the_port_when_the_host_has_none(self):
        mark = marker()
        self.get("/index.php?m=" + mark, {"X-Forwarded-Host": "shop.test"})
        _, exit_ = self.traced(mark)
        self.assertEqual("shop.test:%d/index.php" % self.server.port, exit_["TransactionName"])

    def test_host_with_port_is_not_given_a_second_one(self):
        mark = marker()
        self.get("/index.php?m=" + mark)
        _, exit_ = self.traced(mark)
        self.assertEqual("127.0.0.1:%d/index.php" % self.server.port, exit_["TransactionName"])


class FpmDomain(DomainCases, ServerCase):
    SERVER = harness.FpmServer


class BuiltinDomain(DomainCases, ServerCase):
    SERVER = harness.BuiltinServer


def settings_file(text):
    handle = tempfile.NamedTemporaryFile("w", prefix="corvidine-it-settings-", suffix=".ini", delete=False)
    handle.write(text)
    handle.close()
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
""")


class TransactionSettingsCases:
    INI = {"corvidine.transaction_settings_file": RULES}

    def test_rules_in_order(self):
        r = self.get("/index.php")
        self.assertEqual("00", flags_of(r.header("X-Trace")), "extension rule")
        self.assert_not_traced(r.header("X-Trace"))

        r = self.get("/status.php?code=201")
        self.assertEqual(201, r.status)
        self.assertEqual("00", flags_of(r.header("X-Trace")), "regexp rule")

        mark = marker()
        r = self.get("/index.php?m=" + mark)
        self.assertEqual("01", flags_of(r.header("X-Trace")), "a query string keeps the extension rule off")
        self.traced(mark)

    def test_unknown_mode_warns_and_falls_back(self):
        mark = marker()
        r = self.get("/index.php?odd=1&m=" + mark)
        self.assertEqual("01", flags_of(r.header("X-Trace")))
        self.traced(mark)
        self.assertIn("Unknown tracing mode 'sometimes' in file '%s'" % RULES, self.server.php_errors())


class FpmTransactionSettings(TransactionSettingsCases, ServerCase):
    SERVER = harness.FpmServer


class BuiltinTransactionSettings(TransactionSettingsCases, ServerCase):
    SERVER = harness.BuiltinServer


ENABLING_RULES = settings_file("""
[on]
type = url
regexp = ".*[?&]on=1.*"
tracing = enabled
""")


class BuiltinNeverWithEnablingRule(ServerCase):
    SERVER = harness.BuiltinServer
    INI = {"corvidine.tracing": "never", "corvidine.transaction_settings_file": ENABLING_RULES}

    def test_rule_enables_what_the_mode_turns_off(self):
        mark = marker()
        r = self.get("/index.php?on=1&m=" + mark)
        self.assertEqual("01", flags_of(r.header("X-Trace")))
        self.traced(mark)
        r = self.get("/index.php?on=2")
        self.assertEqual("00", flags_of(r.header("X-Trace")))


class FpmMissingSettingsFile(ServerCase):
    SERVER = harness.FpmServer
    CHILDREN = 1
    MISSING = "/nonexistent/corvidine-settings.ini"
    INI = {"corvidine.transaction_settings_file": MISSING}

    def test_missing_file_warns_each_request_and_tracing_goes_on(self):
        for _ in range(3):
            mark = marker()
            r = self.get("/index.php?m=" + mark)
            self.assertEqual(200, r.status)
            self.traced(mark)
        warning = ("File '%s' not found. Check your configuration 'corvidine.transaction_settings_file'"
                   % self.MISSING)
        self.assertEqual(3, self.server.php_errors().count(warning))


MALFORMED = settings_file("[broken\ntype = url\nregexp = \"(\"\n")


class FpmMalformedSettingsFile(ServerCase):
    SERVER = harness.FpmServer
    CHILDREN = 1
    INI = {"corvidine.transaction_settings_file": MALFORMED, "corvidine.tracing": "enabled"}

    def test_malformed_file_warns_once_and_falls_back_on_tracing_mode(self):
        for _ in range(3):
            mark = marker()
            r = self.get("/index.php?m=" + mark)
            self.assertEqual(200, r.status)
            self.traced(mark)
        errors = self.server.php_errors()
        self.assertEqual(1, errors.count("syntax error"), errors)


class MalformedRuleCases(unittest.TestCase):
    """A regexp that does not compile leaves its rule without regexp."""

    def test_rule_with_bad_regexp_and_no_extensions_is_skipped(self):
        rules = settings_file("[bad]\ntype = url\nregexp = \"(\"\ntracing = disabled\n")
        with harness.BuiltinServer(harness.CURRENT_PHP, {"corvidine.transaction_settings_file": rules}) as server:
            mark = marker()
            r = curl(server.url("/index.php?m=" + mark))
            self.assertEqual("01", flags_of(r.header("X-Trace")))
            entry, _ = server.traces.wait_trace(lambda e: mark in e.get("URL", ""))
            self.assertIsNotNone(entry)


class CliCases(unittest.TestCase):
    SCRIPT = os.path.join(harness.WWW, "headers.php")
    INI = {"corvidine.enable_cli": "1", "corvidine.max_ready_wait_time": "-1"}

    def test_cli_run_is_traced_without_headers_and_named_by_its_script(self):
        result, traces, directory = harness.run_cli(harness.CURRENT_PHP, self.SCRIPT, self.INI)
        self.addCleanup(shutil.rmtree, directory, True)
        self.assertEqual(0, result.returncode, result.stderr)
        self.assertEqual(b"done\n", result.stdout, "no header may be added under the CLI")
        entry, exit_ = traces.wait_trace(lambda e: e.get("URL") == self.SCRIPT)
        self.assertIsNotNone(entry)
        self.assertNotIn("Edge", entry)
        self.assertEqual(op_of(entry["X-Trace"]), exit_["Edge"])
        self.assertEqual("headers.php", exit_["TransactionName"])

    def test_cli_continues_the_configured_identifier(self):
        incoming = new_xtrace("01")
        ini = dict(self.INI, **{"corvidine.xtrace": incoming})
        result, traces, directory = harness.run_cli(harness.CURRENT_PHP, self.SCRIPT, ini)
        self.addCleanup(shutil.rmtree, directory, True)
        self.assertEqual(0, result.returncode, result.stderr)
        entry, _ = traces.wait_trace(lambda e: e.get("URL") == self.SCRIPT)
        self.assertEqual(op_of(incoming), entry["Edge"])
        self.assertEqual(task_of(incoming), task_of(entry["X-Trace"]))

    def test_cli_off_traces_nothing(self):
        result, traces, directory = harness.run_cli(harness.CURRENT_PHP, self.SCRIPT, {"corvidine.enable_cli": "0"})
        self.addCleanup(shutil.rmtree, directory, True)
        self.assertEqual(0, result.returncode, result.stderr)
        self.assertEqual(b"done\n", result.stdout)
        self.assertEqual([], traces.events())
