#!/usr/bin/python3
"""A local development Collector: the real service protocol over TLS on
127.0.0.1 (collector.py), everything received kept in SQLite (dev_store.py),
settings answered from a small JSON file, and a web page on loopback with
recent traces, a trace's waterfall, response-time percentiles and profiles.

    /usr/bin/python3 tools/collector/dev_collector.py [--dir DIR] [--port N] [--web-port N]

On first start DIR (default ~/.corvidine-dev) gets a throw-away CA and a
server certificate for 127.0.0.1/localhost, `settings.json` and
`collector.db`; later starts reuse them. Point the agent at it with
CORVIDINE_COLLECTOR=127.0.0.1:PORT and CORVIDINE_TRUSTEDPATH=DIR/corvidine-dev-CA.pem
(the first line printed says both, as JSON).
"""
import datetime
import json
import os
import struct
import sys
import threading
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from urllib.parse import parse_qs, urlparse

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
from certs import Authority  # noqa: E402
from collector import Collector, server_context, ttypes  # noqa: E402
from dev_store import Store  # noqa: E402

WEB = os.path.join(HERE, "web")
CA_NAME = "corvidine dev CA"
DEFAULT_SETTINGS = {
    "_comment": "Read at every getSettings call (every 30 s per process). sample_rate: parts per million.",
    "sample_rate": 1000000,
    "flags": "SAMPLE_START,SAMPLE_THROUGH_ALWAYS,TRIGGER_TRACE",
    "ttl": 120,
    "bucket_capacity": 1000.0,
    "bucket_rate": 1000.0,
    "signature_key": "k3Tq7XwPbnR2vLyd9HsA",
    "arguments": {"MetricsFlushInterval": 10, "EventsFlushInterval": 1, "ProfilingInterval": 20},
}
BUCKETS = ("BucketCapacity", "BucketRate", "TriggerRelaxedBucketCapacity", "TriggerRelaxedBucketRate",
           "TriggerStrictBucketCapacity", "TriggerStrictBucketRate")
STATIC = {"/": ("index.html", "text/html"), "/app.js": ("app.js", "text/javascript"),
          "/style.css": ("style.css", "text/css")}


def certificates(directory):
    """(server cert+key path, CA path): made once, reused while the server certificate has a day left."""
    ca_path = os.path.join(directory, CA_NAME.replace(" ", "-") + ".pem")
    server_path = os.path.join(directory, "collector.pem")
    if os.path.exists(ca_path) and os.path.exists(server_path):
        from cryptography import x509
        with open(server_path, "rb") as handle:
            cert = x509.load_pem_x509_certificate(handle.read())
        if cert.not_valid_after - datetime.datetime.utcnow() > datetime.timedelta(days=1):
            return server_path, ca_path
    ca = Authority(directory, name=CA_NAME)
    return ca.server("collector"), ca.pem_path


def settings_answer(config):
    """A SettingsResult from the settings file's values (a bad value falls back to the default)."""
    def value(key, kind):
        try:
            return kind(config.get(key, DEFAULT_SETTINGS[key]))
        except (TypeError, ValueError):
            return DEFAULT_SETTINGS[key]
    arguments = {name: struct.pack("=d", value("bucket_capacity" if "Capacity" in name else "bucket_rate", float))
                 for name in BUCKETS}
    arguments["SignatureKey"] = value("signature_key", str).encode()
    for name, number in (config.get("arguments") or {}).items():
        if isinstance(number, int):
            arguments[name] = struct.pack("=i", number)
    record = ttypes.VeskSetting(type=2, flags=value("flags", str), timestamp=0, value=value("sample_rate", int),
                                layer="", arguments=arguments, ttl=value("ttl", int))
    return ttypes.SettingsResult(result=0, arg="", settings=[record])


