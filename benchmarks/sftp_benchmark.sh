#!/usr/bin/env bash
# SFTP benchmark (not in CI; `make bench-sftp`): the tool workload
# (mount/workload/tool_workload.sh: tar x, git init/add/commit, grep -r, cp -r out) on an SFTP
# server LATENCY ms a round trip away, side by side in one run on
#   (a) cachemount's overlay over the store (write-behind, 8 replay workers, journal),
#   (b) cachemount --pass-through (the SFTP provider alone: every call goes to the server),
#   (c) sshfs,
#   (d) rclone mount --vfs-cache-mode full,
# each over a fresh remote folder. The server is a private sshd on 127.0.0.1 (its own config
# and keys in a temporary folder), reached through latency_proxy.py, which delays every chunk
# by LATENCY/2 ms each way (this kernel has no netem). Every step is timed, the mount and the
# unmount included; the unmount lasts until the store holds everything: cachemount flushes
# its queue before it exits, and rclone's uploads are waited for (its unmount alone drops
# what is not uploaded yet). Afterwards the remote folder must hold exactly the generated
# tree. Prints a table per latency with the ratios of (b), (c) and (d) to (a).
# With SFTP_BENCH_BIG set, each latency also moves one big file through each mount and through
# OpenSSH's sftp client, which is the reference: a cold sequential read (the file is written
# into the server's folder locally; each mount is fresh, so nothing of it is cached), timed from
# the first read to the last byte, and a write timed until the server's folder holds the whole
# file (the write, then the unmount); sftp's get and put are timed without their connection.
# Prints MiB/s and each one's rate divided by sftp's, and checks every byte that arrived.
#   sftp_benchmark.sh CACHEMOUNT [LATENCY_MS[:FILES]...]     (default: 10 40)
# FILES defaults to SFTP_BENCH_FILES or 100, in 4 x 3 folders. SFTP_BENCH_MOUNTS picks the
# mounts (default "overlay pass sshfs rclone"), SFTP_BENCH_OVERLAY_OPTIONS adds options to the
# overlay's mount. SFTP_BENCH_BIG=1 adds the big file of 256 MiB, SFTP_BENCH_BIG=MIB one of MIB
# MiB (2 or more); SFTP_BENCH_WORKLOAD=0 leaves the tool workload out. Exits 77 where FUSE or
# sshd cannot be used.
CACHEMOUNT=$1
shift
RUNS=("$@")
[ ${#RUNS[@]} -gt 0 ] || RUNS=(10 40)
DEFAULT_FILES=${SFTP_BENCH_FILES:-100}
# Which mounts run, in the table's order (the first is the one the others are compared to).
MOUNT_KINDS=${SFTP_BENCH_MOUNTS:-overlay pass sshfs rclone}
# Extra cachemount options for the overlay's run (say "--sftp-sessions 8").
OVERLAY_OPTIONS=${SFTP_BENCH_OVERLAY_OPTIONS:-}
# The big file's size in MiB (0: none); 1 is a switch rather than a size.
BIG_MIB=${SFTP_BENCH_BIG:-0}
[ "$BIG_MIB" != 1 ] || BIG_MIB=256
WORKLOAD=${SFTP_BENCH_WORKLOAD:-1}
HERE=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=../mount/workload/mount_lib.sh
source "$HERE/../mount/workload/mount_lib.sh"
# shellcheck source=../mount/workload/tool_workload.sh
source "$HERE/../mount/workload/tool_workload.sh"
shopt -s inherit_errexit
# Checked once fail (mount_lib.sh) is there.
for mount in $MOUNT_KINDS; do
  case $mount in overlay | pass | sshfs | rclone) ;; *) fail "unknown mount in SFTP_BENCH_MOUNTS: $mount" ;; esac
done
[[ "$BIG_MIB" =~ ^[0-9]+$ ]] || fail "SFTP_BENCH_BIG is not a count of MiB: $BIG_MIB"
[[ "$WORKLOAD" =~ ^[01]$ ]] || fail "SFTP_BENCH_WORKLOAD is not 0 or 1: $WORKLOAD"
[ "$WORKLOAD" -eq 1 ] || [ "$BIG_MIB" -gt 0 ] ||
  fail "SFTP_BENCH_WORKLOAD=0 without SFTP_BENCH_BIG leaves nothing to measure"

