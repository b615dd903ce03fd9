#!/usr/bin/env bash
# Layer III decoding speed: a five-minute 128 kbit/s joint-stereo 44.1 kHz MP3 (made by sox and lame)
# decoded to a WAVE file by tovra-cli, by mpg123 with its fastest decoder and by mpg123's portable C
# decoder (--cpu generic), all timed by hyperfine in one run. Prints TOVRA's time over each peer's,
# wall clock and processor time (user + system, steadier on a busy machine), and the checksum of
# TOVRA's output, which must not change when the decoder is made faster.
set -euo pipefail
source "$(dirname "$0")/common.sh"
bench_start decode_mp3 "${1:-}" sox lame mpg123 hyperfine
# Music-like input: a slow chord sweep over pink noise, different in the two channels.
sox -R -q -n -r 44100 -c 2 -b 16 "$work/src.wav" synth 300 sine 110-880 sine 165-1320 synth pinknoise mix vol 0.2
lame --quiet -m j -b 128 "$work/src.wav" "$work/in.mp3"

commands=("$cli decode $work/in.mp3 $work/tovra.wav" "mpg123 -q -w $work/mpg123.wav $work/in.mp3")
names=("tovra" "mpg123")
if mpg123 --list-cpu 2>/dev/null | grep -qw generic; then
  commands+=("mpg123 -q --cpu generic -w $work/generic.wav $work/in.mp3")
  names+=("mpg123-generic")
fi
hyperfine --style basic --warmup 1 --runs "${BENCH_RUNS:-5}" --export-json "$work/times.json" \
  -n "${names[0]}" "${commands[0]}" -n "${names[1]}" "${commands[1]}" \
  ${commands[2]:+-n "${names[2]}" "${commands[2]}"}

python3 - "$work/times.json" <<'EOF'
import json, sys
results = {r["command"]: (r["mean"], r["user"] + r["system"]) for r in json.load(open(sys.argv[1]))["results"]}
ours = results.pop("tovra")
for name, (wall, proc) in results.items():
    print("decode_mp3: tovra / %s = %.2f wall (%.3f s vs %.3f s), %.2f processor (%.3f s vs %.3f s)"
          % (name, ours[0] / wall, ours[0], wall, ours[1] / proc, ours[1], proc))
EOF
echo "decode_mp3: tovra output md5 $(md5sum < "$work/tovra.wav" | cut -d' ' -f1)"
