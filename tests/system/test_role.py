"""Role and switchover control, and tolvard's local barrier socket.

The scenarios with two engines run in the lab (tools/lab/tolvar-lab): real
keel and tolvard daemons in their own network and IPC namespaces, under a
supervisor that starts a daemon again when it exits.  Each test has its
own lab name, directory and subnet and takes the lab down when it ends.
TOLVAR_TEST_TIMESCALE shortens the 30 second restart delay.

After every lab scenario the standby's session id must have caught up with
the master's once the link is up again: nothing the master handed out may
be handed out again after a switchover.

The malformed-input tests need only one daemon: a tolvard in its own root
and IPC namespace, without keel, answers every barrier at once.
"""
import itertools
import os
import pathlib
import shutil
import signal
import socket
import struct
import subprocess
import tempfile
import time

import pytest

from conftest import BIN, TOP, program, wait_for

LAB = TOP / "tools/lab/tolvar-lab"
LINK_UP = "Mirroring connection up"
LINK_LOST = "Lost mirroring connection"
READY = "Config read ended in status 1"
GRES = "set chassis redundancy graceful-switchover\n"
_labs = itertools.count()


def reg_msg(name=b"pytest", pid=None, flags=1, status=0):
    return struct.pack("=I64sIIi", 0, name, os.getpid() if pid is None else pid,
                       flags, status)


def ack_msg(*words):
    return struct.pack(f"=II{len(words)}I", 1, len(words), *words)


def recv_exactly(sock, n, timeout=20):
    sock.settimeout(timeout)
    data = b""
    while len(data) < n:
        chunk = sock.recv(n - len(data))
        if not chunk:
            break
        data += chunk
    return data


def closed_by_peer(sock, timeout=20):
    sock.settimeout(timeout)
    try:
        return sock.recv(1) == b""
    except ConnectionResetError:
        return True


ACKED = "barrier: acknowledged by the standby"
AT_ONCE = "no standby connected: answered at once"


