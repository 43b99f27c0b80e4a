"""A DICOM upper-layer client that sends exactly the bytes it is told to.

The toolkit's programs only send what they find reasonable. This client proposes any contexts,
sends any data set bytes in any transfer syntax, stops in the middle of a transfer, and keeps the
bytes of every answer (PS3.8, 9.3; commands: PS3.7, 9.3). Every wait ends after `patience` seconds.
"""
import socket
import struct

APPLICATION_CONTEXT = "1.2.840.10008.3.1.1.1"
VERIFICATION = "1.2.840.10008.1.1"
SECONDARY_CAPTURE = "1.2.840.10008.5.1.4.1.1.7"
STUDY_ROOT_FIND = "1.2.840.10008.5.1.4.1.2.2.1"
STUDY_ROOT_MOVE = "1.2.840.10008.5.1.4.1.2.2.2"
IMPLICIT_LE = "1.2.840.10008.1.2"
EXPLICIT_LE = "1.2.840.10008.1.2.1"
EXPLICIT_BE = "1.2.840.10008.1.2.2"
DEFLATED = "1.2.840.10008.1.2.1.99"

ASSOCIATE_RQ, ASSOCIATE_AC, ASSOCIATE_RJ, P_DATA, RELEASE_RQ, RELEASE_RP, ABORT = range(1, 8)
ACCEPTED, ABSTRACT_SYNTAX_REFUSED, TRANSFER_SYNTAXES_REFUSED = 0, 3, 4

C_STORE, C_FIND, C_MOVE, C_ECHO, C_CANCEL, N_ACTION = 0x1, 0x20, 0x21, 0x30, 0xFFF, 0x130
NO_DATA_SET, WITH_DATA_SET = 0x0101, 0x0001
FIELD, MESSAGE_ID, RESPONDED_TO, DESTINATION = 0x100, 0x110, 0x120, 0x600
SOP_CLASS, PRIORITY, DATA_SET_TYPE, STATUS, SOP_INSTANCE = 0x002, 0x700, 0x800, 0x900, 0x1000


class Rejected(Exception):
    """The peer answered with an A-ASSOCIATE-RJ, whose bytes are the argument."""


class Aborted(Exception):
    """The peer sent an A-ABORT, whose bytes are the argument."""


def pdu(kind, body):
    return struct.pack(">BBL", kind, 0, len(body)) + body


def item(kind, body):
    return struct.pack(">BBH", kind, 0, len(body)) + body


def associate_request(contexts, called, calling, application_context):
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
        is_number = length == 2
        fields[element] = (struct.unpack("<H", raw)[0] if is_number
                           else raw.rstrip(b"\0 ").decode())
        data = data[8 + length:]
    return fields


