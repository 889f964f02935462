"""Database wrappers against real servers (PDO on SQLite and MariaDB, mysqli on MariaDB): each call is an entry and
exit event with the query sanitized or raw, the bound values, the host; output is the same without the agent."""
import os
import tempfile
import unittest

import harness
from test_request_tracing import ServerCase, marker, op_of

HERE = os.path.dirname(os.path.abspath(__file__))
TRACED = {"corvidine.enable_cli": "1", "corvidine.max_ready_wait_time": "-1"}
# opcache's run-time caches and the tracing JIT keep the function records they resolved (the PDO subclass too).
ENGINES = {"plain": {}, "jit": {"zend_extension": "opcache", "opcache.enable_cli": "1", "opcache.jit": "tracing",
                               "opcache.jit_buffer_size": "64M", "opcache.jit_hot_loop": "1", "opcache.jit_hot_func": "1"}}
MARIADB = None

# Function, Query sanitized, Query raw (None: same), bound values, host (HOST: the connection's; None: failed).
HOST = "host"
PDO_CALLS = [
    ("exec", "DROP TABLE IF EXISTS t", None, None, HOST),
    ("exec", "CREATE TABLE t (id INTEGER PRIMARY KEY, name VARCHAR(0))",
     "CREATE TABLE t (id INTEGER PRIMARY KEY, name VARCHAR(20))", None, HOST),
    ("exec", "INSERT INTO t VALUES (0, '?'), (0, \"?\")", "INSERT INTO t VALUES (1, 'alice'), (22, \"bob\")", None, HOST),
    ("execute", "SELECT name FROM t WHERE id = ? AND name <> '?'", "SELECT name FROM t WHERE id = ? AND name <> 'x'",
     ["22"], HOST),
    ("execute", "SELECT id FROM t WHERE name = :name AND id < :max", None, ["alice", 100], HOST),
    ("query", "SELECT COUNT(*) FROM t WHERE id > 0", "SELECT COUNT(*) FROM t WHERE id > 5", None, HOST),
    ("exec", "DELETE FROM t WHERE id = 0", "DELETE FROM t WHERE id = 1", None, HOST),
    ("rollback", "ROLLBACK", None, None, HOST),
    ("commit", "COMMIT", None, None, HOST),
    ("execute", "INSERT INTO t VALUES (?, ?)", None, ["1", "dup"], HOST),
    ("query", "SELECT broken FROM", None, None, None),
]
PDO_OUTPUT = '["bob"]\n[1]\n1\nduplicate\ncaught\n2 queries\n'

MYSQLI_CALLS = [
    ("query", "DROP TABLE IF EXISTS m", None, None, HOST),
    ("query", "CREATE TABLE m (id INT, name VARCHAR(0))", "CREATE TABLE m (id INT, name VARCHAR(20))", None, HOST),
    ("real_query", "INSERT INTO m VALUES (0, '?'), (0, '?')", "INSERT INTO m VALUES (1, 'alice'), (2, 'bob')", None, HOST),
    ("real_query", "SELECT name FROM m WHERE id = 0", "SELECT name FROM m WHERE id = 2", None, HOST),
    ("store_result", None, None, None, HOST),
    ("real_query", "SELECT id FROM m ORDER BY id", None, None, HOST),
    ("use_result", None, None, None, HOST),
    ("multi_query", "SELECT 0; SELECT '?'", "SELECT 1; SELECT 'two'", None, HOST),
    ("store_result", None, None, None, HOST),
    ("store_result", None, None, None, HOST),
    ("stmt_execute", "SELECT name FROM m WHERE id = ?", None, [1], HOST),
    ("execute", "SELECT id FROM m WHERE name = ? AND id < 0", "SELECT id FROM m WHERE name = ? AND id < 100", ["bob"], HOST),
    ("execute_query", "SELECT name FROM m WHERE id = ?", None, [2], HOST),
    ("commit", "COMMIT", None, None, HOST),
    ("rollback", "ROLLBACK", None, None, HOST),
    ("query", "SELECT broken FROM", None, None, None),
    ("query", "SELECT '?'", "SELECT 'local'", None, "localhost"),
]
MYSQLI_OUTPUT = ('[["bob"]]\n[["1"],["2"]]\n[["1"]]\n[["two"]]\n[["alice"]]\n[[2]]\n[["bob"]]\n'
                 'bool(false)\n[["local"]]\n')


