#!/usr/bin/env bash
# Encoding quality on the same inputs: Layer II at 192 kbit/s, tovra-cli (models 1 and 2) against
# twolame; Layer III at 128 kbit/s, tovra-cli against LAME.
#
# Makes ten seconds each of a sine, a sweep, pink noise and a music-like mix (plucked chords over
# soft noise) at 44.1 kHz stereo with sox, encodes each with `tovra-cli encode --layer 2 --bitrate
# 192`, `twolame -b 192`, `tovra-cli encode --layer 3 --bitrate 128` and `lame -b 128`, decodes
# every stream with mpg123, and prints per input and encoder the SNR and a simple noise-to-mask
# ratio in dB (encode_quality.py says how they are computed; higher SNR and lower NMR are better).
#
# Usage: bench/encode_quality.sh [path/to/tovra-cli]   (default: build/release/tovra-cli)
set -euo pipefail
source "$(dirname "$0")/common.sh"
bench_start encode_quality "${1:-}" sox twolame lame mpg123 python3

make() { sox -q -n -r 44100 -c 2 -b 16 "$work/$1.wav" synth 10 "${@:2}"; }
make sine sine 1000 vol 0.5
make sweep sine 20-20000 vol 0.5
make noise pinknoise vol 0.5
sox -q -n -r 44100 -c 2 -b 16 "$work/music.wav" synth 10 pluck C3 pluck E3 pluck G3 pluck C5 pinknoise \
  tremolo 2 40 vol 0.3 fade 0 10 0.5

printf '%-7s %-13s %8s %8s\n' input encoder snr_db nmr_db
for input in sine sweep noise music; do
  in="$work/$input.wav"
  "$cli" encode "$in" "$work/m1.mpa" --layer 2 --bitrate 192 --model 1
  "$cli" encode "$in" "$work/m2.mpa" --layer 2 --bitrate 192 --model 2
  twolame --quiet -b 192 "$in" "$work/tl.mpa"
  "$cli" encode "$in" "$work/l3.mpa" --layer 3 --bitrate 128
  lame --quiet -b 128 "$in" "$work/lame.mpa"
  for enc in m1 m2 tl l3 lame; do
    mpg123 -q -w "$work/$enc.wav" "$work/$enc.mpa"
    case $enc in
      tl) name=twolame ;;
      l3) name=tovra-mp3-128 ;;
      lame) name=lame-128 ;;
      *) name="tovra-model${enc#m}" ;;
    esac
    read -r snr nmr _ < <(python3 "$here/bench/encode_quality.py" "$in" "$work/$enc.wav")
    printf '%-7s %-13s %8s %8s\n' "$input" "$name" "$snr" "$nmr"
  done
done
