#!/bin/bash
# kord next to qemu-img on the same machine, the same files and a warm page
# cache: conversions both ways, sequential and scattered reads, encrypted
# reads and writes, stream file sizes and peak memory. Each operation runs
# kord and qemu-img in turns (A B A B ...); the table gives medians and the
# ratio kord / qemu-img (below 1: kord is faster).
#
#   bench/compare.sh [--size 2G] [--runs 3] [--dir DIR] [--build build/release] [--keep]
#
# The test image is an ext4 file system filled from system files with
# mke2fs -d, about two thirds full, made once in DIR (default
# /tmp/kord-compare). Needs qemu-img, mke2fs and /usr/bin/time; build the
# release tree with benchmarks first.
set -euo pipefail

size=2G
runs=3
dir=/tmp/kord-compare
build=build/release
keep=0
while [ $# -gt 0 ]; do
    case "$1" in
        --size) size=$2; shift 2 ;;
        --runs) runs=$2; shift 2 ;;
        --dir) dir=$2; shift 2 ;;
        --build) build=$2; shift 2 ;;
        --keep) keep=1; shift ;;
        *) echo "usage: $0 [--size 2G] [--runs 3] [--dir DIR] [--build DIR] [--keep]" >&2; exit 2 ;;
    esac
done

root=$(cd "$(dirname "$0")/.." && pwd)
kord=$root/$build/tools/kord
readbench=$root/$build/bench/kord_bench_read
for tool in "$kord" "$readbench" qemu-img mke2fs /usr/bin/time; do
    command -v "$tool" >/dev/null || { echo "compare.sh: $tool is missing" >&2; exit 2; }
done
export KORD_PASSWORD=compare-pw
qsecret=(--object secret,id=sec0,data=$KORD_PASSWORD)

mkdir -p "$dir"
cd "$dir"
[ "$keep" = 1 ] || trap 'rm -f out.* tmp.*' EXIT

# --- the image ---------------------------------------------------------------
bytes=$(numfmt --from=iec "$size")
if [ ! -f image.raw ] || [ "$(stat -c %s image.raw)" != "$bytes" ]; then
    echo "making a $size ext4 image from system files ..." >&2
    rm -rf tree image.raw
    mkdir tree
    budget=$((bytes * 62 / 100))
    (find /usr/share /usr/lib /usr/include /usr/bin -xdev -type f -size -64M -printf '%s %p\n' 2>/dev/null || true) |
        awk -v budget="$budget" '{ total += $1; if (total > budget) exit; sub(/^[0-9]+ /, ""); print }' >tree.list
    tar -cf - -T tree.list 2>/dev/null | tar -xf - -C tree
    mke2fs -q -t ext4 -F -d tree image.raw "$size"
    rm -rf tree tree.list
fi
make_disk() { # name, kord convert options
    [ -f "$1" ] || "$kord" convert $2 image.raw "$1"
}
make_disk sparse.vmdk "-t monolithicSparse"
make_disk stream.vmdk "-t streamOptimized"
make_disk enc.vmdk "-t monolithicSparse --encrypt"
[ -f qsparse.vmdk ] || qemu-img convert -O vmdk image.raw qsparse.vmdk
[ -f qstream.vmdk ] || qemu-img convert -O vmdk -o subformat=streamOptimized image.raw qstream.vmdk
# A short key derivation for qemu's LUKS, as kord's is short: the table is
# about moving data. qemu-img times its key derivation first, and that fails
# now and then ("Unable to get accurate CPU usage"): a few tries, each of
# which fails in milliseconds.
qluks="for try in {1..20}; do qemu-img convert -O luks ${qsecret[*]} -o key-secret=sec0,iter-time=10 image.raw"
[ -f qenc.luks ] || bash -c "$qluks qenc.luks 2>/dev/null && break; done; [ -f qenc.luks ]"
for f in image.raw sparse.vmdk stream.vmdk enc.vmdk qsparse.vmdk qstream.vmdk qenc.luks; do cat "$f" >/dev/null; done

# --- timing ------------------------------------------------------------------
# run LABEL COMMAND...: one timed run; appends "seconds maxRSS-KiB" to tmp.LABEL.
run() {
    local label=$1; shift
    rm -f out.*
    local start end
    start=$(date +%s.%N)
    /usr/bin/time -f %M -o tmp.rss "$@" >/dev/null
    end=$(date +%s.%N)
    echo "$(echo "$end - $start" | bc) $(cat tmp.rss)" >>"tmp.$label"
}
median() { sort -n | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }
column_of() { awk -v c="$2" '{ print $c }' "tmp.$1"; }