class Lab:
    """Two engines; re0 starts as master, re1 as standby."""

    def __init__(self, timescale, extra_env=None):
        if os.geteuid() != 0:
            pytest.skip("the lab needs root")
        for p in ("keel", "tolvard", "sdbctl"):
            program(p)
        n = next(_labs)
        # A short directory: the local socket's path must fit a sockaddr_un.
        self.dir = pathlib.Path(tempfile.mkdtemp(prefix="trl", dir="/tmp"))
        self.env = dict(os.environ,
                        TOLVAR_BIN=str(BIN),
                        TOLVAR_LAB_DIR=str(self.dir),
                        TOLVAR_LAB_NAME=f"tr{os.getpid() % 1000}x{n}",
                        TOLVAR_LAB_SUBNET=f"10.{100 + os.getpid() % 100}.{n % 250}",
                        TOLVAR_LAB_RESTART_DELAY="0.1",
                        TOLVAR_TEST_TIMESCALE=str(timescale),
                        **(extra_env or {}))
        self.stopped = []

    def run(self, *args, check=True, timeout=60):
        res = subprocess.run([str(LAB), *args], env=self.env,
                             capture_output=True, text=True, timeout=timeout)
        if check:
            assert res.returncode == 0, res.stdout + res.stderr
        return res

    def up(self):
        self.run("up")
        wait_for(lambda: all(READY in self.trace(e) for e in ("re0", "re1")))
        if "mirror link not built yet" in self.trace("re0"):
            pytest.skip("tolvard's record channel (the mirror link set-up "
                        "and the entry pool) is not in this build yet")
        self.wait_link(count=1)

    def down(self):
        for pid in self.stopped:
            try:
                os.kill(pid, signal.SIGCONT)
            except ProcessLookupError:
                pass
        self.run("down", check=False)
        shutil.rmtree(self.dir, ignore_errors=True)

    # What an engine left behind ------------------------------------------

    def root(self, e):
        return self.dir / e / "root"

    def trace(self, e):
        p = self.root(e) / "var/log/tolvard"
        return p.read_text(errors="replace") if p.exists() else ""

    def count(self, e, text):
        return self.trace(e).count(text)

    def wait_trace(self, e, text, count=1, timeout=30):
        ok = wait_for(lambda: self.count(e, text) >= count, timeout=timeout)
        assert ok, f"{e}: no {count}x \"{text}\" in:\n{self.trace(e)[-4000:]}"

    def event_tags(self, e):
        p = self.root(e) / "var/log/events"
        if not p.exists():
            return []
        return [f[3] for f in (line.split("\t")
                               for line in p.read_text().splitlines())
                if len(f) >= 6]

    def supervisor_log(self, e):
        p = self.dir / e / "supervisor.log"
        return p.read_text() if p.exists() else ""

    def pid(self, e, prog="tolvard"):
        try:
            return int((self.dir / e / f"{prog}.pid").read_text())
        except (OSError, ValueError):
            return None

    def supervisor(self, e):
        return int((self.dir / e / "supervisor.pid").read_text())

    def role(self, e):
        text = (self.root(e) / "etc/tolvar/platform").read_text()
        return "master" if "role = master" in text else "standby"

    def master(self):
        return "re0" if self.role("re0") == "master" else "re1"

    def standby(self):
        return "re1" if self.master() == "re0" else "re0"

    # Acting on an engine --------------------------------------------------

    def signal(self, e, sig, prog="tolvard"):
        os.kill(self.pid(e, prog), sig)

    def freeze(self, pid):
        os.kill(pid, signal.SIGSTOP)
        self.stopped.append(pid)

    def thaw(self, pid):
        os.kill(pid, signal.SIGCONT)
        self.stopped.remove(pid)

    def set_gres(self, e, on):
        (self.root(e) / "etc/tolvar/config").write_text(GRES if on else "")

    def exec(self, e, *cmd, check=True):
        res = self.run("exec", e, *cmd, check=False)
        if check:
            assert res.returncode == 0, f"{cmd}: {res.stdout}{res.stderr}"
        return res

    def barrier_proc(self, e, *words):
        return subprocess.Popen([str(LAB), "exec", e, "sdbctl", "barrier",
                                 *map(str, words)], env=self.env,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                text=True)

    def generate(self, e, n):
        out = self.exec(e, "sdbctl", "id", "generate", str(n)).stdout.split()
        return [int(x) for x in out]

    def session_id(self, e):
        return int(self.exec(e, "sdbctl", "id", "show").stdout.split()[-1])

    def wait_link(self, count):
        for e in ("re0", "re1"):
            self.wait_trace(e, LINK_UP, count)

    def assert_standby_caught_up(self):
        """Once the link is up the standby is never behind the master."""
        m, s = self.master(), self.standby()
        wait_for(lambda: self.count(m, LINK_UP) > self.count(m, LINK_LOST),
                 timeout=30)
        self.generate(m, 2)
        out = self.exec(m, "sdbctl", "barrier", "-t", "30").stdout
        assert ACKED in out
        want = self.session_id(m)
        assert wait_for(lambda: self.session_id(s) >= want, timeout=10), \
            f"standby {s} at {self.session_id(s)}, master {m} at {want}"


@pytest.fixture
def lab():
    labs = []

    def make(timescale=100, extra_env=None):
        lab = Lab(timescale, extra_env)
        labs.append(lab)
        lab.up()
        return lab

    yield make
    for lab in labs:
        lab.down()


# Graceful switchover turned off and on ---------------------------------------

def test_gres_off_and_on_master_keeps_database_and_link(lab):
    lab = lab()
    pid = lab.pid("re0")
    lab.set_gres("re0", False)
    lab.signal("re0", signal.SIGHUP)
    lab.wait_trace("re0", "Graceful Switchover disabled")
    lab.wait_trace("re0", "Replication IS NOT ready")
    # Without graceful switchover there is nothing to wait for.
    res = lab.exec("re0", "sdbctl", "barrier", "-t", "20", "5", check=False)
    assert res.returncode == 3 and AT_ONCE in res.stderr
    assert "Send ACK, gres disabled, mirror connection up, db up" in lab.trace("re0")

    lab.set_gres("re0", True)
    lab.signal("re0", signal.SIGHUP)
    lab.wait_trace("re0", "Graceful Switchover enabled")
    lab.wait_trace("re0", "Replication IS ready", 2)
    assert ACKED in lab.exec("re0", "sdbctl", "barrier", "-t", "20").stdout
    assert "Server, waiting for ACK" in lab.trace("re0")

    # Same process, same database, same link all along.
    assert lab.pid("re0") == pid
    assert "Restarting in" not in lab.trace("re0")
    assert "Successfully closed SDB" not in lab.trace("re0")
    assert lab.count("re0", LINK_LOST) == 0
    lab.assert_standby_caught_up()


