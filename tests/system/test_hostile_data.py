"""Data sets and PDUs made to exhaust whoever reads them: at most their own worker falls.

Sanitizers take memory and stack by other measures, and report what is normal here.
"""
import os
import pathlib
import re
import struct
import time
import zlib

import pytest

import harness
import upper_layer
from data_set import (CHARACTER_SET, DEFLATED, EXPLICIT_LE, IMPLICIT_LE, PIXEL_DATA,
                      SECONDARY_CAPTURE, SOP_CLASS_UID, UIDS, Image, image)
from upper_layer import (ALREADY_THERE, C_FIND, C_MOVE, DESTINATION, FIELD, GONE, NOT_UNDERSTOOD,
                         P_DATA, PRIORITY, SOP_CLASS, STUDY_ROOT_FIND, STUDY_ROOT_MOVE, SUCCESS,
                         Aborted, pdu, query_for, store_request)

pytestmark = pytest.mark.skipif(harness.IS_SANITIZED, reason="has limits of its own")
GIB, MIB = 1 << 30, 1 << 20
CONTENT, VALUE = 0x0040A730, 0x0040A160  # a sequence, and a text in its items
ENDLESS = 0xFFFFFFFF
OUT_OF_MEMORY = "Out of memory: association aborted"


def element(tag, vr, length):
    return struct.pack("<HH2s2xL", tag >> 16, tag & 0xFFFF, vr.encode(), length)


def item(length=ENDLESS):
    return struct.pack("<HHL", 0xFFFE, 0xE000, length)


def image_with(more, syntax=EXPLICIT_LE):
    """A proper image up to its pixels, and something else instead of these."""
    return syntax, image("1.1", "1.2", "1.5", pixels=None) + more


def deflated(start, unit, copies):
    """Deflated data in which `unit` stands that often, made without inflating that much."""
    packer = zlib.compressobj(9, zlib.DEFLATED, -15)
    head = packer.compress(start) + packer.flush(zlib.Z_FULL_FLUSH)
    part = packer.compress(unit) + packer.flush(zlib.Z_FULL_FLUSH)
    return DEFLATED, head + part * copies + packer.flush()


def bomb(start, unit, copies):
    return deflated(image_with(start)[1], unit, copies)


