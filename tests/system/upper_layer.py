"""A DICOM client that sends exactly the bytes it is told to.

The toolkit's programs only send what they find reasonable. This client proposes any contexts,
sends any data set bytes in any transfer syntax, stops in the middle of a transfer, and keeps the
bytes of every answer (PS3.8, 9.3; commands: PS3.7, 9.3). Every wait ends after `patience` seconds.
"""
import socket
import struct
from typing import NamedTuple

from data_set import EXPLICIT_LE, SECONDARY_CAPTURE, identifier, parse

APPLICATION_CONTEXT = "1.2.840.10008.3.1.1.1"
VERIFICATION = "1.2.840.10008.1.1"
PATIENT_ROOT_FIND, PATIENT_ROOT_MOVE = (f"1.2.840.10008.5.1.4.1.2.1.{each}" for each in (1, 2))
STUDY_ROOT_FIND, STUDY_ROOT_MOVE = (f"1.2.840.10008.5.1.4.1.2.2.{each}" for each in (1, 2))
CONTEXTS = [(sop_class, [EXPLICIT_LE]) for sop_class in
            (VERIFICATION, SECONDARY_CAPTURE, STUDY_ROOT_FIND, STUDY_ROOT_MOVE, PATIENT_ROOT_FIND,
             PATIENT_ROOT_MOVE)]

ASSOCIATE_RQ, ASSOCIATE_AC, ASSOCIATE_RJ, P_DATA, RELEASE_RQ, RELEASE_RP, ABORT = range(1, 8)
ACCEPTED, ABSTRACT_SYNTAX_REFUSED, TRANSFER_SYNTAXES_REFUSED = 0, 3, 4

C_STORE, C_FIND, C_MOVE, C_ECHO, C_CANCEL, N_ACTION = 0x1, 0x20, 0x21, 0x30, 0xFFF, 0x130
RESPONSE = 0x8000
NO_DATA_SET, WITH_DATA_SET = 0x0101, 0x0001
FIELD, MESSAGE_ID, RESPONDED_TO, DESTINATION = 0x100, 0x110, 0x120, 0x600
SOP_CLASS, PRIORITY, DATA_SET_TYPE, STATUS, SOP_INSTANCE = 0x002, 0x700, 0x800, 0x900, 0x1000
REMAINING, COMPLETED, FAILED, WARNING = 0x1020, 0x1021, 0x1022, 0x1023
SUCCESS, PENDING, CANCELLED, WITH_FAILURES = 0x0000, 0xFF00, 0xFE00, 0xB000
ALREADY_THERE, NO_RESOURCES, NOT_UNDERSTOOD = 0xB006, 0xA700, 0xC000
DELETE = "TarvoDeleteAET"


class Rejected(Exception):
    """The peer answered with an A-ASSOCIATE-RJ, whose bytes are the argument."""


class Aborted(Exception):
    """The peer sent an A-ABORT, whose bytes are the argument."""


GONE = OSError, EOFError, Aborted, Rejected


def pdu(kind, body):
    return struct.pack(">BBL", kind, 0, len(body)) + body


def item(kind, body):
    return struct.pack(">BBH", kind, 0, len(body)) + body


def associate_request(contexts, called="TARVO", calling="TESTER",
                      application_context=APPLICATION_CONTEXT):
    """`contexts` is a list of (abstract syntax, [transfer syntax, ...]); the ids are 1, 3, 5 ..."""
    body = struct.pack(">HH16s16s32x", 1, 0, called.encode().ljust(16), calling.encode().ljust(16))
    body += item(0x10, application_context.encode())
    for index, (abstract, transfers) in enumerate(contexts):
        parts = item(0x30, abstract.encode())
        parts += b"".join(item(0x40, transfer.encode()) for transfer in transfers)
        body += item(0x20, struct.pack(">B3x", 2 * index + 1) + parts)
    user = item(0x51, struct.pack(">L", 16384)) + item(0x52, b"1.2.826.0.1.3680043.9.7156.1")
    return pdu(ASSOCIATE_RQ, body + item(0x50, user))


def items(data):
    while data:
        kind, length = struct.unpack(">BxH", data[:4])
        yield kind, data[4:4 + length]
        data = data[4 + length:]


def command_set(fields):
    """Encodes {element number: int or text} of group 0000 in Implicit VR Little Endian."""
    body = b""
    for element, value in sorted(fields.items()):
        if isinstance(value, int):
            raw = struct.pack("<H", value)
        else:
            pad = " " if element == DESTINATION else "\0"
            raw = (value + pad * (len(value) % 2)).encode()
        body += struct.pack("<HHL", 0, element, len(raw)) + raw
    return struct.pack("<HHLL", 0, 0, 4, len(body)) + body


