"""php-fpm workers profile in their own threads: one profiling span per sampled request, with its functions."""
import collections
import concurrent.futures
import time
import unittest

import harness
from harness import curl
from test_request_tracing import task_of

REQUESTS = 12


class FpmWorkersProfile(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        if harness.CURRENT_PHP.fpm is None:
            raise unittest.SkipTest("no php-fpm for this PHP build")
        cls.server = harness.FpmServer(harness.CURRENT_PHP, {"corvidine.enable_profiling": 1}, children=3).start()

    @classmethod
    def tearDownClass(cls):
        crashes = cls.server.crashes()
        cls.server.stop()
        assert not crashes, "server crashed: %s" % crashes

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
            self.assertEqual(("entry", "exit"), (profile[0]["Label"], profile[-1]["Label"]), task)
            infos = [e for e in profile if e["Label"] == "info"]
            names = {f.get("M") for info in infos for f in info["NewFrames"]}
            self.assertLessEqual({"crunch", "usleep"}, names, task)
            pids.update(info["PID"] for info in infos)
        # Sent from the workers' own profiler threads, never the master's.
        self.assertNotIn(self.server.processes[0].pid, pids)
        self.assertGreaterEqual(len(pids), 1)
