# SPDX-License-Identifier: MIT
"""What holds of the source tree as a whole."""

import importlib.metadata
import pathlib
import re

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]


def test_installed_version_is_the_one_in_pyproject():
    declared = re.search(r'^version = "(.+)"$', (ROOT / "pyproject.toml").read_text(), re.MULTILINE)
    assert importlib.metadata.version("Quenloft") == declared.group(1)


def test_every_dependency_has_its_version_in_the_constraints():
    lines = (ROOT / "scripts/constraints.txt").read_text().splitlines()
    known = {line.split("==")[0] for line in lines}
    named = [
        re.match(r"[\w-]+", entry).group() for entry in importlib.metadata.requires("Quenloft")
    ]
    assert named
    assert [name for name in named if name not in known] == []


# A file that includes the template's definitions instantiates them again: minutes of compile
# time, and two places that decide how a dimension is compiled.
@pytest.mark.parametrize(
    "pattern, allowed",
    [
        (r'#include "solver/impl/\w+_impl\.h"', r"(_impl\.h|solver_dimension\.cpp\.in)$"),
        (r"#include <(Python|structmember)\.h>", r"^src/(module|testfunctions)/"),
        (r'#include "module/', r"^src/(module|testfunctions)/"),
        (r"#include <nanobind", r"^src/binding/"),
    ],
    ids=["template definitions", "interpreter", "module", "binding"],
)
def test_included_only_where_it_belongs(pattern, allowed):
    sources = [path for folder in ("src", "tests") for path in (ROOT / folder).rglob("*.*")]
    including = [
        str(path.relative_to(ROOT))
        for path in sources
        if path.suffix in (".h", ".cpp", ".in") and re.search(pattern, path.read_text())
    ]
    assert including
    assert [path for path in including if not re.search(allowed, path)] == []
