#!/usr/bin/env bash
# Installs what is missing, builds (release with debug info) and starts the
# explorer on the default view.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build
echo "orvanta: the explorer is not built yet; this tree holds the engine's foundations and their tests (bash scripts/test.sh)." >&2
exit 1
