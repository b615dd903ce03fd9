#!/usr/bin/env bash
# Builds the release preset and runs the program's main job on its built-in default.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)"
exec build/release/tovra-cli info --frames build/release/demo/demo.mp2
