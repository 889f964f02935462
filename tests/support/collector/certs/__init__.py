"""Moved to tools/collector/certs.py; this keeps imports from tests/support/collector working."""
import os, sys  # noqa: E401
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "..", "..", "tools", "collector"))
del sys.modules[__name__]
import certs  # noqa: E402,F401  (the tool's module replaces this package)
