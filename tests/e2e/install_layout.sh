#!/usr/bin/env bash
# What a prefix install puts beside the executables: manual pages that describe every command
# `veerline --help` lists and render without a warning, the completion scripts where bash, zsh and
# fish look for them, the README and license, and executables that name their version and commit.
# CTest sets VEERLINE_SOURCE_DIR and VEERLINE_BUILD_DIR.
set -euo pipefail
fail() { echo "install_layout.sh: FAILED: $*" >&2; exit 1; }

tmp=$(mktemp -d "${TMPDIR:-/tmp}/veerline-layout.XXXXXX")
trap 'rm -rf "$tmp"' EXIT
prefix="$tmp/prefix" veerline="$tmp/prefix/bin/veerline"
cmake --install "$VEERLINE_BUILD_DIR" --prefix "$prefix" >/dev/null || fail "cmake --install failed"

# Each installed file, and the command whose output it must equal.
while IFS='|' read -r path source; do
  [[ -f $prefix/$path ]] || fail "the install put no $path"
  cmp -s "$prefix/$path" <(eval "$source") || fail "$path differs from what '$source' gives"
done <<'ROWS'
share/bash-completion/completions/veerline|"$veerline" completion bash
share/zsh/site-functions/_veerline|"$veerline" completion zsh
share/fish/vendor_completions.d/veerline.fish|"$veerline" completion fish
share/man/man1/veerline.1.gz|"$veerline" help-man veerline | gzip -9n
share/man/man1/veerline-resolve.1.gz|"$veerline" help-man veerline-resolve | gzip -9n
share/doc/veerline/README.md|cat "$VEERLINE_SOURCE_DIR/README.md"
share/doc/veerline/LICENSE|cat "$VEERLINE_SOURCE_DIR/LICENSE"
ROWS

for page in veerline veerline-resolve; do
  warnings=$(MANWIDTH=80 man --warnings -E UTF-8 -l "$prefix/share/man/man1/$page.1.gz" 2>&1 >/dev/null)
  [[ -z $warnings ]] || fail "man warns about $page(1): $warnings"
done

# The commands `--help` lists, level by level, against the commands the manual describes.
help_commands() {
  local command
  for command in $("$veerline" "$@" --help | sed -n '/^Subcommands:/,/^$/s/^  \([a-z][a-z-]*\) .*/\1/p'); do
    echo "$* $command" | sed 's/^ //'
    help_commands "$@" "$command"
  done
}
manual_commands=$(gzip -dc "$prefix/share/man/man1/veerline.1.gz" | sed -n 's/\\-/-/g; s/^\.SS "veerline \([a-z -]*\).*/\1/p' |
  sed 's/ *$//; s/ -.*//')
diff <(help_commands | sort) <(sort <<<"$manual_commands") >"$tmp/commands.diff" ||
  fail "the manual's commands (>) differ from --help's (<): $(cat "$tmp/commands.diff")"

version=$(sed -n 's/^project.Veerline VERSION \([0-9.]*\).*/\1/p' "$VEERLINE_SOURCE_DIR/CMakeLists.txt")
# The commit the build read from git (a commit made since then is not the binary's to know).
commit=$(sed -n 's/^#define VEERLINE_COMMIT "\(.*\)"$/\1/p' "$VEERLINE_BUILD_DIR/generated/build_info.h")
[[ $commit =~ ^[0-9a-f]{12}(-dirty)?$ ]] || fail "the build recorded no commit: [$commit]"
said=$("$veerline" --version)
[[ $said == "veerline $version (commit $commit)" ]] || fail "veerline --version says [$said]"
# The resolver's answer is a fixed text that scripts compare.
said=$("$prefix/libexec/veerline/veerline-resolve" --version)
[[ $said == "veerline-resolve $version" ]] || fail "veerline-resolve --version says [$said]"
