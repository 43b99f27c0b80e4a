"""A C-STORE provider that notes every association and keeps every image (PS3.7, 9.1.1).

It serves one association after another in a thread, decides about each context and each image as
it is told, and can turn away, hang up or stay silent where a real one only would on a bad day.
"""
import contextlib
import socket
import struct
import subprocess
import threading
from typing import NamedTuple

import harness
from data_set import EXPLICIT_LE
from upper_layer import (APPLICATION_CONTEXT, ASSOCIATE_AC, ASSOCIATE_RJ, C_STORE, FIELD,
                         MESSAGE_ID, RELEASE_RP, RELEASE_RQ, RESPONDED_TO, RESPONSE,
                         SOP_CLASS, SOP_INSTANCE, STATUS, Aborted, Connection, item, items, pdu)

MOVE_ORIGINATOR, MOVE_MESSAGE_ID = 0x1030, 0x1031


class Released(Exception):
    """The requestor asked for a release."""
    answer = pdu(RELEASE_RP, bytes(4))


class HangUp(Exception):
    """Raised by a decision: the connection is closed without a word."""


class Turned(Exception):
    """Raised by a decision about a context: the association is turned away."""
    answer = pdu(ASSOCIATE_RJ, b"\0\1\1\1")


ENDINGS = {Released: "release", Turned: "rejection", Aborted: "abort", HangUp: "hang-up"}


class Context(NamedTuple):
    number: int
    abstract: str
    transfers: tuple


class Received(NamedTuple):
    fields: dict          # of the C-STORE request
    transfer_syntax: str
    data: bytes


class Call(Connection):
    """One association as the provider saw it. `ending` tells how it ended: "release", "abort",
    "closed", and by us "hang-up" and "rejection"."""

    def __init__(self, connection):
        super().__init__(connection)
        self.contexts, self.received, self.transfers = [], [], {}
        self.ending, self.ended = None, threading.Event()

    @property
    def ended_by(self):
        assert self.ended.wait(10), "the association still stands"
        return self.ending

    def receive_pdu(self):
        kind, raw = super().receive_pdu()
        if kind == RELEASE_RQ:
            raise Released
        return kind, raw

    def serve(self, choose, answer):
        try:
            self._negotiate(choose)
            while True:
                self._take_image(answer)
        except (Released, Turned, Aborted, HangUp, EOFError, ConnectionError) as end:
            if isinstance(end, (Released, Turned)):
                self.socket.sendall(end.answer)
            self.ending = ENDINGS.get(type(end), "closed")
        finally:
            self.ended.set()

    def _negotiate(self, choose):
        _, request = self.receive_pdu()
        self.called, self.calling = (request[at:at + 16].decode().rstrip() for at in (10, 26))
        answer = request[6:74] + item(0x10, APPLICATION_CONTEXT.encode())
        for kind, body in items(request[74:]):
            if kind == 0x20:
                (_, abstract), *rest = items(body[4:])
                transfers = tuple(transfer.decode() for _, transfer in rest)
                self.contexts.append(Context(body[0], abstract.decode(), transfers))
            elif kind == 0x50:
                self.peer_max_pdu = struct.unpack(">L", dict(items(body))[0x51])[0]
        for context in self.contexts:
            choice = self.transfers[context.number] = choose(context)
            name = item(0x40, (choice or context.transfers[0]).encode())
            answer += item(0x21, bytes([context.number, 0, 0 if choice else 3, 0]) + name)
        user = item(0x51, struct.pack(">L", 65536)) + item(0x52, b"1.2.826.0.1.3680043.9.7156.2")
        self.socket.sendall(pdu(ASSOCIATE_AC, answer + item(0x50, user)))

    def _take_image(self, answer):
        fields, data = self.receive()
        received = Received(fields, self.transfers[self.context], data)
        status = answer(received)
        self.received.append(received)
        self.send(self.context, {
            FIELD: C_STORE | RESPONSE, RESPONDED_TO: fields[MESSAGE_ID], STATUS: status,
            **{each: fields[each] for each in (SOP_CLASS, SOP_INSTANCE)}})


def take_explicit(context):
    """What is compressed must be proposed alone."""
    return EXPLICIT_LE if EXPLICIT_LE in context.transfers else context.transfers[0]


class Provider:
    """`choose(context)` gives the transfer syntax that is accepted, None to refuse the context;
    `answer(received)` gives the status for an image. Both may raise HangUp or Turned."""

    def __init__(self, title, choose=take_explicit, answer=lambda received: 0):
        self.title, self.choose, self.answer = title, choose, answer
        self.calls, self.error = [], None
        self.port = harness.free_port()
        self.listener = socket.create_server(("127.0.0.1", self.port))
        self.thread = threading.Thread(target=self._serve, daemon=True)

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, kind, *_):
        self.stop()
        assert kind is not None or self.error is None, self.error

    def stop(self):
        """Takes no further associations."""
        with contextlib.suppress(OSError):  # accept() does not notice a close
            self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()
        if threading.current_thread() is not self.thread:
            self.thread.join(20)

    @property
    def map_line(self):
        return f"{self.title}\t{self.title}\t127.0.0.1:{self.port}\tFMSD\n"

    @property
    def received(self):
        return [image for call in self.calls for image in call.received]

    @property
    def reached(self):
        """The SOP Instance UIDs of the images in the order in which they came."""
        return [image.fields[SOP_INSTANCE] for image in self.received]

    def _serve(self):
        try:
            while True:
                try:
                    connection, _ = self.listener.accept()
                except OSError:
                    return
                with connection:
                    connection.settimeout(20)
                    self.calls.append(Call(connection))
                    self.calls[-1].serve(self.choose, self.answer)
        except Exception as error:  # shown by the test that owns the provider
            self.error = error


@contextlib.contextmanager
def toolkit_provider(folder):
    """DCMTK's storescp, in a process of its own, putting images into `folder`; gives its port."""
    port = harness.free_port()
    command = ["storescp", "-od", str(folder), "-uf", str(port)]
    with subprocess.Popen(command, env=harness.ENVIRONMENT, stdout=subprocess.DEVNULL) as provider:
        try:
            harness.wait_until(lambda: harness.is_listening(provider.pid, port), what="storescp")
            yield port
        finally:
            provider.terminate()
