#!/bin/sh
# Runs a Windows program under Wine: no display, no debug chatter, and a
# prefix of its own that is made once, under a lock, on first use.
# Usage: wine-run.sh PROGRAM.exe [ARGS...]
set -eu
: "${BRIVANTA_WINEPREFIX:=${TMPDIR:-/tmp}/brivanta-wine-$(id -u)}"
export WINEPREFIX="$BRIVANTA_WINEPREFIX"
export WINEDEBUG=-all
# No installer dialogs for the .NET and HTML runtimes; nothing here uses them.
export WINEDLLOVERRIDES="mscoree,mshtml="
unset DISPLAY WAYLAND_DISPLAY
if [ ! -f "$WINEPREFIX/system.reg" ]; then
  mkdir -p "$(dirname "$WINEPREFIX")"
  (
    flock 9
    if [ ! -f "$WINEPREFIX/system.reg" ]; then
      wineboot --init >/dev/null 2>&1 || true
      wineserver -w
    fi
  ) 9>"$WINEPREFIX.lock"
fi
exec wine "$@"
