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
from data_set import ITEM, ITEM_END, PIXEL_DATA, SEQUENCE_END, image
from query_retrieve import client, identifier, move
from storage_provider import Provider
from test_lifecycle import is_real_root
from upper_layer import (C_FIND, C_MOVE, C_STORE, DEFLATED, DESTINATION, EXPLICIT_LE, FIELD, P_DATA,
                         PRIORITY, SECONDARY_CAPTURE, SOP_CLASS, SOP_INSTANCE, STUDY_ROOT_FIND,
                         STUDY_ROOT_MOVE, Aborted, Association)

pytestmark = pytest.mark.skipif("asan" in harness.TARVOD, reason="has limits of its own")
GIB, MIB = 1 << 30, 1 << 20
CONTENT = 0x40, 0xA730  # a sequence
ENDLESS = 0xFFFFFFFF
ABORTED = bytes([7, 0, 0, 0, 0, 4, 0, 0])  # and source and reason
OUT_OF_MEMORY = "Out of memory: association aborted"


def element(tag, vr, length):
    return struct.pack("<HH2s2xL", *tag, vr.encode(), length)


def item(length=ENDLESS):
    return struct.pack("<HHL", *ITEM, length)


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
NESTING_ENDS = struct.pack("<HHLHHL", *ITEM_END, 0, *SEQUENCE_END, 0)
IMAGES = {  # (transfer syntax, data set), what the log says of the worker
    "deflated value": (bomb(element(PIXEL_DATA, "OB", 2 * GIB), bytes(MIB), 2048), None),
    "deflated items": (bomb(element(CONTENT, "SQ", ENDLESS), item(0) * (MIB // 8), 4096),
                       OUT_OF_MEMORY),
    "deflated texts": (bomb(element(CONTENT, "SQ", ENDLESS),
                            item(MIB + 12) + element((0x40, 0xA160), "UT", MIB) + bytes(MIB), 4096),
                       None),
    "huge value": (image_with(element(PIXEL_DATA, "OB", 0xFFFFFFFE) + bytes(MIB)), None),
    "huge text": (image_with(element((0x40, 0xA160), "UT", 0xFFFFFFFE) + bytes(MIB)), None),
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
    "huge command": upper_layer.pdu(P_DATA, struct.pack(">LBB", 10, 1, 3) + struct.pack(
        "<HHL", 0, 0x100, 0xFFFFFFFE)),
    "huge request": struct.pack(">BBL", 1, 0, 0xFFFFFFFF) + bytes(MIB),
}


def limited(servers, tmp_path, *limits):
    server = harness.Server(tmp_path / "limited")
    server.command[:0] = ["prlimit", *limits]
    servers.started.append(server)
    return server.start()


@pytest.fixture
def small_server(servers, tmp_path):
    return limited(servers, tmp_path, f"--as={256 * MIB}")


def survives(server, contexts, attack, death=None):
    """Lets `attack` have an association; it must end soon, without any harm to others."""
    stored = image("2.1", "2.2", "2.3")
    with Association(server.port, [(SECONDARY_CAPTURE, [EXPLICIT_LE])]) as bystander:
        assert bystander.store(stored, SECONDARY_CAPTURE, "2.3") == 0
        before = sorted(server.store.rglob("*"))
        association = Association(server.port, contexts, patience=20)
        with pytest.raises((Aborted, EOFError, ConnectionError)) as end:
            attack(association)
            association.receive()
        association.socket.close()
        if end.type is Aborted or death == OUT_OF_MEMORY:
            assert end.value.args[0].startswith(ABORTED)
        assert upper_layer.echo(server.port) == 0
        assert bystander.store(stored, SECONDARY_CAPTURE, "2.3") == 0xB006  # is there already
        assert sorted(server.store.rglob("*")) == before
    server.turn()
    deaths = [line for line in server.messages() if re.match("Child|Out of memory", line)]
    server.expected_deaths = sum("Child" in line for line in deaths)
    deaths = [re.sub(r"^Child \d+ ", "", line).rstrip(".") for line in deaths]
    assert deaths == ([death] if death else [])


@pytest.mark.parametrize("name", IMAGES)
def test_images(small_server, name):
    (syntax, data), death = IMAGES[name]
    survives(small_server, [(SECONDARY_CAPTURE, [syntax])], lambda association: association.send(
        1, association.store_request(SECONDARY_CAPTURE, "1.5"), data), death)


@pytest.mark.parametrize("name", QUERIES)
@pytest.mark.parametrize("command, model", [(C_FIND, STUDY_ROOT_FIND), (C_MOVE, STUDY_ROOT_MOVE)])
def test_queries(small_server, name, command, model):
    (syntax, data), death = QUERIES[name]
    fields = {FIELD: command, SOP_CLASS: model, PRIORITY: 0}
    fields |= {DESTINATION: "NOBODY"} if command == C_MOVE else {}
    survives(small_server, [(model, [syntax])],
             lambda association: association.send(1, fields, data), death)


@pytest.mark.parametrize("name", PDUS)
def test_pdus(small_server, name):
    survives(small_server, [(SECONDARY_CAPTURE, [EXPLICIT_LE])],
             lambda association: association.socket.sendall(PDUS[name]))


def test_computing_without_end(servers, tmp_path):
    """A few compressed bytes that keep a worker busy while it frees what it reads."""
    server = limited(servers, tmp_path, "--cpu=1:60")  # its own limit is longer than a test
    text = element((0x8, 0x18), "UT", MIB)  # there already: nobody keeps it
    syntax, data = bomb(b"", text + bytes(MIB), 4096)
    start = time.monotonic()
    request = {FIELD: C_STORE, SOP_CLASS: SECONDARY_CAPTURE, SOP_INSTANCE: "1.5", PRIORITY: 0}
    survives(server, [(SECONDARY_CAPTURE, [syntax])],
             lambda association: association.send(1, request, data), "terminated due to signal 24")
    print(f"{len(data)} bytes kept a worker busy for {time.monotonic() - start:.1f} s")


def test_nesting_that_could_not_be_sent_on_is_refused(servers):
    with Provider("DEST") as provider:
        server = servers(peers=provider.map_line)
        for depth, status in [(512, 0), (513, 0xC000), (6000, 0xC000)]:
            uid = f"1.3.{depth}"
            data = image(uid, "1.2", uid, pixels=None) + NESTED[:20 * depth] + NESTING_ENDS * depth
            with client(server) as association:
                assert association.store(data, SECONDARY_CAPTURE, uid) == status
            with client(server) as association:
                moved = move(association, "DEST", identifier("IMAGE", StudyInstanceUID=uid))
                assert moved.final.completed == (status == 0)
        sent, = provider.received
    assert sent.data.count(NESTED[:6]) == 512


def limit(pid, name):
    text = pathlib.Path(f"/proc/{pid}/limits").read_text()
    return re.search(rf"^{name} +(\w+)", text, re.M)[1]


def oom_score(pid):
    return int(pathlib.Path(f"/proc/{pid}/oom_score_adj").read_text())


@pytest.mark.parametrize("options", [[], pytest.param(["-u", "nobody"], marks=pytest.mark.skipif(
    not is_real_root(), reason="only root can become somebody else"))])
def test_limits_of_a_worker(servers, options):
    server = servers(*options)
    memory = os.sysconf("SC_PHYS_PAGES") * os.sysconf("SC_PAGESIZE")
    with Association(server.port, [(SECONDARY_CAPTURE, [EXPLICIT_LE])]) as association:
        association.store_part(bytes(100), SECONDARY_CAPTURE, "1", 100)
        worker, = server.workers()
        harness.wait_until(lambda: limit(worker, "Max cpu time") == "120", what="the store")
        assert limit(worker, "Max address space") == str(min(8 * GIB, memory // 4 * 3))
        assert limit(worker, "Max core file size") == "0"
        assert oom_score(worker) == max(500, oom_score(server.pid))
        assert limit(server.pid, "Max address space") == limit("self", "Max address space")
        assert oom_score(server.pid) == oom_score("self")
        association.abort()
