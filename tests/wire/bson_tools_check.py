#!/usr/bin/python3
"""The tests' shared reader (tests/support/bson_tools.py) on documents built
here byte by byte: repeated keys survive in both the module and the script
outputs, lookups answer as a dict would, strings must be UTF-8 unless asked
otherwise, and malformed input fails with the documented status."""
import json
import os
import struct
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
TOOL = os.path.join(os.path.dirname(HERE), "support", "bson_tools.py")
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
second = document(string("Label", "exit"))
not_utf8 = document(string("s", b"a\xffb"))

docs = bson_tools.decode(event + second)
assert len(docs) == 2, docs
e = docs[0]
assert e.getall("Edge") == ["AAAA", "BBBB"], e.pairs
assert [k for k, _ in e.pairs] == ["Label", "Edge", "Timestamp_u", "Edge", "Sub", "Ok", "N"], e.pairs
# As a mapping: each key once, at its first place, with its last value.
assert list(e) == ["Label", "Edge", "Timestamp_u", "Sub", "Ok", "N"] and len(e) == 6, list(e)
assert e["Edge"] == "BBBB" and e.get("Edge") == "BBBB" and "Edge" in e and e.get("Missing") is None
assert e["Sub"].getall("k") == ["1", "2"]
assert bson_tools.typed(e)[1] == [
    ["Label", ["string", "entry"]], ["Edge", ["string", "AAAA"]], ["Timestamp_u", ["int64", 7]],
    ["Edge", ["string", "BBBB"]], ["Sub", ["document", [["k", ["string", "1"]], ["k", ["string", "2"]]]]],
    ["Ok", ["bool", True]], ["N", ["int32", -3]]], bson_tools.typed(e)
assert repr(e["Sub"]) == "{'k': '1', 'k': '2'}", repr(e["Sub"])

try:
    bson_tools.decode(not_utf8)
    raise AssertionError("a string that is not UTF-8 decoded in strict mode")
except Exception as error:
    assert "utf-8" in str(error).lower(), error
assert bson_tools.decode(not_utf8, "replace")[0]["s"] == "a\ufffdb"


def run(*args, data=None):
    return subprocess.run(["/usr/bin/python3", TOOL] + list(args), input=data, capture_output=True)


with tempfile.TemporaryDirectory() as tmp:
    good, bad = os.path.join(tmp, "good.bson"), os.path.join(tmp, "bad.bson")
    with open(good, "wb") as handle:
        handle.write(event + second)
    with open(bad, "wb") as handle:
        handle.write(event + second[:-2])

    by_file, by_stdin = run("json", good), run("json", data=event + second)
    assert by_file.returncode == 0 and by_file.stdout == by_stdin.stdout, (by_file, by_stdin)
    lines = [json.loads(line) for line in by_file.stdout.decode().splitlines()]
    assert lines == [bson_tools.typed(d)[1] for d in docs], lines

    fields = run("fields", good)
    assert fields.returncode == 0, fields
    assert fields.stdout.decode().splitlines()[:6] == [
        "document 0", "Label string entry", "Edge string AAAA", "Timestamp_u int64 7", "Edge string BBBB",
        "Sub document {'k': '1', 'k': '2'}"], fields.stdout

    count = run("count", good, good)
    assert count.returncode == 0 and count.stdout == b"4\n", count

    failed = run("json", bad)
    assert failed.returncode == 1 and "error" in json.loads(failed.stdout), failed
    for command in ("fields", "count"):
        failed = run(command, bad)
        assert failed.returncode == 2 and b"invalid BSON" in failed.stderr, failed
    failed = run("json", data=not_utf8)
    assert failed.returncode == 1, failed

print("bson_tools: repeated keys kept, dict lookups, strict UTF-8, script outputs and failures")
