"""Threads of one ZTS process (zts/threads.c) serving requests at once: every rule held, traces whole, joined up."""
import collections
import os
import re
import shutil
import subprocess
import tempfile
import unittest

import harness

HERE = os.path.dirname(os.path.abspath(__file__))
THREADS = int(os.environ.get("CORVIDINE_ZTS_THREADS", "8"))
REQUESTS = int(os.environ.get("CORVIDINE_ZTS_REQUESTS", "40"))

RULES = '[off]\ntype = url\nregexp = ".*/off"\ntracing = disabled\n'


def events_by_task(traces):
    by_task = collections.defaultdict(list)
    for event in harness.bson_tools.decode_file(traces):
        if "Label" in event and not event.get("__Init"):
            by_task[event["X-Trace"][2:42]].append(event)
    return by_task


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
        libdir = os.path.dirname(found[0])
        cls.dir = tempfile.mkdtemp(prefix="corvidine-it-threads-")
        includes = subprocess.run([config, "--includes"], capture_output=True, text=True, check=True).stdout.split()
        cls.binary = os.path.join(cls.dir, "threads")
        subprocess.run(["cc", "-O1", "-g", "-Wall", "-o", cls.binary, os.path.join(HERE, "zts", "threads.c")] +
                       includes + ["-L" + libdir, "-lphp", "-Wl,-rpath," + libdir, "-lpthread"],
                       check=True, capture_output=True)

    @classmethod
    def tearDownClass(cls):
        if os.environ.get("CORVIDINE_IT_KEEP") != "1":
            shutil.rmtree(cls.dir, ignore_errors=True)

    def run_threads(self, extra_env=None):
        work = tempfile.mkdtemp(dir=self.dir)
        for i in range(THREADS):
            with open(os.path.join(work, "rules-%d.ini" % i), "w") as handle:
                handle.write(RULES)
        traces = os.path.join(work, "trace.bson")
        env = dict(os.environ, CORVIDINE_REPORTER="file", CORVIDINE_COLLECTOR=traces,
                   CORVIDINE_TOKEN_BUCKET_CAPACITY="1000000", CORVIDINE_TOKEN_BUCKET_RATE="1000000")
        env.update({k: v.replace("@WORK@", work) for k, v in (extra_env or {}).items()})
        result = subprocess.run([self.binary, harness.CURRENT_PHP.module, work, str(THREADS), str(REQUESTS)],
                                env=env, capture_output=True, text=True, timeout=600)
        self.assertEqual(0, result.returncode, result.stdout + result.stderr[-3000:])
        return result, traces

    def test_threads_trace_at_once(self):
        result, traces = self.run_threads()
        total = THREADS * REQUESTS
        sampled = THREADS * ((REQUESTS + 1) // 2)
        self.assertIn("requests %d answered %d sampled-headers %d unsampled-headers %d wrong-flags 0"
                      % (total, total, sampled, total - sampled), result.stdout)

        events = [e for task in events_by_task(traces).values() for e in task]
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

    def test_wrappers_per_thread(self):
        """Traced and untraced requests wrap the same functions at once: log lines and events stay per request."""
        code = ("preg_match('~^/t(\\d+)/r(\\d+)~', $_SERVER['REQUEST_URI'], $m);"
                "for ($i = 0; $i < 3; $i++) { (new ArrayObject(['k' => $i]))->offsetGet('k'); }"
                "error_log(\"t{$m[1]} r{$m[2]}\", 3, \"@WORK@/log-t{$m[1]}-r{$m[2]}.txt\");")
        result, traces = self.run_threads(extra_env={
            "CORVIDINE_THREADS_CODE": code,
            "CORVIDINE_THREADS_INI": "corvidine.internal_test_hooks=1\ncorvidine.log_trace_id=enabled"})
        work, by_task = os.path.dirname(traces), events_by_task(traces)
        entries = {e["URL"]: task for task, events in by_task.items() for e in events if e["Label"] == "entry"
                   and e.get("Layer") == "PHP"}
        seen = set()
        for t in range(THREADS):
            for r in range(REQUESTS):
                with self.subTest(thread=t, request=r):
                    with open(os.path.join(work, "log-t%d-r%d.txt" % (t, r))) as handle:
                        line = handle.read()
                    match = re.fullmatch(r"t%d r%d \[zq\.traceId=([0-9A-F]{40})-([01])\]" % (t, r), line)
                    self.assertIsNotNone(match, line)
                    task, flag = match.groups()
                    self.assertNotIn(task, seen)
                    seen.add(task)
                    if r % 2:
                        self.assertEqual("0", flag)
                        self.assertNotIn(task, by_task)
                        continue
                    self.assertEqual("1", flag)
                    self.assertEqual(task, entries.get("/t%d/r%d" % (t, r)))
                    events = by_task[task]
                    self.assertEqual(["t%d r%d" % (t, r)], [e["Message"] for e in events if e["Label"] == "error_log"])
                    wrapped = collections.Counter((e["Label"], e["Function"]) for e in events
                                                  if e.get("Layer") == "test_wrap")
                    self.assertEqual({("entry", "preg_match"): 1, ("exit", "preg_match"): 1,
                                      ("entry", "ArrayObject::offsetGet"): 3, ("exit", "ArrayObject::offsetGet"): 3},
                                     dict(wrapped))

    PROFILED_CODE = ("function crunch($n) { $x = 0; for ($i = 0; $i < $n; $i++) { $x += $i & 3; } return $x; }"
                     " function pause() { usleep(20000); } crunch(1500000); pause(); echo 'ok';")

    def test_each_thread_profiles_its_own_requests(self):
        """A clock per request raises its own thread's VM interrupt; one profiler thread for all."""
        result, traces = self.run_threads(extra_env={"CORVIDINE_THREADS_CODE": self.PROFILED_CODE,
                                                      "CORVIDINE_THREADS_INI": "corvidine.enable_profiling=1"})
        events = [e for task in events_by_task(traces).values() for e in task]
        trace_exits = [e for e in events if e["Label"] == "exit" and e.get("Spec") != "profiling"]
        sampled = THREADS * ((REQUESTS + 1) // 2)
        self.assertEqual(sampled, len(trace_exits))
        self.assertEqual([1] * sampled, [e["ProfileSpans"] for e in trace_exits])
        profile = collections.defaultdict(list)
        for e in events:
            if e.get("Spec") == "profiling":
                profile[e["X-Trace"][2:42]].append(e)
        self.assertEqual(sorted(e["X-Trace"][2:42] for e in trace_exits), sorted(profile))
        tids, names = set(), set()
        for task, span in profile.items():
            self.assertEqual(("entry", "exit"), (span[0]["Label"], span[-1]["Label"]), task)
            infos = [e for e in span if e["Label"] == "info"]
            self.assertEqual(1, len({i["TID"] for i in infos}), "one request, one thread: %s" % task)
            tids.update(i["TID"] for i in infos)
            names.update(f.get("M") for i in infos for f in i["NewFrames"])
        self.assertEqual(THREADS, len(tids))
        self.assertTrue({"crunch", "pause", "usleep"} <= names, names)

    def test_database_calls_per_thread(self):
        """PDO on SQLite (and mysqli with mariadb-server) on every thread at once: each trace has its own queries."""
        code = ("preg_match('~^/t(\\d+)/r(\\d+)~', $_SERVER['REQUEST_URI'], $m);"
                "$db = new PDO('sqlite::memory:'); $db->exec('CREATE TABLE t (a)');"
                "$db->prepare('INSERT INTO t VALUES (?)')->execute([\"t{$m[1]}\"]);"
                "$db->query(\"SELECT a FROM t WHERE a <> 'r{$m[2]}'\")->fetchAll();"
                "if (getenv('MYSQL_PORT')) { $l = new mysqli('127.0.0.1', 'root', '', 'test', (int)getenv('MYSQL_PORT'));"
                " $s = $l->stmt_init(); $s->prepare('SELECT ?'); $s->execute([\"t{$m[1]} r{$m[2]}\"]); $s->get_result(); }")
        server = harness.MariaDB().start() if harness.MariaDB.available() else None
        try:
            result, traces = self.run_threads(extra_env={
                "CORVIDINE_THREADS_CODE": code, "CORVIDINE_THREADS_INI": "corvidine.enable_sanitize_sql=0",
                "MYSQL_PORT": str(server.port) if server else ""})
        finally:
            if server:
                server.stop()
        by_url = {e["URL"]: events for events in events_by_task(traces).values() for e in events
                  if e["Label"] == "entry" and e.get("Layer") == "PHP"}
        for t in range(THREADS):
            for r in range(REQUESTS):
                with self.subTest(thread=t, request=r):
                    if r % 2:
                        self.assertNotIn("/t%d/r%d" % (t, r), by_url)
                        continue
                    calls = []
                    for e in by_url["/t%d/r%d" % (t, r)]:
                        if e.get("Layer") in ("php_pdo", "php_mysqli") and e["Label"] == "entry":
                            calls.append((e["Function"], e["Query"].decode()))
                        if e.get("QueryArgs"):
                            calls.append(list(e["QueryArgs"].values()))
                    expected = [("exec", "CREATE TABLE t (a)"), ("execute", "INSERT INTO t VALUES (?)"), ["t%d" % t],
                                ("query", "SELECT a FROM t WHERE a <> 'r%d'" % r)]
                    if server:
                        expected += [("execute", "SELECT ?"), ["t%d r%d" % (t, r)]]
                    self.assertEqual(expected, calls)
