"""Start, options, log, and what remains when a worker or its peer dies."""
import contextlib
import os
import pathlib
import re
import signal
import socket
import subprocess
import tempfile
import time

import pytest

import archive
import harness
import upper_layer
from data_set import encode, image, parse
from harness import LOG_PREFIX, TARVOD, Monitor, Server, free_port, stamped, wait_until
from upper_layer import (EXPLICIT_LE, IMPLICIT_LE, SECONDARY_CAPTURE, STUDY_ROOT_FIND, VERIFICATION,
                         Association)

USAGE = ("Usage: {} [-a AETitle] [-p ServerPort] [-m MonitorPort]\n"
         "       [-u DropToUserName] [-g DropToGroupName] [-U umask]\n"
         "       [-l logfile] [-P pidfile] [-d] [-D] [-o] [-s] [-N]\n")
UNKNOWN_STUDY = encode({(0x8, 0x52): ("CS", "STUDY"), (0x20, 0xD): ("UI", "1.99")})


def process_status(pid, field):
    text = pathlib.Path(f"/proc/{pid}/status").read_text()
    return re.search(rf"^{field}:\s*(.*)$", text, re.M)[1].split()


@pytest.mark.parametrize("arguments", [["-h"], ["-x"], ["-a"], ["-s", "-h", "-o"]])
def test_usage(tmp_path, arguments):
    done = subprocess.run([TARVOD, *arguments], capture_output=True, text=True, timeout=20,
                          env={**harness.ENVIRONMENT, "HOME": str(tmp_path)})
    assert (done.returncode, done.stdout, done.stderr) == (1, "", USAGE.format(TARVOD))


@pytest.mark.parametrize("order", [1, -1])
def test_the_monitor_port_is_the_last_one_given(servers, order):
    port, other = free_port(), free_port()
    options = [("-p", str(port)), ("-m", str(other))][::order]
    with Monitor(other if order == 1 else port) as monitor:
        server = servers(*options[0], *options[1], port=port)
        monitor.wait_for(stamped(server.pid, "STORAGE IDLE 1"))


@pytest.mark.parametrize("peers, options, title", [
    ("", [], "TarvoStorage"), (None, [], "TarvoStorage"),
    ("Remote R r:1 f\nLocal LOCALTITLE l:1 fm\n", [], "LOCALTITLE"),
    ("Local LOCALTITLE l:1 fm\n", ["-a", "GIVEN"], "GIVEN")])
def test_the_own_title(servers, peers, options, title):
    server = servers(*options, peers=peers)
    announced = f"Tarvo storage server {title} listening on port {server.port}"
    wait_until(lambda: announced in server.messages(), what=title)
    assert server.map_file.exists() == (peers is not None)


def test_the_map_is_listed_when_asked(servers):
    server = servers("-D", peers="# too few\nPACS1 P1 10.0.0.5:104 fmsd\n"
                                 'PACS1 SECOND x:1 f\n"A room" R r:1 "" "Reading room"\n')
    lines = server.messages()
    start = lines.index("AE-Title map table:")
    assert lines[start + 1:start + 3] == [
        "PACS1      P1         10.0.0.5:104         (FMSD) ",
        "A room     R          r:1                  () Reading room"]
    assert "SECOND" not in "".join(lines)


