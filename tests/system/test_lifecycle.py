"""Start, options, log, and what remains when a worker or its peer dies."""
import contextlib
import os
import pathlib
import shutil
import signal
import socket
import tempfile
import threading
import time

import pytest

import archive
import harness
import upper_layer
from data_set import image
from harness import (LOG_PREFIX, TARVOD, Monitor, free_port, process_status, say, stamped,
                     wait_until)
from upper_layer import GONE, SUCCESS, query_for

USAGE = ("Usage: {} [-a AETitle] [-p ServerPort] [-m MonitorPort]\n"
         "       [-u DropToUserName] [-g DropToGroupName] [-U umask]\n"
         "       [-l logfile] [-P pidfile] [-d] [-D] [-o] [-s] [-N]\n")


@pytest.mark.parametrize("arguments", [["-h"], ["-x"], ["-a"], ["-s", "-h", "-o"]])
def test_usage(tmp_path, arguments):
    environment = {**harness.ENVIRONMENT, "HOME": str(tmp_path)}
    done = harness.run(TARVOD, *arguments, env=environment, text=True)
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
    server.wait_for_message(f"Tarvo storage server {title} listening on port {server.port}")
    assert server.map_file.exists() == (peers is not None)


@pytest.mark.parametrize("peers, title", [(None, "INSTALLED"), ("Local OWN l:1 f\n", "OWN")])
def test_the_own_home_comes_before_the_place_of_installation(servers, tmp_path, peers, title):
    program, installed = tmp_path / "inst/bin/tarvod", tmp_path / "inst/share/tarvo/etc/AETitleMap"
    for path in (program, installed):
        path.parent.mkdir(parents=True)
    shutil.copy(TARVOD, program)
    installed.write_text("Local INSTALLED l:1 f\n")
    server = servers.make(peers=peers)
    server.command[0] = str(program)
    server.start()
    server.wait_for_message(f"Tarvo storage server {title} listening on port {server.port}")


# Lines of the map file, and the entries that are read from them as the log lists them: name, AE
# title, address, letters, comment. An octal escape counts by sixteen.
LINES = [
    ("# too few", ""), ("PACS1 P1 10.0.0.5:104 fmsd", "PACS1 P1 10.0.0.5:104 (FMSD)"),
    ("PACS1 SECOND x:1 f", ""), ("a A h:1", ""), ('"A room" R r:1 ""', "A room R r:1 ()"),
    ('b B b:1 pXdu "Reading \\"room\\""', 'b B b:1 (UDP) Reading "room"'),
    ("'it''s' \"\\x4A\\x4az\" \"\\64\" g", "its JJz d (G)"),
    ("O'Brien x' \"\\3777\\8\" c\\:1 e", "OBrien x w78 c\\:1 (E)"),
    ("n" * 127 + " A h F", "n" * 127 + " A h (F)"),
    ("x" * 128 + " A h F", "x" * 127 + " x A () F"),
    ("y Y y:1 F \t\"open end", "y Y y:1 (F) open end"),
    ("z Z z:1 F " + "c" * 1013 + "a B c D", "z Z z:1 (F) " + "c" * 1013 + "\na B c (D)")]


def test_the_map_is_listed_when_asked_as_soon_as_nobody_writes_it(servers):
    server = servers.make("-D", peers="half an en")
    with server.map_file.open("r+") as map_file:
        harness.lock(map_file)
        start = threading.Thread(target=server.start)
        start.start()
        wait_until(lambda: server.process and harness.is_waiting_for_a_lock(server.pid))
        map_file.write("".join(line + "\n" for line, _ in LINES))
    start.join()
    lines = [" ".join(line.split()) for line in server.messages()]
    start = lines.index("AE-Title map table:") + 1
    expected = "\n".join(entry for _, entry in LINES if entry).splitlines()
    assert lines[start:start + len(expected)] == expected


def test_the_log_of_one_association(server):
    """A run of equal operations makes two lines, however long it is. Nobody can break them."""
    with server.client(called="A\nB\x1b[2J", calling="%s%n%x") as association:
        worker, = server.workers()
        for number, operation in enumerate("EEESSSSSFE"):
            if operation == "E":
                association.echo()
            elif operation == "S":
                association.store(image("1", "1.1", f"1.2.{number}"))
            else:
                association.find(query_for("STUDY", "1.99"))
    server.wait_for_message("EOF %s%n%x->A?B?[2J")
    lines = server.log.read_text().splitlines()
    own = [LOG_PREFIX.sub("", line) for line in lines if f" [{worker}]:" in line]
    assert own == [line + " %s%n%x->A?B?[2J" + times for line, times in [
        ("C-Echo", ""), ("C-Echo", " (3x)"), ("C-Store", ""), ("C-Store", " (5x)"), ("C-Find", ""),
        ("C-Find", " (1x)"), ("C-Echo", ""), ("C-Echo", " (1x)"), ("EOF", "")]]
    upper_layer.echo(server.port, called="  A B ", calling="A\0B")
    server.wait_for_message("Inbound call from A to   A B")


