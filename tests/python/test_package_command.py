# SPDX-License-Identifier: MIT
"""Programs as objectives: what they are given, what is read of them, and how they end."""

import math
import os
import pickle
import signal
import subprocess
import sys

import pytest

import Quenloft
from processes import is_running, wait_until
from Quenloft import Command, CommandError

SIMULATOR = """#!/bin/sh
echo "run $1 $2" >> "$LOG"
case $2 in
  9) echo "out of memory" >&2; exit 3 ;;
  8) sleep 60 & echo $! > "$LOG.child"; sleep 60 ;;
  7) echo "no convergence" ;;
  6) kill -KILL $$ ;;
  *) echo "step 1 drag = 99"; echo "drag = 1.5D-01 stress = 2$2"; cat input.txt extra.dat 2>/dev/null; true ;;
esac
"""


@pytest.fixture
def folder(tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    monkeypatch.setenv("LOG", str(tmp_path / "log"))
    (tmp_path / "sim.sh").write_text(SIMULATOR)
    (tmp_path / "sim.sh").chmod(0o755)
    return tmp_path


def test_values_reach_the_command_and_its_templates(folder):
    (folder / "in.tpl").write_text("rate={rate:.3e} {n} { keep {this} }")
    (folder / "extra.dat").write_text("mesh")
    command = Command(
        "./sim.sh {rate} {n} {kind}", objective=r"^(\d+)mesh", templates={"in.tpl": "input.txt"},
        files=["extra.dat"], names=["rate", "n", "kind"], directory="runs", keep="always",
    )  # fmt: skip
    with pytest.raises(CommandError, match=r"no match .* in rate=1.000e-01 3 { keep {this} }mesh"):
        command((0.1, 3), ("a b",))
    (run,) = (folder / "runs").iterdir()
    assert (run / "input.txt").read_text() == "rate=1.000e-01 3 { keep {this} }"
    assert (folder / "log").read_text() == "run 0.1 3\n"
    # By position, and in the form of a mapping.
    assert Command("echo {1} {0}")((2.5, 4)) == 2.5
    assert Command(["echo", "{a}"])({"a": 1e-300}) == 1e-300


@pytest.mark.parametrize(
    "written, options, value",
    [
        ("a 1 b 2.5e3 end v3", {}, 2500.0),
        ("residual 1e-5 drag nan", {}, math.nan),
        ("drag = 1\ndrag = 2\nother = 3", {"objective": r"^drag = (\S+)"}, 2.0),
        ("1,5", {"objective": r"(\S+)"}, None),
        ('{"a": {"b": [1, 2.5]}}', {"objective": "a.b.1", "output": "o.json"}, 2.5),
        ('{"a": null}', {"objective": "a", "output": "o.json"}, None),
        ("{", {"objective": "a", "output": "o.json"}, None),
        ("7", {"output": "other.txt"}, None),
    ],
)
def test_the_number_is_found_where_it_is_said_to_be(folder, written, options, value):
    (folder / "written").write_text(written)
    target = "> o.json" if options.get("output") == "o.json" else ""
    command = Command(["sh", "-c", f"cat written {target}"], files=["written"], **options)
    if value is None:
        with pytest.raises(CommandError) as caught:
            command((1.0,))
        assert caught.value.kind == "output"
    else:
        assert command((1.0,)) == pytest.approx(value, nan_ok=True)


def test_constraints_come_from_the_run_of_the_objective(folder):
    command = Command(
        "./sim.sh {0} {1}",
        objective=r"drag = (\S+)",
        constraints=[r"stress = (\d+) <= 24", r"stress = (\d+) >= 21", r"(?<=stress = )(\d+)"],
    )
    stress, _lower, _plain = command.constraints
    assert [command((1.0, n)) for n in (3, 3)] == [0.15, 0.15]
    assert [c((1.0, 3)) for c in command.constraints] == [-1.0, -2.0, 23.0]
    assert stress((1.0, 5)) == 1.0 and command((1.0, 5)) == 0.15
    assert (folder / "log").read_text() == "run 1.0 3\nrun 1.0 5\n"
    twin, (again, *_) = pickle.loads(pickle.dumps((command, command.constraints)))
    assert (again((1.0, 4)), twin((1.0, 4)), again.command is twin) == (0.0, 0.15, True)
    result = Quenloft.minimize(command, [(0, 1), (1, 5, "int")], constraints=stress, maxfun=12)
    assert result.success and result.x[1] <= 4 and result.nit == 12


@pytest.mark.parametrize(
    "case, kind, message",
    [
        (9, "exit", "sim.sh 1.0 9 ended with exit code 3: out of memory"),
        (8, "timeout", "sim.sh 1.0 8 took longer than 0.5 s"),
        (7, "output", r"no match of .* in no convergence"),
        (6, "exit", "ended with signal SIGKILL"),
    ],
)
def test_a_failure_is_an_error_or_a_failed_point(folder, case, kind, message):
    options = {"objective": r"drag = (\S+)", "timeout": 0.5, "directory": "runs"}
    command = Command("./sim.sh {0} {1}", keep="failed", **options)
    with pytest.raises(CommandError, match=message) as caught:
        command((1.0, case))
    error = pickle.loads(pickle.dumps(caught.value))
    assert vars(error) == vars(caught.value) and str(error) == str(caught.value)
    assert error.kind == kind and os.path.exists(os.path.join(error.directory, "stdout.txt"))
    tolerant = Command("./sim.sh {0} {1}", tolerate=True, **options)
    assert math.isnan(tolerant((1.0, case))) and tolerant((1.0, 1)) == 0.15
    assert len(list((folder / "runs").iterdir())) == 1
    if kind == "timeout":
        pid = int((folder / "log.child").read_text())
        wait_until(lambda: not is_running(pid))


@pytest.mark.parametrize("end", [signal.SIGKILL, signal.SIGINT, signal.SIGTERM])
def test_what_it_started_ends_with_the_searching_process(folder, end):
    program = "import Quenloft; Quenloft.Command('./sim.sh {0} {1}', directory='runs')((1.0, 8))"
    process = subprocess.Popen([sys.executable, "-c", program], stderr=subprocess.DEVNULL)
    child = folder / "log.child"
    wait_until(lambda: child.exists() and child.read_text())
    process.send_signal(end)
    assert process.wait(20) != 0
    pid = int(child.read_text())
    wait_until(lambda: not is_running(pid) and not os.listdir(folder / "runs"))


@pytest.mark.parametrize(
    "command, options, message",
    [
        ("", {}, "command is empty"),
        ("sim {rate}", {"names": ["rate", "n"]}, "n is neither in the command nor in a template"),
        ("sim", {"objective": "drag"}, "must hold one group"),
        ("sim", {"constraints": ["g = (.*) <= x"]}, r"constraints\[0\]: 'x' is no number"),
        ("sim", {"output": "o.json"}, "objective needs the key"),
        ("sim", {"templates": {"in.tpl": "../in"}}, "a path in the working directory"),
        ("sim", {"templates": {"in.tpl": "in"}}, "No such file"),
        ("sim", {"timeout": 0}, "timeout must be a number of seconds above 0"),
        ("sim", {"tolerate": ["crash"]}, "tolerate must be one of"),
    ],
)
def test_a_wrong_declaration_is_named(folder, command, options, message):
    with pytest.raises((ValueError, OSError), match=message):
        Command(command, **options)


def test_a_program_that_is_not_there_is_never_tolerated(folder):
    with pytest.raises(CommandError, match="there is no such program") as caught:
        Command("./nowhere {0}", tolerate=True)((1.0,))
    assert caught.value.kind == "start" and os.listdir(folder) == ["sim.sh"]
