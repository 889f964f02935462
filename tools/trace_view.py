#!/usr/bin/python3
"""Shows the events of BSON trace files readably: grouped by trace, in causal
order (each event under the one its Edge points at), with timings.

Usage: trace_view.py FILE_OR_DIR...   (reads concatenated BSON documents)
"""
import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import bson_tools  # noqa: E402

HIDDEN = {"_V", "X-Trace", "Edge", "TID", "Timestamp_u", "Hostname"}
MEMORY = ("Memory-Used", "Memory-Peak", "Memory-Used-Real", "Memory-Peak-Real")


def load(paths):
    docs = []
    for path in paths:
        files = [os.path.join(path, f) for f in sorted(os.listdir(path))] if os.path.isdir(path) else [path]
        for name in files:
            docs.extend(bson_tools.decode_file(name))
    return docs


def short(value, limit=70):
    text = repr(value) if not isinstance(value, str) else value
    return text if len(text) <= limit else text[:limit - 3] + "..."


def show(docs, out=sys.stdout):
    traces = {}
    for d in docs:
        xt = d.get("X-Trace", "")
        traces.setdefault(xt[2:42], []).append(d)
    for task, events in traces.items():
        by_op = {e["X-Trace"][42:58]: e for e in events}
        children = {}
        roots = []
        for e in events:
            edges = e.getall("Edge")
            parent = next((p for p in edges if p in by_op), None)
            (children.setdefault(parent, []) if parent else roots).append(e)
        start = min(e.get("Timestamp_u", 0) for e in events)
        sampled = events[0]["X-Trace"][-2:] == "01"
        out.write("trace %s  (%d events%s)\n" % (task, len(events), ", sampled" if sampled else ""))

        def walk(e, depth):
            label = e.get("Label", e.get("Layer", "?"))
            layer = e.get("Layer", "")
            t = (e.get("Timestamp_u", start) - start) / 1000.0
            out.write("  %s+%8.3f ms  %-6s %-14s op %s\n" % ("  " * depth, t, label, layer, e["X-Trace"][42:58]))
            pad = "  " * depth + " " * 15
            for k, v in e.pairs:
                if k not in HIDDEN and k not in MEMORY and k not in ("Label", "Layer"):
                    out.write("  %s%s = %s\n" % (pad, k, short(v)))
            if "Memory-Used" in e:
                out.write("  %smemory: used %s, peak %s bytes\n" % (pad, e["Memory-Used"], e.get("Memory-Peak")))
            for c in sorted(children.get(e["X-Trace"][42:58], []), key=lambda x: x.get("Timestamp_u", 0)):
                walk(c, depth + 1)

        for r in sorted(roots, key=lambda x: x.get("Timestamp_u", 0)):
            walk(r, 0)
        out.write("\n")


if __name__ == "__main__":
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    show(load(sys.argv[1:]))
