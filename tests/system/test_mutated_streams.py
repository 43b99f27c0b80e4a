"""Conversations with bits flipped, lengths changed, and PDUs cut, doubled, lost or in another order.

Whatever a peer sends, it harms its own worker at most: the listener serves others at once, what is
stored stays, and nothing outside the base directory changes. TARVO_STREAMS tells how many, and a
printed seed repeats them with TARVO_TEST_SEED.
"""
import collections
import concurrent.futures
import os
import random
import socket
import struct
import threading
import time
from typing import NamedTuple

import harness
import upper_layer
from data_set import SOP_UID, STUDY_UID, image
from query_retrieve import DELETE, PENDING, client, find, identifier
from samples import SAMPLES
from upper_layer import (APPLICATION_CONTEXT, C_CANCEL, C_ECHO, C_FIND, C_MOVE, C_STORE,
                         DATA_SET_TYPE, DESTINATION, EXPLICIT_LE, FIELD, MESSAGE_ID, NO_DATA_SET,
                         P_DATA, PRIORITY, RELEASE_RP, RELEASE_RQ, RESPONDED_TO, SECONDARY_CAPTURE,
                         SOP_CLASS, SOP_INSTANCE, STATUS, STUDY_ROOT_FIND, STUDY_ROOT_MOVE,
                         VERIFICATION, WITH_DATA_SET)

STREAMS = int(os.environ.get("TARVO_STREAMS", 300))
SEED = int(os.environ.get("TARVO_TEST_SEED", time.time_ns() % 1_000_000_000))
CLIENTS = 4
SMALL = [sample for sample in SAMPLES if len(sample.sent) < 10_000]
LENGTHS = [0, 1, 3, 0xFE, 0xFFFE, 0xFFFF, 0x10000, 0x7FFFFFFF, 0xFFFFFFFE, 0xFFFFFFFF]

STILL_PENDING = struct.pack("<HHLH", 0, STATUS, 2, PENDING)  # in a response


class Step(NamedTuple):
    pdu: bytes
    is_answered: bool  # the client waits for that before it goes on


def message(context, fields, data_set=None, is_answered=True):
    """The PDUs of one message; a data set comes in two fragments."""
    kind = NO_DATA_SET if data_set is None else WITH_DATA_SET
    parts = [(3, upper_layer.command_set({DATA_SET_TYPE: kind, **fields}))]
    if data_set is not None:
        half = len(data_set) // 4 * 2
        parts += [(0, data_set[:half]), (2, data_set[half:])]
    return [Step(upper_layer.pdu(P_DATA, struct.pack(">LBB", len(part) + 2, context, flags) + part),
                 is_answered and flags & 2 != 0 and (data_set is None or flags == 2))
            for flags, part in parts]


def conversation(sample, destination):
    """A client that echoes, stores, finds, gives up a query, moves, and releases."""
    contexts = [(VERIFICATION, [EXPLICIT_LE]), (sample.sop_class, [sample.transfer_syntax]),
                (STUDY_ROOT_FIND, [EXPLICIT_LE]), (STUDY_ROOT_MOVE, [EXPLICIT_LE])]
    study = sample.elements[STUDY_UID].value.rstrip(b"\0").decode()
    query = identifier("IMAGE", StudyInstanceUID=study, SeriesInstanceUID="", SOPInstanceUID="")
    asked = {FIELD: C_FIND, SOP_CLASS: STUDY_ROOT_FIND, PRIORITY: 0}
    return [
        Step(upper_layer.associate_request(contexts, "TARVO", "MUTANT", APPLICATION_CONTEXT), True),
        *message(1, {FIELD: C_ECHO, MESSAGE_ID: 1, SOP_CLASS: VERIFICATION}),
        *message(3, {FIELD: C_STORE, MESSAGE_ID: 2, SOP_CLASS: sample.sop_class, PRIORITY: 0,
                     SOP_INSTANCE: sample.sop_instance}, sample.sent),
        *message(5, {**asked, MESSAGE_ID: 3}, query),
        *message(5, {**asked, MESSAGE_ID: 4}, identifier("STUDY", PatientName="*"), False),
        *message(5, {FIELD: C_CANCEL, RESPONDED_TO: 4}),
        *message(7, {FIELD: C_MOVE, MESSAGE_ID: 5, SOP_CLASS: STUDY_ROOT_MOVE, PRIORITY: 0,
                     DESTINATION: destination}, query),
        Step(upper_layer.pdu(RELEASE_RQ, bytes(4)), False)]


def mutate(steps, draw):
    """Damages a conversation once."""
    at = draw.randrange(len(steps))
    victim = bytearray(steps[at].pdu)
    kind = draw.choice(["bits", "length", "cut", "double", "swap", "lose", "type", "insert"])
    place = draw.randrange(len(victim)) if victim else 0
    if kind == "bits":
        for _ in range(draw.choice([1, 1, 4, 32]) if victim else 0):
            victim[draw.randrange(len(victim))] ^= 1 << draw.randrange(8)
    elif kind == "length":
        form = draw.choice([">L", ">H", "<L", "<H"])
        place, size = draw.choice([2, 6, place]), struct.calcsize(form)
        victim[place:place + size] = struct.pack(form, draw.choice(LENGTHS) & (1 << 8 * size) - 1)
    elif kind == "cut":
        del victim[place:]
    elif kind == "type":
        victim[:1] = [draw.randrange(12)]
    elif kind == "insert":
        victim[place:place] = draw.randbytes(draw.choice([1, 2, 6, 40]))
    damaged = Step(bytes(victim), steps[at].is_answered)
    steps[at:at + 1] = {"double": [damaged, damaged], "lose": []}.get(kind, [damaged])
    if kind == "swap":
        other = draw.randrange(len(steps))
        steps[at], steps[other] = steps[other], steps[at]


