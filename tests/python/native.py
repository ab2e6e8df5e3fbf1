# SPDX-License-Identifier: MIT
"""What the tests of the native module share: objects that misbehave, and what came of it."""

import pytest


def bowl(x, categories=()):
    return sum((v - 0.3) ** 2 for v in x) + sum(categories)


def fails(*_):
    raise KeyError("lost")


class Lying:
    """A sequence whose length and items are whatever the given functions say."""

    def __init__(self, length, item):
        self.length, self.item = length, item

    def __len__(self):
        return self.length()

    def __getitem__(self, position):
        return self.item(position)


def error_of(call, pending=False):
    """The text of the error that `call` raises, or that it left `pending` when it returned."""
    with pytest.raises(SystemError if pending else Exception) as failure:
        call()
    return repr(failure.value.__cause__ if pending else failure.value)
