"""The mapped heap with real processes: lock holders that die or hang,
an initialiser that dies, a soak with random kills, damaged files, and
the meminfo table seen from another process.

Each scenario has an IPC namespace of its own (the heap creation
semaphore has a fixed key), made persistent with "unshare --ipc=FILE"
and entered by every process of the scenario with nsenter.
"""
import os
import re
import signal
import struct
import subprocess
import time

import pytest

from conftest import program, random_kills, wait_for

GENEROUS = 60.0
STORE = "/mfs/var/test/heap"


@pytest.fixture
def ipc_ns(tmp_path):
    ns = tmp_path / "ipc-ns"
    ns.touch()
    subprocess.run(["unshare", f"--ipc={ns}", "true"], check=True)
    yield str(ns)
    subprocess.run(["umount", str(ns)], check=False)


@pytest.fixture
def heap(root, ipc_ns):
    """Runs mmf-torture and sdbctl in the scenario's root and namespace."""
    (root.path / "mfs/var/test").mkdir(parents=True, exist_ok=True)
    return Scenario(root, ipc_ns)


class Scenario:
    def __init__(self, root, ns):
        self.root = root
        self.ns = ns
        self.torture = program("mmf-torture")
        self.sdbctl = program("sdbctl")

    def env(self, **extra):
        return self.root.env(TOLVAR_NO_GCORE=1, **extra)

    def args(self, prog, *args):
        return ["nsenter", f"--ipc={self.ns}", "--", prog] + list(args)

    def run(self, *args, prog=None, timeout=GENEROUS, **env):
        return subprocess.run(self.args(prog or self.torture, *args),
                              env=self.env(**env), capture_output=True,
                              text=True, timeout=timeout)

    def start(self, *args, **env):
        return subprocess.Popen(self.args(self.torture, *args),
                                env=self.env(**env), stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, text=True)

    def hold(self):
        """A process that holds the lock of STORE until it is killed."""
        p = self.start("hold", STORE)
        line = p.stdout.readline()
        assert line.startswith("locked"), line
        return p

    def header_word(self, offset, fmt="<I"):
        data = self.root.file(STORE).read_bytes()
        return struct.unpack_from(fmt, data, offset)[0]

    def tags(self):
        return self.root.event_tags()


LOCKERPID, MAGIC, INITIALISER, TAKEOVERS = 0x0, 0x20, 0x30, 0x5FC
ALLOCATED, FREE_HEADS = 0x34, 0x344


def pending_signals(pid):
    """The shared pending set of a process, from /proc."""
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            if line.startswith("ShdPnd:"):
                return int(line.split()[1], 16)
    return 0


def test_lock_of_a_holder_killed_by_sigkill_is_taken_over(heap):
    assert heap.run("create", STORE).returncode == 0
    holder = heap.hold()
    assert heap.header_word(LOCKERPID) == holder.pid
    waiter = heap.start("lock", STORE)
    time.sleep(0.3)
    assert waiter.poll() is None, "the lock was not held"
    holder.kill()
    holder.wait()
    out, err = waiter.communicate(timeout=GENEROUS)
    assert waiter.returncode == 0, err
    assert re.search(r"takeovers=1\b", out), out
    assert heap.header_word(TAKEOVERS) == 1
    assert heap.header_word(LOCKERPID) == 0
    assert "MMF_LOCK_HOLDER_DEAD" in heap.tags()
    assert heap.run("check", STORE).returncode == 0


def test_stopped_holder_gets_sigterm_then_sigkill(heap):
    """Sixty seconds, shortened to three: the waiter has the hung holder
    killed, takes the lock over, and goes on."""
    assert heap.run("create", STORE).returncode == 0
    holder = heap.hold()
    os.kill(holder.pid, signal.SIGSTOP)
    waiter = heap.start("lock", STORE, TOLVAR_TEST_TIMESCALE=20)
    sigterm = 1 << (signal.SIGTERM - 1)
    assert wait_for(lambda: holder.poll() is not None or
                    pending_signals(holder.pid) & sigterm, GENEROUS), \
        "no SIGTERM reached the stopped holder"
    assert holder.poll() is None, "the holder must outlive SIGTERM"
    holder.wait(timeout=GENEROUS)
    assert holder.returncode == -signal.SIGKILL
    out, err = waiter.communicate(timeout=GENEROUS)
    assert waiter.returncode == 0, err
    assert "takeovers=1" in out
    assert "MMF_LOCK_HOLDER_KILL" in heap.tags()
    marker = heap.root.file(f"/var/tmp/mmf_lock_holder.pid{holder.pid}.lock")
    assert not marker.exists(), "the marker outlived its holder"


