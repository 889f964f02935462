"""Threads of one process serving requests at once (ZTS only): a small
threaded SAPI on the ZTS PHP library (zts/threads.c) runs many requests in
parallel, each thread with its own transaction settings file, so that the
process-wide settings cache is filled and read from several threads at the
same moment. Every request must be answered, every rule must hold, and the
trace documents of all threads must be whole and joined up.
"""
import collections
import os
import shutil
import subprocess
import tempfile
import unittest

import harness

HERE = os.path.dirname(os.path.abspath(__file__))
THREADS = int(os.environ.get("CORVIDINE_ZTS_THREADS", "8"))
REQUESTS = int(os.environ.get("CORVIDINE_ZTS_REQUESTS", "40"))

RULES = """[off]
type = url
regexp = ".*/off"
tracing = disabled
"""


class ThreadedServer(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        php = harness.CURRENT_PHP
        if php.flavour != "zts":
            raise unittest.SkipTest("threads need the ZTS build")
        prefix = os.path.dirname(os.path.dirname(php.cli))
        config = os.path.join(prefix, "bin", "php-config")
        found = [p for p in (os.path.join(prefix, "lib", "libphp.so"), os.path.join(prefix, "lib", "php", "libphp.so"))
                 if os.path.exists(p)]
        if not found:
            raise unittest.SkipTest("no libphp.so (embed SAPI) in %s" % prefix)
        libphp = found[0]
        cls.dir = tempfile.mkdtemp(prefix="corvidine-it-threads-")
        includes = subprocess.run([config, "--includes"], capture_output=True, text=True, check=True).stdout.split()
        cls.binary = os.path.join(cls.dir, "threads")
        subprocess.run(["cc", "-O1", "-g", "-Wall", "-o", cls.binary, os.path.join(HERE, "zts", "threads.c")] +
                       includes + ["-L" + os.path.dirname(libphp), "-lphp", "-Wl,-rpath," + os.path.dirname(libphp),
                                   "-lpthread"], check=True, capture_output=True)

    @classmethod
    def tearDownClass(cls):
        if os.environ.get("CORVIDINE_IT_KEEP") != "1":
            shutil.rmtree(cls.dir, ignore_errors=True)

    def run_threads(self, prefix=()):
        work = tempfile.mkdtemp(dir=self.dir)
        for i in range(THREADS):
            with open(os.path.join(work, "rules-%d.ini" % i), "w") as handle:
                handle.write(RULES)
        traces = os.path.join(work, "trace.bson")
        env = dict(os.environ, CORVIDINE_REPORTER="file", CORVIDINE_COLLECTOR=traces,
                   CORVIDINE_TOKEN_BUCKET_CAPACITY="1000000", CORVIDINE_TOKEN_BUCKET_RATE="1000000")
        result = subprocess.run(list(prefix) + [self.binary, harness.CURRENT_PHP.module, work, str(THREADS),
                                                str(REQUESTS)], env=env, capture_output=True, text=True,
                                timeout=600)
        return result, traces

    def test_threads_trace_at_once(self):
        result, traces = self.run_threads()
        self.assertEqual(0, result.returncode, result.stdout + result.stderr[-3000:])
        total = THREADS * REQUESTS
        sampled = THREADS * ((REQUESTS + 1) // 2)
        self.assertIn("requests %d answered %d sampled-headers %d unsampled-headers %d wrong-flags 0"
                      % (total, total, sampled, total - sampled), result.stdout)

        events = [d for d in harness.bson_tools.decode_file(traces) if "Label" in d and not d.get("__Init")]
        entries = [e for e in events if e["Label"] == "entry"]
        exits = {e["X-Trace"][2:42]: e for e in events if e["Label"] == "exit"}
        self.assertEqual(sampled, len(entries))
        self.assertEqual(sampled, len(exits))
        per_thread = collections.Counter(e["URL"].split("/")[1] for e in entries)
        self.assertEqual({"t%d" % i: (REQUESTS + 1) // 2 for i in range(THREADS)}, dict(per_thread))
        for entry in entries:
            self.assertFalse(entry["URL"].endswith("/off"), entry["URL"])
            exit_ = exits[entry["X-Trace"][2:42]]
            self.assertEqual(entry["X-Trace"][42:58], exit_["Edge"])
            self.assertEqual("/" + entry["URL"].split("/")[1] + "/" + entry["URL"].split("/")[2],
                             exit_["TransactionName"])
