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
# Written out first: a gigabyte still being written back to disk slowed whichever runs it overlapped.
sync
# Into the page cache, so that every run reads memory.
cat "$claude_files" "$codex_files" | xargs cat > /dev/null

# Into a file, not /dev/null: GNU grep stops at the first match when its output goes nowhere.
floor() {
  xargs grep -F -c '"usage"' < "$claude_files" > "$work/claude.counts"
  xargs grep -F -c '"token_count"' < "$codex_files" > "$work/codex.counts"
}
cold() { "$veerline" usage Bench --no-cache --json > "$work/cold.json"; }
repeated() { "$veerline" usage Bench --json > "$work/repeated.json"; }

# The best of several runs, as "wall-ms cpu-ms": the machine's other load only ever adds time.
# On a busy machine the processor time (user plus system, all threads) is the steadier figure.
best_times() {
  local best_wall="" best_cpu="" wall user sys cpu i
  for i in $(seq "$runs"); do
    read -r wall user sys < <({ TIMEFORMAT='%3R %3U %3S'; time "$@"; } 2>&1)
    wall=$(awk -v x="$wall" 'BEGIN { printf "%d", x * 1000000 }')
    cpu=$(awk -v u="$user" -v s="$sys" 'BEGIN { printf "%d", (u + s) * 1000000 }')
    if [ -z "$best_wall" ] || [ "$wall" -lt "$best_wall" ]; then best_wall=$wall; fi
    if [ -z "$best_cpu" ] || [ "$cpu" -lt "$best_cpu" ]; then best_cpu=$cpu; fi
  done
  awk -v w="$best_wall" -v c="$best_cpu" 'BEGIN { printf "%.1f %.1f", w / 1000, c / 1000 }'
}

read -r floor_ms floor_cpu <<< "$(best_times floor)"
read -r cold_ms cold_cpu <<< "$(best_times cold)"
repeated > /dev/null  # fills the cache
read -r repeated_ms repeated_cpu <<< "$(best_times repeated)"
if ! cmp -s "$work/cold.json" "$work/repeated.json"; then
  echo "usage_bench: the cached run counted differently from the cold scan" >&2
  diff "$work/cold.json" "$work/repeated.json" >&2 || true
  exit 1
fi

awk -v b="$bytes" -v f="$floor_ms" -v c="$cold_ms" -v r="$repeated_ms" -v fc="$floor_cpu" -v cc="$cold_cpu" \
    -v rc="$repeated_cpu" -v n="$runs" -v files="$(cat "$claude_files" "$codex_files" | wc -l)" 'BEGIN {
  printf "usage:   %.0f MB in %d log files; best of %d runs; wall-clock (processor time)\n", b / 1048576, files, n
  printf "         grep -c of both needles (floor) %.1f ms (%.1f ms), cold scan (--no-cache) %.1f ms (%.1f ms)\n", f, fc, c, cc
  printf "         cold scan / floor: %.2f (%.2f), goal 2\n", c / f, (fc > 0 ? cc / fc : 0)
  printf "         repeated run (cache filled) %.1f ms (%.1f ms): %.1f%% (%.1f%%) of the cold scan, goal 5%%\n", r, rc, 100 * r / c, 100 * rc / cc
}'
