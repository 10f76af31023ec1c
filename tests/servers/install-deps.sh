#!/usr/bin/env bash
# Installs, when missing, the Debian packages the build and the tests need.
set -euo pipefail

PACKAGES=(cmake g++ make pkg-config libssl-dev openssl googletest libgtest-dev libgmock-dev
          libbenchmark-dev python3 util-linux iproute2)

missing=()
for p in "${PACKAGES[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
if [ "$(id -u)" != 0 ]; then
  echo "missing packages (run as root to install): ${missing[*]}" >&2
  exit 1
fi
export DEBIAN_FRONTEND=noninteractive
apt-get update || apt-get update || true
apt-get install -y --no-install-recommends "${missing[@]}"
