#!/bin/bash
# wine-run.sh PROGRAM.exe [ARGS...]: runs a Windows program in the project's own Wine prefix.
# KX_WINEPREFIX picks another prefix. Without arguments it only prepares the prefix; --stop ends whatever runs in it.
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
export WINEPREFIX=${KX_WINEPREFIX:-$root/build/wine}
export WINEDEBUG=${WINEDEBUG:--all} WINEDLLOVERRIDES='mscoree,mshtml=' LC_ALL=${KX_LC_ALL:-C.UTF-8}
if [ "${1-}" = --stop ]; then
  [ ! -d "$WINEPREFIX" ] || wineserver -k
  exit
fi
mkdir -p "$WINEPREFIX"
(
  flock 9
  # 0: this call started the server, so boot it detached from our stdout and stderr: a reader of those
  # pipes would otherwise wait for the background processes of Wine. 2: it was already running.
  if wineserver -p120 9>&- </dev/null >/dev/null 2>&1; then
    new=; [ -f "$WINEPREFIX/.update-timestamp" ] || new=1
    wine wineboot -i 9>&- </dev/null >/dev/null 2>&1
    # With the default debugger a crash sometimes exits with 0, and a crashed test would pass.
    [ -z "$new" ] || wine reg add 'HKLM\Software\Microsoft\Windows NT\CurrentVersion\AeDebug' \
      /v Debugger /t REG_SZ /d none /f 9>&- </dev/null >/dev/null 2>&1
  fi
) 9>"$WINEPREFIX.lock"
[ $# -eq 0 ] || exec wine "$@"
