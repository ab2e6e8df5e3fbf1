# SPDX-License-Identifier: MIT
"""The version of the package."""

from importlib.metadata import PackageNotFoundError, version

try:
    __version__ = version("Quenloft")
except PackageNotFoundError:  # imported from a source tree
    __version__ = "0"
