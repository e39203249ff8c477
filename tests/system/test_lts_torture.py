"""Crash torture of the long-term store.

K writer processes write, rewrite and delete sessions over shared buckets,
each with a shadow log of what it committed.  Writers are killed with
SIGKILL at random instants and at named crash points.  A writer restarted
after a kill first verifies every section it owns (the last committed
value or the one being written at the kill, nothing else), which also
takes over the dead writer's buckets; at the end the whole store is
checked: acyclic chains within their bound, no section in free heap.

LTS_TORTURE_KILLS sets the number of kills (make torture: 10,000).
"""
import os
import random
import select
import signal
import subprocess
import time

from conftest import program

K = 3
# A dead bucket owner is replaced at the waiter's first test; the limit
# after which a hung owner is killed is 60 seconds.
TAKEOVER_LIMIT = 60.0
POINTS = ["lts.section.copied", "lts.section.stored", "lts.head.made",
          "lts.delete.cleared", "lts.session.unlinked"]


class Writers:
    def __init__(self, exe, env, rng):
        self.exe, self.env, self.rng = exe, env, rng
        self.procs = {}

    def spawn(self, i, crash=None, check=False):
        env = dict(self.env)
        if crash:
            env["TOLVAR_CRASH_AT"] = crash
        args = [self.exe, "writer", str(i), str(K),
                str(self.rng.randrange(1 << 31))] + (["check"] if check else [])
        self.procs[i] = subprocess.Popen(args, env=env, stdout=subprocess.PIPE,
                                         stderr=subprocess.PIPE, text=True)
        return self.procs[i]

    def ready(self, i):
        """Wait until writer i has verified what it owns."""
        p = self.procs[i]
        ready, _, _ = select.select([p.stdout], [], [], TAKEOVER_LIMIT)
        if not ready:
            raise AssertionError(f"writer {i} did not take over in time")
        line = p.stdout.readline()
        if line != "verified\n":
            p.wait(timeout=30)
            raise AssertionError(f"writer {i}: {p.stderr.read()}")
        return p

    def start(self, i, crash=None, check=False):
        self.spawn(i, crash, check)
        return self.ready(i)

    def kill(self, i):
        p = self.procs.pop(i)
        p.send_signal(signal.SIGKILL)
        p.wait(timeout=30)

    def stop_all(self):
        for i in list(self.procs):
            self.kill(i)


def test_writers_killed_at_random_and_at_crash_points(root, tmp_path):
    kills = int(os.environ.get("LTS_TORTURE_KILLS", "200"))
    seed = int(os.environ.get("LTS_TORTURE_SEED", str(time.time_ns() % 100000)))
    print(f"seed {seed}")
    exe = program("lts-torture")
    env = root.env(LTS_TORTURE_DIR=tmp_path)
    root.file("/mfs/var/sdb/shmem").mkdir(parents=True, exist_ok=True)
    subprocess.run([exe, "init"], env=env, check=True, timeout=60)
    w = Writers(exe, env, random.Random(seed))
    point_kills = 0
    try:
        for i in range(K):
            w.start(i)
        n = cycle = 0
        while n < kills:
            cycle += 1
            # Several writers die at once, so that their successors take
            # the buckets over at the same time.
            victims = w.rng.sample(range(K), w.rng.randint(1, K))
            if cycle % 3 == 0:
                # One comes back armed and kills itself in the window.
                i = victims[0]
                w.kill(i)
                point = w.rng.choice(POINTS)
                p = w.start(i, crash=f"{point}@{w.rng.randint(1, 5)}")
                assert p.wait(timeout=120) == -signal.SIGKILL, point
                w.procs.pop(i)
                point_kills += 1
                victims = victims[1:]
                n += 2
            time.sleep(w.rng.uniform(0, 0.01))
            for i in victims:
                w.kill(i)
            n += len(victims)
            spawned = [i for i in range(K) if i not in w.procs]
            for i in spawned:
                w.spawn(i, check=(w.rng.randrange(50) == 0))
            for i in spawned:
                w.ready(i)
    finally:
        w.stop_all()
    r = subprocess.run([exe, "check", str(K)], env=env, capture_output=True,
                       text=True, timeout=300)
    assert r.returncode == 0, r.stderr
    print(f"{n} kills, {point_kills} at crash points: clean")
