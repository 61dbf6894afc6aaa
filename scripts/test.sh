#!/usr/bin/env bash
# Installs what is missing, builds QuarryGeom with its tests and the Python package and runs
# them all (the Python tests run under ctest as Python.pytest).
# Usage: scripts/test.sh [build-dir] [extra cmake arguments...]
set -euo pipefail
cd "$(dirname "$0")/.."

build=${1:-build}
shift || true

bash scripts/deps.sh
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DQUARRYGEOM_BUILD_TESTS=ON -DQUARRYGEOM_BUILD_PYTHON=ON "$@"
cmake --build "$build" -j"$(nproc)"
ctest --test-dir "$build" --output-on-failure -j"$(nproc)"
