#!/usr/bin/python3
"""The agent's Collector connection (build/collector_probe) against the test Collector (its own Thrift decoder): TLS
trust and names, protocol versions, scripted answers, redirects, bad replies, closing sockets in a forked child."""
import os
import ssl
import subprocess
import sys
import tempfile
import time

import bson

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(HERE)), "tools", "collector"))
from certs import Authority  # noqa: E402
from collector import Collector, server_context  # noqa: E402

BUILD = sys.argv[1] if len(sys.argv) > 1 else "build"
PROBE = os.path.join(BUILD, "collector_probe")
KEY = "0123456789abcdef:probe-service"


def probe(port, trust, *steps, host="localhost", recv=None, env=None):
    args = [PROBE, host, str(port), trust, KEY] + (["recv=%d" % recv] if recv else []) + list(steps)
    run = subprocess.run(args, capture_output=True, text=True, timeout=60, env=env)
    assert run.returncode == 0, (args, run.returncode, run.stdout, run.stderr[-2000:])
    return run.stdout.splitlines(), run.stderr


def refused(ctx, trust, needle, host="localhost"):
    """A connect that must fail, with `needle` in the debug log, no call made."""
    with Collector(tls=ctx) as c:
        out, log = probe(c.port, trust, "connect", host=host)
        assert out == ["connect failed response=5"], out
        assert needle in log, (needle, log)
        assert c.calls == [], c.calls


