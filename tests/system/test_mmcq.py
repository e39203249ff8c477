"""The mapped queue with real processes: senders and receivers killed by
SIGKILL at random and at named crash points (in the middle of a send
under the heap lock, at each step of a move of the ring), a receiver
stopped while the ring grows to its limit, and two receivers at once.

Delivery bounds that every scenario checks (at most once):
  - no message is torn (each carries its length and a checksum);
  - no message is delivered twice, and each sender's messages arrive in
    the order sent;
  - a message whose send returned SUCCESS is lost only when a receiver
    was killed between taking it and recording it: at most one message
    per receiver kill;
  - a receiver may record one message more than a sender recorded as
    sent: the sender was killed between the send and its record.

MMCQ_TORTURE_SECONDS sets the length of the random campaign (make check
keeps it short; tools/mmcq-torture.sh runs a long one).
"""
import json
import os
import random
import signal
import subprocess
import time

import pytest

from conftest import program, wait_for
from test_mmf import ipc_ns  # noqa: F401  (fixture)

GENEROUS = 60.0
CAMPAIGN = float(os.environ.get("MMCQ_TORTURE_SECONDS", "15"))


@pytest.fixture
def mq(root, ipc_ns):  # noqa: F811
    return Queues(root, ipc_ns)


class Queues:
    def __init__(self, root, ns):
        self.root = root
        self.ns = ns
        self.prog = program("mmcq-torture")
        self.procs = []
        self.sent_files = []
        self.log = str(root.path / "received.log")
        self.receiver_kills = 0

    def env(self, **extra):
        return self.root.env(TOLVAR_NO_GCORE=1, TOLVAR_TEST_TIMESCALE=10,
                             **extra)

    def start(self, *args, stdout=subprocess.PIPE, **env):
        p = subprocess.Popen(
            ["nsenter", f"--ipc={self.ns}", "--", self.prog] + list(args),
            env=self.env(**env), stdout=stdout, stderr=subprocess.PIPE,
            text=True)
        self.procs.append(p)
        return p

    def run(self, *args, **env):
        return subprocess.run(
            ["nsenter", f"--ipc={self.ns}", "--", self.prog] + list(args),
            env=self.env(**env), capture_output=True, text=True,
            timeout=GENEROUS)

    def sdbctl(self, *args):
        return subprocess.run([program("sdbctl")] + list(args),
                              env=self.env(), capture_output=True, text=True,
                              timeout=GENEROUS)

    def receiver(self, name, log=None):
        p = self.start("recv", name, log or self.log)
        assert p.stdout.readline().strip() == "receiving"
        return p

    def sender(self, name, count, seed, **env):
        path = self.root.path / f"sent.{len(self.sent_files)}"
        self.sent_files.append(path)
        with open(path, "w") as out:
            return self.start("send", name, str(count), str(seed),
                              stdout=out, **env)

    def kill_receiver(self, p):
        p.kill()
        p.wait()
        self.receiver_kills += 1

    def received(self, *logs):
        out = []
        for log in logs or (self.log,):
            if os.path.exists(log):
                with open(log) as f:
                    out += [line.split() for line in f]
        return out

    def sent(self):
        last = {}
        for path in self.sent_files:
            with open(path) as f:
                for line in f:
                    _, sid, seq = line.split()
                    last[int(sid)] = max(last.get(int(sid), 0), int(seq))
        return last

    def check(self, *logs, killed_senders=()):
        """The at-most-once bounds of the module docstring."""
        got = self.received(*logs)
        assert not [g for g in got if g[2] != "ok"], "torn message"
        seen = {}
        for sid, seq, _ in got:
            sid, seq = int(sid), int(seq)
            assert seq > seen.get(sid, 0), f"{sid}/{seq} twice or late"
            seen[sid] = seq
        ids = {}
        for sid, seq, _ in got:
            ids.setdefault(int(sid), set()).add(int(seq))
        last = self.sent()
        lost = sum(len(set(range(1, n + 1)) - ids.get(sid, set()))
                   for sid, n in last.items())
        assert lost <= self.receiver_kills, \
            f"{lost} lost with {self.receiver_kills} receiver kills"
        for sid, seqs in ids.items():
            assert max(seqs) <= last.get(sid, 0) + 1, f"{sid} beyond sent"
        return len(got)

    def wait_delivered(self, count, *logs):
        assert wait_for(lambda: len(self.received(*logs)) >= count,
                        GENEROUS), (len(self.received(*logs)), count)

    def stop_all(self):
        for p in self.procs:
            if p.poll() is None:
                p.kill()
            p.wait()

    def empty(self, name):
        """put_offset == take_offset in the header (common area 0x624)."""
        data = self.root.file(f"/mfs/var/mmcq/{name}").read_bytes()
        return data[0x624 + 0x3C:0x624 + 0x40] == data[0x624 + 0x40:0x624 + 0x44]

    def wait_empty(self, name):
        assert wait_for(lambda: self.empty(name), GENEROUS), name

    def file_size(self, name):
        return os.path.getsize(self.root.file(f"/mfs/var/mmcq/{name}"))


@pytest.fixture
def queues(mq):
    yield mq
    mq.stop_all()


def total_sent(q):
    return sum(q.sent().values())


