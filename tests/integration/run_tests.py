"""Runs the integration tests for one PHP build and prints
"integration: N passed, M failed" last.

    /usr/bin/python3 run_tests.py nts|zts MODULE [TEST-NAME-PATTERN...]
"""
import os
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import harness  # noqa: E402


class CountingResult(unittest.TextTestResult):
    """Counts subtests one by one, so that one failing case of a table is
    one failure and the others still count as passed."""

    def __init__(self, *args, **kwargs):
        super().__init__(*args, **kwargs)
        self.passed = 0
        self.failed_count = 0

    def addSuccess(self, test):
        super().addSuccess(test)
        self.passed += 1

    def addFailure(self, test, err):
        super().addFailure(test, err)
        self.failed_count += 1

    def addError(self, test, err):
        super().addError(test, err)
        self.failed_count += 1

    def addSubTest(self, test, subtest, err):
        super().addSubTest(test, subtest, err)
        if err is None:
            self.passed += 1
        else:
            self.failed_count += 1


def main(argv):
    if len(argv) < 3:
        print(__doc__, file=sys.stderr)
        return 2
    harness.CURRENT_PHP = harness.Php(argv[1], argv[2])
    patterns = argv[3:]
    loader = unittest.TestLoader()
    if patterns:
        loader.testNamePatterns = ["*%s*" % p for p in patterns]
    suite = loader.discover(os.path.dirname(os.path.abspath(__file__)), pattern="test_*.py")
    runner = unittest.TextTestRunner(verbosity=2, resultclass=CountingResult, stream=sys.stdout)
    result = runner.run(suite)
    if result.skipped:
        print("skipped: %s" % "; ".join("%s (%s)" % (t.id(), why) for t, why in result.skipped))
    print("integration: %d passed, %d failed" % (result.passed, result.failed_count))
    return 0 if result.failed_count == 0 else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv))