class DevCollector(Collector):
    """The protocol side: every call's documents go to the store; getSettings is answered from the file."""

    def __init__(self, directory, port=0, log=None):
        os.makedirs(directory, exist_ok=True)
        self.directory = directory
        self.settings_path = os.path.join(directory, "settings.json")
        if not os.path.exists(self.settings_path):
            with open(self.settings_path, "w") as handle:
                json.dump(DEFAULT_SETTINGS, handle, indent=2)
        self.store = Store(os.path.join(directory, "collector.db"))
        self.cert_path, self.trusted = certificates(directory)
        self.log = log
        self.received_calls = {}
        self._niced = threading.local()
        super().__init__(tls=server_context(self.cert_path), port=port)

    def settings(self):
        try:
            with open(self.settings_path) as handle:
                return json.load(handle)
        except (OSError, ValueError) as e:
            if self.log:
                self.log("settings.json unreadable (%s): using the defaults" % e)
            return DEFAULT_SETTINGS

    # A benchmark sets this: each connection's thread then runs at the lowest priority, so that the Collector
    # takes only CPU time the server under test leaves (as one on another machine would).
    background = False

    def received(self, record):
        method = record["method"]
        if self.background and not getattr(self._niced, "done", False):
            os.setpriority(os.PRIO_PROCESS, threading.get_native_id(), 19)
            self._niced.done = True
        with self._lock:
            self.received_calls[method] = self.received_calls.get(method, 0) + 1
        kept = self.store.add_call(record) if method in ("postEvents", "postMetrics", "postStatus") else 0
        if self.log:
            self.log("%s from %s pid %s: %d documents" % (method, (record.get("identity") or {}).get("hostname"),
                                                          (record.get("identity") or {}).get("pid"), kept))
        return settings_answer(self.settings()) if method == "getSettings" else "OK"


class WebPage:
    """The page and its JSON on 127.0.0.1."""

    def __init__(self, store, port=0):
        api = {
            "/api/summary": lambda q: store.counts(),
            "/api/traces": lambda q: store.traces(int(q.get("limit", ["100"])[0])),
            "/api/trace": lambda q: store.trace(q.get("task", [""])[0]),
            "/api/percentiles": lambda q: store.percentiles(),
            "/api/profile": lambda q: store.profile(q.get("task", [None])[0]),
        }

        class Handler(BaseHTTPRequestHandler):
            def do_GET(self):
                url = urlparse(self.path)
                if url.path in STATIC:
                    name, kind = STATIC[url.path]
                    with open(os.path.join(WEB, name), "rb") as handle:
                        return self.reply(200, kind, handle.read())
                if url.path in api:
                    try:
                        body = json.dumps(api[url.path](parse_qs(url.query))).encode()
                    except ValueError as e:
                        return self.reply(400, "text/plain", str(e).encode())
                    return self.reply(200, "application/json", body)
                self.reply(404, "text/plain", b"not found\n")

            def reply(self, status, kind, body):
                self.send_response(status)
                self.send_header("Content-Type", kind + "; charset=utf-8")
                self.send_header("Content-Length", str(len(body)))
                self.send_header("Cache-Control", "no-store")
                self.end_headers()
                self.wfile.write(body)

            def log_message(self, *args):
                pass

        self.server = ThreadingHTTPServer(("127.0.0.1", port), Handler)
        self.server.daemon_threads = True
        self.url = "http://127.0.0.1:%d/" % self.server.server_address[1]
        self.thread = threading.Thread(target=self.server.serve_forever, daemon=True)
        self.thread.start()

    def stop(self):
        self.server.shutdown()
        self.server.server_close()


def main():
    import argparse
    import time
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--dir", default=os.path.expanduser("~/.corvidine-dev"))
    parser.add_argument("--port", type=int, default=0, help="the Collector's port (default: a free one)")
    parser.add_argument("--web-port", type=int, default=0, help="the web page's port (default: a free one)")
    parser.add_argument("--verbose", action="store_true", help="one line per call received")
    opts = parser.parse_args()
    collector = DevCollector(opts.dir, opts.port, log=(lambda m: print(m, flush=True)) if opts.verbose else None)
    web = WebPage(collector.store, opts.web_port)
    print(json.dumps({"collector": "127.0.0.1:%d" % collector.port, "trusted": collector.trusted, "web": web.url,
                      "settings": collector.settings_path}), flush=True)
    print("export CORVIDINE_COLLECTOR=127.0.0.1:%d CORVIDINE_TRUSTEDPATH=%s\ntraces: %s (Ctrl-C ends)"
          % (collector.port, collector.trusted, web.url), flush=True)
    try:
        while True:
            time.sleep(3600)
    except KeyboardInterrupt:
        pass
    web.stop()
    collector.stop()


if __name__ == "__main__":
    main()
