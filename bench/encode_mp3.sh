#!/usr/bin/env bash
# Layer III encoding speed: tovra-cli against LAME at 128 kbit/s on the same input, in the same run.
#
# Makes five minutes of 44.1 kHz stereo noise and tones, then times
# `tovra-cli encode IN OUT --layer 3 --bitrate 128` and `lame --quiet -b 128 IN OUT` with hyperfine
# and prints the ratio of the mean times (TOVRA / LAME; below 1.0 means TOVRA is faster).
#
# Usage: bench/encode_mp3.sh [path/to/tovra-cli]   (default: build/release/tovra-cli)
set -euo pipefail
source "$(dirname "$0")/common.sh"
bench_start encode_mp3 "${1:-}" sox lame hyperfine python3

sox -q -n -r 44100 -c 2 -b 16 "$work/in.wav" synth 300 pinknoise sine 440 sine 3000 vol 0.4

hyperfine --warmup 1 --runs 5 --style basic --export-json "$work/times.json" \
  -n tovra "'$cli' encode '$work/in.wav' '$work/t.mp3' --layer 3 --bitrate 128" \
  -n lame "lame --quiet -b 128 '$work/in.wav' '$work/lame.mp3'"

python3 - "$work/times.json" <<'PY'
import json, sys
r = {x["command"]: x["mean"] for x in json.load(open(sys.argv[1]))["results"]}
print("encode_mp3: tovra %.3f s, lame %.3f s, ratio = %.2f" % (r["tovra"], r["lame"], r["tovra"] / r["lame"]))
PY
