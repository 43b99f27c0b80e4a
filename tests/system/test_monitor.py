"""The monitor group: what the server announces, byte for byte, and what it learns from others."""
import os
import re
import socket

import pytest

import harness
from data_set import image
from harness import HOST, Monitor, free_port, say, stamped
from upper_layer import SUCCESS, query_for


@pytest.fixture
def watched(servers):
    port = free_port()
    with Monitor(port) as monitor:
        yield servers("-a", "ARCHIVE", port=port), monitor


def test_an_idle_server_announces_itself_every_five_seconds(watched):
    server, monitor = watched
    monitor.wait_for(stamped(server.pid, f"STORAGE DISCOVER_AET ARCHIVE {server.port}"), 7)
    assert monitor.heard_from(server.pid) == [
        b"STORAGE IDLE 1\n", b"STORAGE IDLE 1\n",
        b"STORAGE DISCOVER_AET ARCHIVE %d\n" % server.port]
    server.turn()


def test_workers_are_announced_and_announce_each_operation(watched):
    server, monitor = watched
    with server.client() as association:
        worker, = server.workers()
        for number in (1, 2, 2):  # the third image is a duplicate
            association.store(image("1.2", "1.3", f"1.2.3.{number}"))
        association.echo()
        assert association.find(query_for("STUDY", "1.2.3.99")) == (SUCCESS, [])
        assert association.move("NOBODY", query_for("STUDY", "1.2.3.99")).status == SUCCESS
        monitor.wait_for(stamped(worker, "STORAGE MOVE 0"))
        with server.client():
            monitor.wait_for(stamped(server.pid, "STORAGE BUSY 2"))
    assert monitor.heard_from(worker) == [b"STORAGE %s\n" % message for message in (
        b"STORE 1", b"STOREUID 1.2 1.3 1.2.3.1", b"STORE 0",
        b"STORE 1", b"STOREUID 1.2 1.3 1.2.3.2", b"STORE 0",
        b"STORE 1", b"STORE 0",
        b"ECHO 1", b"ECHO 0", b"FIND 1", b"FIND 0", b"MOVE 1", b"MOVE 0")]
    of_listener = monitor.heard_from(server.pid)
    assert b"STORAGE BUSY 1\n" in of_listener
    assert not any(b"DISCOVER" in message for message in of_listener)


LONG = b"x" * 127
ADD, DISCOVER = b" 7 CONFIG ADD_AET ", b" 7 STORAGE DISCOVER_AET "
LEARNED = [
    (b"h1" + ADD + b"PACS1 10.0.0.5:104 fmsd\n", "h1\tPACS1\t10.0.0.5:104\tFMSD"),
    (b"h2" + DISCOVER + b"SERVER2 11113\n", "h2\tSERVER2\t127.0.0.1:11113\tFMSD"),
    (b'h3 8 CONFIG ADD_AET Q"T\\\tX x:1 zz\n', 'h3\t"Q\\"T\\\\\\tX"\tx:1\t""'),
    (b"h4" + ADD + b"D d:1 pxgu", "h4\tD\td:1\tGUP"),
    (b"h5" + ADD + b"E a \n", 'h5\tE\ta\t""'),
    (b"h6 2147483647 STORAGE DISCOVER_AET F 65535\0 x", "h6\tF\t127.0.0.1:65535\tFMSD"),
    (b"h8" + ADD + b"\t\x01\x7f\xfc a:1 F", 'h8\t"\\t\\x01\x7f\\xfc"\ta:1\tF'),
    (LONG + ADD + b"N" + LONG[1:] + b" " + LONG + b" F\n",
     f"{'x' * 127}\tN{'x' * 126}\t{'x' * 127}\tF"),
    ((b"h7" + ADD + b"FULL a:1 ").ljust(1023, b"F") + b"P", "h7\tFULL\ta:1\tF"),
    # A known host gets no second title, though the log says so.
    (b"h1" + ADD + b"SECOND a:1 F\n", None)]
