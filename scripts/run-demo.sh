#!/usr/bin/env bash
# Builds the release preset and plays the built-in demo stream through the sound device.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)"
exec build/release/tovra-cli play
