# shellcheck shell=bash disable=SC2154 # root and cache are set in lib.sh
# SPDX-License-Identifier: Apache-2.0
# Debian roots, to make packages and to try them in. Sourced after lib.sh.
#
# An archive of each root is kept outside the tree, two weeks long, so that packages of the root do not get too old.

roots=$cache/roots
root_days=14

as_root() {
    if [ "$(id -u)" = 0 ]; then "$@"; else sudo "$@"; fi
}

# root_archive NAME KEY OPTION... - prints the archive of a root that mmdebstrap makes with these options. It is made again when
# the key changes.
root_archive() { exclusively "root.$1" make_root_archive "$@"; }

make_root_archive() {
    local name=$1 archive
    archive=$roots/$name-$(sha256sum <<<"$2" | cut -c 1-12).tar
    shift 2
    [ ! -e "$archive" ] || as_root find "$archive" -mtime +$root_days -delete
    if [ ! -e "$archive" ]; then
        say "making the Debian root \"$name\"" >&2
        mkdir -p "$roots"
        as_root rm -f "$roots/$name"-*
        quietly "$root/build/logs/root.$name" as_root mmdebstrap --variant=minbase "$@" bookworm "$archive.new.tar"
        as_root mv "$archive.new.tar" "$archive"
    fi
    echo "$archive"
}

# unpack_root ARCHIVE FOLDER
unpack_root() {
    mkdir -p "$2"
    as_root tar -x -C "$2" -f "$1"
}

# in_root FOLDER OPTION... COMMAND... - runs a command inside, with the options of unshare; nothing that it starts outlives it.
in_root() {
    local folder=$1
    shift
    as_root unshare --mount --pid --fork --kill-child --root="$folder" --mount-proc=/proc "$@"
}

# build_root_archive NATIVE FOREIGN - that of a root with the build dependencies for two machines, and compilers for both. It is
# made again when the first paragraph of debian/control changes.
# shellcheck disable=SC2016 # the shells of mmdebstrap expand
build_root_archive() {
    local native=$1 foreign=$2 source install='chroot "$1" apt-get -q -y --no-install-recommends'
    source=$(mktemp -d)
    mkdir -p "$source/source/debian"
    cp "$root/debian/control" "$root/debian/changelog" "$source/source/debian"
    root_archive build "$(sed '/^$/q' "$root/debian/control")" --architectures="$native,$foreign" \
        --include="build-essential,crossbuild-essential-$foreign,diffoscope-minimal,lintian" \
        --customize-hook="copy-in ${source@Q}/source /tmp" \
        --customize-hook='chroot "$1" apt-get -q update' \
        --customize-hook="$install build-dep /tmp/source" \
        --customize-hook="$install build-dep --arch-only -a $foreign /tmp/source" \
        --customize-hook='rm -r "$1/tmp/source"'
    rm -r "$source"
}
