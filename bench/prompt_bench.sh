#!/usr/bin/env bash
# Times `veerline-resolve --prompt` in a folder ten levels deep (8 profiles, 30 rules, a dotfile
# three levels up) against starting a trivial statically linked program, the floor for any
# process start. Prints both times and their ratio.
set -euo pipefail

build_dir=$(cd "${BUILD_DIR:-build-bench}" && pwd)
resolve=$build_dir/veerline-resolve
runs=${RUNS:-1000}

work=$(mktemp -d "${TMPDIR:-/tmp}/veerline-bench.XXXXXX")
trap 'rm -rf "$work"' EXIT
home=$work/home
deep=$home/clients/acme/repos/platform/services/api/src/main/java/handlers
mkdir -p "$deep"
printf '# pinned for this service\nProfile 7\n' > "$home/clients/acme/repos/platform/services/api/src/.veerline"

support="$home/Library/Application Support/Veerline"
mkdir -p "$support"
{
  printf '{\n  "cliDefault" : "p1",\n  "profiles" : [\n'
  for i in 1 2 3 4 5 6 7 8; do
    sep=,; [ "$i" -eq 8 ] && sep=
    printf '    { "badge" : "P%d", "color" : "blue", "id" : "p%d", "name" : "Profile %d", "storage" : "managed", "tools" : [ "claude-code", "codex" ] }%s\n' "$i" "$i" "$i" "$sep"
  done
  printf '  ],\n  "rules" : [\n'
  # Four rules on the way down to the working folder, the rest elsewhere (half of them real).
  # The "~" is written into the rules, not expanded here.
  # shellcheck disable=SC2088
  rules=("~/clients/**" "~/clients/acme" "~/clients/acme/repos/platform/**" "/")
  for i in $(seq 1 26); do
    # shellcheck disable=SC2088
    rules+=("~/elsewhere/team-$i/**")
    [ $((i % 2)) -eq 0 ] && mkdir -p "$home/elsewhere/team-$i"
  done
  for i in "${!rules[@]}"; do
    sep=,; [ "$i" -eq 29 ] && sep=
    printf '    { "path" : "%s", "profileID" : "p%d" }%s\n' "${rules[$i]}" $((i % 8 + 1)) "$sep"
  done
  printf '  ],\n  "version" : 1\n}\n'
} > "$support/profiles.json"

trivial=$build_dir/trivial_static
if ! printf 'int main() { return 0; }\n' | ${CXX:-c++} -O2 -static -x c++ - -o "$trivial" 2>/dev/null; then
  trivial=/bin/true
  echo "note: no static linking here; comparing against /bin/true instead"
fi

cd "$deep"
export HOME=$home PWD=$deep
answer=$("$resolve" --prompt)
if [ "$answer" != "Profile 7" ]; then
  echo "prompt_bench: expected \"Profile 7\", got \"$answer\"" >&2
  exit 1
fi

# --version shows what of the prompt's time is process start-up rather than its own work.
if command -v hyperfine >/dev/null 2>&1; then
  if ! hyperfine -N --warmup 50 --runs "$runs" --export-json "$work/times.json" \
      "'$resolve' --prompt" "'$trivial'" "'$resolve' --version" >/dev/null 2>"$work/hyperfine.err"; then
    cat "$work/hyperfine.err" >&2
    exit 1
  fi
  means=$(grep -o '"mean": *[0-9.eE+-]*' "$work/times.json" | sed 's/.*: *//' |
          awk '{ printf "%.1f ", $1 * 1e6 }')
  tool="hyperfine, $runs runs"
else
  means="$("$build_dir/spawn_timer" "$runs" "$resolve" --prompt | cut -d' ' -f1) \
$("$build_dir/spawn_timer" "$runs" "$trivial" | cut -d' ' -f1) \
$("$build_dir/spawn_timer" "$runs" "$resolve" --version | cut -d' ' -f1)"
  tool="spawn_timer, $runs runs"
fi
read -r prompt_us trivial_us version_us <<< "$means"
awk -v p="$prompt_us" -v t="$trivial_us" -v v="$version_us" -v tool="$tool" \
    -v floor="$(basename "$trivial")" 'BEGIN {
  printf "veerline-resolve --prompt: %.1f us   %s: %.1f us   ratio: %.2f  (mean, %s)\n", p, floor, t, p / t, tool
  printf "for reference, veerline-resolve --version: %.1f us\n", v
}'
