#!/usr/bin/env bash
# Real tools on a mount of the overlay over a folder (mount/workload/tool_workload.sh):
# extract a tar archive of generated files, git init, add and commit them, grep -r, copy the
# tree back out and compare it with the original; after unmounting, the folder behind the
# overlay holds the same tree and a repository that git checks and finds clean.
#   tools_test.sh CACHEMOUNT [FILES]
CACHEMOUNT=$1
FILES=${2:-2000}
HERE=$(cd "$(dirname "$0")" && pwd)
source "$HERE/../../mount/workload/mount_lib.sh"
source "$HERE/../../mount/workload/tool_workload.sh"
require_fuse

step "generate $FILES files and their archive"
generate_tree "$WORK/tree" "$FILES"
expected_hits=$(grep -rl 'needle-7$' "$WORK/tree/project" | wc -l)

mkdir -p "$WORK/inner"
mp="$WORK/mnt"
mount_store "$WORK/inner" "$mp" "$WORK/mount.log" || fail "cannot mount"
export HOME="$WORK"
run_workload "$mp" "$WORK/tree.tar" "$WORK/copy"
hits=$(grep -rl --exclude-dir=.git 'needle-7$' "$mp/project" | wc -l)
[ "$hits" -eq "$expected_hits" ] || fail "grep -r found $hits files, expected $expected_hits"
[ -z "$(git -C "$mp/project" status --porcelain)" ] || fail "git status shows changes on the mount"
diff -r "$WORK/tree/project" "$WORK/copy" || fail "the tree copied out differs"

unmount_store "$mp" "$WORK/mount.log"
step "the store holds the tree and a sound repository"
diff -r --exclude=.git "$WORK/tree/project" "$WORK/inner/project" || fail "the store's tree differs"
git -C "$WORK/inner/project" fsck --no-progress --strict || fail "git fsck failed on the store"
[ "$(git -C "$WORK/inner/project" ls-files | wc -l)" -eq "$FILES" ] || fail "commit lacks files"
[ -z "$(git -C "$WORK/inner/project" status --porcelain)" ] || fail "the store's tree differs from HEAD"
echo "PASS"
