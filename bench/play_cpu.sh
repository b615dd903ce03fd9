#!/usr/bin/env bash
# Playing cost: a five-minute 128 kbit/s joint-stereo 44.1 kHz MP3 (made by sox and lame) played in
# real time through SDL2's disk driver by tovra-cli play and by ffplay (the same SDL2 driver), each
# run measured for processor time (user + system of the whole process, its audio threads included)
# over wall time, as a percentage of one core. tovra-cli also reports the time from its start to
# the first primed blocks running at the device.
#
# Playing in real time takes as long as the music: by default each player plays the first
# BENCH_SECONDS (60) seconds and is then stopped as a user would stop it; BENCH_SECONDS=300 plays
# the whole file. Prints TOVRA's share of a core over ffplay's.
set -euo pipefail
source "$(dirname "$0")/common.sh"
seconds=${BENCH_SECONDS:-60}
bench_start play_cpu "${1:-}" sox lame python3
# Music-like input: a slow chord sweep over pink noise, different in the two channels.
sox -R -q -n -r 44100 -c 2 -b 16 "$work/src.wav" synth 300 sine 110-880 sine 165-1320 synth pinknoise mix vol 0.2
lame --quiet -m j -b 128 "$work/src.wav" "$work/in.mp3"

# Runs one player for at most `seconds` of wall time (then SIGINT, a user's stop), and prints
# "name cpu_seconds wall_seconds" from the child's resource usage.
measure() {
  python3 - "$seconds" "$@" <<'EOF'
import os, resource, signal, subprocess, sys, time
seconds, name, cmd = float(sys.argv[1]), sys.argv[2], sys.argv[3:]
env = dict(os.environ, SDL_AUDIODRIVER="disk", SDL_DISKAUDIOFILE=os.devnull)
start = time.monotonic()
p = subprocess.Popen(cmd, env=env, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
try:
    _, err = p.communicate(timeout=seconds)
except subprocess.TimeoutExpired:
    p.send_signal(signal.SIGINT)
    _, err = p.communicate()
wall = time.monotonic() - start
usage = resource.getrusage(resource.RUSAGE_CHILDREN)
for line in err.decode(errors="replace").splitlines():
    if line.startswith("timing:"):
        print("play_cpu: tovra " + line[len("timing: "):], file=sys.stderr)
print(name, usage.ru_utime + usage.ru_stime, wall)
EOF
}

results=$(measure tovra "$cli" play --timing "$work/in.mp3")
if command -v ffplay >/dev/null; then
  results+=$'\n'$(measure ffplay ffplay -v quiet -nodisp -autoexit "$work/in.mp3")
fi
python3 - <<EOF
rows = {}
for line in """$results""".strip().splitlines():
    name, cpu, wall = line.split()
    rows[name] = (float(cpu), float(wall))
for name, (cpu, wall) in rows.items():
    print("play_cpu: %s %.2f %% of one core (%.3f s processor over %.1f s playing)" % (name, cpu * 100 / wall, cpu, wall))
if "ffplay" in rows:
    ours, peer = rows["tovra"], rows["ffplay"]
    print("play_cpu: tovra / ffplay = %.2f processor share" % ((ours[0] / ours[1]) / (peer[0] / peer[1])))
EOF
