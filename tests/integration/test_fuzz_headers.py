"""Hostile trace headers and service keys through real servers and valgrind: answered, parsed identifiers kept,
no crash, every document decodes strictly. CORVIDINE_FUZZ_REQUESTS/_SECONDS bound a run, _SEED repeats one."""
import os
import random
import re
import shutil
import signal
import tempfile
import time
import unittest
import uuid

import harness
from harness import curl
from test_request_tracing import ServerCase

REQUESTS = int(os.environ.get("CORVIDINE_FUZZ_REQUESTS", "300"))
SECONDS = float(os.environ.get("CORVIDINE_FUZZ_SECONDS", "60"))
SEED = int(os.environ.get("CORVIDINE_FUZZ_SEED", str(int(time.time()))))

HEX = "0123456789ABCDEF"


def parsed(value):
    """The bytes of an X-Trace value, or None: even length 2..1024, "0" to "F" (":" to "@" too), length by header byte."""
    text = value.decode("latin-1") if isinstance(value, bytes) else value
    if text is None or len(text) % 2 or not 2 <= len(text) <= 1024 or any(not "0" <= c <= "F" for c in text):
        return None
    nibbles = [(ord(c) - 0x30) & 0xF if c <= "@" else ord(c) - 0x37 for c in text]
    raw = bytes(a * 16 + b for a, b in zip(nibbles[::2], nibbles[1::2]))
    return raw if len(raw) == (4, 8, 12, 20)[raw[0] & 3] + (8 if raw[0] & 8 else 4) + 2 else None


def padded(value):
    """Blanks around: nginx drops them, the built-in server keeps them."""
    return isinstance(value, (str, bytes)) and value != value.strip(" \t" if isinstance(value, str) else b" \t")


def hostile_bytes(rng, length):  # all but NUL, CR, LF
    alphabet = bytes(b for b in range(1, 256) if b not in (10, 13))
    return bytes(rng.choice(alphabet) for _ in range(length)).strip() or b"x"


def hex_digits(rng, count, alphabet=HEX):
    return "".join(rng.choice(alphabet) for _ in range(count))


# Each a kind of value, from a random source and a good identifier.
XTRACE_KINDS = [
    lambda rng, good: good, lambda rng, good: good.lower(), lambda rng, good: good[:rng.randrange(0, 60)],
    lambda rng, good: good + hex_digits(rng, rng.choice([1, 2, 4, 64, 1000])),
    lambda rng, good: "2B" + "0" * 40 + good[42:],
    lambda rng, good: rng.choice(["1B", "3B", "2A", "28", "FF", "00", "2F", "23"]) + good[2:],
    lambda rng, good: hex_digits(rng, rng.choice([2, 16, 20, 24, 32, 40, 52, 58, 1024, 1026])),
    lambda rng, good: hostile_bytes(rng, rng.randrange(1, 300)),
    lambda rng, good: rng.choice(["=", ";;;;", " ", "2B", "\t2B", good + " ", " " + good, good + ";" + good]),
    lambda rng, good: "X" * rng.choice([100, 1000, 4000]), lambda rng, good: good[:30] + "\x7f" + good[31:],
    lambda rng, good: good[:30] + rng.choice(":;<=>?@") + good[31:], lambda rng, good: hex_digits(rng, 60, HEX + "ghz-_ "),
]

OPTION_KINDS = [
    lambda rng: "trigger-trace", lambda rng: "trigger-trace=" + rng.choice(["1", "", " ", "=", "yes"]),
    lambda rng: "ts=" + rng.choice(["", "0", "-1", str(int(time.time())), "9" * 40, "-" + "9" * 40, "12abc", " 5 "]),
    lambda rng: "pd-keys=" + rng.choice(["", "a:b", "x" * 500, "=", ";"]),
    lambda rng: "custom-%s=%s" % (rng.choice(["a", "", "-", "x" * 200]), rng.choice(["", "v", "=", "x" * 1000])),
    lambda rng: rng.choice(["=", "", "=lead", " " * rng.randrange(1, 5), ";;;;", "x" * rng.choice([1000, 3000])]),
    lambda rng: "k%d=%s" % (rng.randrange(100), "v" * rng.randrange(0, 50)),
    lambda rng: rng.choice(["custom-b", "custom-\u00e9t\u00e9=\u20ac" * rng.randrange(1, 300)]),
    lambda rng: "trigger-trace;ts=%d" % int(time.time()),
]


