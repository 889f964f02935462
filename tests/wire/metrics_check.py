#!/usr/bin/python3
"""Metrics messages of the whole Collector reporter (build/reporter_probe) as the test Collector receives them: every
key and type read by python3-bson, histograms read by Java's HdrHistogram and npm's hdr-histogram-js, counts equal to
what was recorded, custom metrics, an outage of more than two intervals, the last message at shutdown."""
import os
import struct
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
sys.path.insert(0, os.path.join(ROOT, "tools", "collector"))
sys.path.insert(0, os.path.join(ROOT, "tools"))
sys.path.insert(0, HERE)
from bson_tools import decode, type_name  # noqa: E402
from certs import Authority  # noqa: E402
from collector import Collector, server_context, ttypes  # noqa: E402
from hdr_histogram_check import JAR, js_module, run  # noqa: E402

BUILD = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else os.path.join(ROOT, "build"))
HEAD = [("ConfiguredHostname", "string"), ("Distro", "string"), ("TID", "int64"), ("UnameSysName", "string"),
        ("UnameVersion", "string"), ("IPAddresses", "array"), ("Timestamp_u", "int64"),
        ("MetricsFlushInterval", "int64")]
CUSTOM_HEAD = [HEAD[0], HEAD[2], HEAD[5], HEAD[6], HEAD[7], ("IsCustom", "bool"), ("measurements", "array")]
REPORTER_VALUES = [("NumSent", "int64"), ("NumOverflowed", "int64"), ("NumFailed", "int64"), ("TotalEvents", "int64"),
                   ("QueueLargest", "int64"), ("Load1", "double"), ("TotalRAM", "int64"), ("FreeRAM", "int64"),
                   ("ProcessRAM", "int64")]


def settings(interval=1):
    arguments = {"BucketCapacity": struct.pack("=d", 10.0), "BucketRate": struct.pack("=d", 10.0),
                 "MetricsFlushInterval": struct.pack("=i", interval)}
    record = ttypes.VeskSetting(type=2, flags="SAMPLE_START", timestamp=0, value=1000000, layer="",
                                arguments=arguments, ttl=600)
    return ttypes.SettingsResult(result=0, arg="", settings=[record])


def collector(ca, port=0, interval=1):
    c = Collector(tls=server_context(ca.server("localhost")), port=port)
    c.script("getSettings", *[settings(interval)] * 20)
    return c


def probe(port, ca, *steps):
    env = dict(os.environ, CORVIDINE_CLOUD_METADATA="off")
    return subprocess.Popen([os.path.join(BUILD, "reporter_probe"), "localhost:%d" % port, ca.pem_path] + list(steps),
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, env=env)


def finish(proc):
    out, err = proc.communicate(timeout=60)
    assert proc.returncode == 0, (out, err[-2000:])
    return out.splitlines()


def messages(calls):
    """(span documents, custom documents) of postMetrics calls, in arrival order."""
    docs = [d for call in calls for raw in call["messages"] for d in decode(raw)]
    return [d for d in docs if "IsCustom" not in d], [d for d in docs if "IsCustom" in d]


def response_counts(docs, tags):
    return sum(m["count"] for d in docs for m in d["measurements"]
               if m.get("name") == "TransactionResponseTime" and dict(m.get("tags", {})) == tags)


