#!/usr/bin/env bash
# What a shim adds to starting a tool, on each fixture layout. Times a trivial "real tool" started
# directly, through a minimal static exec wrapper (the floor: one extra execve), and through the
# veerline-resolve shim with 8 profiles, 30 rules, a folder ten levels deep and a dotfile three
# levels up. Reports the shim's added time as a multiple of the floor's added time (goal: at most
# 1.3 on every layout).
set -euo pipefail

# shellcheck source=bench/fixture.sh
source "$(dirname "$0")/fixture.sh"

mkdir -p "$work/tools"
tool=$work/tools/claude
linkage=$(build_static "$tool" <<< 'int main() { return 0; }')
build_static "$work/wrapper" >/dev/null <<EOF_WRAPPER
#include <unistd.h>
int main(int, char** argv) { argv[0] = const_cast<char*>("$tool"); execv(argv[0], argv); return 127; }
EOF_WRAPPER

for layout in "${layouts[@]}"; do
  home=$work/$layout
  make_fixture "$home" "$layout"
  (
    cd "$deep"
    export HOME=$home PWD=$deep PATH=$home/.veerline/bin:$work/tools:/usr/bin:/bin
    if ! "$home/.veerline/bin/claude"; then
      echo "shim_bench: the shim did not reach the tool ($layout)" >&2
      exit 1
    fi
    read -r direct_us wrapper_us shim_us <<< "$(median_times "$tool" "$work/wrapper" "$home/.veerline/bin/claude")"
    awk -v d="$direct_us" -v w="$wrapper_us" -v s="$shim_us" -v l="$linkage" -v n="$runs" -v layout="$layout" 'BEGIN {
      printf "shim (%s): tool alone %.1f us, through exec wrapper %.1f us (+%.1f), through shim %.1f us (+%.1f)\n", layout, d, w, w - d, s, s - d
      printf "         shim adds %.2f times what one extra exec adds (goal <= 1.3; %s tool and wrapper, median of %d interleaved runs)\n", (s - d) / (w - d), l, n
    }'
  )
done
