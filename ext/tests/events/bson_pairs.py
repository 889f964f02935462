#!/usr/bin/python3
"""Decodes concatenated BSON documents from stdin with Debian's python3-bson
and prints each as one JSON line: [[key, [type, value]], ...], nested
documents and arrays alike. Unlike a dict, the pair list keeps repeated keys
(an event may carry several "Edge" keys): python3-bson does the decoding and
hands every element to the document class below, which only records it."""
import json
import sys
from collections.abc import MutableMapping

import bson
from bson.codec_options import CodecOptions
from bson.int64 import Int64


class Pairs(MutableMapping):
    """Every element the decoder sets, in order, repeated keys included."""

    def __init__(self, *args, **kwargs):
        self.pairs = []

    def __setitem__(self, key, value):
        self.pairs.append((key, value))

    def __getitem__(self, key):
        for k, v in self.pairs:
            if k == key:
                return v
        raise KeyError(key)

    def __delitem__(self, key):
        self.pairs = [(k, v) for k, v in self.pairs if k != key]

    def __iter__(self):
        return iter([k for k, _ in self.pairs])

    def __len__(self):
        return len(self.pairs)


def typed(value):
    if isinstance(value, Pairs):
        return ["document", [[k, typed(v)] for k, v in value.pairs]]
    if isinstance(value, list):
        return ["array", [typed(v) for v in value]]
    if isinstance(value, bool):
        return ["bool", value]
    if isinstance(value, Int64):
        return ["int64", int(value)]
    if isinstance(value, int):
        return ["int32", value]
    if isinstance(value, float):
        return ["double", value]
    if isinstance(value, str):
        return ["string", value]
    if isinstance(value, bytes):
        return ["binary", value.hex()]
    if value is None:
        return ["null", None]
    return [type(value).__name__, repr(value)]


def main():
    data = sys.stdin.buffer.read()
    try:
        docs = bson.decode_all(data, CodecOptions(document_class=Pairs))
    except Exception as error:  # malformed input: say so and fail
        print(json.dumps({"error": str(error)}))
        return 1
    for doc in docs:
        print(json.dumps(typed(doc)[1]))
    return 0


if __name__ == "__main__":
    sys.exit(main())
