"""The session id word carried from master to standby, on two engines.

Each test brings up its own lab (network and IPC namespaces per engine,
joined by veth, keel and tolvard under a supervisor on each) and takes it
down again.  Protocol timers run TOLVAR_TEST_TIMESCALE times faster, so a
lost link is noticed in seconds; the 100 ms poll is not scaled.
"""
import os
import pathlib
import shutil
import struct
import subprocess
import sys
import tempfile

import pytest

from conftest import BIN, TOP, wait_for

LAB = TOP / "tools/lab/tolvar-lab"
GENEROUS = 60.0


class Lab:
    def __init__(self, **extra):
        # Short: keel's socket path below the engine's root must fit in
        # a sockaddr_un.
        self.dir = pathlib.Path(tempfile.mkdtemp(prefix="srl", dir="/tmp"))
        self.env = dict(os.environ,
                        TOLVAR_BIN=str(BIN),
                        TOLVAR_LAB_DIR=str(self.dir),
                        TOLVAR_LAB_NAME=f"sr{os.getpid() % 10000}",
                        TOLVAR_LAB_SUBNET="10.93.0",
                        TOLVAR_LAB_RESTART_DELAY="0.2",
                        TOLVAR_TEST_TIMESCALE="20")
        self.env.update({k: str(v) for k, v in extra.items()})

    lab = LAB

    def __call__(self, *args, check=True, timeout=GENEROUS):
        res = subprocess.run([str(LAB), *[str(a) for a in args]],
                             env=self.env, capture_output=True, text=True,
                             timeout=timeout)
        if check:
            assert res.returncode == 0, (args, res.stdout, res.stderr)
        return res

    def trace(self, engine):
        p = self.dir / engine / "root/var/log/tolvard"
        return p.read_text(errors="replace") if p.exists() else ""

    def ctl(self, engine, *args):
        return self("exec", engine, "sdbctl", *args).stdout.split()

    def id(self, engine):
        return int(self.ctl(engine, "id", "show")[0])

    def generate(self, count):
        return [int(x) for x in self.ctl("re0", "id", "generate", count)]

    def status_file(self, engine):
        """What the engine's tolvard last said of itself."""
        p = self.dir / engine / "root/var/run/tolvard.status"
        try:
            text = p.read_text()
        except OSError:
            return {}
        return dict(line.split("=", 1) for line in text.splitlines()
                    if "=" in line)

    def link_ups(self, engine):
        return self.trace(engine).count("Mirroring connection up")

    def wait_linked(self, before=(0, 0)):
        assert wait_for(lambda: self.link_ups("re0") > before[0] and
                        self.link_ups("re1") > before[1],
                        timeout=GENEROUS), self("status").stdout
        # keel takes clients once the master's tolvard has said that
        # replication started.
        for engine in ("re0", "re1"):
            assert wait_for(lambda: self("exec", engine, "sdbctl", "id",
                                         "show", check=False).returncode == 0,
                            timeout=GENEROUS, interval=0.1), engine


def start(**extra):
    if os.geteuid() != 0:
        pytest.skip("the lab needs root")
    for name in ("keel", "tolvard", "sdbctl"):
        if not (BIN / name).exists():
            pytest.skip(f"{name} is not built")
    lab = Lab(**extra)
    lab("up")
    return lab


def stop(lab):
    lab("down", check=False)
    shutil.rmtree(lab.dir, ignore_errors=True)


@pytest.fixture
def lab():
    lab = start()
    yield lab
    stop(lab)


def test_ids_of_the_master_reach_the_standby(lab):
    lab.wait_linked()
    ids = lab.generate(25)
    assert ids == list(range(ids[0], ids[0] + 25))
    assert wait_for(lambda: lab.id("re1") == ids[-1], timeout=GENEROUS), \
        lab.trace("re1")
    assert f"New session id {ids[-1]}" in lab.trace("re1")


def test_after_the_masters_poll_the_standby_is_not_behind(lab):
    lab.wait_linked()
    seen = []
    for _ in range(8):
        last = lab.generate(3)[-1]
        # The master's poll has picked the word up once it traces it;
        # from then on the standby holds it or a later one.
        assert wait_for(lambda: f"New Session id {last}" in lab.trace("re0")
                        or lab.id("re0") > last, timeout=GENEROUS)
        assert wait_for(lambda: lab.id("re1") >= last, timeout=GENEROUS)
        seen.append(lab.id("re1"))
        assert seen[-1] <= lab.id("re0")
    assert seen == sorted(seen)


def test_standby_catches_up_after_the_link_returns(lab):
    lab.wait_linked()
    first = lab.generate(2)[-1]
    assert wait_for(lambda: lab.id("re1") == first, timeout=GENEROUS)
    ups = (lab.link_ups("re0"), lab.link_ups("re1"))
    lab("cut")
    last = lab.generate(40)[-1]
    assert wait_for(lambda: "Lost mirroring connection" in lab.trace("re1"),
                    timeout=GENEROUS), lab.trace("re1")
    assert lab.id("re1") == first
    infos = lab.trace("re0").count("INFO msg recv, new state UP")
    lab("heal")
    lab.wait_linked(ups)
    assert wait_for(lambda: lab.id("re1") == last, timeout=GENEROUS), \
        lab.trace("re1")
    # The standby, ready again, told the master so.
    assert wait_for(lambda: lab.trace("re0").count(
        "INFO msg recv, new state UP") > infos, timeout=GENEROUS)


