#!/usr/bin/env bash
# Times `veerline usage` over about 1 GB of made-up Claude Code and Codex logs (USAGE_BENCH_MB,
# default 1024), all in the page cache. Reports, as ratios: a cold scan (--no-cache) against
# `grep -c` of the two needles over the same files, which is the floor for any scan that looks at
# every byte; and a repeated run (the persistent cache filled) against the cold scan.
# Goals: cold scan within 2 times the floor; repeated run at most 5% of the cold scan.
set -euo pipefail

build_dir=$(cd "${BUILD_DIR:-build-bench}" && pwd)
veerline=$build_dir/veerline
megabytes=${USAGE_BENCH_MB:-1024}
runs=${USAGE_BENCH_RUNS:-5}
work=$(mktemp -d "${TMPDIR:-/tmp}/veerline-usage-bench.XXXXXX")
trap 'rm -rf "$work"' EXIT

export HOME=$work/home XDG_CACHE_HOME=$work/cache LC_ALL=C
mkdir -p "$HOME"
python3 "$(dirname "$0")/usage_logs.py" "$HOME" "$megabytes"
"$veerline" profile add Bench --tools claude,codex --storage system > /dev/null

claude_files=$work/claude-files
codex_files=$work/codex-files
find "$HOME/.claude/projects" -name '*.jsonl' > "$claude_files"
find "$HOME/.codex/sessions" -name '*.jsonl' > "$codex_files"
bytes=$(cat "$claude_files" "$codex_files" | xargs cat | wc -c)
# Into the page cache, so that every run reads memory.
cat "$claude_files" "$codex_files" | xargs cat > /dev/null

floor() {
  xargs grep -F -c '"usage"' < "$claude_files" > /dev/null
  xargs grep -F -c '"token_count"' < "$codex_files" > /dev/null
}
cold() { "$veerline" usage Bench --no-cache --json > "$work/cold.json"; }
repeated() { "$veerline" usage Bench --json > "$work/repeated.json"; }

# The best of several runs: the machine's other load only ever adds time.
best_ms() {
  local best="" start end elapsed i
  for i in $(seq "$runs"); do
    start=$(date +%s%N)
    "$@"
    end=$(date +%s%N)
    elapsed=$(( (end - start) / 1000 ))
    if [ -z "$best" ] || [ "$elapsed" -lt "$best" ]; then best=$elapsed; fi
  done
  awk -v us="$best" 'BEGIN { printf "%.1f", us / 1000 }'
}

floor_ms=$(best_ms floor)
cold_ms=$(best_ms cold)
repeated > /dev/null  # fills the cache
repeated_ms=$(best_ms repeated)
if ! cmp -s "$work/cold.json" "$work/repeated.json"; then
  echo "usage_bench: the cached run counted differently from the cold scan" >&2
  diff "$work/cold.json" "$work/repeated.json" >&2 || true
  exit 1
fi

awk -v b="$bytes" -v f="$floor_ms" -v c="$cold_ms" -v r="$repeated_ms" -v n="$runs" \
    -v files="$(cat "$claude_files" "$codex_files" | wc -l)" 'BEGIN {
  printf "usage:   %.0f MB in %d log files; best of %d runs\n", b / 1048576, files, n
  printf "         grep -c of both needles (floor) %.1f ms, cold scan (--no-cache) %.1f ms, ratio %.2f (goal 2)\n", f, c, c / f
  printf "         repeated run (cache filled) %.1f ms, %.1f%% of the cold scan (goal 5%%)\n", r, 100 * r / c
}'
