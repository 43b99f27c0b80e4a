"""SIGTERM and SIGINT: the listener ends between two passes, workers behind their associations."""
import os
import signal
import socket
import subprocess
import time

import pytest

import archive
import harness
import upper_layer
from data_set import SECONDARY_CAPTURE, image
from faults import PAUSE, Faults
from harness import is_waiting_for_a_lock, process_exists, process_status, say, wait_until
from upper_layer import STATUS, SUCCESS, store_request

IMAGE = image("1.1", "1.2", "1.2.3", pixels=bytes(100_000))
OTHER = image("2.1", "2.2", "2.2.3")
MOST_CALLS = 24  # a new study takes some more
# What a shell may leave behind for the processes that it starts.
SHIELDED = ["env", "--ignore-signal=TERM,INT", "--block-signal=TERM,INT,ALRM"]


def is_mortal(pid):
    """Whether SIGTERM and SIGALRM end a process at once."""
    mask = 1 << signal.SIGTERM - 1 | 1 << signal.SIGALRM - 1
    return not any(int(process_status(pid, name)[0], 16) & mask
                   for name in ("SigBlk", "SigIgn", "SigCgt"))


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
@pytest.mark.parametrize("inherited", [[], SHIELDED])
def test_an_orderly_end(servers, tmp_path, number, inherited):
    pid_file = tmp_path / "pid"
    server = servers("-P", str(pid_file), before=inherited)
    with (socket.create_connection(("127.0.0.1", server.port)) as waiting,
          server.client(patience=5) as association):
        association.store_part(IMAGE, 50_000)
        worker, = server.workers()
        say(server.port, b"peer 1 CONFIG ADD_AET PEER p:1 F\n",
            b"other 1 CONFIG ADD_AET OTHER o:1 F\n")
        assert upper_layer.echo(server.port) == 0  # the pass behind it reads the group
        wait_until(lambda: "OTHER" in server.map_file.read_text(), what="the second entry")
        wait_until(lambda: len(server.workers()) == 1, what="the end of the echo")
        start = time.monotonic()
        os.kill(server.pid, number)
        assert server.process.wait(timeout=10) == 0
        assert time.monotonic() - start < 1
        assert f"Ending on signal {number:d}, 1 workers go on." in server.messages()
        waiting.settimeout(5)
        assert waiting.recv(1) == b"", "somebody at the door is not let go"
        assert upper_layer.echo(servers(port=server.port).port) == 0  # a successor
        assert server.map_file.read_text() == "peer\tPEER\tp:1\tF\nother\tOTHER\to:1\tF\n"
        assert pid_file.read_text() == f"{server.pid}\n"
        assert is_mortal(worker)
        os.kill(worker, signal.SIGINT)  # a terminal sends it to everybody
        context = association.by_class[SECONDARY_CAPTURE]
        association.socket.sendall(association.data_pdus(context, IMAGE[50_000:], False))
        assert association.receive()[0][STATUS] == SUCCESS
    wait_until(lambda: not process_exists(worker), what="the end of the worker")
    assert (server.store / archive.image_path(IMAGE)).exists()


def test_a_second_signal_ends_a_listener_that_is_stuck(server):
    with server.map_file.open("r+b") as map_file:
        harness.lock(map_file)
        say(server.port, b"peer 1 CONFIG ADD_AET PEER p:1 F\n")
        assert upper_layer.echo(server.port) == 0  # the pass behind it reads the group
        wait_until(lambda: is_waiting_for_a_lock(server.pid), what="the stuck listener")
        server.process.terminate()
        with pytest.raises(subprocess.TimeoutExpired):
            server.process.wait(timeout=0.3)
        server.process.terminate()
        assert server.process.wait(timeout=5) == -signal.SIGTERM


