"""tolvard against keel, as real processes.

Each scenario has its own root directory and its own IPC namespace (the
main segment and the semaphores live under fixed System V keys): the
namespace is kept in a file made by "unshare --ipc=FILE", and every
process of the scenario enters it with nsenter.  keel runs with its test
control socket (TOLVAR_KEEL_TEST_CONTROL=1) so that a test can make it
refuse, stay silent, hang up or send bad bytes.

Nothing here measures time: retries are checked by the order and the
values of the trace lines, and waits are generous.  tolvard runs with
TOLVAR_TEST_TIMESCALE so that its 1-10 s back-off and the client's 5 s
re-registration interval pass quickly.
"""
import os
import pathlib
import re
import shutil
import signal
import socket
import struct
import subprocess
import tempfile
import time

import pytest

from conftest import Root, program, wait_for

GENEROUS = 60.0
SCALE = 20
REG = struct.Struct("=I64sIBB2sII" + "III128s")
ANSWER = struct.Struct("=IIiII")


@pytest.fixture
def root():
    # keel's socket path must fit a sockaddr_un: keep the root short.
    path = pathlib.Path(tempfile.mkdtemp(prefix="kc-"))
    r = Root(path / "r")
    r.write_config("set chassis redundancy graceful-switchover")
    r.write_platform(role="master")
    yield r
    shutil.rmtree(path, ignore_errors=True)


@pytest.fixture
def ipc_ns(root):
    ns = root.path.parent / "ipc"
    ns.touch()
    subprocess.run(["unshare", f"--ipc={ns}", "true"], check=True)
    yield str(ns)
    subprocess.run(["umount", str(ns)], check=False)


