#!/usr/bin/env bash
# Installs the Debian packages that QuarryGeom needs and that are missing.
# Usage: scripts/deps.sh [extra packages...]
set -euo pipefail

packages=(cmake make g++ pkg-config libtbb-dev libgtest-dev libgmock-dev libtinyobjloader-dev
          libgmp-dev libmpfr-dev libgl-dev libglu1-mesa-dev
          pybind11-dev python3-dev python3-numpy python3-pytest python3-matplotlib "$@")

# Offscreen pictures of the examples and the drawing test.
packages+=(libosmesa6-dev libpng-dev)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
