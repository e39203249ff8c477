"""The mirror link between two engines.

Each engine is a mirror-driver process.  Two-engine tests put them in two
network namespaces joined by a veth pair (10.99.1.1 and 10.99.1.2), the
same arrangement as the two-engine lab; tests against a hand-played peer
run on 127.0.0.1.  Times are shortened by TOLVAR_TEST_TIMESCALE=20: the
retry period is 100 ms, the keepalive expiry 3 s, the send period 0.5 s,
the slow retry after a version mismatch 3 s.
"""
import itertools
import os
import queue
import re
import signal
import socket
import struct
import subprocess
import sys
import threading
import time

import pytest

from conftest import Root, program, wait_for

TIMESCALE = 20
_names = itertools.count()


def _ip(*args, check=True):
    return subprocess.run(["ip", *args], check=check, capture_output=True,
                          text=True)


class Driver:
    """One engine: a mirror-driver fed on stdin, its stdout collected."""

    def __init__(self, root, port, netns=None, args=()):
        cmd = [program("mirror-driver"), "-p", str(port), *args]
        if netns:
            cmd = ["ip", "netns", "exec", netns, *cmd]
        self.root = root
        self.lines = []
        self._new = threading.Condition()
        self.proc = subprocess.Popen(
            cmd, env=root.env(TOLVAR_TEST_TIMESCALE=TIMESCALE),
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, bufsize=1)
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()
        assert self.wait(r"^started ")

    def _read(self):
        for line in self.proc.stdout:
            with self._new:
                self.lines.append(line.rstrip("\n"))
                self._new.notify_all()

    def cmd(self, *lines):
        """Lines in one write: the driver runs them in one turn."""
        self.proc.stdin.write("".join(line + "\n" for line in lines))
        self.proc.stdin.flush()

    def wait(self, pattern, timeout=20, start=0):
        """The first line from index start that matches, or None."""
        rx = re.compile(pattern)
        deadline = time.monotonic() + timeout
        with self._new:
            while True:
                for line in self.lines[start:]:
                    if rx.search(line):
                        return line
                left = deadline - time.monotonic()
                if left <= 0:
                    return None
                self._new.wait(left)

    def matching(self, pattern):
        rx = re.compile(pattern)
        with self._new:
            return [line for line in self.lines if rx.search(line)]

    def count(self, pattern):
        return len(self.matching(pattern))

    def mark(self):
        with self._new:
            return len(self.lines)

    def query(self, what, pattern):
        start = self.mark()
        self.cmd(what)
        return self.wait(pattern, start=start)

    def status(self):
        line = self.query("status", r"^status ")
        assert line is not None
        return dict(kv.split("=", 1) for kv in line.split()[1:])

    def stop(self):
        if self.proc.poll() is None:
            try:
                self.proc.send_signal(signal.SIGCONT)
                self.proc.kill()
            except ProcessLookupError:
                pass
        self.proc.wait(timeout=10)


class Pair:
    """Two network namespaces joined by a veth pair."""

    def __init__(self, tmp_path):
        n = next(_names)
        tag = f"{os.getpid() % 100000}{n}"
        self.ns = [f"mir{tag}a", f"mir{tag}b"]
        self.addr = ["10.99.1.1", "10.99.1.2"]
        self.tmp_path = tmp_path
        self.drivers = []
        veth = self.veth = [f"vm{tag}a", f"vm{tag}b"]
        try:
            for ns in self.ns:
                _ip("netns", "add", ns)
                _ip("-n", ns, "link", "set", "lo", "up")
            _ip("link", "add", veth[0], "netns", self.ns[0], "type", "veth",
                "peer", "name", veth[1], "netns", self.ns[1])
            for ns, dev, addr in zip(self.ns, veth, self.addr):
                _ip("-n", ns, "addr", "add", f"{addr}/24", "dev", dev)
                _ip("-n", ns, "link", "set", dev, "up")
        except (subprocess.CalledProcessError, FileNotFoundError) as e:
            self.close()
            pytest.skip(f"network namespaces are not available: {e}")

    def root(self, side, role, peer_side=None, name=None):
        root = Root(self.tmp_path / (name or f"engine{side}"))
        peer = self.addr[1 - side if peer_side is None else peer_side]
        root.write_platform(role=role, peer_address=peer)
        return root

    def start(self, side, role, args=(), name=None):
        d = Driver(self.root(side, role, name=name), 32006, self.ns[side], args)
        self.drivers.append(d)
        return d

    def close(self):
        for d in self.drivers:
            d.stop()
        for ns in self.ns:
            _ip("netns", "del", ns, check=False)


