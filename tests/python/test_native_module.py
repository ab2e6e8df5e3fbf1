# SPDX-License-Identifier: MIT
"""The native module and its types as the interpreter sees them."""

import copy
import importlib.util
import shutil
import subprocess
import sys

import pytest

import _Quenloft

TYPES = {
    "Test": "Test",
    "Result": "Search result",
    "Problem": "Problem.",
    "TestFunction": "Girshagin function.",
    "TestFunction2": "GKLS function.",
}


def test_module_has_five_types_and_nothing_else():
    assert (_Quenloft.__name__, _Quenloft.__doc__) == ("Quenloft", "Minimizer.")
    assert {name for name in vars(_Quenloft) if not name.startswith("__")} == set(TYPES)
    for name, doc in TYPES.items():
        kind = getattr(_Quenloft, name)
        assert (kind.__module__, kind.__name__, kind.__doc__) == ("Quenloft", name, doc)


def test_both_names_import_the_same_types(monkeypatch):
    # Loading it takes the package's place; the next test shall find that again.
    monkeypatch.setitem(sys.modules, "Quenloft", None)
    spec = importlib.util.spec_from_file_location("Quenloft", _Quenloft.__file__)
    other = importlib.util.module_from_spec(spec)
    assert all(getattr(other, name) is getattr(_Quenloft, name) for name in TYPES)


@pytest.mark.skipif(shutil.which("nm") is None, reason="needs nm")
def test_nothing_but_the_two_entry_points_is_exported():
    command = ["nm", "-D", "--defined-only", "--format=posix", _Quenloft.__file__]
    symbols = subprocess.run(command, check=True, capture_output=True, text=True).stdout
    exported = {line.split()[0] for line in symbols.splitlines()}
    assert exported == {"PyInit_Quenloft", "PyInit__Quenloft"}


def test_results_are_read_only_and_made_by_the_module_only():
    result = _Quenloft.Problem(bounds=[0, 1], target=sum).Minimize(stop_tests=1)
    for record, members in [
        (result, ("seconds", "tests", "minimum", "locals", "other")),
        (result.minimum, ("index", "value", "coordinate", "categorical", "radius")),
    ]:
        assert repr(record).startswith(f"<Quenloft.{type(record).__name__} object at ")
        for member in members:
            with pytest.raises(AttributeError):
                setattr(record, member, 1)
        for make in copy.copy, type(record), lambda r: object.__new__(type(r)):
            with pytest.raises(TypeError):
                make(record)
