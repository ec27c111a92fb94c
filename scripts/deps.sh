#!/usr/bin/env bash
# Installs what velko needs to build, run and test, and only what is missing.
# Debian 12, as root (or with sudo). Safe to run again and again.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config git zsh
  # Without a CJK font every Japanese label of the window is a row of empty boxes.
  fonts-noto-cjk
  libgtk-4-dev libwebkitgtk-6.0-dev libjavascriptcoregtk-6.0-dev
  nlohmann-json3-dev libcurl4-openssl-dev libssl-dev libsecret-1-dev libxml2-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  xvfb xauth libxtst-dev ibus gnome-keyring dbus dbus-x11 libsecret-tools
  # The account's tests: the fake GitHub (python3), its TLS certificate
  # (openssl) and the test browser's hand-off (gio, from libglib2.0-bin).
  python3 openssl libglib2.0-bin
  chromium locales
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
# Node and npm may come from another packaging of Node; only the commands matter.
if ! command -v node >/dev/null 2>&1 || ! command -v npm >/dev/null 2>&1; then
  missing+=(nodejs npm)
fi

if [ ${#missing[@]} -gt 0 ]; then
  echo "velko: installing ${missing[*]}"
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

# The git tests read git's messages under a German locale (velko must classify
# them the same in any language): generate de_DE.UTF-8 once.
if ! locale -a 2>/dev/null | grep -qix 'de_DE.utf8'; then
  echo "velko: generating the de_DE.UTF-8 locale"
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  if grep -q '^# *de_DE.UTF-8 UTF-8' /etc/locale.gen; then
    $SUDO sed -i 's/^# *de_DE.UTF-8 UTF-8/de_DE.UTF-8 UTF-8/' /etc/locale.gen
  elif ! grep -q '^de_DE.UTF-8 UTF-8' /etc/locale.gen; then
    echo 'de_DE.UTF-8 UTF-8' | $SUDO tee -a /etc/locale.gen >/dev/null
  fi
  $SUDO locale-gen >/dev/null
fi
