#!/usr/bin/python3
"""`make run`: serves the demo shop (tools/demo/app) through nginx + php-fpm
with corvidine loaded and the file reporter on, sends it a few requests with
curl, and shows the traces the agent wrote, decoded by python3-bson.

Usage: serve_demo.py PATH/TO/corvidine.so
"""
import os
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path.insert(0, os.path.join(ROOT, "tests", "integration"))
sys.path.insert(0, os.path.join(ROOT, "tools"))

import harness  # noqa: E402
import trace_view  # noqa: E402

APP = os.path.join(ROOT, "tools", "demo", "app")
UPSTREAM = "2B" + "5EED" * 10 + "0123456789ABCDEF" + "01"


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    php = harness.Php("nts", sys.argv[1])
    harness.WWW = APP  # serve the demo shop instead of the test pages
    server = harness.FpmServer(php, ini={"corvidine.enable": "1"})
    server.start()
    try:
        print("== nginx + php-fpm serving %s on %s, corvidine loaded, file reporter writing to %s*\n"
              % (APP, server.url("/"), server.traces.prefix))
        options = "trigger-trace;custom-basket=3;ts=%d" % int(time.time())
        requests = [
            ("/index.php", {}),
            ("/product.php?id=2", {}),
            ("/product.php?id=9", {}),
            ("/checkout.php", {"X-Trace": UPSTREAM}),
            ("/index.php", {"X-Trace-Options": options,
                            "X-Trace-Options-Signature": harness.openssl_signature(options)}),
        ]
        for path, headers in requests:
            response = harness.curl(server.url(path), headers)
            sent = "".join("\n      sent %s: %s" % kv for kv in headers.items())
            print("GET %-20s -> %d%s" % (path, response.status, sent))
            for name in ("X-Trace", "X-Trace-Options-Response"):
                if response.header(name):
                    print("      got  %s: %s" % (name, response.header(name)))
        deadline = time.time() + 5
        while time.time() < deadline and sum(e.get("Label") == "exit" for e in server.traces.events()) < 5:
            time.sleep(0.1)
        print("\n== the traces, event by event (nested under the event each Edge points at):\n")
        docs = server.traces.documents()
        init = [d for d in docs if d.get("__Init")]
        for d in init:
            print("status __Init from %s: PHP %s, corvidine %s\n" % (d.get("Hostname"), d.get("PHP.Version"),
                                                                    d.get("PHP.Corvidine.Version")))
        trace_view.show([d for d in docs if not d.get("__Init")])
        if server.crashes():
            print("php-fpm workers crashed: %s" % server.crashes())
            return 1
    finally:
        server.stop()
    return 0


if __name__ == "__main__":
    sys.exit(main())
