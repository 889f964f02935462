"""Outbound HTTP: service A (nginx + php-fpm) calls service B (another one) with curl_exec, file_get_contents and
fopen, and both hosts' events join into one trace (A entry -> A's span entry -> B entry ... B exit, whose id comes
back in the response -> A's span exit). Against a raw hostile server A runs under the CLI with and without the agent:
the application's output must be the same."""
import os
import socket
import socketserver
import threading
import time
import unittest
import urllib.parse
import uuid

import harness
from test_request_tracing import ServerCase, flags_of, marker, op_of, task_of

CALL = os.path.join(harness.WWW, "call.php")
# Each way of calling and the layer of its span.
VIAS = {"curl": "cURL", "fgc": "php_http", "fopen": "php_http"}


class TwoServices(ServerCase):
    """A (this class's server, with INI) and B (sampled, agent loaded)."""

    SERVER = harness.FpmServer

    @classmethod
    def setUpClass(cls):
        php = harness.CURRENT_PHP
        if php.fpm is None:
            raise unittest.SkipTest("no php-fpm for this PHP build")
        cls.INI = dict(harness.shared_modules(php, ("curl",)), **cls.INI)
        super().setUpClass()
        cls.remote = harness.FpmServer(php, {}).start()

    @classmethod
    def tearDownClass(cls):
        crashes = cls.remote.crashes()
        cls.remote.stop()
        super().tearDownClass()
        if crashes:
            raise AssertionError("service B crashed: %s" % crashes)

    def call(self, via, case=""):
        mark = marker()
        to = self.remote.url("/remote.php?m=" + mark)
        credentials = to.replace("http://", "http://user:secret@", 1)
        r = self.get("/call.php?" + urllib.parse.urlencode({"m": mark, "via": via, "to": credentials, "case": case}))
        self.assertEqual(200, r.status, r.body)
        return mark, to, r


class Joined(TwoServices):
    INI = {}

    def layer_events(self, task, layer):
        return [[e for e in self.server.traces.by_task(task) if e.get("Layer") == layer and e["Label"] == label]
                for label in ("entry", "exit")]

    def test_one_trace_spans_both_services(self):
        for via, layer in VIAS.items():
            with self.subTest(via=via):
                mark, to, r = self.call(via)
                a_entry, _ = self.traced(mark)
                b_entry, b_exit = self.remote.traces.wait_trace(lambda e: mark in e.get("URL", ""))
                self.assertIsNotNone(b_entry, "B traced nothing")
                task = task_of(a_entry["X-Trace"])
                entries, exits = self.layer_events(task, layer)
                a_exit = self.layer_events(task, "PHP")[1][0]
                self.assertEqual((1, 1), (len(entries), len(exits)))
                self.assertEqual((task, task), (task_of(b_entry["X-Trace"]), task_of(b_exit["X-Trace"])))
                # B got the id of A's span entry (and the application's own header, where it set one).
                accept = "a/b" if via == "curl" else "-"
                self.assertIn(("got:%s accept:%s" % (entries[0]["X-Trace"], accept)).encode(), r.body)
                self.assertEqual(op_of(entries[0]["X-Trace"]), b_entry["Edge"])
                self.assertIn(op_of(b_exit["X-Trace"]), exits[0].getall("Edge"))
                self.assertEqual(to, entries[0].get("RemoteURL", exits[0].get("RemoteURL")))
                self.assertEqual((1, "php_curl_exec" if via == "curl" else "php_http_stream"),
                                 (entries[0]["IsService"], entries[0]["RemoteController"]))
                self.assertEqual((200, "GET"), (exits[0]["HTTPStatus"], exits[0]["HTTPMethod"]))
                self.assertIn(op_of(exits[0]["X-Trace"]), a_exit.getall("Edge"))

    def test_application_settings_win_and_stay(self):
        cases = [  # via, case, what the application must see
            ("curl", "own", [b"got:abc accept:a/b"]),
            ("fgc", "own", [b"got:abc accept:-", b"context: as before"]),
            ("fopen", "own", [b"got:abc accept:-", b"context: as before"]),
            ("fgc", "ctx_string", [b"accept:a/b", b"context: as before"]),
            ("fopen", "ctx_array", [b"accept:a/b", b"context: as before"]),
            ("curl", "hfn", [b"header: HTTP/1.1 200 OK", b"header: X-Trace: (id)", b"status: 200"]),
        ]
        for via, case, expected in cases:
            with self.subTest(via=via, case=case):
                _, _, r = self.call(via, case)
                for text in expected:
                    self.assertIn(text, r.body)
                self.assertEqual(1, r.body.count(b"got:"))
                if case != "own":
                    self.assertRegex(r.body, rb"got:2B[0-9A-F]{56}01 ")


