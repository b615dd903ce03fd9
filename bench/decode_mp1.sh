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

here="$(cd "$(dirname "$0")/.." && pwd)"
cli="${1:-$here/build/release/tovra-cli}"
vector="$here/../shared/vectors/l1-fl6.bit"
for tool in mpg123 hyperfine python3; do
  command -v "$tool" >/dev/null || { echo "decode_mp1: $tool is not installed" >&2; exit 2; }
done
[ -x "$cli" ] || { echo "decode_mp1: no tovra-cli at $cli (build the release preset first)" >&2; exit 2; }
[ -r "$vector" ] || { echo "decode_mp1: no conformance stream at $vector" >&2; exit 2; }

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

for _ in $(seq 700); do cat "$vector"; done > "$work/in.mp1"

hyperfine --warmup 2 --runs 10 --style basic --export-json "$work/times.json" \
  -n tovra "'$cli' decode '$work/in.mp1' '$work/tovra.wav'" \
  -n mpg123 "mpg123 -q -w '$work/mpg123.wav' '$work/in.mp1'"

python3 - "$work/times.json" <<'PY'
import json, sys
r = {x["command"]: x["mean"] for x in json.load(open(sys.argv[1]))["results"]}
print("decode_mp1: tovra %.3f s, mpg123 %.3f s, ratio tovra/mpg123 = %.2f" % (r["tovra"], r["mpg123"], r["tovra"] / r["mpg123"]))
PY
