#!/usr/bin/env bash
# Times `veerline-resolve --prompt` in a folder ten levels deep (8 profiles, 30 rules, a dotfile
# three levels up) against starting a trivial statically linked program, the floor for any
# process start. Prints both times and their ratio.
set -euo pipefail

# shellcheck source=bench/fixture.sh
source "$(dirname "$0")/fixture.sh"

make_fixture "$work/home"
trivial=$work/trivial
linkage=$(build_static "$trivial" <<< 'int main() { return 0; }')

cd "$deep"
export HOME=$work/home PWD=$deep
answer=$("$resolve" --prompt)
if [ "$answer" != "Profile 7" ]; then
  echo "prompt_bench: expected \"Profile 7\", got \"$answer\"" >&2
  exit 1
fi

# --version shows what of the prompt's time is process start-up rather than its own work.
read -r prompt_us trivial_us version_us <<< "$(median_times "$resolve --prompt" "$trivial" "$resolve --version")"
awk -v p="$prompt_us" -v t="$trivial_us" -v v="$version_us" -v l="$linkage" -v n="$runs" 'BEGIN {
  printf "prompt:  veerline-resolve --prompt %.1f us, trivial %s program %.1f us, ratio %.2f (median of %d interleaved runs)\n", p, l, t, p / t, n
  printf "         veerline-resolve --version %.1f us (start-up alone)\n", v
}'
