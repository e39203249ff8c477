"""The database environment with real processes: keel, clients and locks.

Every scenario runs in an IPC namespace of its own.
"""
import os
import re
import select
import signal
import subprocess
import time

import pytest

from conftest import random_kills, wait_for
from ipc_scenario import GENEROUS, IpcScenario, ipc_ns  # noqa: F401


class Proc:
    """A process of the scenario; its stdout is read line by line."""

    def __init__(self, p):
        self.p = p
        self.fd = p.stdout.fileno()
        self.buf = b""
        self.lines = []
        self.eof = False

    def _read(self, timeout):
        """Read what is there, waiting at most timeout; False at the end."""
        if self.eof:
            return False
        r, _, _ = select.select([self.fd], [], [], max(timeout, 0))
        if not r:
            return True
        data = os.read(self.fd, 4096)
        if not data:
            self.eof = True
            return False
        self.buf += data
        *done, self.buf = self.buf.split(b"\n")
        self.lines += [line.decode() for line in done]
        return True

    def expect(self, pattern, timeout=GENEROUS):
        """Wait for a line matching pattern and consume it."""
        deadline = time.monotonic() + timeout
        while True:
            for i, line in enumerate(self.lines):
                m = re.search(pattern, line)
                if m:
                    del self.lines[i]
                    return m
            left = deadline - time.monotonic()
            if left <= 0 or not self._read(min(left, 0.5)):
                if self.eof or left <= 0:
                    raise AssertionError(
                        f"no line matching {pattern!r}; got {self.lines}")

    def has_line(self, pattern):
        self._read(0)
        return any(re.search(pattern, line) for line in self.lines)

    def kill(self):
        self.p.kill()
        self.p.wait(timeout=GENEROUS)

    def wait(self):
        return self.p.wait(timeout=GENEROUS)


class Scenario(IpcScenario):
    def client(self, *args, env=None):
        return Proc(self.spawn("sdbenv-client", *args, stdout=subprocess.PIPE,
                               **(env or {})))

    def sem(self, what, number):
        return int(self.run("sdbenv-client", what, number).stdout)


@pytest.fixture
def sc(root, ipc_ns):
    root.write_platform(role="master", scale_class=100)
    s = Scenario(root, ipc_ns)
    yield s
    s.close()


def store(root, name):
    return root.file(f"/mfs/var/sdb/shmem/{name}")


def test_client_before_keel_fails_and_makes_nothing(sc, root):
    c = sc.client("open")
    c.expect(r"^open -19 session database has not started yet$")
    assert c.wait() == 1
    assert "Failed to get shared memory" in root.trace("sdbenv-client")
    assert not store(root, "sdb.head").exists()
    assert not store(root, "sdb_intf.db").exists()

    assert sc.run("sdbctl", "status").returncode == 1


def test_clients_attach_and_closing_removes_nothing(sc, root):
    sc.start_keel()
    trace = root.trace("keel")
    assert "shared memory does not exist" in trace
    assert "semaphore does not exist" in trace
    # Scale class 100 on a small memory: 50 buckets of 20 bytes.
    assert store(root, "sdb.head").stat().st_size == 50 * 20 + 256
    assert store(root, "sdb_intf.db").stat().st_size == 409600 // 10

    holder = sc.client("hold-open")
    holder.expect("^held$")
    for _ in range(2):
        c = sc.client("open")
        for line in (r"^open 0 success$", r"^state 7$", r"^close 0$"):
            c.expect(line)
        assert c.wait() == 0
    holder.kill()

    assert store(root, "sdb.head").exists()
    assert store(root, "sdb_intf.db").exists()
    st = sc.run("sdbctl", "status")
    assert st.returncode == 0, st.stderr
    for line in ("environment state: 7 (up)", "scale class: 100",
                 "recovery status: 3 (complete)"):
        assert line in st.stdout


def test_restarted_keel_keeps_the_id_word(sc, root):
    keel = sc.start_keel()
    assert sc.run("keel", "-N").returncode == 1     # one keel at a time
    c = sc.client("id-set", "4242")
    c.expect(r"^id 0$")
    assert c.wait() == 0

    keel.send_signal(signal.SIGTERM)
    assert keel.wait(timeout=GENEROUS) == 0
    assert "keel exiting on SIGTERM" in root.trace("keel")
    keel = sc.start_keel()
    assert "shared memory exist" in root.trace("keel")
    assert "semaphore exist" in root.trace("keel")
    assert "last session id: 4242" in sc.run("sdbctl", "status").stdout

    # A keel that dies without a word is no different.
    keel.kill()
    keel.wait(timeout=GENEROUS)
    sc.start_keel()
    assert "last session id: 4242" in sc.run("sdbctl", "status").stdout


