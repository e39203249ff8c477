"""sdbctl id and sdbctl unit against a running keel.

Each test runs in an IPC namespace of its own (the System V keys are
fixed), made persistent with "unshare --ipc=FILE" so that keel and every
sdbctl run of the test find the same segment.
"""
import signal
import subprocess

import pytest

from conftest import program, wait_for

GENEROUS = 60.0


@pytest.fixture
def ipc_ns(tmp_path):
    ns = tmp_path / "ipc-ns"
    ns.touch()
    subprocess.run(["unshare", f"--ipc={ns}", "true"], check=True)
    yield str(ns)
    subprocess.run(["umount", str(ns)], check=False)


class Engine:
    def __init__(self, root, ns):
        self.root, self.ns, self.keel = root, ns, None

    def start_keel(self):
        before = self.root.trace("keel").count("keel started")
        self.keel = subprocess.Popen(
            ["nsenter", f"--ipc={self.ns}", "--", program("keel"), "-N"],
            env=self.root.env(), stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL)
        assert wait_for(lambda: self.root.trace("keel").count("keel started")
                        > before, timeout=GENEROUS), self.root.trace("keel")

    def stop_keel(self):
        if self.keel is not None and self.keel.poll() is None:
            self.keel.send_signal(signal.SIGTERM)
            try:
                self.keel.wait(timeout=GENEROUS)
            except subprocess.TimeoutExpired:
                self.keel.kill()
                self.keel.wait()

    def ctl(self, *args):
        return subprocess.run(
            ["nsenter", f"--ipc={self.ns}", "--", program("sdbctl")] +
            [str(a) for a in args], env=self.root.env(),
            capture_output=True, text=True, timeout=GENEROUS)

    def lines(self, *args):
        r = self.ctl(*args)
        assert r.returncode == 0, r.stderr
        return r.stdout.splitlines()


@pytest.fixture
def eng(root, ipc_ns):
    root.write_platform(role="master", scale_class=100)
    e = Engine(root, ipc_ns)
    yield e
    e.stop_keel()


def test_without_keel_nothing_is_attached(eng):
    r = eng.ctl("id", "show")
    assert r.returncode == 1
    assert "session database" in r.stderr


def test_bad_command_lines_are_usage_errors(eng):
    for args in (["id"], ["id", "shw"], ["id", "generate", "0"],
                 ["id", "generate", "x"], ["id", "show", "1"],
                 ["unit", "alloc"], ["unit", "alloc", "2"],
                 ["unit", "release", "uid"], ["unit", "release", "uid", "x1"],
                 ["unit", "take", "uid"]):
        r = eng.ctl(*args)
        assert r.returncode == 2, (args, r.stdout, r.stderr)
        assert "usage" in r.stderr or "not a unit number" in r.stderr


def test_ids_grow_and_outlive_keel(eng):
    eng.start_keel()
    assert eng.lines("id", "show") == ["0"]
    assert eng.lines("id", "generate", 5) == ["1", "2", "3", "4", "5"]
    assert eng.lines("id", "generate") == ["6"]
    assert eng.lines("id", "show") == ["6"]
    eng.stop_keel()
    eng.start_keel()
    assert eng.lines("id", "show") == ["6"]
    assert "next session id: 6" in eng.ctl("status").stdout


def test_units_queue_and_refuse_a_double_release(eng):
    eng.start_keel()
    assert eng.lines("unit", "alloc", "ifl") == ["1073741824"]
    assert eng.lines("unit", "alloc", 0) == ["1073741825"]
    assert [eng.lines("unit", "alloc", "uid")[0] for _ in range(3)] == \
        ["1000", "1001", "1002"]
    assert eng.ctl("unit", "release", "uid", "1001").returncode == 0
    # The released unit is the tail of the list now: still refused.
    r = eng.ctl("unit", "release", "uid", "1001")
    assert r.returncode == 1 and "not allocated" in r.stderr
    r = eng.ctl("unit", "release", "uid", "999")
    assert r.returncode == 1 and "Unit pool error" in r.stderr
    dump = eng.lines("unit", "dump", "uid")
    assert dump[:2] == ["unit number allocator {", "max unit number = 9000"]
    assert "available unit number(s) = 8998" in dump
    assert "tail = 1" in dump
    allocated = dump[dump.index("allocated = {") + 1:-2]
    assert allocated == ["0", "2"]
    # Behind every number never handed out.
    eng.stop_keel()
    eng.start_keel()
    assert eng.lines("unit", "alloc", 1) == ["1003"]


def test_a_release_accepts_what_the_unit_string_carries(eng):
    eng.start_keel()
    assert eng.lines("unit", "alloc", "ifl") == ["1073741824"]
    assert eng.ctl("unit", "release", "ifl", "1073741824x").returncode == 0
    assert eng.lines("unit", "alloc", "ifl") == ["1073741825"]
