#!/usr/bin/env bash
# Installs what is missing, builds (release with debug info) and starts the
# explorer on the default view; any arguments go to the explorer.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build
exec build/glfw/orvanta "$@"
