"""keel and tolvard against local users and hostile local clients.

Each scenario has its own root and IPC namespace.  An unprivileged user
is uid 65534 entered into the scenario's namespace with setpriv; a full
descriptor table is made with a low RLIMIT_NOFILE on the daemon.
"""
import ctypes
import json
import resource
import socket
import subprocess
import sys

import pytest

from conftest import program, wait_for
from ipc_scenario import GENEROUS, IpcScenario, ipc_ns  # noqa: F401
from test_keel_client import ANSWER, recv_all, registration, root  # noqa

NOBODY = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]
SEG_SIZE = 1098760          # main segment of the ordinary id-space class
SEM_KEY = 8888

# What an unprivileged process tries: attach the main segment for
# writing, get the semaphore set, and connect to both daemons' sockets.
PROBE = r"""
import ctypes, json, socket, sys
libc = ctypes.CDLL(None, use_errno=True)
key, keel_sock, tolvard_sock = int(sys.argv[1]), sys.argv[2], sys.argv[3]
def errno_of(rc):
    return 0 if rc >= 0 else ctypes.get_errno()
out = {"shm": errno_of(libc.shmget(key, 0, 0o600)),
       "sem": errno_of(libc.semget(8888, 0, 0o600))}
for name, path in (("keel", keel_sock), ("tolvard", tolvard_sock)):
    s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    try:
        s.connect(path)
        out[name] = 0
    except OSError as e:
        out[name] = e.errno
    s.close()
print(json.dumps(out))
"""


class Scenario(IpcScenario):
    def spawn_limited(self, name, *args, nofile=None, **env):
        """Like spawn, with at most nofile descriptors in the daemon."""
        def limit():
            if nofile is not None:
                resource.setrlimit(resource.RLIMIT_NOFILE, (nofile, nofile))
        p = subprocess.Popen(self.argv(name, *args), env=self.root.env(**env),
                             stdin=subprocess.DEVNULL,
                             stdout=subprocess.DEVNULL,
                             stderr=subprocess.DEVNULL, preexec_fn=limit)
        self.procs.append(p)
        return p

    def start_keel(self, nofile=None, **env):
        started = lambda: self.root.trace("keel").count("keel started")
        before = started()
        self.keel = self.spawn_limited("keel", "-N", nofile=nofile, **env)
        assert wait_for(lambda: started() > before, timeout=GENEROUS), \
            self.root.trace("keel")
        return self.keel

    def start_tolvard(self, nofile=None):
        self.tolvard = self.spawn_limited("tolvard", "-N", nofile=nofile)
        assert wait_for(lambda: self.sock("tolvard").exists(),
                        timeout=GENEROUS), self.root.trace("tolvard")
        return self.tolvard

    def sock(self, daemon):
        name = {"keel": "keel_server_communication",
                "tolvard": "tolvard_server_communication"}[daemon]
        return self.root.file(f"/var/run/{name}")

    def connect(self, daemon):
        s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        s.settimeout(GENEROUS)
        s.connect(str(self.sock(daemon)))
        return s

    def nsrun(self, *argv, user=None):
        return subprocess.run(["nsenter", f"--ipc={self.ns}", "--",
                               *(user or []), *argv],
                              env=self.root.env(), capture_output=True,
                              text=True, timeout=GENEROUS)

    def segment_key(self):
        libc = ctypes.CDLL(None, use_errno=True)
        key = libc.ftok(str(self.root.file("/mfs/var/tmp/sdb_shmem"))
                        .encode(), 8888)
        assert key != -1
        return key

    def probe_as_nobody(self):
        r = self.nsrun(sys.executable, "-c", PROBE, str(self.segment_key()),
                       str(self.sock("keel")), str(self.sock("tolvard")),
                       user=NOBODY)
        assert r.returncode == 0, r.stderr
        return json.loads(r.stdout)

    def registers(self):
        """True once keel takes a registration; refused is not yet."""
        try:
            return bool(self.register()[1] & 1)
        except OSError:
            return False

    def register(self):
        """A registration as a client would send it; the answer."""
        s = self.connect("keel")
        s.sendall(registration(flags=0x03))
        answer = ANSWER.unpack(recv_all(s, ANSWER.size))
        s.close()
        return answer


@pytest.fixture
def sc(root, ipc_ns):
    s = Scenario(root, ipc_ns)
    yield s
    s.close()


EACCES = 13


