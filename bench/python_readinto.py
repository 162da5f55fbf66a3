#!/usr/bin/python3
"""Throughput of the Python package's readinto against "kord cat" on the
same disk, with the page cache warm: the Python door should cost next to
nothing over the library.

    PYTHONPATH=build/release/python bench/python_readinto.py \\
        --kord build/release/tools/kord --size-mib 1024 --type monolithicSparse

The disk is made from random data (so that every grain is stored) in a
temporary folder; each side reads it whole three times after a warming
read, and the best time counts.
"""

import argparse
import os
import subprocess
import tempfile
import time

import kord


def best_of(runs, read):
    times = []
    for _ in range(runs):
        start = time.perf_counter()
        read()
        times.append(time.perf_counter() - start)
    return min(times)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--kord", default="build/release/tools/kord")
    parser.add_argument("--size-mib", type=int, default=1024)
    parser.add_argument("--type", default="monolithicSparse")
    parser.add_argument("--chunk-kib", type=int, default=1024, help="readinto buffer size")
    args = parser.parse_args()

    with tempfile.TemporaryDirectory() as folder:
        raw, disk = os.path.join(folder, "image.raw"), os.path.join(folder, "disk.vmdk")
        with open(raw, "wb") as image:
            for _ in range(args.size_mib):
                image.write(os.urandom(1 << 20))
        subprocess.run([args.kord, "convert", "-t", args.type, raw, disk], check=True)
        os.remove(raw)

        def cat():
            with open(os.devnull, "wb") as sink:
                subprocess.run([args.kord, "cat", disk], stdout=sink, check=True)

        buffer = memoryview(bytearray(args.chunk_kib << 10))

        def readinto():
            with kord.open(disk) as opened:
                while opened.readinto(buffer):
                    pass

        cat()
        readinto()
        size = args.size_mib
        cat_time, py_time = best_of(3, cat), best_of(3, readinto)
        print(f"{args.type}, {size} MiB, readinto buffer {args.chunk_kib} KiB")
        print(f"kord cat:        {size / cat_time:8.0f} MiB/s ({cat_time:.3f} s)")
        print(f"Python readinto: {size / py_time:8.0f} MiB/s ({py_time:.3f} s), {cat_time / py_time:.2f} x kord cat")


if __name__ == "__main__":
    main()