def stream(number):
    draw = random.Random(f"{SEED} {number}")
    steps = conversation(draw.choice(SMALL), draw.choice([DELETE, "NOWHERE", "GONE"]))
    for _ in range(0 if is_sound(number) else draw.choice([1, 1, 2, 5])):
        if steps:
            mutate(steps, draw)
    return steps


def is_sound(number):
    return number % 50 == 0


class Conversation:
    """Sends a stream; `types` are those of the PDUs that came back."""

    def __init__(self, port, number):
        self.types, self.unread = [], b""
        with socket.create_connection(("127.0.0.1", port), timeout=20) as self.peer:
            try:
                self._send(stream(number), 20 if is_sound(number) else 0.1)
                self.peer.settimeout(20)
                self.peer.shutdown(socket.SHUT_WR)
                while not self._has_answer():
                    pass
            except TimeoutError:
                raise AssertionError(f"seed {SEED}: stream {number} keeps its worker") from None
            except OSError:
                pass  # the server has ended it

    def _send(self, steps, patience):
        for step in steps:
            self.peer.sendall(step.pdu)
            self.peer.settimeout(patience)
            try:
                while step.is_answered and not self._has_answer():
                    pass
            except TimeoutError:
                patience = 0.001  # the two have lost each other: the rest comes in one go

    def _has_answer(self):
        """Reads once. Whether anything but a pending response has come in by that."""
        chunk = self.peer.recv(65536)
        if not chunk:
            raise ConnectionResetError
        self.unread += chunk
        answered = False
        while len(self.unread) >= 6:
            end = 6 + struct.unpack(">L", self.unread[2:6])[0]
            if len(self.unread) < end:
                break
            raw, self.unread = self.unread[:end], self.unread[end:]
            self.types.append(raw[0])
            is_command = raw[0] != P_DATA or raw[11] & 1
            answered |= is_command and STILL_PENDING not in raw
        return answered


class Echoes(threading.Thread):
    """Asks the server all the time whether it is there, and keeps the longest wait."""

    def __init__(self, port):
        super().__init__()
        self.port, self.ended = port, threading.Event()
        self.slowest, self.count, self.failure = 0.0, 0, None

    def run(self):
        try:
            while not self.ended.wait(0.02):
                start = time.monotonic()
                assert upper_layer.echo(self.port) == 0
                self.slowest = max(self.slowest, time.monotonic() - start)
                self.count += 1
        except Exception as failure:  # whatever it is, it is the test's to report
            self.failure = failure


def surroundings(server):
    """Everything the server can reach that is neither its store nor its log."""
    return {str(path): path.read_bytes() if path.is_file() else b""
            for path in server.directory.rglob("*")
            if server.store not in (path, *path.parents)
            and path not in (server.log, server.output)}


def store_residents(server):
    """Images that no stream names. Returns {UID: bytes of the file}."""
    residents = {}
    with client(server) as association:
        for number in range(5):
            uid = f"2.25.987654321.{number}"
            data_set = image("2.25.987654321", "2.25.987654321.77", uid, PatientName="RESIDENT")
            assert association.store(data_set, SECONDARY_CAPTURE, uid) == 0
            path, = server.store.rglob(f"image_{uid}.dcm")
            residents[uid] = path.read_bytes()
    return residents


def found_residents(server):
    with client(server) as association:
        query = identifier("IMAGE", StudyInstanceUID="2.25.987654321", SOPInstanceUID="")
        _, found = find(association, query)
    uids = [each[SOP_UID].value.rstrip(b"\0").decode() for each in found]
    paths = {uid: list(server.store.rglob(f"image_{uid}.dcm")) for uid in uids}
    return {uid: path.read_bytes() for uid, (path,) in paths.items()}


def test_mutated_streams_harm_nobody_else(servers):
    server = servers("-s", peers=f"gone GONE 127.0.0.1:{harness.free_port()} F\n", may_leak=True)
    residents, before = store_residents(server), surroundings(server)
    ends = collections.Counter()
    echoes = Echoes(server.port)
    print(f"TARVO_TEST_SEED={SEED}")
    echoes.start()
    try:
        with concurrent.futures.ThreadPoolExecutor(CLIENTS) as pool:
            talks = pool.map(lambda number: Conversation(server.port, number), range(STREAMS))
            for number, talk in enumerate(talks):
                ends[talk.types[-1] if talk.types else None] += 1
                if is_sound(number):
                    assert talk.types[-1] == RELEASE_RP, f"the sound stream {number}: {talk.types}"
    finally:
        echoes.ended.set()
        echoes.join()
    print(f"{STREAMS} streams; ended by PDUs of type {dict(ends)}; {echoes.count} echoes, the "
          f"slowest took {echoes.slowest * 1000:.0f} ms")
    assert echoes.failure is None
    assert echoes.slowest < 1
    assert server.process.poll() is None
    server.wait_until_idle()
    assert surroundings(server) == before
    assert set(os.listdir(server.store)) == {"uid", "patient"}
    base = os.path.realpath(server.store)
    assert all(os.path.realpath(path).startswith(f"{base}/uid/")
               for path in server.store.rglob("z_*"))
    assert found_residents(server) == residents