def test_gres_off_and_on_standby_restarts_clean(lab):
    lab = lab()
    pid = lab.pid("re1")
    lab.set_gres("re1", False)
    lab.signal("re1", signal.SIGHUP)
    lab.wait_trace("re1", "Graceful Switchover disabled")
    lab.wait_trace("re1", "Restarting in 30 seconds")
    lab.wait_trace("re1", "tolvard restarting as standby")
    assert wait_for(lambda: "tolvard exited with status 0"
                    in lab.supervisor_log("re1"))
    assert wait_for(lambda: lab.pid("re1") not in (None, pid))
    # The new process reads the configuration and sets up no link.
    lab.wait_trace("re1", "No Mirroring Init, Graceful Switchover not configured")
    assert "TOLVARD_MIRROR_NO_GRES" in lab.event_tags("re1")
    lab.wait_trace("re0", LINK_LOST)
    trace = lab.trace("re1")
    assert trace.index("Graceful Switchover disabled") < \
        trace.index("Successfully closed SDB") < trace.index("Restarting in")

    lab.set_gres("re1", True)
    lab.signal("re1", signal.SIGHUP)
    lab.wait_trace("re1", "Graceful Switchover enabled")
    lab.wait_link(count=2)
    lab.assert_standby_caught_up()


# Mastership changes ------------------------------------------------------------

def test_standby_becomes_master_in_place(lab):
    lab = lab()
    before = lab.generate("re0", 5)[-1]
    assert ACKED in lab.exec("re0", "sdbctl", "barrier", "-t", "20").stdout
    assert lab.session_id("re1") >= before
    pid = lab.pid("re1")
    opens = lab.count("re1", "Database Environment changed")

    lab.run("switchover")
    lab.wait_trace("re1", "Switching from Standby to Master")
    lab.wait_trace("re1", "Database Environment changed", opens + 1)
    assert lab.pid("re1") == pid
    after = lab.generate("re1", 3)
    assert min(after) > before, "the new master handed out an old id"
    lab.wait_link(count=2)
    lab.assert_standby_caught_up()


def test_master_becomes_standby_by_restart(lab):
    lab = lab()
    pid = lab.pid("re0")
    lab.run("switchover")
    lab.wait_trace("re0", "Mastership change, Graceful Switchover configured")
    lab.wait_trace("re0", "Switching from Master to Standby")
    lab.wait_trace("re0", "Restarting in 30 seconds")
    lab.wait_trace("re0", "tolvard restarting as standby")
    assert wait_for(lambda: "tolvard exited with status 0"
                    in lab.supervisor_log("re0"))
    assert wait_for(lambda: lab.pid("re0") not in (None, pid))
    lab.wait_trace("re0", "Init: We are StandBy")
    trace = lab.trace("re0")
    # A role change reads no configuration on that signal.
    switch = trace.index("Switching from Master to Standby")
    end = trace.index("tolvard restarting as standby", switch)
    assert "=== Begin reloading configuration ===" not in trace[switch:end]
    assert trace.index("Successfully closed SDB", switch) < \
        trace.index("Restarting in", switch)
    lab.wait_link(count=2)
    lab.assert_standby_caught_up()


