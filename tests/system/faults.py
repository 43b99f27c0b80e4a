"""Faults on demand: a server whose calls below its store can be made to fail, and their trace.

The calls are counted by fault_shim.c in the listener and its workers alike, from the moment of
`arm`; so a fault for a worker is armed when its association stands.
"""
import contextlib
import mmap
import os
import pathlib
import struct
import tempfile
import time
from typing import NamedTuple

import harness

KINDS = ("open", "read", "write", "allocate", "truncate", "mkdir", "rename", "unlink", "rmdir",
         "sync", "start sync", "lock", "close", "send")
FAIL, HALVE, KILL_BEFORE, KILL_AFTER, PAUSE, FILL = range(6)
CHANGING = [kind for kind in KINDS if kind not in ("read", "send")]
_CONTROL = struct.Struct("=10I1024s")  # struct control of the shim
_TRACING = 28
_RECORD = struct.Struct("=4I2q")


class Call(NamedTuple):
    """A call that succeeded, as the trace has it; see struct record of the shim."""
    kind: str
    process: int
    path: str
    data: bytes
    offset: int
    length: int


class Faults:
    """The shim's other end, for a server that moves its clock and is not yet started."""

    def __init__(self, server):
        folder = server.directory
        self.server, self.trace = server, folder / "trace"
        control = folder / "control"
        control.write_bytes(bytes(mmap.PAGESIZE))
        with control.open("r+b") as file:
            self.shared = mmap.mmap(file.fileno(), 0)
        server.expected_deaths = 1 << 20
        server.environment |= {
            "FAULT_CONTROL": str(control), "FAULT_TRACE": str(self.trace),
            "FAULT_FOLDER": str(folder / "home")}

    def arm(self, nth, action, error=0, kinds=CHANGING):
        """Lets the nth of the calls of these kinds fail; 0 only counts them."""
        mask = sum(1 << KINDS.index(kind) for kind in kinds)
        struct.pack_into("=7I", self.shared, 0, 0, mask, nth, action, error, 0, 0)
        struct.pack_into("=I", self.shared, 0, 1)

    def _state(self):
        """(number of calls, whether one was hit, kind of that, its path)"""
        words = _CONTROL.unpack_from(self.shared)
        return words[5], bool(words[6]), KINDS[words[9]], words[10].split(b"\0")[0].decode()

    def disarm(self):
        """Returns what was hit, None when nothing was."""
        struct.pack_into("=I", self.shared, 0, 0)
        _, fired, kind, path = self._state()
        return f"{kind} {path}" if fired else None

    @property
    def count(self):
        return self._state()[0]

    @property
    def has_fired(self):
        return self._state()[1]

    def let_pass(self, seconds):
        """Sets the clock forward and waits until nothing more is called, which somebody has begun.
        The server may die of that."""
        with contextlib.suppress(ConnectionError):
            self.server.let_pass(seconds)
        harness.wait_until(lambda: self.count, what="the first call")
        before = 0
        while before != self.count:
            before = self.count
            time.sleep(0.03)

    def record(self):
        struct.pack_into("=I", self.shared, _TRACING, 1)

    def mark(self, text):
        """Puts a note of the test between the calls of the trace."""
        data = text.encode()
        with self.trace.open("ab", buffering=0) as file:
            file.write(_RECORD.pack(len(KINDS), 0, 0, len(data), 0, 0) + data)

    def calls(self):
        content, at = self.trace.read_bytes(), 0
        while at < len(content):
            kind, process, *lengths, offset, length = _RECORD.unpack_from(content, at)
            at += _RECORD.size
            path, data = content[at:at + lengths[0]], content[at + lengths[0]:at + sum(lengths)]
            at += sum(lengths)
            yield Call((*KINDS, "mark")[kind], process, path.decode(), data, offset, length)


@contextlib.contextmanager
def servers_in_memory():
    """A pool for servers with thousands of short-lived files: in memory, where there is one."""
    memory = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
    with tempfile.TemporaryDirectory(prefix="tarvo-", dir=memory) as folder:
        with contextlib.closing(harness.Servers(pathlib.Path(folder))) as servers:
            yield servers