def parse_command(data):
    """The fields of a command without its group length."""
    fields, data = {}, data[12:]
    while data:
        element, length = struct.unpack("<2xHL", data[:8])
        raw = data[8:8 + length]
        fields[element] = (struct.unpack("<H", raw)[0] if length == 2
                           else raw.rstrip(b"\0 ").decode())
        data = data[8 + length:]
    return fields


def store_request(image):
    return {FIELD: C_STORE, SOP_CLASS: image.sop_class, SOP_INSTANCE: image.uids[2], PRIORITY: 0}


class Counters(NamedTuple):
    completed: int
    failed: int = 0
    warning: int = 0


class Moved(NamedTuple):
    status: int
    final: Counters
    pending: list  # of Counters


class Connection:
    """One end of an association, once it stands."""
    message_id, peer_max_pdu, is_open = 0, 16384, True

    def __init__(self, connected):
        self.socket, self.unread = connected, b""
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)

    def sendall(self, data):
        self.socket.sendall(data)

    def _receive_exactly(self, count):
        while len(self.unread) < count:
            chunk = self.socket.recv(65536)
            if not chunk:
                raise EOFError("the peer closed the connection")
            self.unread += chunk
        data, self.unread = self.unread[:count], self.unread[count:]
        return data

    def receive_pdu(self):
        head = self._receive_exactly(6)
        return head[0], head + self._receive_exactly(struct.unpack(">L", head[2:])[0])

    def data_pdus(self, context, data, is_command, is_last=True):
        """The P-DATA-TF PDUs that carry `data`, none longer than the peer allows."""
        room = self.peer_max_pdu - 6
        pieces = [data[at:at + room] for at in range(0, len(data), room)] or [b""]
        flags = [is_command] * (len(pieces) - 1) + [is_command | 2 * is_last]
        return b"".join(pdu(P_DATA, struct.pack(">LBB", len(piece) + 2, context, flag) + piece)
                        for piece, flag in zip(pieces, flags))

    def send(self, context, fields, *fragments, is_last=True):
        """Sends a message, its data set in these fragments; returns the id of a request."""
        if RESPONDED_TO not in fields:
            self.message_id += 1
            fields = {MESSAGE_ID: self.message_id, **fields}
        fields = {DATA_SET_TYPE: WITH_DATA_SET if fragments else NO_DATA_SET, **fields}
        pdus = self.data_pdus(context, command_set(fields), True)
        for number, fragment in enumerate(fragments, 1):
            pdus += self.data_pdus(context, fragment, False, is_last and number == len(fragments))
        self.sendall(pdus)
        return self.message_id

    def receive(self):
        """Returns the fields of the next command and its data set, or None without one. `context`
        is the id of its presentation context."""
        fields = parse_command(self._receive_stream())
        return fields, None if fields[DATA_SET_TYPE] == NO_DATA_SET else self._receive_stream()

    def _receive_stream(self):
        data = b""
        while True:
            kind, raw = self.receive_pdu()
            if kind == ABORT:
                self.is_open = False
                raise Aborted(raw)
            assert kind == P_DATA, raw
            at = 6
            while at < len(raw):
                length, self.context, flags = struct.unpack(">LBB", raw[at:at + 6])
                data += raw[at + 6:at + 4 + length]
                at += 4 + length
            if flags & 2:
                return data


