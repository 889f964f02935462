"""error_log() and PHP errors through real servers: log lines carry the trace id, the trace has the events."""
import time

import harness
from test_request_tracing import ServerCase, flags_of, marker, task_of

class Sampled:
    INI = {"corvidine.log_trace_id": "enabled"}

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

    def test_traced_request_logs_its_id_and_sends_events(self):
        mark = marker()
        r = self.get("/log.php?m=" + mark)
        self.assertEqual(b"ok\n", r.body)
        self.assertEqual("01", flags_of(r.header("X-Trace")))
        self.check_lines(mark, r.header("X-Trace"), "1")
        entry, _ = self.traced(mark)
        events = self.server.traces.by_task(task_of(entry["X-Trace"]))
        self.assertEqual(["page log " + mark], [e["Message"] for e in events if e["Label"] == "error_log"])
        [error] = [e for e in events if e["Label"] == "error"]
        self.assertEqual(("WARNING", "E_USER_WARNING", 4, "error"),
                         (error["ErrorClass"], error["PHPErrorCode"], error["ErrorLevel"], error["Spec"]))
        self.assertRegex(error["ErrorMsg"], r"^PHP Warning:  page warning %s in .*log\.php on line 5$" % mark)


class FpmSampledLog(Sampled, ServerCase):
    SERVER = harness.FpmServer


class BuiltinSampledLog(Sampled, ServerCase):
    SERVER = harness.BuiltinServer
