"""Running servers and monitor listeners for the system tests.

Everything stays on this machine: without a private network (script/private_network) no server is
started. Waits are for a condition with a deadline. TARVO_SLOW=1 asks for the full numbers.
"""
import contextlib
import fcntl
import os
import pathlib
import re
import signal
import socket
import struct
import subprocess
import time

import upper_layer
from upper_layer import Association

ROOT = pathlib.Path(__file__).resolve().parents[2]
TARVOD = os.environ.get("TARVOD", str(ROOT / "build/dev/bin/tarvod"))
IS_SANITIZED = "asan" in TARVOD
SLOW = "TARVO_SLOW" in os.environ
SEED = int(os.environ.get("TARVO_TEST_SEED", time.time_ns() % 1_000_000_000))
GROUP = "224.0.0.1"
HOST = socket.gethostname()
LOG_PREFIX = re.compile(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d \[(\d+)\]:")
# The toolkit leaves Nagle's algorithm on, which stalls each message by a delayed acknowledgement.
ENVIRONMENT = {"PATH": os.environ["PATH"], "TCP_NODELAY": "1", "LC_ALL": "C"}


def wait_until(condition, seconds=10, what="the condition"):
    """Polls until `condition` gives something true, and returns that."""
    deadline = time.monotonic() + seconds
    while True:
        result = condition()
        if result:
            return result
        assert time.monotonic() < deadline, f"waited {seconds} s in vain for {what}"
        time.sleep(0.005)


def free_port():
    """A port that is free for TCP and UDP alike."""
    while True:
        with socket.socket() as tcp, socket.socket(type=socket.SOCK_DGRAM) as udp:
            tcp.bind(("127.0.0.1", 0))
            try:
                udp.bind(("", tcp.getsockname()[1]))
            except OSError:
                continue
            return tcp.getsockname()[1]


def run(*command, **options):
    """Runs a program to its end."""
    return subprocess.run(command, capture_output=True,
                          **{"env": ENVIRONMENT, "timeout": 60, **options})


def preload(folder):
    """Builds the library that servers preload."""
    library = folder / "shim.so"
    subprocess.run(["cc", "-O1", "-shared", "-fPIC", "-Wall", "-Wextra", "-o", library,
                    ROOT / "tests/system/fault_shim.c"], check=True)
    return library


def snapshot(folder, *without):
    """{path: what it is} of everything below a folder, all in bytes."""
    found, without = {}, [os.fsencode(path) for path in without]
    for where, folders, files in os.walk(os.fsencode(folder)):
        folders[:] = [name for name in folders if os.path.join(where, name) not in without]
        for path in (os.path.join(where, name) for name in folders + files):
            name = os.path.relpath(path, os.fsencode(folder))
            if os.path.islink(path) or os.path.isdir(path):
                found[name] = os.path.islink(path) and os.readlink(path)
            elif path not in without:
                with open(path, "rb") as file:
                    found[name] = file.read()
    return found


def process_status(pid, field):
    """The words of a line of /proc/PID/status; none when there is no such process."""
    try:
        text = pathlib.Path(f"/proc/{pid}/status").read_text()
    except (FileNotFoundError, ProcessLookupError):
        return []
    return re.search(rf"^{field}:\s*(.*)$", text, re.M)[1].split()


def process_exists(pid):
    return process_status(pid, "State")[:1] not in ([], ["Z"])


def is_listening(pid, port):
    """Whether somebody listens on TCP `port` in the network of process `pid`."""
    lines = ""
    with contextlib.suppress(OSError):  # it has ended
        for name in ("tcp", "tcp6"):
            lines += pathlib.Path(f"/proc/{pid}/net", name).read_text()
    return re.search(rf":{port:04X} [0-9A-F]+:0000 0A ", lines) is not None


def lock(file, kind=fcntl.LOCK_EX):
    fcntl.lockf(file, kind)


def is_waiting_for_a_lock(pid):
    locks = [line.split() for line in pathlib.Path("/proc/locks").read_text().splitlines()]
    return any(words[1] == "->" and int(words[5]) == pid for words in locks)


def is_real_root():
    """Not merely root in a user namespace, where nobody else exists."""
    return os.getuid() == 0 and pathlib.Path("/proc/self/uid_map").read_text().split()[2] != "1"


class Server:
    """A server in the foreground with a HOME, port, log and store of its own.

    `store` may be given to share the store of another server; `peers` is the text of the AE title
    map file, None for no such file; `provider` is known to it as a peer; `before` is a command that
    starts it; `moves_clock` is for let_pass.
    """

    def __init__(self, directory, *options, store=None, peers="", provider=None, port=None,
                 before=(), environment=(), moves_clock=False):
        names = [name for _, name in socket.if_nameindex()]
        assert names == ["lo"], f"network interfaces {names}: run this in script/private_network"
        self.directory = pathlib.Path(directory)
        self.store = pathlib.Path(store or self.directory / "home/store")
        self.store.mkdir(parents=True, exist_ok=True)
        self.log, self.output = self.directory / "log", self.directory / "output"
        self.port = port or free_port()
        etc = self.directory / "home/.tarvo/etc"
        etc.mkdir(parents=True)
        (etc / "LocalStoreDir").write_text(f"{self.store}\r\n/only/the/first/line/counts\n")
        self.map_file = etc / "AETitleMap"
        if peers is not None:
            self.map_file.write_text(provider.map_line if provider else peers)
        self.command = [*before, TARVOD, "-p", str(self.port), "-l", str(self.log), *options]
        reports = f"log_path={self.directory}/sanitizer:verify_asan_link_order=0"
        self.environment = {**ENVIRONMENT, "HOME": str(self.directory / "home"),
                            "ASAN_OPTIONS": reports,
                            "UBSAN_OPTIONS": reports + ":print_stacktrace=1", **dict(environment)}
        self.clock = self.directory / "clock"
        if moves_clock:
            self.environment |= {"LATER_CLOCK": str(self.clock),
                                 "LD_PRELOAD": str(preload(self.directory))}
        self.expected_deaths = 0  # workers that the test itself kills
        self.process = None

    def start(self):
        with self.output.open("ab") as output:
            self.process = subprocess.Popen(self.command, env=self.environment, stdout=output,
                                            stderr=output, stdin=subprocess.DEVNULL)
        wait_until(lambda: is_listening(self.pid, self.port) or self.process.poll() is not None,
                   what="the listener")
        assert self.process.poll() is None, f"server ended: {self.output.read_text()}"
        return self

    def kill(self):
        self.process.kill()
        self.process.wait()

    @property
    def pid(self):
        return self.process.pid

    def client(self, **settings):
        return Association(self.port, **settings)

    def store_one(self, image, **settings):
        with self.client(**settings) as association:
            return association.store(image)

    def workers(self):
        """The process ids of the workers that are still running."""
        try:
            children = pathlib.Path(f"/proc/{self.pid}/task/{self.pid}/children").read_text()
        except (FileNotFoundError, ProcessLookupError):
            return []
        return [int(pid) for pid in children.split() if process_exists(pid)]

    def wait_until_idle(self):
        wait_until(lambda: not self.workers(), what="the workers to end")

    def turn(self):
        """Makes the listening process run through its loop: reap, announce, read the group.

        It takes the second call only when it is through with the pass of the first.
        """
        for _ in range(2):
            assert upper_layer.echo(self.port, calling="TURN") == 0
        self.wait_until_idle()

    def let_pass(self, seconds):
        """Sets its clock forward and ends its wait for an association. While it is idle it checks
        the disk when more than a minute has passed."""
        before = int(self.clock.read_text()) if self.clock.exists() else 0
        self.clock.write_text(f"{before + seconds}")
        with socket.create_connection(("127.0.0.1", self.port)):
            pass  # it looks at the clock

    def messages(self):
        """The messages of the log, without their prefixes."""
        lines = self.log.read_text(errors="replace").splitlines() if self.log.exists() else []
        return [LOG_PREFIX.sub("", line) for line in lines]

    def wait_for_message(self, message, seconds=10):
        wait_until(lambda: message in self.messages(), seconds, f"{message!r} in {self.log}")

    def surroundings(self):
        """What is neither its store nor its log."""
        return snapshot(self.directory, self.store, self.log, self.output)

    def stop(self):
        if self.process is None or self.process.poll() is not None:
            return
        workers = self.workers()
        self.process.terminate()
        self.process.wait(timeout=10)
        try:
            wait_until(lambda: not any(map(process_exists, workers)), 5, "the last workers")
        except AssertionError:
            for pid in filter(process_exists, workers):
                os.kill(pid, signal.SIGKILL)
            raise

    def complaints(self):
        """What no test may leave behind: sanitizer reports, workers that ended badly, and lines of
        the log that values or other processes have broken."""
        found = [path.read_text() for path in self.directory.glob("sanitizer*")]
        for path in (self.log, self.output):
            text = path.read_text(errors="replace") if path.exists() else ""
            found += [line for line in text.splitlines() if "runtime error" in line]
            if path == self.log:
                found += [line for line in text.splitlines() if not LOG_PREFIX.match(line)]
        deaths = [line for line in self.messages() if re.match(r"Child \d+ terminated", line)]
        return found + deaths[self.expected_deaths:]


class Servers:
    """Starts servers in numbered folders and, at the end, stops and checks them all."""

    def __init__(self, directory):
        self.directory = pathlib.Path(directory)
        self.made = []

    def make(self, *options, may_leak=False, **settings):
        """A server that is not started.

        `may_leak`: the toolkit loses parts of a request that it refuses; they go with the worker.
        """
        server = Server(self.directory / f"server{len(self.made)}", *options, **settings)
        if may_leak:
            server.environment["ASAN_OPTIONS"] += ":detect_leaks=0"
        self.made.append(server)
        return server

    def __call__(self, *options, **settings):
        return self.make(*options, **settings).start()

    def close(self):
        found = []
        for server in self.made:
            try:
                server.stop()
            except AssertionError as late:
                found.append(str(late))
            found += server.complaints()
        assert not found, "\n".join(found)


class Monitor:
    """A member of the monitor group: hears every datagram and can send any."""

    def __init__(self, port):
        self.port = port
        self.socket = socket.socket(type=socket.SOCK_DGRAM)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 22)
        self.socket.bind(("", port))
        member = struct.pack("=4sL", socket.inet_aton(GROUP), socket.INADDR_ANY)
        self.socket.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, member)
        self.heard = []

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()

    def wait_for(self, pattern, seconds=10):
        """Reads up to the first datagram that the pattern fits."""
        deadline = time.monotonic() + seconds
        while True:
            self.socket.settimeout(max(deadline - time.monotonic(), 0.001))
            try:
                self.heard.append(self.socket.recv(65536))
            except TimeoutError:
                raise AssertionError(f"{pattern!r} not among {self.heard}") from None
            if re.fullmatch(pattern, self.heard[-1].decode("latin-1")):
                return self.heard[-1]

    def heard_from(self, pid):
        """The messages heard so far from process `pid`: what follows the host and the pid."""
        head = f"{HOST} {pid} ".encode()
        return [datagram[len(head):] for datagram in self.heard if datagram.startswith(head)]


def say(port, *datagrams):
    """Sends datagrams to the monitor group."""
    with socket.socket(type=socket.SOCK_DGRAM) as sender:
        for datagram in datagrams:
            sender.sendto(datagram, (GROUP, port))


def stamped(pid, message):
    """The datagram that process `pid` on this machine makes of a message."""
    return f"{HOST} {pid} {message}\n"
