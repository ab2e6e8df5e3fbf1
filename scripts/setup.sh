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

# logged <name> <command...>: what the command says goes to build/log/<name>.log.
logged() {
  local log="build/log/$1.log"
  shift
  "$@" >"$log" 2>&1 </dev/null
}

# show_failure <name> <command...>: the end of the log of a command that failed.
show_failure() {
  printf 'FAILED: %s\n--- the end of build/log/%s.log:\n' "${*:2}" "$1" >&2
  tail -n 40 "build/log/$1.log" >&2
}

# quietly <name> <command...>: silent on success; else shows the end of the log.
quietly() {
  logged "$@" && return
  show_failure "$@"
  return 1
}

# percentage <log>: how far CMake, CTest or pytest say that they are, as " 42 %", or nothing.
percentage() {
  tail -c 2000 "$1" 2>/dev/null |
    { grep -Eo '\[ *[0-9]+%\]|\[[0-9]+/[0-9]+\]|[0-9]+/[0-9]+ Test +#' || true; } |
    tail -n 1 | sed 's/Test.*//' | tr -cd '0-9/' |
    awk -F/ '{ printf " %d %%", NF == 2 ? 100 * $1 / $2 : $1 }'
}

# show_progress <text> <name>: until it is killed, or the script ends. On a terminal one line is
# written again and again, elsewhere it grows once a minute.
show_progress() {
  local started=$SECONDS elapsed next=60
  while sleep 1 &>/dev/null && kill -0 $$ 2>/dev/null; do
    elapsed=$((SECONDS - started))
    if [[ -t 1 ]]; then
      printf '\r\033[K%s ...%s (%d s)' "$1" "$(percentage "build/log/$2.log")" "$elapsed"
    elif ((elapsed >= next)); then
      next=$((next + 60))
      printf '%s (%d s) ...' "$(percentage "build/log/$2.log")" "$elapsed"
    fi
  done
}

# stage <text> <name> <command...>: as `logged`, with a line that shows that it lives and ends
# with the seconds that it took.
stage() {
  local text="$1" name="$2" started=$SECONDS status=0 progress
  shift
  : >"build/log/$name.log"
  printf '%s ...' "$text"
  show_progress "$text" "$name" &
  progress=$!
  logged "$@" || status=$?
  kill "$progress" 2>/dev/null || true
  wait "$progress" 2>/dev/null || true
  [[ ! -t 1 ]] || printf '\r\033[K%s ...' "$text"
  printf ' %d s\n' $((SECONDS - started))
  return "$status"
}

# required_stage <text> <name> <command...>: as `stage`; ends the script when it fails.
required_stage() {
  stage "$@" && return
  show_failure "${@:2}"
  exit 1
}

# missing_packages <package...>: those that are not installed, on one line.
missing_packages() {
  local package missing=()
  for package in "$@"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' ||
      package_is_otherwise_there "$package" || missing+=("$package")
  done
  echo "${missing[*]}"
}

