"""SIGTERM and SIGINT: the listener ends between two passes, workers behind their associations."""
import contextlib
import fcntl
import os
import signal
import socket
import subprocess
import time

import pytest

import archive
import harness
import upper_layer
from data_set import image, parse
from faults import PAUSE, server_with_faults
from harness import Monitor, wait_until
from upper_layer import EXPLICIT_LE, SECONDARY_CAPTURE, Association

IMAGE = image("1.1", "1.2", "1.2.3", pixels=bytes(100_000))
STORAGE = [(SECONDARY_CAPTURE, [EXPLICIT_LE])]
# What a shell may leave behind for the processes that it starts.
MOST_CALLS = 24  # a new study takes some more
SHIELDED = ["env", "--ignore-signal=TERM,INT", "--block-signal=TERM,INT,ALRM"]


def end_by(server, number):
    """Sends the signal to the listener and says after how many seconds it has ended."""
    start = time.monotonic()
    os.kill(server.pid, number)
    assert server.process.wait(timeout=10) == 0
    return time.monotonic() - start


def is_mortal(pid):
    """Whether SIGTERM and SIGALRM end a process at once."""
    fields = dict(line.split(":\t") for line in open(f"/proc/{pid}/status") if ":\t" in line)
    mask = 1 << signal.SIGTERM - 1 | 1 << signal.SIGALRM - 1
    return not any(int(fields[name], 16) & mask for name in ("SigBlk", "SigIgn", "SigCgt"))


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
@pytest.mark.parametrize("inherited", [[], SHIELDED])
def test_an_orderly_end(servers, tmp_path, number, inherited):
    pid_file = tmp_path / "pid"
    server = harness.Server(tmp_path / "server", "-P", str(pid_file))
    server.command[:0] = inherited
    servers.started.append(server)
    server.start()
    with (socket.create_connection(("127.0.0.1", server.port)) as waiting,
          Association(server.port, STORAGE, patience=5) as association,
          Monitor(server.port) as group):
        association.store_part(IMAGE, SECONDARY_CAPTURE, "1.2.3", 50_000)
        worker, = server.workers()
        group.say(b"peer 1 CONFIG ADD_AET PEER p:1 F\n")
        group.say(b"other 1 CONFIG ADD_AET OTHER o:1 F\n")
        assert upper_layer.echo(server.port) == 0  # the pass behind it reads the group
        wait_until(lambda: "OTHER" in server.map_file.read_text(), what="the second entry")
        wait_until(lambda: len(server.workers()) == 1, what="the end of the echo")
        assert end_by(server, number) < 1
        assert f"Ending on signal {number:d}, 1 workers go on." in server.messages()
        waiting.settimeout(5)
        assert waiting.recv(1) == b"", "somebody at the door is not let go"
        successor = servers(port=server.port)  # it finds the port free
        assert upper_layer.echo(successor.port) == 0
        assert server.map_file.read_text() == "peer\tPEER\tp:1\tF\nother\tOTHER\to:1\tF\n"
        assert pid_file.read_text() == f"{server.pid}\n"
        assert is_mortal(worker)
        os.kill(worker, signal.SIGINT)  # a terminal sends it to everybody
        rest = association.data_pdus(1, IMAGE[50_000:], False)
        association.socket.sendall(b"".join(rest))
        assert association.receive()[0][upper_layer.STATUS] == 0
    wait_until(lambda: not harness.process_exists(worker), what="the end of the worker")
    assert (server.store / archive.image_path(parse(IMAGE, EXPLICIT_LE))).exists()


def test_a_second_signal_ends_a_listener_that_is_stuck(server):
    with server.map_file.open("r+b") as map_file, Monitor(server.port) as group:
        fcntl.lockf(map_file, fcntl.LOCK_EX)
        group.say(b"peer 1 CONFIG ADD_AET PEER p:1 F\n")
        assert upper_layer.echo(server.port) == 0  # the pass behind it reads the group
        wait_until(lambda: is_waiting_for_a_lock(server.pid), what="the stuck listener")
        server.process.terminate()
        with pytest.raises(subprocess.TimeoutExpired):
            server.process.wait(timeout=0.3)
        server.process.terminate()
        assert server.process.wait(timeout=5) == -signal.SIGTERM


