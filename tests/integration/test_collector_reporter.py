"""The ssl reporter in php-fpm workers against the test Collector (its own Thrift decoder; documents read with
python3-bson): batches, reply codes, a Collector restarted or black-holed, flush at shutdown, a reporter per worker."""
import os
import signal
import struct
import sys
import tempfile
import time
import unittest

import bson

import harness
from harness import curl

sys.path.insert(0, os.path.join(os.path.dirname(harness.HERE), "support", "collector"))
from certs import Authority  # noqa: E402
from collector import Collector, server_context, ttypes  # noqa: E402

CA_DIR = tempfile.mkdtemp(prefix="corvidine-it-ca-")
_authority = None


def authority():
    global _authority
    if _authority is None:
        _authority = Authority(CA_DIR)
        _authority.cert_path = _authority.server("collector")
    return _authority


def settings_answer(rate=1000000):
    """A default sample-rate record that traces every request."""
    arguments = {name: struct.pack("=d", 1000.0) for name in
                 ("BucketCapacity", "BucketRate", "TriggerRelaxedBucketCapacity", "TriggerRelaxedBucketRate",
                  "TriggerStrictBucketCapacity", "TriggerStrictBucketRate")}
    arguments["SignatureKey"] = b"k" * 20
    record = ttypes.VeskSetting(type=2, flags="SAMPLE_START,SAMPLE_THROUGH_ALWAYS,TRIGGER_TRACE", timestamp=0,
                                value=rate, layer="", arguments=arguments, ttl=600)
    return ttypes.SettingsResult(result=0, arg="", settings=[record])


def collector(port=0):
    c = Collector(tls=server_context(authority().cert_path), port=port)
    # Every settings request of the run gets the same records.
    c.script("getSettings", *([settings_answer()] * 50))
    return c


def documents(c):
    """Every document posted with postEvents, with the poster's HostID pid."""
    return [(call["identity"]["pid"], bson.decode(raw)) for call in c.calls_of("postEvents") for raw in call["messages"]]


def wait_for(predicate, timeout=15.0):
    deadline = time.time() + timeout
    while time.time() < deadline:
        value = predicate()
        if value:
            return value
        time.sleep(0.1)
    return predicate()


def alive(pid):
    try:
        with open("/proc/%d/stat" % pid) as handle:
            return handle.read().split()[2] != "Z"
    except OSError:
        return False


def server(port, children=2, **env):
    e = {"CORVIDINE_REPORTER": "ssl", "CORVIDINE_COLLECTOR": "127.0.0.1:%d" % port,
         "CORVIDINE_TRUSTEDPATH": authority().pem_path, "CORVIDINE_SERVICE_KEY": "0123456789abcdef:it-service",
         "CORVIDINE_FLUSH_MAX_WAIT_TIME": "2000"}
    e.update({k: str(v) for k, v in env.items()})
    return harness.FpmServer(harness.CURRENT_PHP, {"corvidine.max_ready_wait_time": "3000"}, e, children=children)


def traced_requests(c, fpm, count, marker):
    """Sends requests until `count` reached the Collector as entry events (a new worker's first may come before its
    settings): their documents, or [] after the time-out."""
    def arrived():
        return [d for _, d in documents(c) if d.get("Label") == "entry" and marker in d.get("URL", "")]
    deadline = time.time() + 20
    sent = 0
    while time.time() < deadline:
        found = arrived()
        if len(found) >= count:
            return found
        if sent < count or sent < len(found) + count + 5:
            try:
                curl(fpm.url("/index.php?%s=%d" % (marker, sent)))
            except RuntimeError as e:  # counted by what arrives; a dead worker fails the test at its end
                print("request without an answer: %s" % e)
            sent += 1
        time.sleep(0.2)
    return []