@pytest.fixture
def pair(tmp_path):
    if os.geteuid() != 0:
        pytest.skip("needs root for network namespaces")
    p = Pair(tmp_path)
    yield p
    p.close()


@pytest.fixture
def loopback(tmp_path):
    """A driver on 127.0.0.1 whose peer the test plays itself."""
    drivers = []
    srv = socket.socket()
    srv.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    srv.bind(("127.0.0.1", 0))
    srv.listen(8)
    port = srv.getsockname()[1]

    def start(role="standby", args=()):
        root = Root(tmp_path / f"engine{len(drivers)}")
        root.write_platform(role=role, peer_address="127.0.0.1")
        d = Driver(root, port, None, args)
        drivers.append(d)
        return d

    yield srv, start
    for d in drivers:
        d.stop()
    srv.close()


# The stream, as a peer writes it.
def tlv(type_, value):
    head = struct.pack(">BBH", ((len(value) >> 16) << 4) | (type_ >> 8),
                       type_ & 0xFF, len(value) & 0xFFFF)
    return head + value + b"\0" * (-len(value) % 4)


def cntrl2(keepalive=60, flags=0, dbs=((2, b"TOLVARD session"),
                                       (0, b"End-of-database"),
                                       (1, b"Mirror ack"),
                                       (3, b"Driver data"))):
    subs = tlv(0, bytes([flags])) + tlv(1, struct.pack(">HHHBB", 1, 0, 0, 0, 82))
    for i, name in dbs:
        subs += tlv(2, struct.pack(">H", i) + name)
    subs += tlv(3, struct.pack(">I", keepalive))
    subs += tlv(4, struct.pack(">I", 0x20000))
    return tlv(2, subs)


def cntrl(version=1, flags=0):
    return tlv(0, struct.pack(">IB3x", version, flags))


def record(data_id, data, op=1, magic=0xFEEDFACE):
    d = tlv(0, struct.pack(">HBBII", data_id, op, 0, len(data), magic))
    padded = data + b"\0" * (-len(data) % 4)
    d += struct.pack(">BBH", 0, 1, len(padded)) + padded
    return tlv(1, d)


def accept(srv, timeout=20):
    srv.settimeout(timeout)
    conn, _ = srv.accept()
    conn.settimeout(timeout)
    return conn


def linked(srv, driver, control=None):
    """Accept the driver's connection and finish the control exchange."""
    conn = accept(srv)
    mark = driver.mark()
    conn.sendall(control or cntrl2() + cntrl())
    assert driver.wait(r"^state 1$", start=mark)
    return conn


def read_closed(conn, timeout=20):
    """Read until the driver closes; True when it did."""
    conn.settimeout(timeout)
    try:
        while conn.recv(65536):
            pass
        return True
    except ConnectionResetError:
        return True
    except socket.timeout:
        return False


# Two engines.

def test_master_without_standby_then_the_control_exchange(pair):
    master = pair.start(0, "master")
    assert master.wait(r"^state 2$")
    status = master.status()
    assert status["standby_missing"] == "1" and status["connected"] == "0"
    # A standby that comes late still connects.
    standby = pair.start(1, "standby")
    assert master.wait(r"^state 1$")
    assert standby.wait(r"^state 1$")
    peer = standby.query("peer", r"^peer ")
    assert "gen=2" in peer and "keepalive=60" in peer and "known3=1" in peer
    assert "2:TOLVARD session:1" in peer

    standby.cmd("send 2 hello master")
    assert master.wait(r"^recv id=2 op=1 len=12 data=hello master$")
    master.cmd("send 3 hello standby")
    assert standby.wait(r"^recv id=3 op=1 len=13 data=hello standby$")
    status = master.status()
    assert status["connected"] == "1" and status["standby_missing"] == "0"


