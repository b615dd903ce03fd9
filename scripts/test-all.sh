#!/usr/bin/env bash
# Checks the include graph, then builds and tests the whole matrix: release (all tests), ASan+UBSan
# (all tests), a short bounded run of every fuzz target, and ThreadSanitizer over the threaded
# subsystems.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc)
fuzz_seconds=${TOVRA_FUZZ_SECONDS:-20}

# Dependencies point one way between the source folders; a cycle fails the run before any build.
python3 scripts/check-includes.py

cmake --preset release >/dev/null
cmake --build --preset release -j "$jobs"
# The window's tests need an X server: they run alone under a virtual one, the rest in parallel.
# A window test that fails is run once more, and if it fails again, once more under a fresh virtual
# server: under load a server can now and then refuse a start ("tovra: no X display") for a while;
# a real fault fails all three times.
ctest --preset release -j "$jobs" -LE gui
xvfb-run -a -s "-screen 0 1024x768x24" ctest --preset release -L gui --repeat until-pass:2 ||
  xvfb-run -a -s "-screen 0 1024x768x24" ctest --preset release -L gui --rerun-failed

cmake --preset asan >/dev/null
cmake --build --preset asan -j "$jobs"
ctest --preset asan -j "$jobs" -LE gui

# Every fuzz target for a bounded time; a crash, a sanitizer report or a hang fails the run.
shopt -s nullglob
for fuzzer in build/asan/tests/fuzz_*; do
  name=$(basename "$fuzzer")
  corpus=build/asan/corpus/$name
  mkdir -p "$corpus"
  echo "fuzzing $name for ${fuzz_seconds}s"
  "$fuzzer" -max_total_time="$fuzz_seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=0 \
    "$corpus" >"build/asan/$name.log" 2>&1 || { tail -50 "build/asan/$name.log"; exit 1; }
done

# ThreadSanitizer over the tests of the threaded subsystems (session jobs, sound output, file tools, play session).
cmake --preset tsan >/dev/null
cmake --build --preset tsan -j "$jobs"
ctest --preset tsan -j "$jobs" -L 'session|output|tools|play' --no-tests=ignore
