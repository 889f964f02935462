"""Hostile request headers: X-Trace, X-Trace-Options and the signature with
random and malicious values, through nginx + php-fpm and the built-in
server, and one short pass under valgrind.

Bounded: CORVIDINE_FUZZ_REQUESTS requests per server (default 300) and
CORVIDINE_FUZZ_SECONDS seconds (default 60), whichever ends first; the seed
is printed so that a failing run can be repeated (CORVIDINE_FUZZ_SEED).

Every request must be answered by PHP (200) or, for values beyond the front
server's own limits, refused by the front server itself; an unusable
identifier must give a new trace; no worker may die; every document must
still be well-formed BSON.
"""
import os
import random
import re
import shutil
import signal
import time
import unittest
import uuid

import harness
from harness import curl

REQUESTS = int(os.environ.get("CORVIDINE_FUZZ_REQUESTS", "300"))
SECONDS = float(os.environ.get("CORVIDINE_FUZZ_SECONDS", "60"))
SEED = int(os.environ.get("CORVIDINE_FUZZ_SEED", str(int(time.time()))))

USABLE = re.compile(r"^2B[0-9A-F]{58}$")
HEX = "0123456789ABCDEF"


def valid_xtrace(rng, flags=None):
    body = "".join(rng.choice(HEX) for _ in range(56))
    return "2B" + body + (flags if flags is not None else rng.choice(["00", "01"]))


def usable(value):
    """What the extension must continue: a version-2 identifier of the full
    form with a task id that is not all zero."""
    return isinstance(value, str) and USABLE.match(value) is not None and value[2:42] != "0" * 40


def padded(value):
    """Blanks around a value: nginx drops them, the built-in server keeps
    them, so what PHP sees depends on the server."""
    return isinstance(value, (str, bytes)) and value != value.strip(" \t" if isinstance(value, str) else b" \t")


def hostile_bytes(rng, length):
    # Everything but what HTTP cannot carry in a header value (NUL, CR, LF).
    alphabet = bytes(b for b in range(1, 256) if b not in (10, 13))
    return bytes(rng.choice(alphabet) for _ in range(length)).strip() or b"x"


def xtrace_value(rng):
    kind = rng.randrange(12)
    good = valid_xtrace(rng)
    if kind == 0:
        return good
    if kind == 1:
        return good.lower()
    if kind == 2:
        return good[: rng.randrange(0, 60)]
    if kind == 3:
        return good + "".join(rng.choice(HEX) for _ in range(rng.choice([1, 2, 4, 64, 1000])))
    if kind == 4:
        return "2B" + "0" * 40 + good[42:]
    if kind == 5:
        return rng.choice(["1B", "3B", "2A", "28", "FF", "00"]) + good[2:]
    if kind == 6:
        return "".join(rng.choice(HEX) for _ in range(rng.choice([2, 16, 24, 32, 40, 58, 1024, 1026])))
    if kind == 7:
        return hostile_bytes(rng, rng.randrange(1, 300))
    if kind == 8:
        return rng.choice(["=", ";;;;", " ", "2B", "\t2B", good + " ", " " + good, "%s;%s" % (good, good)])
    if kind == 9:
        return "X" * rng.choice([100, 1000, 4000])
    if kind == 10:
        return good[:30] + "\x7f" + good[31:]
    return "".join(rng.choice(HEX + "ghz-_ ") for _ in range(60))


def options_value(rng):
    pieces = []
    for _ in range(rng.randrange(0, 8)):
        kind = rng.randrange(14)
        if kind == 0:
            pieces.append("trigger-trace")
        elif kind == 1:
            pieces.append("trigger-trace=%s" % rng.choice(["1", "", " ", "=", "yes"]))
        elif kind == 2:
            pieces.append("ts=%s" % rng.choice(["", "0", "-1", str(int(time.time())), "9" * 40,
                                                "-" + "9" * 40, "12abc", "0x10", " 5 "]))
        elif kind == 3:
            pieces.append("pd-keys=%s" % rng.choice(["", "a:b", "x" * 500, "=", ";"]))
        elif kind == 4:
            pieces.append("custom-%s=%s" % (rng.choice(["a", "", "-", "x" * 200]),
                                           rng.choice(["", "v", "=", "x" * 1000])))
        elif kind == 5:
            pieces.append("=")
        elif kind == 6:
            pieces.append("")
        elif kind == 7:
            pieces.append("=lead")
        elif kind == 8:
            pieces.append(" " * rng.randrange(1, 5))
        elif kind == 9:
            pieces.append("k%d=%s" % (rng.randrange(100), "v" * rng.randrange(0, 50)))
        elif kind == 10:
            pieces.append("x" * rng.choice([1000, 3000]))
        elif kind == 11:
            pieces.append(";;;;")
        elif kind == 12:
            pieces.append("custom-b")
        else:
            pieces.append("trigger-trace;ts=%d" % int(time.time()))
    text = ";".join(pieces)
    if rng.randrange(8) == 0:
        return text.encode() + b";custom-bin=" + hostile_bytes(rng, rng.randrange(1, 100))
    return text


def signature_value(rng, options):
    kind = rng.randrange(8)
    text = options.decode("latin-1") if isinstance(options, bytes) else (options or "")
    if kind == 0:
        return harness.signature(text)
    if kind == 1:
        return harness.signature(text).upper()
    if kind == 2:
        return "".join(rng.choice("0123456789abcdef") for _ in range(rng.choice([0, 39, 40, 41, 80])))
    if kind == 3:
        return hostile_bytes(rng, rng.randrange(1, 200))
    if kind == 4:
        return "=" * rng.randrange(1, 5)
    if kind == 5:
        return "f" * 5000
    if kind == 6:
        return ";;;;"
    return ""