class CollectorReporter(unittest.TestCase):
    def setUp(self):
        if harness.CURRENT_PHP.fpm is None:
            raise unittest.SkipTest("no php-fpm for this PHP build")

    def test_events_arrive_batched_by_size_and_by_interval(self):
        # (flush interval s, batch size KB, requests, most posts expected)
        for interval, batch_kb, requests, most_posts in ((1, 2000, 20, 10), (60, 1, 12, 12)):
            with self.subTest(interval=interval, batch_kb=batch_kb), collector() as c, \
                    server(c.port, CORVIDINE_EVENTS_FLUSH_INTERVAL=interval,
                           CORVIDINE_EVENTS_FLUSH_BATCH_SIZE=batch_kb) as fpm:
                entries = traced_requests(c, fpm, requests, "batch%d" % interval)
                self.assertTrue(entries, c.calls_of("postEvents")[-3:])
                posts = c.calls_of("postEvents")
                self.assertLessEqual(len(posts), most_posts)
                # Every worker has its own reporter: the pid its documents carry is a worker's, not the master's.
                pids = {pid for pid, _ in documents(c)}
                self.assertNotIn(fpm.processes[0].pid, pids)
                self.assertTrue(all(c.calls_of("getSettings")))
                self.assertEqual({"0123456789abcdef:it-service"}, {p["apiKey"] for p in posts})
                # The start-up document goes on the status channel.
                self.assertTrue(wait_for(lambda: any(
                    bson.decode(m).get("__Init") for call in c.calls_of("postStatus") for m in call["messages"])))

    def test_reply_codes(self):
        # (scripted replies, documents re-sent after them, sending stops)
        cases = (("TRY_LATER", True, False), ("LIMIT_EXCEEDED", True, False), ("INVALID_API_KEY", False, True),
                 ("CODE 77", True, False))
        for reply, resent, stops in cases:
            with self.subTest(reply=reply), collector() as c, server(c.port, CORVIDINE_EVENTS_FLUSH_INTERVAL=1) as fpm:
                traced_requests(c, fpm, 1, "warm")
                c.script("postEvents", reply)
                before = len(c.calls_of("postEvents"))
                for i in range(3):
                    curl(fpm.url("/index.php?code=%d" % i))
                first = wait_for(lambda: c.calls_of("postEvents")[before:])
                self.assertTrue(first)
                failed = [bson.decode(m) for m in first[0]["messages"]]
                for i in range(3):
                    self.assertEqual(200, curl(fpm.url("/index.php?after=%d" % i)).status)  # never held up
                time.sleep(3)
                # Each worker has its own reporter: look at the one that got the reply.
                pid = first[0]["identity"]["pid"]
                later = [bson.decode(m) for call in c.calls_of("postEvents")[before + 1:]
                         if call["identity"]["pid"] == pid for m in call["messages"]]
                again = [d for d in later if d in failed]
                self.assertEqual(resent, len(again) == len(failed), (reply, len(again), len(failed)))
                if stops:
                    self.assertEqual([], later)

    def test_redirect_moves_both_senders(self):
        with collector() as first, collector() as second:
            first.script("postEvents", "REDIRECT 127.0.0.1:%d" % second.port)
            first._replies["getSettings"][:0] = ["REDIRECT 127.0.0.1:%d" % second.port]
            with server(first.port, CORVIDINE_EVENTS_FLUSH_INTERVAL=1) as fpm:
                self.assertTrue(traced_requests(second, fpm, 2, "moved"))
                self.assertTrue(second.calls_of("getSettings"))

    def test_collector_restarted_black_holed_and_flush_at_shutdown(self):
        c = collector()
        port = c.port
        fpm = server(port, CORVIDINE_EVENTS_FLUSH_INTERVAL=1).start()
        try:
            self.assertTrue(traced_requests(c, fpm, 2, "before"))
            c.stop()
            for i in range(3):
                self.assertEqual(200, curl(fpm.url("/index.php?down=%d" % i)).status)
            c = collector(port)  # back on the same port: the retry series reconnects
            self.assertTrue(traced_requests(c, fpm, 2, "after"), c.calls[-3:])
            c.stop()

            # Black-holed: the Collector reads and never answers; requests are served all the same.
            c = collector(port)
            c.script("postEvents", *(["HANG"] * 10))
            for i in range(5):
                self.assertEqual(200, curl(fpm.url("/index.php?hole=%d" % i)).status)
            c.stop()
            self.assertEqual([], fpm.crashes())
        finally:
            fpm.stop()

        # Flush at shutdown: a long interval keeps the documents queued until the workers' graceful end.
        with collector() as c:
            fpm = server(c.port, CORVIDINE_EVENTS_FLUSH_INTERVAL=60).start()
            try:
                traced_requests(c, fpm, 1, "warm")
                posted = len(documents(c))
                for i in range(4):
                    curl(fpm.url("/index.php?flush=%d" % i))
                # SIGQUIT (php-fpm's own graceful stop) to each worker, without the master's kill deadline.
                master = fpm.processes[0].pid
                with open("/proc/%d/task/%d/children" % (master, master)) as handle:
                    workers = [int(p) for p in handle.read().split()]
                for worker in workers:
                    os.kill(worker, signal.SIGQUIT)
                wait_for(lambda: not any(alive(w) for w in workers), 10)
            finally:
                fpm.stop()
            flushed = [d for _, d in documents(c)[posted:] if "flush=" in d.get("URL", "") and d.get("Label") == "entry"]
            self.assertGreaterEqual(len(flushed), 4, len(documents(c)))


if __name__ == "__main__":
    unittest.main()