def test_the_log_of_one_association(server):
    """A run of equal operations makes two lines, however long it is."""
    contexts = [(VERIFICATION, [IMPLICIT_LE]), (SECONDARY_CAPTURE, [EXPLICIT_LE]),
                (STUDY_ROOT_FIND, [EXPLICIT_LE])]
    find = {upper_layer.FIELD: upper_layer.C_FIND, upper_layer.PRIORITY: 0,
            upper_layer.SOP_CLASS: STUDY_ROOT_FIND}
    with Association(server.port, contexts, called="TO", calling="FROM") as association:
        worker, = server.workers()
        for number, operation in enumerate("EEESSSSSFE"):
            uid = f"1.2.{number}"
            if operation == "E":
                association.echo()
            elif operation == "S":
                association.store(image("1", "1.1", uid), SECONDARY_CAPTURE, uid)
            else:
                association.send(5, find, UNKNOWN_STUDY)
                association.receive()
    server.wait_for_message("EOF FROM->TO")
    lines = server.log.read_text().splitlines()
    own = [LOG_PREFIX.sub("", line) for line in lines if f" [{worker}]:" in line]
    assert own == [line + " FROM->TO" + times for line, times in [
        ("C-Echo", ""), ("C-Echo", " (3x)"), ("C-Store", ""), ("C-Store", " (5x)"), ("C-Find", ""),
        ("C-Find", " (1x)"), ("C-Echo", ""), ("C-Echo", " (1x)"), ("EOF", "")]]
    assert all(LOG_PREFIX.match(line) for line in lines), lines
    assert "Inbound call from FROM to TO" in server.messages()


def test_titles_of_strangers_cannot_break_the_log(server):
    upper_layer.echo(server.port, called="A\nB\x1b[2J", calling="%s%n%x")
    server.wait_for_message("EOF %s%n%x->A?B?[2J")
    upper_layer.echo(server.port, called="  A B ", calling="A\0B")
    server.wait_for_message("Inbound call from A to   A B")
    assert all(LOG_PREFIX.match(line) for line in server.log.read_text().splitlines())


def test_where_the_log_goes(servers, tmp_path):
    silent = servers("-l", str(tmp_path / "no/such/folder/log"))
    assert upper_layer.echo(silent.port) == 0
    server = Server(tmp_path / "plain")
    position = server.command.index("-l")
    del server.command[position:position + 2]
    servers.started.append(server)
    server.start()
    assert upper_layer.echo(server.port, called="B", calling="A") == 0
    wait_until(lambda: "]:EOF A->B\n" in server.output.read_text(), what="the log")
    silent.stop()
    assert not silent.log.exists() and silent.output.read_text() == ""
    server = servers()
    server.stop()
    before = server.log.read_text()
    server.start()
    assert server.log.read_text().startswith(before)


def test_a_port_in_use_ends_the_server(tmp_path):
    with socket.socket() as taken:
        taken.bind(("", 0))
        taken.listen()
        server = Server(tmp_path, port=taken.getsockname()[1])
        done = subprocess.run(server.command, env=server.environment, timeout=20)
    assert done.returncode == 0
    assert "Cannot open Network listener." in server.messages()
    assert not server.complaints()


def test_a_detached_server(tmp_path):
    pid_file = tmp_path / "pid"
    pid_file.write_text("something longer than a process id\n")
    server = Server(tmp_path, "-d", "-P", str(pid_file))
    with server.output.open("wb") as output:
        done = subprocess.run(server.command, env=server.environment, stdout=output, stderr=output,
                              timeout=20)
    assert done.returncode == 0
    pid = int(wait_until(lambda: pid_file.read_text()[:-1].isdigit() and pid_file.read_text(),
                         what="the pid file"))
    try:
        wait_until(lambda: harness.is_listening(pid, server.port), what="the listener")
        assert os.getsid(pid) == pid
        null = [os.readlink(f"/proc/{pid}/fd/{number}") for number in range(3)]
        assert null == ["/dev/null"] * 3
        assert upper_layer.echo(server.port) == 0
        assert f"[{pid}]:" in server.log.read_text()
    finally:
        os.kill(pid, signal.SIGTERM)
        wait_until(lambda: not harness.process_exists(pid), what="its end")
    assert server.output.read_text() == "" and not server.complaints()


def test_unknown_names_are_logged_and_serving_goes_on(servers):
    server = servers("-g", "no-such-group", "-u", "no-such-user")
    assert upper_layer.echo(server.port) == 0
    assert "Failed to drop privs to group no-such-group." in server.messages()
    assert "Failed to drop privs to user no-such-user." in server.messages()