def test_only_the_worker_waits_for_the_study_hash_and_it_is_mortal(server):
    server.expected_deaths = 1
    assert server.store_one(IMAGE) == SUCCESS
    server.wait_until_idle()
    association = server.client()
    worker, = server.workers()
    with (server.store / "uid/STUDYINDEX.hash").open("r+b") as study_hash:
        harness.lock(study_hash)
        os.utime(study_hash.fileno(), (1, 1))  # it is read anew for the next worker
        association.send(association.by_class[SECONDARY_CAPTURE], store_request(OTHER), OTHER)
        with socket.create_connection(("127.0.0.1", server.port)) as caller:
            caller.sendall(upper_layer.associate_request([], application_context="1.2"))
            wait_until(lambda: list(map(is_waiting_for_a_lock, server.workers())) == [True] * 2)
            assert not is_waiting_for_a_lock(server.pid)
        os.kill(worker, signal.SIGTERM)
        wait_until(lambda: not process_exists(worker), 2, "its end")
    association.socket.close()
    server.turn()
    server.wait_for_message(f"Child {worker} terminated due to signal 15.")


def test_nobody_else_waits_for_whoever_is_at_the_study_hash(servers):
    """Neither the idle listener at its disk check, nor a successor for the port of a worker that
    waits, nor those who were at the door."""
    server = servers(moves_clock=True)
    assert server.store_one(IMAGE) == SUCCESS
    time.sleep(0.05)  # files change their times in steps: only behind them the copy is certain
    server.turn()
    with (server.store / "uid/STUDYINDEX.hash").open("r+b") as study_hash:
        harness.lock(study_hash)
        server.let_pass(61)
        assert upper_layer.echo(server.port) == 0
        os.utime(study_hash.fileno(), (1, 1))
        with (socket.create_connection(("127.0.0.1", server.port)) as at_door,
              socket.create_connection(("127.0.0.1", server.port)) as caller):
            caller.sendall(upper_layer.associate_request([], application_context="1.2"))
            wait_until(lambda: any(map(is_waiting_for_a_lock, server.workers())), what="its wait")
            server.process.terminate()
            assert server.process.wait(timeout=10) == 0
            at_door.settimeout(5)
            assert at_door.recv(1) == b"", "the worker keeps it"
            assert upper_layer.echo(servers(port=server.port).port) == 0


def end_in_call(faults, pid, nth, kinds, attack):
    """Sends SIGTERM to a process in the middle of the nth of these calls, which `attack` brings
    about, and lets it go on."""
    faults.arm(nth, PAUSE, kinds=kinds)
    attack()
    wait_until(lambda: faults.has_fired, what=f"call {nth}")
    os.kill(pid, signal.SIGTERM)
    faults.disarm()
    wait_until(lambda: not process_exists(pid), what="its end")


def test_a_save_of_the_map_is_finished(servers):
    server = servers.make(moves_clock=True)
    faults = Faults(server)
    for number, kind in enumerate(["allocate", "write", "truncate"]):
        server.start()
        say(server.port, f"peer{number} 1 CONFIG ADD_AET {kind} p:1 F\n".encode())
        # The pass behind the echo reads the group.
        end_in_call(faults, server.pid, 1, [kind], lambda: upper_layer.echo(server.port))
        assert server.process.wait() == 0
        assert server.map_file.read_text().endswith(f"peer{number}\t{kind}\tp:1\tF\n")


def test_an_update_of_several_files_is_finished(servers):
    """A worker that is to end while it stores a new study stores it first. It does not wait for the
    disk here: there it may end."""
    server = servers.make(moves_clock=True, environment={"TARVO_SYNC": "off"})
    faults, expected = Faults(server), archive.Archive()
    server.start()
    for nth in range(1, MOST_CALLS):
        data = image(f"1.{nth}", f"2.{nth}", f"3.{nth}", pixels=bytes(1000))
        with server.client() as association:
            worker, = server.workers()
            context = association.by_class[SECONDARY_CAPTURE]
            end_in_call(faults, worker, nth, ["open", "write", "allocate", "mkdir", "rename"],
                        lambda: association.send(context, store_request(data), data))
            association.is_open = False
        expected.store(data)
        expected.check(server.store)