def test_bulk_records_arrive_whole(pair):
    master = pair.start(0, "master", args=("-q",))
    standby = pair.start(1, "standby")
    assert standby.wait(r"^state 1$")
    assert master.wait(r"^state 1$")
    # 2000 records of 1000 bytes fill many send buffers and drain in turn.
    standby.cmd("bulk 2 2000 1000")
    assert standby.wait(r"^bulk-done$", timeout=60)
    master.cmd("send 2 marker")
    standby.cmd("send 2 after")
    assert master.status()["connected"] == "1"
    assert standby.wait(r"^recv id=2 op=1 len=6 data=marker$")


def test_standby_before_master_retries_quietly(pair):
    standby = pair.start(1, "standby")
    time.sleep(0.5)          # several refused attempts
    master = pair.start(0, "master")
    assert master.wait(r"^state 1$")
    assert standby.wait(r"^state 1$")
    assert not any(line.startswith("report") for line in standby.lines)


@pytest.mark.parametrize("victim", [0, 1], ids=["master", "standby"])
def test_reconnect_after_a_peer_is_killed(pair, victim):
    roles = ("master", "standby")
    engines = [pair.start(0, "master"), pair.start(1, "standby")]
    survivor = engines[1 - victim]
    assert survivor.wait(r"^state 1$")
    mark = survivor.mark()
    engines[victim].proc.kill()
    engines[victim].proc.wait()
    assert survivor.wait(r"^state 0$", start=mark)
    again = pair.start(victim, roles[victim], name=f"engine{victim}-again")
    assert again.wait(r"^state 1$")
    assert survivor.wait(r"^state 1$", start=mark)
    again.cmd("send 2 back again")
    assert survivor.wait(r"data=back again$")


def test_frozen_peer_is_dropped_and_comes_back(pair):
    master = pair.start(0, "master")
    standby = pair.start(1, "standby")
    assert master.wait(r"^state 1$")
    mark = master.mark()
    os.kill(standby.proc.pid, signal.SIGSTOP)
    try:
        # No keepalives from a stopped process: the master gives up.
        assert master.wait(r"^state 0$", start=mark)
        assert "mirror keepalive expired" in master.root.trace("mirror-driver")
    finally:
        os.kill(standby.proc.pid, signal.SIGCONT)
    # Woken, the standby finds its connection gone and comes back.
    assert master.wait(r"^state 1$", start=mark + 1)
    assert wait_for(lambda: standby.count(r"^state 1$") == 2, timeout=20)
    assert standby.count(r"^state 0$") == 1


def switchover(driver, want_master):
    mark = driver.mark()
    driver.cmd("switchover")
    assert driver.wait(r"^switchover-done$", start=mark)
    assert driver.status()["master"] == want_master


def test_switchover_in_place(pair):
    master = pair.start(0, "master")
    standby = pair.start(1, "standby")
    assert standby.wait(r"^state 1$")
    master.proc.kill()
    master.proc.wait()
    assert standby.wait(r"^state 0$")
    # Refused while the platform still says standby.
    switchover(standby, "0")
    # The platform makes engine 1 master; the library follows in place.
    standby.root.write_platform(role="master", peer_address=pair.addr[0])
    switchover(standby, "1")
    newby = pair.start(0, "standby", name="engine0-standby")
    assert newby.wait(r"^state 1$")
    assert standby.wait(r"^state 1$")
    newby.cmd("send 2 to the new master")
    assert standby.wait(r"data=to the new master$")


