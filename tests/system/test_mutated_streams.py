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
from archive_checker import Ledger, picture
from data_set import EXPLICIT_LE, STUDY_UID, identifier
from harness import SEED
from samples import SAMPLES
from upper_layer import (C_CANCEL, C_ECHO, C_FIND, C_MOVE, DATA_SET_TYPE, DELETE, DESTINATION,
                         FIELD, MESSAGE_ID, NO_DATA_SET, P_DATA, PENDING, PRIORITY, RELEASE_RP,
                         RELEASE_RQ, RESPONDED_TO, SOP_CLASS, STATUS, STUDY_ROOT_FIND,
                         STUDY_ROOT_MOVE, SUCCESS, VERIFICATION, WITH_DATA_SET, command_set, pdu,
                         query_for, store_request, uid_of)

STREAMS = int(os.environ.get("TARVO_STREAMS", 300))
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
    parts = [(3, command_set({DATA_SET_TYPE: kind, **fields}))]
    if data_set is not None:
        half = len(data_set) // 4 * 2
        parts += [(0, data_set[:half]), (2, data_set[half:])]
    return [Step(pdu(P_DATA, struct.pack(">LBB", len(part) + 2, context, flags) + part),
                 is_answered and (flags, part) == parts[-1]) for flags, part in parts]


def conversation(sample, destination):
    """A client that echoes, stores, finds, gives up a query, moves, and releases."""
    contexts = [(VERIFICATION, [EXPLICIT_LE]), (sample.sent.sop_class, [sample.transfer_syntax]),
                (STUDY_ROOT_FIND, [EXPLICIT_LE]), (STUDY_ROOT_MOVE, [EXPLICIT_LE])]
    query = query_for("IMAGE", uid_of(sample.elements, STUDY_UID), "", "")
    asked = {FIELD: C_FIND, SOP_CLASS: STUDY_ROOT_FIND, PRIORITY: 0}
    return [
        Step(upper_layer.associate_request(contexts, calling="MUTANT"), True),
        *message(1, {FIELD: C_ECHO, MESSAGE_ID: 1, SOP_CLASS: VERIFICATION}),
        *message(3, {MESSAGE_ID: 2, **store_request(sample.sent)}, sample.sent),
        *message(5, {**asked, MESSAGE_ID: 3}, query),
        *message(5, {**asked, MESSAGE_ID: 4}, identifier("STUDY", PatientName="*"), False),
        *message(5, {FIELD: C_CANCEL, RESPONDED_TO: 4}),
        *message(7, {FIELD: C_MOVE, MESSAGE_ID: 5, SOP_CLASS: STUDY_ROOT_MOVE, PRIORITY: 0,
                     DESTINATION: destination}, query),
        Step(pdu(RELEASE_RQ, bytes(4)), False)]


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
                raise AssertionError(f"stream {number} keeps its worker") from None
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
        while len(self.unread) >= 6 and len(self.unread) >= (
                end := 6 + struct.unpack(">L", self.unread[2:6])[0]):
            raw, self.unread = self.unread[:end], self.unread[end:]
            self.types.append(raw[0])
            is_command = raw[0] != P_DATA or raw[11] & 1
            answered |= is_command and STILL_PENDING not in raw
        return answered


def echo_until(ended, port, waits):
    """Asks the server all the time whether it is there, and notes how long that took."""
    while not ended.wait(0.02):
        start = time.monotonic()
        assert upper_layer.echo(port) == 0
        waits.append(time.monotonic() - start)


def test_mutated_streams_harm_nobody_else(servers, provider):
    peers = provider.map_line + f"gone GONE 127.0.0.1:{harness.free_port()} F\n"
    server, ledger = servers("-s", peers=peers, may_leak=True), Ledger()
    with server.client() as association:  # images that no stream names
        for number in range(5):
            uids = "2.25.987654321", "2.25.987654321.77", f"2.25.987654321.{number}"
            assert ledger.store(association, picture(uids)) == SUCCESS
    files = {path: path.read_bytes() for path in server.store.rglob("image_*")}
    before, ends, waits = server.surroundings(), collections.Counter(), []
    with concurrent.futures.ThreadPoolExecutor(CLIENTS + 1) as pool:
        ended = threading.Event()
        echoes = pool.submit(echo_until, ended, server.port, waits)
        try:
            talks = pool.map(lambda number: Conversation(server.port, number), range(STREAMS))
            for number, talk in enumerate(talks):
                ends[talk.types[-1] if talk.types else None] += 1
                if is_sound(number):
                    assert talk.types[-1] == RELEASE_RP, f"the sound stream {number}: {talk.types}"
        finally:
            ended.set()
        echoes.result()
    print(f"{STREAMS} streams; ended by PDUs of type {dict(ends)}; {len(waits)} echoes, the "
          f"slowest took {max(waits) * 1000:.0f} ms")
    assert max(waits) < 1
    assert server.process.poll() is None
    server.wait_until_idle()
    assert server.surroundings() == before
    assert set(os.listdir(server.store)) == {"uid", "patient"}
    base = os.path.realpath(server.store)
    assert all(os.path.realpath(path).startswith(f"{base}/uid/")
               for path in server.store.rglob("z_*"))
    assert {path: path.read_bytes() for path in files} == files
    with server.client() as association:
        status, found = association.find(query_for("IMAGE", "2.25.987654321", None, ""))
        moved = association.move("DEST", query_for("STUDY", "2.25.987654321"))
    assert status == SUCCESS and len(found) == moved.final.completed == len(files)
