"""The monitor group: what the server announces, byte for byte, and what it learns from others."""
import os

import pytest

import archive
import upper_layer
from data_set import encode, image, parse
from harness import HOST, Monitor, Servers, free_port, stamped, wait_until
from upper_layer import (EXPLICIT_LE, IMPLICIT_LE, SECONDARY_CAPTURE, STUDY_ROOT_FIND,
                         STUDY_ROOT_MOVE, Association)

CONTEXTS = [(SECONDARY_CAPTURE, [EXPLICIT_LE]), (upper_layer.VERIFICATION, [IMPLICIT_LE]),
            (STUDY_ROOT_FIND, [EXPLICIT_LE]), (STUDY_ROOT_MOVE, [EXPLICIT_LE])]
NO_SUCH_STUDY = encode({(0x8, 0x52): ("CS", "STUDY"), (0x20, 0xD): ("UI", "1.2.3.99")})


def study_files(store):
    return store / "uid/STUDYINDEX.hash", store / "uid/STUDYINDEX.dat"


@pytest.fixture(scope="module", autouse=True)
def undisturbed(tmp_path_factory):
    """A server that nobody calls, beside the other tests: it checks its disk after a minute.

    Its store knows three studies, the second of them deleted.
    """
    folder = tmp_path_factory.mktemp("undisturbed")
    known = archive.Archive()
    for study in ("1.2.1", "1.2.2", "1.2.3"):
        known.store(parse(image(study, "1.2.9", "1.2.10", PatientName=study), EXPLICIT_LE))
    words, data = known.studies[1]
    words[archive.NAME_BITS] |= 1
    data[:] = bytes(len(data))
    (folder / "store/uid").mkdir(parents=True)
    for path in study_files(folder / "store"):
        path.write_bytes(known.index_files()[f"uid/{path.name}"])
    pool, port = Servers(folder), free_port()
    with Monitor(port) as monitor:
        yield pool("-a", "ALONE", store=folder / "store", port=port), monitor, known
    pool.close()


@pytest.fixture
def watched(servers):
    port = free_port()
    with Monitor(port) as monitor:
        yield servers("-a", "ARCHIVE", port=port), monitor


def say(server, monitor, *messages):
    """Sends datagrams and makes the server read them."""
    for message in messages:
        monitor.say(message)
    server.turn()


def test_an_idle_server_announces_itself_every_five_seconds(watched):
    server, monitor = watched
    monitor.wait_for(stamped(server.pid, f"STORAGE DISCOVER_AET ARCHIVE {server.port}"), 7)
    assert monitor.heard_from(server.pid) == [
        b"STORAGE IDLE 1\n", b"STORAGE IDLE 1\n",
        b"STORAGE DISCOVER_AET ARCHIVE %d\n" % server.port]
    server.turn()
    assert server.map_file.read_text() == ""  # not even its own loopback


def test_a_worker_announces_each_operation(watched):
    server, monitor = watched
    with Association(server.port, CONTEXTS) as association:
        worker, = server.workers()
        for number in (1, 2, 2):  # the third image is a duplicate
            uid = f"1.2.3.{number}"
            association.store(image("1.2", "1.3", uid), SECONDARY_CAPTURE, uid)
        association.echo()
        for field, model in ((upper_layer.C_FIND, STUDY_ROOT_FIND),
                             (upper_layer.C_MOVE, STUDY_ROOT_MOVE)):
            association.send(association.by_class[model], {
                upper_layer.FIELD: field, upper_layer.SOP_CLASS: model, upper_layer.PRIORITY: 0,
                **({upper_layer.DESTINATION: "NOBODY"} if model == STUDY_ROOT_MOVE else {})
            }, NO_SUCH_STUDY)
            assert association.receive()[0][upper_layer.STATUS] == 0
    monitor.wait_for(stamped(worker, "STORAGE MOVE 0"))
    assert monitor.heard_from(worker) == [b"STORAGE %s\n" % message for message in (
        b"STORE 1", b"STOREUID 1.2 1.3 1.2.3.1", b"STORE 0",
        b"STORE 1", b"STOREUID 1.2 1.3 1.2.3.2", b"STORE 0",
        b"STORE 1", b"STORE 0",
        b"ECHO 1", b"ECHO 0", b"FIND 1", b"FIND 0", b"MOVE 1", b"MOVE 0")]


def test_a_busy_server_announces_its_number_of_workers(watched):
    server, monitor = watched
    with Association(server.port):
        monitor.wait_for(stamped(server.pid, "STORAGE BUSY 1"))
        with Association(server.port):
            monitor.wait_for(stamped(server.pid, "STORAGE BUSY 2"))
    assert not any(b"DISCOVER" in message for message in monitor.heard_from(server.pid))


