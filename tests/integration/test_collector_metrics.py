"""Metrics messages from a php-fpm worker to the test Collector (python3-bson; histograms read by Java's
HdrHistogram and npm's hdr-histogram-js): every key, counts equal to the requests served across a Collector outage
and the worker's graceful stop, and a settings answer that turns sampling off applying to the next request."""
import os
import signal
import struct
import sys
import time
import unittest

import harness
from harness import curl
from test_collector_reporter import alive, collector, documents, server, settings_answer, wait_for

ROOT = os.path.dirname(os.path.dirname(harness.HERE))
sys.path[:0] = [os.path.join(ROOT, "tools"), os.path.join(ROOT, "tests", "wire")]
from bson_tools import decode, type_name  # noqa: E402
from hdr_histogram_check import JAR, js_module, run  # noqa: E402

HEAD = [("ConfiguredHostname", "string"), ("Distro", "string"), ("TID", "int64"), ("UnameSysName", "string"),
        ("UnameVersion", "string"), ("IPAddresses", "array"), ("Timestamp_u", "int64"),
        ("MetricsFlushInterval", "int64"), ("measurements", "array"), ("histograms", "array")]
LAYER = ["RequestCount", "TokenBucketExhaustionCount", "TraceCount", "SampleCount", "ThroughTraceCount",
         "ThroughIgnoredCount", "TriggeredCount", "SampleRate", "SampleSource"]
REPORTER = ["NumSent", "NumOverflowed", "NumFailed", "TotalEvents", "QueueLargest", "Load1", "TotalRAM", "FreeRAM",
            "ProcessRAM"]


def answer(rate):
    result = settings_answer(rate)
    result.settings[0].arguments["MetricsFlushInterval"] = struct.pack("=i", 1)
    return result


def first_request(c, fpm, marker):
    """One request that is traced (it waits for the settings): the pid of the worker that served it."""
    curl(fpm.url("/index.php?%s=1" % marker))
    found = wait_for(lambda: [pid for pid, d in documents(c) if marker in d.get("URL", "")])
    assert found, "the first request was not traced"
    return found[0]


def metrics(collectors, pid):
    """The worker's metrics documents, with the number of documents of the post that carried each."""
    return [(d, len(call["messages"])) for c in collectors for call in c.calls_of("postMetrics")
            if call["identity"]["pid"] == pid for raw in call["messages"] for d in decode(raw)]


def requests_counted(docs):
    return sum(m["count"] for d, _ in docs for m in d["measurements"] if m.get("name") == "TransactionResponseTime"
               and not {"HttpMethod", "HttpStatus", "Errors"} & set(m.get("tags", {})))


def layer(docs, name):
    return [m["value"] for d, _ in docs for m in d["measurements"] if m.get("name") == name]


class CollectorMetrics(unittest.TestCase):
    def setUp(self):
        if harness.CURRENT_PHP.fpm is None:
            raise unittest.SkipTest("no php-fpm for this PHP build")

    def test_requests_counted_once_across_an_outage_and_the_stop(self):
        first = collector()
        first._replies["getSettings"][:] = [answer(1000000)] * 50
        fpm = server(first.port, children=1, CORVIDINE_HOSTNAME_ALIAS="it-alias").start()
        collectors = [first]
        try:
            pid = first_request(first, fpm, "warm")
            for i in range(3):
                curl(fpm.url("/index.php?up=%d" % i))
            self.assertTrue(wait_for(lambda: requests_counted(metrics(collectors, pid)) >= 4))
            first.stop()
            for i in range(3):
                self.assertEqual(200, curl(fpm.url("/index.php?down=%d" % i)).status)
            time.sleep(2.5)  # more than two intervals without a Collector
            collectors.append(collector(first.port))
            collectors[1]._replies["getSettings"][:] = [answer(1000000)] * 50
            self.assertTrue(wait_for(lambda: requests_counted(metrics(collectors[1:], pid)) >= 3))
            for i in range(2):
                curl(fpm.url("/index.php?last=%d" % i))
            os.kill(pid, signal.SIGQUIT)  # php-fpm's graceful stop: the reporter's last messages go out
            self.assertTrue(wait_for(lambda: not alive(pid), 10))
            self.assertEqual([], fpm.crashes())
        finally:
            fpm.stop()
            collectors[-1].stop()
        docs = metrics(collectors, pid)
        self.assertEqual(9, requests_counted(docs))
        self.assertEqual(9, sum(layer(docs, "RequestCount")))
        self.assertGreaterEqual(max(n for _, n in metrics(collectors[1:], pid)), 2, "messages held in the outage")
        for d, _ in docs:
            self.assertEqual(HEAD, [(k, type_name(v)) for k, v in d.pairs])
            names = [m["name"] for m in d["measurements"]]
            self.assertEqual(LAYER + REPORTER, list(dict.fromkeys(n for n in names if n != "TransactionResponseTime")))
        self.assertEqual(("it-alias", 1), (docs[-1][0]["ConfiguredHostname"], docs[-1][0]["MetricsFlushInterval"]))
        # Every request once in the transaction's histograms, as two decoders we did not write read them.
        texts = [h["value"] for d, _ in docs for h in d["histograms"] if "TransactionName" in h.get("tags", {})]
        for reader in (["java", "-cp", JAR, os.path.join(ROOT, "tests", "wire", "HdrJavaCodec.java"), "decode"],
                       ["node", os.path.join(ROOT, "tests", "wire", "hdr_js_decode.js"),
                        js_module(os.path.join(ROOT, "build"))]):
            self.assertEqual(9, sum(int(line.split()[0]) for line in run(reader, texts)), reader[0])

    def test_sampling_turned_off_by_the_collector_applies_to_the_next_request(self):
        with collector() as c:
            c._replies["getSettings"][:] = [answer(1000000)] * 50
            with server(c.port, children=1, CORVIDINE_EVENTS_FLUSH_INTERVAL=1) as fpm:
                pid = first_request(c, fpm, "before")
                # The worker's connection (its metrics), and its settings requests on it (every 30 s).
                conn = wait_for(lambda: [p["conn"] for p in c.calls_of("postMetrics") if p["identity"]["pid"] == pid])
                asked = lambda: len([g for g in c.calls_of("getSettings") if g["conn"] == conn[0]])  # noqa: E731
                before = asked()
                c._replies["getSettings"][:] = [answer(0)] * 50
                self.assertTrue(wait_for(lambda: asked() > before, 45))
                time.sleep(0.5)  # the answer is merged right after it arrives
                curl(fpm.url("/index.php?after=1"))
                self.assertTrue(wait_for(lambda: sum(layer(metrics([c], pid), "RequestCount")) >= 2))
                time.sleep(2)  # an event of that request would have been posted by now
            docs = metrics([c], pid)
            self.assertEqual([2, 1], [sum(layer(docs, "RequestCount")), sum(layer(docs, "TraceCount"))])
            self.assertEqual([1000000, 0], [layer(docs, "SampleRate")[0], layer(docs, "SampleRate")[-1]])
            self.assertEqual([], [d for _, d in documents(c) if "after=1" in d.get("URL", "")])


if __name__ == "__main__":
    unittest.main()
