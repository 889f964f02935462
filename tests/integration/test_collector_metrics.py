"""Metrics messages from php-fpm workers to the test Collector (python3-bson; histograms read by Java's
HdrHistogram): every key, counts equal to the requests served, and a settings answer that turns sampling off taking
effect on the next request."""
import os
import struct
import subprocess
import time
import unittest

import sys

import harness
from harness import curl
from test_collector_reporter import collector, documents, server, settings_answer, wait_for

ROOT = os.path.dirname(os.path.dirname(harness.HERE))
sys.path.insert(0, os.path.join(ROOT, "tools"))
from bson_tools import decode, type_name  # noqa: E402

JAR = "/usr/share/java/hdrhistogram.jar"
JAVA_DECODER = os.path.join(ROOT, "tests", "wire", "HdrJavaCodec.java")
HEAD = ["ConfiguredHostname", "Distro", "TID", "UnameSysName", "UnameVersion", "IPAddresses", "Timestamp_u",
        "MetricsFlushInterval", "measurements", "histograms"]
LAYER_COUNTERS = ["RequestCount", "TokenBucketExhaustionCount", "TraceCount", "SampleCount", "ThroughTraceCount",
                  "ThroughIgnoredCount", "TriggeredCount", "SampleRate", "SampleSource"]


def answer(rate):
    """The usual settings record, at `rate`, with a metrics interval of 1 s."""
    result = settings_answer(rate)
    result.settings[0].arguments["MetricsFlushInterval"] = struct.pack("=i", 1)
    return result


def metrics(c):
    return [d for call in c.calls_of("postMetrics") for raw in call["messages"] for d in decode(raw)
            if "IsCustom" not in d]


def counted(docs, transaction):
    """TransactionResponseTime counts of `transaction` without method, status or error tags."""
    return sum(m["count"] for d in docs for m in d["measurements"] if m.get("name") == "TransactionResponseTime"
               and dict(m["tags"]).get("TransactionName") == transaction and len(m["tags"]) <= 2)


def layer_value(doc, name):
    return sum(m["value"] for m in doc["measurements"] if m.get("name") == name)


class CollectorMetrics(unittest.TestCase):
    def setUp(self):
        if harness.CURRENT_PHP.fpm is None:
            raise unittest.SkipTest("no php-fpm for this PHP build")

    def test_documents_count_the_requests_served(self):
        requests = 7
        with collector() as c:
            c._replies["getSettings"][:] = [answer(1000000)] * 50
            with server(c.port, children=1, CORVIDINE_HOSTNAME_ALIAS="it-alias") as fpm:
                for i in range(requests):
                    self.assertEqual(200, curl(fpm.url("/index.php?metrics=%d" % i)).status)
                self.assertTrue(wait_for(lambda: counted(metrics(c), "/index.php") >= requests), metrics(c)[-1:])
                time.sleep(1.5)  # one more interval: nothing is counted twice
            docs = metrics(c)
        self.assertEqual(requests, counted(docs, "/index.php"))
        self.assertEqual(requests, sum(layer_value(d, "RequestCount") for d in docs))
        self.assertEqual(requests, sum(layer_value(d, "TraceCount") for d in docs))
        for d in docs:
            self.assertEqual(HEAD, [k for k, _ in d.pairs])
            self.assertEqual(("it-alias", "int64", "int64"), (d["ConfiguredHostname"], type_name(d["TID"]),
                                                             type_name(d["MetricsFlushInterval"])))
            names = [m["name"] for m in d["measurements"]]
            self.assertEqual(LAYER_COUNTERS, list(dict.fromkeys(n for n in names if n in LAYER_COUNTERS)))
        self.assertEqual(1, docs[-1]["MetricsFlushInterval"])
        # The transaction's histograms, read by Java's HdrHistogram, hold every request once.
        texts = [h["value"] for d in docs for h in d["histograms"]
                 if dict(h["tags"]).get("TransactionName") == "/index.php"]
        out = subprocess.run(["java", "-cp", JAR, JAVA_DECODER, "decode"], input="\n".join(texts) + "\n",
                             capture_output=True, text=True, timeout=300, check=True).stdout.split("\n")
        self.assertEqual(requests, sum(int(line.split()[0]) for line in out if line))

    def test_sampling_turned_off_by_the_collector_applies_to_the_next_request(self):
        with collector() as c:
            c._replies["getSettings"][:] = [answer(1000000)] + [answer(0)] * 50
            with server(c.port, children=1, CORVIDINE_EVENTS_FLUSH_INTERVAL=1) as fpm:
                curl(fpm.url("/index.php?before=1"))
                self.assertTrue(wait_for(lambda: any("before=1" in d.get("URL", "") for _, d in documents(c))))
                # Settings are asked for every 30 s: the second answer says 0.
                self.assertTrue(wait_for(lambda: len(c.calls_of("getSettings")) >= 2, 45))
                time.sleep(1)
                self.assertEqual(200, curl(fpm.url("/headers.php?after=1")).status)
                self.assertTrue(wait_for(lambda: counted(metrics(c), "headers.php") == 1))
                time.sleep(2)  # an event of that request would have been posted by now
            self.assertEqual([], [d for _, d in documents(c) if "after=1" in d.get("URL", "")])
            rates = [layer_value(d, "SampleRate") for d in metrics(c) if layer_value(d, "RequestCount")]
            self.assertEqual([1000000, 0], [rates[0], rates[-1]])


if __name__ == "__main__":
    unittest.main()
