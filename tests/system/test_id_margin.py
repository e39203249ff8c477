"""No session id twice across a change of master, on two engines.

Whatever way an engine becomes master (the old master killed in the middle
of handing out ids, a switch back inside the restart window, a switchover
while the link is cut), the ids it hands out afterwards were never handed
out before.  TOLVAR_ID_MARGIN_RUNS sets how many kills the first test does
(make torture runs 20).
"""
import os
import subprocess

from conftest import wait_for
from test_rep_lab import GENEROUS, start, stop

import pytest

RUNS = int(os.environ.get("TOLVAR_ID_MARGIN_RUNS", "2"))


@pytest.fixture
def lab():
    lab = start()
    yield lab
    stop(lab)


def ids_of(lab, engine, count=50):
    return [int(x) for x in lab.ctl(engine, "id", "generate", count)]


def standby_ready(lab, standby):
    """The lab's own test of a graceful switchover, without doing one."""
    st = lab.status_file(standby)
    return (st.get("link") == "up" and st.get("replication_ready") == "yes"
            and st.get("restart_in") == "-")


def test_master_killed_while_handing_out_ids(lab):
    seen = []
    master = "re0"
    for run in range(RUNS):
        assert wait_for(lambda: standby_ready(lab, other(master)),
                        timeout=GENEROUS), (run, lab("status").stdout)
        out = lab.dir / f"gen{run}.out"
        with open(out, "w") as f:
            gen = subprocess.Popen(
                [str(lab.lab), "exec", master, "sh", "-c",
                 "while sdbctl id generate 200; do :; done"],
                env=lab.env, stdout=f, stderr=subprocess.DEVNULL)
        # Kill it while ids are going out: wait until some have.
        assert wait_for(lambda: out.stat().st_size > 20000,
                        timeout=GENEROUS), run
        lab("fail", master)
        gen.wait(timeout=GENEROUS)
        # The last line may be cut short by the kill.
        lines = out.read_text().split("\n")[:-1]
        before = [int(x) for x in lines]
        master = other(master)
        after = ids_of(lab, master, 500)
        seen += before + after
        assert min(after) > max(before), (run, max(before), min(after))
    assert len(seen) == len(set(seen))


def test_switch_back_inside_the_restart_window(lab):
    first = ids_of(lab, "re0")
    lab("switchover")
    second = ids_of(lab, "re1")
    # re0 waits to restart: no graceful way back, so the chassis forces it.
    assert "restart" in lab("switchover", check=False).stderr
    lab("switchover", "--force")
    third = ids_of(lab, "re0")
    assert max(first) < min(second) and max(second) < min(third)


def test_switchover_after_ids_made_behind_a_cut_link(lab):
    first = ids_of(lab, "re0")
    assert wait_for(lambda: lab.id("re1") == max(first), timeout=GENEROUS)
    lab("cut")
    behind = ids_of(lab, "re0", 1000)
    res = lab("switchover", check=False)
    if res.returncode != 0:
        # Refused once the cut is noticed; the chassis may still force it.
        assert "standby not ready for graceful switchover" in res.stderr
        lab("switchover", "--force")
    after = ids_of(lab, "re1")
    assert min(after) > max(behind)


def other(engine):
    return "re1" if engine == "re0" else "re0"


def test_status_shows_both_engines(lab):
    import json
    ids = ids_of(lab, "re0", 3)
    assert wait_for(lambda: lab.id("re1") == ids[-1], timeout=GENEROUS)

    def view(e):
        return json.loads(lab("exec", e, "sdbctl", "status", "--json").stdout)

    # The status file is refreshed once a second: wait for the view that
    # has seen the records, rather than for the id word alone.
    assert wait_for(lambda: view("re1")["records_received"] > 0 and
                    view("re0")["records_sent"] > 0, timeout=GENEROUS)
    m, s = view("re0"), view("re1")
    assert (m["role"], s["role"]) == ("Master", "Standby")
    assert m["link"] == s["link"] == "up"
    assert m["peer"] == "10.93.0.2" and s["peer"] == "10.93.0.1"
    assert m["replication_ready"] == s["replication_ready"] == "yes"
    assert (m["ids_open"], s["ids_open"]) == ("yes", "no")
    assert m["keel"] == s["keel"] == "registered"
    assert m["restart_in"] == "-"
    # The last id handed out, and the one the generator gives next.
    assert m["last_session_id"] == ids[-1]
    assert m["next_session_id"] == ids[-1] + 1
    assert m["records_sent"] > 0 and s["records_received"] > 0
    text = lab("status").stdout
    assert "ids open: yes" in text and "mirror link: up" in text
