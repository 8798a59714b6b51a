#!/usr/bin/env bash
# The engine's main job on the demo product (examples/demo): version 1 is
# packed with corbeth-pack and published to a repository, installed with
# `corbeth install` (live progress bar), version 2 is published and updated
# to, a hot fix is applied as a patch, the hardware inventory is shown and the
# product is uninstalled with the command its uninstall entry records. The
# machine's state is checked after each step.
#
# The repository is a file:// folder by default; --serve serves it with nginx
# on a free loopback port instead. Settings store, repository client state and
# home folder are a sandbox in a temporary folder, removed at the end.
# Usage: scripts/demo.sh [--serve]
set -euo pipefail
cd "$(dirname "$0")/.."

serve=false
case ${1:-} in
--serve) serve=true ;;
"") ;;
*) echo "usage: $0 [--serve]" >&2; exit 2 ;;
esac

scripts/deps.sh >/dev/null
build=${CORBETH_BUILD_DIR:-build}
cmake -S . -B "$build" -G Ninja >/dev/null
cmake --build "$build" --target corbeth-cli corbeth-pack corbeth-cleanup >/dev/null
corbeth=$PWD/$build/bin/corbeth
pack=$PWD/$build/bin/corbeth-pack
cleanup_tool=$PWD/$build/bin/corbeth-cleanup

# The work folder, and nginx with --serve, go when the script ends.
# shellcheck source=../bench/serve.sh
source bench/serve.sh
work_folder corbeth-demo

# Nothing of the user's own is read or written: the settings store, the
# repository client's state and the home folder (desktop) are the sandbox's.
export CORBETH_SETTINGS_ROOT=$work/settings
export CORBETH_SETTINGS_MACHINE_ROOT=$work/settings
export VINDAL_STATE_FILE=$work/state.json
export HOME=$work/home XDG_CONFIG_HOME=$work/home/.config XDG_DATA_HOME=$work/home/.local/share
export XDG_CACHE_HOME=$work/home/.cache
mkdir -p "$HOME/Desktop" "$CORBETH_SETTINGS_ROOT"
inst=$HOME/CorbethDemo
link=$HOME/Desktop/Corbeth\ Demo.desktop
entry="SOFTWARE/Microsoft/Windows/CurrentVersion/Uninstall/CorbethDemo"

step() { echo; echo "== $*"; }
check() {
    if eval "$2"; then echo "   ok: $1"; else echo "   FAILED: $1" >&2; exit 1; fi
}
# A value of the sandboxed settings store: one INI file per hive on Linux, the
# key's first part the section, the rest and the value name joined by "\".
setting() {
    local file=$CORBETH_SETTINGS_ROOT/$1.ini rest=${2#*/}
    [[ -f $file ]] || return 0
    SECTION="[${2%%/*}]" NAME="${rest//\//\\}\\$3" awk '
        /^\[/ { inside = ($0 == ENVIRON["SECTION"]); next }
        inside && index($0, ENVIRON["NAME"] "=") == 1 { print substr($0, length(ENVIRON["NAME"]) + 2) }' "$file"
}

if $serve; then
    serve_folder "$work/repo" "$work/nginx" 2>/dev/null
    url="http://127.0.0.1:$port/"
else
    url="file://$work/repo"
fi

step "the demo product, version 1: a program, a README, a payload; its configuration and the cleanup tool"
stage=$work/stage
cp -r examples/demo/product "$stage"
sed "s|@REPOSITORY@|$url|" examples/demo/corbeth.json > "$work/corbeth.json"
cp "$work/corbeth.json" "$cleanup_tool" "$stage/"
head -c $((6 << 20)) /dev/urandom > "$stage/share/payload.bin"
echo "repository: $url"

step "pack version 1 and publish it"
"$pack" create "$stage" -o "$work/demo-1.0.0.tolmpkg"
"$pack" publish "$work/demo-1.0.0.tolmpkg" --repo "$work/repo" --module corbeth-demo --version 1.0.0

step "corbeth install"
"$corbeth" install --config "$work/corbeth.json" --path "$inst"
check "the program runs: $("$inst/bin/corbeth-demo")" '[[ $("$inst/bin/corbeth-demo") == "Corbeth demo 1.0.0" ]]'
check "files in $inst" '[[ -f $inst/share/README.txt && -f $inst/share/payload.bin ]]'
check "launcher ~/Desktop/Corbeth Demo.desktop runs bin/corbeth-demo" 'grep -qxF "Exec=\"$inst/bin/corbeth-demo\"" "$link"'
check "settings HKCU/SOFTWARE/Corbeth/Demo installPath" '[[ $(setting HKEY_CURRENT_USER SOFTWARE/Corbeth/Demo installPath) == "$inst" ]]'
check "uninstall entry: $(setting HKEY_LOCAL_MACHINE "$entry" DisplayName) $(setting HKEY_LOCAL_MACHINE "$entry" DisplayVersion)" \
    '[[ $(setting HKEY_LOCAL_MACHINE "$entry" DisplayName) == "Corbeth Demo" ]]'
check "the download cache is gone" '[[ ! -e $inst/arvenorDownloadCache ]]'

step "version 2 (an update/ folder the update operation moves into place), published"
cp -r examples/demo/update "$stage/update"
"$pack" create "$stage" -o "$work/demo-2.0.0.tolmpkg" >/dev/null
"$pack" publish "$work/demo-2.0.0.tolmpkg" --repo "$work/repo" --module corbeth-demo --version 2.0.0

step "corbeth update (the install folder is found in the settings store)"
"$corbeth" update --config "$work/corbeth.json"
check "the program runs: $("$inst/bin/corbeth-demo")" '[[ $("$inst/bin/corbeth-demo") == "Corbeth demo 2.0.0" ]]'
check "NEWS.txt is in place, the update/ folder removed" '[[ -f $inst/NEWS.txt && ! -e $inst/update ]]'
check "the uninstall entry shows the version unpacked" '[[ $(setting HKEY_LOCAL_MACHINE "$entry" DisplayVersion) == 2.0.0 ]]'

step "corbeth patch (a hot fix dropped into the install's patch/ folder)"
mkdir -p "$inst/patch"
cp examples/demo/patch/* "$inst/patch/"
"$corbeth" patch --config "$work/corbeth.json"
check "the program runs: $("$inst/bin/corbeth-demo")" '[[ $("$inst/bin/corbeth-demo") == "Corbeth demo 2.0.0, hot fix 2.0.1" ]]'
check "the patch/ folder is removed" '[[ ! -e $inst/patch ]]'

step "corbeth hardware"
"$corbeth" hardware

step "a package checked, as JSON events for other programs (corbeth verify --json)"
"$corbeth" verify "$work/demo-2.0.0.tolmpkg" --json

step "corbeth uninstall, as the uninstall entry says: $(setting HKEY_LOCAL_MACHINE "$entry" UninstallString)"
"$corbeth" uninstall --config "$inst/corbeth.json"
check "the install folder is gone" '[[ ! -e $inst ]]'
check "the shortcut is gone" '[[ ! -e $link && ! -L $link ]]'
check "settings and uninstall entry are gone" \
    '[[ -z $(setting HKEY_CURRENT_USER SOFTWARE/Corbeth/Demo installPath) && -z $(setting HKEY_LOCAL_MACHINE "$entry" DisplayName) ]]'

echo
echo "demo finished in $SECONDS s"