def test_grows_to_its_limit_under_a_stopped_receiver_then_answers_full(queues):
    """The ring is wrapped before it grows, so each growth moves it."""
    q = queues
    r = q.receiver("grow")
    q.sender("grow", 300, 1).wait()
    q.wait_delivered(300)
    os.kill(r.pid, signal.SIGSTOP)
    res = q.run("fill", "grow")
    assert res.returncode == 0 and "status=Q_FULL" in res.stdout, res
    assert q.file_size("grow") == 1 << 20
    filled = int(res.stdout.split("sent=")[1])
    show = q.sdbctl("mmcq", "grow", "--json")
    assert show.returncode == 0, show.stderr
    info = json.loads(show.stdout)
    assert info["receiver"] == r.pid and info["receiver_alive"]
    assert info["msgs_sent"] == 300 + filled
    assert info["bytes_in_use"] > info["max_data_bytes"] - 300
    assert info["extensions_tried"] == (1 << 20) // (64 << 10) - 1
    os.kill(r.pid, signal.SIGCONT)
    q.wait_delivered(300 + filled)
    got = q.received()
    assert len(got) == 300 + filled
    assert not [g for g in got if g[2] != "ok"]
    fill_seqs = [int(s) for sid, s, _ in got[300:]]
    assert fill_seqs == list(range(1, filled + 1))


SENDER_POINTS = [
    "mmcq.send.locked@40",      # holding the heap lock, nothing written
    "mmcq.send.written@40",     # message written, put not yet moved
    "mmcq.extend.grown",        # file grown, ring not yet
    "mmcq.extend.move",         # move recorded, nothing copied
    "mmcq.extend.chunk@2",      # in the middle of the copy
    "mmcq.extend.commit",       # take shifted, max not yet raised
]


@pytest.mark.parametrize("point", SENDER_POINTS)
def test_sender_killed_at_a_crash_point(queues, point):
    """A wrapped ring under a stopped receiver; a sender dies at the
    point; the next sender and the receiver finish what it left."""
    q = queues
    r = q.receiver("cp")
    q.sender("cp", 300, 2).wait()
    q.wait_delivered(300)
    os.kill(r.pid, signal.SIGSTOP)
    victim = q.sender("cp", 100000, 3, TOLVAR_CRASH_AT=point)
    victim.wait(timeout=GENEROUS)
    assert victim.returncode == -signal.SIGKILL, victim.stderr.read()
    after = q.sender("cp", 2000, 4)
    os.kill(r.pid, signal.SIGCONT)
    assert after.wait(timeout=GENEROUS) == 0, after.stderr.read()
    q.wait_delivered(total_sent(q))
    assert q.check() >= total_sent(q)
    assert "MMCQ_BAD_ENTRY" not in q.root.event_tags()
    show = q.sdbctl("mmcq", "cp")
    assert show.returncode == 0 and "extender                   0\n" in \
        show.stdout, show.stdout


def test_receiver_killed_after_copying_out_loses_nothing(queues):
    q = queues
    q.sender("rc", 500, 5).wait()
    r = q.start("recv", "rc", q.log, TOLVAR_CRASH_AT="mmcq.receive.copied@100")
    r.wait(timeout=GENEROUS)
    assert r.returncode == -signal.SIGKILL
    assert len(q.received()) == 99
    q.receiver("rc")
    q.wait_delivered(500)
    assert q.check() == 500


def test_two_receivers_never_deliver_twice(queues):
    q = queues
    a_log, b_log = q.log + ".a", q.log + ".b"
    a = q.receiver("two", a_log)
    b = q.receiver("two", b_log)
    dupe = q.root.file("/var/tmp/dupe_mmcq.log").read_text()
    assert f"queue two, pidPrev {a.pid}, pidNew {b.pid}" in dupe
    senders = [q.sender("two", 400, s) for s in (6, 7)]
    for s in senders:
        assert s.wait(timeout=GENEROUS) == 0
    q.wait_delivered(800, a_log, b_log)
    assert q.check(a_log, b_log) == 800
    assert len(q.received(b_log)) == 800


def test_random_kills(queues):
    """Senders and receivers killed at random while the ring wraps, grows
    and is moved; a sender now and then dies at a crash point."""
    q = queues
    rng = random.Random(int(os.environ.get("MMCQ_TORTURE_SEED", "19")))
    name = "soak"
    r = q.receiver(name)
    senders = []
    deadline = time.monotonic() + CAMPAIGN
    seed = 100
    while time.monotonic() < deadline:
        senders = [s for s in senders if s.poll() is None]
        while len(senders) < 3:
            seed += 1
            env = {}
            if rng.random() < 0.3:
                env["TOLVAR_CRASH_AT"] = rng.choice(SENDER_POINTS)
            senders.append(q.sender(name, rng.randint(200, 3000), seed,
                                    **env))
        time.sleep(rng.uniform(0.01, 0.2))
        act = rng.random()
        if act < 0.25:
            rng.choice(senders).kill()
        elif act < 0.4:
            q.kill_receiver(r)
            r = q.receiver(name)
        elif act < 0.5:
            os.kill(r.pid, signal.SIGSTOP)
            time.sleep(rng.uniform(0.05, 0.3))
            os.kill(r.pid, signal.SIGCONT)
        if q.file_size(name) >= 1 << 20:
            # At the limit the ring cannot move any more: a new queue.
            for s in senders:
                s.kill()
                s.wait()
            q.wait_empty(name)
            name = f"soak{seed}"
            q.kill_receiver(r)
            r = q.receiver(name)
    for s in senders:
        s.kill()
        s.wait()
    q.wait_empty(name)
    q.kill_receiver(r)
    q.check()
    assert "MMCQ_BAD_ENTRY" not in q.root.event_tags()
