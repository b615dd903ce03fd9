#!/usr/bin/env bash
# The window's processor cost: tovra with its window shown, first idle with an empty playlist, then
# playing a 128 kbit/s joint-stereo MP3 (made by sox and lame) through SDL2's disk driver in real
# time, each for BENCH_SECONDS (default 30) of wall time, read from /proc as user + system time of
# the whole process over wall time, in percent of one core. Without a display it runs itself under
# xvfb-run. Prints both shares; the targets are under 1 % idle and under 3 % playing.
set -euo pipefail
cd "$(dirname "$0")/.."
bin=$(realpath "${TOVRA_BIN:-build/release/tovra}")
seconds=${BENCH_SECONDS:-30}
for tool in sox lame python3; do
  command -v "$tool" >/dev/null || { echo "window_cpu: $tool is not installed, skipped"; exit 0; }
done
[ -x "$bin" ] || { echo "window_cpu: build $bin first (cmake --build --preset release)"; exit 1; }
if [ -z "${DISPLAY:-}" ]; then
  command -v xvfb-run >/dev/null || { echo "window_cpu: no display and no xvfb-run, skipped"; exit 0; }
  exec xvfb-run -a "$0" "$@"
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -m 700 "$work/run" "$work/cfg"
sox -R -q -n -r 44100 -c 2 -b 16 "$work/src.wav" synth $((seconds + 30)) sine 110-880 sine 165-1320 vol 0.3
lame --quiet -m j -b 128 "$work/src.wav" "$work/in.mp3"

# Runs tovra with the arguments for `seconds`, then closes it; prints its share of one core.
measure() {
  python3 - "$seconds" "$bin" "$@" <<'PY'
import os, subprocess, sys, time
seconds, cmd = float(sys.argv[1]), sys.argv[2:]
p = subprocess.Popen(cmd, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
def cpu():
    with open(f"/proc/{p.pid}/stat") as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")
time.sleep(3)  # start-up and the first paint are not the steady state
c0, t0 = cpu(), time.monotonic()
time.sleep(seconds)
c1, t1 = cpu(), time.monotonic()
p.kill()
p.wait()
print("%.2f" % ((c1 - c0) * 100 / (t1 - t0)))
PY
}

export XDG_RUNTIME_DIR="$work/run" XDG_CONFIG_HOME="$work/cfg" SDL_AUDIODRIVER=disk SDL_DISKAUDIOFILE=/dev/null
idle=$(measure)
rm -f "$work/cfg/tovra/tovra.m3u"
playing=$(measure "$work/in.mp3" /P)
echo "window_cpu: idle $idle % of one core (target under 1 %)"
echo "window_cpu: playing $playing % of one core (target under 3 %)"
