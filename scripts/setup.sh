# shellcheck shell=bash
# SPDX-License-Identifier: MIT
#
# What ./run, ./test and .ci/run share. To be sourced; leaves the caller in the
# root of the checkout. Everything is written below the checkout: .venv holds the
# virtual environment, build/ the builds, build/log/ what the tools said.
#
# Environment, all optional:
#   QUENLOFT_PYTHON  the interpreter to build for; otherwise CPython 3.9 when there
#                    is one, else the newest later version
#   QUENLOFT_WERROR  ON makes every compiler warning an error
#   CXX              the C++ compiler; otherwise g++

set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

quenloft_tree="build/release"
mkdir -p build/log
export CMAKE_BUILD_PARALLEL_LEVEL="${CMAKE_BUILD_PARALLEL_LEVEL:-$(nproc)}"
export PIP_DISABLE_PIP_VERSION_CHECK=1

fail() {
  printf '%s\n' "$@" >&2
  exit 1
}

# quietly <name> <command...>: silent on success; else shows the end of the log.
quietly() {
  local log="build/log/$1.log"
  shift
  if ! "$@" >"$log" 2>&1 </dev/null; then
    printf 'FAILED: %s\n' "$*" >&2
    printf -- '--- the end of %s:\n' "$log" >&2
    tail -n 40 "$log" >&2
    return 1
  fi
}