def test_switchover_during_a_connect(pair):
    # The standby's peer address answers nothing: every connect hangs.
    root = pair.root(1, "standby")
    root.write_platform(role="standby", peer_address="10.99.1.3")
    standby = Driver(root, 32006, pair.ns[1])
    pair.drivers.append(standby)
    assert wait_for(lambda: "SYN-SENT" in _ip(
        "netns", "exec", pair.ns[1], "ss", "-tan").stdout)
    root.write_platform(role="master", peer_address=pair.addr[0])
    switchover(standby, "1")
    newby = pair.start(0, "standby", name="engine0-standby")
    assert newby.wait(r"^state 1$")
    assert standby.wait(r"^state 1$")


def test_first_generation_peer(pair):
    master = pair.start(0, "master")
    standby = pair.start(1, "standby", args=("-1",))
    assert master.wait(r"^state 1$")
    assert standby.wait(r"^state 1$")
    assert "gen=1" in master.query("peer", r"^peer ")
    assert "gen=2" in standby.query("peer", r"^peer ")
    standby.cmd("send 3 old")
    assert master.wait(r"data=old$")


def test_peer_without_keepalives_is_dropped_once_its_host_is_gone(pair):
    master = pair.start(0, "master")
    standby = pair.start(1, "standby", args=("-1",))
    assert master.wait(r"^state 1$")
    assert "gen=1 " in master.query("peer", r"^peer ")
    # Nothing of ours in flight: both end-of-database records answered.
    assert master.wait(r"^eod count=0 receiver=0$")
    assert master.wait(r"^eod count=0 receiver=1$")
    # The standby's host falls silent: only the kernel's probes notice.
    mark = master.mark()
    _ip("-n", pair.ns[1], "link", "set", pair.veth[1], "down")
    assert master.wait(r"^state 0$", timeout=60, start=mark)


STRANGER = """
import socket, sys
s = socket.socket()
s.bind((sys.argv[1], 0))
s.settimeout(20)
s.connect((sys.argv[2], int(sys.argv[3])))
try:
    s.sendall(bytes.fromhex(sys.argv[4]))
    while s.recv(4096):
        pass
except ConnectionResetError:
    pass
"""


def test_only_the_peer_engine_may_take_the_link(pair):
    # A third address on the standby's side that is not the peer's.
    _ip("-n", pair.ns[1], "addr", "add", "10.99.1.3/24", "dev", pair.veth[1])
    master = pair.start(0, "master")
    assert master.wait(r"^state 2$")
    res = subprocess.run(
        ["ip", "netns", "exec", pair.ns[1], sys.executable, "-c", STRANGER,
         "10.99.1.3", pair.addr[0], "32006", (cntrl2() + cntrl()).hex()],
        capture_output=True, text=True, timeout=60)
    assert res.returncode == 0, res.stderr
    assert master.wait(r"^report 1 Mirror peer 10\.99\.1\.3\.\d+: connection "
                       r"refused: the peer is 10\.99\.1\.2$")
    assert master.count(r"^state 1$") == 0
    # The listener stayed: the real standby gets in.
    standby = pair.start(1, "standby")
    assert master.wait(r"^state 1$")
    assert standby.wait(r"^state 1$")
    events = pair.drivers[0].root.events()
    assert any(tag == "MIRROR_PEER_REFUSED" for _, tag, _, _ in events)


def test_class_with_another_name_is_not_shared(pair):
    master = pair.start(0, "master")
    standby = pair.start(1, "standby", args=("-n", "Other data"))
    assert master.wait(r"^state 1$")
    peer = master.query("peer", r"^peer ")
    assert "3:Other data:2" in peer and "known3=0" in peer and "known2=1" in peer
    assert master.query("send 3 nope", r"^(sent|send-error)") == "send-error 2"


# A hand-played peer on loopback.

def test_silent_peer_is_dropped(loopback):
    srv, start = loopback
    driver = start()
    conn = linked(srv, driver)
    # Say nothing more; the driver's keepalives arrive and are ignored.
    assert driver.wait(r"^state 0$")
    assert "mirror keepalive expired" in driver.root.trace("mirror-driver")
    assert read_closed(conn)
    conn.close()
    accept(srv).close()      # and it tries again


