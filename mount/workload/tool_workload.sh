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

# The runs below need mount_lib.sh and write WORK/NAME.steps: one line "step NAME SECONDS"
# per step (unmount included), then "calls-when-done N" and "calls-in-all N" for mounts.
# Each copies the tree out to WORK/copy-NAME and fails when the copy differs from WORK/tree.

# run_on_mount NAME STORE [cachemount options]
run_on_mount() {
  local name=$1 store=$2
  shift 2
  local mp="$WORK/mnt-$name" log="$WORK/$name.log" out="$WORK/$name.steps"
  mount_store "$store" "$mp" "$log" "$@" || fail "cannot mount $name"
  run_workload "$mp" "$WORK/tree.tar" "$WORK/copy-$name" >"$out"
  echo "calls-when-done $(store_calls "$log")" >>"$out"
  timed_step unmount unmount_store "$mp" "$log" >"$WORK/$name.unmount"
  grep '^step' "$WORK/$name.unmount" >>"$out"
  echo "calls-in-all $(grep 'flush took' "$log" | sed 's/.*store calls //')" >>"$out"
  check_copy "$name"
}

# run_in_folder NAME FOLDER: the workload straight on a local folder (no unmount step).
run_in_folder() {
  local name=$1 folder=$2
  mkdir -p "$folder"
  run_workload "$folder" "$WORK/tree.tar" "$WORK/copy-$name" >"$WORK/$name.steps"
  echo "step unmount 0" >>"$WORK/$name.steps"
  check_copy "$name"
}

check_copy() {
  diff -r "$WORK/tree/project" "$WORK/copy-$1" >/dev/null || fail "$1: the tree copied out differs"
}

step_value() {
  awk -v key="$2" '($1 == "step" && $2 == key) { print $3 } ($1 == key) { print $2 }' \
    "$WORK/$1.steps"
}

# step_table TITLE BASE OTHER...: seconds per step of each run, and each other run's time
# divided by the base run's (above 1: the base run was faster). STEP_KEYS names the rows (by
# default the workload's steps, the unmount and their total).
step_table() {
  local title=$1 base=$2
  shift 2
  local runs=("$base" "$@") key run
  local keys
  read -r -a keys <<<"${STEP_KEYS:-tar-x git-init git-add git-commit grep-r cp-r-out unmount total}"
  echo
  echo "$title"
  printf '  %-16s' step
  for run in "${runs[@]}"; do printf ' %13s' "$run"; done
  for run in "$@"; do printf ' %13s' "$run/$base"; done
  echo
  for key in "${keys[@]}"; do
    printf '  %-16s' "$key"
    local values=()
    for run in "${runs[@]}"; do
      local v
      if [ "$key" = total ]; then
        v=$(awk '$1 == "step" { s += $3 } END { printf "%.6f", s }' "$WORK/$run.steps")
      else
        v=$(step_value "$run" "$key")
      fi
      values+=("$v")
      printf ' %11.3f s' "$v"
    done
    for v in "${values[@]:1}"; do
      awk -v a="$v" -v b="${values[0]}" 'BEGIN { if (b > 0) printf " %12.2fx", a / b; else printf " %13s", "-" }'
    done
    echo
  done
  printf '  %-16s' "store calls"
  for run in "${runs[@]}"; do
    local calls
    calls=$(step_value "$run" calls-in-all)
    printf ' %13s' "${calls:--}"
  done
  echo
}