def test_a_local_user_reaches_no_store_and_no_socket(sc):
    # Objects that an older keel made for everybody are narrowed too.
    sc.root.file("/mfs/var/tmp").mkdir(parents=True, exist_ok=True)
    sc.root.file("/mfs/var/tmp/sdb_shmem").touch()
    key = sc.segment_key()
    made = sc.nsrun(sys.executable, "-c",
                    "import ctypes; c = ctypes.CDLL(None); "
                    f"assert c.shmget({key}, {SEG_SIZE}, 0o1666) >= 0; "
                    f"assert c.semget({SEM_KEY}, 4, 0o1666) >= 0")
    assert made.returncode == 0, made.stderr
    sc.start_keel()
    sc.start_tolvard()
    assert sc.probe_as_nobody() == {"shm": EACCES, "sem": EACCES,
                                    "keel": EACCES, "tolvard": EACCES}
    # Root still gets in, and the tools say what stops the others.
    assert sc.register()[1] & 1
    r = sc.nsrun(program("sdbctl"), "status", user=NOBODY)
    assert r.returncode != 0
    assert "Permission denied" in r.stderr, r.stderr
    assert "out of memory" not in r.stderr


def test_the_configured_group_is_let_in(sc):
    sc.root.write_config("set chassis redundancy graceful-switchover",
                         "set system session-database group 65534")
    sc.start_keel()
    sc.start_tolvard()
    assert sc.probe_as_nobody() == {"shm": 0, "sem": 0, "keel": 0,
                                    "tolvard": 0}
    for daemon in ("keel", "tolvard"):
        st = sc.sock(daemon).stat()
        assert (st.st_mode & 0o777, st.st_gid) == (0o660, 65534), daemon


def test_an_unknown_group_leaves_everything_to_root(sc):
    sc.root.write_config("set system session-database group no-such-group")
    sc.start_keel()
    assert "LIBSDB_ACCESS_GROUP_UNKNOWN" in sc.root.event_tags()
    assert sc.sock("keel").stat().st_mode & 0o777 == 0o600


def flood_until_refused(sc, daemon, nofile):
    """More connections than the daemon has descriptors: the last one
    must be closed at once, not left waiting while the daemon spins."""
    held = [sc.connect(daemon) for _ in range(nofile + 8)]
    assert held[-1].recv(16) == b""
    return held


def test_a_full_descriptor_table_refuses_instead_of_spinning(sc):
    sc.start_keel(nofile=32)
    held = flood_until_refused(sc, "keel", 32)
    assert "Unable to accept a connection: Too many open files" in \
        sc.root.trace("keel")
    assert "KEEL_ACCEPT_FAILED" in sc.root.event_tags()
    for s in held:
        s.close()
    # Descriptors back: keel serves again, once it has seen them close.
    assert wait_for(sc.registers, timeout=GENEROUS)

    sc.start_tolvard(nofile=48)
    held = flood_until_refused(sc, "tolvard", 48)
    r = sc.nsrun(program("sdbctl"), "barrier", "-t", str(int(GENEROUS)))
    assert r.returncode == 1
    out = r.stdout + r.stderr
    assert "before the connection closed" in out or \
        "cannot send to tolvard" in out, out
    assert "TOLVARD_SERVER_ACCEPT_FAILED" in sc.root.event_tags()
    for s in held:
        s.close()
    # Served again: with no standby, answered at once (exit 3).
    assert wait_for(lambda: sc.nsrun(program("sdbctl"), "barrier", "7")
                    .returncode in (0, 3), timeout=GENEROUS)


FLOOD = r"""
import socket, sys
while True:
    s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    s.setblocking(False)
    try:
        s.connect(sys.argv[1])
    except OSError:
        pass
    s.close()
"""


def test_registrations_survive_a_connect_flood(sc):
    sc.start_keel()
    flooders = [subprocess.Popen([sys.executable, "-c", FLOOD,
                                  str(sc.sock("keel"))])
                for _ in range(4)]
    try:
        results = [sc.nsrun(program("sdbctl"), "status") for _ in range(20)]
        # A daemon registering meanwhile never counts the full backlog.
        sc.spawn("tolvard", "-N")
        assert wait_for(lambda: "Database Environment changed" in
                        sc.root.trace("tolvard"), timeout=GENEROUS)
    finally:
        for f in flooders:
            f.kill()
            f.wait()
    failed = [r.stderr for r in results if r.returncode != 0]
    assert failed == []
    assert "err:-26" not in sc.root.trace("tolvard")


@pytest.mark.parametrize("payload,reason", [
    (b"", "no registration in time"),
    (registration()[:50], "message left half-sent"),
])
def test_idle_and_half_sent_connections_are_dropped(sc, payload, reason):
    sc.start_keel(TOLVAR_TEST_TIMESCALE=20)
    s = sc.connect("keel")
    s.sendall(payload)
    assert s.recv(16) == b""
    assert reason in sc.root.trace("keel")
    # A client that registered may stay as long as it likes.
    assert sc.register()[1] & 1


def test_a_barrier_too_big_to_echo_is_refused(sc):
    r = sc.nsrun(program("sdbctl"), "barrier", *["1"] * 16382)
    assert r.returncode != 0
    assert "at most 16381 words" in r.stderr
