#!/usr/bin/env bash
# The main job: sets the machine up, builds kord (release), and puts the
# kord tool through its paces on sample data it makes itself.
#
# It builds a raw image holding a real ext4 file system (mke2fs -d over a
# copy of system files, no mounting), converts it into a disk of each create
# type, an encrypted one and a delta disk with changed data, shows
# "kord info" and runs "kord check" on each, converts each back to raw and
# compares the bytes, and has qemu-img read the unencrypted disks too when it
# is installed. Where nbdkit is installed, it serves the delta and the
# encrypted disk through kord's plugin, and nbdcopy and qemu-img read them
# back. The last line says what was verified.
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/setup.sh
cmake -S . -B build/release -G Ninja -DKORD_WERROR=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build/release -j "$(nproc)" --target kord_tool
kord="$PWD/build/release/tools/kord"
plugin="$PWD/build/release/nbdkit/nbdkit-kord-plugin.so"
if cmake --build build/release --target help | grep -q kord_nbdkit; then
    cmake --build build/release -j "$(nproc)" --target kord_nbdkit
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
export KORD_PASSWORD="${KORD_PASSWORD:-kord-main-job}"

step() { printf '\n== %s\n' "$*"; }
sha() { sha256sum "$1" | cut -d' ' -f1; }
fsck() {
    if ! /sbin/e2fsck -fn "$1" >fsck.log 2>&1; then
        cat fsck.log
        echo "main-job: e2fsck finds the file system in $1 damaged" >&2
        exit 1
    fi
}

step "sample data: a 64 MiB ext4 image of system files"
# At most about 40 MB of readable files, so that they fit the file system.
find /usr/share/doc /etc -xdev -type f -readable -size -1024k -printf '%s %p\n' 2>/dev/null |
    awk '{ total += $1; if (total <= 40000000) { sub(/^[0-9]+ /, ""); print } }' >files.list
mkdir files
tar -cf - --files-from=files.list 2>/dev/null | tar -xf - -C files
file_count=$(find files -type f | wc -l)
/sbin/mke2fs -q -t ext4 -L kord-sample -d files image.raw 64M >/dev/null
fsck image.raw
echo "image.raw: $file_count files, sha256 $(sha image.raw)"

step "conversions"
"$kord" convert -p -t monolithicSparse image.raw monolithic.vmdk
"$kord" convert -p -t twoGbMaxExtentSparse image.raw split.vmdk
"$kord" convert -p -t streamOptimized -j "$(nproc)" image.raw stream.vmdk
"$kord" convert -p -t streamOptimized --encrypt image.raw encrypted.vmdk
"$kord" create -b monolithic.vmdk delta.vmdk
# Changed data in the delta disk: 1 MiB of new bytes at 60 MiB.
head -c 1048576 /dev/urandom >change.bin
"$kord" write delta.vmdk --offset 60M change.bin
cp image.raw delta-expected.raw
dd if=change.bin of=delta-expected.raw bs=1M seek=60 conv=notrunc status=none

disks=(monolithic split stream encrypted delta)
expected_of() { if [ "$1" = delta ]; then echo delta-expected.raw; else echo image.raw; fi; }

for disk in "${disks[@]}"; do
    step "kord info $disk.vmdk"
    "$kord" info "$disk.vmdk"
done

step "kord check"
for disk in "${disks[@]}"; do
    "$kord" check "$disk.vmdk"
done

step "back to raw, byte for byte"
for disk in "${disks[@]}"; do
    "$kord" convert -O raw "$disk.vmdk" "$disk.raw"
    cmp "$disk.raw" "$(expected_of "$disk")"
    "$kord" compare "$disk.vmdk" "$(expected_of "$disk")"
    echo "$disk.vmdk -> raw: sha256 $(sha "$disk.raw"), identical"
done
for disk in monolithic split stream encrypted; do fsck "$disk.raw"; done
echo "e2fsck finds the file system intact after every round trip"

qemu_note="qemu-img not installed: not cross-checked"
if command -v qemu-img >/dev/null; then
    step "qemu-img reads the unencrypted disks"
    for disk in monolithic split stream delta; do
        qemu-img convert -f vmdk -O raw "$disk.vmdk" "qemu-$disk.raw"
        cmp "qemu-$disk.raw" "$(expected_of "$disk")"
        qemu-img map --output=json "$disk.vmdk" >qemu-map.json
        "$kord" map --output=json "$disk.vmdk" >kord-map.json
        python3 -c 'import json, sys; sys.exit(json.load(open(sys.argv[1])) != json.load(open(sys.argv[2])))' \
            qemu-map.json kord-map.json
        echo "qemu-img: $disk.vmdk identical, and mapped as kord maps it"
    done
    qemu_note="qemu-img read the 4 unencrypted disks identically and mapped them as kord does"
fi

nbd_note="nbdkit not installed: no disk served over NBD"
if command -v nbdkit >/dev/null && command -v nbdcopy >/dev/null && [ -e "$plugin" ]; then
    step "nbdkit serves disks through kord's plugin; nbdcopy and qemu-img read them back"
    printf '%s\n' "$KORD_PASSWORD" >password.txt
    for disk in delta encrypted; do
        read_back='nbdinfo --map "$uri" && nbdcopy "$uri" nbd.raw'
        if command -v qemu-img >/dev/null; then read_back="$read_back"' && qemu-img convert -f raw -O raw "$uri" nbd-qemu.raw'; fi
        nbdkit -U - "$plugin" file="$disk.vmdk" readonly=true password-file=password.txt --run "$read_back"
        cmp nbd.raw "$(expected_of "$disk")"
        if [ -e nbd-qemu.raw ]; then cmp nbd-qemu.raw "$(expected_of "$disk")"; fi
        echo "nbdkit: $disk.vmdk read back identically over NBD"
        rm -f nbd.raw nbd-qemu.raw
    done
    nbd_note="nbdkit served the delta and the encrypted disk, read back identically over NBD"
fi

echo
echo "main-job: verified a 64 MiB ext4 image of $file_count files as monolithicSparse, twoGbMaxExtentSparse," \
    "streamOptimized, encrypted and delta disks: kord check clean, every disk back to raw byte for byte; $qemu_note; $nbd_note."
