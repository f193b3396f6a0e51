#!/usr/bin/env bash
# Veerline's keys in gnome-keyring on private D-Bus sessions (the user's keyring is never touched),
# checked from outside with secret-tool; needs VEERLINE_BUILD_DIR (CTest sets it).
set -euo pipefail

fail() { echo "secret_service.sh: FAILED: $*" >&2; exit 1; }
expect_eq() { [ "$2" = "$3" ] || fail "$1: expected [$2], got [$3]"; }  # description, expected, actual
v() {  # veerline with HOME, a plain PATH and the bus only; sets $status and $out, standard error in $tmp/err
    status=0
    env -i HOME="$h" PATH="${path:-/usr/bin:/bin}" XDG_RUNTIME_DIR="$runtime" ${libs:+LD_LIBRARY_PATH="$libs"} \
        ${DBUS_SESSION_BUS_ADDRESS:+DBUS_SESSION_BUS_ADDRESS="$DBUS_SESSION_BUS_ADDRESS"} \
        timeout 60 "${veerline:-$VEERLINE_BUILD_DIR/veerline}" "$@" >"$tmp/out" 2>"$tmp/err" <"${input:-/dev/null}" || status=$?
    out=$(tr -d '\000' <"$tmp/out")
}
expect_out() { "${@:3}"; expect_eq "$1" "$2" "$status $out"; }  # description, exit status and output, command...
with_input() { printf '%s' "$1" >"$tmp/in"; input="$tmp/in" "${@:2}"; }  # text, command...
expect_failure() {  # part of the message, command...
    "${@:2}"
    expect_eq "exit status of veerline ${*:3}" 1 "$status"
    grep -qF "$1" "$tmp/err" || fail "veerline ${*:3}: no [$1] in [$(cat "$tmp/err")]"
}
lookup() { secret-tool lookup service "app.veerline.profile.$1.$2" account api-key 2>/dev/null || true; }  # id, tool

h="${HOME:-}" runtime="${XDG_RUNTIME_DIR:-}"
case "${1:-start}" in
start)
    [ -n "${VEERLINE_BUILD_DIR:-}" ] || fail "set VEERLINE_BUILD_DIR to a built Veerline tree"
    for tool in dbus-run-session gnome-keyring-daemon secret-tool dbus-send; do
        command -v "$tool" >/dev/null || fail "$tool is needed to start a Secret Service (scripts/bootstrap installs it)"
    done
    tmp=$(mktemp -d "${TMPDIR:-/tmp}/veerline-secrets.XXXXXX")
    trap 'rm -rf "$tmp"' EXIT
    export tmp VEERLINE_BUILD_DIR

    h="$tmp/home-none" runtime="$tmp/runtime-none"
    mkdir -p "$h" "$runtime"
    unset DBUS_SESSION_BUS_ADDRESS
    v profile add Work
    listing() { find "$h" "$runtime" -printf '%p %s %T@\n' | sort; }
    before=$(listing)
    for command in "secret set Work claude" "secret get Work claude" "secret delete Work codex" "login Work claude --api-key"; do
        expect_failure "No Secret Service is running" with_input "sk-none" v $command  # split into words on purpose
    done
    expect_eq "files after failed secret commands" "$before" "$(listing)"
    # Key input is bounded: an endless stream is refused before the secret store is asked.
    for expected in "65536 1 No Secret Service is running" "65537 2 The key on standard input is over 64 KiB"; do
        read -r size code message <<<"$expected"
        head -c "$size" /dev/zero | tr '\0' k >"$tmp/in"
        input="$tmp/in" v secret set Work claude
        expect_eq "exit status for a key of $size bytes" "$code" "$status"
        grep -qF "$message" "$tmp/err" || fail "a key of $size bytes: no [$message] in [$(cat "$tmp/err")]"
    done
    status=0
    yes | env -i HOME="$h" PATH=/usr/bin:/bin timeout 60 "$VEERLINE_BUILD_DIR/veerline" secret set Work claude \
        >/dev/null 2>"$tmp/err" || status=$?
    expect_eq "yes | veerline secret set" "2 1" "$status $(grep -c "The key on standard input is over 64 KiB" "$tmp/err")"
    # libsecret is loaded only when a key is asked for: one without its functions fails those
    # commands alone, with a message that says what to install.
    libs="$VEERLINE_BUILD_DIR/fake-libsecret" expect_failure "Install libsecret" v secret get Work claude
    libs="$VEERLINE_BUILD_DIR/fake-libsecret" v profile list
    expect_eq "profile list beside a libsecret without its functions" "0" "$status"

    for next in fresh unlocked silent; do  # a bus per stage; what it starts on demand inherits this environment and HOME
        mkdir -p "$tmp/home-$next" "$tmp/runtime-$next"
        env -u XDG_DATA_HOME -u XDG_CONFIG_HOME -u XDG_CACHE_HOME -u DISPLAY -u WAYLAND_DISPLAY \
            HOME="$tmp/home-$next" XDG_RUNTIME_DIR="$tmp/runtime-$next" \
            dbus-run-session -- bash "$0" "$next" || fail "the $next stage failed"
    done
    echo "secret_service.sh: all good"
    ;;
