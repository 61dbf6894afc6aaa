#!/usr/bin/env bash
# Installs what is missing, builds the example host simulation and runs it on its
# built-in scene. Extra arguments go to the example. QG_EXAMPLE picks another one, e.g.
# QG_EXAMPLE=sdf_slice.py for examples/python/sdf_slice.py.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/deps.sh
cmake -S . -B build-example -DCMAKE_BUILD_TYPE=Release -DQUARRYGEOM_BUILD_TESTS=OFF -DQUARRYGEOM_BUILD_EXAMPLES=ON \
  -DQUARRYGEOM_BUILD_PYTHON=ON
example=${QG_EXAMPLE:-cloth_drop}
if [[ "$example" == *.py ]]; then
  # Python examples (examples/python/*.py) run against the package in the build tree.
  cmake --build build-example -j"$(nproc)" --target _quarrygeom
  python=$(sed -n 's/^Python_EXECUTABLE:[A-Z]*=//p' build-example/CMakeCache.txt)
  PYTHONPATH=build-example/python "${python:-python3}" examples/python/"$example" "$@"
  exit
fi
cmake --build build-example -j"$(nproc)" --target "$example"
./build-example/examples/"$example" "$@"