def test_peer_that_never_speaks_is_dropped(loopback):
    srv, start = loopback
    driver = start()
    conn = accept(srv)
    # No control message ever comes: the link must not wait for it for ever.
    assert read_closed(conn)
    assert "mirror peer sent no control message" in driver.root.trace("mirror-driver")
    conn.close()
    accept(srv).close()      # and it tries again


@pytest.mark.parametrize("bad", [
    pytest.param(record(2, b"abcd", magic=0xFEEDFACF), id="magic"),
    pytest.param(tlv(1, struct.pack(">BBH", 0, 0, 8) + b"\0" * 8), id="short-def"),
    pytest.param(bytes.fromhex("f001ffff") + b"\0" * 64, id="length"),
    pytest.param(tlv(1, struct.pack(">BBH", 0, 1, 64) + b"abcd"), id="truncated"),
    pytest.param(tlv(1, struct.pack(">BBH", 0, 1, 4) + b"data"), id="unpaired"),
    pytest.param(tlv(1, tlv(2, b"\0" * 8)), id="resync-length"),
])
def test_malformed_stream_closes_the_link(loopback, bad):
    srv, start = loopback
    driver = start()
    conn = linked(srv, driver)
    conn.sendall(bad + record(2, b"never"))
    assert driver.wait(r"^state 0$")
    assert driver.wait(r"^report 2 Mirror stream error")
    assert read_closed(conn)
    assert "MIRROR_STREAM_ERROR" in driver.root.event_tags()
    assert not any("data=never" in line for line in driver.lines)
    # Nothing crashed: the driver comes back for more.
    assert driver.proc.poll() is None
    again = accept(srv)
    again.sendall(cntrl2() + cntrl() + record(2, b"fine"))
    assert driver.wait(r"data=fine$")
    again.close()
    conn.close()


def test_resync_requests_the_class_cannot_answer_are_refused(loopback):
    srv, start = loopback
    driver = start()
    conn = linked(srv, driver)
    mark = driver.mark()
    # Class 0 never resyncs, class 9 is not shared.
    for data_id in (0, 9):
        conn.sendall(tlv(1, tlv(2, struct.pack(">HH", data_id, 0))))
    assert driver.wait(r"^report 1 Mirror peer .*: resync request for data "
                       r"id 0 refused: the class has no resync$", start=mark)
    assert driver.wait(r"^report 1 Mirror peer .*: resync request for data "
                       r"id 9 refused: not a shared class$", start=mark)
    # The link stays for what the peer does share.
    conn.sendall(record(2, b"still here"))
    assert driver.wait(r"data=still here$", start=mark)
    assert driver.status()["connected"] == "1"
    assert "MIRROR_PEER_REFUSED" in driver.root.event_tags()


def test_version_mismatch_slows_the_retries(loopback):
    srv, start = loopback
    driver = start()
    # A peer that hangs up without a word: the driver retries quickly.
    for _ in range(3):
        accept(srv).close()
    # A peer of another control version: reported, then the slow retry.
    conn = accept(srv)
    conn.sendall(cntrl(version=2))
    assert driver.wait(
        r"^report 1 Mirror versions on Routing Engines are incompatible: "
        r"master has version 2, standby \(this system\) has version 1$")
    assert read_closed(conn)
    conn.close()
    # 60 s, 3 s here: nothing comes within the next 2 s however loaded the
    # machine is, and then it does come.
    srv.settimeout(2)
    with pytest.raises(socket.timeout):
        srv.accept()
    linked(srv, driver).close()


def test_terminate_closes_for_good(loopback):
    srv, start = loopback
    driver = start()
    conn = linked(srv, driver)
    driver.cmd("terminate")
    assert driver.wait(r"^terminated$")
    assert driver.wait(r"^state 0$")
    assert read_closed(conn)
    conn.close()
    # At 100 ms a retry would have come many times over.
    srv.settimeout(2)
    with pytest.raises(socket.timeout):
        srv.accept()
    assert driver.status()["connected"] == "0"