def main():
    tmp = tempfile.mkdtemp(prefix="collector-check-")
    ca, stranger = Authority(tmp), Authority(tmp, "stranger CA")
    good = ca.server("good")
    trust = ca.pem_path
    docs = [bson.encode({"Label": "entry", "Layer": "php"}), bson.encode({"Label": "exit", "n": 2})]
    checks = []

    # A verified handshake (TLS 1.3 offered and taken), every method, the arguments as the Collector decodes them.
    with Collector(tls=server_context(good)) as c:
        c.script("getSettings", "SETTINGS_FIELD6")
        out, _ = probe(c.port, trust, "connect", "postEvents:" + ",".join(d.hex() for d in docs),
                       "postStatus:" + docs[0].hex(), "postMetrics:" + docs[1].hex(), "getSettings", "close")
        assert out[:4] == ["connect ok response=1", "postEvents result=0 arg=", "postStatus result=0 arg=",
                           "postMetrics result=0 arg="], out
        # The unknown field 6 is skipped and the fields after it are read.
        assert out[4:6] == ["getSettings result=0 arg= settings=1",
                            "setting type=2 flags=SAMPLE_START,SAMPLE_THROUGH_ALWAYS timestamp=1700000000 "
                            "value=1000000 layer= ttl=120 BucketCapacity=0000000000000040"], out
        assert out[6] == "close rc=0", out
        assert [h.get("version") for h in c.handshakes] == ["TLSv1.3"], c.handshakes
        ping, events = c.calls_of("ping")[0], c.calls_of("postEvents")[0]
        assert ping["apiKey"] == KEY and ping["type"] == 1 and ping["seqid"] == 0, ping
        assert events["messages"] == docs and [bson.decode(m)["Label"] for m in events["messages"]] == ["entry", "exit"]
        assert events["enc"] == 1 and events["identity"]["hostname"] == "probe-host", events
        assert events["identity"]["macAddresses"] == ["02:00:00:00:00:01"] and events["identity"]["pid"] > 0, events
        assert c.calls_of("postStatus")[0]["messages"] == docs[:1]
        assert c.calls_of("postMetrics")[0]["messages"] == docs[1:]
        settings = c.calls_of("getSettings")[0]
        assert settings["ferntapperVersion"] == "2" and settings["identity"]["pid"] == 0, settings
        assert len({call["conn"] for call in c.calls}) == 1, "one connection for all calls"
        assert c.errors == [], c.errors
    checks.append("handshake and calls")

    # TLS 1.2 is accepted; TLS 1.1 is not.
    with Collector(tls=server_context(good, maximum=ssl.TLSVersion.TLSv1_2)) as c:
        out, _ = probe(c.port, trust, "connect")
        assert out == ["connect ok response=1"] and c.handshakes[0]["version"] == "TLSv1.2", (out, c.handshakes)
    refused(server_context(good, minimum=ssl.TLSVersion.TLSv1_1, maximum=ssl.TLSVersion.TLSv1_1,
                           ciphers="DEFAULT:@SECLEVEL=0"), trust, "alert protocol version")
    checks.append("TLS versions")

    # The certificate must chain to our trust file, be valid now, and name the host asked for (DNS name or address).
    refused(server_context(stranger.server("stranger")), trust, "unable to get local issuer certificate")
    refused(server_context(ca.server("expired", expired=True)), trust, "certificate has expired")
    refused(server_context(ca.server("other", dns=("other.example",), ips=())), trust, "hostname mismatch")
    refused(server_context(ca.server("dns-only", ips=())), trust, "IP address mismatch", host="127.0.0.1")
    with Collector(tls=server_context(ca.server("ip-only", dns=(), ips=("127.0.0.1",)))) as c:
        out, _ = probe(c.port, trust, "connect", host="127.0.0.1")
        assert out == ["connect ok response=1"], out
    checks.append("peer names and chain")

    # A garbage trust file fails set-up; a missing one falls back to the system's store (our CA via SSL_CERT_FILE).
    garbage = os.path.join(tmp, "garbage.pem")
    with open(garbage, "w") as f:
        f.write("-----BEGIN CERTIFICATE-----\nnot base64\n-----END CERTIFICATE-----\n")
    out, _ = probe(1, garbage, "connect")
    assert out[0].startswith("trust failed: Failed to load trusted certificates file '%s'" % garbage), out
    missing = os.path.join(tmp, "missing.pem")
    with Collector(tls=server_context(good)) as c:
        out, log = probe(c.port, missing, "connect", env=dict(os.environ, SSL_CERT_FILE=trust))
        assert out == ["connect ok response=1"] and "trusting the system's certificate authorities" in log, out
        out, _ = probe(c.port, missing, "connect", env=dict(os.environ, SSL_CERT_FILE=os.devnull))
        assert out == ["connect failed response=5"], out
    checks.append("trust file and system store")

    # Not Collectors: plain TCP, one that accepts and never speaks (receive timeout), one that never answers the ping.
    refused(None, trust, "failed to connect: SSL_connect:")
    with Collector(silent=True) as c:
        start = time.monotonic()
        out, log = probe(c.port, trust, "connect", recv=300)
        assert out == ["connect failed response=5"] and time.monotonic() - start < 5, out
        assert "failed to connect: THRIFT_POLL (timed out)" in log, log
    with Collector(tls=server_context(good)) as c:
        c.script("ping", "HANG", "HANG")
        out, log = probe(c.port, trust, "connect", recv=300)
        assert out == ["connect failed response=5"] and "connect: Ping error:" in log, (out, log)
        # While one client waits on its stalled connection, another is served.
        stalled = subprocess.Popen([PROBE, "localhost", str(c.port), trust, KEY, "recv=20000", "connect"],
                                   stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        deadline = time.monotonic() + 10
        while len(c.calls) < 2:
            assert time.monotonic() < deadline and stalled.poll() is None, "the stalled client never called"
            time.sleep(0.01)
        out, _ = probe(c.port, trust, "connect", "ping")
        assert out == ["connect ok response=1", "ping result=0 arg="] and stalled.poll() is None, out
        stalled.kill()
        stalled.wait()
    checks.append("non-Collectors refused or timed out")

    # The ping's answer sets server_response (REDIRECT and unknown codes leave it); the connection stays up.
    with Collector(tls=server_context(good)) as c:
        c.script("ping", "OK", "TRY_LATER", "REDIRECT 127.0.0.1:1", "LIMIT_EXCEEDED", "INVALID_API_KEY", "CODE 9")
        out, _ = probe(c.port, trust, *["connect"] * 6)
        assert [line.split()[-1] for line in out] == ["response=1", "response=2", "response=2", "response=3",
                                                      "response=4", "response=4"], out
        assert all(line.startswith("connect ok") for line in out), out
    checks.append("ping answers to server_response")

    # A REDIRECT on a post moves the target; the next connects of both links (at once, on two threads) go there.
    with Collector(tls=server_context(good)) as first, Collector(tls=server_context(good)) as second:
        first.script("postEvents", "REDIRECT localhost:%d" % second.port)
        out, _ = probe(first.port, trust, "connect", "postEvents:" + docs[0].hex(), "redirect", "connect-both",
                       "postEvents:" + docs[1].hex())
        assert out == ["connect ok response=1", "postEvents result=4 arg=localhost:%d" % second.port,
                       "redirect rc=0 target=localhost:%d" % second.port, "connect-both event=ok metric=ok",
                       "postEvents result=0 arg="], out
        assert [c["messages"] for c in first.calls_of("postEvents")] == [docs[:1]]
        assert [c["messages"] for c in second.calls_of("postEvents")] == [docs[1:]]
        assert len({c["conn"] for c in second.calls_of("ping")}) == 2, second.calls
    checks.append("redirect followed")

    # Bad replies: each call fails cleanly and the next connect works; memory stays bounded through a zlib bomb; a
    # reply for another method is skipped and the client waits for its own up to the receive timeout.
    bad = [("TRUNCATE", "postEvents error:"), ("GARBAGE", "postEvents error: zlib error"),
           ("HUGE_STRING", "postEvents error: TProtocolException: Exceeded size limit"),
           ("ZLIB_BOMB", "postEvents error: Collector reply longer than 16777216 bytes"),
           ("EXCEPTION", "postEvents error: collector failure"),
           ("WRONG_NAME", "postEvents error: THRIFT_POLL (timed out)"), ("CODE 7", "postEvents result=7 arg=")]
    with Collector(tls=server_context(good)) as c:
        c.script("postEvents", *[reply for reply, _ in bad])
        c.script("getSettings", "HUGE_LIST")
        steps = ["connect", "postEvents:" + docs[0].hex()] * len(bad)
        out, _ = probe(c.port, trust, *steps, "connect", "getSettings", "connect", "ping", "maxrss", recv=2000)
        for i, (reply, expected) in enumerate(bad):
            assert out[2 * i] == "connect ok response=1", (reply, out)
            assert out[2 * i + 1].startswith(expected), (reply, expected, out[2 * i + 1])
        tail = out[2 * len(bad):]
        assert tail[1] == "getSettings error: TProtocolException: Exceeded size limit", tail
        assert tail[2:4] == ["connect ok response=1", "ping result=0 arg="], tail
        assert int(tail[4].split("=")[1]) < 64 * 1024, tail  # kilobytes: far below the bomb's 40 MB
    checks.append("bad replies dropped cleanly")

    # A forked child closes its inherited sockets without a TLS shutdown: the parent's session goes on.
    with Collector(tls=server_context(good)) as c:
        out, _ = probe(c.port, trust, "connect", "fork-closeSockets", "ping", "close")
        assert out == ["connect ok response=1", "child closeSockets rc=0", "child exit=0", "ping result=0 arg=",
                       "close rc=0"], out
        assert [call["method"] for call in c.calls] == ["ping", "ping"] and c.errors == [], (c.calls, c.errors)
    checks.append("closeSockets after fork")

    print("collector: %d checks: %s" % (len(checks), "; ".join(checks)))


if __name__ == "__main__":
    main()
