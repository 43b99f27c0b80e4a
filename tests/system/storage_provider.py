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
from upper_layer import (APPLICATION_CONTEXT, ASSOCIATE_RQ, DATA_SET_TYPE, EXPLICIT_LE,
                         FIELD, MESSAGE_ID, NO_DATA_SET, P_DATA, RELEASE_RP, RELEASE_RQ,
                         RESPONDED_TO, SOP_CLASS, SOP_INSTANCE, STATUS, Aborted, Association,
                         command_set, item, items, pdu)

MOVE_ORIGINATOR, MOVE_MESSAGE_ID = 0x1030, 0x1031


class Released(Exception):
    """The requestor asked for a release."""


class HangUp(Exception):
    """Raised by a decision: the connection is closed without a word."""


class Context(NamedTuple):
    number: int
    abstract: str
    transfers: tuple


class Received(NamedTuple):
    fields: dict          # of the C-STORE request
    transfer_syntax: str
    data: bytes


class Call:
    """One association as the provider saw it."""

    def __init__(self, request):
        self.called = request[10:26].decode().rstrip()
        self.calling = request[26:42].decode().rstrip()
        self.contexts = []
        self.received = []
        self.ending = None  # how it ended
        self.ended = threading.Event()
        for kind, body in items(request[74:]):
            if kind == 0x20:
                parts = list(items(body[4:]))
                self.contexts.append(Context(body[0], parts[0][1].decode(),
                                             tuple(part.decode() for _, part in parts[1:])))
            elif kind == 0x50:
                self.max_pdu = struct.unpack(">L", dict(items(body))[0x51])[0]

    @property
    def ended_by(self):
        """Waits for the end: "release", "abort", "closed", and by us "hang-up" and "rejection"."""
        assert self.ended.wait(10), "the association still stands"
        return self.ending

    @property
    def classes(self):
        return [context.abstract for context in self.contexts]


class _Accepted(Association):
    """The association from the other side; negotiation is over when it is made."""

    def __init__(self, connection):
        self.socket, self.unread = connection, b""
        self.message_id, self.is_open, self.context = 0, True, None

    def receive_pdu(self):
        kind, raw = super().receive_pdu()
        if kind == RELEASE_RQ:
            raise Released
        if kind == P_DATA:
            self.context = raw[10]
        return kind, raw


def take_explicit(context):
    """What is compressed must be proposed alone."""
    return EXPLICIT_LE if EXPLICIT_LE in context.transfers else context.transfers[0]


def succeed(_received):
    return 0x0000


class Provider:
    """`choose(context)` gives the transfer syntax that is accepted, None to refuse the context;
    `answer(received)` gives the status for an image. Both may raise HangUp, and `choose` may
    return "reject" to turn the whole association away."""

    def __init__(self, title, choose=take_explicit, answer=succeed):
        self.title, self.choose, self.answer = title, choose, answer
        self.calls = []
        self.port = harness.free_port()
        self.listener = socket.create_server(("127.0.0.1", self.port))
        self.error = None
        self.thread = threading.Thread(target=self._serve, daemon=True)

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, kind, *_):
        self.stop()
        assert kind is not None or self.error is None, self.error

    def stop(self):
        """Takes no further associations."""
        self.listener.close()
        try:  # accept() does not notice by itself
            socket.create_connection(("127.0.0.1", self.port), 1).close()
        except OSError:
            pass
        if threading.current_thread() is not self.thread:
            self.thread.join(20)

    @property
    def map_line(self):
        return f"{self.title} {self.title} 127.0.0.1:{self.port} FMSD\n"

    @property
    def received(self):
        return [image for call in self.calls for image in call.received]

    def _serve(self):
        try:
            while True:
                try:
                    connection, _ = self.listener.accept()
                except OSError:
                    return
                with connection:
                    connection.settimeout(20)
                    connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
                    self._take_call(_Accepted(connection))
        except Exception as error:  # shown by the test that owns the provider
            self.error = error
            self.listener.close()

    def _take_call(self, peer):
        try:
            kind, request = peer.receive_pdu()
        except EOFError:
            return
        assert kind == ASSOCIATE_RQ
        call = Call(request)
        self.calls.append(call)
        try:
            call.ending = self._converse(peer, call, request)
        finally:
            call.ended.set()

    def _converse(self, peer, call, request):
        try:
            transfers = self._negotiate(peer, call, request)
            if transfers is None:
                return "rejection"
            while True:
                self._take_image(peer, call, transfers)
        except Released:
            peer.socket.sendall(pdu(RELEASE_RP, bytes(4)))
            return "release"
        except Aborted:
            return "abort"
        except HangUp:
            return "hang-up"
        except (EOFError, ConnectionError):
            return "closed"

    def _negotiate(self, peer, call, request):
        choices = {context: self.choose(context) for context in call.contexts}
        if "reject" in choices.values():
            peer.socket.sendall(pdu(3, b"\0\1\1\1"))
            return None
        body = request[6:74] + item(0x10, APPLICATION_CONTEXT.encode())
        for context, choice in choices.items():
            name = item(0x40, (choice or context.transfers[0]).encode())
            result = 0 if choice else 3
            body += item(0x21, bytes([context.number, 0, result, 0]) + name)
        user = item(0x51, struct.pack(">L", 65536)) + item(0x52, b"1.2.826.0.1.3680043.9.7156.2")
        peer.socket.sendall(pdu(2, body + item(0x50, user)))
        peer.peer_max_pdu = call.max_pdu or 65536
        return {context.number: choice for context, choice in choices.items()}

    def _take_image(self, peer, call, transfers):
        fields, data = peer.receive()
        received = Received(fields, transfers[peer.context], data)
        status = self.answer(received)
        call.received.append(received)
        response = {FIELD: 0x8001, RESPONDED_TO: fields[MESSAGE_ID], STATUS: status,
                    SOP_CLASS: fields[SOP_CLASS], DATA_SET_TYPE: NO_DATA_SET,
                    SOP_INSTANCE: fields[SOP_INSTANCE]}
        peer.socket.sendall(b"".join(peer.data_pdus(peer.context, command_set(response), True)))


@contextlib.contextmanager
def toolkit_provider(folder):
    """DCMTK's storescp, in a process of its own, putting images into `folder`; gives its port."""
    folder.mkdir()
    port = harness.free_port()
    command = ["storescp", "-od", str(folder), "-uf", str(port)]
    with subprocess.Popen(command, env=harness.ENVIRONMENT, stdout=subprocess.DEVNULL) as provider:
        try:
            harness.wait_until(lambda: harness.is_listening(provider.pid, port), what="storescp")
            yield port
        finally:
            provider.terminate()