def test_back_to_master_before_standby_closed_down(lab):
    # 30 s become 10 s: room enough to switch back before the restart.
    lab = lab(timescale=3)
    lab.generate("re0", 4)
    lab.run("switchover")
    lab.wait_trace("re0", "Restarting in 30 seconds")
    pid = lab.pid("re0")
    # A standby waiting to restart is not ready: only a forced switchover,
    # the new master dying, takes the engine back inside the window.
    res = lab.run("switchover", check=False)
    assert res.returncode == 1 and "restarts in" in res.stderr
    lab.run("switchover", "--force")
    lab.wait_trace("re0", "GRES switched back to master, before standby closed down")
    lab.wait_trace("re0", "tolvard restarting as master")
    assert "TOLVARD_GRES_BACK_TO_MASTER" in lab.event_tags("re0")
    assert wait_for(lambda: lab.pid("re0") not in (None, pid))
    lab.wait_trace("re0", "Init: We are Master")
    # re1 was master for a moment, died and comes back as standby.
    lab.wait_trace("re1", "Switching from Standby to Master")
    lab.wait_trace("re1", "Init: We are StandBy", 2, timeout=60)
    assert lab.master() == "re0"
    lab.assert_standby_caught_up()


# The barrier -----------------------------------------------------------------------

def test_barrier_answered_at_once_when_link_down(lab):
    lab = lab()
    # Hold re1's supervisor so that the killed standby stays away.
    sup = lab.supervisor("re1")
    lab.freeze(sup)
    lab.signal("re1", signal.SIGKILL)
    lab.wait_trace("re0", LINK_LOST)
    res = lab.exec("re0", "sdbctl", "barrier", "-t", "20", "1", "2",
                   check=False)
    assert res.returncode == 3 and AT_ONCE in res.stderr
    assert "Send ACK, gres enabled, mirror connection down, db up" \
        in lab.trace("re0")
    lab.thaw(sup)
    lab.wait_link(count=2)
    lab.assert_standby_caught_up()


def test_barrier_held_while_standby_frozen_released_by_its_ack(lab):
    # Unscaled, the keepalive (60 s) cannot end the link while the standby
    # is frozen: only what the test does next can.
    lab = lab(timescale=1)
    standby = lab.pid("re1")
    waits = lab.count("re0", "Server, waiting for ACK")
    lab.freeze(standby)
    proc = lab.barrier_proc("re0", 7, 8, 9)
    try:
        lab.wait_trace("re0", "Server, waiting for ACK", waits + 1)
        # A frozen standby cannot acknowledge: nothing was answered.
        assert proc.poll() is None
        assert lab.count("re0", "Server Send ACK 20 bytes") == 0
        lab.thaw(standby)
        out, _ = proc.communicate(timeout=30)
    finally:
        proc.kill()
    assert proc.returncode == 0 and f"{ACKED}, 20 bytes" in out
    assert ", reason 0" in lab.trace("re0")
    assert lab.count("re0", LINK_LOST) == 0
    lab.assert_standby_caught_up()


def test_barrier_held_while_standby_frozen_released_by_link_loss(lab):
    # Unscaled, the keepalive (60 s) cannot end the link while the standby
    # is frozen: only what the test does next can.
    lab = lab(timescale=1)
    standby = lab.pid("re1")
    waits = lab.count("re0", "Server, waiting for ACK")
    lab.freeze(standby)
    proc = lab.barrier_proc("re0", 1)
    try:
        lab.wait_trace("re0", "Server, waiting for ACK", waits + 1)
        assert proc.poll() is None
        # The frozen standby dies: its socket closes, the link drops.
        os.kill(standby, signal.SIGKILL)
        lab.stopped.remove(standby)
        _, err = proc.communicate(timeout=30)
    finally:
        proc.kill()
    assert proc.returncode == 4
    assert "link lost before the standby acknowledged" in err
    assert lab.count("re0", LINK_LOST) >= 1
    lab.wait_link(count=2)
    lab.assert_standby_caught_up()


def test_two_acks_in_one_read_are_two_barriers(lab):
    lab = lab()
    path = lab.root("re0") / "var/run/tolvard_server_communication"
    first, second = ack_msg(0xA1), ack_msg(0xB1, 0xB2)
    acks = lab.count("re0", "Mirroring ACK for")
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as s:
        s.connect(str(path))
        s.sendall(reg_msg() + first + second)
        echo = recv_exactly(s, len(first) + len(second))
    assert echo == first + second
    trace = lab.trace("re0")
    assert f"Server Recv {80 + len(first) + len(second)} bytes" in trace
    assert trace.count("Server, waiting for ACK") >= 2
    assert lab.count("re0", "Mirroring ACK for") >= acks + 2
    lab.assert_standby_caught_up()


