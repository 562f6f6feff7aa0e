#!/usr/bin/env bash
# Installs what the SFTP benchmark (make bench-sftp) needs beyond the build, only what is
# missing: sshd and the ssh client, and the two mounts it is compared with, sshfs and rclone.
# The package lists are refreshed only when a package cannot be found without.
set -euo pipefail

packages=(openssh-server openssh-client sshfs rclone)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "Installing missing packages: ${missing[*]}"
if [ "$(id -u)" -ne 0 ]; then
  echo "error: root is needed to install packages (run as root, or install them by hand)" >&2
  exit 1
fi
export DEBIAN_FRONTEND=noninteractive
if ! apt-get install -y -qq "${missing[@]}"; then
  apt-get update -qq
  apt-get install -y -qq "${missing[@]}"
fi
