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
FILES=${2:-100}
LATENCY=${3:-10}
MODULES=${4:-4}
PARTS=${5:-3}
HERE=$(cd "$(dirname "$0")" && pwd)
source "$HERE/../mount/workload/mount_lib.sh"
source "$HERE/../mount/workload/tool_workload.sh"
require_fuse
export HOME="$WORK"

echo "Generating $FILES files in $((MODULES * PARTS)) folders..."
generate_tree "$WORK/tree" "$FILES" "$MODULES" "$PARTS"
echo "mem store, $LATENCY ms a call: pass-through..."
run_on_mount mem-pass mem: --latency-ms "$LATENCY" --pass-through
echo "mem store, $LATENCY ms a call: overlay..."
run_on_mount mem-overlay mem: --latency-ms "$LATENCY"
mkdir -p "$WORK/dir-pass" "$WORK/dir-overlay"
echo "local folder: pass-through, then overlay..."
run_on_mount dir-pass "$WORK/dir-pass" --pass-through
run_on_mount dir-overlay "$WORK/dir-overlay"
diff -r --exclude=.git "$WORK/tree/project" "$WORK/dir-overlay/project" >/dev/null ||
  fail "the folder behind the overlay differs from the tree"
git -C "$WORK/dir-overlay/project" fsck --no-progress --strict >/dev/null 2>&1 ||
  fail "the repository behind the overlay is not sound"

step_table "In-memory store, $LATENCY ms a call, $FILES files (seconds; unmount includes the overlay's flush):" \
  mem-overlay mem-pass
echo "  the overlay's store calls by the time the workload returned: $(step_value mem-overlay calls-when-done)"
step_table "Local folder, $FILES files:" dir-overlay dir-pass
echo
echo "Check passed: every copy holds the generated tree; after unmounting, the folder behind"
echo "the overlay holds it too, with a repository that git fsck accepts."
