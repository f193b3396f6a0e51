#!/usr/bin/env bash
# A newcomer's first session: install Veerline into a prefix, add two profiles and a folder
# rule, install the shell integration, then check in real interactive bash and zsh shells that
# `claude` goes through the shim and reaches the real tool with the right profile. Uninstalling
# must give the start-up files back byte for byte.
#
# Needs VEERLINE_BUILD_DIR (a built tree); CTest sets it.

set -euo pipefail

fail() {
    echo "newcomer.sh: FAILED: $*" >&2
    exit 1
}

step() {
    echo "==> $*"
}

expect_eq() {  # description, expected, actual
    [ "$2" = "$3" ] || fail "$1: expected [$2], got [$3]"
}

[ -n "${VEERLINE_BUILD_DIR:-}" ] || fail "set VEERLINE_BUILD_DIR to a built Veerline tree"
command -v zsh >/dev/null || fail "zsh is needed for this walk-through"

tmp=$(mktemp -d "${TMPDIR:-/tmp}/veerline-newcomer.XXXXXX")
trap 'rm -rf "$tmp"' EXIT
tmp=$(cd "$tmp" && pwd -P)
h="$tmp/home"
tools="$tmp/tools"
mkdir -p "$h/work/project" "$h/elsewhere" "$tools" "$tmp/before"

step "cmake --install into $tmp/prefix"
cmake --install "$VEERLINE_BUILD_DIR" --prefix "$tmp/prefix" >/dev/null || fail "cmake --install failed"
veerline="$tmp/prefix/bin/veerline"
[ -x "$veerline" ] || fail "the install put no veerline in $tmp/prefix/bin"
[ -x "$tmp/prefix/libexec/veerline/veerline-resolve" ] || fail "the install put no veerline-resolve in libexec/veerline"

# The "real" claude, further along PATH, says which data folder it was given.
cat >"$tools/claude" <<'EOF'
#!/bin/sh
echo "real claude: CLAUDE_CONFIG_DIR=${CLAUDE_CONFIG_DIR-unset} VEERLINE_PROFILE=${VEERLINE_PROFILE-unset}"
EOF
chmod 755 "$tools/claude"

# Start-up files the newcomer already has; the zsh one lacks its final line feed.
printf '# my bash settings\nexport PATH="%s:$PATH"\n' "$tools" >"$h/.bashrc"
printf 'export PATH="%s:$PATH"' "$tools" >"$h/.zshrc"
cp -p "$h/.bashrc" "$h/.zshrc" "$tmp/before/"

# Every command runs with only HOME, a minimal PATH and TERM, as from a fresh login.
clean() {
    env -i HOME="$h" PATH=/usr/bin:/bin TERM=dumb "$@"
}
v() {
    clean "$veerline" "$@" || fail "veerline $* exited with $?"
}

step "veerline profile add Work; veerline profile add Personal"
work_id=$(v profile add Work)
personal_id=$(v profile add Personal --tools claude,codex --color green)
[[ "$work_id" =~ ^work-[a-z0-9]{4}$ ]] || fail "unexpected id for Work: $work_id"
[[ "$personal_id" =~ ^personal-[a-z0-9]{4}$ ]] || fail "unexpected id for Personal: $personal_id"
v profile list

step "veerline rule add '~/work' Work; veerline default Personal"
v rule add '~/work' Work
v default Personal
expect_eq "which in ~/work/project" "Work  (folder rule for ~/work)" \
    "$(cd "$h/work/project" && clean "$veerline" which)"

step "veerline shell install --yes"
v shell install --yes >"$tmp/install.log"
tail -n 1 "$tmp/install.log"
v shell status

support="$h/Library/Application Support/Veerline"
work_dir="$support/claude-code/$work_id"
personal_dir="$support/claude-code/$personal_id"

# Runs `script` in a real interactive shell started in HOME; job-control chatter on stderr is
# kept for the failure message only.
interactive() {  # shell, script
    (cd "$h" && clean "$1" -ic "$2") 2>"$tmp/$1.err" || fail "$1 -i exited with $?: $(cat "$tmp/$1.err")"
}

for shell in bash zsh; do
    step "$shell -i: claude in ~/work/project and in ~/elsewhere"
    out=$(interactive "$shell" 'command -v claude; cd ~/work/project && claude && veerline which; cd ~/elsewhere && claude')
    echo "$out"
    expected="$h/.veerline/bin/claude
real claude: CLAUDE_CONFIG_DIR=$work_dir VEERLINE_PROFILE=Work
Work  (folder rule for ~/work)
real claude: CLAUDE_CONFIG_DIR=$personal_dir VEERLINE_PROFILE=Personal"
    expect_eq "$shell session" "$expected" "$out"
    [ -d "$work_dir" ] || fail "the shim didn't prepare $work_dir"
done

step "veerline shell uninstall --yes"
v shell uninstall --yes >/dev/null
cmp "$tmp/before/.bashrc" "$h/.bashrc" || fail "~/.bashrc differs from before the install"
cmp "$tmp/before/.zshrc" "$h/.zshrc" || fail "~/.zshrc differs from before the install"
[ ! -e "$h/.veerline" ] || fail "~/.veerline is still there: $(ls -A "$h/.veerline")"
expect_eq "claude after uninstall" "$tools/claude" "$(interactive bash 'command -v claude')"

echo "newcomer.sh: all steps passed"
