#!/usr/bin/env bash
# Resampler speed: five minutes of 44.1 kHz stereo WAVE to 48 kHz with the default quality (21
# sinc taps) and with quality 0 (linear), against sox's default rate conversion, in one hyperfine
# run. Prints each time's ratio to sox's (below 1 means faster than sox).
set -euo pipefail
source "$(dirname "$0")/common.sh"
bench_start resample "${1:-}" sox hyperfine python3

# Music-like input: a sweep, a tone and some noise, 300 s, 16-bit stereo (-R: the same every run).
sox -R -q -n -r 44100 -c 2 -b 16 "$work/in.wav" synth 300 sine 220-880 sine 1000 whitenoise \
  remix 1,3v0.2 2,3v0.2 vol 0.4

hyperfine --warmup 1 --runs "${RUNS:-5}" --export-json "$work/times.json" \
  -n tovra-default "$cli resample $work/in.wav $work/tovra21.wav --rate 48000" \
  -n tovra-linear "$cli resample $work/in.wav $work/tovra0.wav --rate 48000 --quality 0" \
  -n sox "sox $work/in.wav -r 48000 $work/sox.wav"

python3 - "$work/times.json" <<'PY'
import json, sys
r = {x["command"]: x for x in json.load(open(sys.argv[1]))["results"]}
sox = r["sox"]["mean"]
for name in ("tovra-default", "tovra-linear"):
    print(f"{name}: {r[name]['mean']:.3f} s, ratio to sox {r[name]['mean'] / sox:.2f}")
print(f"sox: {sox:.3f} s")
PY

# The output's size (300 s at 48 kHz, 16-bit stereo, behind a 44-byte header) and a digest of its
# values, to compare between builds: a faster path must not change a sample.
size=$(stat -c %s "$work/tovra21.wav")
[ "$size" -eq $((300 * 48000 * 4 + 44)) ] || { echo "unexpected output size $size" >&2; exit 1; }
echo "default-quality output sha256: $(sha256sum <"$work/tovra21.wav" | cut -c1-16)"