# A failing command says which it was: most run with their output sent to a file.
set -o errtrace
trap 'echo "FAIL: \"$BASH_COMMAND\" exited with $? (line $LINENO)" >&2' ERR

SSHD_PID=
BIG_LOCAL=
# mount_lib.sh's cleanup, and more: the server's connection processes, which outlive a
# listener stopped alone (so they go first, while they are still its children), and a mount
# still flushing to a server that is gone, killed after 5 s.
cleanup_all() {
  local mp pid i
  for mp in "${MOUNTS[@]}"; do
    if mountpoint -q "$mp" 2>/dev/null; then umount -l "$mp" 2>/dev/null || true; fi
  done
  if [ -n "$SSHD_PID" ]; then pkill -KILL -P "$SSHD_PID" 2>/dev/null || true; fi
  for pid in "${PIDS[@]}"; do kill "$pid" 2>/dev/null || true; done
  for i in $(seq 1 50); do
    local alive=0
    for pid in "${PIDS[@]}"; do kill -0 "$pid" 2>/dev/null && alive=1; done
    [ "$alive" -eq 1 ] || break
    sleep 0.1
  done
  for pid in "${PIDS[@]}"; do kill -KILL "$pid" 2>/dev/null || true; done
  rm -rf "$WORK"
  if [ -n "$BIG_LOCAL" ]; then rm -rf "$BIG_LOCAL"; fi
}
trap cleanup_all EXIT

