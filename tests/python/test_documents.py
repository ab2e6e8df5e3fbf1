# SPDX-License-Identifier: MIT
#
# Every example in README.md and docs/ is run, one test for each document, its blocks in order:
#
#   ```python    runs; all blocks of a document share one namespace. A block whose first line is a
#                comment that names a file ("# model.py") is written to that file instead.
#   ```console   runs each line after "$ " with the shell, this interpreter first on its path.
#   ```text      right after one of these two: what it printed. "..." stands for any text.
#   ```sh        is not run: it changes the machine (installation and the like).
#
# Output shown in a console block below its commands is compared as well. A document starts in an
# empty directory, and its prose says what a block needs: there is no hidden set-up.
#
# So are the examples in docstrings.
#
# The complete programs in examples/ are run too (but one, see test_examples.py). Each compares itself
# with a published figure and ends non-zero when it misses.
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
from typing import Any, Dict, Iterable, Iterator, List, NamedTuple, Optional, Tuple

import pytest

import Quenloft

ROOT = pathlib.Path(__file__).resolve().parents[2]
DOCUMENTS = [ROOT / "README.md", *sorted((ROOT / "docs").glob("*.md"))]
EXAMPLES = sorted(set((ROOT / "examples").glob("*.py")) - {ROOT / "examples" / "enzyme.py"})

# Documents and programs that take more than a few seconds.
SLOW = {"svm.py", "plots.md", "long-runs.md"}
# What an example needs beyond the package.
NEEDS = {
    "svm.py": ["sklearn"],
    "plots.md": ["matplotlib"],
    "results.md": ["numpy"],
    "long-runs.md": ["distributed"],
    "from-scipy-and-nlopt.md": ["scipy"],
}


class Block(NamedTuple):
    language: str
    line: int  # of the first line inside the block
    text: str


def blocks_of(text: str) -> Iterator[Block]:
    for match in re.finditer(r"^```([\w-]+)\n(.*?)^```$", text, re.MULTILINE | re.DOTALL):
        yield Block(match[1], text.count("\n", 0, match.start(2)) + 1, match[2])


def assert_output(expected: str, printed: str, place: str) -> None:
    # The width of columns may depend on the length of a number that is not shown.
    shown, real = (re.sub(r"[ \t]+", " ", text.strip()) for text in (expected, printed))
    pattern = r"(?s:.*)".join(re.escape(part) for part in shown.split("..."))
    assert re.fullmatch(pattern, real), (
        f"{place}: the document shows\n{expected}\nbut this was printed:\n{printed}"
    )


def run_python(block: Block, namespace: Dict[str, Any], path: pathlib.Path) -> str:
    # The empty lines make tracebacks name the line of the document.
    code = compile("\n" * (block.line - 1) + block.text, str(path), "exec")
    with contextlib.redirect_stdout(io.StringIO()) as printed:
        exec(code, namespace)
    return printed.getvalue()


def commands_of(block: Block) -> List[Tuple[str, str]]:
    """The commands of a console block, each with the output shown below it."""
    parts = re.split(r"^\$ ", block.text, flags=re.MULTILINE)
    assert not parts[0].strip(), "a console block starts with '$ '"
    joined = [re.sub(r"\\\n\s*> ?", " ", part) for part in parts[1:]]
    return [(part.split("\n", 1)[0], part.split("\n", 1)[1]) for part in joined]


def run_command(command: str, place: str) -> str:
    environment = dict(os.environ, COLUMNS="100")
    environment["PATH"] = f"{pathlib.Path(sys.executable).parent}{os.pathsep}{os.environ['PATH']}"
    done = subprocess.run(
        command, shell=True, env=environment, text=True, stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT, timeout=300,
    )
    shown_status = re.search(r"echo \$\?", command)
    assert done.returncode == 0 or shown_status, f"{place}: {command}\n{done.stdout}"
    return done.stdout


def cases(paths: Iterable[pathlib.Path]) -> List[Any]:
    slow = pytest.mark.slow
    return [
        pytest.param(path, id=path.name, marks=slow if path.name in SLOW else ()) for path in paths
    ]


@pytest.mark.parametrize("path", cases(DOCUMENTS))
def test_document_examples_do_what_the_document_shows(path, tmp_path, monkeypatch):
    for module in NEEDS.get(path.name, ()):
        pytest.importorskip(module)
    monkeypatch.chdir(tmp_path)
    monkeypatch.syspath_prepend(str(tmp_path))
    monkeypatch.setenv("MPLBACKEND", "Agg")
    known = set(sys.modules)
    namespace: Dict[str, Any] = {"__name__": "__main__"}
    printed: Optional[str] = None  # by the block just before, if that ran
    try:
        for block in blocks_of(path.read_text(encoding="utf-8")):
            place = f"{path.name}:{block.line}"
            if block.language == "python":
                file = re.match(r"# ([\w-]+\.py)\n", block.text)
                if file:
                    (tmp_path / file[1]).write_text(block.text, encoding="utf-8")
                    printed = None
                else:
                    printed = run_python(block, namespace, path)
            elif block.language == "console":
                for command, expected in commands_of(block):
                    printed = run_command(command, place)
                    if expected.strip():
                        assert_output(expected, printed, place)
            elif block.language == "text" and printed is not None:
                assert_output(block.text, printed, place)
                printed = None
    finally:
        if "matplotlib.pyplot" in sys.modules:
            sys.modules["matplotlib.pyplot"].close("all")
        for name in set(sys.modules) - known:  # a model.py of one document is not another's
            origin = getattr(sys.modules[name], "__file__", None) or ""
            if origin.startswith(str(tmp_path)):
                del sys.modules[name]


def test_links_between_documents_lead_somewhere():
    broken = []
    for path in DOCUMENTS:
        text = re.sub(r"```.*?```", "", path.read_text(encoding="utf-8"), flags=re.DOTALL)
        for target in re.findall(r"\]\(([^)\s]+)\)", text):
            file, _, anchor = target.partition("#")
            if ":" in file:
                continue
            other = (path.parent / file) if file else path
            if not other.exists():
                broken.append(f"{path.name}: {target}")
            elif anchor:
                headings = re.findall(r"^#+ (.*)$", other.read_text(encoding="utf-8"), re.MULTILINE)
                slugs = {re.sub(r"[^\w\- ]", "", h.lower()).replace(" ", "-") for h in headings}
                if anchor not in slugs:
                    broken.append(f"{path.name}: {target}")
    assert not broken


def test_docstring_examples_do_what_they_show():
    modules = [
        importlib.import_module(f"Quenloft.{module.name}")
        for module in pkgutil.iter_modules(Quenloft.__path__)
        if module.name != "__main__"
    ]
    outcomes = [doctest.testmod(module) for module in modules]
    assert sum(outcome.attempted for outcome in outcomes) > 0
    assert sum(outcome.failed for outcome in outcomes) == 0


@pytest.mark.parametrize("path", cases(EXAMPLES))
def test_example_reaches_its_published_figure(path, tmp_path):
    for module in NEEDS.get(path.name, ()):
        pytest.importorskip(module)
    done = subprocess.run(
        [sys.executable, str(path)], cwd=tmp_path, text=True, stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT, timeout=600,
    )
    assert done.returncode == 0, done.stdout
    assert "published" in done.stdout.lower(), done.stdout