class Scenario:
    def __init__(self, root, ns):
        self.root = root
        self.ns = ns
        self.procs = []
        self.keel = None
        self.tolvard = None

    def spawn(self, name, *args, **env):
        p = subprocess.Popen(
            ["nsenter", f"--ipc={self.ns}", "--", program(name), *args],
            env=self.root.env(**env), stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.procs.append(p)
        return p

    def start_keel(self):
        before = self.keel_trace().count("keel started")
        self.keel = self.spawn("keel", "-N", TOLVAR_KEEL_TEST_CONTROL=1)
        assert wait_for(lambda: self.keel_trace().count("keel started") >
                        before, timeout=GENEROUS), self.keel_trace()
        return self.keel

    def start_tolvard(self):
        self.tolvard = self.spawn("tolvard", "-N",
                                  TOLVAR_TEST_TIMESCALE=SCALE)
        return self.tolvard

    def kill_keel(self):
        self.keel.send_signal(signal.SIGKILL)
        self.keel.wait(timeout=GENEROUS)

    def control(self, command):
        """One command to keel's test control; its reply lines."""
        s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        s.settimeout(GENEROUS)
        s.connect(str(self.root.file("/var/run/keel_test_control")))
        s.sendall(command.encode() + b"\n")
        data = b""
        while True:
            chunk = s.recv(4096)
            if not chunk:
                break
            data += chunk
        s.close()
        lines = data.decode().splitlines()
        assert lines and lines[-1] == "ok", (command, lines)
        return lines[:-1]

    def trace(self):
        return self.root.trace("tolvard")

    def keel_trace(self):
        return self.root.trace("keel")

    def wait_trace(self, text, count=1, of=None):
        read = of or self.trace
        assert wait_for(lambda: read().count(text) >= count,
                        timeout=GENEROUS), read()

    def registered(self):
        self.wait_trace("Database Environment changed")
        assert wait_for(lambda: any(
            line.startswith("tolvard ") for line in self.control("clients")),
            timeout=GENEROUS)

    def close(self):
        for p in self.procs:
            if p.poll() is None:
                p.send_signal(signal.SIGKILL)
            p.wait(timeout=GENEROUS)


@pytest.fixture
def sc(root, ipc_ns):
    s = Scenario(root, ipc_ns)
    yield s
    s.close()


def retry_delays(trace):
    return [int(d) for d in re.findall(r"Retry DB open in (\d+) seconds",
                                       trace)]


def attempts(trace):
    """(attempt, code) of every failed open, in order."""
    return [(int(a), int(c)) for a, c in re.findall(
        r"Failed to init SDB, attempt (\d+), err:(-?\d+)", trace)]


def test_normal_open(sc):
    sc.start_keel()
    sc.start_tolvard()
    sc.registered()
    t = sc.trace()
    assert "Send registration message to KEEL" in t
    assert "Successfully registered with KEEL" in t
    assert attempts(t) == []
    pid = sc.tolvard.pid
    assert f"Registration of tolvard[{pid}] as Master: accepted, status 0" \
        in sc.keel_trace()

    # A clean stop says goodbye: keel sees no dead client.
    sc.tolvard.send_signal(signal.SIGTERM)
    assert sc.tolvard.wait(timeout=GENEROUS) == 0
    sc.wait_trace(f"Unregistration of tolvard[{pid}], err 0", of=sc.keel_trace)
    assert "Lost connection with tolvard" not in sc.keel_trace()


def test_not_started_is_never_counted_and_backs_off(sc):
    sc.start_keel()
    sc.control("status -19")
    sc.start_tolvard()
    sc.wait_trace("Retry DB open in", count=7)
    sc.control("status normal")
    sc.registered()

    t = sc.trace()
    fails = attempts(t)
    assert len(fails) >= 7
    assert all(f == (0, -19) for f in fails), fails
    assert retry_delays(t)[:7] == [1, 2, 4, 8, 10, 10, 10]
    assert "TOLVARD_DB_OPEN_FAILED" not in sc.root.event_tags()
    assert sc.tolvard.poll() is None


def test_eleventh_counted_failure_ends_tolvard(sc):
    sc.start_keel()
    sc.control("status -25")
    sc.start_tolvard()
    assert sc.tolvard.wait(timeout=GENEROUS) == 1
    t = sc.trace()
    # The count is traced before it grows: 0 to 10 for eleven failures.
    assert attempts(t) == [(n, -25) for n in range(0, 11)]
    assert retry_delays(t) == [1, 2, 4, 8, 10, 10, 10, 10, 10, 10]
    assert "Failed to open DB 11 times, giving up" in t
    assert "TOLVARD_DB_OPEN_FAILED" in sc.root.event_tags()
    # Every refused registration was answered, none left dangling.
    assert sc.keel_trace().count("refused, status -25") == 11


def test_no_session_database_leaves_no_retry(sc):
    sc.start_keel()
    sc.control("status -17")
    sc.start_tolvard()
    sc.wait_trace("will not retry")
    # The daemon stays, without a database and without a timer.
    sc.control("status normal")
    time.sleep(1.0)
    t = sc.trace()
    assert attempts(t) == [(0, -17)]
    assert retry_delays(t) == []
    assert "Database Environment changed" not in t
    assert sc.tolvard.poll() is None


def test_platform_without_session_database(sc):
    sc.root.write_platform(role="master", session_db=0)
    # keel itself cannot open a database that the platform does not have;
    # a client that asks it anyway gets -17 (see the raw client test).
    sc.start_tolvard()
    sc.wait_trace("will not retry")
    assert attempts(sc.trace()) == [(0, -17)]
    assert "KEEL not supported on this platform" in sc.trace()


def test_silent_keel_times_out_and_is_counted(sc):
    sc.start_keel()
    sc.control("silent on")
    sc.start_tolvard()
    sc.wait_trace("No response from KEEL", count=2)
    sc.control("silent off")
    sc.registered()
    fails = attempts(sc.trace())
    assert fails[:2] == [(0, -35), (1, -35)]
    assert "left unanswered" in sc.keel_trace()


def test_keel_death_and_return(sc):
    sc.start_keel()
    sc.start_tolvard()
    sc.registered()
    sc.kill_keel()
    sc.wait_trace("Lost Database Environment")
    # Every interval one more attempt, each followed by a new timer.
    sc.wait_trace("Unable to connect to KEEL socket", count=3)
    sc.start_keel()
    sc.wait_trace("Successfully reregistered with KEEL")
    sc.wait_trace("Database Environment changed", count=2)

    t = sc.trace()
    after = t[t.index("Connection with keel closed"):]
    # A refusal while the new keel opens counts as a failed attempt too.
    lines = [line for line in after.splitlines()
             if "Start a timer to try to reregister" in line or
             "Unable to connect to KEEL socket" in line or
             "SDB env is invalid" in line or
             "Successfully reregistered with KEEL" in line]
    kinds = ["timer" if "Start a timer" in line else
             "ok" if "Successfully" in line else "fail" for line in lines]
    # timer, then (fail, timer)*, then ok: never two timers at once.
    assert kinds[0] == "timer" and kinds[-1] == "ok"
    body = kinds[1:-1]
    assert len(body) >= 6 and body == ["fail", "timer"] * (len(body) // 2)
    assert attempts(t) == []	# the daemon itself never had to retry
    assert sc.tolvard.poll() is None


def test_mastership_flip_reaches_the_client(sc):
    sc.start_keel()
    sc.start_tolvard()
    sc.registered()
    sc.root.write_platform(role="standby")
    sc.keel.send_signal(signal.SIGHUP)
    sc.wait_trace("Mastership changed to Standby", of=sc.keel_trace)
    sc.wait_trace(f"Send mastership Standby to tolvard[{sc.tolvard.pid}]",
                  of=sc.keel_trace)
    # The client hears it, closes, and comes back in its new role.
    sc.wait_trace("Mastership changed to Standby")
    sc.wait_trace("Successfully reregistered with KEEL")
    assert f"Registration of tolvard[{sc.tolvard.pid}] as Standby: " \
        "accepted" in sc.keel_trace()
    # Told to go is not dead.
    assert "Lost connection with tolvard" not in sc.keel_trace()


@pytest.mark.parametrize("hexbytes,line", [
    ("09000000", "Invalid message type 9"),
    ("0500000007000000", "Invalid mastership value 7"),
    ("0000", "Failed to recv nread=2, expected=4"),
    ("000000000100", "Failed to recv nread=6, expected=20"),
])
def test_bad_bytes_from_keel(sc, hexbytes, line):
    sc.start_keel()
    sc.start_tolvard()
    sc.registered()
    sc.control("send " + hexbytes)
    sc.wait_trace(line)
    sc.wait_trace("Lost Database Environment")
    sc.wait_trace("Successfully reregistered with KEEL")
    assert sc.tolvard.poll() is None
    assert "LIBSDB_KEEL_MESSAGE_INVALID" in sc.root.event_tags()


def test_dropped_connection_comes_back(sc):
    sc.start_keel()
    sc.start_tolvard()
    sc.registered()
    sc.control("drop")
    sc.wait_trace("Connection with keel closed")
    sc.wait_trace("Successfully reregistered with KEEL")


def registration(name=b"pyclient", pid=None, flags=1, issu_capable=0,
                 reserved=b"\0\0", error=0, recovery=0, issu_state=0,
                 text_len=0, text=b""):
    return REG.pack(0, name, pid or os.getpid(), flags, issu_capable,
                    reserved, error, recovery, issu_state, 0, text_len, text)


def raw_client(root):
    s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    s.settimeout(GENEROUS)
    s.connect(str(root.file("/var/run/keel_server_communication")))
    return s


def recv_all(s, n):
    data = b""
    while len(data) < n:
        chunk = s.recv(n - len(data))
        if not chunk:
            break
        data += chunk
    return data


def test_registration_layout_and_answers(sc):
    assert REG.size == 224 and ANSWER.size == 20
    sc.start_keel()
    cases = [
        (dict(flags=0x03), 1, 0),            # master, as keel is
        (dict(flags=0x01), 0, -31),          # standby view: mismatch
    ]
    for kw, ok, status in cases:
        s = raw_client(sc.root)
        s.sendall(registration(**kw))
        typ, flags, st, daemon, chassis = ANSWER.unpack(recv_all(s, 20))
        assert (typ, flags & 1, st) == (0, ok, status), kw
        s.close()
    sc.root.write_platform(role="master", session_db=0)
    s = raw_client(sc.root)
    s.sendall(registration(flags=0x03))
    assert ANSWER.unpack(recv_all(s, 20))[2] == -17
    s.close()


@pytest.mark.parametrize("payload,reason", [
    (struct.pack("=I", 99), "Invalid message: type=99"),
    (registration(name=b"x" * 64), "process name not terminated"),
    (registration(flags=0x81), "unknown flags"),
    (registration(reserved=b"\1\0"), "reserved bytes set"),
    (registration(text_len=200), "ISSU text too long"),
    (registration(issu_state=9), "ISSU state out of range"),
    (registration(error=5), "error code in a registration"),
    (struct.pack("=I", 2), "message before registration"),
    (registration()[:100], "connection ended inside a message"),
])
def test_malformed_registration_closes_only_that_connection(sc, payload,
                                                             reason):
    sc.start_keel()
    sc.start_tolvard()
    sc.registered()
    s = raw_client(sc.root)
    s.sendall(payload)
    if reason == "connection ended inside a message":
        s.shutdown(socket.SHUT_WR)
    assert s.recv(64) == b""	# keel hung up without an answer
    s.close()
    sc.wait_trace(reason, of=sc.keel_trace)
    assert "KEEL_CLIENT_MESSAGE_INVALID" in sc.root.event_tags()
    # keel is still there for everybody else.
    assert sc.keel.poll() is None
    assert any(line.startswith("tolvard ") for line in sc.control("clients"))


def test_lost_client_is_released(sc):
    sc.start_keel()
    s = raw_client(sc.root)
    s.sendall(registration(name=b"pydead", flags=0x03))
    assert ANSWER.unpack(recv_all(s, 20))[1] & 1
    s.close()
    sc.wait_trace(f"Lost connection with pydead[{os.getpid()}]",
                  of=sc.keel_trace)
    sc.wait_trace(f"sdb_lts_release_dead({os.getpid()}): 0", of=sc.keel_trace)

    s = raw_client(sc.root)
    s.sendall(registration(name=b"pybye", flags=0x03))
    assert ANSWER.unpack(recv_all(s, 20))[1] & 1
    s.sendall(registration(name=b"pybye", flags=0x02, error=3))
    s.close()
    sc.wait_trace("Unregistration of pybye", of=sc.keel_trace)
    time.sleep(0.5)
    assert "Lost connection with pybye" not in sc.keel_trace()


def test_killed_client_is_released(sc):
    sc.start_keel()
    sc.start_tolvard()
    sc.registered()
    pid = sc.tolvard.pid
    sc.tolvard.send_signal(signal.SIGKILL)
    sc.tolvard.wait(timeout=GENEROUS)
    sc.wait_trace(f"Lost connection with tolvard[{pid}]", of=sc.keel_trace)
    sc.wait_trace(f"sdb_lts_release_dead({pid}): 0", of=sc.keel_trace)
    sc.wait_trace(f"sdb_db_secondary_failcheck after tolvard[{pid}]",
                  of=sc.keel_trace)
    assert sc.control("clients") == []


def test_chassis_issu_phase_reaches_the_daemon_and_back(sc):
    sc.start_keel()
    sc.start_tolvard()
    sc.registered()
    sc.control("issu 1")
    sc.wait_trace("Received ISSU message <DAEMON_ISSU_PREPARE>, daemon "
                  "state <IDLE>")
    # Whatever the daemon decided, its new state came back to keel.
    sc.wait_trace("Send ISSU message <")
    sc.wait_trace(f"ISSU state of tolvard[{sc.tolvard.pid}]: <",
                  of=sc.keel_trace)
    assert sc.tolvard.poll() is None
