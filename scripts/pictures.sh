#!/usr/bin/env bash
# Renders the pictures of docs/images with the example host simulation (a few minutes).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/deps.sh
cmake -S . -B build-example -DCMAKE_BUILD_TYPE=Release -DQUARRYGEOM_BUILD_TESTS=OFF -DQUARRYGEOM_BUILD_EXAMPLES=ON
cmake --build build-example -j"$(nproc)" --target cloth_drop hair_drop
run() { ./build-example/examples/cloth_drop "$@" | grep -E "final (cloth|picture)"; }
out=docs/images
mkdir -p "$out"
run --final "$out/drape_sphere.png"
run --body bunny --final "$out/drape_bunny.png"
run --level 3 --final "$out/cloth_tree_level3.png"
run --level 5 --final "$out/cloth_tree_level5.png"
run --steps 160 --contacts --final "$out/cloth_contacts_step160.png"
./build-example/examples/hair_drop --final "$out/hair_drop.png" | grep -E "final (check|picture)"