class JoinedJit(Joined):
    INI = {"zend_extension": "opcache", "opcache.enable": "1", "opcache.jit": "tracing",
           "opcache.jit_buffer_size": "32M", "opcache.jit_hot_func": "1", "opcache.jit_hot_loop": "1"}


class UnsampledCaller(TwoServices):
    INI = {"corvidine.sample_rate": "0"}

    def test_header_goes_out_unsampled(self):
        for via in VIAS:
            with self.subTest(via=via):
                mark, _, r = self.call(via)
                xtrace = r.header("X-Trace")
                self.assertEqual("00", flags_of(xtrace))
                sent = r.body.split(b"got:")[1].split()[0].decode()
                self.assertEqual((task_of(xtrace), "00"), (task_of(sent), flags_of(sent)))
                time.sleep(0.3)
                self.assertEqual([], self.server.traces.by_task(task_of(xtrace)))
                self.assertEqual([], self.remote.traces.by_task(task_of(xtrace)))


class Hostile(socketserver.ThreadingTCPServer):
    """Canned raw answers by path; X-Trace lines that should count use the task of the request's own X-Trace."""

    daemon_threads = True
    allow_reuse_address = True

    def __init__(self):
        super().__init__(("127.0.0.1", 0), HostileHandler)
        self.ops = {}  # task -> the op id of the first valid X-Trace sent

    def url(self, path):
        return "http://127.0.0.1:%d%s" % (self.server_address[1], path)


class HostileHandler(socketserver.StreamRequestHandler):
    def handle(self):
        head = b""
        while b"\r\n\r\n" not in head:
            chunk = self.request.recv(4096)
            if not chunk:
                return
            head += chunk
        lines = head.split(b"\r\n")
        path = lines[0].split()[1].decode()
        xtrace = next((l.split(b":", 1)[1].strip().decode() for l in lines if l.lower().startswith(b"x-trace:")), "")
        task = xtrace[2:42] if len(xtrace) == 60 else "0" * 40
        headers, body, status = [], b"plain", "200 OK"
        if path == "/huge":
            headers = [b"X-Filler-%d: %s" % (i, b"y" * 60) for i in range(3000)]
        elif path == "/binary":
            headers, body = [b"X-Bin: \x01\x02\xfe\xff\x7f"], b"\x00\xffbinary"
        elif path == "/many":
            first, second = uuid.uuid4().hex[:16].upper(), uuid.uuid4().hex[:16].upper()
            self.server.ops[task] = first
            headers = [b"X-Trace: nonsense", b"X-Trace: 2B" + b"AB" * 20 + b"CD" * 8 + b"01",
                       ("X-Trace: 2B%s%s01" % (task, first)).encode(),
                       ("X-Trace: 2B%s%s01" % (task, second)).encode()]
        elif path == "/malformed":
            headers = [b"X-Trace: " + b"Z" * 3000, ("X-Trace: 2B%s%s" % (task, "1" * 16)).encode()]
        elif path == "/redirect":
            status, headers = "302 Found", [b"Location: /many"]
        elif path == "/slow":
            time.sleep(2.5)
        elif path == "/echo":
            method = lines[0].split()[0]
            accept = next((l.split(b":", 1)[1].strip() for l in lines if l.lower().startswith(b"accept:")), b"-")
            body = b"method:" + method + b" accept:" + accept
        response = b"HTTP/1.1 " + status.encode() + b"\r\n" + b"".join(h + b"\r\n" for h in headers)
        response += b"Content-Length: %d\r\nConnection: close\r\n\r\n" % len(body) + body
        try:
            self.request.sendall(response)
        except OSError:
            pass