# Malformed local messages: one daemon, no keel ---------------------------------

class LoneDaemon:
    """A tolvard without keel or peer: every barrier is answered at once."""

    def __init__(self):
        tolvard = program("tolvard")
        self.dir = pathlib.Path(tempfile.mkdtemp(prefix="trd", dir="/tmp"))
        for d in ("etc/tolvar", "var/run", "var/log", "var/tmp", "var/db",
                  "mfs/var/tmp"):
            (self.dir / d).mkdir(parents=True)
        (self.dir / "etc/tolvar/config").write_text(GRES)
        (self.dir / "etc/tolvar/platform").write_text("role = master\n")
        env = dict(os.environ, TOLVAR_ROOT=str(self.dir))
        self.proc = subprocess.Popen(
            ["unshare", "--ipc", "--", tolvard, "-N"], env=env,
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL)
        self.path = self.dir / "var/run/tolvard_server_communication"
        assert wait_for(lambda: self.path.exists() and
                        "Trace init" in self.trace()), self.trace()

    def trace(self):
        p = self.dir / "var/log/tolvard"
        return p.read_text(errors="replace") if p.exists() else ""

    def connect(self):
        s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        s.connect(str(self.path))
        return s

    def stop(self):
        self.proc.terminate()
        try:
            self.proc.wait(timeout=10)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            self.proc.wait()
        shutil.rmtree(self.dir, ignore_errors=True)


@pytest.fixture
def lone():
    if os.geteuid() != 0:
        pytest.skip("tolvard must run as root")
    d = LoneDaemon()
    yield d
    d.stop()


MALFORMED = [
    (b"\x01\x00\x00", "Server failed to recv, too small 3, min 8"),
    (struct.pack("=II", 7, 0), "Server failed msg decode, unknown msg type 7"),
    (reg_msg()[:40], "Server failed reg msg decode expected 80, have 40"),
    (struct.pack("=II", 1, 1000), "Server failed ack msg decode expected 4008, have 8"),
    (struct.pack("=II", 1, 0x40000000),
     "Server failed ack msg decode expected 2147483647, have 8"),
    (ack_msg(3) + b"\x09\x00", "Server failed to recv, too small 2, min 8"),
]


def test_malformed_messages_end_only_their_connection(lone):
    keeper = lone.connect()
    keeper.sendall(reg_msg(b"keeper"))
    for payload, complaint in MALFORMED:
        with lone.connect() as bad:
            bad.sendall(payload)
            # Whatever came before the bad bytes was still served.
            if payload.startswith(ack_msg(3)):
                assert recv_exactly(bad, 12) == ack_msg(3)
            assert closed_by_peer(bad), complaint
        assert wait_for(lambda: complaint in lone.trace()), \
            f"{complaint!r} not in:\n{lone.trace()[-3000:]}"
        # The daemon goes on serving the client that behaved.
        keeper.sendall(ack_msg(0xC0FFEE))
        assert recv_exactly(keeper, 12) == ack_msg(0xC0FFEE)
    assert lone.proc.poll() is None
    # A wait for nothing: the link is down, so the answer came at once.
    assert "Send ACK, gres enabled, mirror connection down, db up" \
        in lone.trace()
    keeper.close()


def test_empty_ack_and_process_list(lone):
    named = lone.connect()
    named.sendall(reg_msg(b"tessd", pid=4242, flags=1) + ack_msg())
    assert recv_exactly(named, 8) == ack_msg()
    unnamed = lone.connect()
    unnamed.sendall(ack_msg(1))
    assert recv_exactly(unnamed, 12) == ack_msg(1)
    assert "REG: ACK, conn" in lone.trace() and ", tessd, pid 4242, transiton up" \
        in lone.trace()
    os.kill(lone.proc.pid, signal.SIGPWR)	# SIGINFO on this platform
    assert wait_for(lambda: "-- TOLVAR process list, 2 conn(s), 1 ack --"
                    in lone.trace()), lone.trace()[-2000:]
    trace = lone.trace()
    assert ", tessd, pid 4242, status up" in trace
    assert "UNKNOWN conn" in trace
    named.close()
    unnamed.close()


