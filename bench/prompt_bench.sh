#!/usr/bin/env bash
# Times `veerline-resolve --prompt` in a folder ten levels deep (8 profiles, 30 rules, a dotfile
# three levels up), on each fixture layout, against starting a trivial statically linked program,
# the floor for any process start. Prints the times and their ratio (goal: at most 1.3).
set -euo pipefail

# shellcheck source=bench/fixture.sh
source "$(dirname "$0")/fixture.sh"

trivial=$work/trivial
linkage=$(build_static "$trivial" <<< 'int main() { return 0; }')

for layout in "${layouts[@]}"; do
  make_fixture "$work/$layout" "$layout"
  (
    cd "$deep"
    export HOME=$work/$layout PWD=$deep
    answer=$("$resolve" --prompt)
    if [ "$answer" != "Profile 7" ]; then
      echo "prompt_bench: expected \"Profile 7\", got \"$answer\" ($layout)" >&2
      exit 1
    fi
    # --version shows what of the prompt's time is process start-up rather than its own work.
    read -r prompt_us trivial_us version_us <<< "$(median_times "$resolve --prompt" "$trivial" "$resolve --version")"
    awk -v p="$prompt_us" -v t="$trivial_us" -v v="$version_us" -v l="$linkage" -v n="$runs" -v layout="$layout" 'BEGIN {
      printf "prompt (%s): veerline-resolve --prompt %.1f us, trivial %s program %.1f us, ratio %.2f (goal <= 1.3; median of %d interleaved runs)\n", layout, p, l, t, p / t, n
      printf "         veerline-resolve --version %.1f us (start-up alone)\n", v
    }'
  )
done
