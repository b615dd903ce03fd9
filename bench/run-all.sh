#!/usr/bin/env bash
# Runs every benchmark script of this folder against the release build and prints their ratios.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)" >/dev/null
status=0
for script in bench/*.sh; do
  case "$(basename "$script")" in run-all.sh | common.sh) continue ;; esac
  echo "== $(basename "$script")"
  bash "$script" || status=1
done
exit $status
