#!/usr/bin/env bash
# Runs the public file-system suites on cachemount: fsx (random reads, writes, truncations
# and mmap on one file, every read checked against fsx's model of the file) and pjdfstest
# (POSIX conformance of each system call: each .t file under prove, PJD_JOBS (8) at once on
# one mount; an error line in the mount's log fails the run). The suites are not part of
# the project: they are found in the folder PEER_SUITES names, else in
# <repo>/../shared/peer, and built once into BUILD_DIR/peer-suites with that folder's
# build.sh. Exits 77 (skipped) when the suites or FUSE are missing or when not root.
#
#   peer_suites.sh CACHEMOUNT BUILD_DIR fsx [--ops N] [--stores "folder mem"] [--reopen-every N]
#   peer_suites.sh CACHEMOUNT BUILD_DIR pjdfstest [--stores "folder mem"] [--dirs "chmod open"]
#
# fsx: every configuration (mmap on, mmap off, 16 MiB file with 1 MiB operations, reopening)
# runs on a mount of its own with a fixed seed, on each store (a folder, and mem: with
# --latency-ms 1). After the run the file is read through the mount; after unmounting, the
# folder store's file must hold the same bytes, the command must have exited 0 and its log
# must hold no error-level line. pjdfstest: a .t file that fails fails the run unless
# pjdfstest-expected-failures.txt names it; a named file that passes is reported as "now
# passes". A mount that dies is a failure in both suites; the log's tail is printed and the
# suite goes on with a fresh mount.
CACHEMOUNT=$1
BUILD_DIR=$2
SUITE=$3
shift 3
HERE=$(cd "$(dirname "$0")" && pwd)
REPO=$(cd "$HERE/../.." && pwd)
source "$REPO/mount/workload/mount_lib.sh"

OPS=20000
STORES="folder mem"
REOPEN_EVERY=100
DIRS=""
# pjdfstest files run at once on one mount.
PJD_JOBS=${PJD_JOBS:-8}
while [ $# -gt 0 ]; do
  case $1 in
    --ops) OPS=$2 ;;
    --stores) STORES=$2 ;;
    --reopen-every) REOPEN_EVERY=$2 ;;
    --dirs) DIRS=$2 ;;
    *) fail "unknown option $1" ;;
  esac
  shift 2
done
case $SUITE in fsx | pjdfstest) ;; *) fail "unknown suite '$SUITE' (fsx or pjdfstest)" ;; esac

# Unmounts and removes everything, however the script ends. A mount whose command died
# stays in /proc/mounts with its connection gone, where mount_lib's cleanup (which asks
# `mountpoint`) does not see it; and a command still flushing into WORK when rm -rf runs
# would leave WORK behind, so each command is waited for first.
peer_cleanup() {
  local status=$? mp pid i
  for mp in "${MOUNTS[@]}"; do
    if grep -q " $mp fuse" /proc/mounts; then umount -l "$mp" 2>/dev/null || true; fi
  done
  for pid in "${PIDS[@]}"; do
    kill "$pid" 2>/dev/null || continue
    for i in $(seq 1 100); do
      kill -0 "$pid" 2>/dev/null || break
      sleep 0.1
    done
    kill -9 "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
  done
  if grep -q " $WORK/space tmpfs" /proc/mounts; then umount -l "$WORK/space" || true; fi
  rm -rf "$WORK" || echo "peer_suites.sh: could not remove $WORK" >&2
  exit "$status"
}
trap peer_cleanup EXIT
trap 'echo "peer_suites.sh: stopped by a failing command at line $LINENO" >&2' ERR

# The folder PEER_SUITES names when it holds the suites, else the shared one beside the
# repository.
find_suites() {
  local default="$REPO/../shared/peer"
  if [ -n "${PEER_SUITES:-}" ] && [ -f "$PEER_SUITES/build.sh" ]; then
    SUITES=$(cd "$PEER_SUITES" && pwd)
  elif [ -f "$default/build.sh" ]; then
    SUITES=$(cd "$default" && pwd)
  else
    echo "SKIP: the public suites (fsx, pjdfstest) are in neither PEER_SUITES" \
      "(${PEER_SUITES:-not set}) nor $default"
    exit $SKIP
  fi
}

