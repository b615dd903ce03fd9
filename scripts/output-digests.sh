#!/usr/bin/env bash
# Prints one md5 line for every output of `tovra-cli decode`, `resample` and `split` over a fixed set
# of fixtures (made here with sox, lame, twolame and ffmpeg, repeatably) and over ../shared/vectors
# when it is present. Run it before and after a change that must not alter any output, and diff the
# two listings.
#
# Usage: scripts/output-digests.sh [path/to/tovra-cli] > digests.txt
set -uo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
cli="$(realpath "${1:-$here/build/release/tovra-cli}")"
vectors="$here/../shared/vectors"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
cd "$work"

# Fixtures: 6 s of tones, a sweep and clicks; noise is seeded (-R) so every run makes the same bytes.
for rate in 16000 22050 24000 32000 44100 48000; do
  sox -R -V1 -q -n -r $rate -c 2 -b 16 in$rate.wav synth 6 sine 440 sine 3000 vol 0.4 : \
    synth 0.05 square 50 vol 0.9 : synth 3 sine 20-$((rate / 2 - 100)) vol 0.5
done
sox -R -V1 -q -n -r 44100 -c 1 -b 16 mono.wav synth 5 pinknoise vol 0.5
fixtures=()
for rate in 16000 22050 24000 32000 44100 48000; do
  twolame --quiet -b 128 in$rate.wav l2_$rate.mp2 2>/dev/null && fixtures+=(l2_$rate.mp2)
  lame --quiet -b 128 in$rate.wav l3_$rate.mp3 && fixtures+=(l3_$rate.mp3)
done
twolame --quiet -m j -b 192 in44100.wav l2_joint.mp2 && fixtures+=(l2_joint.mp2)
lame --quiet -m j -V 2 in44100.wav l3_vbr.mp3 && fixtures+=(l3_vbr.mp3)
lame --quiet -m m -b 64 mono.wav l3_mono.mp3 && fixtures+=(l3_mono.mp3)
lame --quiet --resample 8 -b 16 mono.wav l3_8k.mp3 && fixtures+=(l3_8k.mp3)
if [ -d "$vectors" ]; then
  for v in "$vectors"/*.bit; do fixtures+=("$v"); done
fi

sum() { if [ -s "$1" ]; then md5sum <"$1" | cut -d' ' -f1; else echo "(none)"; fi; }

for f in "${fixtures[@]}"; do
  name=$(basename "$f")
  for fmt in raw wav aif au voc; do
    rm -f out.$fmt
    "$cli" decode "$f" out.$fmt --format $fmt >/dev/null 2>&1
    echo "decode $name $fmt rc=$? $(sum out.$fmt)"
  done
done

for args in "--rate 48000" "--rate 16000" "--rate 22050 --quality 0" "--rate 32000 --quality 1" \
            "--rate 8000 --bits 8 --channels 1" "--rate 96000 --quality 64"; do
  for f in in44100.wav in22050.wav mono.wav; do
    rm -f out.wav
    "$cli" resample "$f" out.wav $args >/dev/null 2>&1
    echo "resample $f $args rc=$? $(sum out.wav)"
  done
done

ffmpeg -v quiet -i in44100.wav -c:a mp2 -b:a 192k -f mpeg sys.mpg && {
  rm -f out.mp2
  "$cli" split sys.mpg out.mp2 >/dev/null 2>&1
  echo "split sys.mpg rc=$? $(sum out.mp2)"
}
exit 0