# install_packages <package...>: Debian packages, as root; else says what to do.
install_packages() {
  (($#)) || return 0
  if [[ $(id -u) != 0 ]] || ! command -v apt-get >/dev/null; then
    fail "These are missing: $* (names of Debian packages)." \
         "Install them; on Debian: sudo apt-get install $*"
  fi
  echo "Installing Debian packages: $*"
  export DEBIAN_FRONTEND=noninteractive
  # The lists of packages are fetched only when those at hand are missing or old.
  apt-get install -y -q --no-install-recommends "$@" >build/log/apt.log 2>&1 </dev/null && return
  quietly apt-update apt-get update -q
  quietly apt apt-get install -y -q --no-install-recommends "$@"
}

# compiler_works: true when the compiler knows C++17 and OpenMP.
compiler_works() {
  mkdir -p build/probe
  printf '#include <omp.h>\n#include <optional>\nint main() { return omp_in_parallel(); }\n' \
    >build/probe/probe.cpp
  "${CXX:-g++}" -std=c++17 -fopenmp build/probe/probe.cpp -o build/probe/probe >/dev/null 2>&1
}

# python_is <interpreter> <condition on v, the version as a tuple>
python_is() {
  "$1" -c "import sys
v = sys.version_info[:2]
sys.exit(not (sys.implementation.name == 'cpython' and ($2)))" >/dev/null 2>&1
}

# python_builds <interpreter>: true when it can build modules and environments.
python_builds() {
  "$1" -c "import ensurepip, os, sys, sysconfig, venv
sys.exit(not os.path.exists(os.path.join(sysconfig.get_path('include'), 'Python.h')))" \
    >/dev/null 2>&1
}

# pyenv_interpreter <3.x>: the newest such interpreter that pyenv keeps.
pyenv_interpreter() {
  local pyenv root found=""
  pyenv="$(command -v pyenv)" || return 0
  # The second is where pyenv itself lies: it holds with another home directory too.
  for root in "$(pyenv root 2>/dev/null)" "$(dirname "$(readlink -f "$pyenv")")/.."; do
    found="$(find "$root/versions" -maxdepth 3 -path "*/$1.*/bin/python$1" 2>/dev/null |
             sort -V | tail -n 1)"
    [[ -n $found ]] && break
  done
  echo "$found"
}

# find_interpreter <3.x>: one from pyenv or the path that works, or nothing.
find_interpreter() {
  local candidate
  for candidate in "$(pyenv_interpreter "$1")" "$(command -v "python$1")" "/usr/bin/python$1"; do
    if [[ -n $candidate ]] && python_is "$candidate" "v == (${1/./, })"; then
      echo "$candidate"
      break
    fi
  done
  return 0
}

# choose_interpreter: sets `python`.
choose_interpreter() {
  local version
  python="${QUENLOFT_PYTHON:-}"
  if [[ -n $python ]]; then
    python_is "$python" "v >= (3, 9)" || fail "QUENLOFT_PYTHON=$python is not CPython 3.9 or later."
    return
  fi
  for version in 3.9 3.13 3.12 3.11 3.10; do
    python="$(find_interpreter "$version")"
    [[ -n $python ]] && break
  done
  if [[ -z $python ]]; then
    install_packages python3 python3-dev python3-venv
    python="$(command -v python3)"
    python_is "$python" "v >= (3, 9)" || fail "No CPython 3.9 or later was found."
  fi
  if [[ -z ${version:-} || $version != 3.9 ]]; then
    echo "CPython 3.9, the reference, is not on this machine: using $("$python" -V)."
  fi
}

# prepare_environment: the compiler and .venv with the tools of the build.
prepare_environment() {
  local packages=() tools=("pip>=22.1" scikit-build-core) version
  if ! compiler_works; then
    [[ -z ${CXX:-} ]] || fail "CXX=$CXX cannot compile C++17 with OpenMP."
    packages+=(g++)
  fi
  for package in "$@"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' ||
      package_is_otherwise_there "$package" || packages+=("$package")
  done
  install_packages "${packages[@]}"
  compiler_works || fail "g++ cannot compile C++17 with OpenMP."

  if [[ -n ${QUENLOFT_PYTHON:-} ]] || ! python_builds .venv/bin/python; then
    local python
    choose_interpreter
    if ! python_builds "$python"; then
      version="$("$python" -c 'import sys; print("%d.%d" % sys.version_info[:2])')"
      install_packages "python$version-dev" "python$version-venv"
      python_builds "$python" || fail "$python has no C headers or no venv module."
    fi
    local base='import sys; print(sys.base_prefix, sys.version_info[:3])'
    if [[ $(.venv/bin/python -c "$base" 2>/dev/null) != "$("$python" -c "$base")" ]]; then
      quietly venv "$python" -m venv --clear .venv
    fi
  fi

  export PATH="$PWD/.venv/bin:$PATH"
  tool_is_new_enough cmake 3.21 || tools+=("cmake>=3.21")
  tool_is_new_enough ninja 1.10 || tools+=(ninja)
  if ! .venv/bin/python -c 'import scikit_build_core' 2>/dev/null || ((${#tools[@]} > 2)); then
    echo "Installing the build tools into .venv"
    quietly pip-tools .venv/bin/python -m pip install "${tools[@]}"
    hash -r
  fi
}

# package_is_otherwise_there <package>: libraries need not come from Debian.
package_is_otherwise_there() {
  local header
  case $1 in
    libgtest-dev) header="gtest/gtest.h" ;;
    libbenchmark-dev) header="benchmark/benchmark.h" ;;
    *) return 1 ;;
  esac
  echo "#include <$header>" | "${CXX:-g++}" -std=c++17 -x c++ -fsyntax-only - 2>/dev/null
}

# tool_is_new_enough <tool> <version>
tool_is_new_enough() {
  local found
  found="$("$1" --version 2>/dev/null | grep -Eo '[0-9]+\.[0-9]+(\.[0-9]+)*' | head -n 1)" || return 1
  [[ "$(printf '%s\n%s\n' "$2" "$found" | sort -V | head -n 1)" == "$2" ]]
}

# fingerprint <path...>: of the contents of the files, the compiler and the interpreter.
fingerprint() {
  {
    "${CXX:-g++}" --version
    .venv/bin/python -VV
    echo "$PWD ${QUENLOFT_WERROR:-OFF}"
    find "$@" -type f -not -path '*/__pycache__/*' -print0 | sort -z | xargs -0 sha256sum
  } | sha256sum
}

# install_wheel [extra]: builds the wheel and installs it into .venv, unless what
# is installed was built from the same sources.
install_wheel() {
  local extra="${1:+[$1]}" stamp=".venv/quenloft-${1:-plain}.stamp" now
  now="$(fingerprint CMakeLists.txt cmake pyproject.toml LICENSE README.md src python)"
  if [[ -f $stamp && "$(cat "$stamp")" == "$now" ]]; then
    return
  fi
  rm -f .venv/quenloft-*.stamp
  echo "Building the module and installing it into .venv (minutes the first time)"
  # The build tree is kept and shared with the C++ tests: the engine is compiled once.
  quietly wheel .venv/bin/python -m pip install --no-build-isolation \
    --config-settings=build-dir="$quenloft_tree" \
    --config-settings=cmake.define.QUENLOFT_WERROR="${QUENLOFT_WERROR:-OFF}" ".$extra" || return 1
  echo "$now" >"$stamp"
  # What the tests need includes what a run needs.
  echo "$now" >.venv/quenloft-plain.stamp
}
