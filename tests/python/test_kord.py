"""The kord Python package under Debian's python3: disks of every kind read
as "kord cat" reads them (whole-disk hashes through the buffer protocol),
writes round-trip through io.BufferedRandom, kord.info is "kord info --json", and
failures raise kord.Error with the library's message, code and properties."""

import errno
import hashlib
import io
import json
import os
import random
import subprocess
import threading

import pytest

import kord

KORD = os.environ["KORD_TOOL"]
PASSWORD = "pässwörd"
MiB = 1 << 20


def run_kord(*args):
    return subprocess.run([KORD, *args], check=True, capture_output=True,
                          env=dict(os.environ, KORD_PASSWORD=PASSWORD)).stdout


def pattern(size, seed):
    return random.Random(seed).randbytes(size)


KINDS = {
    "monolithic": dict(type="monolithicSparse"),
    "stream": dict(type="streamOptimized"),
    "encrypted": dict(type="streamOptimized", password=PASSWORD),
}


@pytest.fixture(params=[*KINDS, "delta"])
def disk(request, tmp_path):
    """A disk of each kind with data in some grains, and what it holds."""
    expected = bytearray(8 * MiB)
    path = tmp_path / f"{request.param}.vmdk"
    password = KINDS.get(request.param, {}).get("password")
    if request.param == "delta":
        with kord.create(tmp_path / "parent.vmdk", len(expected)) as parent:
            parent.write(pattern(300000, 1))
        expected[:300000] = pattern(300000, 1)
        created = kord.create(path, parent=tmp_path / "parent.vmdk")
    else:
        created = kord.create(path, len(expected), **KINDS[request.param])
    with created:
        for offset, size, seed in ((100000, 400000, 2), (5 * MiB - 7, 70000, 3), (len(expected) - 512, 512, 4)):
            created.seek(offset)
            created.write(pattern(size, seed))
            expected[offset:offset + size] = pattern(size, seed)
    return path, password, bytes(expected)


def test_whole_disk_hash_info_and_writes_are_what_kord_says(disk):
    path, password, expected = disk
    with kord.open(path, password=password) as opened:
        digest = hashlib.file_digest(opened, "sha256").hexdigest()
    assert digest == hashlib.sha256(expected).hexdigest() == hashlib.sha256(run_kord("cat", str(path))).hexdigest()
    assert kord.info(path, password=password) == json.loads(run_kord("info", "--json", str(path)))

    expected = bytearray(expected)
    rng = random.Random(7)
    with kord.open(path, "r+", password=password) as opened, io.BufferedRandom(opened) as buffered:
        for _ in range(40):
            offset = rng.randrange(len(expected) - 200000)
            data = rng.randbytes(rng.randrange(1, 200000))
            buffered.seek(offset)
            assert buffered.write(data) == len(data)
            expected[offset:offset + len(data)] = data
        buffered.seek(12345)
        assert buffered.read(100000) == expected[12345:112345]
    assert run_kord("cat", str(path)) == expected
    run_kord("check", str(path))


def test_reads_past_the_end_and_threads_take_turns(tmp_path):
    with kord.create(tmp_path / "d.vmdk", MiB, type="streamOptimized") as created:
        created.write(pattern(MiB, 5))
    counts = []
    with kord.open(tmp_path / "d.vmdk") as opened:
        # At the end, what is left; past it, as io allows, nothing.
        assert opened.seek(-10, io.SEEK_END) == MiB - 10 and opened.read() == pattern(MiB, 5)[-10:]
        assert opened.seek(5 * MiB) == 5 * MiB and opened.readinto(bytearray(10)) == 0
        opened.seek(0)

        def drain():
            buffer, total = bytearray(4096), 0
            while (n := opened.readinto(buffer)) > 0:
                total += n
            counts.append(total)
        threads = [threading.Thread(target=drain) for _ in range(4)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
    assert sum(counts) == MiB


def error_of(call, message, err=None):
    """The kord.Error that call raises, whose text starts with message."""
    with pytest.raises(kord.Error) as caught:
        call()
    assert str(caught.value).startswith(message)
    assert err is None or caught.value.errno == err
    return caught.value


def test_failures_raise_kord_error(tmp_path):
    missing = error_of(lambda: kord.open(tmp_path / "missing.vmdk"), "Cannot open the file: No such file or directory.",
                       errno.ENOENT)
    assert isinstance(missing, OSError) and (missing.code, missing.source) == (1, "FileSystem")
    assert missing.props["uri"].endswith("/missing.vmdk")

    kord.create(tmp_path / "secret.vmdk", MiB, password=PASSWORD).close()
    error_of(lambda: kord.create(tmp_path / "secret.vmdk", MiB), "VMDK disk file already exists. fileSysProblem",
             errno.EEXIST)

    with kord.open(tmp_path / "secret.vmdk", "r+", password=PASSWORD) as held:
        error_of(lambda: kord.open(tmp_path / "secret.vmdk", password=PASSWORD),
                 "The lock file is held by another process.", errno.EBUSY)
        held.seek(MiB - 2)
        exceeds = error_of(lambda: held.write(b"abc"), "Write exceeds VMDK disk size.", errno.EIO)
        assert (exceeds.code, exceeds.source) == (3, "IO")
        assert error_of(lambda: held.seek(-1), "", errno.EINVAL).props["diskSize"] == str(MiB)
