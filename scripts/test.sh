#!/usr/bin/env bash
# Installs what is missing, builds and runs the whole test suite.
#
#   bash scripts/test.sh            plain build (release with debug info), and
#                                   the lock-free tests again under the thread
#                                   sanitizer
#   bash scripts/test.sh address    whole suite under address+undefined
#   bash scripts/test.sh thread     whole suite under the thread sanitizer
set -uo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh || exit 1
jobs=$(nproc)

configure() {  # build-dir sanitizer
  cmake -S . -B "$1" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DORVANTA_SANITIZE="$2" >/dev/null
}

mode=${1:-none}
case "$mode" in
  none)
    # The lock-free primitives first, under the thread sanitizer; the plain
    # suite last, so that its summary closes the output.
    cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DORVANTA_SANITIZE=thread \
      -DORVANTA_BENCH=OFF >/dev/null || exit 1
    cmake --build build-tsan --target lockfree_tests || exit 1
    (cd build-tsan && ctest -L lockfree --no-tests=error --output-on-failure -j "$jobs")
    tsan=$?
    configure build none || exit 1
    cmake --build build || exit 1
    (cd build && ctest --output-on-failure -j "$jobs")
    plain=$?
    [ $tsan -eq 0 ] && [ $plain -eq 0 ]
    ;;
  address|thread)
    dir=build-$mode
    configure "$dir" "$mode" || exit 1
    cmake --build "$dir" || exit 1
    cd "$dir" && ctest --output-on-failure -j "$jobs"
    ;;
  *)
    echo "usage: bash scripts/test.sh [address|thread]" >&2
    exit 2
    ;;
esac
