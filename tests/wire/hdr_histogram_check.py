#!/usr/bin/python3
"""Histogram encodings against Debian's libhdrhistogram-java and npm's hdr-histogram-js: random value sets
(every precision, bounds and beyond, empty, one value many times) encoded by us read back in Java and JS with
our count, min, max and percentiles; Java's encodings read back the same through our decoder."""
import os
import random
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
HIGHEST = 3_600_000_000
JAR = "/usr/share/java/hdrhistogram.jar"
JS_PACKAGE = "hdr-histogram-js@3.0.1"


def run(cmd, lines):
    out = subprocess.run(cmd, input="".join(l + "\n" for l in lines), capture_output=True, text=True, timeout=300)
    if out.returncode != 0:
        sys.exit(f"hdr_histogram_check: {' '.join(cmd)} failed: {out.stderr.strip()[-2000:]}")
    return out.stdout.splitlines()


def js_module(build):
    """hdr-histogram-js, installed once per build directory."""
    prefix = os.path.join(build, "wire-node")
    module = os.path.join(prefix, "node_modules", "hdr-histogram-js")
    if not os.path.isdir(module):
        os.makedirs(prefix, exist_ok=True)
        subprocess.run(["npm", "install", "--prefix", prefix, "--no-audit", "--no-fund", "--silent", JS_PACKAGE],
                       check=True, timeout=600)
    return module


def value_sets(rng):
    """(figures, values) pairs; values may lie outside 0..HIGHEST."""
    sets = []
    for figures in range(1, 6):
        spread = [int(10 ** rng.uniform(0, 9.56)) for _ in range(4997)] + [0, 1, HIGHEST]
        sets.append((figures, spread))
        sets.append((figures, [rng.randrange(1, 200_000) for _ in range(1000)] + [-1, HIGHEST + 1, 2**62]))
        sets.append((figures, [12345] * 3000))
        sets.append((figures, [HIGHEST] * 1000))
        sets.append((figures, []))
    return sets


def dev_collector_stats(text):
    """The line HdrJavaCodec prints, from tools/collector/hdr_decode.py's reading."""
    sys.path.insert(0, os.path.join(ROOT, "tools", "collector"))
    import hdr_decode
    merged = hdr_decode.merge([hdr_decode.decode(text)])
    total = sum(c for _, c in merged.values())
    if total == 0:
        return "0 0 0"
    low = min((v for v in merged if v > 0), default=0)
    values = hdr_decode.percentiles(merged, list(range(1, 101)) + [0.1, 99.9])
    return " ".join(map(str, [total, low, values[99]] + values))


def main():
    build = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else os.path.join(ROOT, "build"))
    tool = os.path.join(build, "hdr_wire_tool")
    java = ["java", "-cp", JAR, os.path.join(HERE, "HdrJavaCodec.java")]
    node = ["node", os.path.join(HERE, "hdr_js_decode.js"), js_module(build)]

    sets = value_sets(random.Random(2026))
    ours = [line.split(" ", 1) for line in run([tool, "encode"], [" ".join(map(str, [f] + v)) for f, v in sets])]
    in_bounds = [[x for x in v if 0 <= x <= HIGHEST] for _, v in sets]
    theirs = [line.split(" ", 1) for line in run(java + ["encode"], [" ".join(map(str, [f] + v))
                                                                    for (f, _), v in zip(sets, in_bounds)])]
    our_texts = [text for text, _ in ours]
    java_texts = [text for text, _ in theirs]
    readings = {
        "java reads ours": run(java + ["decode"], our_texts),
        "hdr-histogram-js reads ours": run(node, our_texts),
        "ours reads java's": run([tool, "decode"], java_texts),
        "hdr-histogram-js reads java's": run(node, java_texts),
        "the dev Collector reads java's": [dev_collector_stats(text) for text in java_texts],
    }
    failures = 0
    for i, ((figures, _), (_, stats)) in enumerate(zip(sets, ours)):
        if int(stats.split()[0]) != len(in_bounds[i]):
            failures += 1
            print(f"set {i} (precision {figures}): total {stats.split()[0]} != {len(in_bounds[i])} values within bounds")
        expected = [("recorded by java", theirs[i][1])] + [(name, lines[i]) for name, lines in readings.items()]
        for name, got in expected:
            if got.split() != stats.split():
                failures += 1
                print(f"set {i} (precision {figures}): {name}: {got[:200]!r} != ours {stats[:200]!r}")
    # Bad text is refused with ValueError (the dev Collector counts it as undecodable), never a crash or a hang.
    sys.path.insert(0, os.path.join(ROOT, "tools", "collector"))
    import hdr_decode
    good = java_texts[0]
    for bad in ("", "not base64!", good[:len(good) // 2], "AAAA" + good[4:], good[:12] + "A" * (len(good) - 12)):
        try:
            hdr_decode.decode(bad)
            failures += 1
            print(f"the dev Collector took a bad histogram text: {bad[:40]!r}")
        except ValueError:
            pass
    checked = len(sets) * (1 + len(readings))
    print(f"hdr_histogram_check: {len(sets)} histograms, {checked} readings compared, {failures} differ")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
