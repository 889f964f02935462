"""error_log() and PHP errors through nginx + php-fpm and php -S: the lines in PHP's error log carry the
request's trace id, and the request has the "error_log" and "error" events (unsampled requests and the
switches: ext/tests/wrap/error_log.phpt and ext/tests/errors/error_capture.phpt)."""
import time
import unittest

import harness
from test_request_tracing import ServerCase, flags_of, marker, task_of

LOG_INI = {"corvidine.log_trace_id": "enabled"}


class LogCases:
    def log_lines(self, mark):
        deadline = time.time() + 5
        while True:
            lines = [l for l in self.server.php_errors().splitlines() if mark in l]
            if len(lines) >= 2 or time.time() > deadline:
                return lines
            time.sleep(0.05)

    def check_lines(self, mark, xtrace, flag):
        lines = self.log_lines(mark)
        expected = [r"page log %s \[zq\.traceId=%s-%s\]$" % (mark, task_of(xtrace), flag),
                    r"PHP Warning:  page warning %s \[zq\.traceId=%s-%s\] in .*log\.php on line 5$"
                    % (mark, task_of(xtrace), flag)]
        self.assertEqual(2, len(lines), lines)
        for pattern, line in zip(expected, lines):
            self.assertRegex(line, pattern)


class Sampled(LogCases):
    INI = LOG_INI

    def test_traced_request_logs_its_id_and_sends_events(self):
        mark = marker()
        r = self.get("/log.php?m=" + mark)
        self.assertEqual(b"ok\n", r.body)
        self.assertEqual("01", flags_of(r.header("X-Trace")))
        self.check_lines(mark, r.header("X-Trace"), "1")
        entry, _ = self.traced(mark)
        events = self.server.traces.by_task(task_of(entry["X-Trace"]))
        self.assertEqual(["page log " + mark], [e["Message"] for e in events if e["Label"] == "error_log"])
        errors = [e for e in events if e["Label"] == "error"]
        self.assertEqual(1, len(errors))
        self.assertEqual(("WARNING", "E_USER_WARNING", 4, "error"),
                         (errors[0]["ErrorClass"], errors[0]["PHPErrorCode"], errors[0]["ErrorLevel"], errors[0]["Spec"]))
        self.assertRegex(errors[0]["ErrorMsg"], r"^PHP Warning:  page warning %s in .*log\.php on line 5$" % mark)


class FpmSampledLog(Sampled, ServerCase):
    SERVER = harness.FpmServer


class BuiltinSampledLog(Sampled, ServerCase):
    SERVER = harness.BuiltinServer


if __name__ == "__main__":
    unittest.main()