def test_killed_bucket_holder_is_taken_over_and_counted(sc, root):
    sc.start_keel()
    holder = sc.client("hold-bucket", "7")
    holder.expect("^bucket 0$")
    holder.expect("^held$")
    taker = sc.client("take-bucket", "57")  # 57 mod 50: the same bucket
    time.sleep(0.5)
    assert not taker.has_line(r"^bucket ")
    holder.kill()

    taker.expect(r"^bucket 0$")
    assert int(taker.expect(r"^owner_dead (\d+)$").group(1)) >= 1
    assert int(taker.expect(r"^locks_contended (\d+)$").group(1)) >= 1
    assert taker.wait() == 0

    # The bucket works afterwards.
    again = sc.client("take-bucket", "7")
    again.expect(r"^bucket 0$")
    assert again.wait() == 0


def test_killed_writer_of_secondary_tables_is_noticed(sc, root):
    sc.start_keel()
    writer = sc.client("hold-write")
    writer.expect("^locked 0$")
    writer.expect("^held$")
    dead_pid = writer.p.pid
    assert sc.sem("sem-value", 2) == 0
    writer.kill()

    # The kernel gave the five tokens back.
    assert wait_for(lambda: sc.sem("sem-value", 2) == 5, timeout=GENEROUS)
    nxt = sc.client("write")
    nxt.expect("^locked 0$")
    nxt.expect("^unlocked 0$")
    assert nxt.wait() == 0
    events = [e for e in root.events() if e[1] == "LIBSDB_SEC_TABLE_LOCK"]
    assert events and f"held by pid {dead_pid}," in events[0][3], events
    assert "was still open by pid" in root.trace("sdbenv-client")


def test_sixth_reader_waits(sc, root):
    sc.start_keel()
    # Everyone opens first: an open takes the tables for writing, which
    # waits for every reader.
    clients = []
    for _ in range(6):
        c = sc.client("read-on-cue")
        c.expect("^ready$")
        clients.append(c)
    readers, sixth = clients[:5], clients[5]
    for r in readers:
        r.p.send_signal(signal.SIGUSR2)
        r.expect("^locked 0$")
    assert sc.sem("sem-value", 2) == 0

    sixth.p.send_signal(signal.SIGUSR2)
    assert wait_for(lambda: sc.sem("sem-waiters", 2) == 1, timeout=GENEROUS)
    assert not sixth.has_line(r"^locked")

    readers[0].kill()
    sixth.expect("^locked 0$")
    sixth.p.send_signal(signal.SIGUSR2)
    sixth.expect("^unlocked 0$")
    assert sixth.wait() == 0


def test_semop_interrupted_by_signals_goes_on_waiting(sc, root):
    sc.start_keel()
    holder = sc.client("hold-id")
    holder.expect("^held$")
    waiter = sc.client("id-lock")
    waiter.expect("^waiting$")
    assert wait_for(lambda: sc.sem("sem-waiters", 0) == 1, timeout=GENEROUS)
    for _ in range(3):
        waiter.p.send_signal(signal.SIGUSR1)
        time.sleep(0.2)
        assert wait_for(lambda: sc.sem("sem-waiters", 0) == 1,
                        timeout=GENEROUS)
    assert not waiter.has_line(r"^locked")
    holder.kill()

    waiter.expect("^locked 0$")
    assert waiter.wait() == 0
    m = re.search(r"INFO: SDB acquire lock cnt (\d+)",
                  root.trace("sdbenv-client"))
    assert m and int(m.group(1)) >= 1


def test_hung_bucket_holder_is_killed_and_the_waiter_goes_on(sc, root):
    sc.start_keel()
    holder = sc.client("hold-bucket", "11")
    holder.expect("^bucket 0$")
    holder.expect("^held$")
    # The minute a hung holder is given, shortened for the waiter only.
    taker = sc.client("take-bucket", "11",
                      env={"TOLVAR_TEST_TIMESCALE": 30})
    taker.expect(r"^bucket 0$", timeout=120)
    assert int(taker.expect(r"^owner_dead (\d+)$").group(1)) >= 1
    assert taker.wait() == 0
    assert holder.wait() != 0


def test_unit_pool_soak_with_random_kills_hands_no_unit_out_twice(sc, root):
    """Clients take and give back units and are killed at random; each
    unit held is claimed by a file made with O_EXCL, so a unit handed out
    twice ends its second taker with exit 3.  The units of dead clients
    are given back now and then, as a recovery would.  "make torture" runs this
    with thousands of kills (TOLVAR_TORTURE_KILLS)."""
    sc.start_keel()

    def stop(w):
        killed = w.p.poll() is None
        if killed:
            w.kill()
            stop.kills += 1
            if stop.kills % 20 == 0:  # the units the dead ones held
                r = sc.run("sdbenv-client", "unit-reclaim")
                assert r.returncode == 0, r.stdout
        else:
            assert w.p.returncode == 0, w.lines
        w.p.stdout.close()  # thousands of kills: keep no pipe open
        return killed
    stop.kills = 0
    workers, kills = random_kills(
        lambda n: sc.client("unit-soak", "600", n), stop, 1729)
    for w in workers:
        assert w.p.poll() is None, w.lines
        w.kill()
    finishers = [sc.client("unit-soak", "0.5", 900 + i) for i in range(2)]
    for w in finishers:
        w.expect(r"^ok taken=[1-9]")
        assert w.wait() == 0
    assert kills >= 10