# install_packages <package...>: Debian packages, as root; else says what to do.
install_packages() {
  (($#)) || return 0
  command -v apt-get >/dev/null ||
    fail "These are missing: $* (names of Debian packages)." "Install them and start again."
  [[ $(id -u) == 0 ]] ||
    fail "Some Debian packages are missing. Install them and start again:" \
         "  sudo apt-get install $*"
  echo "Missing Debian packages: $*"
  required_stage "Installing them" apt apt_install "$@"
}

# The lists of packages are fetched only when those at hand are missing or old.
apt_install() {
  local install=(apt-get install -y -q --no-install-recommends)
  export DEBIAN_FRONTEND=noninteractive
  "${install[@]}" "$@" || { apt-get update -q && "${install[@]}" "$@"; }
}

# pip_install <interpreter> <argument...>: of the versions in scripts/constraints.txt. Without
# CXX each interpreter would name a compiler of its own, and the engine be compiled for each.
pip_install() {
  CXX="${CXX:-g++}" "$1" -m pip install --constraint scripts/constraints.txt "${@:2}"
}

# compiler_works: true when the compiler knows C++17.
compiler_works() {
  mkdir -p build/probe
  printf '#include <optional>\nint main() { return std::optional<int>(0).value(); }\n' \
    >build/probe/probe.cpp
  "${CXX:-g++}" -std=c++17 build/probe/probe.cpp -o build/probe/probe >/dev/null 2>&1
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

# find_interpreter <3.x>: one from pyenv or the path that builds modules, or nothing.
find_interpreter() {
  local candidate
  for candidate in "$(pyenv_interpreter "$1")" "$(command -v "python$1")" "/usr/bin/python$1"; do
    if [[ -n $candidate ]] && python_is "$candidate" "v == (${1/./, })" &&
        python_builds "$candidate"; then
      echo "$candidate"
      break
    fi
  done
  return 0
}

# choose_interpreter: the one to build for, or nothing.
choose_interpreter() {
  local version found
  if [[ -n ${QUENLOFT_PYTHON:-} ]]; then
    python_is "$QUENLOFT_PYTHON" "v >= (3, 9)" ||
      fail "QUENLOFT_PYTHON=$QUENLOFT_PYTHON is not CPython 3.9 or later."
    python_builds "$QUENLOFT_PYTHON" ||
      fail "QUENLOFT_PYTHON=$QUENLOFT_PYTHON has no C headers or no venv module."
    echo "$QUENLOFT_PYTHON"
    return
  fi
  for version in 3.9 3.13 3.12 3.11 3.10; do
    found="$(find_interpreter "$version")"
    [[ -z $found ]] || break
  done
  echo "$found"
}

# prepare_environment [package...]: these packages, the compiler, and .venv with the tools of
# the build. What is missing is installed, or named, all at once.
prepare_environment() {
  local packages tools python=""
  read -r -a packages <<<"$(missing_packages libeigen3-dev "$@")"
  if ! compiler_works; then
    [[ -z ${CXX:-} ]] || fail "CXX=$CXX cannot compile C++17."
    packages+=(g++)
  fi
  if [[ -n ${QUENLOFT_PYTHON:-} ]] || ! python_builds .venv/bin/python; then
    python="$(choose_interpreter)"
    [[ -n $python ]] || packages+=(python3 python3-dev python3-venv)
  fi
  if ((${#packages[@]})); then
    install_packages "${packages[@]}"
    compiler_works || fail "g++ cannot compile C++17."
    if [[ " ${packages[*]} " == *" python3 "* ]]; then
      python="$(choose_interpreter)"
      [[ -n $python ]] || fail "No CPython 3.9 or later, with its C headers, was found."
    fi
  fi

  if [[ -n $python ]]; then
    local base='import sys; print(sys.base_prefix, sys.version_info[:3])'
    if [[ $(.venv/bin/python -c "$base" 2>/dev/null) != "$("$python" -c "$base")" ]]; then
      echo "Using C$("$python" -V)."
      quietly venv "$python" -m venv --clear .venv
      forget_interpreter
    fi
  fi

  export PATH="$PWD/.venv/bin:$PATH"
  read -r -a tools <<<"$(build_tools)"
  if [[ ! .venv/build-tools.stamp -nt scripts/constraints.txt ]] || ((${#tools[@]} > 3)) ||
    ! .venv/bin/python -c 'import nanobind, scikit_build_core' 2>/dev/null; then
    required_stage "Installing the build tools into .venv" pip-tools \
      pip_install .venv/bin/python "${tools[@]}"
    touch .venv/build-tools.stamp
    hash -r
  fi
}

# forget_interpreter: CMake finds the interpreter, and what depends on it, anew in the tree.
forget_interpreter() {
  [[ ! -f $quenloft_tree/CMakeCache.txt ]] ||
    sed -i -E '/^(_?Python|nanobind|NB_)/d' "$quenloft_tree/CMakeCache.txt"
}

# package_is_otherwise_there <package>: libraries need not come from Debian.
package_is_otherwise_there() {
  local header
  case $1 in
    libeigen3-dev) header="eigen3/Eigen/Core" ;;
    libgtest-dev) header="gtest/gtest.h" ;;
    libbenchmark-dev) header="benchmark/benchmark.h" ;;
    *) return 1 ;;
  esac
  echo "#include <$header>" | "${CXX:-g++}" -std=c++17 -x c++ -fsyntax-only - 2>/dev/null
}

# build_tools: what pip installs to build with, on one line; CMake and Ninja only where there are
# none, as with others the engine would be compiled again.
build_tools() {
  local tools=("pip>=22.1" scikit-build-core "nanobind>=2.10")
  tool_is_new_enough cmake 3.21 || tools+=("cmake>=3.21")
  tool_is_new_enough ninja 1.10 || tools+=(ninja)
  echo "${tools[*]}"
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
# is installed was built from the same sources. The build tree is kept and shared with the
# C++ tests: the engine is compiled once.
install_wheel() {
  local extra="${1:+[$1]}" stamp=".venv/quenloft-${1:-plain}.stamp" now
  now="$(fingerprint CMakeLists.txt cmake pyproject.toml LICENSE README.md src python \
    scripts/constraints.txt)"
  if [[ -f $stamp && "$(cat "$stamp")" == "$now" ]]; then
    return
  fi
  rm -f .venv/quenloft-*.stamp
  # -v: what CMake says goes to the log while it works.
  stage "Building the module (minutes the first time)" wheel \
    pip_install .venv/bin/python -v --no-build-isolation \
    --config-settings=build-dir="$quenloft_tree" \
    --config-settings=cmake.define.QUENLOFT_WERROR="${QUENLOFT_WERROR:-OFF}" ".$extra" || {
    show_failure wheel "building the module"
    return 1
  }
  echo "$now" >"$stamp"
  # What the tests need includes what a run needs.
  echo "$now" >.venv/quenloft-plain.stamp
}
