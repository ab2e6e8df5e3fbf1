# SPDX-License-Identifier: MIT
"""./run and ./test on machines that lack something, and what they show while they work."""

import os
import pathlib
import re
import shlex
import subprocess

ROOT = pathlib.Path(__file__).resolve().parents[2]

# A Debian machine with nothing but its base system, whose user is not root.
BARE = """
dpkg-query() { false; }
package_is_otherwise_there() { false; }
compiler_works() { false; }
python_builds() { false; }
apt-get() { echo "called without root"; }
id() { echo 1000; }
"""


def shell(commands):
    """What the commands say after scripts/setup.sh, on both streams, and how they end."""
    environment = {k: v for k, v in os.environ.items() if k not in ("CXX", "QUENLOFT_PYTHON")}
    done = subprocess.run(
        ["bash", "-c", f"source {shlex.quote(str(ROOT))}/scripts/setup.sh\n{commands}"],
        env=environment, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
    )  # fmt: skip
    return done.stdout, done.returncode


def test_without_root_all_missing_packages_are_named_at_once():
    said, code = shell(BARE + "prepare_environment libgtest-dev")
    assert said.splitlines() == [
        "Some Debian packages are missing. Install them and start again:",
        "  sudo apt-get install libeigen3-dev libgtest-dev g++ python3 python3-dev python3-venv",
    ]
    assert code == 1


def test_stage_is_one_line_and_passes_a_failure_on():
    said, code = shell("stage 'Lost cause' test-stage bash -c 'echo why; exit 3'")
    assert re.fullmatch(r"Lost cause \.\.\. \d+ s\n", said)
    assert code == 3
    assert (ROOT / "build/log/test-stage.log").read_text() == "why\n"
