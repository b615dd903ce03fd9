#!/usr/bin/env bash
# Installs the build into a scratch prefix and uses what landed there: the programs run, the
# manual pages format, and the desktop's files are where the desktop looks for them.
# Usage: install_check.sh BUILD_DIR VERSION
set -euo pipefail
build=$1 version=$2
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build" --prefix "$prefix" >/dev/null

out=$("$prefix/bin/tovra-cli" --version)
[ "$out" = "tovra-cli $version" ] || { echo "tovra-cli --version said: $out"; exit 1; }
for page in tovra-cli tovra; do
  [ -f "$prefix/share/man/man1/$page.1" ] || { [ "$page" = tovra ] && [ ! -x "$prefix/bin/tovra" ] && continue; echo "no page $page"; exit 1; }
  text=$(MANWIDTH=80 man -l "$prefix/share/man/man1/$page.1" 2>&1 | col -b)
  grep -q "^NAME" <<<"$text" || { echo "$page.1 does not format:"; echo "$text"; exit 1; }
  ! grep -q "@[A-Z_]*@" "$prefix/share/man/man1/$page.1" || { echo "$page.1 has unfilled fields"; exit 1; }
done
grep -q "^tovra $version" <<<"$(MANWIDTH=80 man -l "$prefix/share/man/man1/tovra-cli.1" | col -b | tail -1)" ||
  { echo "tovra-cli.1 lacks its version"; exit 1; }
[ -f "$prefix/share/bash-completion/completions/tovra-cli" ]
# The installed program finds its catalogue under the prefix.
said=$(LC_ALL= LANGUAGE= LANG=ja_JP.UTF-8 "$prefix/bin/tovra-cli" decode "$prefix/none.mp3" "$prefix/o.wav" 2>&1 || true)
[ "$said" = "TOVRA: '$prefix/none.mp3'が開けない" ] || { echo "a Japanese locale got: $said"; exit 1; }

if [ -x "$prefix/bin/tovra" ]; then
  for f in share/applications/tovra.desktop share/metainfo/org.tovra.tovra.metainfo.xml \
           share/icons/hicolor/48x48/apps/tovra.png share/icons/hicolor/256x256/apps/tovra.png; do
    [ -f "$prefix/$f" ] || { echo "missing $f"; exit 1; }
  done
  [ -d "$prefix/lib/tovra/Plugins" ] || [ -d "$prefix/lib64/tovra/Plugins" ] ||
    ls -d "$prefix"/lib/*/tovra/Plugins >/dev/null 2>&1 || { echo "no plug-in folder"; exit 1; }
fi
echo ok
