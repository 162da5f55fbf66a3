"""The kord Python package under Debian's python3: disks of every kind read
as "kord cat" reads them (whole-disk hashes, a tar archive read through
io.BufferedReader), writes round-trip, kord.info is "kord info --json", and
failures raise kord.Error with the library's message, code and properties."""

import errno
import hashlib
import io
import json
import os
import random
import subprocess
import tarfile
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
    "split": dict(type="twoGbMaxExtentSparse"),
    "stream": dict(type="streamOptimized"),
    "encrypted": dict(type="streamOptimized", password=PASSWORD),
}


@pytest.fixture(params=[*KINDS, "delta"])
def disk(request, tmp_path):
    """A disk of each kind with data in some grains, and what it holds."""
    expected = bytearray(8 * MiB)
    path = tmp_path / f"{request.param}.vmdk"
    password = None
    if request.param == "delta":
        with kord.create(tmp_path / "parent.vmdk", len(expected)) as parent:
            parent.write(pattern(300000, 1))
        expected[:300000] = pattern(300000, 1)
        created = kord.create(path, parent=tmp_path / "parent.vmdk")
    else:
        password = KINDS[request.param].get("password")
        created = kord.create(path, len(expected), **KINDS[request.param])
    with created:
        for offset, size, seed in ((100000, 400000, 2), (5 * MiB - 7, 70000, 3), (len(expected) - 512, 512, 4)):
            created.seek(offset)
            created.write(pattern(size, seed))
            expected[offset:offset + size] = pattern(size, seed)
    return path, password, bytes(expected)


def test_hashing_a_whole_disk_gives_kord_cats_bytes(disk):
    path, password, expected = disk
    with kord.open(path, password=password) as opened:
        digest = hashlib.file_digest(opened, "sha256").hexdigest()
    assert digest == hashlib.sha256(expected).hexdigest()
    assert digest == hashlib.sha256(run_kord("cat", str(path))).hexdigest()


def test_info_is_kord_info_json(disk):
    path, password, _ = disk
    assert kord.info(path, password=password) == json.loads(run_kord("info", "--json", str(path)))


def test_writes_round_trip(disk):
    path, password, expected = disk
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


def test_archives_read_through_buffered_reader(tmp_path):
    files = {f"dir/file{i}.bin": pattern(1000 * i * i + 17, i) for i in range(1, 12)}
    with tarfile.open(tmp_path / "image.tar", "w") as archive:
        for name, data in files.items():
            info = tarfile.TarInfo(name)
            info.size = len(data)
            archive.addfile(info, io.BytesIO(data))
    run_kord("convert", "-t", "streamOptimized", str(tmp_path / "image.tar"), str(tmp_path / "tar.vmdk"))
    with io.BufferedReader(kord.open(tmp_path / "tar.vmdk")) as reader:
        with tarfile.open(fileobj=reader, mode="r:") as archive:
            assert {m.name: archive.extractfile(m).read() for m in archive.getmembers()} == files


def test_readinto_fills_the_callers_memory(tmp_path):
    with kord.create(tmp_path / "d.vmdk", MiB) as created:
        created.write(pattern(MiB, 5))
    with kord.open(tmp_path / "d.vmdk") as opened:
        target = bytearray(b"x" * 300)
        opened.seek(1000)
        assert opened.readinto(memoryview(target)[100:200]) == 100
        assert target == b"x" * 100 + pattern(MiB, 5)[1000:1100] + b"x" * 100
        with pytest.raises(BufferError):
            opened.readinto(memoryview(bytearray(100))[::2])
        with pytest.raises(BufferError):
            opened.readinto(b"read-only")
        assert opened.seek(-10, io.SEEK_END) == MiB - 10
        assert opened.read() == pattern(MiB, 5)[-10:]
        assert opened.readinto(target) == 0
        opened.seek(5 * MiB)
        assert opened.read(10) == b""
        assert opened.tell() == 5 * MiB


def test_threads_take_turns_on_one_disk(tmp_path):
    with kord.create(tmp_path / "d.vmdk", 4 * MiB, type="streamOptimized") as created:
        created.write(pattern(4 * MiB, 6))
    counts = []
    with kord.open(tmp_path / "d.vmdk") as shared:
        def drain():
            buffer, total = bytearray(4096), 0
            while (n := shared.readinto(buffer)) > 0:
                total += n
            counts.append(total)
        threads = [threading.Thread(target=drain) for _ in range(4)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
    assert sum(counts) == 4 * MiB


def error_of(call):
    with pytest.raises(kord.Error) as caught:
        call()
    return caught.value


def test_failures_raise_kord_error(tmp_path):
    missing = error_of(lambda: kord.open(tmp_path / "missing.vmdk"))
    assert isinstance(missing, OSError)
    assert (missing.errno, missing.code, missing.source) == (errno.ENOENT, 1, "FileSystem")
    assert missing.props["uri"].endswith("/missing.vmdk")
    assert str(missing).startswith("Cannot open the file: No such file or directory.")

    with kord.create(tmp_path / "secret.vmdk", MiB, password=PASSWORD):
        pass
    assert str(error_of(lambda: kord.open(tmp_path / "secret.vmdk", password="wrong"))).startswith(
        "Specified VMDK encryption password is not correct.")
    exists = error_of(lambda: kord.create(tmp_path / "secret.vmdk", MiB))
    assert (exists.errno, str(exists).split(" fileSysProblem")[0]) == (errno.EEXIST, "VMDK disk file already exists.")

    with kord.open(tmp_path / "secret.vmdk", "r+", password=PASSWORD) as held:
        locked = error_of(lambda: kord.open(tmp_path / "secret.vmdk", password=PASSWORD))
        assert locked.errno == errno.EBUSY
        assert str(locked).startswith("The lock file is held by another process.")
        held.seek(MiB - 2)
        past = error_of(lambda: held.write(b"abc"))
        assert (past.errno, past.code) == (errno.EIO, 3)
        assert str(past).startswith("Write exceeds VMDK disk size.")
        bad_seek = error_of(lambda: held.seek(-1))
        assert bad_seek.errno == errno.EINVAL
        assert bad_seek.props["diskSize"] == str(MiB)
    with pytest.raises(ValueError):
        held.read(1)

    # A grain the tables point to, cut off the file.
    with kord.create(tmp_path / "cut.vmdk", MiB) as created:
        created.seek(MiB - 65536)
        created.write(pattern(65536, 8))
    os.truncate(tmp_path / "cut.vmdk", os.path.getsize(tmp_path / "cut.vmdk") - 32768)
    with kord.open(tmp_path / "cut.vmdk") as cut:
        cut.seek(MiB - 65536)
        damaged = error_of(lambda: cut.read(1))
        assert (damaged.errno, damaged.code, damaged.source) == (errno.EIO, 5, "IO")
        assert str(damaged).startswith("VMDK grain table entry points past the end of the extent file.")
        with pytest.raises(io.UnsupportedOperation):
            cut.write(b"x")

    for call in (lambda: kord.open(tmp_path / "cut.vmdk", "w"), lambda: kord.create(tmp_path / "new.vmdk"),
                 lambda: kord.create(tmp_path / "new.vmdk", 0)):
        with pytest.raises(ValueError):
            call()