def test_stale_kill_marker_does_not_spare_a_hung_holder(heap):
    """A marker left for an earlier process of the same pid (here, in the
    old form, without a start time) must not keep a hung holder alive."""
    assert heap.run("create", STORE).returncode == 0
    holder = heap.hold()
    marker = heap.root.file(f"/var/tmp/mmf_lock_holder.pid{holder.pid}.lock")
    marker.parent.mkdir(parents=True, exist_ok=True)
    marker.write_text("4242\n")
    os.kill(holder.pid, signal.SIGSTOP)
    waiter = heap.start("lock", STORE, TOLVAR_TEST_TIMESCALE=20)
    holder.wait(timeout=GENEROUS)
    assert holder.returncode == -signal.SIGKILL
    out, err = waiter.communicate(timeout=GENEROUS)
    assert waiter.returncode == 0, err
    assert "takeovers=1" in out


def test_initialiser_that_dies_is_replaced(heap):
    r = heap.run("init-die", STORE)
    assert r.returncode == -signal.SIGKILL
    assert heap.header_word(MAGIC) == 0xABCD0000
    dead = heap.header_word(INITIALISER)
    assert dead != 0
    r = heap.run("create", STORE)
    assert r.returncode == 0, r.stdout + r.stderr
    assert heap.header_word(MAGIC) == 0xABCD1234
    assert heap.header_word(INITIALISER) not in (0, dead)
    assert "MMF_INIT_DEAD" in heap.tags()
    assert heap.run("check", STORE).returncode == 0


def test_soak_with_random_kills_leaves_a_valid_heap(heap):
    """Workers allocate, stamp, verify and free; a killer takes them down
    with SIGKILL at random and starts new ones.  A block handed out twice
    shows as a broken stamp (exit 3), a healthy store refused as an exit 1
    and an MMF_CORRUPT event.  "make torture" runs this with thousands of
    kills (TOLVAR_TORTURE_KILLS)."""
    assert heap.run("create", STORE).returncode == 0

    def stop(w):
        if w.poll() is not None:
            out, _ = w.communicate()
            assert w.returncode == 0, out
            return False
        w.kill()
        w.communicate()
        return True
    workers, kills = random_kills(
        lambda n: heap.start("soak", STORE, "600", str(n)), stop, 4711)
    finishers = [heap.start("soak", STORE, "0.5", str(900 + i))
                 for i in range(2)]
    for w in workers:
        w.kill()
        w.wait()
    for w in finishers:
        out, err = w.communicate(timeout=GENEROUS)
        assert w.returncode == 0, out + err
        assert out.startswith("ok"), out
    assert kills >= 10
    # No opener refused the store it shares with the killed ones.
    assert "MMF_CORRUPT" not in heap.tags()
    r = heap.run("check", STORE)
    assert r.returncode == 0, r.stdout + r.stderr
    r = heap.run("heap", STORE, prog=heap.sdbctl)
    assert r.returncode == 0, r.stderr
    assert r.stdout.rstrip().endswith("valid")