def set_role(lab, e, role):
    p = lab.root(e) / "etc/tolvar/platform"
    text = "".join(f"role = {role}\n" if line.startswith("role") else line + "\n"
                   for line in p.read_text().splitlines())
    tmp = p.with_suffix(".new")
    tmp.write_text(text)
    os.replace(tmp, p)


def refused(path):
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as s:
        try:
            s.connect(str(path))
        except (ConnectionRefusedError, FileNotFoundError):
            return True
    return False


def test_master_to_none_waits_for_reboot_then_fails(lab):
    lab = lab()
    pid = lab.pid("re0")
    set_role(lab, "re0", "none")
    lab.signal("re0", signal.SIGHUP)
    lab.wait_trace("re0", "Switching from Master to None")
    assert wait_for(lambda: "TOLVARD_GRES_SWITCH_TO_NONE" in lab.event_tags("re0"))
    # Nobody is left waiting on a daemon that blocks: the socket is shut.
    sock = lab.root("re0") / "var/run/tolvard_server_communication"
    assert wait_for(lambda: refused(sock) or lab.pid("re0") != pid)
    # 900 s, scaled: then the engine evidently did not reboot.
    assert wait_for(lambda: "TOLVARD_GRES_REBOOT_FAIL" in lab.event_tags("re0"),
                    timeout=60)
    assert wait_for(lambda: "tolvard exited with status 1"
                    in lab.supervisor_log("re0"))
    lab.wait_trace("re0", "Init: We are neither Master nor StandBy")
    # Its signal handlers are in place once it has tried the link.
    lab.wait_trace("re0", "We are neither Master nor Standby")
    # Master again: the restarted daemon takes the role in place.
    set_role(lab, "re0", "master")
    lab.signal("re0", signal.SIGHUP)
    lab.wait_trace("re0", "Switching from None to Master")
    lab.assert_standby_caught_up()


def test_sigterm_ends_the_wait_for_reboot(lab):
    lab = lab(timescale=1)
    set_role(lab, "re0", "none")
    lab.signal("re0", signal.SIGHUP)
    assert wait_for(lambda: "TOLVARD_GRES_SWITCH_TO_NONE" in lab.event_tags("re0"))
    lab.signal("re0", signal.SIGINFO if hasattr(signal, "SIGINFO")
               else signal.SIGPWR)
    lab.signal("re0", signal.SIGTERM)
    assert wait_for(lambda: "tolvard exited with status 0"
                    in lab.supervisor_log("re0"), timeout=30)
    assert "TOLVARD_GRES_REBOOT_FAIL" not in lab.event_tags("re0")
    assert "received SIGTERM signal" in lab.trace("re0")


def test_client_gone_while_waiting_is_never_answered(lab):
    lab = lab()
    standby = lab.pid("re1")
    path = lab.root("re0") / "var/run/tolvard_server_communication"
    lab.freeze(standby)
    waits = lab.count("re0", "Server, waiting for ACK")
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as s:
        s.connect(str(path))
        s.sendall(reg_msg(b"leaver") + ack_msg(42))
        lab.wait_trace("re0", "Server, waiting for ACK", waits + 1)
    lab.wait_trace("re0", "Term: Remove entry")
    acks = lab.count("re0", "Mirroring ACK for")
    lab.thaw(standby)
    # The entry runs out with the channel, and finds nobody to answer.
    lab.wait_trace("re0", "Mirroring ACK for", acks + 1)
    assert "Server Send ACK 12 bytes" not in lab.trace("re0")
    assert "Server failed to Send" not in lab.trace("re0")
    lab.assert_standby_caught_up()