NESTED = (element(CONTENT, "SQ", ENDLESS) + item()) * 100_000  # 20 bytes each
NESTING_ENDS = struct.pack("<HHLHHL", 0xFFFE, 0xE00D, 0, 0xFFFE, 0xE0DD, 0)
IMAGES = {  # (transfer syntax, data set), what the log says of the worker
    "deflated value": (bomb(element(PIXEL_DATA, "OB", 2 * GIB), bytes(MIB), 2048), None),
    "deflated items": (bomb(element(CONTENT, "SQ", ENDLESS), item(0) * (MIB // 8), 4096),
                       OUT_OF_MEMORY),
    "deflated texts": (bomb(element(CONTENT, "SQ", ENDLESS),
                            item(MIB + 12) + element(VALUE, "UT", MIB) + bytes(MIB), 4096),
                       None),
    "huge value": (image_with(element(PIXEL_DATA, "OB", 0xFFFFFFFE) + bytes(MIB)), None),
    "huge text": (image_with(element(VALUE, "UT", 0xFFFFFFFE) + bytes(MIB)), None),
    "huge sequence": (image_with(element(CONTENT, "SQ", 0xFFFFFFFE) + bytes(MIB)), None),
    "nested": (image_with(NESTED), "terminated due to signal 11"),
}
QUERIES = {
    "deflated items": (deflated(element(CONTENT, "SQ", ENDLESS), item(0) * (MIB // 8), 4096),
                       OUT_OF_MEMORY),
    "nested": ((EXPLICIT_LE, NESTED), "terminated due to signal 11"),
}
PDUS = {
    "huge PDU": struct.pack(">BBLLBB", P_DATA, 0, 0x7FFFFFFF, 0x7FFFFFFB, 1, 0) + bytes(MIB),
    "hugest PDU": struct.pack(">BBLLBB", P_DATA, 0, 0xFFFFFFFF, 0xFFFFFFFB, 1, 0) + bytes(MIB),
    "huge fragment": struct.pack(">BBLLBB", P_DATA, 0, 1006, 0xFFFFFFFF, 1, 0) + bytes(1000),
    "empty fragment": struct.pack(">BBLLBB", P_DATA, 0, 6, 0, 1, 0),
    "huge command": pdu(P_DATA, struct.pack(">LBB", 10, 1, 3) + struct.pack(
        "<HHL", 0, 0x100, 0xFFFFFFFE)),
    "huge request": struct.pack(">BBL", 1, 0, 0xFFFFFFFF) + bytes(MIB),
}


STORE = store_request(image("1.1", "1.2", "1.5"))
LIMITED = ["prlimit", f"--as={256 * MIB}"]


def survives(server, sop_class, syntax, attack, death=None):
    """Lets `attack` have an association; it must end soon, without any harm to others."""
    stored = image("2.1", "2.2", "2.3")
    with server.client() as bystander:
        assert bystander.store(stored) == SUCCESS
        before = sorted(server.store.rglob("*"))
        association = server.client(contexts=[(sop_class, [syntax])])
        with pytest.raises(GONE) as end:
            attack(association)
            association.receive()
        association.socket.close()
        if end.type is Aborted or death == OUT_OF_MEMORY:
            assert end.value.args[0].startswith(pdu(upper_layer.ABORT, bytes(4))[:8])
        assert upper_layer.echo(server.port) == 0
        assert bystander.store(stored) == ALREADY_THERE
        assert sorted(server.store.rglob("*")) == before
    server.turn()
    deaths = [line for line in server.messages() if re.match("Child|Out of memory", line)]
    server.expected_deaths = sum("Child" in line for line in deaths)
    deaths = [re.sub(r"^Child \d+ ", "", line).rstrip(".") for line in deaths]
    assert deaths == ([death] if death else [])


@pytest.mark.parametrize("name", IMAGES)
def test_images(servers, name):
    (syntax, data), death = IMAGES[name]
    survives(servers(before=LIMITED), SECONDARY_CAPTURE, syntax,
             lambda association: association.send(1, STORE, data), death)


@pytest.mark.parametrize("name", QUERIES)
@pytest.mark.parametrize("command, model", [(C_FIND, STUDY_ROOT_FIND), (C_MOVE, STUDY_ROOT_MOVE)])
def test_queries(servers, name, command, model):
    (syntax, data), death = QUERIES[name]
    fields = {FIELD: command, SOP_CLASS: model, PRIORITY: 0}
    fields |= {DESTINATION: "NOBODY"} if command == C_MOVE else {}
    survives(servers(before=LIMITED), model, syntax,
             lambda association: association.send(1, fields, data), death)


@pytest.mark.parametrize("name", PDUS)
def test_pdus(servers, name):
    survives(servers(before=LIMITED), SECONDARY_CAPTURE, EXPLICIT_LE,
             lambda association: association.socket.sendall(PDUS[name]))


def test_computing_without_end(servers):
    """A few compressed bytes that keep a worker busy while it frees what it reads."""
    server = servers(before=["prlimit", "--cpu=1:60"])  # its own limit is longer than a test
    text = element(0x00080018, "UT", MIB)  # there already: nobody keeps it
    syntax, data = bomb(b"", text + bytes(MIB), 4096)
    start = time.monotonic()
    survives(server, SECONDARY_CAPTURE, syntax,
             lambda association: association.send(1, STORE, data), "terminated due to signal 24")
    print(f"{len(data)} bytes kept a worker busy for {time.monotonic() - start:.1f} s")


def test_megabytes_of_escape_sequences_take_no_time(server):
    """Others wait meanwhile: the study index is locked."""
    elements = dict(zip((*UIDS, SOP_CLASS_UID), (b"1.1\0", b"1.2\0", b"1.5\0", b"1.2 ")))
    elements |= {CHARACTER_SET: b"\\ISO 2022 IR 6", 0x00100010: b"\x1b(B" * 6_000_000}
    data = Image(b"".join(struct.pack("<HHL", tag >> 16, tag & 0xFFFF, len(value)) + value
                          for tag, value in sorted(elements.items())))
    data.uids = "1.1", "1.2", "1.5"
    start = time.monotonic()
    contexts = [(SECONDARY_CAPTURE, [IMPLICIT_LE])]
    assert server.store_one(data, contexts=contexts) == SUCCESS
    assert time.monotonic() - start < 3


def test_nesting_that_could_not_be_sent_on_is_refused(servers, provider):
    server = servers(provider=provider)
    for depth, status in [(512, SUCCESS), (513, NOT_UNDERSTOOD), (6000, NOT_UNDERSTOOD)]:
        uid = f"1.3.{depth}"
        data = Image(image(uid, "1.2", uid, pixels=None) + NESTED[:20 * depth] +
                     NESTING_ENDS * depth)
        data.uids = uid, "1.2", uid
        assert server.store_one(data) == status
        with server.client() as association:
            moved = association.move("DEST", query_for("IMAGE", uid))
            assert moved.final.completed == (status == SUCCESS)
    sent, = provider.received
    assert sent.data.count(NESTED[:6]) == 512


def limit(pid, name):
    text = pathlib.Path(f"/proc/{pid}/limits").read_text()
    return re.search(rf"^{name} +(\w+)", text, re.M)[1]


def oom_score(pid):
    return int(pathlib.Path(f"/proc/{pid}/oom_score_adj").read_text())


@pytest.mark.parametrize("options", [[], pytest.param(["-u", "nobody"], marks=pytest.mark.skipif(
    not harness.is_real_root(), reason="only root can become somebody else"))])
def test_limits_of_a_worker(servers, options):
    server = servers(*options)
    memory = os.sysconf("SC_PHYS_PAGES") * os.sysconf("SC_PAGESIZE")
    with server.client() as association:
        association.store_part(image("1", "2", "3"), 100)
        worker, = server.workers()
        harness.wait_until(lambda: limit(worker, "Max cpu time") == "120", what="the store")
        assert limit(worker, "Max address space") == str(min(8 * GIB, memory // 4 * 3))
        assert limit(worker, "Max core file size") == "0"
        assert oom_score(worker) == max(500, oom_score(server.pid))
        assert limit(server.pid, "Max address space") == limit("self", "Max address space")
        assert oom_score(server.pid) == oom_score("self")
        association.abort()