def setUpModule():
    global MARIADB
    if harness.MariaDB.available():
        MARIADB = harness.MariaDB().start()


def tearDownModule():
    if MARIADB is not None:
        MARIADB.stop()


def script(name):
    return os.path.join(HERE, "db", name + ".php")


def backends(sqlite_dir):
    """Name, environment and host of each database a PDO script runs on."""
    path = os.path.join(sqlite_dir, "app.sqlite")
    return [("sqlite", {"DB_DSN": "sqlite:" + path}, path)] + ([("mysql", mysql_env(), "127.0.0.1")] if MARIADB else [])


def mysql_env():
    return {"DB_DSN": "mysql:host=127.0.0.1;port=%d;dbname=test" % MARIADB.port, "DB_USER": "root",
            "MYSQL_PORT": str(MARIADB.port), "MYSQL_SOCKET": MARIADB.socket}


def expected(calls, host, sanitized):
    return [(function, sanitized_query if sanitized or raw is None else raw,
             None if sanitized else args, host if want == HOST else want)
            for function, sanitized_query, raw, args, want in calls]


class DatabaseCalls:
    """What the events of one traced run say, call by call."""

    def calls(self, events, layer, flavor):
        wrapped = [e for e in events if e.get("Layer") == layer]
        self.assertEqual(len(wrapped) % 2, 0, wrapped)
        found = []
        for entry, exit_ in zip(wrapped[0::2], wrapped[1::2]):
            self.assertEqual(("entry", "exit"), (entry["Label"], exit_["Label"]))
            self.assertEqual(flavor, entry["Flavor"])
            self.assertEqual(op_of(entry["X-Trace"]), exit_["Edge"])
            key, other = ("Queries", "Query") if entry["Function"] == "multi_query" else ("Query", "Queries")
            self.assertNotIn(other, entry)
            query = entry.get(key)
            args = entry.get("QueryArgs", exit_.get("QueryArgs"))
            host = exit_.get("RemoteHost")
            found.append((entry["Function"], query.decode() if query is not None else None,
                          list(args.values()) if args is not None else None,
                          host.decode() if isinstance(host, bytes) else host))
        return found


