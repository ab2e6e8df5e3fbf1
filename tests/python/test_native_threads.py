# SPDX-License-Identifier: MIT
"""Threads are had by asking, and a forked process does without them."""

import os
import shutil
import subprocess
import sys
import textwrap

import pytest

SEARCH = """
from _Quenloft import Problem

def search():
    def target(x):
        return sum((v - 0.3) ** 2 * (k + 1) for k, v in enumerate(x))
    Problem(bounds=[-1, 1.5] * 8, target=target).Minimize(stop_tests=150)

def threads():
    return len(os.listdir("/proc/self/task"))
"""


def run(script, threads=None):
    environment = {k: v for k, v in os.environ.items() if k != "OMP_NUM_THREADS"}
    if threads is not None:
        environment["OMP_NUM_THREADS"] = threads
    code = "import ctypes, os, signal\n" + SEARCH + textwrap.dedent(script)
    command = [sys.executable, "-c", code]
    done = subprocess.run(command, env=environment, timeout=60, stdout=subprocess.PIPE, text=True)
    assert done.returncode == 0
    return done.stdout.split()


@pytest.mark.skipif(not os.path.isdir("/proc/self/task"), reason="needs Linux's /proc")
def test_searches_have_one_thread_unless_more_are_asked_for():
    script = """
        before = threads()
        search()
        print(threads() - before)
    """
    assert run(script) == ["0"]
    assert run(script, "nonsense") == ["0"]
    assert run(script, "2,1") == ["1"]


@pytest.mark.skipif(not hasattr(os, "fork"), reason="needs fork")
@pytest.mark.skipif(shutil.which("g++") is None, reason="needs g++")
def test_forked_processes_search_where_another_library_had_a_team(tmp_path):
    """The other library's threads are not there after the fork; the runtime waits for them."""
    source, library = tmp_path / "other.cpp", tmp_path / "other.so"
    source.write_text(
        'extern "C" int team() {\n'
        "  int threads = 0;\n"
        "#pragma omp parallel num_threads(2) reduction(+ : threads)\n"
        "  ++threads;\n"
        "  return threads;\n"
        "}\n"
    )
    build = ["g++", "-shared", "-fPIC", "-fopenmp", str(source), "-o", str(library)]
    subprocess.run(build, check=True)
    script = f"""
        other = ctypes.CDLL({str(library)!r})
        assert other.team() == 2
        child = os.fork()
        if child == 0:
            signal.alarm(30)  # it would hang
            search()
            os._exit(7)
        print(os.waitpid(child, 0)[1])
    """
    assert run(script, "2") == [str(7 << 8)]