# The search step looks for a line that only every 13th file holds.
for setting in "${RUNS[@]}"; do
  files=$DEFAULT_FILES
  [[ "$setting" != *:* ]] || files=${setting#*:}
  [[ "$setting" =~ ^[0-9]+(:[0-9]+)?$ && "$files" =~ ^[0-9]+$ && "$files" -ge 13 ]] ||
    fail "not LATENCY_MS or LATENCY_MS:FILES with at least 13 files: $setting (files: $files)"
done
for tool in sshfs rclone ssh sftp ssh-keygen python3; do
  command -v "$tool" >/dev/null ||
    fail "$tool is missing (scripts/install-deps.sh bench-sftp installs what this needs)"
done
if [ ! -x /usr/sbin/sshd ]; then
  echo "SKIP: no /usr/sbin/sshd (scripts/install-deps.sh installs openssh-server)"
  exit "$SKIP"
fi
require_fuse
export HOME="$WORK"
# cachemount's cache root (its content cache and journal) goes where it would for this user,
# under WORK, so that nothing is left behind if the run fails.
export XDG_CACHE_HOME="$WORK/cache"

free_port() {
  python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

accepting() {
  (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null
}

# unmount_fuse MOUNTPOINT
unmount_fuse() {
  if [ "$(id -u)" -eq 0 ]; then umount "$1"; else fusermount3 -u "$1"; fi
}

# --- the server -----------------------------------------------------------------------------
SSH_USER=$(id -un)
KEYS="$WORK/sshd"
SRV="$WORK/remote"
mkdir -p "$KEYS" "$SRV"
for key in host_key user_key; do ssh-keygen -q -t ed25519 -N '' -f "$KEYS/$key" >/dev/null; done
cp "$KEYS/user_key.pub" "$KEYS/authorized_keys"
KEY="$KEYS/user_key"
KH="$KEYS/known_hosts"
SSHD_PORT=$(free_port)
cat >"$KEYS/sshd_config" <<EOF
Port $SSHD_PORT
ListenAddress 127.0.0.1
HostKey $KEYS/host_key
AuthorizedKeysFile $KEYS/authorized_keys
PasswordAuthentication no
KbdInteractiveAuthentication no
UsePAM no
StrictModes no
PermitRootLogin yes
MaxSessions 100
MaxStartups 100
LogLevel ERROR
Subsystem sftp internal-sftp
PidFile $KEYS/sshd.pid
EOF
# sshd's privilege separation folder.
if [ "$(id -u)" -eq 0 ]; then mkdir -p /run/sshd; fi
/usr/sbin/sshd -D -e -f "$KEYS/sshd_config" >"$KEYS/sshd.log" 2>&1 &
SSHD_PID=$!
PIDS+=("$SSHD_PID")
for i in $(seq 1 100); do
  accepting "$SSHD_PORT" && break
  if ! kill -0 "$SSHD_PID" 2>/dev/null || [ "$i" -eq 100 ]; then
    echo "SKIP: sshd did not start: $(cat "$KEYS/sshd.log")"
    exit "$SKIP"
  fi
  sleep 0.05
done
# known_hosts holds the server's key under each port it is reached on: sshd's own, and each
# proxy's (added below).
known_host() {
  echo "[127.0.0.1]:$1 $(cat "$KEYS/host_key.pub")" >>"$KH"
}
known_host "$SSHD_PORT"
SSH_OPTIONS=(-F /dev/null -i "$KEY" -o IdentitiesOnly=yes -o UserKnownHostsFile="$KH"
  -o StrictHostKeyChecking=yes -o BatchMode=yes)
echo "sshd on 127.0.0.1:$SSHD_PORT serving $SRV"

# sftp_ls PORT: a whole sftp session (connection, authentication, one listing).
echo "ls $SRV" >"$WORK/ls.batch"
sftp_ls() {
  sftp_batch "$1" "$WORK/ls.batch"
}

# sftp_batch PORT BATCH: one sftp session running the commands in the file BATCH.
sftp_batch() {
  sftp "${SSH_OPTIONS[@]}" -P "$1" -b "$2" "$SSH_USER@127.0.0.1" \
    >"$WORK/sftp.out" 2>&1 || fail "sftp through port $1 failed: $(cat "$WORK/sftp.out")"
}

# seconds_of COMMAND...: the command's time in seconds (fails when the command fails).
seconds_of() {
  timed_step x "$@" >"$WORK/seconds"
  awk '{ print $3 }' "$WORK/seconds"
}

# --- the four mounts ------------------------------------------------------------------------
# Each NAME mounts a folder of the server through the proxy at PROXY_PORT on WORK/mnt-NAME, logs
# to WORK/NAME.log and prints "step mount SECONDS" and "step unmount SECONDS"; the unmount
# lasts until the server holds everything written.

mount_cachemount() {
  mount_store "$@" || fail "cachemount could not mount $1 (its messages are above)"
}

# start_fuse_process MOUNTPOINT TYPE LOG COMMAND...: starts the command in the background and
# waits until its mount shows; FUSE_PID is the command's process.
start_fuse_process() {
  local mp=$1 type=$2 log=$3 i
  shift 3
  "$@" >"$log" 2>&1 &
  FUSE_PID=$!
  PIDS+=("$FUSE_PID")
  MOUNTS+=("$mp")
  for i in $(seq 1 600); do
    if grep -q " $mp $type " /proc/mounts; then return 0; fi
    kill -0 "$FUSE_PID" 2>/dev/null || fail "$1 did not mount: $(cat "$log")"
    sleep 0.05
  done
  fail "$mp did not mount within 30 s: $(cat "$log")"
}

# stop_fuse_process MOUNTPOINT LOG: unmounts and waits until the command has exited.
stop_fuse_process() {
  local mp=$1 log=$2 status=0
  unmount_fuse "$mp"
  wait "$FUSE_PID" || status=$?
  [ "$status" -eq 0 ] || fail "the command behind $mp exited with $status: $(cat "$log")"
  ! grep -q " $mp " /proc/mounts || fail "$mp is still mounted"
}

# rclone_pending RC_PORT: the uploads rclone has queued or running.
rclone_pending() {
  rclone rc --config /dev/null --url "http://127.0.0.1:$1/" vfs/stats |
    python3 -c 'import json, sys
cache = json.load(sys.stdin)["diskCache"]
print(cache["uploadsInProgress"] + cache["uploadsQueued"])'
}

# rclone_write_back_and_unmount MOUNTPOINT LOG RC_PORT: waits until rclone has uploaded every
# file written (it waits --vfs-write-back, 5 s by default, after a file's last close), then
# unmounts and waits for rclone to exit.
rclone_write_back_and_unmount() {
  local mp=$1 log=$2 rc=$3 i pending
  for i in $(seq 1 6000); do
    pending=$(rclone_pending "$rc") || fail "rclone's vfs/stats failed: $(cat "$log")"
    [ "$pending" -ne 0 ] || break
    [ "$i" -lt 6000 ] || fail "rclone still had $pending uploads after 10 minutes"
    sleep 0.1
  done
  stop_fuse_process "$mp" "$log"
}

# mount_on KIND NAME FOLDER: mounts the server's FOLDER (made if missing) as KIND (overlay,
# pass, sshfs or rclone). Runs in this shell, not in a subshell: the unmount needs the PIDs.
mount_on() {
  local kind=$1 name=$2 folder=$3
  local mp="$WORK/mnt-$name" log="$WORK/$name.log"
  mkdir -p "$folder" "$mp"
  case $kind in
    overlay | pass)
      local options=(--identity "$KEY" --known-hosts "$KH")
      if [ "$kind" = pass ]; then
        options+=(--pass-through)
      else
        # shellcheck disable=SC2206 # options, split on purpose
        options+=($OVERLAY_OPTIONS)
      fi
      timed_step mount mount_cachemount "sftp://$SSH_USER@127.0.0.1:$PROXY_PORT$folder" "$mp" \
        "$log" "${options[@]}" ;;
    sshfs)
      timed_step mount start_fuse_process "$mp" fuse.sshfs "$log" \
        sshfs -f -p "$PROXY_PORT" \
        -o "IdentityFile=$KEY,UserKnownHostsFile=$KH,StrictHostKeyChecking=yes,BatchMode=yes" \
        "$SSH_USER@127.0.0.1:$folder" "$mp" ;;
    rclone)
      # rclone's remote control, which tells how many uploads are still to come.
      RCLONE_RC=$(free_port)
      timed_step mount start_fuse_process "$mp" fuse.rclone "$log" \
        rclone mount ":sftp:$folder" "$mp" --sftp-host 127.0.0.1 --sftp-port "$PROXY_PORT" \
        --sftp-user "$SSH_USER" --sftp-key-file "$KEY" --sftp-known-hosts-file "$KH" \
        --vfs-cache-mode full --cache-dir "$WORK/rclone-cache-$name" --config /dev/null \
        --rc --rc-addr "127.0.0.1:$RCLONE_RC" ;;
  esac
}