@pytest.mark.parametrize("damage,message", [
    ("truncate", "current_bytes does not match the file size"),
    ("magic", "not a ready heap"),
    ("node", "node header or trailer damaged"),
])
def test_damaged_file_is_refused_with_an_event(heap, damage, message):
    assert heap.run("create", STORE).returncode == 0
    path = heap.root.file(STORE)
    if damage == "truncate":
        os.truncate(path, os.path.getsize(path) // 2)
    else:
        offset = MAGIC if damage == "magic" else 4096 + 8
        with open(path, "r+b") as f:
            f.seek(offset)
            f.write(struct.pack("<I", 0x0BADF00D))
    before = path.read_bytes()
    r = heap.run("create", STORE)
    assert r.returncode == 1
    assert "Structure needs cleaning" in r.stdout
    assert "MMF_CORRUPT" in heap.tags()
    # The node area is as it was: nothing was repaired by guesswork.
    assert path.read_bytes()[4096:] == before[4096:]
    r = heap.run("heap", STORE, prog=heap.sdbctl)
    assert r.returncode == 1
    assert message in r.stderr
    assert "damaged" in r.stderr


def test_meminfo_rows_are_seen_from_another_process(heap):
    for name in ("/mfs/var/test/one", "/mfs/var/test/two"):
        r = heap.run("register", name)
        assert r.returncode == 0 and "created=1" in r.stdout, r.stdout
    r = heap.run("register", "/mfs/var/test/one")
    assert "created=0" in r.stdout
    r = heap.run("meminfo", prog=heap.sdbctl)
    assert r.returncode == 0, r.stderr
    rows = [line.split() for line in r.stdout.splitlines()[2:]]
    names = [row[1] for row in rows if row[0] == "mmf"]
    assert sorted(names) == ["/mfs/var/test/one", "/mfs/var/test/two"]
    one = next(row for row in rows if row[1] == "/mfs/var/test/one")
    assert int(one[2]) == 4 * 256 * 1024


def test_sdbctl_meminfo_without_a_table_says_so(heap):
    r = heap.run("meminfo", prog=heap.sdbctl)
    assert r.returncode == 1
    assert "no memory information table" in r.stderr


def test_hung_initialiser_ends_in_a_fatal_stop_not_a_hang(heap):
    """An initialiser that stops (SIGSTOP) keeps the opening locks; the
    next opener gives up after sixty seconds (three here) with a fatal
    stop, and once the hung one is killed, a new opener initialises."""
    hung = heap.start("init-stop", STORE)

    def stopped():
        with open(f"/proc/{hung.pid}/stat") as f:
            return f.read().split(")")[1].split()[0] == "T"
    assert wait_for(stopped, GENEROUS)
    r = heap.run("create", STORE, TOLVAR_TEST_TIMESCALE=20)
    assert r.returncode == -signal.SIGABRT, r.stdout + r.stderr
    assert 'assertion "total_sleeptime.tv_sec < 60" failed' in r.stderr
    assert "MMF_FATAL" in heap.tags()
    hung.kill()
    hung.wait()
    r = heap.run("create", STORE)
    assert r.returncode == 0, r.stdout + r.stderr
    assert heap.run("check", STORE).returncode == 0


@pytest.mark.parametrize("state,message", [
    ("grow", "current_bytes does not match the file size"),
    ("lists", "free list damaged"),
    ("allocated", "allocated bytes disagree with the nodes"),
])
def test_states_the_open_repairs_are_repairable_not_damaged(heap, state,
                                                           message):
    """What a writer killed in the lock leaves is reported as repairable,
    and the next open puts it right."""
    r = heap.run("soak", STORE, "0.2", "7")
    assert r.returncode == 0, r.stdout + r.stderr
    path = heap.root.file(STORE)
    if state == "grow":
        os.truncate(path, os.path.getsize(path) + 256 * 1024)
    else:
        offset, data = (FREE_HEADS, bytes(8 * 4)) if state == "lists" \
            else (ALLOCATED, struct.pack("<Q", 12345))
        with open(path, "r+b") as f:
            f.seek(offset)
            f.write(data)
    r = heap.run("heap", STORE, prog=heap.sdbctl)
    assert r.returncode == 0, r.stderr
    assert f"repairable: {message}" in r.stdout
    assert "damaged" not in r.stderr
    assert heap.run("create", STORE).returncode == 0
    r = heap.run("heap", STORE, prog=heap.sdbctl)
    assert r.returncode == 0, r.stderr
    assert r.stdout.rstrip().endswith("valid")
