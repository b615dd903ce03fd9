#!/usr/bin/env bash
# Layer II encoding speed: tovra-cli against twolame at 192 kbit/s on the same input, in the same run.
#
# Makes five minutes of 44.1 kHz stereo noise and tones, then times
# `tovra-cli encode IN OUT --layer 2 --bitrate 192` (both psychoacoustic models) and
# `twolame -b 192 IN OUT` with hyperfine and prints the ratios of the mean times (TOVRA / twolame;
# below 1.0 means TOVRA is faster).
#
# Usage: bench/encode_mp2.sh [path/to/tovra-cli]   (default: build/release/tovra-cli)
set -euo pipefail
source "$(dirname "$0")/common.sh"
bench_start encode_mp2 "${1:-}" sox twolame hyperfine python3

sox -q -n -r 44100 -c 2 -b 16 "$work/in.wav" synth 300 pinknoise sine 440 sine 3000 vol 0.4

hyperfine --warmup 1 --runs 5 --style basic --export-json "$work/times.json" \
  -n tovra-model1 "'$cli' encode '$work/in.wav' '$work/t1.mp2' --layer 2 --bitrate 192 --model 1" \
  -n tovra-model2 "'$cli' encode '$work/in.wav' '$work/t2.mp2' --layer 2 --bitrate 192 --model 2" \
  -n twolame "twolame --quiet -b 192 '$work/in.wav' '$work/twolame.mp2'"

python3 - "$work/times.json" <<'PY'
import json, sys
r = {x["command"]: x["mean"] for x in json.load(open(sys.argv[1]))["results"]}
for m in ("tovra-model1", "tovra-model2"):
    print("encode_mp2: %s %.3f s, twolame %.3f s, ratio = %.2f" % (m, r[m], r["twolame"], r[m] / r["twolame"]))
PY
