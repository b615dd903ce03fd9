#!/usr/bin/env bash
# Drives the completion function as bash would: commands, a command's options, fixed values.
# Every command that tovra-cli --help lists must have its row in the tables.
# Usage: completion_check.sh COMPLETION_FILE TOVRA_CLI
set -euo pipefail
source "$1"
for command in $("$2" --help | sed -n 's/^  \([a-z][a-z-]*\) .*/\1/p'); do
  [[ -v "_tovra_cli_options[$command]" ]] || { echo "no completion for tovra-cli $command"; exit 1; }
done
complete_words() {
  COMP_WORDS=("$@")
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
  COMPREPLY=()
  _tovra_cli
  echo "${COMPREPLY[*]}"
}
expect() {
  local want=$1
  shift
  local got
  got=$(complete_words "$@")
  [ "$got" = "$want" ] || { echo "tovra-cli ${*:2}: got '$got', want '$want'"; exit 1; }
}
expect "resample" tovra-cli res
expect "--version" tovra-cli --v
expect "--no-emphasis" tovra-cli play --no
expect "raw wav aif au voc" tovra-cli decode in.mp3 out.wav --format ""
expect "8 16" tovra-cli resample in.wav out.wav --bits ""
expect "--save" tovra-cli settings --s
expect "stereo joint mono" tovra-cli encode in.wav out.mp2 --mode ""
echo ok
