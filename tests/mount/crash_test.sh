#!/usr/bin/env bash
# A crash of the mount loses no change the tools were told was made: extract 300 files over a
# folder 10 ms a call, rename a few, remove a folder, kill -9 the mount as soon as the tools
# return, mount the same folder again (which replays what its journal held), unmount; the
# folder then holds exactly what the same commands make on a plain folder.
#   crash_test.sh CACHEMOUNT
CACHEMOUNT=$1
HERE=$(cd "$(dirname "$0")" && pwd)
source "$HERE/../../mount/workload/mount_lib.sh"
source "$HERE/../../mount/workload/tool_workload.sh"
require_fuse
export XDG_CACHE_HOME="$WORK/cache"  # where the mount keeps each store's cache root

step "generate 300 files"
generate_tree "$WORK/tree" 300 6 5
tools() {
  tar -xf "$WORK/tree.tar" -C "$1"
  mv "$1/project/module0/part0/source0.txt" "$1/project/module0/part0/renamed.txt"
  mv "$1/project/module1" "$1/project/module1-renamed"
  mv "$1/project/module2/part1/source8.txt" "$1/project/module3/moved.txt"
  rm -rf "$1/project/module4"
}
mkdir -p "$WORK/expected" "$WORK/store"
tools "$WORK/expected"

step "the tools on the mount, then kill -9"
mp="$WORK/mnt"
mount_store "$WORK/store" "$mp" "$WORK/mount1.log" --latency-ms 10 || fail "cannot mount"
tools "$mp"
kill -9 "$MOUNT_PID"
wait "$MOUNT_PID" 2>/dev/null || true
umount -l "$mp" 2>/dev/null || fusermount3 -uz "$mp" 2>/dev/null || true
echo "files in the store at the kill: $(find "$WORK/store" -type f | wc -l) of $(find "$WORK/expected" -type f | wc -l)"

step "mount again, unmount"
mount_store "$WORK/store" "$mp" "$WORK/mount2.log" --latency-ms 10 || fail "cannot mount again"
unmount_store "$mp" "$WORK/mount2.log"
grep -E "replaying [0-9]+ pending changes from an earlier run" "$WORK/mount2.log" ||
  fail "the second mount did not say what it replays"
diff -r "$WORK/expected" "$WORK/store" || fail "the store differs from what the tools made"
[ -z "$(ls -A "$XDG_CACHE_HOME/cachemount")" ] || fail "a clean unmount left its cache root"
echo "PASS"
