"""The user API through nginx + php-fpm: results, events and ids read back from the file reporter, and from the test
Collector with the custom metrics the page records."""
import json
import struct
import time
import unittest

import bson

import harness
from harness import curl
from test_collector_reporter import authority, documents, settings_answer, wait_for
from collector import Collector, server_context  # noqa: E402 (path set by test_collector_reporter)

CALLS = ("tracing", "context", "entry", "log", "error", "exception", "exit")


def page(fpm, query):
    response = curl(fpm.url("/user_api.php?" + query))
    return response, json.loads(response.body)


class UserApiFpm(unittest.TestCase):
    def setUp(self):
        if harness.CURRENT_PHP.fpm is None:
            raise unittest.SkipTest("no php-fpm for this PHP build")

    def test_traced_unsampled_and_custom_requests(self):
        # (INI, query, result of the event calls, layer/label of the events, transaction name, log id suffix)
        events = ["api/entry", "api/step", "api/error", "api/error", "api/exit"]
        cases = (({}, "auto", True, ["PHP/entry"] + events + ["PHP/exit"], "api-tx", "-1"),
                 ({"corvidine.sample_rate": "0"}, "unsampled", False, [], None, "-0"),
                 ({"corvidine.use_custom_start_trace": "1"}, "custom", True, ["api/entry"] + events + ["api/exit"],
                  "api-end", "-1"))
        for ini, query, result, labels, name, suffix in cases:
            with self.subTest(query=query), harness.FpmServer(harness.CURRENT_PHP, ini) as fpm:
                response, r = page(fpm, query)
                self.assertEqual({c: result for c in CALLS}, {c: r[c] for c in CALLS})
                self.assertEqual((True, True, False, False), (r["started"], r["name"], r["summary"], r["increment"]))  # file: no metrics
                xtrace = response.header("X-Trace")
                self.assertEqual(xtrace[2:42] + suffix, r["id"])
                if not labels:
                    time.sleep(0.3)
                    self.assertEqual([], fpm.traces.by_task(xtrace[2:42]))
                    continue
                entry, _ = fpm.traces.wait_trace(lambda e: "user_api" in e.get("URL", ""))
                trace = wait_for(lambda: [e for e in [fpm.traces.by_task(entry["X-Trace"][2:42])] if len(e) >= len(labels)],
                                 5)[0]
                exit_ = trace[-1]
                self.assertEqual(labels, ["%s/%s" % (e.get("Layer"), e["Label"]) for e in trace])
                self.assertEqual(xtrace, exit_["X-Trace"])  # the response names the exit event
                self.assertEqual(name, exit_["TransactionName"])
                self.assertEqual(("WARNING", "bad"), (trace[3]["ErrorClass"], trace[3]["ErrorMsg"]))
                self.assertEqual("RuntimeException", trace[4]["ErrorClass"])
                self.assertEqual([], fpm.crashes())

    def test_collector_gets_events_and_custom_metrics(self):
        settings = settings_answer()
        settings.settings[0].arguments["MetricsFlushInterval"] = struct.pack("=i", 1)
        env = {"CORVIDINE_REPORTER": "ssl", "CORVIDINE_TRUSTEDPATH": authority().pem_path,
               "CORVIDINE_SERVICE_KEY": "0123456789abcdef:it-service", "CORVIDINE_EVENTS_FLUSH_INTERVAL": "1"}
        with Collector(tls=server_context(authority().cert_path)) as c:
            c.script("getSettings", *([settings] * 50))
            env["CORVIDINE_COLLECTOR"] = "127.0.0.1:%d" % c.port
            with harness.FpmServer(harness.CURRENT_PHP, {"corvidine.max_ready_wait_time": "3000"}, env,
                                   children=1) as fpm:
                # Ready once the worker's own reporter had its answer; the metrics queued for the Collector.
                self.assertTrue(wait_for(lambda: page(fpm, "warm")[1]["ready"]))
                _, r = page(fpm, "route=final")
                self.assertEqual((True, True), (r["summary"], r["increment"]), r)
                self.assertTrue(wait_for(lambda: [d for _, d in documents(c) if d.get("Label") == "step"]))
                metrics = wait_for(lambda: c.calls_of("postMetrics"), 8)
                if not metrics:
                    raise unittest.SkipTest("this reporter sends no metrics message yet")
                custom = wait_for(lambda: [m for call in c.calls_of("postMetrics") for raw in call["messages"]
                                           for m in bson.decode(raw).get("measurements", [])
                                           if m.get("tags", {}).get("route") == "final"], 8)
                by_name = {m["name"]: m for m in custom}
                self.assertEqual({"count": 2, "sum": 2.5, "tags": {"route": "final", "SN": "svc", "HostTag": "true"}},
                                 {k: by_name["api.summary"].get(k) for k in ("count", "sum", "tags")})
                self.assertEqual({"name": "api.count", "count": 3, "tags": {"route": "final"}}, by_name["api.count"])