class HostileAnswers(unittest.TestCase):
    """A under the CLI against the raw server, with and without the agent: same output; events say what happened."""

    @classmethod
    def setUpClass(cls):
        cls.php = harness.CURRENT_PHP
        cls.ini = harness.shared_modules(cls.php, ("curl",))
        cls.hostile = Hostile()
        threading.Thread(target=cls.hostile.serve_forever, daemon=True).start()
        with socket.socket() as sock:
            sock.bind(("127.0.0.1", 0))
            cls.closed_port = sock.getsockname()[1]

    @classmethod
    def tearDownClass(cls):
        cls.hostile.shutdown()
        cls.hostile.server_close()

    def run_a(self, query, agent):
        ini = dict(self.ini, **{"corvidine.enable_cli": "1"})
        result, traces, _ = harness.run_cli(self.php, CALL, ini, args=[query], load_module=agent)
        return result.stdout, traces.events()

    def test_same_result_and_events_say_what_happened(self):
        closed = "http://127.0.0.1:%d/" % self.closed_port
        cases = [  # path or URL, timeout, what the span's exit event must hold
            ("/huge", 5, {}), ("/binary", 5, {"HTTPStatus": 200}), ("/many", 5, {"edge": "first"}),
            ("/malformed", 5, {"HTTPStatus": 200, "edge": None}), ("/redirect", 5, {"edge": "first"}),
            ("/slow", 1, {}), (closed, 5, {"HTTPStatus": None}),
        ]
        for target, timeout, expect in cases:
            for via, layer in VIAS.items():
                with self.subTest(target=target, via=via):
                    url = target if target.startswith("http") else self.hostile.url(target)
                    query = urllib.parse.urlencode({"via": via, "to": url, "timeout": timeout})
                    plain, _ = self.run_a(query, False)
                    traced, events = self.run_a(query, True)
                    self.assertTrue(plain == traced, "with the agent:\n%r\nwithout:\n%r" % (traced[:400], plain[:400]))
                    self.assertNotIn(b"Fatal", traced)
                    exits = [e for e in events if e.get("Layer") == layer and e["Label"] == "exit"]
                    self.assertEqual(1, len(exits), traced[:400])
                    exit_ = exits[0]
                    task = task_of(exit_["X-Trace"])
                    if via == "curl" and target in ("/slow", closed):
                        self.assertIn("cURL_Error", exit_)
                    for key, value in expect.items():
                        if key == "edge":
                            remote = self.hostile.ops.get(task) if value == "first" else None
                            edges = exit_.getall("Edge")
                            self.assertEqual(2 if remote else 1, len(edges), edges)
                            if remote:
                                self.assertIn(remote, edges)
                        elif value is None and not (via == "curl" and key == "HTTPStatus"):
                            self.assertNotIn(key, exit_)
                        elif value is not None:
                            self.assertEqual(value, exit_[key])

    def test_curl_options_the_application_set(self):
        cases = [  # case, HTTPMethod of each exit event, what the application must see
            ("patch", ["PATCH"], b"method:PATCH accept:a/b"), ("post", ["POST"], b"method:POST accept:a/b"),
            ("copy", ["GET", "GET"], b"accept:a/b\"\nstring(21) \"method:GET accept:a/b"),
            ("reset", ["GET"], b"method:GET accept:*/*"), ("file", ["GET"], b"header file: 58 bytes"),
            ("throw", ["GET"], b"RuntimeException: from the header callback"),
        ]
        for case, methods, expected in cases:
            with self.subTest(case=case):
                query = urllib.parse.urlencode({"via": "curl", "to": self.hostile.url("/echo"), "case": case})
                plain, _ = self.run_a(query, False)
                traced, events = self.run_a(query, True)
                self.assertEqual(plain, traced)
                self.assertIn(expected, traced)
                exits = [e for e in events if e.get("Layer") == "cURL" and e["Label"] == "exit"]
                self.assertEqual(methods, [e["HTTPMethod"] for e in exits])


if __name__ == "__main__":
    unittest.main()