class Association:
    def __init__(self, port, contexts=((VERIFICATION, [IMPLICIT_LE]),), called="TARVO",
                 calling="TESTER", application_context=APPLICATION_CONTEXT, patience=20):
        self.socket = socket.create_connection(("127.0.0.1", port), timeout=patience)
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.unread = b""
        self.message_id = 0
        self.is_open = False
        try:
            self._negotiate(contexts, called, calling, application_context)
        except BaseException:
            self.socket.close()
            raise

    def _negotiate(self, contexts, called, calling, application_context):
        self.socket.sendall(associate_request(contexts, called, calling, application_context))
        kind, self.answer = self.receive_pdu()
        if kind == ASSOCIATE_RJ:
            raise Rejected(self.answer)
        assert kind == ASSOCIATE_AC, self.answer
        self.is_open = True
        self.answered_title = self.answer[10:26].decode().rstrip()
        self.answered_application_context = None
        self.results = {}    # context id: result
        self.transfers = {}  # context id: the accepted transfer syntax
        self.by_class = {}   # abstract syntax: the first accepted context id
        for what, body in items(self.answer[74:]):
            if what == 0x10:
                self.answered_application_context = body.decode()
            elif what == 0x21:
                self._note_context(contexts, body)
            elif what == 0x50:
                self.peer_max_pdu = struct.unpack(">L", dict(items(body))[0x51])[0]

    def _note_context(self, contexts, body):
        number, result = body[0], body[2]
        self.results[number] = result
        if result == ACCEPTED:
            self.transfers[number] = dict(items(body[4:]))[0x40].decode()
            self.by_class.setdefault(contexts[number // 2][0], number)

    def __enter__(self):
        return self

    def __exit__(self, kind, value, traceback):
        if self.is_open and kind is None:
            self.release()
        self.socket.close()

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
        pdus = []
        for number, piece in enumerate(pieces, 1):
            flags = is_command | (2 if is_last and number == len(pieces) else 0)
            pdus.append(pdu(P_DATA, struct.pack(">LBB", len(piece) + 2, context, flags) + piece))
        return pdus

    def send(self, context, fields, data_set=None):
        """Sends one message and returns its id."""
        self.message_id += 1
        kind = NO_DATA_SET if data_set is None else WITH_DATA_SET
        fields = {MESSAGE_ID: self.message_id, DATA_SET_TYPE: kind, **fields}
        pdus = self.data_pdus(context, command_set(fields), True)
        if data_set is not None:
            pdus += self.data_pdus(context, data_set, False)
        self.socket.sendall(b"".join(pdus))
        return self.message_id

    def receive(self):
        """Returns (command fields, data set bytes or None) of the next message."""
        command = self._receive_stream()
        fields = parse_command(command)
        if fields[DATA_SET_TYPE] == NO_DATA_SET:
            return fields, None
        return fields, self._receive_stream()

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
                length, flags = struct.unpack(">LxB", raw[at:at + 6])
                data += raw[at + 6:at + 4 + length]
                at += 4 + length
            if flags & 2:
                return data

    def echo(self):
        sent = self.send(self.by_class[VERIFICATION], {FIELD: C_ECHO, SOP_CLASS: VERIFICATION})
        fields, _ = self.receive()
        assert fields[FIELD] == 0x8030 and fields[RESPONDED_TO] == sent, fields
        return fields[STATUS]

    def store_request(self, sop_class, sop_instance):
        return {FIELD: C_STORE, SOP_CLASS: sop_class, SOP_INSTANCE: sop_instance, PRIORITY: 0}

    def store(self, data_set, sop_class, sop_instance):
        """Sends one image, checks the form of the answer and returns its status."""
        context = self.by_class[sop_class]
        sent = self.send(context, self.store_request(sop_class, sop_instance), data_set)
        fields, extra = self.receive()
        status = fields.pop(STATUS)
        assert extra is None
        assert fields == {FIELD: 0x8001, RESPONDED_TO: sent, SOP_CLASS: sop_class,
                          SOP_INSTANCE: sop_instance, DATA_SET_TYPE: NO_DATA_SET}
        return status

    def store_part(self, data_set, sop_class, sop_instance, size):
        """Sends the request and the first `size` bytes of the image, and leaves it at that."""
        context = self.by_class[sop_class]
        self.message_id += 1
        fields = {MESSAGE_ID: self.message_id, DATA_SET_TYPE: WITH_DATA_SET,
                  **self.store_request(sop_class, sop_instance)}
        pdus = self.data_pdus(context, command_set(fields), True)
        pdus += self.data_pdus(context, data_set[:size], False, is_last=False)
        self.socket.sendall(b"".join(pdus))

    def release(self):
        """Returns the bytes of the A-RELEASE-RP and waits for the peer to be gone."""
        self.is_open = False
        self.socket.sendall(pdu(RELEASE_RQ, bytes(4)))
        kind, raw = self.receive_pdu()
        assert kind == RELEASE_RP, raw
        self.socket.close()
        return raw

    def abort(self):
        self.is_open = False
        self.socket.sendall(pdu(ABORT, bytes(4)))
        self.socket.close()


def echo(port, called="TARVO", calling="TESTER"):
    with Association(port, called=called, calling=calling) as association:
        return association.echo()
