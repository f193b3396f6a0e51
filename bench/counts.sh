#!/usr/bin/env bash
# Counts what one start of the shim and of `veerline-resolve --prompt` costs on each fixture
# layout, in system calls (strace) and instructions (valgrind's callgrind). Unlike wall times,
# both counts repeat exactly on a loaded machine. The shim's counts stop at its execve of the tool.
# Skipped when strace or valgrind is missing.
set -euo pipefail

# shellcheck source=bench/fixture.sh
source "$(dirname "$0")/fixture.sh"

if ! command -v strace >/dev/null || ! command -v valgrind >/dev/null; then
  echo "counts:  skipped (needs strace and valgrind)"
  exit 0
fi

mkdir -p "$work/tools"
tool=$work/tools/claude
build_static "$tool" >/dev/null <<< 'int main() { return 0; }'
mkdir -p "$work/unstartable"
printf 'not a program' > "$work/unstartable/claude"
chmod +x "$work/unstartable/claude"

# System calls of one run up to and including the execve that starts the tool, if any.
#   syscalls_of PROGRAM ARGS...
syscalls_of() {
  strace -f -qq -o "$work/trace" "$@" >/dev/null
  # The first line is strace starting the program itself.
  awk -v tool="$tool" 'NR > 1 && index($0, "execve(\"" tool "\"") { print NR - 1; found = 1; exit }
    END { if (!found) print NR - 1 }' "$work/trace"
}
# Instructions executed by the program itself. Callgrind writes nothing for a process that
# execve's, so the shim is counted with PATH leading to a "tool" the kernel refuses to start: its
# execve fails, and it exits having done all of its work.
#   instructions_of PROGRAM ARGS...
instructions_of() {
  PATH=$work/unstartable:$PATH valgrind --tool=callgrind --callgrind-out-file="$work/callgrind.out" "$@" \
    >/dev/null 2>"$work/valgrind.log" || true
  awk '/^summary:|^totals:/ { print $2; exit }' "$work/callgrind.out"
}

printf '%-14s %-8s %10s %14s\n' layout mode syscalls instructions
printf '%-14s %-8s %10s %14s\n' - trivial "$(syscalls_of "$tool")" "$(instructions_of "$tool")"
for layout in "${layouts[@]}"; do
  home=$work/$layout
  make_fixture "$home" "$layout"
  (
    cd "$deep"
    export HOME=$home PWD=$deep PATH=$home/.veerline/bin:$work/tools:/usr/bin:/bin
    # The first start prepares the profile's data folder; every later one finds it ready.
    "$home/.veerline/bin/claude"
    printf '%-14s %-8s %10s %14s\n' "$layout" shim "$(syscalls_of "$home/.veerline/bin/claude")" \
      "$(instructions_of "$home/.veerline/bin/claude")"
    printf '%-14s %-8s %10s %14s\n' "$layout" prompt "$(syscalls_of "$resolve" --prompt)" \
      "$(instructions_of "$resolve" --prompt)"
  )
done
