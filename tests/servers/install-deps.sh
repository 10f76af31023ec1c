#!/bin/bash
# Installs, as root, every Debian package the build and the tests need:
# the toolchain and libraries, and the third-party servers the real-server
# tests start on loopback. Does nothing when everything is there already.
set -u

BUILD_PACKAGES=(
  cmake g++ make pkg-config libssl-dev
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  python3 openssl util-linux iproute2 valgrind
  clang-14 libclang-rt-14-dev libcurl4-openssl-dev
  gcc-arm-linux-gnueabihf g++-arm-linux-gnueabihf libc6-dev-armhf-cross qemu-user
)
SERVER_PACKAGES=(
  nginx-light apache2 apache2-utils lighttpd vsftpd
  tftpd-hpa tftp-hpa atftp dnsmasq-base dnsutils netcat-openbsd sox
)
# Second implementations that conflict with the servers above (vsftpd,
# tftpd-hpa): unpacked, never installed.
EXTRA_DEBS=(pure-ftpd atftpd)
EXTRA_ROOT=/opt/extra-debs/root

log() { echo "install-deps: $*"; }

extra_missing() {
  [ -x "$EXTRA_ROOT/usr/sbin/pure-ftpd" ] && [ -x "$EXTRA_ROOT/usr/sbin/atftpd" ] && return 1
  return 0
}

unpack_extra() {
  mkdir -p /opt/extra-debs && (cd /opt/extra-debs && apt-get download "${EXTRA_DEBS[@]}") || return 1
  for d in /opt/extra-debs/*.deb; do dpkg-deb -x "$d" "$EXTRA_ROOT" || return 1; done
}

installed() {
  [ "$(dpkg-query -W -f='${Status}' "$1" 2>/dev/null)" = "install ok installed" ]
}

missing=()
for p in "${BUILD_PACKAGES[@]}" "${SERVER_PACKAGES[@]}"; do
  installed "$p" || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ] && ! extra_missing; then
  log "all packages present"
  exit 0
fi
log "missing: ${missing[*]}"

if [ "$(id -u)" -ne 0 ]; then
  log "must run as root to install them" >&2
  exit 1
fi
export DEBIAN_FRONTEND=noninteractive

# Package scripts must not start the system copies of the servers: they
# would take the standard ports and outlive the tests.
POLICY=/usr/sbin/policy-rc.d
own_policy=0
if [ ! -e "$POLICY" ]; then
  printf '#!/bin/sh\nexit 101\n' > "$POLICY" && chmod 755 "$POLICY" && own_policy=1
fi
cleanup() { [ "$own_policy" = 1 ] && rm -f "$POLICY"; }
trap cleanup EXIT

have_lists() { compgen -G '/var/lib/apt/lists/*_Packages*' > /dev/null; }

# A mirror in mid-sync can make one index fail; the rest is still usable.
if ! apt-get update; then
  log "apt-get update failed, retrying once"
  sleep 5
  if ! apt-get update; then
    if have_lists; then
      log "apt-get update failed again; going on with the package lists there are"
    else
      log "apt-get update failed and there are no package lists" >&2
      exit 1
    fi
  fi
fi

install_missing() {
  [ ${#missing[@]} -eq 0 ] || apt-get install -y --no-install-recommends "${missing[@]}"
}
if ! install_missing; then
  log "apt-get install failed, retrying once"
  sleep 5
  apt-get update || true
  install_missing || { log "apt-get install failed" >&2; exit 1; }
fi
log "installed: ${missing[*]}"
if extra_missing; then
  unpack_extra || { log "unpacking ${EXTRA_DEBS[*]} failed" >&2; exit 1; }
  log "unpacked: ${EXTRA_DEBS[*]} into $EXTRA_ROOT"
fi
