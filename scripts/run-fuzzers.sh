#!/usr/bin/env bash
# Runs every fuzz target built in build/fuzz (make fuzz) for FUZZ_SECONDS seconds each
# (default 60), one after the other. Each starts from a copy of its seed corpus
# (fuzz/corpus/<target>/) in a scratch directory, so the inputs it finds never land in the
# repository. A crashing input is kept in build/fuzz/artifacts/<target>/. Exits non-zero when
# any target failed; the others still run.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds="${FUZZ_SECONDS:-60}"
bin=build/fuzz/fuzz
scratch="$(mktemp -d -t overlay-fuzz-XXXXXX)"
trap 'rm -rf "$scratch"' EXIT

failed=()
for source in fuzz/fuzz_*.cpp; do
  name="$(basename "$source" .cpp)"
  corpus="$scratch/$name"
  artifacts="build/fuzz/artifacts/$name"
  mkdir -p "$corpus" "$artifacts" "$scratch/tmp"
  cp fuzz/corpus/"$name"/* "$corpus"/
  echo "== $name: ${seconds}s"
  # -timeout: one input running longer than this is a hang. Leak checks stay on. The targets'
  # own scratch files go to the temporary directory, here inside the scratch directory, so a
  # target that aborts leaves nothing behind either.
  if ! TMPDIR="$scratch/tmp" "$bin/$name" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=2048 \
      -print_final_stats=1 -artifact_prefix="$artifacts/" "$corpus" 2>"$scratch/$name.log"; then
    failed+=("$name")
    tail -n 60 "$scratch/$name.log"
  fi
  grep -E '^(#[0-9]+.*DONE|stat::number_of_executed_units|stat::average_exec_per_sec|stat::peak_rss_mb)' \
    "$scratch/$name.log" || true
done

if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzz targets that failed: ${failed[*]} (inputs in build/fuzz/artifacts/)" >&2
  exit 1
fi
echo "all fuzz targets ran ${seconds}s without a failure"