def test_barriers_beyond_the_entry_limit_are_answered_at_once(lab):
    lab = lab()
    standby = lab.pid("re1")
    path = lab.root("re0") / "var/run/tolvard_server_communication"
    # 1000 barriers wait on ten clients (a burst of answers to one client
    # would outrun its socket buffer); there are at most 1001 entries.
    sent = [[ack_msg(c, i) for i in range(100)] for c in range(10)]
    extra = [ack_msg(99, i) for i in range(10)]
    waits = lab.count("re0", "Server, waiting for ACK")
    lab.freeze(standby)
    clients = []
    try:
        for msgs in sent:
            s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            clients.append(s)
            s.connect(str(path))
            s.sendall(b"".join(msgs))
        lab.wait_trace("re0", "Server, waiting for ACK", waits + 1000)
        late = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        clients.append(late)
        late.connect(str(path))
        late.sendall(b"".join(extra))
        lab.wait_trace("re0", "Max messages hit")
        # With no entry left there is nothing to wait on: answered now,
        # while the standby is still frozen.
        now = recv_exactly(late, 9 * 16)
        assert len(now) == 9 * 16
        lab.thaw(standby)
        for s, msgs in zip(clients, sent):
            want = b"".join(msgs)
            assert recv_exactly(s, len(want), timeout=30) == want
        rest = recv_exactly(late, 16, timeout=30)
    finally:
        for s in clients:
            s.close()
    # Every barrier was answered once, with its own bytes.
    got = sorted(now[i:i + 16] for i in range(0, len(now), 16)) + [rest]
    assert sorted(got) == sorted(extra)
    assert "Max messages hit" in lab.trace("re0")
    lab.assert_standby_caught_up()


def test_standby_that_started_without_role_follows_once_it_has_one(lab):
    lab = lab()
    set_role(lab, "re1", "none")
    pid = lab.pid("re1")
    lab.run("kill", "re1", "tolvard")
    assert wait_for(lambda: lab.pid("re1") not in (None, pid))
    lab.wait_trace("re1", "Init: We are neither Master nor StandBy")
    lab.wait_trace("re1", "We are neither Master nor Standby")
    first = lab.generate("re0", 3)
    set_role(lab, "re1", "standby")
    lab.signal("re1", signal.SIGHUP)
    lab.wait_trace("re1", "Switching from None to Standby")
    lab.wait_link(count=2)
    lab.assert_standby_caught_up()
    # Now a switchover hands out nothing the old master already gave.
    lab.run("switchover")
    lab.wait_trace("re1", "Switching from Standby to Master")
    assert min(lab.generate("re1", 3)) > max(first)


def keel_control(lab, e, command):
    """One command on keel's test control socket; its output lines."""
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as s:
        s.settimeout(20)
        s.connect(str(lab.root(e) / "var/run/keel_test_control"))
        s.sendall(command.encode() + b"\n")
        data = b""
        while chunk := s.recv(4096):
            data += chunk
    lines = data.decode().splitlines()
    assert lines and lines[-1] == "ok", (command, lines)
    return lines[:-1]


def test_issu_waits_for_replication_and_goes_on_when_ready(lab):
    lab = lab(extra_env={"TOLVAR_KEEL_TEST_CONTROL": "1"})
    # In step: the prepare is answered at once, without a reason.
    keel_control(lab, "re0", "issu 1")
    lab.wait_trace("re0", "Send ISSU message <READY>")
    assert "Waiting for repository sync" not in lab.trace("re0")
    keel_control(lab, "re0", "issu 0")

    # The standby goes away: the next step asks for the long wait ...
    sup = lab.supervisor("re1")
    lab.freeze(sup)
    lab.signal("re1", signal.SIGKILL)
    lab.wait_trace("re0", LINK_LOST)
    keel_control(lab, "re0", "issu 1")
    lab.wait_trace("re0", "Send ISSU message <PREPARE>, wait=1800 "
                   "errstr=\"Waiting for repository sync\"")
    assert lab.count("re0", "Send ISSU message <READY>") == 1
    # ... which ends the moment the standby is back and in step.
    lab.thaw(sup)
    lab.wait_trace("re0", "Send ISSU message <READY>", 2)
    trace = lab.trace("re0")
    assert trace.rindex(LINK_UP) < trace.rindex("Send ISSU message <READY>")
    lab.assert_standby_caught_up()
