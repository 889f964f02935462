#!/usr/bin/python3
"""The demo's trace decodes with python3-bson into four events of one task, chained by their Edges."""
import os
import subprocess
import sys
import tempfile

import bson

sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__)))), "tools"))
import bson_tools  # noqa: E402

build = sys.argv[1]
with tempfile.TemporaryDirectory() as tmp:
    path = os.path.join(tmp, "trace.bson")
    subprocess.run([os.path.join(build, "corvidine_demo"), path], check=True)
    docs = bson_tools.decode_file(path)

assert len(docs) == 4, docs
tasks = {d["X-Trace"][2:42] for d in docs}
assert len(tasks) == 1, tasks
for prev, doc in zip(docs, docs[1:]):
    assert doc["Edge"] == prev["X-Trace"][42:58], (prev, doc)
for d in docs:
    keys = list(d.keys())
    assert keys[:2] == ["_V", "X-Trace"] and keys[-3:] == ["TID", "Timestamp_u", "Hostname"], keys
    assert d["X-Trace"].endswith("01") and len(d["X-Trace"]) == 60
    assert isinstance(d["Timestamp_u"], bson.int64.Int64)
stamps = [d["Timestamp_u"] for d in docs]
assert stamps == sorted(stamps), stamps
print("demo trace: 4 events, one task, edges chained")
