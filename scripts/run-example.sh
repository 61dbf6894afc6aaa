#!/usr/bin/env bash
# Installs what is missing, builds the example host simulation and runs it on its
# built-in scene. Extra arguments go to the example.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/deps.sh
cmake -S . -B build-example -DCMAKE_BUILD_TYPE=Release -DQUARRYGEOM_BUILD_TESTS=OFF -DQUARRYGEOM_BUILD_EXAMPLES=ON
example=${QG_EXAMPLE:-cloth_drop}
cmake --build build-example -j"$(nproc)" --target "$example"
./build-example/examples/"$example" "$@"
