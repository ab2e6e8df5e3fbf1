# SPDX-License-Identifier: MIT
"""The counts in the last line of ./test come from JUnit reports of two kinds."""

import pathlib
import subprocess
import sys

import pytest

SCRIPT = pathlib.Path(__file__).resolve().parents[2] / "scripts" / "count_tests.py"

CTEST = """<testsuite name="all" tests="4" failures="1">
<testcase name="A.Passes" status="run"/>
<testcase name="A.WasNotBuilt" status="fail"><failure message="Unable to find executable"/></testcase>
<testcase name="A.IsDisabled" status="disabled"/>
<testcase name="A.Skips" status="notrun"><skipped message="SKIP_RETURN_CODE=77"/></testcase>
</testsuite>"""
PYTEST = """<testsuites><testsuite name="pytest" tests="3">
<testcase name="passes"><system-out>text</system-out></testcase>
<testcase name="breaks_in_a_fixture"><error message="failed on setup"/></testcase>
<testcase name="skips"><skipped type="pytest.skip" message="no display"/></testcase>
</testsuite></testsuites>"""


@pytest.mark.parametrize(
    "report, counts", [(CTEST, "1 1 2"), (PYTEST, "1 1 1"), (PYTEST[:200], "0 0 0"), ("", "0 0 0")]
)
def test_counts_passed_failed_and_skipped(tmp_path, report, counts):
    path = tmp_path / "report.xml"
    if report:
        path.write_text(report)
    answer = subprocess.run([sys.executable, str(SCRIPT), str(path)], capture_output=True, text=True)
    assert answer.stdout.strip() == counts
