#!/usr/bin/env bash
# Where the syncs land: strace counts the system calls of kord write (into
# a disk with data) and kord convert (a raw image into a new disk), and
# lists their fdatasync/fsync/rename calls in order. Files go to a
# temporary folder (or $1). Needs strace (scripts/setup.sh installs it).
set -euo pipefail
cd "$(dirname "$0")/.."
kord="$PWD/build/release/tools/kord"
dir="${1:-$(mktemp -d)}"
cd "$dir"

head -c $((64 * 1024 * 1024)) /dev/urandom >image.raw
head -c $((8 * 1024 * 1024)) /dev/urandom >patch.bin
"$kord" create disk.vmdk 1G >/dev/null

# Runs the command twice under strace (outputs of convert removed before
# each run): once counting, once listing the syncs and renames.
profile() {
    local name=$1
    shift
    echo "== $name: $*"
    rm -f out*.vmdk
    strace -f -c -S calls -e trace=pwrite64,fdatasync,fsync,rename,openat -o "$name.count" "$@" >/dev/null
    cat "$name.count"
    rm -f out*.vmdk
    strace -f -e trace=fdatasync,fsync,rename -o "$name.order" "$@" >/dev/null
    echo "-- syncs and renames in order:"
    sed -e 's/^[0-9]* *//' "$name.order" | grep -v "exited with"
}

profile write "$kord" write disk.vmdk --offset 100M patch.bin
profile convert "$kord" convert -t monolithicSparse image.raw out.vmdk
profile convert-split "$kord" convert -t twoGbMaxExtentSparse image.raw out.vmdk