def fuzz_requests(rng, count, seconds):
    deadline = time.time() + seconds
    for i in range(count):
        if time.time() > deadline:
            return
        headers = {}
        if rng.randrange(4) != 0:
            headers["X-Trace"] = xtrace_value(rng)
        options = None
        if rng.randrange(3) != 0:
            options = options_value(rng)
            headers["X-Trace-Options"] = options
        if rng.randrange(3) == 0:
            headers["X-Trace-Options-Signature"] = signature_value(rng, options)
        yield i, headers


class FuzzCases:
    def test_hostile_headers(self):
        rng = random.Random(SEED)
        print("\n  fuzz seed %d" % SEED)
        served = refused = fresh = 0
        for i, headers in fuzz_requests(rng, REQUESTS, SECONDS):
            context = "request %d (seed %d): %r" % (i, SEED, {k: v[:80] for k, v in headers.items()})
            r = curl(self.server.url("/index.php?fuzz=%d" % i), headers)
            if r.status in (400, 413, 431, 494):
                refused += 1  # the front server's own header limits
                continue
            self.assertEqual(200, r.status, context)
            self.assertEqual(b"ok\n", r.body, context)
            served += 1
            answer = r.header("X-Trace")
            self.assertIsNotNone(answer, context)
            self.assertTrue(USABLE.match(answer), context + " answered " + answer)
            incoming = headers.get("X-Trace")
            if padded(incoming):
                continue
            if incoming is not None and not usable(incoming) and "X-Trace-Options-Signature" not in headers:
                # A new trace: sampled (everything is, here), and not the
                # incoming task.
                self.assertEqual("01", answer[58:60], context)
                if isinstance(incoming, str) and len(incoming) >= 42:
                    self.assertNotEqual(incoming[2:42].upper(), answer[2:42], context)
                fresh += 1
            if usable(incoming) and incoming[58:60] == "00" and "X-Trace-Options-Signature" not in headers:
                self.assertEqual(incoming, answer, context)
        print("  %d served, %d refused by the front server, %d new traces for unusable ids"
              % (served, refused, fresh))
        self.assertGreater(served, 0)

        # Still alive and tracing.
        mark = uuid.uuid4().hex
        r = curl(self.server.url("/index.php?m=" + mark))
        self.assertEqual(200, r.status)
        entry, _ = self.server.traces.wait_trace(lambda e: mark in e.get("URL", ""), lenient=True)
        self.assertIsNotNone(entry)
        # Every document is complete BSON. Strings copied from hostile bytes
        # need not be UTF-8; those are decoded with replacement, and counted.
        documents = self.server.traces.documents(lenient=True)
        self.assertGreater(len(documents), served)
        not_utf8 = sum(1 for d in documents if any(isinstance(v, str) and "\ufffd" in v for v in d.values()))
        print("  %d documents, %d with strings that are not UTF-8" % (len(documents), not_utf8))
        self.assertEqual([], self.server.crashes())


class FpmFuzz(FuzzCases, unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        if harness.CURRENT_PHP.fpm is None:
            raise unittest.SkipTest("no php-fpm for this PHP build")
        cls.server = harness.FpmServer(harness.CURRENT_PHP).start()

    @classmethod
    def tearDownClass(cls):
        cls.server.stop()


class BuiltinFuzz(FuzzCases, unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.server = harness.BuiltinServer(harness.CURRENT_PHP).start()

    @classmethod
    def tearDownClass(cls):
        cls.server.stop()


VALGRIND_ERROR = 99


@unittest.skipUnless(shutil.which("valgrind"), "valgrind is not installed")
class ValgrindFuzz(unittest.TestCase):
    """A short hostile pass with the built-in server under valgrind, with
    PHP's own allocator off so that valgrind sees every block."""

    REQUESTS = int(os.environ.get("CORVIDINE_VALGRIND_REQUESTS", "40"))

    def test_hostile_headers_under_valgrind(self):
        server = harness.BuiltinServer(
            harness.CURRENT_PHP, env={"USE_ZEND_ALLOC": "0", "ZEND_DONT_UNLOAD_MODULES": "1"},
            prefix=["valgrind", "--error-exitcode=%d" % VALGRIND_ERROR, "--track-origins=yes",
                    "--leak-check=full", "--errors-for-leak-kinds=definite", "--show-leak-kinds=definite",
                    "--num-callers=30"])
        server.start()
        try:
            rng = random.Random(SEED + 1)
            for i, headers in fuzz_requests(rng, self.REQUESTS, 240):
                r = curl(server.url("/index.php?vg=%d" % i), headers, timeout=60)
                self.assertIn(r.status, (200, 400, 413, 431), "request %d" % i)
            process = server.processes[0]
            # The built-in server leaves its loop on SIGINT and exits
            # normally, so valgrind's exit code tells.
            process.send_signal(signal.SIGINT)
            code = process.wait(timeout=120)
            with open(server.stderr_path, errors="replace") as handle:
                report = handle.read()
            self.assertNotEqual(VALGRIND_ERROR, code, report[-6000:])
            self.assertEqual(0, code, report[-6000:])
            self.assertEqual([], re.findall(r"==\d+== (?:Invalid|Conditional|Use of uninit).*", report))
            # Proof that valgrind ran, and its verdict.
            self.assertRegex(report, r"==\d+== ERROR SUMMARY: 0 errors")
        finally:
            server.stop()
