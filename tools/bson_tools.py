#!/usr/bin/python3
"""Reads BSON documents (for the tools and the tests) with Debian's python3-bson, a
decoder we did not write, so a malformed document fails there and not in our
own reader. Strings must be UTF-8 unless asked otherwise.

Every document keeps its elements in order, repeated keys included: an event
may carry several "Edge" keys, and a dict (or SON) would keep only one.

As a module (put this folder on sys.path):
    decode(data), decode_file(path)   -> [Document, ...]
    typed(value)                      -> [type, value], JSON-ready

As a script:
    bson_tools.py json [FILE...]      one JSON line a document:
                                      [[key, [type, value]], ...], nested
                                      documents and arrays alike; stdin when
                                      no FILE. Malformed input: one line
                                      {"error": ...}, exit status 1.
    bson_tools.py fields FILE...      "document N" and then one
                                      "key type value" line a field.
                                      Malformed input: message on stderr,
                                      exit status 2.
    bson_tools.py count FILE...       the number of documents. Malformed
                                      input as with fields.

Types: string, bool, int32, int64, double, document, array, binary, null
(anything else by its python3-bson class name).
"""
import json
import sys
from collections.abc import MutableMapping

import bson
from bson.codec_options import CodecOptions
from bson.int64 import Int64


class Document(MutableMapping):
    """The elements of a document in order, repeated keys included (pairs).

    python3-bson sets each element it decodes, in order; setting here adds an
    element. Looked up as a mapping it answers as the dict the decoder would
    have made: each key once, at its first place, with its last value. Use
    pairs or getall() where a key may repeat."""

    __slots__ = ("pairs", "_last")

    def __init__(self, *args, **kwargs):
        self.pairs = []
        self._last = {}
        self.update(*args, **kwargs)

    def __setitem__(self, key, value):
        self.pairs.append((key, value))
        self._last[key] = value

    def __getitem__(self, key):
        return self._last[key]

    def __delitem__(self, key):
        del self._last[key]
        self.pairs = [(k, v) for k, v in self.pairs if k != key]

    def __iter__(self):
        return iter(self._last)

    def __len__(self):
        return len(self._last)

    def __contains__(self, key):
        return key in self._last

    def get(self, key, default=None):
        return self._last.get(key, default)

    def getall(self, key):
        """Every value of key, in document order."""
        return [v for k, v in self.pairs if k == key]

    def __repr__(self):
        return "{" + ", ".join("%r: %r" % pair for pair in self.pairs) + "}"


def options(errors="strict"):
    """errors: how strings that are not UTF-8 decode ("strict" fails,
    "replace" puts U+FFFD in their place)."""
    return CodecOptions(document_class=Document, unicode_decode_error_handler=errors)


def decode(data, errors="strict"):
    """The documents of concatenated BSON bytes."""
    return bson.decode_all(data, options(errors))


def decode_file(path, errors="strict"):
    with open(path, "rb") as handle:
        return decode(handle.read(), errors)


# Exact classes: python3-bson's Code is a str and Int64 an int, and a type
# must not pass for another.
TYPE_NAMES = {
    bool: "bool", Int64: "int64", int: "int32", float: "double", str: "string",
    type(None): "null", list: "array", Document: "document",
}


def type_name(value):
    if isinstance(value, bytes):  # also Binary of any subtype
        return "binary"
    return TYPE_NAMES.get(type(value), type(value).__name__)


def typed(value):
    """[type, value] with nested documents and arrays typed alike; binary
    as hex."""
    name = type_name(value)
    if name == "document":
        return [name, [[k, typed(v)] for k, v in value.pairs]]
    if name == "array":
        return [name, [typed(v) for v in value]]
    if name == "binary":
        return [name, value.hex()]
    if name in ("bool", "int64", "int32", "double", "string", "null"):
        return [name, value]
    return [name, repr(value)]


def read_inputs(paths):
    if not paths:
        return [("-", sys.stdin.buffer.read())]
    inputs = []
    for path in paths:
        with open(path, "rb") as handle:
            inputs.append((path, handle.read()))
    return inputs


def print_json(paths):
    for _, data in read_inputs(paths):
        try:
            documents = decode(data)
        except Exception as error:  # malformed input: said plainly, and a failure
            print(json.dumps({"error": str(error)}))
            return 1
        for document in documents:
            print(json.dumps(typed(document)[1]))
    return 0


def print_fields(paths):
    for path, data in read_inputs(paths):
        try:
            documents = decode(data)
        except Exception as error:
            print("%s: invalid BSON: %s" % (path, error), file=sys.stderr)
            return 2
        for number, document in enumerate(documents):
            print("document %d" % number)
            for key, value in document.pairs:
                print("%s %s %s" % (key, type_name(value), value))
    return 0


def print_count(paths):
    count = 0
    for path, data in read_inputs(paths):
        try:
            count += len(decode(data))
        except Exception as error:
            print("%s: invalid BSON: %s" % (path, error), file=sys.stderr)
            return 2
    print(count)
    return 0


COMMANDS = {"json": print_json, "fields": print_fields, "count": print_count}


def main(argv):
    if not argv or argv[0] not in COMMANDS:
        print(__doc__, file=sys.stderr)
        return 64
    return COMMANDS[argv[0]](argv[1:])


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