# Builds the suites into BUILD_DIR/peer-suites unless a build newer than every source file
# is there. The lock keeps two suites started together from building over each other.
build_suites() {
  OUT="$(cd "$BUILD_DIR" && pwd)/peer-suites"
  mkdir -p "$OUT"
  exec 9>"$OUT.lock"
  flock 9
  if [ -x "$OUT/fsx" ] && [ -x "$OUT/pjdfstest-src/pjdfstest" ] && [ -f "$OUT/.built" ] &&
    [ -z "$(find "$SUITES" -newer "$OUT/.built" -print -quit)" ]; then
    echo "--- suites already built in $OUT"
  else
    step "building the suites from $SUITES into $OUT"
    rm -f "$OUT/.built"
    bash "$SUITES/build.sh" "$OUT" >"$WORK/build-suites.log" 2>&1 || {
      cat "$WORK/build-suites.log" >&2
      fail "cannot build the suites (needs gcc, autoconf, automake: scripts/install-deps.sh)"
    }
    touch "$OUT/.built"
  fi
  flock -u 9
}

FAILURES=()
failed() {
  echo "FAIL: $*" >&2
  FAILURES+=("$*")
}

# True while the mount's command runs (a command that died is a zombie until waited for,
# so kill -0 alone would still find it).
mount_alive() {
  local state
  state=$(ps -o stat= -p "$MOUNT_PID" 2>/dev/null || true)
  [ -n "$state" ] && [[ $state != Z* ]]
}

# report_crash NAME MOUNTPOINT LOG: the mount died; records it with its exit status and the
# log's tail and detaches what is left of the mount.
report_crash() {
  local name=$1 mp=$2 log=$3 status=0
  wait "$MOUNT_PID" 2>/dev/null || status=$?
  umount -l "$mp" 2>/dev/null || true
  failed "$name: the mount died (exit status $status$([ "$status" -gt 128 ] &&
    echo ", signal $((status - 128))")); its log ends with:"
  tail -n 30 "$log" | sed 's/^/    /' >&2 || true
}

# Error-level lines of the mount's log: the framework prints "[channel] 512: message" for
# severity error (512) on stderr, which mount_store sends to the log.
ERROR_LINE='^\[[^]]+\] 512: '
error_lines() {
  grep -cE "$ERROR_LINE" "$1" || true
}

# finish_mount NAME MOUNTPOINT LOG: unmounts; the command must exit 0. Returns 1 (after
# recording the failure) otherwise.
finish_mount() {
  local name=$1 mp=$2 log=$3 status=0
  if ! mount_alive; then
    report_crash "$name" "$mp" "$log"
    return 1
  fi
  umount "$mp" || umount -l "$mp"
  wait "$MOUNT_PID" || status=$?
  if [ "$status" -ne 0 ]; then
    failed "$name: cachemount exited with $status after unmounting; its log ends with:"
    tail -n 30 "$log" | sed 's/^/    /' >&2 || true
    return 1
  fi
}

# store_args STORE_KIND DIR: the store argument and options of a mount over a fresh folder
# in DIR, or over the in-memory store slowed by 1 ms a call.
store_args() {
  case $1 in
    folder) mkdir -p "$2" && STORE_ARGS=("$2") ;;
    mem) STORE_ARGS=(mem: --latency-ms 1) ;;
    *) fail "unknown store '$1' (folder or mem)" ;;
  esac
}

# The stores and content caches live on a tmpfs of PEER_SPACE_MIB (default 4096): pjdfstest
# truncates a file to 999,999,999,999,999 bytes, and a mount that fills its cache with that
# many zeros must meet ENOSPC, not fill the machine's disk (a hole takes no space, so a
# mount that keeps holes as holes needs little of it).
make_space() {
  mkdir -p "$WORK/space"
  mount -t tmpfs -o "size=${PEER_SPACE_MIB:-4096}m" peer-space "$WORK/space" ||
    fail "cannot mount a tmpfs for the stores and caches"
}

