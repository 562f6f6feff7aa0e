# Shared by the mount tests, the mount demo and the mount benchmark: mounting and
# unmounting cachemount, skipping (exit 77) where FUSE cannot be used. Source it (bash); it
# needs CACHEMOUNT (the command) and sets WORK (a fresh folder that is removed, with every
# mount left behind, when the script exits).
set -euo pipefail

SKIP=77
WORK=$(mktemp -d /tmp/cachemount-test.XXXXXX)
MOUNTS=()
PIDS=()

cleanup() {
  local mp
  for mp in "${MOUNTS[@]}"; do
    if mountpoint -q "$mp" 2>/dev/null; then umount -l "$mp" 2>/dev/null || true; fi
  done
  local pid
  for pid in "${PIDS[@]}"; do kill "$pid" 2>/dev/null || true; done
  rm -rf "$WORK"
}
trap cleanup EXIT

fail() {
  echo "FAIL: $*" >&2
  exit 1
}

step() {
  echo "--- $*"
}

# mount_store STORE MOUNTPOINT LOG [cachemount options...]: mounts in the foreground (in a
# background job) and waits until the mount shows; MOUNT_PID is the command's process.
mount_store() {
  local store=$1 mp=$2 log=$3
  shift 3
  mkdir -p "$mp"
  "$CACHEMOUNT" -f "$@" "$store" "$mp" >"$log" 2>&1 &
  MOUNT_PID=$!
  PIDS+=("$MOUNT_PID")
  MOUNTS+=("$mp")
  local i
  for i in $(seq 1 200); do
    if grep -q " $mp fuse.cachemount " /proc/mounts; then return 0; fi
    if ! kill -0 "$MOUNT_PID" 2>/dev/null; then
      cat "$log" >&2
      return 1
    fi
    sleep 0.05
  done
  cat "$log" >&2
  return 1
}

# unmount_store MOUNTPOINT LOG [SIGNAL]: unmounts (with `umount`, or by sending the command
# SIGNAL) and waits for the command, which flushes the queue before it exits; it must exit 0
# and leave nothing mounted. Prints the command's flush report.
unmount_store() {
  local mp=$1 log=$2 signal=${3:-} status=0
  if [ -n "$signal" ]; then kill "-$signal" "$MOUNT_PID"; else umount "$mp"; fi
  wait "$MOUNT_PID" || status=$?
  if [ "$status" -ne 0 ]; then
    cat "$log" >&2
    fail "cachemount exited with $status after unmounting $mp"
  fi
  ! grep -q " $mp " /proc/mounts || fail "$mp is still mounted"
  grep "flush took" "$log" || fail "no flush report in $log"
}

# store_calls LOG: asks the command for its queue statistics (SIGUSR1) and prints the count
# of store calls so far.
store_calls() {
  local log=$1 before
  before=$(grep -c "cachemount: queue" "$log" || true)
  kill -USR1 "$MOUNT_PID"
  local i
  for i in $(seq 1 200); do
    [ "$(grep -c "cachemount: queue" "$log" || true)" -le "$before" ] || break
    sleep 0.05
  done
  [ "$i" -lt 200 ] || fail "no queue statistics within 10 s of SIGUSR1"
  grep "cachemount: queue" "$log" | tail -1 | sed 's/.*store calls //'
}

# Exits with the skip code when this machine cannot mount FUSE file systems.
require_fuse() {
  if [ ! -c /dev/fuse ] || ! (exec 3<>/dev/fuse) 2>/dev/null; then
    echo "SKIP: /dev/fuse cannot be opened here; the mount tests need FUSE"
    exit $SKIP
  fi
  if [ "$(id -u)" -ne 0 ] && ! command -v fusermount3 >/dev/null; then
    echo "SKIP: not root and no fusermount3; the mount tests cannot mount"
    exit $SKIP
  fi
  mkdir -p "$WORK/probe-store"
  if ! mount_store "$WORK/probe-store" "$WORK/probe" "$WORK/probe.log" --pass-through; then
    if grep -qiE "not permitted|permission denied|device not found" "$WORK/probe.log"; then
      echo "SKIP: FUSE mounts are refused here: $(head -1 "$WORK/probe.log")"
      exit $SKIP
    fi
    fail "the probe mount failed"
  fi
  unmount_store "$WORK/probe" "$WORK/probe.log" >/dev/null
}
