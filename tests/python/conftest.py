# SPDX-License-Identifier: MIT
"""What holds for every test."""

import signal

import pytest


# A process that is started in the background of a script is born with SIGINT ignored, and Python
# then installs no handler: tests that interrupt themselves would wait for nothing.
@pytest.fixture(autouse=True, scope="session")
def ctrl_c_is_heeded():
    before = signal.signal(signal.SIGINT, signal.default_int_handler)
    yield
    signal.signal(signal.SIGINT, before)
