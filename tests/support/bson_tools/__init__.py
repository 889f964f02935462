"""Moved to tools/bson_tools.py; this keeps imports from tests/support working."""
import os, sys  # noqa: E401
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "..", "tools"))
del sys.modules[__name__]
import bson_tools  # noqa: E402,F401  (the tool's module replaces this package)