def is_real_root():
    """Not merely root in a user namespace, where nobody else exists."""
    return os.getuid() == 0 and pathlib.Path("/proc/self/uid_map").read_text().split()[2] != "1"


@pytest.fixture
def supplementary_groups():
    before = os.getgroups()
    os.setgroups([4, 24])
    yield {"4", "24"}
    os.setgroups(before)


@pytest.mark.skipif(not is_real_root(), reason="only root can become somebody else")
@pytest.mark.parametrize("options, user, group", [
    (["-u", "nobody", "-g", "nogroup"], "65534", "65534"), (["-u", "nobody"], "65534", "0"),
    (["-g", "nogroup"], "0", "65534")])
def test_dropped_privileges(supplementary_groups, options, user, group):
    """The map file is root's, and is still extended through the descriptor held open."""
    with tempfile.TemporaryDirectory() as folder:
        os.chmod(folder, 0o755)
        store = pathlib.Path(folder) / "store"
        store.mkdir()
        os.chmod(store, 0o777)
        with contextlib.closing(harness.Servers(folder)) as servers:
            server = servers(*options, store=store)
            data = image("1.1", "1.2", "1.2.3")
            with Association(server.port, [(SECONDARY_CAPTURE, [EXPLICIT_LE])]) as association:
                assert association.store(data, SECONDARY_CAPTURE, "1.2.3") == 0
            stored = store / archive.image_path(parse(data, EXPLICIT_LE))
            assert stored.stat().st_uid == int(user)
            with Monitor(server.port) as monitor:
                monitor.say(b"peer 1 CONFIG ADD_AET PEER p:1 F\n")
                server.turn()
            assert server.map_file.read_text() == "peer\tPEER\tp:1\tF\n"
            assert server.map_file.stat().st_uid == 0
            assert process_status(server.pid, "Uid") == [user] * 4
            assert process_status(server.pid, "Gid") == [group] * 4
            assert supplementary_groups.isdisjoint(process_status(server.pid, "Groups"))


@pytest.mark.parametrize("ending", ["kill", "abort", "close"])
def test_a_transfer_that_ends_half_way_leaves_nothing(server, ending):
    data = image("1.1", "1.2", "1.2.3", pixels=bytes(200000))
    contexts = [(SECONDARY_CAPTURE, [EXPLICIT_LE])]
    association = Association(server.port, contexts)
    association.store_part(data, SECONDARY_CAPTURE, "1.2.3", 100000)
    worker, = server.workers()
    if ending == "kill":
        server.expected_deaths = 1
        os.kill(worker, signal.SIGKILL)
    if ending == "abort":
        association.abort()
    association.socket.close()
    server.wait_until_idle()
    server.turn()
    assert not list(server.store.iterdir())
    messages = {"kill": f"Child {worker} terminated due to signal 9.", "abort": "Association aborted"}
    assert ending == "close" or messages[ending] in server.messages()
    with Association(server.port, contexts) as association:
        assert association.store(data, SECONDARY_CAPTURE, "1.2.3") == 0


@pytest.mark.skipif("TARVO_SLOW" not in os.environ, reason="waits a minute; set TARVO_SLOW=1")
@pytest.mark.parametrize("in_a_transfer", [False, True])
def test_a_silent_peer_loses_its_worker_after_a_minute(server, in_a_transfer):
    server.expected_deaths = 1
    data = image("1.1", "1.2", "1.2.3", pixels=bytes(100000))
    with Association(server.port, [(SECONDARY_CAPTURE, [EXPLICIT_LE])], patience=70) as association:
        worker, = server.workers()
        if in_a_transfer:
            association.store_part(data, SECONDARY_CAPTURE, "1.2.3", 50000)
        began = time.monotonic()
        with pytest.raises((EOFError, ConnectionError)):
            association.receive()
        association.is_open = False
        assert 59 < time.monotonic() - began < 65
    server.wait_for_message(f"Child {worker} terminated due to signal 14.")
    assert not list(server.store.rglob("*.dcm*"))
