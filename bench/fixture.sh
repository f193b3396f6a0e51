# shellcheck shell=bash
# shellcheck disable=SC2088,SC2034 # rules keep a literal "~"; the variables below are the caller's
# Sourced by the benchmarks. Sets build_dir (BUILD_DIR, default build-bench), resolve (a copy of
# the built resolver, as installed), runs (RUNS, default 1000) and work, a scratch folder removed
# on exit; make_fixture builds a HOME with 8 profiles, 30 folder rules, a working folder ten levels
# deep, a .veerline dotfile three levels above it and the `claude` shim in ~/.veerline/bin, in one
# of two layouts (`layouts` lists them):
#   side-by-side  26 of the rules in one folder (~/elsewhere/team-N), 4 on the way down
#   spread-out    each rule in a folder of its own (~/r0/x/y ... ~/r28/x/y), plus ~/d1 on the way
# In both, half of the rules elsewhere name folders that exist.
build_dir=$(cd "${BUILD_DIR:-build-bench}" && pwd)
runs=${RUNS:-1000}
work=$(mktemp -d "${TMPDIR:-/tmp}/veerline-bench.XXXXXX")
trap '[ -n "${KEEP_WORK:-}" ] || rm -rf "$work"' EXIT
# Timed as installed: `make install` copies the resolver. The linker's own output file has been
# seen to start measurably slower than a copy of it (how its page-cache pages came to be), which
# would time the build rather than the product.
mkdir -p "$work/libexec"
cp "$build_dir/veerline-resolve" "$work/libexec/veerline-resolve"
resolve=$work/libexec/veerline-resolve
layouts=(side-by-side spread-out)

#   make_fixture HOME LAYOUT   sets $deep to the working folder
make_fixture() {
  local home=$1 layout=${2:-side-by-side}
  local rules=() i sep dotfile_folder
  case $layout in
    side-by-side)
      deep=$home/clients/acme/repos/platform/services/api/src/main/java/handlers
      dotfile_folder=$home/clients/acme/repos/platform/services/api/src
      # Four rules on the way down to the working folder, the rest elsewhere.
      rules=("~/clients/**" "~/clients/acme" "~/clients/acme/repos/platform/**" "/")
      for i in $(seq 1 26); do
        rules+=("~/elsewhere/team-$i/**")
        [ $((i % 2)) -eq 0 ] && mkdir -p "$home/elsewhere/team-$i"
      done
      ;;
    spread-out)
      deep=$home/d1/d2/d3/d4/d5/d6/d7/d8/d9/d10
      dotfile_folder=$home/d1/d2/d3/d4/d5/d6/d7
      for i in $(seq 0 28); do
        rules+=("~/r$i/x/y")
        [ $((i % 2)) -eq 0 ] && mkdir -p "$home/r$i/x/y"
      done
      rules+=("~/d1/**")
      ;;
    *)
      echo "make_fixture: unknown layout $layout" >&2
      return 1
      ;;
  esac
  mkdir -p "$deep" "$home/.veerline/bin"
  ln -s "$resolve" "$home/.veerline/bin/claude"
  printf '# pinned for this service\nProfile 7\n' > "$dotfile_folder/.veerline"

  local support="$home/Library/Application Support/Veerline"
  mkdir -p "$support"
  # Laid out as Veerline writes the file: two-space indentation, one member per line.
  {
    printf '{\n  "cliDefault": "p1",\n  "profiles": [\n'
    for i in 1 2 3 4 5 6 7 8; do
      if [ "$i" -lt 8 ]; then sep=,; else sep=; fi
      printf '    {\n      "badge": "P%d",\n      "color": "blue",\n      "id": "p%d",\n      "name": "Profile %d",\n' "$i" "$i" "$i"
      printf '      "storage": "managed",\n      "tools": [\n        "claude-code",\n        "codex"\n      ]\n    }%s\n' "$sep"
    done
    printf '  ],\n  "rules": [\n'
    for i in "${!rules[@]}"; do
      if [ "$i" -lt $((${#rules[@]} - 1)) ]; then sep=,; else sep=; fi
      printf '    {\n      "path": "%s",\n      "profileID": "p%d"\n    }%s\n' "${rules[$i]}" $((i % 8 + 1)) "$sep"
    done
    printf '  ],\n  "version": 1\n}\n'
  } > "$support/profiles.json"
}

# Compiles a C++ program from standard input, statically linked when the system allows it.
#   build_static OUTPUT   prints "static" or "dynamic"
build_static() {
  local source
  source=$(cat)
  if printf '%s\n' "$source" | ${CXX:-c++} -O2 -static -x c++ - -o "$1" 2>/dev/null; then
    echo static
  else
    printf '%s\n' "$source" | ${CXX:-c++} -O2 -x c++ - -o "$1"
    echo dynamic
  fi
}

# Median wall time in microseconds of each command, the commands taking turns run by run.
#   median_times "PROGRAM ARGS" "PROGRAM ARGS"...   (words split at blanks)
median_times() {
  local timer_args=() command
  for command in "$@"; do
    # shellcheck disable=SC2206 # each command is a program and its arguments
    timer_args+=(-- $command)
  done
  "$build_dir/spawn_timer" "$runs" "${timer_args[@]}" | awk '{ printf "%s ", $2 }'
}