# unmount_from KIND NAME: unmounts what mount_on mounted, until the server holds everything:
# cachemount flushes its queue before it exits; rclone's uploads are waited for first.
unmount_from() {
  local kind=$1 name=$2
  local mp="$WORK/mnt-$name" log="$WORK/$name.log"
  case $kind in
    overlay | pass)
      # unmount_store prints the flush report, which only the log needs.
      timed_step unmount unmount_store "$mp" "$log" >"$WORK/$name.unmount"
      grep '^step' "$WORK/$name.unmount" ;;
    sshfs) timed_step unmount stop_fuse_process "$mp" "$log" ;;
    rclone) timed_step unmount rclone_write_back_and_unmount "$mp" "$log" "$RCLONE_RC" ;;
  esac
}

# run_tool_workload KIND NAME: the tool workload on a mount of the fresh remote folder SRV/NAME;
# writes WORK/NAME.steps, with cachemount's store calls.
run_tool_workload() {
  local kind=$1 name=$2
  local mp="$WORK/mnt-$name" log="$WORK/$name.log" out="$WORK/$name.steps"
  local cachemount=0
  [ "$kind" != overlay ] && [ "$kind" != pass ] || cachemount=1
  mount_on "$kind" "$name" "$SRV/$name" >"$out"
  run_workload "$mp" "$WORK/tree.tar" "$WORK/copy-$name" >>"$out"
  [ "$cachemount" -eq 0 ] || echo "calls-when-done $(store_calls "$log")" >>"$out"
  unmount_from "$kind" "$name" >>"$out"
  [ "$cachemount" -eq 0 ] ||
    echo "calls-in-all $(grep 'flush took' "$log" | sed 's/.*store calls //')" >>"$out"
}

