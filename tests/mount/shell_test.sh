#!/usr/bin/env bash
# The shell operations (shell_operations.sh) give the same transcript on a plain folder, on
# the overlay over a folder, on the overlay over a slow in-memory store, and on a
# pass-through mount, unmounted with umount, SIGTERM and SIGHUP (a background job ignores
# SIGINT); after unmounting, the folder behind the overlay holds exactly what the plain
# folder holds. The errno checks and a random read/write/truncate check against a model run
# on the same mounts, and so do the checks of what POSIX programs expect of files removed while
# open, change times, link counts and impossible sizes. As root, each mount's kernel read-ahead
# must be the one the mount sets.
#   shell_test.sh CACHEMOUNT MOUNT_CHECK [RANDOM_OPERATIONS]
CACHEMOUNT=$1
MOUNT_CHECK=$2
RANDOM_OPERATIONS=${3:-3000}
HERE=$(cd "$(dirname "$0")" && pwd)
source "$HERE/../../mount/workload/mount_lib.sh"
require_fuse

transcript() {
  (cd "$1" && bash "$HERE/shell_operations.sh") >"$2"
}

step "plain folder"
mkdir -p "$WORK/plain"
transcript "$WORK/plain" "$WORK/plain.txt"

# check_mount NAME STORE UNMOUNT_SIGNAL [cachemount options]: an empty signal unmounts with
# `umount`.
check_mount() {
  local name=$1 store=$2 signal=$3
  shift 3
  local mp="$WORK/mnt-$name" log="$WORK/$name.log"
  step "$name"
  mount_store "$store" "$mp" "$log" "$@" || fail "cannot mount $name"
  transcript "$mp" "$WORK/$name.txt"
  diff -u "$WORK/plain.txt" "$WORK/$name.txt" || fail "$name: transcript differs from a plain folder"
  if [ "$(id -u)" -eq 0 ]; then  # only root may set it
    local device
    device=$(awk -v mp="$mp" '$5 == mp { print $3 }' /proc/self/mountinfo | tail -1)
    [ "$(cat "/sys/class/bdi/$device/read_ahead_kb")" -eq 1024 ] ||
      fail "$name: the kernel's read-ahead is not the 1,024 KiB the mount sets"
  fi
  mkdir "$mp/errnos"
  "$MOUNT_CHECK" errnos "$mp/errnos" || fail "$name: errnos"
  mkdir "$mp/posix"
  "$MOUNT_CHECK" posix "$mp/posix" || fail "$name: posix semantics"
  rm -rf "$mp/posix"
  "$MOUNT_CHECK" random "$mp/random.bin" "$WORK/$name.model" 7 "$RANDOM_OPERATIONS" ||
    fail "$name: random check"
  store_calls "$log" >/dev/null
  unmount_store "$mp" "$log" "$signal"
}

mkdir -p "$WORK/inner"
check_mount overlay-file "$WORK/inner" ""
step "the folder behind the overlay holds what was written"
rm -rf "$WORK/inner/errnos"
cmp "$WORK/inner/random.bin" "$WORK/overlay-file.model" || fail "random.bin differs in the store"
rm "$WORK/inner/random.bin"
diff -r "$WORK/plain" "$WORK/inner" || fail "the store differs from the plain folder"

step "a truncation to 1 GiB costs no blocks in the cache or the store"
mkdir -p "$WORK/sparse-store" "$WORK/sparse-cache"
mount_store "$WORK/sparse-store" "$WORK/mnt-sparse" "$WORK/sparse.log" \
  --cache-root "$WORK/sparse-cache" || fail "cannot mount for the sparse check"
truncate -s 1G "$WORK/mnt-sparse/sparse" || fail "truncate -s 1G"
[ "$(stat -c %s "$WORK/mnt-sparse/sparse")" -eq 1073741824 ] || fail "the mount's size is not 1 GiB"
cached=$(du -s --block-size=1K "$WORK/sparse-cache" | cut -f1)
unmount_store "$WORK/mnt-sparse" "$WORK/sparse.log" >/dev/null
stored=$(du -s --block-size=1K "$WORK/sparse-store/sparse" | cut -f1)
[ "$(stat -c %s "$WORK/sparse-store/sparse")" -eq 1073741824 ] || fail "the store's size is not 1 GiB"
[ "$cached" -lt 1024 ] && [ "$stored" -lt 1024 ] ||
  fail "a 1 GiB hole took $cached KiB in the cache and $stored KiB in the store"

check_mount overlay-mem mem: TERM --latency-ms 2
mkdir -p "$WORK/passthrough"
check_mount pass-through "$WORK/passthrough" HUP --pass-through
echo "PASS"
