# SPDX-License-Identifier: MIT
"""Prints how many tests of a JUnit report passed, failed and were skipped."""

import sys
import xml.etree.ElementTree as ElementTree
from typing import Tuple


def count(path: str) -> Tuple[int, int, int]:
    """A report that is missing or cut short counts as no test at all."""
    try:
        cases = list(ElementTree.parse(path).iter("testcase"))
    except (OSError, ElementTree.ParseError):
        return 0, 0, 0
    failed = skipped = 0
    for case in cases:
        if case.find("failure") is not None or case.find("error") is not None:
            failed += 1
        elif case.find("skipped") is not None or case.get("status") in ("disabled", "notrun"):
            skipped += 1
    return len(cases) - failed - skipped, failed, skipped


if __name__ == "__main__":
    print(*count(sys.argv[1]))