def test_a_session_id_sent_to_the_master_is_refused():
    if not (BIN / "tolvard-rep-peer").exists():
        pytest.skip("tolvard-rep-peer is not built")
    # re1's tolvard stays down once killed: the test peer takes its place.
    lab = start(TOLVAR_LAB_RESTART_DELAY=3600)
    try:
        lab.wait_linked()
        mine = lab.generate(3)[-1]
        assert wait_for(lambda: lab.id("re1") == mine, timeout=GENEROUS)
        lab("kill", "re1", "tolvard")
        assert wait_for(lambda: "Lost mirroring connection"
                        in lab.trace("re0"), timeout=GENEROUS)
        forged = mine + 1000000
        record = struct.pack("=BBHQ", 1, 2, 8, forged).hex()
        res = lab("exec", "re1", "tolvard-rep-peer", record, check=False,
                  timeout=GENEROUS)
        assert res.returncode == 0, (res.stdout, res.stderr, lab.trace("re0"))
        assert "acked 1 0" in res.stdout
        assert (f"SESSION ID {forged} msg recv rejected, we are master"
                in lab.trace("re0"))
        assert lab.id("re0") == mine
        # The master still hands out its own next id.
        assert lab.generate(1) == [mine + 1]
    finally:
        stop(lab)


def test_ids_made_while_a_tolvard_is_dead_arrive_after_its_restart(lab):
    lab.wait_linked()
    for engine in ("re0", "re1"):
        ups = (lab.link_ups("re0"), lab.link_ups("re1"))
        lab("kill", engine, "tolvard")
        # keel goes on serving clients while tolvard is away.
        assert wait_for(lambda: lab("exec", "re0", "sdbctl", "id", "generate",
                                    5, check=False).returncode == 0,
                        timeout=GENEROUS, interval=0.1)
        last = lab.id("re0")
        lab.wait_linked(ups)
        # A tolvard that restarts as master raises the word by its margin
        # first; the standby follows it there.
        assert wait_for(lambda: lab.id("re1") >= last and
                        lab.id("re1") == lab.id("re0"), timeout=GENEROUS), \
            (engine, lab.trace("re1"))


VERSION_2_CONTROL = """
import socket, struct, sys
s = socket.create_connection((sys.argv[1], 32006), timeout=30)
try:
    s.sendall(struct.pack(">BBHIB3x", 0, 0, 8, 2, 0))
    while s.recv(4096):
        pass
except ConnectionResetError:
    pass
"""


def test_an_engine_with_the_shared_table_exchanges_resyncs_both_ways():
    # re1's tolvard stays down once killed; a mirror-driver, whose table is
    # 2 "TOLVARD session", 0 "End-of-database", 1 "Mirror ack", takes its
    # place as standby.
    driver_bin = BIN / "mirror-driver"
    if not driver_bin.exists():
        pytest.skip("mirror-driver is not built")
    lab = start(TOLVAR_LAB_RESTART_DELAY=3600)
    driver = None
    try:
        lab.wait_linked()
        lab("kill", "re1", "tolvard")
        assert wait_for(lambda: "Lost mirroring connection"
                        in lab.trace("re0"), timeout=GENEROUS)
        driver = subprocess.Popen(
            [str(LAB), "exec", "re1", str(driver_bin)], env=lab.env,
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        out = []

        def seen(line):
            while line not in out:
                got = driver.stdout.readline()
                if not got:
                    return False
                out.append(got.rstrip("\n"))
            return True
        # tolvard answers the driver's resync with its end-of-database
        # record, and acknowledges the one that answers its own request.
        assert seen("eod count=0 receiver=1"), out
        assert seen("eod count=0 receiver=0"), out
        driver.stdin.write("peer\n")
        driver.stdin.flush()
        peer = next(line for line in iter(driver.stdout.readline, "")
                    if line.startswith("peer "))
        assert "dbs=1:Mirror ack:1,0:End-of-database:1,2:TOLVARD session:1" \
            in peer
        driver.stdin.close()
        driver.wait(timeout=GENEROUS)
        driver = None
        # The library's warnings reach tolvard's trace, and nothing else
        # of the library's own lines does.
        assert wait_for(lambda: "Lost mirroring connection" in
                        lab.trace("re0").split("Mirroring connection up")[-1],
                        timeout=GENEROUS)
        lab("exec", "re1", sys.executable, "-c", VERSION_2_CONTROL,
            "10.93.0.1", timeout=GENEROUS)
        trace = lab.trace("re0")
        assert ("mirror warning: Mirror versions on Routing Engines are "
                "incompatible: master (this system) has version 1, standby "
                "has version 2") in trace
        assert "mirror accepted" not in trace
    finally:
        if driver is not None:
            driver.kill()
        stop(lab)
