# SPDX-License-Identifier: MIT
"""The counts in the last line of ./test come from JUnit reports of two kinds."""

import pathlib
import subprocess
import sys

import pytest

SCRIPT = pathlib.Path(__file__).resolve().parents[2] / "scripts" / "count_tests.py"

REPORT = """<testsuites><testsuite name="CTest writes status, pytest what happened">
<testcase name="A.Passes" status="run"/>
<testcase name="A.WasNotBuilt" status="fail"><failure message="Unable to find it"/></testcase>
<testcase name="A.IsDisabled" status="disabled"/>
<testcase name="A.Skips" status="notrun"><skipped message="SKIP_RETURN_CODE=77"/></testcase>
<testcase name="passes"><system-out>text</system-out></testcase>
<testcase name="breaks_in_a_fixture"><error message="failed on setup"/></testcase>
<testcase name="skips"><skipped type="pytest.skip" message="no display"/></testcase>
</testsuite></testsuites>"""


@pytest.mark.parametrize(
    "report, counts", [(REPORT, "2 2 3"), (REPORT[:200], "0 0 0"), ("", "0 0 0")]
)
def test_counts_passed_failed_and_skipped(tmp_path, report, counts):
    path = tmp_path / "report.xml"
    if report:
        path.write_text(report)
    answer = subprocess.check_output([sys.executable, str(SCRIPT), str(path)], text=True)
    assert answer.strip() == counts
