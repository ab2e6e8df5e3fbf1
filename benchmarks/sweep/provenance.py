# SPDX-License-Identifier: MIT
"""Versions and machine, as they are kept beside results."""

from __future__ import annotations

import os
import platform
from importlib import metadata
from pathlib import Path
from typing import Any, Sequence


def provenance(packages: Sequence[str] = ("Quenloft", "scipy", "nlopt", "numpy")) -> dict[str, Any]:
    """The versions of Python and of packages, and the machine."""
    versions = {"Python": platform.python_version()}
    versions.update((package, version(package) or "not installed") for package in packages)
    return {
        "versions": versions,
        "machine": {
            "processor": _processor(),
            "processors": os.cpu_count(),
            "system": f"{platform.system()} {platform.machine()}",
            "OMP_NUM_THREADS": os.environ.get("OMP_NUM_THREADS", "not set"),
        },
    }


def version(package: str) -> str:
    """The installed version of a distribution; empty where there is none."""
    try:
        return metadata.version(package)
    except metadata.PackageNotFoundError:
        return ""


def markdown_provenance(provenance: dict[str, Any]) -> str:
    versions = ", ".join(f"{name} {version}" for name, version in provenance["versions"].items())
    machine = provenance["machine"]
    return (
        f"{versions}; {machine['processor']}, {machine['processors']} processors, "
        f"{machine['system']}, OMP_NUM_THREADS {machine['OMP_NUM_THREADS']}."
    )


def _processor() -> str:
    try:
        for line in Path("/proc/cpuinfo").read_text(encoding="utf-8").splitlines():
            if line.startswith("model name"):
                return line.partition(":")[2].strip()
    except OSError:
        pass
    return platform.processor() or platform.machine()