WILD = b"\1" * 100 + b"\t"  # four times as long in the file
REFUSED = [head + tail for head, tails in [
    (b"", [b"", b" ", b"   ", b"h", b"h 7", b"h 7 CONFIG", b"h 7 STORAGE", b"h 7 STORAGE IDLE 1"]),
    (b"h 7 ", [b"config ADD_AET N a F", b"CONFIG add_aet N a F", b"CONFIG  ADD_AET N a F",
               b"STORAGE ADD_AET N a F", b"CONFIG DISCOVER_AET N 104", b"OTHER things"]),
    (b"", [ADD + b"N a F", b"h CONFIG ADD_AET N a F", b"Local" + ADD + b"N a F"]),
    (b"h", [b" " + ADD + b"N a F", b" x CONFIG ADD_AET N a F", b" -7 CONFIG ADD_AET N a F",
            b" 7x CONFIG ADD_AET N a F", b" 99999999999 CONFIG ADD_AET N a F"]),
    (b"h" + ADD, [b"PACS1 a F", b"", b"N", b"N a", b" a F", b"N  F", b"N a F G"]),
    (b"h" + DISCOVER, [b"PACS1 104", b"N", b"N ", b" 104", b"N 104 x", b"N 104x", b"N 0", b"N -1",
                       b"N +1", b"N 65536", b"N 4294967400"]),
    # Texts that would not come back from the map file.
    (b"h" + ADD, [LONG + b"x a F", b"N " + LONG + b"x F", b"O'N a F", b"'N a F"]),
    (LONG, [b"x" + ADD + b"N a F", b"x" + DISCOVER + b"N 1"]),
    (b"", [WILD + ADD + WILD + b" " + WILD + b" F", bytes(100), bytes(range(256)), b"%s%n" * 256,
           b" " * 1024, b"\xff" * 1500, (b"h" + ADD + b"N a ").ljust(1025, b"F"),
           b"h 7 CONFIG " + b"x" * 9000, b"h" + ADD + b"N " + b"a" * 60000])] for tail in tails]


def test_what_peers_say_reaches_the_map_or_changes_nothing(server):
    def told(*datagrams):
        say(server.port, *datagrams)
        server.turn()
        return server.map_file.read_bytes().decode("latin-1")

    server.map_file.write_text("#" * 9000)
    expected = ""
    for datagram, line in LEARNED:
        expected += line + "\n" if line else ""
        assert told(datagram) == expected, datagram
    logged = [line for line in server.messages() if "Tarvo AET" in line]
    assert logged[:3] == ["Added new Tarvo AET PACS1 at 10.0.0.5:104.",
                          "Discovered new Tarvo AET SERVER2 at 127.0.0.1:11113.",
                          'Added new Tarvo AET Q"T\\?X at x:1.']
    assert logged[-1] == "Added new Tarvo AET SECOND at a:1." and len(logged) == len(LEARNED)
    for datagram in (*REFUSED, stamped(server.pid, "CONFIG ADD_AET A a:1 F").encode(),
                     stamped(server.pid, "STORAGE DISCOVER_AET A 1").encode()):
        assert told(datagram, datagram + b"\n") == expected, datagram
    assert sum("Tarvo AET" in line for line in server.messages()) == len(LEARNED)
    expected += f"{HOST}\tA\ta:1\tF\n"
    assert told(stamped(server.pid + 1, "CONFIG ADD_AET A a:1 F").encode()) == expected
    with socket.socket(type=socket.SOCK_DGRAM) as other:
        other.bind(("127.1.2.3", 0))
        other.sendto(b"there" + DISCOVER + b"THERE 1", (harness.GROUP, server.port))
    assert told() == expected + "there\tTHERE\t127.1.2.3:1\tFMSD\n"


def test_a_minute_idle_brings_a_disk_report_and_a_grown_map_keeps_the_own_title(servers):
    """The title comes from the map's own memory, which moves as the map grows."""
    server = servers(peers="Local OWNTITLE here:104 f\n", moves_clock=True)
    (server.store / "uid").mkdir()
    say(server.port, *(b"host%d 1 CONFIG ADD_AET T%d a:1 F" % (n, n) for n in range(100)))
    server.turn()
    assert len(server.map_file.read_text().splitlines()) == 101
    with Monitor(server.port) as monitor:
        server.let_pass(61)
        space = os.statvfs(server.store / "uid")
        percent = 100 * space.f_bsize * space.f_bavail // (space.f_frsize * space.f_blocks)
        monitor.wait_for(stamped(server.pid, f"STORAGE DISCOVER_AET OWNTITLE {server.port}"))
        report = monitor.wait_for(stamped(server.pid, r"STORAGE DISK \d+")).decode()
    assert abs(int(re.search(r"\d+$", report)[0]) - percent) <= 1