def test_peers_are_added_to_the_map_and_its_file(watched):
    server, monitor = watched
    say(server, monitor, b"hostA 4242 CONFIG ADD_AET PACS1 10.0.0.5:104 fmsd\n")
    assert server.map_file.read_text() == "hostA\tPACS1\t10.0.0.5:104\tFMSD\n"
    say(server, monitor, b"hostB 7 STORAGE DISCOVER_AET SERVER2 11113\n",
        b'hostC 8 CONFIG ADD_AET Q"T\\\tX x:1 zz\n', b"hostD 9 CONFIG ADD_AET D d:1 pxgu\n")
    learned = ("hostA\tPACS1\t10.0.0.5:104\tFMSD\n"
               "hostB\tSERVER2\t127.0.0.1:11113\tFMSD\n"
               'hostC\t"Q\\"T\\\\\\tX"\tx:1\t""\n'
               "hostD\tD\td:1\tGUP\n")
    assert server.map_file.read_text() == learned
    assert [line for line in server.messages() if "Tarvo AET" in line] == [
        "Added new Tarvo AET PACS1 at 10.0.0.5:104.",
        "Discovered new Tarvo AET SERVER2 at 127.0.0.1:11113.",
        'Added new Tarvo AET Q"T\\?X at x:1.', "Added new Tarvo AET D at d:1."]
    # A known title changes nothing; a known host gets no second title, though the log says so.
    say(server, monitor, b"hostE 1 CONFIG ADD_AET PACS1 10.9.9.9:104 F\n",
        b"hostF 1 STORAGE DISCOVER_AET PACS1 104\n", b"hostA 1 CONFIG ADD_AET SECOND a:1 F\n")
    assert server.map_file.read_text() == learned
    assert server.messages().count("Added new Tarvo AET SECOND at a:1.") == 1


@pytest.mark.parametrize("datagram", [
    b"", b"\n", b" ", b"host", b"host 1", b"host 1 CONFIG", b"host 1 CONFIG ADD_AET",
    b"host 1 CONFIG ADD_AET A a:1", b"host 1 config ADD_AET A a:1 F",
    b"host 1 CONFIG add_aet A a:1 F",
    b"host 1 STORAGE ADD_AET A a:1 F", b"host 1 CONFIG DISCOVER_AET A 104",
    b"host 1 STORAGE DISCOVER_AET A", b"host 1 STORAGE DISCOVER_AETX A 104",
    b"host 1 STORAGE STOREUID 1 2 3", b"host 1 STORAGE IDLE 1", b"host 1 OTHER things",
    b"\0" * 100, bytes(range(256)), b"\xff" * 1500, b" " * 1024, b"%s%n" * 256,
    b"host 1 CONFIG ADD_AET " + b"A" * 1100 + b" a:1 F", b"host 1 CONFIG " + b"x" * 9000,
    b"host 1 CONFIG ADD_AET A " + b"a" * 60000,
], ids=lambda datagram: repr(datagram[:45]))
def test_other_datagrams_change_nothing(lasting_server, datagram):
    with Monitor(lasting_server.port) as monitor:
        say(lasting_server, monitor, datagram, datagram + b"\n")
    assert lasting_server.map_file.read_text() == ""
    assert not any("Tarvo AET" in line for line in lasting_server.messages())


def test_a_message_under_its_own_name_is_ignored(watched):
    server, monitor = watched
    say(server, monitor, stamped(server.pid, "CONFIG ADD_AET A a:1 F"))
    assert server.map_file.read_text() == ""
    say(server, monitor, stamped(server.pid + 1, "CONFIG ADD_AET A a:1 F"))
    assert server.map_file.read_text() == f"{HOST}\tA\ta:1\tF\n"


def test_two_servers_learn_of_each_other(watched, servers):
    first, monitor = watched
    second = servers("-a", "SECOND", "-m", str(first.port))
    monitor.wait_for(stamped(second.pid, f"STORAGE DISCOVER_AET SECOND {second.port}"))
    for server in (first, second):
        server.turn()
    assert first.map_file.read_text() == f"{HOST}\tSECOND\t127.0.0.1:{second.port}\tFMSD\n"
    assert second.map_file.read_text() == f"{HOST}\tARCHIVE\t127.0.0.1:{first.port}\tFMSD\n"


def test_a_growing_map_leaves_the_own_title_alone(servers):
    """The title comes from the map's own memory, which moves as the map grows."""
    port = free_port()
    with Monitor(port) as monitor:
        server = servers(port=port, peers="Local OWNTITLE here:104 f\n")
        say(server, monitor, *(b"host%d 1 CONFIG ADD_AET T%d a:1 F" % (n, n) for n in range(100)))
        assert len(server.map_file.read_text().splitlines()) == 101
        monitor.wait_for(stamped(server.pid, f"STORAGE DISCOVER_AET OWNTITLE {port}"))


def test_a_minute_idle_brings_a_disk_report_and_compaction(undisturbed):
    """Last in this file, so that the minute has mostly passed."""
    server, monitor, known = undisturbed
    space = os.statvfs(server.store / "uid")
    percent = 100 * space.f_bsize * space.f_bavail // (space.f_frsize * space.f_blocks)
    wait_until(lambda: hears_disk_report(monitor), 75, "a disk report")
    report = [message for message in monitor.heard_from(server.pid) if b"DISK" in message]
    assert report[0] in {b"STORAGE DISK %d\n" % (percent + drift) for drift in (-1, 0, 1)}
    del known.studies[1]
    for path in study_files(server.store):
        expected = known.index_files()[f"uid/{path.name}"]
        wait_until(lambda: path.read_bytes() == expected, 5, f"the compaction of {path}")


def hears_disk_report(monitor):
    monitor.socket.settimeout(10)
    monitor.heard.append(monitor.socket.recv(65536))
    return b" STORAGE DISK " in monitor.heard[-1]
