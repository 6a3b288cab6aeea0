"""Runs pytest on the given files; a run that collects no test is a failure."""

import sys

import pytest

NO_TESTS_COLLECTED = 5

if __name__ == "__main__":
    code = pytest.main(["-q", "-p", "no:cacheprovider", *sys.argv[1:]])
    sys.exit(1 if code == NO_TESTS_COLLECTED else int(code))