fresh)  # the bus starts gnome-keyring on demand; nobody can answer its prompt to create a keyring here
    v profile add Work
    expect_failure "no default collection" with_input "sk-fresh" v secret set Work claude
    ;;
unlocked | silent)
    printf 'test-password' | gnome-keyring-daemon --unlock --components=secrets --foreground >/dev/null &
    keyring=$!
    trap 'kill -CONT "$keyring" 2>/dev/null; kill "$keyring" 2>/dev/null || true' EXIT
    serving() { dbus-send --session --print-reply --dest=org.freedesktop.DBus /org/freedesktop/DBus \
        org.freedesktop.DBus.NameHasOwner string:org.freedesktop.secrets 2>/dev/null | grep -q "boolean true"; }
    for _ in $(seq 100); do serving && break || sleep 0.1; done
    serving && kill -0 "$keyring" 2>/dev/null || fail "gnome-keyring-daemon didn't start a Secret Service"
    if [ "$1" = silent ]; then  # the bus takes every call for the service, which never answers
        v profile add Work
        kill -STOP "$keyring"
        for command in "secret set Work claude" "secret get Work claude" "secret delete Work claude"; do
            expect_failure "The Secret Service didn't answer within 5 seconds" with_input "sk-silent" v $command
        done
        exit 0
    fi

    # Other applications' items, one a near miss of Veerline's names. secret-tool shows the schema line
    # only once the daemon has loaded it, so it isn't compared.
    for s in com.example.other app.veerlinex; do printf 'x' | secret-tool store --label="Other app" service $s account api-key; done
    others() { for s in com.example.other app.veerlinex; do secret-tool search --all service $s; done 2>&1 | grep -v '^schema = '; }
    others_before=$(others)

    v profile add Work --tools claude,codex
    work=$out
    expect_failure "has no Claude Code key" v secret get Work claude
    expect_out "secret set" '0 Stored the Claude Code key of “Work”.' with_input $'sk-one\n' v secret set Work claude
    expect_eq "secret-tool sees the key, without the line feed" "sk-one" "$(lookup "$work" claude-code)"
    with_input "sk-two" v secret set work claude-code
    with_input "sk-codex" v secret set "$work" codex
    expect_out "secret get after a replace" "0 sk-two" v secret get Work claude
    expect_eq "items after a replace" 1 "$(secret-tool search --all service "app.veerline.profile.$work.claude-code" 2>&1 | grep -c '^label = Veerline$')"
    for _ in 1 2; do expect_out "secret delete" '0 No Claude Code key is stored for “Work” now.' v secret delete Work claude; done
    expect_eq "keys after deleting Claude Code's" ":sk-codex" "$(lookup "$work" claude-code):$(lookup "$work" codex)"

    data="$h/Library/Application Support/Veerline/claude-code/$work"
    printf '{\n  "theme": "dark",\n  "model": "opus"\n}\n' | install -D -m 600 /dev/stdin "$data/settings.json"
    # A shared setup with a key helper of its own, which must never reach the profile, nor the profile's reach it.
    shared='{"model": "sonnet", "effort": "high", "apiKeyHelper": "/usr/bin/source-helper"}'
    printf '%s' "$shared" | install -D /dev/stdin "$h/.claude/settings.json"
    v share on claude
    with_input "sk-three" v login Work claude --api-key  # Claude Code's key helper prints the key; the other settings stay
    expect_eq "login --api-key, then the settings' mode" "0 600" "$status $(stat -c %a "$data/settings.json")"
    keys() { python3 -c 'import json,sys; s=json.load(open(sys.argv[1])); print(s["model"], s.get("effort"), list(s)); print(s["apiKeyHelper"])' "$data/settings.json"; }
    expect_eq "shared settings under the profile's own" "opus high ['theme', 'model', 'effort', 'apiKeyHelper']" "$(keys | head -1)"
    expect_eq "the shared settings after login" "$shared" "$(cat "$h/.claude/settings.json")"
    v share sync
    v share off claude
    helper=$(keys)
    expect_eq "share off, then the profile's own settings" "opus None ['theme', 'model', 'apiKeyHelper']" "$(head -1 <<<"$helper")"
    expect_eq "the helper's output" "sk-three" "$(env -i PATH=/usr/bin:/bin HOME="$h" DBUS_SESSION_BUS_ADDRESS="$DBUS_SESSION_BUS_ADDRESS" sh -c "$(tail -1 <<<"$helper")")"
    v profile add Mine --storage system
    expect_failure "default setup" with_input "sk-system" v login Mine claude --api-key
    expect_eq "files under HOME, outside the keyring's own, holding a key" "" \
        "$(grep -rlsF -e sk-one -e sk-two -e sk-three -e sk-codex "$h" --exclude-dir=keyrings --exclude-dir='keyring-*' || true)"

    # secret get prints the stored bytes exactly: through the key helper they are what Claude Code sends.
    printf 'sk-\001a\033[2Jb\000c' >"$tmp/bytes"
    input="$tmp/bytes" v secret set Work codex
    v secret get Work codex
    cmp -s "$tmp/bytes" "$tmp/out" || fail "secret get changed the stored bytes into [$(od -c "$tmp/out" | head -2)]"

    # The key helper names the veerline on PATH, never the copy in ~/.veerline that uninstall takes
    # away, and works in a home with spaces; status and doctor --deep run it and report one that
    # yields no key, without ever showing the key.
    (
        h="$tmp/home with spaces"
        mkdir -p "$h/.local/bin" "$h/tools"
        ln -s "$VEERLINE_BUILD_DIR/veerline" "$h/.local/bin/veerline"
        printf '#!/bin/sh\necho '"'"'{"loggedIn": true, "authMethod": "api_key"}'"'"'\n' >"$h/tools/claude"
        chmod 755 "$h/tools/claude"
        path="$h/.veerline/bin:$h/.local/bin:$h/tools:/usr/bin:/bin"
        v profile add Spaces --tools claude
        id=$out
        v shell install --yes
        veerline="$h/.veerline/bin/veerline" with_input "sk-spaces" v login Spaces claude --api-key
        settings="$h/Library/Application Support/Veerline/claude-code/$id/settings.json"
        expect_eq "login --api-key with the installed copy, then the new settings' mode" "0 600" "$status $(stat -c %a "$settings")"
        v shell uninstall --yes
        helper=$(python3 -c 'import json,sys; print(json.load(open(sys.argv[1]))["apiKeyHelper"])' "$settings")
        expect_eq "the key helper" "'$h/.local/bin/veerline' secret get $id claude-code" "$helper"
        expect_eq "the helper's output after uninstall" "sk-spaces" \
            "$(env -i PATH=/usr/bin:/bin HOME="$h" DBUS_SESSION_BUS_ADDRESS="$DBUS_SESSION_BUS_ADDRESS" sh -c "$helper")"
        state() {  # the profile's Claude Code state in `status` and in `doctor --deep`
            v status --json
            python3 -c 'import json,sys; print(json.load(sys.stdin)[0]["state"])' <"$tmp/out"
            v doctor --deep --json
            python3 -c 'import json,sys; [print(c["level"], c.get("detail")) for c in json.load(sys.stdin) if c["id"].startswith("status.")]' <"$tmp/out"
        }
        expect_eq "a helper that gives the key" $'Signed in\nok api_key' "$(state)"
        v secret delete Spaces claude
        expect_eq "a helper that gives no key" $'Needs attention\nwarning The API key helper in ~/Library/Application Support/Veerline/claude-code/'"$id"'/settings.json gives no key (exit 1).' "$(state)"
        grep -rqsF sk-spaces "$tmp/out" "$tmp/err" && fail "the key was shown"
        true
    )

    v profile remove Work
    expect_eq "profile remove, then its keys" "0:" "$status:$(lookup "$work" claude-code)$(lookup "$work" codex)"
    v profile add Home
    home_id=$out
    with_input "sk-home" v secret set Home codex
    v profile remove Home --keep-data
    expect_eq "key kept with --keep-data" "sk-home" "$(lookup "$home_id" codex)"
    v secret delete "$home_id" codex
    expect_eq "a removed profile's key deleted by its id" "0:" "$status:$(lookup "$home_id" codex)"
    expect_eq "other applications' items" "$others_before" "$(others)"

    with_input "sk-mine" v secret set Mine codex
    dbus-send --session --print-reply --dest=org.freedesktop.secrets /org/freedesktop/secrets \
        org.freedesktop.Secret.Service.Lock array:objpath:/org/freedesktop/secrets/collection/login >/dev/null
    expect_failure "collection is locked" v secret get Mine codex
    expect_failure "collection is locked" with_input "sk-locked" v secret set Mine claude
    ;;
esac
