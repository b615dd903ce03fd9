#!/usr/bin/env bash
# Decoding speed of a Layer I stream to WAVE: tovra-cli against mpg123, timed in the same run.
#
# No tool on the machine encodes Layer I, so the input is the conformance stream l1-fl6 (44.1 kHz
# stereo, 384 kbit/s) repeated 700 times: five minutes of whole frames. Times
# `tovra-cli decode IN OUT.wav` and `mpg123 -w OUT.wav IN` with hyperfine and prints the ratio of the
# mean times (TOVRA / mpg123; below 1.0 means TOVRA is faster).
#
# Usage: bench/decode_mp1.sh [path/to/tovra-cli]   (default: build/release/tovra-cli)
set -euo pipefail
source "$(dirname "$0")/common.sh"
bench_start decode_mp1 "${1:-}" mpg123 hyperfine python3
vector="$here/../shared/vectors/l1-fl6.bit"
[ -r "$vector" ] || { echo "decode_mp1: no conformance stream at $vector, skipped"; exit 0; }

for _ in $(seq 700); do cat "$vector"; done > "$work/in.mp1"

hyperfine --warmup 2 --runs 10 --style basic --export-json "$work/times.json" \
  -n tovra "'$cli' decode '$work/in.mp1' '$work/tovra.wav'" \
  -n mpg123 "mpg123 -q -w '$work/mpg123.wav' '$work/in.mp1'"

python3 - "$work/times.json" <<'PY'
import json, sys
r = {x["command"]: x["mean"] for x in json.load(open(sys.argv[1]))["results"]}
print("decode_mp1: tovra %.3f s, mpg123 %.3f s, ratio tovra/mpg123 = %.2f" % (r["tovra"], r["mpg123"], r["tovra"] / r["mpg123"]))
PY
