"""The data queues of the mirror link between two engines.

Each engine is a mirror-driver process with its queued class (-Q, data id
4, "Driver queue"), both on 127.0.0.1: the master listens on a free port
and the standby connects to it.  A last test plays the master by hand to
send an acknowledgement whose handle was never given out.  Times are
shortened by TOLVAR_TEST_TIMESCALE=20 (retry period 100 ms).
"""
import signal
import socket
import struct

import pytest

from conftest import Root, wait_for
from test_mirror import Driver, cntrl2, linked, read_closed, tlv

QUEUE_DBS = ((2, b"TOLVARD session"), (0, b"End-of-database"),
             (1, b"Mirror ack"), (3, b"Driver data"), (4, b"Driver queue"))


def free_port():
    s = socket.socket()
    s.bind(("127.0.0.1", 0))
    port = s.getsockname()[1]
    s.close()
    return port


def qstatus(engine):
    line = engine.query("qstatus", r"^qstatus ")
    assert line is not None
    return {k: int(v) for k, v in (kv.split("=") for kv in line.split()[1:])}


def balanced(engine):
    st = qstatus(engine)
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
        e = Driver(root, port, args=("-Q",))
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


def test_every_acknowledged_item_hears_once(engines):
    master, standby = connected_pair(engines)
    standby.cmd("add 1 1 answered")
    assert master.wait(r"^recv id=4 op=1 len=10 data=1:answered$")
    assert standby.wait(r"^ack key=1 reason=0$")

    # The master stops reading; 50 items go out and wait for answers.
    master.proc.send_signal(signal.SIGSTOP)
    standby.cmd("qfill 100 50 200 1", "add 2 0 no-answer-wanted")
    assert standby.wait(r"^qfill rc0=0 rc1=0 rc2=50$")
    assert wait_for(lambda: qstatus(standby)["waiting"] == 50)
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
    assert qstatus(standby)["acks1"] == 50


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


def test_acknowledgement_with_a_handle_never_given_closes_the_link(tmp_path):
    """A master played by hand answers a handle it was never given."""
    srv = socket.socket()
    srv.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    srv.bind(("127.0.0.1", 0))
    srv.listen(4)
    root = Root(tmp_path / "standby")
    root.write_platform(role="standby", peer_address="127.0.0.1")
    standby = Driver(root, srv.getsockname()[1], args=("-Q",))
    control = cntrl2(keepalive=0, dbs=QUEUE_DBS)
    try:
        conn = linked(srv, standby, control)
        standby.cmd("qreg")
        assert standby.wait(r"^qreg-done$")
        standby.cmd("add 7 1 waits")
        conn.sendall(tlv(1, tlv(0, struct.pack(">HBBII", 4, 1, 2, 0, 0xFEEDFACE) +
                                b"\xde\xad\xbe\xef")))
        assert read_closed(conn)
        conn.close()
        # Still alive, and the item that waited was answered once.
        assert standby.wait(r"^state 0$")
        assert standby.wait(r"^ack key=7 reason=1$")
        assert wait_for(lambda: balanced(standby))
        assert "MIRROR_STREAM_ERROR" in root.event_tags()
        # It comes back to a conforming peer.
        linked(srv, standby, control).close()
    finally:
        standby.stop()
        srv.close()