class Association(Connection):
    def __init__(self, port, contexts=tuple(CONTEXTS), patience=20, **settings):
        super().__init__(socket.create_connection(("127.0.0.1", port), timeout=patience))
        try:
            self._negotiate(contexts, associate_request(contexts, **settings))
        except BaseException:
            self.socket.close()
            raise

    def _negotiate(self, contexts, request):
        self.sendall(request)
        kind, answer = self.receive_pdu()
        if kind == ASSOCIATE_RJ:
            raise Rejected(answer)
        assert kind == ASSOCIATE_AC, answer
        self.results = {}    # context id: result
        self.transfers = {}  # context id: the accepted transfer syntax
        self.by_class = {}   # abstract syntax: the first accepted context id
        for what, body in items(answer[74:]):
            if what == 0x10:
                self.answered_application_context = body.decode()
            elif what == 0x21:
                number, self.results[body[0]] = body[0], body[2]
                if body[2] == ACCEPTED:
                    self.transfers[number] = dict(items(body[4:]))[0x40].decode()
                    self.by_class.setdefault(contexts[number // 2][0], number)
            elif what == 0x50:
                self.peer_max_pdu = struct.unpack(">L", dict(items(body))[0x51])[0]

    def __enter__(self):
        return self

    def __exit__(self, kind, value, traceback):
        if self.is_open and kind is None:
            self.release()
        self.socket.close()

    def answer(self, message_id, field):
        """(fields, data set bytes or None) of the next response, which must be to this request."""
        fields, data = self.receive()
        assert fields[FIELD] == field | RESPONSE and fields[RESPONDED_TO] == message_id, fields
        return fields, data

    def echo(self):
        sent = self.send(self.by_class[VERIFICATION], {FIELD: C_ECHO, SOP_CLASS: VERIFICATION})
        return self.answer(sent, C_ECHO)[0][STATUS]

    def store(self, image):
        """Sends one image, checks the form of the answer and returns its status."""
        sent = self.send(self.by_class[image.sop_class], store_request(image), image)
        fields, extra = self.receive()
        status = fields.pop(STATUS)
        assert extra is None
        assert fields == {FIELD: C_STORE | RESPONSE, RESPONDED_TO: sent, SOP_CLASS: image.sop_class,
                          SOP_INSTANCE: image.uids[2], DATA_SET_TYPE: NO_DATA_SET}
        return status

    def store_part(self, image, size):
        """Sends the request and the first `size` bytes of the image, and leaves it at that."""
        context = self.by_class[image.sop_class]
        self.send(context, store_request(image), image[:size], is_last=False)

    # ---- queries (PS3.4, annex C; PS3.7, 9.1.2) ----

    def ask(self, query, model=STUDY_ROOT_FIND):
        """Sends a C-FIND request and returns its message id."""
        request = {FIELD: C_FIND, SOP_CLASS: model, PRIORITY: 0}
        return self.send(self.by_class[model], request, query)

    def cancel(self, message_id, model=STUDY_ROOT_FIND):
        self.send(self.by_class[model], {FIELD: C_CANCEL, RESPONDED_TO: message_id})

    def answers_to(self, message_id, most=1 << 30):
        """(final status, data sets of the pending responses); without status behind the `most`."""
        found = []
        while len(found) < most:
            fields, data = self.answer(message_id, C_FIND)
            assert (data is not None) == (fields[STATUS] == PENDING), fields
            if data is None:
                return fields[STATUS], found
            found.append(parse(data))
        return None, found

    def find(self, query, model=STUDY_ROOT_FIND):
        return self.answers_to(self.ask(query, model))

    # ---- moves (PS3.7, 9.1.4) ----

    def request_move(self, destination, query, model=STUDY_ROOT_MOVE, priority=0):
        """Sends a C-MOVE request and returns its message id."""
        request = {FIELD: C_MOVE, SOP_CLASS: model, PRIORITY: priority, DESTINATION: destination}
        return self.send(self.by_class[model], request, query)

    def move_responses(self, message_id, most=1 << 30):
        pending = []
        while len(pending) < most:
            fields, data = self.answer(message_id, C_MOVE)
            assert data is None
            status = fields[STATUS]
            # None of them ever says what remains; final ones other than a cancel have no such
            # field at all (PS3.7, 9.1.4.1).
            assert fields.get(REMAINING) == (0 if status in (PENDING, CANCELLED) else None), fields
            counters = Counters(*(fields[each] for each in (COMPLETED, FAILED, WARNING)))
            if status != PENDING:
                return Moved(status, counters, pending)
            pending.append(counters)
        return Moved(None, pending[-1], pending)

    def move(self, destination, query, **settings):
        return self.move_responses(self.request_move(destination, query, **settings))

    # ---- the end ----

    def release(self):
        """Returns the bytes of the A-RELEASE-RP and waits for the peer to be gone."""
        self.is_open = False
        self.sendall(pdu(RELEASE_RQ, bytes(4)))
        kind, raw = self.receive_pdu()
        assert kind == RELEASE_RP, raw
        self.socket.close()
        return raw

    def abort(self):
        self.is_open = False
        self.sendall(pdu(ABORT, bytes(4)))
        self.socket.close()


def echo(port, **settings):
    with Association(port, **settings) as association:
        return association.echo()


def uid_of(data_set, tag):
    """A UID in an answer, as text."""
    return data_set[tag].value.rstrip(b"\0").decode()


KEYS = ("StudyInstanceUID", "SeriesInstanceUID", "SOPInstanceUID")


def query_for(level, *uids):
    """The query for a study, series or image of these UIDs."""
    return identifier(level, **dict(zip(KEYS, uids)))
