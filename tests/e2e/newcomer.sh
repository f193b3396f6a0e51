#!/usr/bin/env bash
# A newcomer's first session, from a prefix install through profiles, a folder rule and the shell
# integration in real interactive bash and zsh, to an uninstall that gives the start-up files back
# byte for byte. CTest sets VEERLINE_BUILD_DIR to the built tree.
set -euo pipefail
fail() { echo "newcomer.sh: FAILED: $*" >&2; exit 1; }
expect_eq() { [ "$2" = "$3" ] || fail "$1: expected [$2], got [$3]"; }

tmp=$(cd "$(mktemp -d "${TMPDIR:-/tmp}/veerline-newcomer.XXXXXX")" && pwd -P)
trap 'rm -rf "$tmp"' EXIT
h="$tmp/home" tools="$tmp/tools" veerline="$tmp/prefix/bin/veerline"
mkdir -p "$h/work/project" "$h/elsewhere" "$tools" "$tmp/before"

cmake --install "$VEERLINE_BUILD_DIR" --prefix "$tmp/prefix" >/dev/null || fail "cmake --install failed"
[ -x "$tmp/prefix/libexec/veerline/veerline-resolve" ] || fail "the install put no veerline-resolve in libexec/veerline"

# The "real" claude, further along PATH, says which data folder it was given.
printf '#!/bin/sh\necho "real claude: CLAUDE_CONFIG_DIR=${CLAUDE_CONFIG_DIR-unset} VEERLINE_PROFILE=${VEERLINE_PROFILE-unset}"\n' >"$tools/claude"
chmod 755 "$tools/claude"
# Start-up files the newcomer already has; the zsh one lacks its final line feed.
printf '# my bash settings\nexport PATH="%s:$PATH"\n' "$tools" >"$h/.bashrc"
printf 'export PATH="%s:$PATH"' "$tools" >"$h/.zshrc"
cp -p "$h/.bashrc" "$h/.zshrc" "$tmp/before/"

# Every command runs with only HOME, a minimal PATH and TERM, as from a fresh login.
clean() { env -i HOME="$h" PATH=/usr/bin:/bin TERM=dumb "$@"; }
v() { clean "$veerline" "$@" || fail "veerline $* exited with $?"; }
# A real interactive shell started in HOME; job-control chatter on stderr only explains a failure.
interactive() { (cd "$h" && clean "$1" -ic "$2") 2>"$tmp/$1.err" || fail "$1 -i exited with $?: $(cat "$tmp/$1.err")"; }

work_id=$(v profile add Work)
personal_id=$(v profile add Personal --tools claude,codex --color green)
v rule add '~/work' Work
v default Personal
v shell install --yes >/dev/null

support="$h/Library/Application Support/Veerline"
for shell in bash zsh; do
    expect_eq "$shell session" "$h/.veerline/bin/claude
real claude: CLAUDE_CONFIG_DIR=$support/claude-code/$work_id VEERLINE_PROFILE=Work
Work  (folder rule for ~/work)
real claude: CLAUDE_CONFIG_DIR=$support/claude-code/$personal_id VEERLINE_PROFILE=Personal" \
        "$(interactive "$shell" 'command -v claude; cd ~/work/project && claude && veerline which; cd ~/elsewhere && claude')"
    [ -d "$support/claude-code/$work_id" ] || fail "the shim didn't prepare the Work data folder"
done

v shell uninstall --yes >/dev/null
for file in .bashrc .zshrc; do cmp "$tmp/before/$file" "$h/$file" || fail "~/$file differs from before the install"; done
[ ! -e "$h/.veerline" ] || fail "~/.veerline is still there: $(ls -A "$h/.veerline")"
expect_eq "claude after uninstall" "$tools/claude" "$(interactive bash 'command -v claude')"
