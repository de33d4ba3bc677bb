#!/usr/bin/env bash
# Installs the Debian packages the build, the explorer and the tests need.
# Idempotent: the package index is refreshed and apt-get runs only when
# something is missing, so a second run costs a dpkg query and nothing else.
set -euo pipefail

PACKAGES=(
  # toolchain
  cmake ninja-build g++ pkg-config
  # engine
  libgmp-dev
  # window, input, GL loader generated at build time
  libglfw3-dev libxi-dev libx11-dev python3-glad libgl-dev libgl1-mesa-dri
  # images, video, text, network
  # off-screen rendering without a display: EGL surfaceless on Mesa, PNG
  libegl-dev libegl-mesa0 libpng-dev
  libturbojpeg0-dev libavcodec-dev libavformat-dev libavutil-dev libswscale-dev
  libfreetype-dev libfontconfig-dev libcurl4-openssl-dev
  # tests and benchmarks
  googletest libgtest-dev libbenchmark-dev xvfb xauth
  # xwd: the explorer test's screenshot of what the X server shows
  x11-apps
  # the orbit benchmark's second single-thread loop
  libmpfr-dev
)

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${db:Status-Status}' "$p" 2>/dev/null | grep -qx installed; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}" >&2
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -q
  apt-get install -y -q --no-install-recommends "${missing[@]}"
fi
