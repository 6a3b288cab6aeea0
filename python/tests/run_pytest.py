"""Runs pytest on the given files; a run that collects no test is a failure."""

import sys

import pytest

NO_TESTS_COLLECTED = 5

if __name__ == "__main__":
    # distributed starts tornado loops in a way tornado 6.2 deprecates; nothing of ours.
    quiet = ["-W", "ignore:make_current is deprecated:DeprecationWarning"]
    code = pytest.main(["-q", "-p", "no:cacheprovider", *quiet, *sys.argv[1:]])
    sys.exit(1 if code == NO_TESTS_COLLECTED else int(code))
