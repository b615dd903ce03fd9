#!/usr/bin/env bash
# Decoding speed of a Layer II stream to WAVE: tovra-cli against mpg123, timed in the same run.
#
# Makes five minutes of 44.1 kHz stereo noise and tones, encodes it at 192 kbit/s with twolame,
# then times `tovra-cli decode IN OUT.wav` and `mpg123 -w OUT.wav IN` with hyperfine and prints
# the ratio of the mean times (TOVRA / mpg123; below 1.0 means TOVRA is faster).
#
# Usage: bench/decode_mp2.sh [path/to/tovra-cli]   (default: build/release/tovra-cli)
set -euo pipefail
source "$(dirname "$0")/common.sh"
bench_start decode_mp2 "${1:-}" sox twolame mpg123 hyperfine python3

sox -q -n -r 44100 -c 2 -b 16 "$work/in.wav" synth 300 pinknoise sine 440 sine 3000 vol 0.4
twolame --quiet -b 192 "$work/in.wav" "$work/in.mp2"

hyperfine --warmup 2 --runs 10 --style basic --export-json "$work/times.json" \
  -n tovra "'$cli' decode '$work/in.mp2' '$work/tovra.wav'" \
  -n mpg123 "mpg123 -q -w '$work/mpg123.wav' '$work/in.mp2'"

python3 - "$work/times.json" <<'PY'
import json, sys
r = {x["command"]: x["mean"] for x in json.load(open(sys.argv[1]))["results"]}
print("decode_mp2: tovra %.3f s, mpg123 %.3f s, ratio tovra/mpg123 = %.2f" % (r["tovra"], r["mpg123"], r["tovra"] / r["mpg123"]))
PY
