#!/usr/bin/env bash
# Runs one gui test program on a virtual display. Exit 77 (reported by CTest
# as "Skipped") when there is neither a display nor xvfb-run.
#
# The environment a headless machine needs, documented here rather than built
# into velko:
#   xvfb-run -a -s "-screen 0 1600x1000x24"    a private X display per run
#   GDK_BACKEND=x11                             Xvfb is an X server
#   WEBKIT_DISABLE_SANDBOX_THIS_IS_DANGEROUS=1  the web process sandbox
#                                               (bubblewrap) cannot start as
#                                               root inside a container
#   LIBGL_ALWAYS_SOFTWARE=1                     no GPU: Mesa's software renderer
#   DBUS_SESSION_BUS_ADDRESS=disabled:          no session bus, so the program
#                                               runs as its own instance and
#                                               never forwards to another velko
#   GSETTINGS_BACKEND=memory, NO_AT_BRIDGE=1    no dconf or accessibility bus
set -uo pipefail

export GDK_BACKEND=x11
export WEBKIT_DISABLE_SANDBOX_THIS_IS_DANGEROUS=1
export LIBGL_ALWAYS_SOFTWARE=1
export DBUS_SESSION_BUS_ADDRESS=disabled:
export GSETTINGS_BACKEND=memory
export NO_AT_BRIDGE=1

if [ -n "${VELKO_GUI_USE_DISPLAY:-}" ] && [ -n "${DISPLAY:-}" ]; then
  exec "$@"
fi
if ! command -v xvfb-run >/dev/null 2>&1; then
  echo "SKIPPED: gui tests need Xvfb (xvfb-run not found; scripts/deps.sh installs it)"
  exit 77
fi
exec xvfb-run -a -s "-screen 0 1600x1000x24 -nolisten tcp" "$@"