def check_documents(ca):
    with collector(ca) as c:
        proc = probe(c.port, ca, "sleep:1500", "span:svc:/a:1000:200:GET:0x5", "span:svc:/a:250000:500:POST:1x2",
                     "span:svc:unknown:5000:200:GET:0", "summary:m1:1.5:1:0:svc:k=v", "summary:m1:2.5:2:0:svc:k=v",
                     "increment:m1:4:1::", "sleep:2200", "span:svc:/last:70:200:GET:0x3", "shutdown")
        out = finish(proc)
        assert out[:4] == ["init 0", "sleep 1", "span 5", "span 2"], out
        spans, custom = messages(c.calls_of("postMetrics"))
    assert len(spans) >= 3, spans
    now = time.time() * 1e6
    for d in spans:
        head = [(k, type_name(v)) for k, v in d.pairs]
        assert head == HEAD + [("measurements", "array"), ("histograms", "array")], head
        assert d["ConfiguredHostname"] == "probe-alias" and d["Distro"] and d["UnameSysName"] == os.uname().sysname
        assert all(type_name(a) == "string" for a in d["IPAddresses"]) and abs(d["Timestamp_u"] - now) < 120e6, d
        values = [(m["name"], type_name(m["value"])) for m in d["measurements"] if "value" in m]
        assert values == REPORTER_VALUES, values
        for m in d["measurements"]:
            if "count" in m:
                assert type_name(m["count"]) == "int64" and type_name(m["sum"]) == "double", m
    assert spans[-1]["MetricsFlushInterval"] == 1, spans[-1]
    # Every span counted exactly once over the messages.
    base = {"SN": "svc", "TransactionName": "/a"}
    for tags, count in ((base, 7), (dict(base, HttpMethod="POST"), 2), (dict(base, HttpStatus="200"), 5),
                        (dict(base, Errors="true"), 2), ({"SN": "svc", "TransactionName": "unknown"}, 1),
                        ({"SN": "svc", "TransactionName": "/last"}, 3)):
        assert response_counts(spans, tags) == count, (tags, response_counts(spans, tags))

    # Histograms: ours, read by two decoders we did not write; "unknown" only in the service's.
    histograms = [(dict(h["tags"]), h["value"]) for d in spans for h in d["histograms"]]
    assert all(h["name"] == "TransactionResponseTime" for d in spans for h in d["histograms"])
    texts = [text for _, text in histograms]
    java = run(["java", "-cp", JAR, os.path.join(HERE, "HdrJavaCodec.java"), "decode"], texts)
    node = run(["node", os.path.join(HERE, "hdr_js_decode.js"), js_module(BUILD)], texts)
    totals = {}
    for (tags, _), j, n in zip(histograms, java, node):
        assert j.split()[:3] == n.split()[:3], (j[:80], n[:80])
        key = tags.get("TransactionName", "")
        totals[key] = totals.get(key, 0) + int(j.split()[0])
        if key == "/last":
            assert n.split()[1:3] == ["70", "70"], n[:80]
    assert totals == {"": 11, "/a": 7, "/last": 3}, totals

    # Custom metrics: a summary adds up, an increment has no sum and is a measurement of its own.
    assert custom, "no custom metrics document"
    for d in custom:
        assert [(k, type_name(v)) for k, v in d.pairs] == CUSTOM_HEAD, d
    found = [(m["name"], dict(m.get("tags", {})), m["count"], m.get("sum")) for d in custom for m in d["measurements"]]
    assert sorted(found, key=str) == sorted([("m1", {"SN": "svc", "k": "v"}, 3, 4.0),
                                             ("m1", {"HostTag": "true"}, 4, None)], key=str), found


def check_outage(ca):
    """Collector away for more than two intervals: the messages made meanwhile arrive together afterwards, every span
    counted once."""
    c = collector(ca)
    port = c.port
    proc = probe(port, ca, "sleep:1500", "span:svc:/before:100:200:GET:0x2", "sleep:2000",
                 "span:svc:/during:100:200:GET:0x3", "sleep:5000", "span:svc:/after:100:200:GET:0x4", "sleep:1500",
                 "shutdown")
    time.sleep(3.0)
    before, _ = messages(c.calls_of("postMetrics"))
    c.stop()
    time.sleep(3.5)
    c = collector(ca, port)
    try:
        finish(proc)
    finally:
        c.stop()
    after_calls = c.calls_of("postMetrics")
    after, _ = messages(after_calls)
    assert max(len(call["messages"]) for call in after_calls) >= 3, [len(x["messages"]) for x in after_calls]
    for name, count in (("/before", 2), ("/during", 3), ("/after", 4)):
        got = response_counts(before + after, {"SN": "svc", "TransactionName": name})
        assert got == count, (name, got)


def check_final_message(ca):
    """At a 60 s interval only the stop makes a message: it carries what came before it."""
    with collector(ca, interval=60) as c:
        finish(probe(c.port, ca, "sleep:1500", "span:svc:/final:100:200:GET:0x3", "shutdown"))
        spans, _ = messages(c.calls_of("postMetrics"))
    assert response_counts(spans, {"SN": "svc", "TransactionName": "/final"}) == 3, spans
    assert {d["MetricsFlushInterval"] for d in spans} == {60} and len(spans) <= 2, spans  # 2: a minute began


def main():
    ca = Authority(tempfile.mkdtemp(prefix="metrics-check-"))
    check_documents(ca)
    check_outage(ca)
    check_final_message(ca)
    print("metrics_check: documents, histograms (Java, JS), custom metrics, outage, final message: ok")
    return 0


if __name__ == "__main__":
    sys.exit(main())
