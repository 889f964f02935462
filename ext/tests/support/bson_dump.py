#!/usr/bin/python3
"""Prints the BSON documents of a file, one "key type value" line per field.

Decoding is done by Debian's python3-bson, a decoder we did not write, so a
malformed document fails here and not in our own reader. A file reporter
file is a plain concatenation of documents.

    bson_dump.py FILE...

Types: string, bool, int32, int64, double, document, array, binary, null.
Exit status 2 when a file is not valid BSON.
"""
import sys

import bson
from bson.int64 import Int64


def type_name(value):
    if isinstance(value, bool):
        return "bool"
    if isinstance(value, Int64):
        return "int64"
    if isinstance(value, int):
        return "int32"
    if isinstance(value, float):
        return "double"
    if isinstance(value, str):
        return "string"
    if isinstance(value, dict):
        return "document"
    if isinstance(value, list):
        return "array"
    if isinstance(value, bytes):
        return "binary"
    if value is None:
        return "null"
    return type(value).__name__


def main(paths):
    for path in paths:
        with open(path, "rb") as handle:
            data = handle.read()
        try:
            documents = bson.decode_all(data)
        except bson.errors.InvalidBSON as error:
            print("%s: invalid BSON: %s" % (path, error), file=sys.stderr)
            return 2
        for number, document in enumerate(documents):
            print("document %d" % number)
            for key, value in document.items():
                print("%s %s %s" % (key, type_name(value), value))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