class CliDatabaseTest(DatabaseCalls, unittest.TestCase):
    def run_script(self, name, env, ini=None):
        result, traces, _ = harness.run_cli(harness.CURRENT_PHP, script(name),
                                            dict(harness.database_ini(harness.CURRENT_PHP), **TRACED, **(ini or {})),
                                            env)
        self.assertEqual(b"", result.stderr)
        return result.stdout.decode(), traces.events()

    def test_pdo_calls_on_each_backend_sanitized_and_raw(self):
        with tempfile.TemporaryDirectory() as sqlite_dir:
            for name, env, host in backends(sqlite_dir):
                for sanitize, engine in (("1", "plain"), ("0", "plain"), ("1", "jit")):
                    with self.subTest(backend=name, sanitize=sanitize, engine=engine):
                        out, events = self.run_script("pdo_calls", env,
                                                      dict(ENGINES[engine], **{"corvidine.enable_sanitize_sql": sanitize}))
                        self.assertEqual(PDO_OUTPUT, out)
                        self.assertEqual(expected(PDO_CALLS, host, sanitize == "1"),
                                         self.calls(events, "php_pdo", name))

    def test_mysqli_calls_sanitized_and_raw(self):
        if MARIADB is None:
            self.skipTest("no MariaDB server (mariadb-server)")
        for sanitize in ("1", "0"):
            with self.subTest(sanitize=sanitize):
                out, events = self.run_script("mysqli_calls", mysql_env(), {"corvidine.enable_sanitize_sql": sanitize})
                self.assertEqual(MYSQLI_OUTPUT, out)
                self.assertEqual(expected(MYSQLI_CALLS, "127.0.0.1", sanitize == "1"),
                                 self.calls(events, "php_mysqli", "mysql"))

    def test_switches_turn_families_off(self):
        if MARIADB is None:
            self.skipTest("no MariaDB server (mariadb-server)")
        cases = [("pdo_calls", {"corvidine.enable_wrap_pdo": "0"}, "php_pdo", 0),
                 ("mysqli_calls", {"corvidine.enable_wrap_mysqli": "0"}, "php_mysqli", 7),
                 ("mysqli_calls", {"corvidine.enable_wrap_mysqli_oo": "0"}, "php_mysqli", 10),
                 ("mysqli_calls", {"corvidine.sample_rate": "0"}, "php_mysqli", 0)]
        for name, ini, layer, calls in cases:
            with self.subTest(script=name, ini=ini):
                _, events = self.run_script(name, mysql_env(), ini)
                self.assertEqual(calls, len([e for e in events if e.get("Layer") == layer and e["Label"] == "entry"]))

    def test_same_behaviour_with_and_without_the_agent(self):
        with tempfile.TemporaryDirectory() as sqlite_dir:
            runs = [("pdo_errors", env, name) for name, env, _ in backends(sqlite_dir)]
            if MARIADB is not None:
                runs.append(("mysqli_errors", mysql_env(), "mysql"))
            for (name, env, backend), engine in [(run, engine) for run in runs for engine in ENGINES]:
                ini = dict(harness.database_ini(harness.CURRENT_PHP), **TRACED, **ENGINES[engine], display_errors="1",
                           error_reporting="-1")
                with self.subTest(script=name, backend=backend, engine=engine):
                    plain, _, _ = harness.run_cli(harness.CURRENT_PHP, script(name), ini, env, load_module=False)
                    traced, traces, _ = harness.run_cli(harness.CURRENT_PHP, script(name), ini, env)
                    self.assertIn(b"-- mode", plain.stdout)
                    self.assertEqual((plain.returncode, plain.stdout.decode(), plain.stderr.decode()),
                                     (traced.returncode, traced.stdout.decode(), traced.stderr.decode()))
                    layer = "php_mysqli" if name.startswith("mysqli") else "php_pdo"
                    self.assertTrue([e for e in traces.events() if e.get("Layer") == layer], "no wrapper was active")


class FpmDatabaseTest(DatabaseCalls, ServerCase):
    """The same calls as pages of nginx + php-fpm: one trace per request."""
    SERVER = harness.FpmServer

    @classmethod
    def setUpClass(cls):
        cls.sqlite_dir = tempfile.mkdtemp(prefix="corvidine-it-sqlite-")
        cls.INI = harness.database_ini(harness.CURRENT_PHP)
        cls.ENV = mysql_env() if MARIADB is not None else {}
        cls.ENV["DB_DSN"] = "sqlite:" + os.path.join(cls.sqlite_dir, "app.sqlite")
        super().setUpClass()

    @classmethod
    def tearDownClass(cls):
        super().tearDownClass()
        harness.shutil.rmtree(cls.sqlite_dir, ignore_errors=True)

    def test_pages_trace_their_calls(self):
        pages = [("pdo_calls", "php_pdo", "sqlite", PDO_CALLS, os.path.join(self.sqlite_dir, "app.sqlite"))]
        if MARIADB is not None:
            pages.append(("mysqli_calls", "php_mysqli", "mysql", MYSQLI_CALLS, "127.0.0.1"))
        for name, layer, flavor, calls, host in pages:
            with self.subTest(page=name):
                mark = marker()
                r = self.get("/db.php?script=%s&m=%s" % (name, mark))
                self.assertEqual(200, r.status, r.body)
                entry, _ = self.traced(mark)
                events = self.server.traces.by_task(entry["X-Trace"][2:42])
                self.assertEqual(expected(calls, host, True), self.calls(events, layer, flavor))


if __name__ == "__main__":
    unittest.main()