def options_value(rng):
    text = ";".join(rng.choice(OPTION_KINDS)(rng) for _ in range(rng.randrange(0, 8)))
    if rng.randrange(6) == 0:  # bytes that are not UTF-8 in a custom key or value
        return text.encode() + rng.choice([b";custom-bin=", b";custom-"]) + hostile_bytes(rng, rng.randrange(1, 100))
    return text


def signature_value(rng, options):
    text = options.decode("latin-1") if isinstance(options, bytes) else (options or "")
    return rng.choice([harness.signature(text), harness.signature(text).upper(),
                       hex_digits(rng, rng.choice([0, 39, 40, 41, 80]), "0123456789abcdef"),
                       hostile_bytes(rng, rng.randrange(1, 200)), "=" * rng.randrange(1, 5), "f" * 5000, ";;;;", ""])


def fuzz_requests(rng, count, seconds):
    deadline = time.time() + seconds
    for i in range(count):
        if time.time() > deadline:
            return
        headers = {}
        if rng.randrange(4) != 0:
            headers["X-Trace"] = rng.choice(XTRACE_KINDS)(rng, "2B" + hex_digits(rng, 56) + rng.choice(["00", "01"]))
        options = options_value(rng) if rng.randrange(3) != 0 else None
        if options is not None:
            headers["X-Trace-Options"] = options
        if rng.randrange(3) == 0:
            headers["X-Trace-Options-Signature"] = signature_value(rng, options)
        yield i, headers


class FuzzCases:
    def test_hostile_headers(self):
        rng = random.Random(SEED)
        print("\n  fuzz seed %d" % SEED)
        served = refused = kept = 0
        for i, headers in fuzz_requests(rng, REQUESTS, SECONDS):
            context = "request %d (seed %d): %r" % (i, SEED, {k: v[:80] for k, v in headers.items()})
            r = curl(self.server.url("/index.php?fuzz=%d" % i), headers)
            if r.status in (400, 413, 431, 494):
                refused += 1  # the front server's own header limits
                continue
            self.assertEqual((200, b"ok\n"), (r.status, r.body), context)
            served += 1
            answer, incoming = r.header("X-Trace"), headers.get("X-Trace")
            answered = parsed(answer)
            self.assertIsNotNone(answered, context + " answered %r" % answer)
            if padded(incoming):
                continue
            signed = "X-Trace-Options-Signature" in headers
            raw = parsed(incoming)
            if raw is None:  # a new trace: sampled (everything is, here)
                self.assertTrue(answer.startswith("2B") and len(answer) == 60, context)
                if not signed:
                    self.assertEqual("01", answer[-2:], context)
                continue
            kept += 1  # header byte (bit 2 is not written), task id and flags stay
            task_end = 1 + (4, 8, 12, 20)[raw[0] & 3]
            self.assertEqual((raw[0] & ~4, raw[1:task_end], raw[-1] & ~1),
                             (answered[0], answered[1:task_end], answered[-1] & ~1), context)
            if raw[0] >> 4 == 2 and not raw[-1] & 1 and not signed:  # not sampled: answered with itself
                self.assertEqual(bytes([raw[0] & ~4]) + raw[1:], answered, context)
        print("  %d served, %d refused by the front server, %d identifiers kept" % (served, refused, kept))
        self.assertGreater(served, 0)

        mark = uuid.uuid4().hex  # still alive and tracing
        self.assertEqual(200, curl(self.server.url("/index.php?m=" + mark)).status)
        self.assertIsNotNone(self.server.traces.wait_trace(lambda e: mark in e.get("URL", ""))[0])
        # Every document whole, keys and strings UTF-8 (the decoder is strict).
        self.assertGreater(len(self.server.traces.documents()), served)
        self.assertEqual([], self.server.crashes())


class FpmFuzz(FuzzCases, ServerCase):
    SERVER = harness.FpmServer


class BuiltinFuzz(FuzzCases, ServerCase):
    SERVER = harness.BuiltinServer