# check_remote NAME: what was copied out and the remote folder after unmounting both hold
# exactly the generated tree; records whether git accepts the repository left there.
check_remote() {
  local name=$1
  check_copy "$name"
  diff -r --exclude=.git "$WORK/tree/project" "$SRV/$name/project" >"$WORK/$name.diff" ||
    fail "$name: after unmounting, the remote folder differs from the tree: $(head -5 "$WORK/$name.diff")"
  if git -C "$SRV/$name/project" fsck --no-progress --strict >/dev/null 2>&1; then
    echo "fsck ok" >>"$WORK/$name.steps"
  else
    echo "fsck FAILED" >>"$WORK/$name.steps"
  fi
}

# sftp_table TITLE BASE OTHER...: the workload's table (step_table) with the mount step and
# "total" from mount to unmount, then whether git fsck accepted each remote repository.
sftp_table() {
  STEP_KEYS="mount tar-x git-init git-add git-commit grep-r cp-r-out unmount total" step_table "$@"
  local run
  printf '  %-16s' "git fsck, remote"
  for run in "${@:2}"; do printf ' %13s' "$(step_value "$run" fsck)"; done
  echo
}

# --- one big file ---------------------------------------------------------------------------
# Each run NAME (read-KIND-LATENCY or write-KIND-LATENCY, KIND sftp for OpenSSH's client) uses
# the fresh remote folder SRV/NAME, removed afterwards so that the disk holds few copies, and
# writes WORK/NAME.big: "step read SECONDS", or "step write SECONDS" and "step unmount SECONDS".
# The file is WORK/big.bin, random bytes, so that nothing on the way can compress it.

# read_whole FILE: copies FILE to a local file, 1 MiB a call, as sftp's get does; big_read
# compares the copy with the file afterwards, untimed, as big_sftp_get does its own (a
# comparison during the read took a sixth of the two cores from the mount, and none from sftp).
read_whole() {
  dd if="$1" of="$BIG_LOCAL/got.bin" bs=1M status=none 2>"$WORK/dd.out" ||
    fail "reading $1 failed: $(cat "$WORK/dd.out")"
}

# write_whole FILE: writes the file into FILE, 1 MiB a call.
write_whole() {
  dd if="$WORK/big.bin" of="$1" bs=1M status=none 2>"$WORK/dd.out" ||
    fail "writing $1 failed: $(cat "$WORK/dd.out")"
}

# same_as_big FILE NAME: FILE, which run NAME made, holds exactly the file.
same_as_big() {
  cmp "$WORK/big.bin" "$1" >"$WORK/cmp.out" 2>&1 || fail "$2: $1 differs: $(cat "$WORK/cmp.out")"
}

# big_read KIND NAME: the file is copied into the server's folder locally, then read on a fresh
# mount of that folder (the mount and the unmount are recorded, not counted).
big_read() {
  local kind=$1 name=$2
  local folder="$SRV/$name" out="$WORK/$name.big"
  mkdir -p "$folder"
  cp "$WORK/big.bin" "$folder/big.bin"
  mount_on "$kind" "$name" "$folder" >"$out"
  timed_step read read_whole "$WORK/mnt-$name/big.bin" >>"$out"
  unmount_from "$kind" "$name" >>"$out"
  same_as_big "$BIG_LOCAL/got.bin" "$name"
  rm -rf "$folder" "$BIG_LOCAL/got.bin"
}

# big_write KIND NAME: the file is written into a fresh mount of an empty folder, which is then
# unmounted; the server's copy must equal the file.
big_write() {
  local kind=$1 name=$2
  local folder="$SRV/$name" out="$WORK/$name.big"
  mount_on "$kind" "$name" "$folder" >"$out"
  timed_step write write_whole "$WORK/mnt-$name/big.bin" >>"$out"
  unmount_from "$kind" "$name" >>"$out"
  same_as_big "$folder/big.bin" "$name"
  rm -rf "$folder"
}

# sftp_transfer_seconds BATCH: how long one sftp session through the proxy takes to run BATCH,
# less its connection and login: less a session that lists a folder, timed just before.
sftp_transfer_seconds() {
  local connect whole
  connect=$(seconds_of sftp_ls "$PROXY_PORT")
  whole=$(seconds_of sftp_batch "$PROXY_PORT" "$1")
  awk -v w="$whole" -v c="$connect" 'BEGIN { printf "%.6f", w - c }'
}

