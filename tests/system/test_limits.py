"""Subscriber limits across processes: keel makes the segments, clients
count logins, sdbctl shows, sets, checks and dumps the records.

Each test runs in an IPC namespace of its own.
"""
import json
import signal

import pytest

from ipc_scenario import GENEROUS, IpcScenario, ipc_ns  # noqa: F401


class Engine(IpcScenario):
    def ctl(self, *args):
        return self.run("sdbctl", *args)

    def login(self, name, what="login"):
        r = self.run("sdbenv-client", what, name)
        assert r.returncode == 0, r.stderr
        line = [x for x in r.stdout.splitlines() if x.startswith(what)]
        return int(line[0].split()[1])

    def records(self):
        r = self.ctl("limits", "show", "--json")
        assert r.returncode == 0, r.stderr
        return json.loads(r.stdout)

    def record(self, level, fpc, pic, port, ctype="Any"):
        for rec in self.records()["records"]:
            if (rec["level"], rec["client_type"], rec["fpc"], rec["pic"],
                    rec["port"]) == (level, ctype, fpc, pic, port):
                return rec
        return None


@pytest.fixture
def eng(root, ipc_ns):
    root.write_platform(role="master", scale_class=100)
    e = Engine(root, ipc_ns)
    yield e
    e.close()


def test_tenth_login_warns_eleventh_is_refused_and_counts_survive_keel(
        eng, root):
    assert eng.ctl("limits", "show").returncode == 1      # no keel yet
    eng.start_keel()
    for name in ("sdb_rsmon_shmem", "sdb_ae_table_shmem",
                 "sdb_ps_table_shmem", "sdb_rlt_table_shmem"):
        assert root.file(f"/mfs/var/tmp/{name}").exists()
    r = eng.ctl("limits", "set", "port", "any/1/0/5", "10")
    assert r.returncode == 0, r.stderr

    warn = "LIBSDB_PORT_LEVEL_MAX_SUB_REACHED"
    for i in range(10):
        assert eng.login("ge-1/0/5") == 1
        assert root.event_tags().count(warn) == (1 if i == 9 else 0)
    assert eng.login("ge-1/0/5") == 0
    assert "LIBSDB_RSMON_CLIENT_COUNT_EXCEEDED" in root.event_tags()

    port = eng.record("port", 1, 0, 5)
    assert (port["limit"], port["count"], port["denied"]) == (10, 10, 1)
    assert eng.record("chassis", 2047, 15, 255)["count"] == 10
    show = eng.ctl("limits", "show").stdout
    assert "table lock: free" in show and "records in use: 4 of 2560" in show

    eng.keel.send_signal(signal.SIGTERM)
    assert eng.keel.wait(timeout=GENEROUS) == 0
    eng.start_keel()
    assert eng.record("port", 1, 0, 5)["count"] == 10
    assert eng.login("ge-1/0/5", "logout") == 0
    assert eng.login("ge-1/0/5") == 1


def test_check_finds_a_count_out_of_step_and_count_corrects_it(eng, root):
    eng.start_keel()
    for _ in range(3):
        assert eng.login("xe-2/1/0:4") == 1
    r = eng.ctl("limits", "check")
    assert r.returncode == 0 and "consistent" in r.stdout, r.stdout
    # As a writer killed between the port and the PIC leaves it.
    assert eng.ctl("limits", "count", "pic", "any/2/1", "2").returncode == 0
    r = eng.ctl("limits", "check")
    assert r.returncode == 1
    assert "record" in r.stdout and "count 2" in r.stdout, r.stdout
    assert eng.ctl("limits", "count", "pic", "any/2/1", "3").returncode == 0
    assert eng.ctl("limits", "check").returncode == 0

    r = eng.ctl("limits", "dump")
    assert r.returncode == 0, r.stderr
    dump = root.file("/var/log/def-rsmon-limit-table0.log").read_text()
    assert dump.startswith("Header:\n Max_records=2560, current_usage=5 \n")
    assert "chan=4)\n    configured_limit=0 \n    current_count=3 \n" in dump


@pytest.mark.parametrize("args", [
    ["limits"], ["limits", "shw"], ["limits", "show", "--jsn"],
    ["limits", "set", "port", "any/1/0", "10"],
    ["limits", "set", "port", "any/1/0/5", "x"],
    ["limits", "set", "rack", "any", "1"],
    ["limits", "set", "chassis", "bogus", "1"],
    ["limits", "count", "fpc", "any/3000", "1"],
])
def test_bad_command_lines(eng, args):
    r = eng.ctl(*args)
    assert r.returncode == 2, (r.stdout, r.stderr)
    assert "usage" in r.stderr


def test_fpc_set_refuses_logins_on_that_card_only(eng, root):
    eng.start_keel()
    fpc = lambda: json.loads(eng.ctl("fpc", "show", "--json").stdout)
    t = fpc()
    assert t["throttle"] == 0 and len(t["slots"]) == 256
    assert t["slots"][3]["fpc_level"] == 10
    assert "256 other line cards normal" in eng.ctl("fpc", "show").stdout

    assert eng.ctl("fpc", "set", "3", "login_ok", "0").returncode == 0
    assert eng.ctl("fpc", "set", "3", "refuse_reason", "4").returncode == 0
    login = lambda slot: eng.run("sdbenv-client", "fpc-login", slot).stdout
    assert "fpc 0 reason 4" in login(3)
    assert "fpc 1 reason 0" in login(4)
    t = fpc()
    assert t["throttle"] == 1 and t["slots"][3]["logins_refused"] == 1
    assert "fpc 0 reason 0" in login(256)
    assert "LIBSDB_FPC_INVALID_LOGIN_REQUEST" in root.event_tags()

    assert eng.ctl("fpc", "set", "3", "login_ok", "1").returncode == 0
    assert fpc()["throttle"] == 0
    assert "fpc 1 reason 0" in login(3)
    for bad in (["fpc", "set", "256", "login_ok", "1"],
                ["fpc", "set", "1", "bogus", "1"], ["fpc", "show", "x"]):
        assert eng.ctl(*bad).returncode == 2