def test_where_the_log_goes(servers, tmp_path):
    silent = servers("-l", str(tmp_path / "no/such/folder/log"))
    assert upper_layer.echo(silent.port) == 0
    plain = servers.make()
    position = plain.command.index("-l")
    del plain.command[position:position + 2]
    plain.start()
    assert upper_layer.echo(plain.port, called="B", calling="A") == 0
    wait_until(lambda: "]:EOF A->B\n" in plain.output.read_text(), what="the log")
    silent.stop()
    assert not silent.log.exists() and silent.output.read_text() == ""
    server = servers()
    server.stop()
    before = server.log.read_text()
    server.start()
    assert server.log.read_text().startswith(before)


def test_a_port_in_use_ends_the_server(servers):
    with socket.create_server(("", 0)) as taken:
        server = servers.make(port=taken.getsockname()[1])
        assert harness.run(*server.command, env=server.environment).returncode == 0
    assert "Cannot open Network listener." in server.messages()


def test_a_detached_server(servers, tmp_path):
    pid_file = tmp_path / "pid"
    pid_file.write_text("something longer than a process id\n")
    server = servers.make("-d", "-P", str(pid_file), "-g", "no-such-group", "-u", "no-such-user")
    done = harness.run(*server.command, env=server.environment)
    assert (done.returncode, done.stdout, done.stderr) == (0, b"", b"")
    pid = int(wait_until(lambda: pid_file.read_text()[:-1].isdigit() and pid_file.read_text(),
                         what="the pid file"))
    try:
        wait_until(lambda: harness.is_listening(pid, server.port), what="the listener")
        assert os.getsid(pid) == pid
        null = [os.readlink(f"/proc/{pid}/fd/{number}") for number in range(3)]
        assert null == ["/dev/null"] * 3
        assert upper_layer.echo(server.port) == 0
        assert f"[{pid}]:" in server.log.read_text()
        assert "Failed to drop privs to group no-such-group." in server.messages()
        assert "Failed to drop privs to user no-such-user." in server.messages()
    finally:
        os.kill(pid, signal.SIGTERM)
        wait_until(lambda: not harness.process_exists(pid), what="its end")


@pytest.mark.skipif(not harness.is_real_root(), reason="only root can become somebody else")
@pytest.mark.parametrize("options, user, group", [
    (["-u", "nobody", "-g", "nogroup"], "65534", "65534"), (["-u", "nobody"], "65534", "0"),
    (["-g", "nogroup"], "0", "65534")])
def test_dropped_privileges(options, user, group):
    """The map file is root's, and is still extended through the descriptor held open."""
    with tempfile.TemporaryDirectory() as folder, \
            contextlib.closing(harness.Servers(folder)) as servers:
        os.chmod(folder, 0o755)
        store = pathlib.Path(folder) / "store"
        store.mkdir()
        os.chmod(store, 0o777)
        server = servers(*options, store=store, before=["setpriv", "--groups", "4,24"])
        data = image("1.1", "1.2", "1.2.3")
        assert server.store_one(data) == SUCCESS
        assert (store / archive.image_path(data)).stat().st_uid == int(user)
        say(server.port, b"peer 1 CONFIG ADD_AET PEER p:1 F\n")
        server.turn()
        assert server.map_file.read_text() == "peer\tPEER\tp:1\tF\n"
        assert server.map_file.stat().st_uid == 0
        assert process_status(server.pid, "Uid") == [user] * 4
        assert process_status(server.pid, "Gid") == [group] * 4
        assert {"4", "24"}.isdisjoint(process_status(server.pid, "Groups"))


@pytest.mark.parametrize("ending", ["kill", "abort", "close", pytest.param(
    "silence", marks=pytest.mark.skipif(not harness.SLOW, reason="waits a minute"))])
def test_a_transfer_that_ends_half_way_leaves_nothing(server, ending):
    data = image("1.1", "1.2", "1.2.3", pixels=bytes(200000))
    association = server.client(patience=70)
    association.store_part(data, 100000)
    worker, = server.workers()
    server.expected_deaths = ending in ("kill", "silence")
    if ending == "kill":
        os.kill(worker, signal.SIGKILL)
    if ending == "abort":
        association.abort()
    if ending == "silence":
        began = time.monotonic()
        with pytest.raises(GONE):
            association.receive()
        assert 59 < time.monotonic() - began < 65
    association.socket.close()
    server.wait_until_idle()
    server.turn()
    assert not list(server.store.iterdir())
    messages = {"kill": f"Child {worker} terminated due to signal 9.",
                "silence": f"Child {worker} terminated due to signal 14.",
                "abort": "Association aborted"}
    assert ending == "close" or messages[ending] in server.messages()
    assert server.store_one(data) == SUCCESS


def test_only_the_ends_of_workers_count(servers):
    """Whoever started the server may want to hear nothing of children, or have left it one."""
    server = servers("-M", "0", before=["env", "--ignore-signal=CHLD"])
    for _ in range(2):
        assert upper_layer.echo(server.port) == 0
        server.wait_until_idle()
    server = servers("-M", "0", before=["sh", "-c", 'sleep 1 & exec "$@"', "sh"])
    with server.client():
        wait_until(lambda: len(server.workers()) == 1, what="the end of the strange child")
        with pytest.raises(upper_layer.Rejected):
            upper_layer.echo(server.port)
