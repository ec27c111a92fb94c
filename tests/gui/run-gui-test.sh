#!/usr/bin/env bash
# Runs one gui test program on a virtual display. Exit 77 (reported by CTest
# as "Skipped") when there is neither a display nor Xvfb. The environment a
# headless machine needs is set here rather than built into velko.
set -uo pipefail

export GDK_BACKEND=x11                            # Xvfb is an X server
export WEBKIT_DISABLE_SANDBOX_THIS_IS_DANGEROUS=1 # bubblewrap cannot start as root in a container
export LIBGL_ALWAYS_SOFTWARE=1                    # no GPU: Mesa's software renderer
export DBUS_SESSION_BUS_ADDRESS=disabled:         # its own instance, never forwarding to another velko
export GSETTINGS_BACKEND=memory                   # no dconf
export NO_AT_BRIDGE=1                             # no accessibility bus

if [ -n "${VELKO_GUI_USE_DISPLAY:-}" ] && [ -n "${DISPLAY:-}" ]; then
  exec "$@"
fi
if ! command -v Xvfb >/dev/null 2>&1; then
  echo "SKIPPED: gui tests need Xvfb (not found; scripts/deps.sh installs it)"
  exit 77
fi

# A private X display. Xvfb picks a free display number itself (-displayfd)
# and reports it: unlike "xvfb-run -a", no race with the other test runs that
# start displays at the same moment on this machine.
work=$(mktemp -d "${TMPDIR:-/tmp}/velko-gui.XXXXXX")
Xvfb -displayfd 3 -screen 0 1600x1000x24 -nolisten tcp 3>"$work/display" 2>"$work/xvfb.log" &
xvfb=$!
cleanup() {
  kill "$xvfb" 2>/dev/null
  wait "$xvfb" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT
for _ in $(seq 1 200); do
  [ -s "$work/display" ] && break
  kill -0 "$xvfb" 2>/dev/null || break
  sleep 0.05
done
number=$(tr -dc 0-9 <"$work/display")
if [ -z "$number" ]; then
  echo "Xvfb did not start:" >&2
  cat "$work/xvfb.log" >&2
  exit 1
fi
export DISPLAY=":$number"
"$@"  # its status is the script's: the clean-up on exit keeps it