def service_keys(rng, count):
    """Keys of 0 to 4096 bytes: no ":" or many, the first at or past the 327 kept bytes, NUL, not UTF-8, blanks."""
    yield from (b"", b":", b"t" * 327 + b":svc", b"T" * 326 + b":Svc Name", b"t:" + b"x" * 4094)
    for _ in range(count):
        length = rng.choice([1, 2, 40, 326, 327, 328, 329, 400, 1000, 4096])
        filler = rng.choice([b"abcXYZ09 \t-_.", bytes(b for b in range(1, 256) if b != 58), b"a\x00\xff\xc3", b"a:"])
        key = bytearray(rng.choice(filler) for _ in range(length))
        if rng.randrange(3):
            key[min(length - 1, rng.choice([0, 1, 326, 327, 328, length // 2]))] = ord(":")
        yield bytes(key)


def service_of(key):
    """The service of a key: after the first ":" in its 327 bytes, lowered, blanks to "-", only [0-9a-z:._-]."""
    cut = key[:327]
    if b":" not in cut:
        return None
    kept = b"0123456789abcdefghijklmnopqrstuvwxyz:.-_"
    service = bytes(c + 32 if 65 <= c <= 90 else 45 if c in (9, 32) else c
                    for c in cut[cut.index(b":") + 1:] if 65 <= c <= 90 or c in (9, 32) or c in kept)
    return service.decode() or None


class FpmServiceKeys(unittest.TestCase):
    def test_service_keys_of_any_length_and_bytes(self):
        if harness.CURRENT_PHP.fpm is None:
            self.skipTest("no php-fpm for this PHP build")
        rng = random.Random(SEED + 2)
        with harness.FpmServer(harness.CURRENT_PHP) as server:
            for i, key in enumerate(service_keys(rng, 60)):
                params = {"SCRIPT_FILENAME": os.path.join(harness.WWW, "service_key.php"), "REQUEST_METHOD": "GET",
                          "SCRIPT_NAME": "/service_key.php", "REQUEST_URI": "/service_key.php?k=%d" % i,
                          "PHP_VALUE": b"corvidine.service_key='" + key + b"'"}
                out = harness.fcgi_request(server.fpm_port, params)
                seen = bytes.fromhex(out.partition(b"\r\n\r\n")[2].decode())  # the key as PHP holds it
                context = "key %r (seed %d), PHP holds %r" % (key[:60], SEED, seen[:60])
                entry, _ = server.traces.wait_trace(lambda e: e.get("URL") == "/service_key.php?k=%d" % i)
                self.assertIsNotNone(entry, context)
                self.assertEqual(service_of(seen), entry.get("SN"), context)
            self.assertEqual([], server.crashes())


class BsonStrings(unittest.TestCase):
    """PHP strings as BSON: cut at 1024 bytes between characters, keys and strings repaired to UTF-8."""

    SCRIPT = r"""<?php
    $doc = ["bad\xff\xc3key" => "bad\xe2\x82 value \xff", "\xf0\x9f\x98" => 1];
    foreach (["\u{e9}", "\u{20ac}", "\u{1f600}"] as $c) {
        for ($pad = 0; $pad < 4; $pad++) { $doc[$c . $pad] = str_repeat("a", $pad) . str_repeat($c, 1100); }
    }
    echo bin2hex(corvidine_test_to_bson($doc)[1]);
    """

    def test_long_multibyte_strings_and_bad_keys_decode_strictly(self):
        directory = tempfile.mkdtemp(prefix="corvidine-it-bson-")
        self.addCleanup(shutil.rmtree, directory, True)
        script = os.path.join(directory, "bson.php")
        with open(script, "w") as handle:
            handle.write(self.SCRIPT)
        result, _, _ = harness.run_cli(harness.CURRENT_PHP, script, {"corvidine.internal_test_hooks": "1"},
                                       directory=directory)
        document = harness.bson_tools.decode(bytes.fromhex(result.stdout.decode()))[0]  # strict
        self.assertEqual(("bad?? value ?", 1), (document.pop("bad??key"), document.pop("???")))
        for key, value in document.items():
            full = "a" * int(key[-1]) + key[:-1] * 1100
            self.assertTrue(full.startswith(value) and 1021 <= len(value.encode()) <= 1024, key)


VALGRIND_ERROR = 99


@unittest.skipUnless(shutil.which("valgrind"), "valgrind is not installed")
class ValgrindFuzz(unittest.TestCase):
    """The built-in server under valgrind, PHP's allocator off so that valgrind sees every block."""

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
            process.send_signal(signal.SIGINT)  # a normal exit: valgrind's exit code tells
            code = process.wait(timeout=120)
            with open(server.stderr_path, errors="replace") as handle:
                report = handle.read()
            self.assertNotEqual(VALGRIND_ERROR, code, report[-6000:])
            self.assertEqual(0, code, report[-6000:])
            self.assertEqual([], re.findall(r"==\d+== (?:Invalid|Conditional|Use of uninit).*", report))
            self.assertRegex(report, r"==\d+== ERROR SUMMARY: 0 errors")
        finally:
            server.stop()
