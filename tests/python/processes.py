# SPDX-License-Identifier: MIT
"""What the tests share that start processes."""

import time


def wait_until(condition, seconds=60):
    end = time.monotonic() + seconds
    while not condition():
        assert time.monotonic() < end
        time.sleep(0.01)


def is_running(pid):
    try:
        with open(f"/proc/{pid}/stat") as file:
            return file.read().rpartition(")")[2].split()[0] not in "ZX"
    except OSError:
        return False
