"""tolvard against keel, as real processes.

Each scenario has its own root directory and its own IPC namespace.
keel runs with its test control socket (TOLVAR_KEEL_TEST_CONTROL=1) so that a test can make it
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
import tempfile
import time

import pytest

from conftest import Root, wait_for
from ipc_scenario import GENEROUS, IpcScenario, ipc_ns  # noqa: F401

SCALE = 20
REG = struct.Struct("=I64sIBB2sII" + "III128s")
ANSWER = struct.Struct("=IIiII")


@pytest.fixture
def root():
    # keel's socket path must fit a sockaddr_un: keep the root short.
    # Open to every user down to the sockets, so that what keeps a local
    # user out is the objects' own modes.
    path = pathlib.Path(tempfile.mkdtemp(prefix="kc-"))
    path.chmod(0o755)
    r = Root(path / "r")
    r.write_config("set chassis redundancy graceful-switchover")
    r.write_platform(role="master")
    yield r
    shutil.rmtree(path, ignore_errors=True)


class Scenario(IpcScenario):
    def start_keel(self):
        return super().start_keel(TOLVAR_KEEL_TEST_CONTROL=1)

    def start_tolvard(self):
        self.tolvard = self.spawn("tolvard", "-N",
                                  TOLVAR_TEST_TIMESCALE=SCALE)

    def control(self, command):
        """One command to keel's test control; its reply lines."""
        s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        s.settimeout(GENEROUS)
        s.connect(str(self.root.file("/var/run/keel_test_control")))
        s.sendall(command.encode() + b"\n")
        lines = s.makefile().read().splitlines()
        s.close()
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
    assert attempts(t) == [(0, -17)] and retry_delays(t) == []
    assert "Database Environment changed" not in t
    assert sc.tolvard.poll() is None


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
    sc.keel.kill()
    sc.keel.wait(timeout=GENEROUS)
    sc.wait_trace("Lost Database Environment")
    # Every interval one more attempt, each followed by a new timer.
    sc.wait_trace("Unable to connect to KEEL socket", count=3)
    sc.start_keel()
    sc.wait_trace("Successfully reregistered with KEEL")
    sc.wait_trace("Database Environment changed", count=2)

    t = sc.trace()
    # A refusal while the new keel opens counts as a failed attempt too.
    kinds = "".join(
        "T" if "Start a timer to try to reregister" in line else
        "F" if "Unable to connect to KEEL socket" in line or
        "SDB env is invalid" in line else
        "K" if "Successfully reregistered with KEEL" in line else ""
        for line in t[t.index("Connection with keel closed"):].splitlines())
    # A timer after every failure, never two at once, then success.
    assert re.fullmatch(r"T(FT){3,}K", kinds), kinds
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


def test_bad_bytes_from_keel_and_a_drop_are_survived(sc):
    sc.start_keel()
    sc.start_tolvard()
    sc.registered()
    cases = [("send 09000000", "Invalid message type 9"),
             ("send 0500000007000000", "Invalid mastership value 7"),
             ("send 0000", "Failed to recv nread=2, expected=4"),
             ("send 000000000100", "Failed to recv nread=6, expected=20"),
             ("drop", "Connection with keel closed")]
    for n, (command, line) in enumerate(cases, start=1):
        sc.control(command)
        sc.wait_trace(line)
        sc.wait_trace("Successfully reregistered with KEEL", count=n)
    assert sc.trace().count("Lost Database Environment") >= len(cases)
    assert sc.tolvard.poll() is None
    assert "LIBSDB_KEEL_MESSAGE_INVALID" in sc.root.event_tags()


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
    return s.makefile("rb").read(n)


def test_registration_layout_and_answers(sc):
    assert REG.size == 224 and ANSWER.size == 20
    sc.start_keel()
    # Master as keel is; a standby view is a mismatch; no database at all.
    for flags, ok, status, session_db in [(0x03, 1, 0, 1), (0x01, 0, -31, 1),
                                          (0x03, 0, -17, 0)]:
        sc.root.write_platform(role="master", session_db=session_db)
        s = raw_client(sc.root)
        s.sendall(registration(flags=flags))
        typ, fl, st, _, _ = ANSWER.unpack(recv_all(s, 20))
        assert (typ, fl & 1, st) == (0, ok, status), flags
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
