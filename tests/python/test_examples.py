# SPDX-License-Identifier: MIT
"""The examples run as a user runs them, and notice when they miss their goal."""

import pathlib
import subprocess
import sys

import pytest

EXAMPLES = pathlib.Path(__file__).resolve().parents[2] / "examples"


def run(name, *arguments):
    return subprocess.run(
        [sys.executable, str(EXAMPLES / name), *arguments], capture_output=True, text=True
    )


def test_enzyme_reaches_the_published_fit():
    outcome = run("enzyme.py")
    assert outcome.returncode == 0, outcome.stdout + outcome.stderr
    assert outcome.stderr == ""


@pytest.mark.parametrize("evaluations", ["1", "12"])
def test_enzyme_fails_when_the_fit_is_missed(evaluations):
    outcome = run("enzyme.py", "--evaluations", evaluations)
    assert outcome.returncode == 1, outcome.stdout + outcome.stderr
    assert "FAILED" in outcome.stdout