rows=()
# compare NAME "KORD COMMAND" "QEMU COMMAND"
compare() {
    local name=$1 a=$2 b=$3
    rm -f tmp.a tmp.b
    for _ in $(seq "$runs"); do
        run a bash -c "$a"
        run b bash -c "$b"
    done
    local ta tb ma mb
    ta=$(column_of a 1 | median); tb=$(column_of b 1 | median)
    ma=$(column_of a 2 | sort -n | tail -1); mb=$(column_of b 2 | sort -n | tail -1)
    rows+=("$(printf '| %-40s | %8.3f | %8.3f | %5.2f | %7.1f | %7.1f |' "$name" "$ta" "$tb" \
        "$(echo "$ta / $tb" | bc -l)" "$(echo "$ma / 1024" | bc -l)" "$(echo "$mb / 1024" | bc -l)")")
    echo "${rows[-1]}" >&2
}

K=$kord
Q="qemu-img"
compare "sequential read, monolithicSparse" "$K cat sparse.vmdk >/dev/null" \
    "$Q bench -f vmdk -c $((bytes / 1048576)) -d 1 -s 1M -S 1M qsparse.vmdk"
compare "raw -> monolithicSparse" "$K convert image.raw out.vmdk" "$Q convert -O vmdk image.raw out.vmdk"
compare "monolithicSparse -> raw" "$K convert -O raw sparse.vmdk out.raw" "$Q convert -O raw qsparse.vmdk out.raw"
# compare_jobs NAME "KORD CONVERT ARGUMENTS" "QEMU COMMAND": one row with
# one worker and one with two.
compare_jobs() {
    local j
    for j in 1 2; do compare "$1, -j$j" "$K convert -j $j $2" "$3"; done
}
compare_jobs "raw -> streamOptimized" "-t streamOptimized image.raw out.vmdk" \
    "$Q convert -O vmdk -o subformat=streamOptimized image.raw out.vmdk"
compare_jobs "streamOptimized -> raw" "-O raw stream.vmdk out.raw" "$Q convert -O raw qstream.vmdk out.raw"
compare_jobs "encrypted write (raw -> enc.)" "--encrypt image.raw out.vmdk" \
    "$qluks out.luks 2>/dev/null && break; done; [ -f out.luks ]"
compare_jobs "encrypted read (enc. -> raw)" "-O raw enc.vmdk out.raw" \
    "$Q convert ${qsecret[*]} --image-opts driver=luks,key-secret=sec0,file.filename=qenc.luks -O raw out.raw"
# Scattered reads: the same stride pattern through qemu-img bench and the
# library (one request at a time), and plain pread()s on the raw image.
for block in 4096 65536; do
    stride=$((7919 * block))
    count=$((block == 4096 ? 200000 : 50000))
    compare "scattered $((block / 1024)) KiB reads ($count)" \
        "$readbench sparse.vmdk --block $block --count $count --step $stride" \
        "$Q bench -f vmdk -c $count -d 1 -s $block -S $stride qsparse.vmdk"
done

# --- stream file size --------------------------------------------------------
"$kord" convert -t streamOptimized image.raw out.kstream.vmdk
qemu-img convert -O vmdk -o subformat=streamOptimized image.raw out.qstream.vmdk
sizes() { echo "$(stat -c %s "$1") $(($(stat -c %b "$1") * $(stat -c %B "$1")))"; }
read -r ka kb <<<"$(sizes out.kstream.vmdk)"
read -r qa qb <<<"$(sizes out.qstream.vmdk)"

# --- scattered reads against pread ---------------------------------------------
# The conversions above wrote and dropped gigabytes: bring both files back
# into the page cache first.
cat sparse.vmdk image.raw >/dev/null
reads=()
for block in 4096 65536; do
    reads+=("$("$readbench" sparse.vmdk image.raw --block "$block" --count 200000 --seed 7 | tr '\n' ' ')")
done

echo
echo "kord $("$kord" --version 2>/dev/null | head -1), $(qemu-img --version | head -1); image $size ($(nproc) cores, load $(cut -d' ' -f1-3 /proc/loadavg))"
echo
echo "| operation                                | kord s   | qemu s   | ratio | kord MiB | qemu MiB |"
echo "|------------------------------------------|----------|----------|-------|---------|---------|"
printf '%s\n' "${rows[@]}"
echo
echo "stream file (default level): kord apparent $((ka / 1048576)) MiB, allocated $((kb / 1048576)) MiB;" \
    "qemu-img apparent $((qa / 1048576)) MiB, allocated $((qb / 1048576)) MiB"
echo "scattered reads, library vs pread on the raw image (block count seconds IOPS):"
printf '  %s\n' "${reads[@]}"
