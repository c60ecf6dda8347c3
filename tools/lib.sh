# shellcheck shell=bash disable=SC2034 # the tools use what is set here
# SPDX-License-Identifier: Apache-2.0
# What the tools share. Sourced, with the shell's strict mode on.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cache=${XDG_CACHE_HOME:-${HOME:-/root}/.cache}/libcommon
jobs=$(nproc)

say() { printf '== %s\n' "$*"; }

die() {
    printf '%s: %s\n' "$(basename "$0")" "$*" >&2
    exit 1
}

# quietly LOG COMMAND... - its output goes to a file, the end of which is shown when it fails.
quietly() {
    local log=$1
    shift
    mkdir -p "$(dirname "$log")"
    "$@" >"$log" 2>&1 </dev/null || {
        tail -n 60 "$log" >&2
        die "failed: $* (all of it: $log)"
    }
}

# exclusively NAME COMMAND... - while no other clone's tools do what has this name, since all clones share the cache.
exclusively() {
    mkdir -p "$cache"
    (
        flock 9
        "${@:2}"
    ) 9>"$cache/$1.lock"
}

# build PRESET TARGET... - configures where needed and builds; without targets everything.
build() {
    local preset=$1
    shift
    say "building ($preset)"
    quietly "$root/build/logs/$preset.configure" cmake --preset "$preset" -S "$root"
    quietly "$root/build/logs/$preset.build" cmake --build "$root/build/$preset" -j "$jobs" ${1:+--target "$@"}
}

# arm_apt FOLDER TOOL ARGUMENT... - an apt tool with its own state for the other architecture, below the folder; the
# machine's own is left alone. "update" comes first.
arm_apt() {
    local folder=$1 tool=$2
    shift 2
    mkdir -p "$folder"/state/lists/partial "$folder"/cache/archives/partial
    : >"$folder/status"
    "$tool" -o Dir::State="$folder/state" -o Dir::Cache="$folder/cache" -o Dir::State::status="$folder/status" \
        -o APT::Architecture=arm64 -o APT::Architectures=arm64 -o APT::Sandbox::User=root -o Acquire::Languages=none "$@"
}
