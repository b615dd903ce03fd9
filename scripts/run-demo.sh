#!/usr/bin/env bash
# Builds the release preset and opens the player window with the built-in demo playlist, playing it
# through the sound device. Without a display (or with TOVRA_DEMO=cli) tovra-cli plays it instead.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)"
if [ -z "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ] || [ "${TOVRA_DEMO:-}" = cli ] || [ ! -x build/release/tovra ]; then
  exec build/release/tovra-cli play
fi
exec build/release/tovra "$PWD/build/release/demo/demo.m3u" /P
