#!/usr/bin/env bash
# The mount demo (`make demo`, first part): real programs on a slow store through cachemount.
# The tool workload (mount/workload/tool_workload.sh: tar x, git init/add/commit, grep -r,
# cp -r out) runs on the in-memory store at LATENCY ms per call, mounted through the overlay
# and mounted as a pass-through (every call goes to the store), then on a local folder both
# ways. Prints each step's time side by side, the unmount (the overlay's flush), and the
# store calls; checks that what was copied out, and the folder store after unmounting, hold
# exactly the generated tree.
#   mount_demo.sh CACHEMOUNT [FILES] [LATENCY_MS] [MODULES PARTS]
CACHEMOUNT=$1
FILES=${2:-200}
LATENCY=${3:-10}
MODULES=${4:-4}
PARTS=${5:-3}
HERE=$(cd "$(dirname "$0")" && pwd)
source "$HERE/../mount/workload/mount_lib.sh"
source "$HERE/../mount/workload/tool_workload.sh"
require_fuse
export HOME="$WORK"

# run_mode NAME STORE [cachemount options]: mounts, runs the workload, unmounts; writes
# NAME.steps (step lines, then unmount, calls-when-done and calls-in-all).
run_mode() {
  local name=$1 store=$2
  shift 2
  local mp="$WORK/mnt-$name" log="$WORK/$name.log" out="$WORK/$name.steps"
  mount_store "$store" "$mp" "$log" "$@" || fail "cannot mount $name"
  run_workload "$mp" "$WORK/tree.tar" "$WORK/copy-$name" >"$out"
  echo "calls-when-done $(store_calls "$log")" >>"$out"
  timed_step unmount unmount_store "$mp" "$log" >"$WORK/$name.unmount"
  grep '^step' "$WORK/$name.unmount" >>"$out"
  echo "calls-in-all $(grep 'flush took' "$log" | sed 's/.*store calls //')" >>"$out"
  diff -r "$WORK/tree/project" "$WORK/copy-$name" >/dev/null || fail "$name: the copy differs"
}

value() { awk -v key="$2" '$1 == "step" && $2 == key { print $3 } $1 == key { print $2 }' "$WORK/$1.steps"; }

# table BASELINE OVERLAY TITLE
table() {
  local base=$1 over=$2
  echo
  echo "$3"
  printf '  %-22s %14s %14s %10s\n' step "pass-through" overlay faster
  local key total_base=0 total_over=0
  for key in tar-x git-init git-add git-commit grep-r cp-r-out unmount; do
    local b o
    b=$(value "$base" "$key")
    o=$(value "$over" "$key")
    total_base=$(awk -v a="$total_base" -v b="$b" 'BEGIN { print a + b }')
    total_over=$(awk -v a="$total_over" -v b="$o" 'BEGIN { print a + b }')
    awk -v k="$key" -v b="$b" -v o="$o" 'BEGIN { printf "  %-22s %12.3f s %12.3f s %9.1fx\n", k, b, o, b / (o > 0 ? o : 1e-6) }'
  done
  awk -v b="$total_base" -v o="$total_over" 'BEGIN { printf "  %-22s %12.3f s %12.3f s %9.1fx\n", "total", b, o, b / o }'
  printf '  %-22s %14s %14s\n' "store calls" "$(value "$base" calls-in-all)" \
    "$(value "$over" calls-in-all) ($(value "$over" calls-when-done) before unmount)"
}

echo "Generating $FILES files in $((MODULES * PARTS)) folders..."
generate_tree "$WORK/tree" "$FILES" "$MODULES" "$PARTS"
echo "mem store, $LATENCY ms a call: pass-through..."
run_mode mem-pass mem: --latency-ms "$LATENCY" --pass-through
echo "mem store, $LATENCY ms a call: overlay..."
run_mode mem-overlay mem: --latency-ms "$LATENCY"
mkdir -p "$WORK/dir-pass" "$WORK/dir-overlay"
echo "local folder: pass-through, then overlay..."
run_mode dir-pass "$WORK/dir-pass" --pass-through
run_mode dir-overlay "$WORK/dir-overlay"
diff -r --exclude=.git "$WORK/tree/project" "$WORK/dir-overlay/project" >/dev/null ||
  fail "the folder behind the overlay differs from the tree"
git -C "$WORK/dir-overlay/project" fsck --no-progress --strict >/dev/null 2>&1 ||
  fail "the repository behind the overlay is not sound"

table mem-pass mem-overlay "In-memory store, $LATENCY ms a call ($FILES files; unmount = the overlay's flush):"
table dir-pass dir-overlay "Local folder ($FILES files):"
echo
echo "Check passed: every copy holds the generated tree; after unmounting, the folder behind"
echo "the overlay holds it too, with a repository that git fsck accepts."