# big_sftp_get NAME: sftp's get of the file, put on the server as for big_read, into BIG_LOCAL
# (tmpfs where there is one, so that the local disk does not slow it).
big_sftp_get() {
  local name=$1
  local folder="$SRV/$name"
  mkdir -p "$folder"
  cp "$WORK/big.bin" "$folder/big.bin"
  echo "get $folder/big.bin $BIG_LOCAL/got.bin" >"$WORK/get.batch"
  echo "step read $(sftp_transfer_seconds "$WORK/get.batch")" >"$WORK/$name.big"
  same_as_big "$BIG_LOCAL/got.bin" "$name"
  rm -rf "$folder" "$BIG_LOCAL/got.bin"
}

# big_sftp_put NAME: sftp's put of the file into an empty folder.
big_sftp_put() {
  local name=$1
  local folder="$SRV/$name"
  mkdir -p "$folder"
  echo "put $WORK/big.bin $folder/big.bin" >"$WORK/put.batch"
  echo "step write $(sftp_transfer_seconds "$WORK/put.batch")" >"$WORK/$name.big"
  echo "step unmount 0" >>"$WORK/$name.big"
  same_as_big "$folder/big.bin" "$name"
  rm -rf "$folder"
}

big_value() {
  awk -v key="$2" '$1 == "step" && $2 == key { print $3 }' "$WORK/$1.big"
}

# big_table LATENCY KIND...: per kind, the read's and the write's seconds and MiB/s, and that
# rate divided by sftp's (the first kind): above 1, faster than sftp.
big_table() {
  local latency=$1 kind
  shift
  echo
  echo "One file of $BIG_MIB MiB, $latency ms a round trip (read: cold, first to last byte; write:"
  echo "until the server's folder holds it, the unmount included; sftp: without its connection)"
  printf '  %-8s %9s %8s %6s   %8s %9s %8s %8s %6s\n' "" "read s" "MiB/s" "/sftp" \
    "write s" "unmount s" "total s" "MiB/s" "/sftp"
  local base_read base_write
  base_read=$(big_value "read-$1-$latency" read)
  base_write=$(big_value "write-$1-$latency" write)
  for kind in "$@"; do
    awk -v kind="$kind" -v mib="$BIG_MIB" -v r="$(big_value "read-$kind-$latency" read)" \
      -v w="$(big_value "write-$kind-$latency" write)" \
      -v u="$(big_value "write-$kind-$latency" unmount)" -v br="$base_read" -v bw="$base_write" \
      'BEGIN { t = w + u
        printf "  %-8s %9.3f %8.1f %6.2f   %8.3f %9.3f %8.3f %8.1f %6.2f\n",
          kind, r, mib / r, br / r, w, u, t, mib / t, bw / t }'
  done
  if [[ " $* " == *" overlay "* ]]; then
    awk -v r="$(big_value "read-overlay-$latency" read)" -v br="$base_read" 'BEGIN {
      printf "  the overlay'"'"'s cold read: %.0f %% of sftp'"'"'s rate (the aim: 80 %% or more)\n", 100 * br / r }'
  fi
}

