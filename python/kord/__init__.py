"""kord: read, write and make VMDK virtual disks.

    import kord, hashlib
    with kord.open("disk.vmdk") as disk:
        digest = hashlib.file_digest(disk, "sha256")

kord.open gives a disk's virtual contents as a file (an io.RawIOBase, so
io.BufferedReader and everything that takes a binary file work on it);
kord.create makes a new disk; kord.info tells what a disk is made of.
Failures raise kord.Error.
"""

import io
import json
import os

from . import _kord
from ._kord import Error

__version__ = _kord.__version__
__all__ = ["Disk", "Error", "create", "info", "open"]


class Disk(io.RawIOBase):
    """A virtual disk's contents as a binary file of a fixed size.

    Reads at or past the end return nothing; a write that does not fit
    raises kord.Error. A disk opened with mode "r+" holds its lock until it
    is closed; closing writes out what is pending. One disk may be shared by
    threads, which take turns.
    """

    def __init__(self, native, name, mode):
        self._native = native
        self.name = name
        self.mode = mode

    def __repr__(self):
        return f"<kord.Disk name={self.name!r} mode={self.mode!r}>"

    @property
    def size(self):
        """The virtual size in bytes."""
        return self._native.size

    def _check_open(self):
        if self.closed:
            raise ValueError("I/O operation on closed disk.")

    def readable(self):
        self._check_open()
        return True

    def writable(self):
        self._check_open()
        return self._native.writable

    def seekable(self):
        self._check_open()
        return True

    def readinto(self, buffer):
        self._check_open()
        return self._native.readinto(buffer)

    def read(self, size=-1):
        self._check_open()
        return self._native.read(-1 if size is None else size)

    def readall(self):
        return self.read(-1)

    def write(self, data):
        self._check_open()
        if not self._native.writable:
            raise io.UnsupportedOperation("the disk was opened read-only (mode 'r')")
        return self._native.write(data)

    def seek(self, offset, whence=io.SEEK_SET):
        self._check_open()
        if whence == io.SEEK_SET:
            position = offset
        elif whence == io.SEEK_CUR:
            position = self._native.tell() + offset
        elif whence == io.SEEK_END:
            position = self._native.size + offset
        else:
            raise ValueError(f"invalid whence ({whence}, should be 0, 1 or 2)")
        self._native.seek(position)
        return position

    def tell(self):
        self._check_open()
        return self._native.tell()

    def truncate(self, size=None):
        raise io.UnsupportedOperation("a disk's size is fixed")

    def flush(self):
        self._check_open()
        if self._native.writable:
            self._native.flush()

    def close(self):
        if self.closed:
            return
        try:
            super().close()
        finally:
            self._native.close()


def _path(path):
    return os.fsencode(path)


def open(path, mode="r", password=None):
    """Opens the disk whose main file is at path: mode "r" to read, "r+" to
    read and write. password is needed for an encrypted disk (and its
    parents)."""
    if mode not in ("r", "rb", "r+", "rb+", "r+b"):
        raise ValueError(f"invalid mode: {mode!r} (kord.open takes 'r' or 'r+')")
    writable = "+" in mode
    native = _kord.open(_path(path), writable, password)
    return Disk(native, os.fspath(path), "r+" if writable else "r")


def create(path, size=None, type=None, parent=None, password=None, grain_sectors=None,
           adapter="lsilogic", on_demand=False):
    """Makes a new disk and returns it open with mode "r+".

    size is in bytes, rounded up to whole 512-byte sectors; a delta disk of
    parent may leave it out to take the parent's. type is
    "monolithicSparse" (the default), "twoGbMaxExtentSparse" or
    "streamOptimized"; a delta disk defaults to the type that matches its
    parent. A password encrypts the new disk (and opens an encrypted
    parent). on_demand makes a split disk's extent files when first written.
    """
    if size is None and parent is None:
        raise ValueError("a disk size is needed (it defaults to the parent's only with parent)")
    if size is not None and size <= 0:
        raise ValueError(f"the disk size must be positive, not {size}")
    native = _kord.create(_path(path), size, type, None if parent is None else _path(parent), password,
                          grain_sectors, adapter, on_demand)
    return Disk(native, os.fspath(path), "r+")


def info(path, password=None):
    """What the disk at path is made of, and its parent chain: the data of
    "kord info --json", as a dict."""
    return json.loads(_kord.info_json(_path(path), password))
