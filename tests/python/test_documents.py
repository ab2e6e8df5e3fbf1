# SPDX-License-Identifier: MIT
#
# Every example in README.md and docs/ is run, one test for each document, its blocks in order:
#
#   ```python    runs; all blocks of a document share one namespace.
#   any          whose first line, after a shell's #!, is a comment that names a file ("# model.py",
#                "// sim.c: ...") is written to that file instead.
#   ```console   runs each line after "$ " with the shell, this interpreter first on its path.
#   ```text      right after one of these two: what it printed. "..." stands for any text.
#   ```sh        is not run: it changes the machine (installation and the like).
#
# Output shown in a console block below its commands is compared as well. A document starts in an
# empty directory, and its prose says what a block needs: there is no hidden set-up.
#
# So are the examples in docstrings.
#
# The complete programs in examples/ are run too. Each compares itself with a published figure and
# ends non-zero when it misses.
import contextlib
import doctest
import importlib
import io
import os
import pathlib
import pkgutil
import re
import subprocess
import sys
from typing import NamedTuple

import pytest

import Quenloft

ROOT = pathlib.Path(__file__).resolve().parents[2]
DOCUMENTS = [ROOT / "README.md", *sorted((ROOT / "docs").glob("*.md"))]
EXAMPLES = sorted((ROOT / "examples").glob("*.py"))

# Documents and programs that take more than a few seconds.
SLOW = {"svm.py", "plots.md", "long-runs.md"}


class Block(NamedTuple):
    language: str
    line: int  # of the first line inside the block
    text: str


def blocks_of(text):
    for match in re.finditer(r"^```([\w-]+)\n(.*?)^```$", text, re.MULTILINE | re.DOTALL):
        yield Block(match[1], text.count("\n", 0, match.start(2)) + 1, match[2])


def assert_output(expected, printed, place):
    # The width of columns may depend on the length of a number that is not shown.
    shown, real = (re.sub(r"[ \t]+", " ", text.strip()) for text in (expected, printed))
    pattern = r"(?s:.*)".join(map(re.escape, shown.split("...")))
    message = f"{place}: the document shows\n{expected}\nbut this was printed:\n{printed}"
    assert re.fullmatch(pattern, real), message


def run_python(block, namespace, path):
    # The empty lines make tracebacks name the line of the document.
    code = compile("\n" * (block.line - 1) + block.text, str(path), "exec")
    with contextlib.redirect_stdout(io.StringIO()) as printed:
        exec(code, namespace)
    return printed.getvalue()


def commands_of(block):
    """The commands of a console block, each with the output shown below it."""
    before, *parts = re.split(r"^\$ ", block.text, flags=re.MULTILINE)
    assert not before.strip(), "a console block starts with '$ '"
    return [re.sub(r"\\\n\s*> ?", " ", part).split("\n", 1) for part in parts]


def run(command, **options):
    return subprocess.run(
        command, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=600, **options
    )


def run_command(command, place):
    path = f"{pathlib.Path(sys.executable).parent}{os.pathsep}{os.environ['PATH']}"
    done = run(command, shell=True, env={**os.environ, "COLUMNS": "100", "PATH": path})
    assert done.returncode == 0 or "echo $?" in command, f"{place}: {command}\n{done.stdout}"
    return done.stdout


def each(paths):
    return pytest.mark.parametrize(
        "path",
        [pytest.param(p, id=p.name, marks=[pytest.mark.slow] * (p.name in SLOW)) for p in paths],
    )


@each(DOCUMENTS)
def test_document_examples_do_what_the_document_shows(path, tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    monkeypatch.syspath_prepend(str(tmp_path))
    monkeypatch.setenv("MPLBACKEND", "Agg")
    namespace = {"__name__": "__main__"}
    printed = None  # by the block just before, if that ran
    for block in blocks_of(path.read_text(encoding="utf-8")):
        place = f"{path.name}:{block.line}"
        file = re.match(r"(?:#!.*\n)?(?:#|//) ([\w-]+)(\.\w+)(?::|\n)", block.text)
        if file:
            pathlib.Path(file[1] + file[2]).write_text(block.text, encoding="utf-8")
            sys.modules.pop(file[1], None)  # another document's
            printed = None
        elif block.language == "python":
            printed = run_python(block, namespace, path)
        elif block.language == "console":
            for command, expected in commands_of(block):
                printed = run_command(command, place)
                if expected.strip():
                    assert_output(expected, printed, place)
        elif block.language == "text" and printed is not None:
            assert_output(block.text, printed, place)
            printed = None
    if "matplotlib.pyplot" in sys.modules:
        sys.modules["matplotlib.pyplot"].close("all")


# Their anchors are checked where the site is built.
@pytest.mark.parametrize("path", DOCUMENTS, ids=lambda path: path.name)
def test_links_between_documents_lead_somewhere(path):
    text = re.sub(r"```.*?```", "", path.read_text(encoding="utf-8"), flags=re.DOTALL)
    files = re.findall(r"\]\(([^)\s#:]+)(?:#[^)\s:]+)?\)", text)
    assert [file for file in files if not (path.parent / file).exists()] == []


def test_docstring_examples_do_what_they_show():
    names = {module.name for module in pkgutil.iter_modules(Quenloft.__path__)} - {"__main__"}
    outcomes = [doctest.testmod(importlib.import_module(f"Quenloft.{name}")) for name in names]
    assert sum(outcome.attempted for outcome in outcomes) > 0
    assert sum(outcome.failed for outcome in outcomes) == 0


@each(EXAMPLES)
def test_example_reaches_its_published_figure(path, tmp_path):
    done = run([sys.executable, str(path)], cwd=tmp_path)
    assert done.returncode == 0, done.stdout
    assert "published" in done.stdout.lower(), done.stdout
