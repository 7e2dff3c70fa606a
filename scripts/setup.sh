#!/usr/bin/env bash
# Installs the Debian packages Skelvo needs to build, test and run.
# Idempotent: prints nothing and installs nothing when everything is present.
set -euo pipefail

# glib-networking gives GIO its GNOME and libproxy proxy resolvers (without it GIO's resolver
# answers "direct" for everything); gsettings-desktop-schemas holds GNOME's proxy settings.
# inotify-tools: bench/monitor_bench.py compares the folder monitor with inotifywait.
# openssh-server and python3-paramiko: the SFTP tests start their own servers on loopback;
# zip and unzip check archives in tests and are the zip benchmark's peer.
# imagemagick: bench/images_bench.py times the image actions against mogrify.
packages=(
  build-essential cmake ninja-build ccache pkg-config git clang-format
  qt6-base-dev qt6-base-dev-tools libgl-dev
  libsqlite3-dev sqlite3
  qtkeychain-qt6-dev
  googletest libgtest-dev libgmock-dev
  nlohmann-json3-dev
  ruby python3
  libvips-dev libvips-tools libwebp-dev libglib2.0-dev
  libglib2.0-bin gvfs dbus
  glib-networking gsettings-desktop-schemas
  inotify-tools
  libminizip-dev zlib1g-dev libssh2-1-dev
  openssh-server openssh-client python3-paramiko zip unzip
  imagemagick
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=()
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "setup: need root or sudo to install: ${missing[*]}" >&2; exit 1; }
  sudo=(sudo)
fi
echo "setup: installing ${missing[*]}" >&2
log=$(mktemp)
if ! { "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -qq && \
       "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"; } >"$log" 2>&1; then
  cat "$log" >&2
  rm -f "$log"
  exit 1
fi
rm -f "$log"
