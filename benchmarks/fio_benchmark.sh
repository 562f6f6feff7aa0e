#!/usr/bin/env bash
# fio benchmark (not in CI; `make bench-fio`): the same three fio jobs, side by side in one
# run, on a plain folder and on cachemount's overlay over a folder:
#   seq write   SIZE in 1 MiB blocks, fsync at the end (end_fsync=1)
#   seq reread  the same file at once, as written (warm: the folder's page cache, the mount's
#               content cache)
#   seq read    the same file, cold: the page cache dropped, and for the mount a fresh mount
#               (its content cache starts empty, so the bytes come from the folder behind)
#   rand read   4 KiB random reads of the file for SECONDS, the page cache dropped again (the
#               mount's content cache now holds the file)
# Prints MiB/s or IOPS and the ratio mount/folder (1 = as fast as the folder). Runs as root
# (drop_caches); exits 77 where FUSE cannot be used.
#   fio_benchmark.sh CACHEMOUNT [SIZE_MIB] [SECONDS]
CACHEMOUNT=$1
SIZE_MIB=${2:-1024}
SECONDS_RANDOM=${3:-20}
HERE=$(cd "$(dirname "$0")" && pwd)
source "$HERE/../mount/workload/mount_lib.sh"
command -v fio >/dev/null || fail "fio is missing (scripts/install-deps.sh installs it)"
[ "$(id -u)" -eq 0 ] || {
  echo "SKIP: the benchmark drops the page cache, which needs root"
  exit $SKIP
}
require_fuse

drop_caches() {
  sync
  echo 3 >/proc/sys/vm/drop_caches
}

# fio_job NAME DIR fio-options...: runs one job on DIR/bench.bin and prints its figure,
# MiB/s for sequential jobs and IOPS for random ones, read from fio's terse output (field 7
# read KiB/s, 8 read IOPS, 48 write KiB/s).
fio_job() {
  local name=$1 dir=$2
  shift 2
  local line
  line=$(fio --name="$name" --filename="$dir/bench.bin" --size="${SIZE_MIB}M" \
    --ioengine=psync --minimal "$@") || fail "fio $name on $dir failed"
  case $name in
    seq-write) awk -F';' '{printf "%.1f", $48 / 1024}' <<<"$line" ;;
    seq-read | seq-reread) awk -F';' '{printf "%.1f", $7 / 1024}' <<<"$line" ;;
    rand-read) awk -F';' '{printf "%.0f", $8}' <<<"$line" ;;
  esac
}

# run_all WHERE DIR [remount]: the three jobs on DIR; with "remount", DIR is the mount over
# $WORK/store, unmounted and mounted again before the cold read.
declare -A RESULT
run_all() {
  local where=$1 dir=$2 remount=${3:-}
  RESULT[$where-seq-write]=$(fio_job seq-write "$dir" --rw=write --bs=1M --end_fsync=1)
  # Read back at once, as a program reads what it just wrote: the folder from the page cache,
  # the mount through FUSE from its content cache.
  RESULT[$where-seq-reread]=$(fio_job seq-reread "$dir" --rw=read --bs=1M)
  if [ -n "$remount" ]; then
    unmount_store "$dir" "$WORK/mount.log" >"$WORK/flush-1.txt"
    echo "  after writing: $(sed 's/^cachemount: //' "$WORK/flush-1.txt")"
    drop_caches
    mount_store "$WORK/store" "$dir" "$WORK/mount.log" --cache-root "$WORK/cache" ||
      fail "cannot mount again"
  fi
  drop_caches
  RESULT[$where-seq-read]=$(fio_job seq-read "$dir" --rw=read --bs=1M)
  drop_caches
  RESULT[$where-rand-read]=$(fio_job rand-read "$dir" --rw=randread --bs=4k \
    --runtime="$SECONDS_RANDOM" --time_based)
}

echo "fio: ${SIZE_MIB} MiB file, random reads for ${SECONDS_RANDOM} s"
echo "(a) plain folder"
mkdir -p "$WORK/folder"
run_all folder "$WORK/folder"
rm -f "$WORK/folder/bench.bin"

echo "(b) overlay over a folder"
mkdir -p "$WORK/store" "$WORK/cache"
mount_store "$WORK/store" "$WORK/mnt" "$WORK/mount.log" --cache-root "$WORK/cache" ||
  fail "cannot mount"
run_all mount "$WORK/mnt" remount
unmount_store "$WORK/mnt" "$WORK/mount.log" >/dev/null

printf '%-46s %10s %10s %13s\n' job folder mount mount/folder
for job in seq-write seq-reread seq-read rand-read; do
  case $job in
    seq-write) label="seq write, 1 MiB blocks, end_fsync" unit="MiB/s" ;;
    seq-reread) label="seq read just after writing" unit="MiB/s" ;;
    seq-read) label="seq read, 1 MiB blocks, cold" unit="MiB/s" ;;
    rand-read) label="random read, 4 KiB" unit="IOPS" ;;
  esac
  f=${RESULT[folder-$job]} m=${RESULT[mount-$job]}
  printf '%-46s %10s %10s %13s\n' "$label ($unit)" "$f" "$m" \
    "$(awk -v m="$m" -v f="$f" 'BEGIN { if (f > 0) printf "%.2f", m / f; else print "-" }')"
done