# --- the runs -------------------------------------------------------------------------------
for setting in "${RUNS[@]}"; do
  LATENCY=${setting%%:*}
  FILES=$DEFAULT_FILES
  [ "$setting" = "$LATENCY" ] || FILES=${setting#*:}
  echo
  echo "=== $LATENCY ms a round trip, $FILES files in 12 folders"
  rm -f "$WORK/proxy.port"
  python3 "$HERE/latency_proxy.py" --target "127.0.0.1:$SSHD_PORT" \
    --delay-ms "$(awk -v l="$LATENCY" 'BEGIN { print l / 2 }')" --port-file "$WORK/proxy.port" \
    >"$WORK/proxy.log" 2>&1 &
  proxy_pid=$!
  PIDS+=("$proxy_pid")
  for i in $(seq 1 100); do
    [ ! -s "$WORK/proxy.port" ] || break
    kill -0 "$proxy_pid" 2>/dev/null || fail "the latency proxy did not start: $(cat "$WORK/proxy.log")"
    [ "$i" -lt 100 ] || fail "the latency proxy did not start within 5 s"
    sleep 0.05
  done
  PROXY_PORT=$(cat "$WORK/proxy.port")
  known_host "$PROXY_PORT"
  echo "latency proxy on 127.0.0.1:$PROXY_PORT: $(timeout 60 python3 "$HERE/latency_proxy.py" \
    --self-test --delay-ms "$(awk -v l="$LATENCY" 'BEGIN { print l / 2 }')")"
  direct=$(seconds_of sftp_ls "$SSHD_PORT")
  proxied=$(seconds_of sftp_ls "$PROXY_PORT")
  awk -v d="$direct" -v p="$proxied" -v l="$LATENCY" 'BEGIN {
    printf "sftp -b (connect, log in, ls): direct %.3f s, through the proxy %.3f s (%.1f round trips of %s ms more)\n",
      d, p, (p - d) * 1000 / l, l }'

  runs=()
  if [ "$WORKLOAD" -eq 1 ]; then
    rm -rf "$WORK/tree" "$WORK/tree.tar" "$WORK"/copy-*
    generate_tree "$WORK/tree" "$FILES" 4 3
    for mount in $MOUNT_KINDS; do
      case $mount in
        overlay) echo "(a) cachemount, the overlay over sftp://..." ;;
        pass) echo "(b) cachemount --pass-through" ;;
        sshfs) echo "(c) sshfs" ;;
        rclone) echo "(d) rclone mount --vfs-cache-mode full" ;;
      esac
      run_tool_workload "$mount" "$mount-$LATENCY"
      check_remote "$mount-$LATENCY"
      runs+=("$mount-$LATENCY")
    done
  fi
  if [ "$BIG_MIB" -gt 0 ]; then
    if [ ! -f "$WORK/big.bin" ]; then
      head -c "$((BIG_MIB * 1048576))" /dev/urandom >"$WORK/big.bin"
      BIG_LOCAL=$(mktemp -d -p /dev/shm sftp-bench.XXXXXX 2>/dev/null) ||
        BIG_LOCAL=$(mktemp -d -p "$WORK" got.XXXXXX)
    fi
    echo "one file of $BIG_MIB MiB: sftp's get, then a cold read on each mount"
    big_sftp_get "read-sftp-$LATENCY"
    for mount in $MOUNT_KINDS; do big_read "$mount" "read-$mount-$LATENCY"; done
    echo "one file of $BIG_MIB MiB: sftp's put, then a write into each mount"
    big_sftp_put "write-sftp-$LATENCY"
    for mount in $MOUNT_KINDS; do big_write "$mount" "write-$mount-$LATENCY"; done
  fi
  kill "$proxy_pid"
  wait "$proxy_pid" 2>/dev/null || true

  if [ "$WORKLOAD" -eq 1 ]; then
    sftp_table "SFTP, $LATENCY ms a round trip, $FILES files (seconds; unmount: until the server holds everything)" \
      "${runs[@]}"
    if [[ " $MOUNT_KINDS " == *" overlay "* ]]; then
      echo "  the overlay's store calls by the time the workload returned: $(step_value "overlay-$LATENCY" calls-when-done)"
      echo "  the overlay's flush at unmount: $(grep -o 'flush took [0-9.]* s' "$WORK/overlay-$LATENCY.log")"
    fi
  fi
  # shellcheck disable=SC2086 # the kinds, split on purpose
  [ "$BIG_MIB" -eq 0 ] || big_table "$LATENCY" sftp $MOUNT_KINDS
done
echo
if [ "$WORKLOAD" -eq 1 ]; then
  echo "Check passed: for every mount, the tree copied out and the remote folder after unmounting"
  echo "hold exactly the generated tree."
fi
if [ "$BIG_MIB" -gt 0 ]; then
  echo "Check passed: every read of the big file (sftp's get included) returned its bytes exactly,"
  echo "and after every write (sftp's put included) the server's folder held exactly the file."
fi
