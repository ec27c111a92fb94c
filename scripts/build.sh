#!/usr/bin/env bash
# Builds the web page (when its sources exist) and the program into build/.
# Arguments name the targets to build (default: everything, tests included).
set -euo pipefail
cd "$(dirname "$0")/.."

if [ -f web/package.json ]; then
  (cd web && { [ -d node_modules ] && [ node_modules/.package-lock.json -nt package-lock.json ] || npm ci --no-audit --no-fund --loglevel=error; } && npm run --silent build)
fi

werror=OFF
[ "${CI:-}" = "true" ] && werror=ON
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVELKO_WERROR=$werror >/dev/null
cmake --build build -j2 ${1:+--target "$@"}
