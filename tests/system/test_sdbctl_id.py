"""sdbctl id and sdbctl unit against a running keel.

Each test runs in an IPC namespace of its own, so that keel and every
sdbctl run of the test find the same segment.
"""
import signal

import pytest

from ipc_scenario import GENEROUS, IpcScenario, ipc_ns  # noqa: F401


class Engine(IpcScenario):
    def stop_keel(self):
        self.keel.send_signal(signal.SIGTERM)
        self.keel.wait(timeout=GENEROUS)

    def ctl(self, *args):
        return self.run("sdbctl", *args)

    def lines(self, *args):
        r = self.ctl(*args)
        assert r.returncode == 0, r.stderr
        return r.stdout.splitlines()


@pytest.fixture
def eng(root, ipc_ns):
    root.write_platform(role="master", scale_class=100)
    e = Engine(root, ipc_ns)
    yield e
    e.close()


def test_bad_command_lines_and_no_keel(eng):
    for args in (["id"], ["id", "shw"], ["id", "generate", "0"],
                 ["id", "generate", "x"], ["id", "show", "1"],
                 ["unit", "alloc"], ["unit", "alloc", "2"],
                 ["unit", "release", "uid"], ["unit", "release", "uid", "x1"],
                 ["unit", "take", "uid"]):
        r = eng.ctl(*args)
        assert r.returncode == 2, (args, r.stdout, r.stderr)
        assert "usage" in r.stderr or "not a unit number" in r.stderr
    r = eng.ctl("id", "show")
    assert r.returncode == 1 and "session database" in r.stderr


def test_ids_grow_one_by_one(eng):
    eng.start_keel()
    assert eng.lines("id", "show") == ["0"]
    assert eng.lines("id", "generate", 5) == ["1", "2", "3", "4", "5"]
    assert eng.lines("id", "generate") == ["6"]
    assert eng.lines("id", "show") == ["6"]


def test_units_queue_and_refuse_a_double_release(eng):
    eng.start_keel()
    assert eng.lines("unit", "alloc", "ifl") == ["1073741824"]
    # A unit string may carry more after its number.
    assert eng.ctl("unit", "release", "ifl", "1073741824x").returncode == 0
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
    assert dump[dump.index("allocated = {") + 1:-2] == ["0", "2"]
    # Behind every number never handed out.
    eng.stop_keel()
    eng.start_keel()
    assert eng.lines("unit", "alloc", 1) == ["1003"]
