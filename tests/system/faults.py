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
NUMBER = {name: number for number, name in enumerate(KINDS)}
FAIL, HALVE, KILL_BEFORE, KILL_AFTER, PAUSE, FILL = range(6)
CHANGING = [kind for kind in KINDS if kind not in ("read", "send")]
_ARMED, _COUNT, _FIRED, _TRACING, _STRUCK_KIND = 0, 20, 24, 28, 36
_PATH = 40
_RECORD = struct.Struct("=4I2q")


@contextlib.contextmanager
def memory_folder():
    """A folder in memory, where there is one: these tests make and remove thousands of files."""
    memory = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
    with tempfile.TemporaryDirectory(prefix="tarvo-", dir=memory) as folder:
        yield pathlib.Path(folder)


class Call(NamedTuple):
    """A call that succeeded, as the trace has it; see struct record of the shim."""
    kind: str
    process: int
    path: str
    data: bytes
    offset: int
    length: int


class Faults:
    """The control of the shim for one server and its successors."""

    def __init__(self, folder, *below):
        self.trace, self.clock = folder / "trace", folder / "clock"
        control = folder / "control"
        control.write_bytes(bytes(mmap.PAGESIZE))
        with control.open("r+b") as file:
            self.shared = mmap.mmap(file.fileno(), 0)
        libraries = [str(harness.preload(source, folder))
                     for source in ("fault_shim.c", "later_clock.c")]
        self.environment = {"FAULT_CONTROL": str(control), "FAULT_TRACE": str(self.trace),
                            "FAULT_FOLDERS": ":".join(map(str, below)),
                            "LATER_CLOCK": str(self.clock), "LD_PRELOAD": ":".join(libraries)}

    def arm(self, nth, action, error=0, kinds=CHANGING):
        """Lets the nth of the calls of these kinds fail; 0 only counts them."""
        mask = sum(1 << NUMBER[kind] for kind in kinds)
        struct.pack_into("=7I", self.shared, _ARMED, 0, mask, nth, action, error, 0, 0)
        struct.pack_into("=I", self.shared, _ARMED, 1)

    def disarm(self):
        """Returns what was hit, None when nothing was."""
        struct.pack_into("=I", self.shared, _ARMED, 0)
        if not self._word(_FIRED):
            return None
        path = self.shared[_PATH:self.shared.find(b"\0", _PATH)].decode()
        return f"{KINDS[self._word(_STRUCK_KIND)]} {path}"

    @property
    def count(self):
        return self._word(_COUNT)

    @property
    def has_fired(self):
        return bool(self._word(_FIRED))

    def wait_for_calls(self):
        """Waits until nothing more is called, which somebody has begun."""
        harness.wait_until(lambda: self.count, what="the first call")
        before = 0
        while before != self.count:
            before = self.count
            time.sleep(0.03)

    def _word(self, offset):
        return struct.unpack_from("=I", self.shared, offset)[0]

    def record(self, active):
        struct.pack_into("=I", self.shared, _TRACING, active)

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


def server_with_faults(servers, folder, *options, peers="", **settings):
    """A server under the shim, not started, and its Faults. It can be killed: see `stop`."""
    server = harness.Server(folder / "faulty", *options, peers=peers, **settings)
    faults = Faults(folder, server.store, server.map_file.parent)
    server.environment |= faults.environment
    server.environment["ASAN_OPTIONS"] += ":verify_asan_link_order=0"
    server.expected_deaths = 1 << 20
    servers.started.append(server)
    return server, faults


def stop(server):
    """Nobody is told."""
    server.process.kill()
    server.process.wait()
