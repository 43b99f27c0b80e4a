"""Conversations with bits flipped, lengths changed, and PDUs cut, doubled, lost or exchanged.

Whatever a peer sends, it harms its own worker at most: the listener serves others at once, what is
stored stays, and nothing outside the base directory changes. TARVO_STREAMS tells how many, and a
printed seed repeats them with TARVO_TEST_SEED.
"""
import concurrent.futures
import contextlib
import os
import random
import socket
import struct
import threading
import time

import harness
import upper_layer
from archive_checker import Ledger, picture
from data_set import STUDY_UID, identifier
from harness import SEED
from samples import SAMPLES
from upper_layer import CONTEXTS, DELETE, GONE, SUCCESS, Association, query_for, uid_of

STREAMS = int(os.environ.get("TARVO_STREAMS", 300))
CLIENTS = 4
SMALL = [sample for sample in SAMPLES if len(sample.sent) < 10_000]
LENGTHS = [0, 1, 3, 0xFE, 0xFFFE, 0xFFFF, 0x10000, 0x7FFFFFFF, 0xFFFFFFFE, 0xFFFFFFFF]


class Mutant(Association):
    """Damages some of the PDUs that it sends. Whoever waits in vain goes on without an answer."""

    def __init__(self, port, draw, count, **settings):
        self.draw, self.count, self.held_back = draw, count, b""
        super().__init__(port, **settings)

    def sendall(self, data):
        """About every tenth PDU is damaged, until there were enough."""
        while data:
            size = 6 + struct.unpack(">L", data[2:6])[0]
            pdu, data = data[:size], data[size:]
            if self.count and self.draw.random() < 0.15:
                self.count -= 1
                pdu = self.mutated(bytearray(pdu))
                self.socket.settimeout(0.1)
            super().sendall(pdu + self.held_back)
            self.held_back = b""

    def mutated(self, victim):
        draw, place = self.draw, self.draw.randrange(len(victim))
        kind = draw.choice(["bits", "length", "cut", "double", "swap", "lose", "type", "insert"])
        if kind == "bits":
            for _ in range(draw.choice([1, 1, 4, 32])):
                victim[draw.randrange(len(victim))] ^= 1 << draw.randrange(8)
        elif kind == "length":
            form = draw.choice([">L", ">H", "<L", "<H"])
            place, size = draw.choice([2, 6, place]), struct.calcsize(form)
            mask = (1 << 8 * size) - 1
            victim[place:place + size] = struct.pack(form, draw.choice(LENGTHS) & mask)
        elif kind == "cut":
            del victim[place:]
        elif kind == "type":
            victim[:1] = [draw.randrange(12)]
        elif kind == "insert":
            victim[place:place] = draw.randbytes(draw.choice([1, 2, 6, 40]))
        elif kind == "swap":  # it comes behind the next one
            self.held_back, victim = bytes(victim), b""
        return bytes(victim) * {"double": 2, "lose": 0}.get(kind, 1)


def is_sound(number):
    return number % 50 == 0


def converse(port, number):
    """A client that echoes, stores, finds, gives up a query, moves, and releases. Returns the
    number when the server does not end the association then."""
    draw = random.Random(f"{SEED} {number}")
    sample, destination = draw.choice(SMALL), draw.choice([DELETE, "NOWHERE", "GONE"])
    contexts = [(sample.sent.sop_class, [sample.transfer_syntax]), *CONTEXTS]
    query = query_for("IMAGE", uid_of(sample.elements, STUDY_UID), "", "")
    count = 0 if is_sound(number) else draw.choice([1, 1, 2, 5])
    tolerated = () if is_sound(number) else (*GONE, AssertionError, ValueError, LookupError,
                                             struct.error)
    with contextlib.suppress(*tolerated):
        association = Mutant(port, draw, count, contexts=contexts)
        for step in (association.echo, lambda: association.store(sample.sent),
                     lambda: association.find(query),
                     lambda: association.cancel(association.ask(identifier("STUDY"))),
                     lambda: association.answers_to(association.message_id),
                     lambda: association.move(destination, query), association.release):
            try:
                with contextlib.suppress(*tolerated[1:]):
                    step()
            except TimeoutError:
                association.socket.settimeout(0.001)  # the two have lost each other
        if is_sound(number):
            return None
        association.socket.settimeout(20)
        association.socket.shutdown(socket.SHUT_WR)
        try:
            while association.socket.recv(65536):
                pass
        except TimeoutError:
            return number
    return None


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
    before, waits, ended = server.surroundings(), [], threading.Event()
    with concurrent.futures.ThreadPoolExecutor(CLIENTS + 1) as pool:
        echoes = pool.submit(echo_until, ended, server.port, waits)
        try:
            stuck = set(pool.map(lambda number: converse(server.port, number), range(STREAMS)))
        finally:
            ended.set()
        echoes.result()
    print(f"{STREAMS} streams, {len(waits)} echoes, the slowest took {max(waits) * 1000:.0f} ms")
    assert stuck == {None}, "these keep their workers"
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
