"""Fixtures shared by the multi-process tests.

Every test gets its own TOLVAR_ROOT under pytest's tmp_path, and programs
are taken from the build directory named by TOLVAR_BUILD (default build/).
"""
import os
import pathlib
import subprocess
import time

import pytest

TOP = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("TOLVAR_BUILD", TOP / "build"))
BIN = BUILD / "bin"


def program(name):
    path = BIN / name
    if not path.exists():
        pytest.skip(f"{name} is not built")
    return str(path)


class Root:
    """A TOLVAR_ROOT with the files a daemon expects."""

    def __init__(self, path):
        self.path = pathlib.Path(path)
        for d in ("etc/tolvar", "var/run", "var/log", "var/tmp", "var/db",
                  "mfs/var"):
            (self.path / d).mkdir(parents=True, exist_ok=True)

    def file(self, rel):
        return self.path / rel.lstrip("/")

    def write_config(self, *set_lines):
        self.file("/etc/tolvar/config").write_text(
            "".join(line + "\n" for line in set_lines))

    def write_platform(self, **keys):
        self.file("/etc/tolvar/platform").write_text(
            "".join(f"{k} = {v}\n" for k, v in keys.items()))

    def env(self, **extra):
        env = dict(os.environ)
        env["TOLVAR_ROOT"] = str(self.path)
        env.update({k: str(v) for k, v in extra.items()})
        return env

    def trace(self, name):
        p = self.file(f"/var/log/{name}")
        return p.read_text() if p.exists() else ""

    def events(self):
        """Structured events as (priority, tag, attrs, text) tuples."""
        p = self.file("/var/log/events")
        if not p.exists():
            return []
        out = []
        for line in p.read_text().splitlines():
            f = line.split("\t")
            if len(f) >= 6:
                out.append((f[2], f[3], f[4], f[5]))
        return out

    def event_tags(self):
        return [e[1] for e in self.events()]


@pytest.fixture
def root(tmp_path):
    return Root(tmp_path / "root")


def wait_for(predicate, timeout=10.0, interval=0.02):
    """Poll predicate until it is true; returns its last value."""
    deadline = time.monotonic() + timeout
    while True:
        value = predicate()
        if value or time.monotonic() > deadline:
            return value
        time.sleep(interval)


def run(args, root, timeout=20, **kw):
    return subprocess.run(args, env=root.env(**kw.pop("env", {})),
                          capture_output=True, text=True, timeout=timeout, **kw)


def random_kills(start, stop, seed, workers=4):
    """Keep workers running and stop one at random, again and again: for
    four seconds, or under "make torture" until TOLVAR_TORTURE_KILLS of
    them were killed.  start(n) starts a worker; stop(w) kills a running
    one and returns True, or checks one that ended by itself and returns
    False.  Returns the workers still running and the number of kills."""
    import random
    wanted = int(os.environ.get("TOLVAR_TORTURE_KILLS", "0"))
    pause = (0.005, 0.05) if wanted else (0.02, 0.2)
    rng = random.Random(seed)
    running = [start(i) for i in range(workers)]
    kills = 0
    deadline = time.monotonic() + 4.0
    while (kills < wanted) if wanted else time.monotonic() < deadline:
        time.sleep(rng.uniform(*pause))
        i = rng.randrange(workers)
        kills += bool(stop(running[i]))
        running[i] = start(100 + kills)
    return running, kills
