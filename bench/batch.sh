#!/usr/bin/env bash
# Batch decoding speed: 40 MP3s of 30 s (128 kbit/s joint stereo, 44.1 kHz, made by sox and lame)
# decoded to WAVE by tovra-cli batch with --jobs at the processor count, with --jobs 1, and by a
# shell loop of mpg123 -w over the same files, all timed by hyperfine in one run. Prints the
# processor-count run's wall time over each of the other two and each run's processor time, and
# checks that both batch runs wrote the same bytes.
set -euo pipefail
source "$(dirname "$0")/common.sh"
bench_start batch "${1:-}" sox lame mpg123 hyperfine
mkdir "$work/in" "$work/one" "$work/many" "$work/mpg123"
sox -R -q -n -r 44100 -c 2 -b 16 "$work/src.wav" synth 30 sine 110-880 sine 165-1320 synth pinknoise mix vol 0.2
lame --quiet -m j -b 128 "$work/src.wav" "$work/in/00.mp3"
: > "$work/list.m3e"
for i in $(seq -w 0 39); do
  [ "$i" = 00 ] || cp "$work/in/00.mp3" "$work/in/$i.mp3"
  printf '%s\r\n' "$work/in/$i.mp3" >> "$work/list.m3e"
done
jobs=$(nproc)

hyperfine --style basic --warmup 1 --runs "${BENCH_RUNS:-3}" --export-json "$work/times.json" \
  -n "jobs-$jobs" "$cli batch $work/list.m3e --mode decode --out $work/many --jobs $jobs >/dev/null" \
  -n "jobs-1" "$cli batch $work/list.m3e --mode decode --out $work/one --jobs 1 >/dev/null" \
  -n "mpg123-loop" "for f in $work/in/*.mp3; do mpg123 -q -w $work/mpg123/\$(basename \$f .mp3).wav \$f; done"

python3 - "$work/times.json" "$jobs" <<'EOF'
import json, sys
runs = json.load(open(sys.argv[1]))["results"]
results = {r["command"]: r["mean"] for r in runs}
cpu = {r["command"]: r["user"] + r["system"] for r in runs}
name_ours = "jobs-" + sys.argv[2]
ours = results.pop(name_ours)
for name, wall in results.items():
    print("batch: jobs-%s / %s = %.2f wall (%.3f s vs %.3f s)" % (sys.argv[2], name, ours / wall, ours, wall))
# Processor time (user + system, children included) tells the cost apart from the machine's load.
for name, t in cpu.items():
    print("batch: %s processor time %.3f s" % (name, t))
EOF
if diff -r "$work/one" "$work/many" >/dev/null; then echo "batch: --jobs $jobs and --jobs 1 wrote the same bytes"
else echo "batch: --jobs $jobs and --jobs 1 differ"; exit 1; fi
