# The tool workload run on mounts by the mount tests, `make demo` and the mount benchmark:
# extract a tar archive of generated files, git init, add and commit them, grep -r, copy the
# tree back out. Source it (bash); it defines functions only.

# generate_tree DIR FILES [MODULES PARTS]: FILES small text files under DIR/project in
# MODULES x PARTS folders (40 x 7 unless given); every file holds one "needle-<i mod 13>"
# line. Writes DIR.tar beside it.
generate_tree() {
  local dir=$1 files=$2 modules=${3:-40} parts=${4:-7} m p
  for ((m = 0; m < modules; m++)); do for ((p = 0; p < parts; p++)); do
    mkdir -p "$dir/project/module$m/part$p"
  done; done
  awk -v n="$files" -v root="$dir/project" -v modules="$modules" -v parts="$parts" 'BEGIN {
    for (i = 0; i < n; i++) {
      f = sprintf("%s/module%d/part%d/source%d.txt", root, i % modules, int(i / modules) % parts, i)
      printf "file %d\nneedle-%d\n", i, i % 13 > f
      for (j = 0; j < i % 5 * 40; j++) printf "line %d of file %d\n", j, i > f
      close(f)
    }
  }'
  tar -C "$dir" -cf "$dir.tar" project
}

# timed_step NAME COMMAND...: runs the command and prints "step NAME SECONDS".
timed_step() {
  local name=$1 started=${EPOCHREALTIME/./}
  shift
  "$@"
  local micros=$((${EPOCHREALTIME/./} - started))
  printf 'step %s %d.%06d\n' "$name" $((micros / 1000000)) $((micros % 1000000))
}

# Reads every file below the folder (counting the needle lines), as a search does.
grep_tree() {
  grep -rc --exclude-dir=.git 'needle-12$' "$1" >/dev/null
}

# run_workload TARGET ARCHIVE COPY: the workload in folder TARGET (a mount or a plain folder);
# the tree is copied out to COPY (without .git). Prints one "step" line per step.
run_workload() {
  local target=$1 archive=$2 copy=$3
  export GIT_AUTHOR_NAME=workload GIT_AUTHOR_EMAIL=workload@example.com
  export GIT_COMMITTER_NAME=workload GIT_COMMITTER_EMAIL=workload@example.com
  export GIT_CONFIG_NOSYSTEM=1 GIT_CONFIG_GLOBAL=/dev/null
  timed_step tar-x tar -C "$target" -xf "$archive"
  timed_step git-init git -C "$target/project" init -q
  timed_step git-add git -C "$target/project" add -A
  timed_step git-commit git -C "$target/project" commit -qm "generated files"
  timed_step grep-r grep_tree "$target/project"
  timed_step cp-r-out cp -r "$target/project" "$copy"
  rm -rf "$copy/.git"
}