MOUNT_SERIAL=0
# start_mount NAME STORE_KIND: mounts a fresh store with its own cache folder (inside WORK,
# so that the trap removes it whatever happens); sets MP, LOG and INNER (the folder store).
start_mount() {
  local name=$1 kind=$2
  MOUNT_SERIAL=$((MOUNT_SERIAL + 1))
  # The previous mount is unmounted (or detached, when it died): its store and cache go.
  rm -rf "${WORK:?}/space/"*
  local base="$WORK/space/m$MOUNT_SERIAL-$name"
  MP="$base/mnt" LOG="$WORK/m$MOUNT_SERIAL-$name.log" INNER="$base/store"
  mkdir -p "$base/cache"
  store_args "$kind" "$INNER"
  mount_store "${STORE_ARGS[0]}" "$MP" "$LOG" "${STORE_ARGS[@]:1}" \
    --cache-root "$base/cache" --log-mask 0x210 || fail "$name: cannot mount"
}

run_fsx() {
  local kind name seed
  # name, seed, options: one line a configuration.
  local configs=(
    "mmap 1"
    "no-mmap 2 -R -W"
    "16mib 3 -l 16777216 -o 1048576"
    "reopen 4 -c $REOPEN_EVERY"
  )
  for kind in $STORES; do
    local config
    for config in "${configs[@]}"; do
      read -r name seed options <<<"$config"
      local label="fsx $name on $kind"
      start_mount "fsx-$name-$kind" "$kind"
      local logdir="$WORK/fsx-$MOUNT_SERIAL" file="fsx-$name.bin"
      mkdir -p "$logdir"
      # shellcheck disable=SC2206 # options is a list of words
      local cmd=("$OUT/fsx" -q -N "$OPS" -S "$seed" $options -P "$logdir/" "$MP/$file")
      step "$label: fsx -q -N $OPS -S $seed $options"
      local started=$SECONDS status=0
      "${cmd[@]}" >"$logdir/out" 2>&1 || status=$?
      if [ "$status" -ne 0 ]; then
        cp -r "$logdir" "$RESULTS/fsx-$name-$kind"
        failed "$label: fsx exited with $status (rerun: fsx -N $OPS -S $seed $options FILE;" \
          "its output and operations: $RESULTS/fsx-$name-$kind)"
        # What fsx found wrong comes before its dump of the operations; the last operations
        # come at the end.
        sed -n '1,/LOG DUMP/p' "$logdir/out" | head -n 20 | sed 's/^/    /' >&2 || true
        { grep -E '^[0-9]+\(' "$logdir/out" || true; } | tail -n 12 | sed 's/^/    /' >&2 || true
      fi
      local view=""
      if mount_alive; then view=$(sha256sum <"$MP/$file" | cut -d' ' -f1) || view=""; fi
      if finish_mount "$label" "$MP" "$LOG"; then
        local errors
        errors=$(error_lines "$LOG")
        if [ "$errors" -gt 0 ]; then
          failed "$label: $errors error-level lines in the mount's log:"
          grep -E "$ERROR_LINE" "$LOG" | head -5 | sed 's/^/    /' >&2 || true
        fi
        if [ "$kind" = folder ] && [ "$status" -eq 0 ]; then
          local stored
          stored=$(sha256sum <"$INNER/$file" | cut -d' ' -f1) || stored="no file"
          if [ -z "$view" ] || [ "$stored" != "$view" ]; then
            failed "$label: the store's file ($stored) differs from the mount's last view ($view)"
          fi
        fi
      fi
      echo "    $(grep -o 'All .* A-OK!' "$logdir/out" || echo "no completion line") in $((SECONDS - started)) s"
    done
  done
}

