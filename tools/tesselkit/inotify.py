"""File events through inotify, read without blocking and kept with the time
they were read: a file that exists for a few milliseconds is still seen."""
import ctypes
import os
import struct
import time

IN_CLOSE_NOWRITE = 0x10  # watched with IN_OPEN, no two opens in a row are merged into one
IN_OPEN = 0x20
IN_MOVED_FROM = 0x40  # the daemon claims a lease file by renaming it away
IN_MOVED_TO = 0x80
IN_CREATE = 0x100
IN_DELETE = 0x200

_EVENT = struct.Struct("iIII")  # wd, mask, cookie, length of the name that follows
_libc = ctypes.CDLL(None, use_errno=True)


class Watch:
    """The events of one directory (with the names of its entries) or one file
    (name ""), from the moment it is made."""

    def __init__(self, path, mask=IN_CREATE | IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE):
        self.fd = _libc.inotify_init1(os.O_NONBLOCK | os.O_CLOEXEC)
        if self.fd < 0:
            raise OSError(ctypes.get_errno(), "inotify_init1")
        if _libc.inotify_add_watch(self.fd, path.encode(), mask) < 0:
            error = ctypes.get_errno()
            os.close(self.fd)
            raise OSError(error, "inotify_add_watch " + path)
        self.seen = []  # (monotonic time, mask, name)

    def close(self):
        os.close(self.fd)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def read(self):
        """Takes in the events that arrived; inotify merges an event into an
        unread identical one, so a counting reader reads often."""
        while True:
            try:
                data = os.read(self.fd, 65536)
            except BlockingIOError:
                return
            now = time.monotonic()
            offset = 0
            while offset < len(data):
                _, mask, _, length = _EVENT.unpack_from(data, offset)
                offset += _EVENT.size
                self.seen.append((now, mask, data[offset:offset + length].rstrip(b"\0").decode()))
                offset += length

    def events(self, mask, name=""):
        """Times of the events of this kind on this name, so far."""
        self.read()
        return [t for t, m, n in self.seen if m & mask and n == name]

    def count(self, mask, name=""):
        return len(self.events(mask, name))
