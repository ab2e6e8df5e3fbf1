# SPDX-License-Identifier: MIT
"""What holds of the source tree as a whole."""

import importlib.metadata
import pathlib
import re

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
FOLDERS = ("src", "python", "tests", "benchmarks", "examples", "scripts", "cmake")
SUFFIXES = (".h", ".cpp", ".in", ".py", ".pyi", ".cmake", ".sh", ".txt")


def sources(folders=FOLDERS, suffixes=SUFFIXES):
    found = [
        path for folder in folders for path in (ROOT / folder).rglob("*") if path.suffix in suffixes
    ]
    assert found
    return found


def test_installed_version_is_the_one_in_pyproject():
    declared = re.search(r'^version = "(.+)"$', (ROOT / "pyproject.toml").read_text(), re.MULTILINE)
    assert importlib.metadata.version("Quenloft") == declared.group(1)


def test_every_source_names_its_licence_at_the_top():
    unnamed = [
        str(path.relative_to(ROOT))
        for path in sources()
        if "SPDX-License-Identifier: MIT" not in "".join(path.read_text().splitlines()[:2])
    ]
    assert unnamed == []


# A file that includes the template's definitions instantiates them again: minutes of compile
# time, and two places that decide how a dimension is compiled.
@pytest.mark.parametrize(
    "pattern, allowed",
    [
        (r'#include "solver/impl/\w+_impl\.h"', r"(_impl\.h|solver_dimension\.cpp\.in)$"),
        (r"#include <(Python|structmember)\.h>", r"^src/(module|testfunctions)/"),
        (r'#include "module/', r"^src/(module|testfunctions)/"),
    ],
    ids=["template definitions", "interpreter", "module"],
)
def test_included_only_where_it_belongs(pattern, allowed):
    including = [
        str(path.relative_to(ROOT))
        for path in sources(("src", "tests", "benchmarks"), (".h", ".cpp", ".in"))
        if re.search(pattern, path.read_text())
    ]
    assert [path for path in including if not re.search(allowed, path)] == []