# The expected failures: "dir/NN.t  reason", blank lines and # comments ignored.
declare -A EXPECTED
read_expected() {
  local file reason
  while read -r file reason; do
    [[ -z $file || $file == \#* ]] && continue
    EXPECTED[$file]=$reason
  done <"$HERE/pjdfstest-expected-failures.txt"
}

# judge_pjdfstest NAME OUT KIND: counts one file's result against the expected failures.
judge_pjdfstest() {
  local name=$1 out=$2 kind=$3 status
  status=$(cat "$out.status" 2>/dev/null || echo 1)
  if [ "$status" -eq 0 ]; then
    if [ -n "${EXPECTED[$name]+x}" ]; then
      echo "now passes: $name (listed: ${EXPECTED[$name]})"
      now_passes=$((now_passes + 1))
    else
      passed=$((passed + 1))
    fi
    return
  fi
  # Kept for a look after the run: every file that failed, expected or not.
  cp "$out" "$RESULTS/$kind-${name//\//-}.out"
  if [ -n "${EXPECTED[$name]+x}" ]; then
    expected=$((expected + 1))
    return
  fi
  unexpected=$((unexpected + 1))
  failed "pjdfstest $name on $kind: $(grep -E '^ *Failed tests?:' "$out" | tr -s ' ' || echo "status $status")"
  { grep -E '^not ok' "$out" || true; } | head -5 | cut -c1-240 | sed 's/^/    /' >&2 || true
}

run_pjdfstest() {
  [ "$(id -u)" -eq 0 ] || {
    echo "SKIP: pjdfstest runs as root (it changes owners and modes)"
    exit $SKIP
  }
  read_expected
  local tests="$OUT/pjdfstest-src/tests" kind dir t
  [ -n "$DIRS" ] || DIRS=$(cd "$tests" && find . -mindepth 1 -maxdepth 1 -type d -printf '%f\n' | sort)
  local files=()
  for dir in $DIRS; do
    [ -d "$tests/$dir" ] || fail "no pjdfstest folder $dir"
  done
  # The largest files first (chown/00.t alone takes 80 s), so that the pool ends together.
  mapfile -t files < <(cd "$tests" && for dir in $DIRS; do stat -c '%s %n' "$PWD/$dir"/*.t; done |
    sort -rn | cut -d' ' -f2-)
  for kind in $STORES; do
    local passed=0 expected=0 now_passes=0 unexpected=0 started=$SECONDS running=()
    start_mount "pjdfstest-$kind" "$kind"
    mkdir -p "$MP/run"
    # A few files at a time on one mount: most of their time is spent sleeping between time
    # stamps, and each works on names of its own.
    for t in "${files[@]}"; do
      while [ "${#running[@]}" -ge "$PJD_JOBS" ]; do
        wait "${running[0]}" || true
        running=("${running[@]:1}")
      done
      local out="$WORK/pjd-$kind-$(basename "$(dirname "$t")")-${t##*/}.out"
      ( (cd "$MP/run" && timeout -k 10 600 prove --failures "$t") >"$out" 2>&1
        echo $? >"$out.status" ) &
      running+=($!)
    done
    for t in "${running[@]}"; do wait "$t" || true; done
    local crashed=0
    mount_alive || crashed=1
    for t in "${files[@]}"; do
      dir=$(basename "$(dirname "$t")")
      judge_pjdfstest "$dir/${t##*/}" "$WORK/pjd-$kind-$dir-${t##*/}.out" "$kind"
    done
    if finish_mount "pjdfstest on $kind" "$MP" "$LOG"; then
      local errors
      errors=$(error_lines "$LOG")
      if [ "$errors" -gt 0 ]; then
        failed "pjdfstest on $kind: $errors error-level lines in the mount's log, the first:"
        grep -E "$ERROR_LINE" "$LOG" | head -3 | cut -c1-240 | sed 's/^/    /' >&2 || true
      fi
    fi
    echo "pjdfstest on $kind: ${#files[@]} files: $passed passed, $expected failed as expected," \
      "$now_passes now pass, $unexpected failed unexpectedly, $crashed crash of the mount" \
      "($((SECONDS - started)) s)"
  done
}

find_suites
[ "$(id -u)" -eq 0 ] || {
  echo "SKIP: the suites run as root (fsx's reopening drops the page cache, pjdfstest changes owners)"
  exit $SKIP
}
require_fuse
build_suites
make_space
# What failed is copied here (the rest of WORK goes when the script exits).
RESULTS="$OUT/results-$SUITE"
rm -rf "$RESULTS"
mkdir -p "$RESULTS"
"run_$SUITE"
if [ ${#FAILURES[@]} -gt 0 ]; then
  echo "FAILED: ${#FAILURES[@]} failures:"
  printf '  %s\n' "${FAILURES[@]}"
  exit 1
fi
echo "PASS"
