"""The data queues of the mirror link between two engines.

Each engine is a mirror-driver process with its queued class (-Q, data id
4, "Driver queue"), both on 127.0.0.1: the master listens on a free port
and the standby connects to it.  A last test plays the master by hand to
send an acknowledgement whose handle was never given out.  Times are
shortened by TOLVAR_TEST_TIMESCALE=20 (retry period 100 ms).
"""
import os
import re
import signal
import socket
import struct
import subprocess
import threading
import time

import pytest

from conftest import Root, program, wait_for

TIMESCALE = 20


class Engine:
    """A mirror-driver fed on stdin, its stdout collected."""

    def __init__(self, root, port):
        self.root = root
        self.lines = []
        self._new = threading.Condition()
        self.proc = subprocess.Popen(
            [program("mirror-driver"), "-Q", "-p", str(port)],
            env=root.env(TOLVAR_TEST_TIMESCALE=TIMESCALE),
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, bufsize=1)
        threading.Thread(target=self._read, daemon=True).start()
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

    def query(self, what, pattern):
        start = len(self.lines)
        self.cmd(what)
        return self.wait(pattern, start=start)

    def qstatus(self):
        line = self.query("qstatus", r"^qstatus ")
        assert line is not None
        return {k: int(v) for k, v in (kv.split("=") for kv in line.split()[1:])}

    def stop(self):
        if self.proc.poll() is None:
            try:
                self.proc.send_signal(signal.SIGCONT)
                self.proc.kill()
            except ProcessLookupError:
                pass
        self.proc.wait(timeout=10)


def free_port():
    s = socket.socket()
    s.bind(("127.0.0.1", 0))
    port = s.getsockname()[1]
    s.close()
    return port


def balanced(engine):
    st = engine.qstatus()
    return (st["locks"] == 0 and st["lock_calls"] == st["unlock_calls"]
            and st["queued"] == 0 and st["waiting"] == 0 and st["errors"] == 0)


@pytest.fixture
def engines(tmp_path):
    """start(role) runs an engine; both roles meet on one loopback port."""
    port = free_port()
    running = []

    def start(role, name=None):
        root = Root(tmp_path / (name or role))
        root.write_platform(role=role, peer_address="127.0.0.1")
        e = Engine(root, port)
        running.append(e)
        return e

    yield start
    for e in running:
        e.stop()


def connected_pair(start):
    master = start("master")
    standby = start("standby")
    assert master.wait(r"^state 1$")
    assert standby.wait(r"^state 1$")
    for e in (master, standby):
        e.cmd("qreg")
        assert e.wait(r"^qreg-done$")
    return master, standby


def test_items_arrive_in_order_and_a_readded_item_goes_last(engines):
    master, standby = connected_pair(engines)
    standby.cmd("add 1 0 one", "add 2 0 two", "add 3 0 three",
                "update 1 0 one-latest")
    assert master.wait(r"^recv id=4 op=3 len=12 data=1:one-latest$")
    got = master.matching(r"^recv id=4 ")
    assert got == ["recv id=4 op=1 len=5 data=2:two",
                   "recv id=4 op=1 len=7 data=3:three",
                   "recv id=4 op=3 len=12 data=1:one-latest"]
    assert wait_for(lambda: balanced(standby))
    assert standby.qstatus()["lock_calls"] == 3


def test_every_acknowledged_item_hears_once(engines):
    master, standby = connected_pair(engines)
    standby.cmd("add 1 1 answered")
    assert master.wait(r"^recv id=4 op=1 len=10 data=1:answered$")
    assert standby.wait(r"^ack key=1 reason=0$")

    # The master stops reading; 50 items go out and wait for answers.
    master.proc.send_signal(signal.SIGSTOP)
    standby.cmd("qfill 100 50 200 1", "add 2 0 no-answer-wanted")
    assert standby.wait(r"^qfill rc0=0 rc1=0 rc2=50$")
    assert wait_for(lambda: standby.qstatus()["waiting"] == 50)
    master.proc.send_signal(signal.SIGKILL)
    master.proc.wait(timeout=10)
    assert standby.wait(r"^state 0$")
    assert wait_for(lambda: len(standby.matching(r"^ack key=1\d\d ")) == 50)
    acks = standby.matching(r"^ack ")
    assert acks[0] == "ack key=1 reason=0"
    assert sorted(acks[1:]) == sorted(
        f"ack key={k} reason=1" for k in range(100, 150))
    assert wait_for(lambda: balanced(standby))

    # A new master: the link comes back and nobody is told twice.
    master = engines("master", name="master2")
    assert master.wait(r"^state 1$")
    master.cmd("qreg")
    assert standby.wait(r"^qeod count=0 receiver=1$")
    assert len(standby.matching(r"^ack ")) == 51
    assert standby.qstatus()["acks1"] == 50


