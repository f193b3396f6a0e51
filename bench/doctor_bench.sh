#!/usr/bin/env bash
# Times `veerline doctor --deep` with four profiles that each use Claude Code and Codex, whose
# status commands take 200 ms to answer, against the time of one such answer. Asked one after
# another, the eight answers alone would take eight times that.
set -euo pipefail

# shellcheck source=bench/fixture.sh
source "$(dirname "$0")/fixture.sh"
# Each run waits on real sleeps: a handful of runs gives a steady median.
runs=${DOCTOR_RUNS:-5}

home=$work/home
support="$home/Library/Application Support/Veerline"
tools=$work/tools
mkdir -p "$tools" "$support"
printf '#!/bin/sh\nsleep 0.2\necho '"'"'{"loggedIn": true, "authMethod": "claude.ai", "email": "%s@example.com"}'"'"'\n' \
  bench > "$tools/claude"
printf '#!/bin/sh\nsleep 0.2\necho "Logged in using ChatGPT" >&2\n' > "$tools/codex"
chmod 755 "$tools/claude" "$tools/codex"
{
  printf '{\n  "profiles": [\n'
  for i in 1 2 3 4; do
    [ "$i" -lt 4 ] && sep=, || sep=
    printf '    {"badge": "P%d", "color": "blue", "id": "p%d", "name": "Profile %d", "storage": "managed",\n' "$i" "$i" "$i"
    printf '     "tools": ["claude-code", "codex"]}%s\n' "$sep"
    mkdir -p "$support/claude-code/p$i" "$support/codex/p$i"
  done
  printf '  ],\n  "rules": [],\n  "version": 1\n}\n'
} > "$support/profiles.json"

cd "$home"
export HOME=$home PATH=$tools:/usr/bin:/bin
veerline=$build_dir/veerline
signed_in=$("$veerline" doctor --deep --json | grep -c '"title": "Profile .*: Signed in"' || true)
if [ "$signed_in" != 8 ]; then
  echo "doctor_bench: expected 8 signed-in checks, got $signed_in" >&2
  exit 1
fi

read -r doctor_us answer_us <<< "$(median_times "$veerline doctor --deep" "$tools/claude auth status")"
awk -v d="$doctor_us" -v a="$answer_us" -v n="$runs" 'BEGIN {
  printf "doctor:  veerline doctor --deep with 4 profiles x 2 tools %.0f ms, one 200 ms answer %.0f ms\n", d / 1000, a / 1000
  printf "         %.2f times one answer (one after another: 8; median of %d interleaved runs)\n", d / a, n
}'
