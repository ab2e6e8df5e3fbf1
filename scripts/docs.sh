#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# Builds the documentation as a site into build/site. Any warning is an error: a link or
# an anchor that leads nowhere, a page left out, a parameter that a docstring forgot.
# Arguments are passed on to MkDocs: `scripts/docs.sh serve` shows the site while it is
# written. The tools go into build/docs-venv.

source "$(dirname "${BASH_SOURCE[0]}")/setup.sh"

environment=build/docs-venv
if [[ ! $environment/tools.stamp -nt scripts/constraints.txt ]]; then
  quietly docs-venv "$(choose_interpreter)" -m venv --clear "$environment"
  # What the extra `docs` names, without building the package; ruff lays the signatures out.
  quietly docs-pip pip_install "$environment/bin/python" mkdocs-material "mkdocstrings[python]" ruff
  touch "$environment/tools.stamp"
fi
# Material announces its plans on every build.
export NO_MKDOCS_2_WARNING=1
if (($#)); then
  exec "$environment/bin/mkdocs" "$@"
fi
quietly docs "$environment/bin/mkdocs" build --strict --clean