def test_resync_of_an_empty_and_of_a_full_class(engines):
    master = engines("master")
    standby = engines("standby")
    assert master.wait(r"^state 1$")
    master.cmd("item 1 alpha", "item 2 beta", "item 3 gamma", "qreg")
    assert master.wait(r"^qreg-done$")
    standby.cmd("qreg")
    # The master's three items come over as resync records, then the end.
    assert standby.wait(r"^qeod count=3 receiver=1$")
    assert standby.matching(r"^recv id=4 ") == [
        "recv id=4 op=4 len=7 data=1:alpha",
        "recv id=4 op=4 len=6 data=2:beta",
        "recv id=4 op=4 len=7 data=3:gamma"]
    assert master.wait(r"^qeod count=3 receiver=0$")
    # The standby has none: only the end-of-database record, count 0.
    assert master.wait(r"^qeod count=0 receiver=1$")
    assert standby.wait(r"^qeod count=0 receiver=0$")
    assert master.matching(r"^recv id=4 ") == []
    # Asked again: the same three, and the end again.
    standby.cmd("resync 4")
    assert standby.wait(r"^resync-requested rc=0$")
    assert wait_for(lambda: len(standby.matching(r"^qeod count=3 receiver=1$")) == 2)
    assert len(standby.matching(r"^recv id=4 op=4 ")) == 6
    assert wait_for(lambda: balanced(master))
    assert balanced(standby)


# A master played by hand.
def tlv(type_, value):
    head = struct.pack(">BBH", ((len(value) >> 16) << 4) | (type_ >> 8),
                       type_ & 0xFF, len(value) & 0xFFFF)
    return head + value + b"\0" * (-len(value) % 4)


def control():
    dbs = ((2, b"TOLVARD session"), (0, b"End-of-database"), (1, b"Mirror ack"),
           (3, b"Driver data"), (4, b"Driver queue"))
    subs = tlv(0, b"\0") + tlv(1, struct.pack(">HHHBB", 1, 0, 0, 0, 82))
    for i, name in dbs:
        subs += tlv(2, struct.pack(">H", i) + name)
    subs += tlv(3, struct.pack(">I", 0)) + tlv(4, struct.pack(">I", 0x20000))
    return tlv(2, subs)


def acknowledgement(data_id, handle):
    return tlv(1, tlv(0, struct.pack(">HBBII", data_id, 1, 2, 0, 0xFEEDFACE) + handle))


def test_acknowledgement_with_a_handle_never_given_closes_the_link(tmp_path):
    srv = socket.socket()
    srv.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    srv.bind(("127.0.0.1", 0))
    srv.listen(4)
    root = Root(tmp_path / "standby")
    root.write_platform(role="standby", peer_address="127.0.0.1")
    standby = Engine(root, srv.getsockname()[1])
    try:
        srv.settimeout(20)
        conn, _ = srv.accept()
        conn.settimeout(20)
        conn.sendall(control())
        assert standby.wait(r"^state 1$")
        standby.cmd("qreg")
        assert standby.wait(r"^qreg-done$")
        standby.cmd("add 7 1 waits")
        conn.sendall(acknowledgement(4, b"\xde\xad\xbe\xef"))
        closed = False
        try:
            while conn.recv(65536):
                pass
            closed = True
        except ConnectionResetError:
            closed = True
        assert closed
        conn.close()
        # Still alive, and the item that waited was answered once.
        assert standby.wait(r"^state 0$")
        assert standby.wait(r"^ack key=7 reason=1$")
        assert wait_for(lambda: balanced(standby))
        assert "MIRROR_STREAM_ERROR" in root.event_tags()
        # It comes back to a conforming peer.
        conn, _ = srv.accept()
        conn.sendall(control())
        assert wait_for(lambda: len(standby.matching(r"^state 1$")) == 2)
        conn.close()
    finally:
        standby.stop()
        srv.close()