def test_only_the_worker_waits_for_the_study_hash(server):
    with Association(server.port, STORAGE) as association:
        assert association.store(IMAGE, SECONDARY_CAPTURE, "1.2.3") == 0
    server.wait_until_idle()
    with locked_study_hash(server) as study_hash:
        os.utime(study_hash.fileno(), (1, 1))  # it is read anew for the next worker
        with socket.create_connection(("127.0.0.1", server.port)) as caller:
            caller.sendall(upper_layer.associate_request([], "TARVO", "WAITER", "1.2"))
            wait_until(lambda: len(server.workers()) == 1, what="the worker")
            worker, = server.workers()
            wait_until(lambda: is_waiting_for_a_lock(worker), what="its wait")
            assert not is_waiting_for_a_lock(server.pid)
    server.wait_until_idle()


def test_a_worker_that_waits_for_a_lock_is_mortal(server):
    server.expected_deaths = 1
    with Association(server.port, STORAGE) as association:
        assert association.store(IMAGE, SECONDARY_CAPTURE, "1.2.3") == 0
        worker, = server.workers()
        with locked_study_hash(server):
            data = image("2.1", "2.2", "2.2.3")
            association.send(1, association.store_request(SECONDARY_CAPTURE, "2.2.3"), data)
            wait_until(lambda: is_waiting_for_a_lock(worker), what="the worker's wait")
            os.kill(worker, signal.SIGTERM)
            wait_until(lambda: not harness.process_exists(worker), 2, "its end")
        association.is_open = False
    server.turn()
    server.wait_for_message(f"Child {worker} terminated due to signal 15.")


@contextlib.contextmanager
def locked_study_hash(server):
    with (server.store / "uid/STUDYINDEX.hash").open("r+b") as study_hash:
        fcntl.lockf(study_hash, fcntl.LOCK_EX)
        yield study_hash


def is_waiting_for_a_lock(pid):
    locks = [line.split() for line in open("/proc/locks")]
    return any(lock[1] == "->" and int(lock[5]) == pid for lock in locks)


def end_in_call(faults, pid, nth, kinds, attack):
    """Sends SIGTERM to a process in the middle of the nth of these calls, which `attack` brings
    about, and lets it go on."""
    faults.arm(nth, PAUSE, kinds=kinds)
    attack()
    wait_until(lambda: faults.has_fired, what=f"call {nth}")
    os.kill(pid, signal.SIGTERM)
    faults.disarm()
    wait_until(lambda: not harness.process_exists(pid), what="its end")


def test_a_save_of_the_map_is_finished(servers, tmp_path):
    server, faults = server_with_faults(servers, tmp_path)
    for number, kind in enumerate(["allocate", "write", "truncate"]):
        server.start()
        with Monitor(server.port) as group:
            group.say(f"peer{number} 1 CONFIG ADD_AET {kind} p:1 F\n".encode())
            # The pass behind the echo reads the group.
            end_in_call(faults, server.pid, 1, [kind], lambda: upper_layer.echo(server.port))
        assert server.process.wait() == 0
        assert server.map_file.read_text().endswith(f"peer{number}\t{kind}\tp:1\tF\n")


def test_an_update_of_several_files_is_finished(servers, tmp_path):
    """A worker that is to end while it stores a new study stores it first. It does not wait for the
    disk here: there it may end."""
    server, faults = server_with_faults(servers, tmp_path)
    server.environment["TARVO_SYNC"] = "off"
    server.start()
    expected = archive.Archive()
    for nth in range(1, MOST_CALLS):
        uid = f"3.{nth}"
        data = image(f"1.{nth}", f"2.{nth}", uid, pixels=bytes(1000))
        with Association(server.port, STORAGE) as association:
            worker, = server.workers()
            end_in_call(faults, worker, nth, ["open", "write", "allocate", "mkdir", "rename"],
                        lambda: association.send(
                            1, association.store_request(SECONDARY_CAPTURE, uid), data))
            association.is_open = False
        expected.store(parse(data, EXPLICIT_LE))
        found = {str(path.relative_to(server.store)) for path in server.store.rglob("*.dcm*")}
        assert found == expected.paths, f"call {nth}"
        for path, content in expected.index_files().items():
            assert (server.store / path).read_bytes() == content, f"{path}, call {nth}"
