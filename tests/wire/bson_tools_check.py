#!/usr/bin/python3
"""tools/bson_tools.py on hand-built documents: repeated keys, strict UTF-8, script outputs and failures."""
import json
import os
import struct
import subprocess
import sys
import tempfile

TOOL = os.path.join(os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__)))), "tools", "bson_tools.py")
sys.path.insert(0, os.path.dirname(TOOL))
import bson_tools  # noqa: E402


def element(kind, key, payload):
    return bytes([kind]) + key.encode() + b"\0" + payload


def string(key, text):
    raw = text if isinstance(text, bytes) else text.encode()
    return element(0x02, key, struct.pack("<i", len(raw) + 1) + raw + b"\0")


def document(*elements):
    body = b"".join(elements)
    return struct.pack("<i", len(body) + 5) + body + b"\0"


event = document(string("Label", "entry"), string("Edge", "AAAA"), element(0x12, "Timestamp_u", struct.pack("<q", 7)),
                 string("Edge", "BBBB"), element(0x03, "Sub", document(string("k", "1"), string("k", "2"))),
                 element(0x08, "Ok", b"\x01"), element(0x10, "N", struct.pack("<i", -3)))
second, not_utf8 = document(string("Label", "exit")), document(string("s", b"a\xffb"))
docs = bson_tools.decode(event + second)
e = docs[0]
assert len(docs) == 2 and e.getall("Edge") == ["AAAA", "BBBB"] and e["Sub"].getall("k") == ["1", "2"], e.pairs
# As a mapping: each key once, at its first place, with its last value.
assert list(e) == ["Label", "Edge", "Timestamp_u", "Sub", "Ok", "N"] and e["Edge"] == "BBBB", list(e)
assert bson_tools.typed(e)[1][2:] == [["Timestamp_u", ["int64", 7]], ["Edge", ["string", "BBBB"]], ["Sub", [
    "document", [["k", ["string", "1"]], ["k", ["string", "2"]]]]], ["Ok", ["bool", True]], ["N", ["int32", -3]]]
try:
    bson_tools.decode(not_utf8)
except Exception as error:
    assert "utf-8" in str(error).lower(), error
else:
    raise AssertionError("a bad string decoded in strict mode")
assert bson_tools.decode(not_utf8, "replace")[0]["s"] == "a\ufffdb"


def run(*args, data=None):
    return subprocess.run(["/usr/bin/python3", TOOL] + list(args), input=data, capture_output=True)


with tempfile.TemporaryDirectory() as tmp:
    good, bad = os.path.join(tmp, "good.bson"), os.path.join(tmp, "bad.bson")
    with open(good, "wb") as a, open(bad, "wb") as b:
        a.write(event + second)
        b.write(event + second[:-2])
    by_file, by_stdin = run("json", good), run("json", data=event + second)
    assert by_file.returncode == 0 and by_file.stdout == by_stdin.stdout, (by_file, by_stdin)
    assert [json.loads(line) for line in by_file.stdout.decode().splitlines()] == [bson_tools.typed(d)[1] for d in docs]
    assert run("fields", good).stdout.decode().splitlines()[3:5] == ["Timestamp_u int64 7", "Edge string BBBB"]
    assert run("count", good, good).stdout == b"4\n"
    failed = run("json", bad)
    assert failed.returncode == 1 and "error" in json.loads(failed.stdout), failed
    for command in ("fields", "count"):
        failed = run(command, bad)
        assert failed.returncode == 2 and b"invalid BSON" in failed.stderr, failed
    assert run("json", data=not_utf8).returncode == 1

print("bson_tools: repeated keys kept, dict lookups, strict UTF-8, script outputs and failures")
