#!/usr/bin/env bash
# Installs the Debian packages the build needs, only those that are missing.
# Runs as root on a fresh Debian 12 machine; a no-op when everything is present.
# With the argument "fuzz", also clang and its runtime libraries (libFuzzer and the
# sanitizers), which only the fuzz build (make fuzz) needs. With "bench-sftp", also sshfs and
# rclone, the mounts the SFTP benchmark (make bench-sftp) compares the overlay with.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config ccache
  libgtest-dev libgmock-dev libbenchmark-dev
  libboost-dev libboost-log-dev libboost-date-time-dev libboost-iostreams-dev
  libboost-filesystem-dev libboost-thread-dev
  libcrypto++-dev libicu-dev libfuse3-dev libboost-program-options-dev
  fuse3 git tar grep diffutils
  # The sftp store (providers/sftp) and its tests, which start a real sshd.
  libssh-dev openssh-server openssh-client
  # The public file-system suites (make peer-test, tests/peer): fsx and pjdfstest are built
  # from source with autotools, and pjdfstest's .t files run under perl's prove.
  autoconf automake perl
  # The fio benchmark (make bench-fio).
  fio
)
if [ "${1:-}" = "fuzz" ]; then
  # libclang-rt-14-dev carries libFuzzer; clang only recommends it, and recommendations are
  # not installed below.
  packages+=(clang libclang-rt-14-dev)
fi
if [ "${1:-}" = "bench-sftp" ]; then
  packages+=(sshfs rclone)
fi

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

# Node.js validates the bundle manifest. Checked by command, not by package: some machines
# carry a Node.js build whose own npm conflicts with Debian's separate npm package.
if ! command -v node >/dev/null 2>&1 || ! command -v npm >/dev/null 2>&1; then
  missing+=(nodejs npm)
fi

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "Installing missing packages: ${missing[*]}"
if [ "$(id -u)" -ne 0 ]; then
  echo "error: root is needed to install packages (run as root, or install them by hand)" >&2
  exit 1
fi
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}"
