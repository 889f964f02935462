"""A sample of php-src's own .phpt run without the extension and with it tracing: each must end the same way."""
import glob
import os
import re
import shutil
import subprocess
import tempfile
import unittest

import harness

# tools/php-zts/build.sh's source tree, else one apt-get source fetches (PHP_SRC names another).
SRC_CACHES = ["/opt/corvidine/src/php8.2-zts", "/opt/corvidine/src/php8.2-tests"]
SAMPLE = ["tests/basic", "tests/lang", "tests/output", "tests/func", "Zend/tests/globals_00*.phpt",
          "ext/opcache/tests/preload*.phpt", "ext/standard/tests/general_functions/getopt*.phpt"]
# Files some of the sample include from elsewhere.
HELPERS = ["sapi/cli/tests/skipif.inc", "sapi/cli/tests/php_cli_server.inc"]
RESULT = re.compile(r"(PASS|FAIL|SKIP|BORK|WARN|LEAK|XFAIL|XLEAK) .*?\[([^\[\]\s]+\.phpt)\]", re.S)


def php_source():
    def trees():
        found = sorted((t for c in SRC_CACHES for t in glob.glob(c + "/php8.2-8.2.*")), reverse=True)
        return [t for t in [os.environ.get("PHP_SRC", "")] + found if os.path.isfile(os.path.join(t, "run-tests.php"))]
    if not trees():
        os.makedirs(SRC_CACHES[1], exist_ok=True)
        subprocess.run(["apt-get", "source", "-q", "php8.2"], cwd=SRC_CACHES[1], capture_output=True)
    return (trees() or [None])[0]


def copy_sample(src, target):
    """The sample and the files beside it in a tree of its own (run-tests.php writes beside each test)."""
    tests = [p for pattern in SAMPLE for p in sorted(glob.glob(os.path.join(src, pattern)))]
    tests = [os.path.join(d, f) for t in tests for d, _, fs in (os.walk(t) if os.path.isdir(t) else [("", 0, [t])])
             for f in fs if f.endswith(".phpt")]
    for directory in set(os.path.dirname(t) for t in tests):
        shutil.copytree(directory, os.path.join(target, os.path.relpath(directory, src)), dirs_exist_ok=True,
                        ignore=lambda d, names: [n for n in names if os.path.isdir(os.path.join(d, n))])
    for name in HELPERS + ["run-tests.php"]:
        os.makedirs(os.path.dirname(os.path.join(target, name)), exist_ok=True)
        shutil.copy(os.path.join(src, name), os.path.join(target, name))
    return [os.path.relpath(t, src) for t in tests]


class PhpTestSuite(unittest.TestCase):
    def run_suite(self, tree, tests, extra, env):
        php = harness.CURRENT_PHP.cli
        result = subprocess.run([php, "-n", "run-tests.php", "-p", php, "-n", "-q", "--offline", "--no-color", "-j2"] +
                                extra + tests, cwd=tree, env=env, capture_output=True, timeout=900)
        output = result.stdout.decode(errors="replace")
        outcomes = dict((name, outcome) for outcome, name in RESULT.findall(output))
        self.assertEqual(sorted(tests), sorted(outcomes), output[-3000:])  # every test ran and ended
        return outcomes

    def test_php_tests_end_alike_with_the_agent(self):
        src = php_source()
        if src is None:
            self.skipTest("no php8.2 source tree: apt-get source php8.2 failed (run tools/php-zts/build.sh)")
        work = tempfile.mkdtemp(prefix="corvidine-it-phpt-")
        self.addCleanup(shutil.rmtree, work, True)
        traces = harness.Traces(work)
        env = dict(os.environ, CORVIDINE_REPORTER="file", CORVIDINE_COLLECTOR=traces.prefix)
        tree = os.path.join(work, "php-src")
        tests = copy_sample(src, tree)
        agent = ["-d", "extension=" + os.path.abspath(harness.CURRENT_PHP.module), "-d", "corvidine.enable_cli=1",
                 "-d", "corvidine.max_ready_wait_time=-1"]
        without, with_agent = self.run_suite(tree, tests, [], env), self.run_suite(tree, tests, agent, env)
        self.assertGreater(list(without.values()).count("PASS"), 200, without)
        changed = sorted(n for n in set(without) | set(with_agent) if without.get(n) != with_agent.get(n))
        if changed:  # run once more both ways: a loaded machine may fail a test by its time limit
            without, with_agent = self.run_suite(tree, changed, [], env), self.run_suite(tree, changed, agent, env)
        self.maxDiff = None
        self.assertEqual({}, {n: (without.get(n), with_agent.get(n)) for n in changed
                              if without.get(n) != with_agent.get(n)})
        # The agent did run, and traced.
        self.assertGreater(len([e for e in traces.events() if e["Label"] == "entry"]), 200)
