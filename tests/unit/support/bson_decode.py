#!/usr/bin/python3
"""Decodes concatenated BSON documents with Debian's python3-bson and prints
them as JSON, one document per line, keys in document order, each value as
[type, value] so tests can check BSON types as well as values."""
import json
import sys

import bson
from bson import int64
from bson.codec_options import CodecOptions
from bson.son import SON

TYPE_NAMES = {
    bool: "bool", int64.Int64: "int64", int: "int32", float: "double", str: "string",
    bytes: "binary", type(None): "null", list: "array",
}


def typed(value):
    if isinstance(value, (dict, SON)):
        return ["document", [[k, typed(v)] for k, v in value.items()]]
    if isinstance(value, list):
        return ["array", [typed(v) for v in value]]
    if isinstance(value, bytes):
        return ["binary", value.hex()]
    for py_type, name in TYPE_NAMES.items():
        if type(value) is py_type:
            return [name, value]
    return [type(value).__name__, repr(value)]


def main():
    data = open(sys.argv[1], "rb").read() if len(sys.argv) > 1 else sys.stdin.buffer.read()
    options = CodecOptions(document_class=SON)
    try:
        docs = bson.decode_all(data, options)
    except Exception as e:  # a malformed stream is a test failure, said plainly
        print(json.dumps({"error": str(e)}))
        sys.exit(1)
    for doc in docs:
        print(json.dumps([[k, typed(v)] for k, v in doc.items()]))


if __name__ == "__main__":
    main()
