#!/usr/bin/env bash
# Real tools on a mount: extract a tar archive of generated files, git init, add and commit
# them, grep -r, copy the tree back out and compare it with the original; after unmounting,
# the folder behind the overlay holds the same tree and a git repository that git accepts.
#   tools_test.sh CACHEMOUNT [FILES] [STORE_OPTIONS...]
CACHEMOUNT=$1
FILES=${2:-2000}
shift 2 || true
HERE=$(cd "$(dirname "$0")" && pwd)
source "$HERE/mount_lib.sh"
require_fuse

step "generate $FILES files and their archive"
mkdir -p "$WORK/tree"
for ((m = 0; m < 40; m++)); do for ((p = 0; p < 7; p++)); do
  mkdir -p "$WORK/tree/project/module$m/part$p"
done; done
awk -v n="$FILES" -v root="$WORK/tree/project" 'BEGIN {
  for (i = 0; i < n; i++) {
    f = sprintf("%s/module%d/part%d/source%d.txt", root, i % 40, i % 7, i)
    printf "file %d\nneedle-%d\n", i, i % 13 > f
    for (j = 0; j < i % 5 * 40; j++) printf "line %d of file %d\n", j, i > f
    close(f)
  }
}'
tar -C "$WORK/tree" -cf "$WORK/tree.tar" project
expected_hits=$(grep -rl 'needle-7$' "$WORK/tree/project" | wc -l)

mkdir -p "$WORK/inner"
mp="$WORK/mnt"
mount_store "$WORK/inner" "$mp" "$WORK/mount.log" "$@" || fail "cannot mount"
export GIT_AUTHOR_NAME=t GIT_AUTHOR_EMAIL=t@example.com GIT_COMMITTER_NAME=t \
  GIT_COMMITTER_EMAIL=t@example.com GIT_CONFIG_NOSYSTEM=1 HOME="$WORK"

timed() {
  local started=${EPOCHREALTIME/./}
  "$@"
  local micros=$((${EPOCHREALTIME/./} - started))
  printf '%-12s %4d.%03d s\n' "$STEP" $((micros / 1000000)) $((micros / 1000 % 1000))
}
STEP="tar x"; timed tar -C "$mp" -xf "$WORK/tree.tar"
cd "$mp/project"
STEP="git init"; timed git init -q
STEP="git add"; timed git add -A
STEP="git commit"; timed git commit -qm "generated files"
hits=$(grep -rl 'needle-7$' --exclude-dir=.git . | wc -l)
[ "$hits" -eq "$expected_hits" ] || fail "grep -r found $hits files, expected $expected_hits"
STEP="grep -r"; timed bash -c "grep -rc 'needle-12\$' --exclude-dir=.git . >/dev/null"
STEP="cp -r out"; timed cp -r "$mp/project" "$WORK/copy"
git status --porcelain | head -5 >"$WORK/status.txt"
[ ! -s "$WORK/status.txt" ] || fail "git status shows changes: $(cat "$WORK/status.txt")"
cd "$WORK"
rm -rf "$WORK/copy/.git"
diff -r "$WORK/tree/project" "$WORK/copy" || fail "the tree copied out differs"

unmount_store "$mp" "$WORK/mount.log"
step "the store holds the tree and a sound repository"
diff -r --exclude=.git "$WORK/tree/project" "$WORK/inner/project" || fail "the store's tree differs"
git -C "$WORK/inner/project" fsck --no-progress --strict || fail "git fsck failed on the store"
[ "$(git -C "$WORK/inner/project" ls-files | wc -l)" -eq "$FILES" ] || fail "commit lacks files"
git -C "$WORK/inner/project" diff --quiet HEAD || fail "the store's work tree differs from HEAD"
echo "PASS"
