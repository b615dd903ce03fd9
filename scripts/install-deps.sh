#!/usr/bin/env bash
# Installs what a fresh Debian machine lacks to build, run and test TOVRA. Installs only what is
# missing, so a second run costs one dpkg query.
set -euo pipefail
packages=(
  g++ clang libclang-rt-14-dev cmake ninja-build pkg-config
  libgtest-dev libgmock-dev libbenchmark-dev
  libsdl2-dev
  libgtk-3-dev xvfb xauth xdotool imagemagick fonts-ipafont-gothic python3-pil
  mpg123 lame twolame sox ffmpeg hyperfine
  dbus-daemon playerctl desktop-file-utils appstream man-db
  clang-format gettext
)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  sudo_cmd=""
  [ "$(id -u)" -ne 0 ] && sudo_cmd="sudo"
  $sudo_cmd apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
