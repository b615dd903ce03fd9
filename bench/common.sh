# The start every benchmark shares; source it, then call
#   bench_start NAME "${1:-}" TOOL...
# It sets cli (the given path, else $TOVRA_CLI, else build/release/tovra-cli, made absolute) and here
# (the repository's top folder, which becomes the current one), skips the benchmark (exit 0) when a
# peer or tool is missing, fails it (exit 1) when tovra-cli is not built, and makes $work, a
# temporary folder removed at exit.
bench_start() {
  local name=$1 given=$2
  shift 2
  cli=$(realpath -m "${given:-${TOVRA_CLI:-$(dirname "${BASH_SOURCE[0]}")/../build/release/tovra-cli}}")
  here=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
  cd "$here"
  local tool
  for tool in "$@"; do
    command -v "$tool" >/dev/null || { echo "$name: $tool is not installed, skipped"; exit 0; }
  done
  [ -x "$cli" ] || { echo "$name: no tovra-cli at $cli (cmake --build --preset release)"; exit 1; }
  work=$(mktemp -d)
  trap 'rm -rf "$work"' EXIT
}
