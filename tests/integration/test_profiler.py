"""The profiler in php-fpm workers forked from a master that never profiles: each worker's own profiler
thread, one profiling span per sampled request with the request's own functions (read with python3-bson)."""
import collections
import concurrent.futures
import time
import unittest

import harness
from harness import curl

REQUESTS = 12


def task_of(xtrace):
    return xtrace[2:42]


def frame_names(info):
    return [f.get("M") for f in info["NewFrames"]]


class FpmWorkersProfile(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        php = harness.CURRENT_PHP
        if php.fpm is None:
            raise unittest.SkipTest("no php-fpm for this PHP build")
        cls.server = harness.FpmServer(php, {"corvidine.enable_profiling": 1}, children=3).start()

    @classmethod
    def tearDownClass(cls):
        crashes = cls.server.crashes()
        cls.server.stop()
        if crashes:
            raise AssertionError("server crashed: %s" % crashes)

    def test_every_sampled_request_has_its_profile(self):
        with concurrent.futures.ThreadPoolExecutor(3) as pool:
            answers = list(pool.map(lambda i: curl(self.server.url("/profiled.php?i=%d" % i)), range(REQUESTS)))
        self.assertEqual([b"profiled\n"] * REQUESTS, [a.body for a in answers])

        deadline = time.time() + 10
        while True:
            events = self.server.traces.events()
            exits = [e for e in events if e.get("Label") == "exit" and e.get("Spec") != "profiling"]
            spans = [e for e in events if e.get("Spec") == "profiling" and e["Label"] == "exit"]
            if (len(exits) >= REQUESTS and len(spans) >= REQUESTS) or time.time() > deadline:
                break
            time.sleep(0.1)
        self.assertEqual(REQUESTS, len(exits))
        self.assertEqual([1] * REQUESTS, [e["ProfileSpans"] for e in exits])

        by_task = collections.defaultdict(list)
        for e in events:
            if e.get("Spec") == "profiling":
                by_task[task_of(e["X-Trace"])].append(e)
        self.assertEqual(sorted(task_of(e["X-Trace"]) for e in exits), sorted(by_task))
        pids = set()
        for task, profile in by_task.items():
            self.assertEqual(["entry"], [e["Label"] for e in profile[:1]], task)
            self.assertEqual("exit", profile[-1]["Label"], task)
            infos = [e for e in profile if e["Label"] == "info"]
            names = {n for info in infos for n in frame_names(info)}
            self.assertIn("crunch", names, task)
            self.assertIn("usleep", names, task)
            pids.update(info["PID"] for info in infos)
        # Sent from the workers' own profiler threads, never the master's.
        master = self.server.processes[0].pid
        self.assertNotIn(master, pids)
        self.assertGreaterEqual(len(pids), 1)


if __name__ == "__main__":
    unittest.main()
