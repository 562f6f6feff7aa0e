#!/usr/bin/env bash
# Mount benchmark (not in CI; `make bench-mount`): the tool workload
# (mount/workload/tool_workload.sh) measured side by side in one run on
#   (a) a local folder directly,
#   (b) cachemount's overlay over a local folder,
#   (c) rclone mount --vfs-cache-mode full of a local folder,
#   (d) cachemount's overlay over the in-memory store at LATENCY ms a call, against the
#       pass-through mount of the same kind of store.
# Prints seconds per step and the ratios. Targets: (b) within 2x of (a); (b) faster than (c)
# on every step; (d) overlay at least 20x faster than pass-through.
#   mount_benchmark.sh CACHEMOUNT [FILES] [MEM_FILES] [LATENCY_MS]
CACHEMOUNT=$1
FILES=${2:-2000}
MEM_FILES=${3:-100}
LATENCY=${4:-10}
HERE=$(cd "$(dirname "$0")" && pwd)
source "$HERE/../mount/workload/mount_lib.sh"
source "$HERE/../mount/workload/tool_workload.sh"
require_fuse
export HOME="$WORK"

if ! command -v rclone >/dev/null; then
  echo "Installing rclone (the comparison's other mount)..."
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq rclone >/dev/null
fi

# run_rclone NAME FOLDER: the workload on rclone's mount of the folder; the unmount step
# waits for rclone to exit, having written its cache back.
run_rclone() {
  local name=$1 folder=$2 mp="$WORK/mnt-$1" log="$WORK/$1.log"
  mkdir -p "$folder" "$mp"
  rclone mount "$folder" "$mp" --vfs-cache-mode full --cache-dir "$WORK/rclone-cache" \
    --config /dev/null >"$log" 2>&1 &
  local pid=$!
  PIDS+=("$pid")
  MOUNTS+=("$mp")
  until grep -q " $mp fuse.rclone " /proc/mounts; do
    kill -0 "$pid" 2>/dev/null || fail "rclone did not mount: $(cat "$log")"
    sleep 0.05
  done
  run_workload "$mp" "$WORK/tree.tar" "$WORK/copy-$name" >"$WORK/$name.steps"
  rclone_unmount() { umount "$mp" && wait "$pid"; }
  timed_step unmount rclone_unmount >>"$WORK/$name.steps"
  check_copy "$name"
}

echo "Generating $FILES files in 280 folders..."
generate_tree "$WORK/tree" "$FILES"
echo "(a) local folder"
run_in_folder direct "$WORK/direct"
echo "(b) overlay over a local folder"
mkdir -p "$WORK/overlay-store"
run_on_mount overlay "$WORK/overlay-store"
diff -r --exclude=.git "$WORK/tree/project" "$WORK/overlay-store/project" >/dev/null ||
  fail "the folder behind the overlay differs from the tree"
echo "(c) rclone mount --vfs-cache-mode full of a local folder"
run_rclone rclone "$WORK/rclone-store"
diff -r --exclude=.git "$WORK/tree/project" "$WORK/rclone-store/project" >/dev/null ||
  echo "note: the folder behind rclone's mount differs from the tree after unmounting"
step_table "(a)-(c): $FILES files; ratios against the overlay (above 1: the overlay was faster)" \
  overlay direct rclone

rm -rf "$WORK/tree" "$WORK/tree.tar" "$WORK"/copy-*
echo
echo "(d) in-memory store, $LATENCY ms a call, $MEM_FILES files in 12 folders"
generate_tree "$WORK/tree" "$MEM_FILES" 4 3
run_on_mount mem-overlay mem: --latency-ms "$LATENCY"
run_on_mount mem-pass mem: --latency-ms "$LATENCY" --pass-through
step_table "(d): ratios against the overlay (above 1: the overlay was faster)" mem-overlay mem-pass
echo "  the overlay's store calls by the time the workload returned: $(step_value mem-overlay calls-when-done)"
