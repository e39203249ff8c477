"""The two-engine lab's own mechanics, with stand-in daemons.

The stand-in records the signals it gets, so these tests show what the lab
does to an engine without depending on the real daemons' behaviour.
"""
import os
import pathlib
import subprocess

import pytest

from conftest import TOP, wait_for

LAB = TOP / "tools/lab/tolvar-lab"

STANDIN = """#!/bin/sh
# Stand-in daemon: creates keel's socket path, logs the signals it gets
# and, as tolvard, says in its status file that it is in step.
mkdir -p "$TOLVAR_ROOT/var/run" "$TOLVAR_ROOT/var/log"
touch "$TOLVAR_ROOT/var/run/keel_server_communication"
log="$TOLVAR_ROOT/var/log/$(basename "$0").signals"
status() {
    [ "$(basename "$0")" = tolvard ] || return 0
    case $(sed -n 's/^role *= *//p' "$TOLVAR_ROOT/etc/tolvar/platform") in
    master) role=Master open=yes ;;
    *) role=Standby open=no ;;
    esac
    f="$TOLVAR_ROOT/var/run/tolvard.status"
    printf 'pid=%s\nrole=%s\nlink=up\nreplication_ready=yes\nrestart_in=-\nids_open=%s\n' \
        $$ $role $open > "$f.new" && mv "$f.new" "$f"
}
trap 'echo HUP >> "$log"; status' HUP
trap 'echo TERM >> "$log"; exit 0' TERM
status
echo START >> "$log"
while :; do sleep 0.05; done
"""


@pytest.fixture
def lab(tmp_path):
    if os.geteuid() != 0:
        pytest.skip("the lab needs root")
    bindir = tmp_path / "bin"
    bindir.mkdir()
    for name in ("keel", "tolvard"):
        p = bindir / name
        p.write_text(STANDIN)
        p.chmod(0o755)
    env = dict(os.environ,
               TOLVAR_BIN=str(bindir),
               TOLVAR_LAB_DIR=str(tmp_path / "lab"),
               TOLVAR_LAB_NAME=f"tl{os.getpid() % 10000}",
               TOLVAR_LAB_SUBNET="10.78.0",
               TOLVAR_LAB_RESTART_DELAY="0.1")

    def run(*args, check=True):
        res = subprocess.run([str(LAB), *args], env=env, capture_output=True,
                             text=True, timeout=60)
        if check:
            assert res.returncode == 0, res.stderr
        return res

    run.dir = tmp_path / "lab"
    run.env = env
    run("up")
    yield run
    run("down", check=False)


def signals(lab, engine, program):
    p = lab.dir / engine / "root/var/log" / f"{program}.signals"
    return p.read_text().split() if p.exists() else []


def test_engines_are_isolated_from_each_other(lab):
    status = lab("status").stdout
    assert "re0: role master" in status and "re1: role standby" in status
    roots = {e: lab("exec", e, "sh", "-c", "echo $TOLVAR_ROOT").stdout.strip()
             for e in ("re0", "re1")}
    assert roots["re0"].endswith("re0/root") and roots["re1"].endswith("re1/root")
    # An IPC object made on one engine is not seen on the other.
    before = lab("exec", "re1", "ipcs", "-m").stdout.count("0x")
    lab("exec", "re0", "ipcmk", "-M", "4096")
    seen0 = lab("exec", "re0", "ipcs", "-m").stdout
    seen1 = lab("exec", "re1", "ipcs", "-m").stdout
    assert seen0.count("0x") == before + 1
    assert seen1.count("0x") == before


def test_link_cut_and_heal(lab):
    assert "link up" in lab("status").stdout
    lab("cut")
    assert lab("status").stdout.count("link down") == 2
    lab("heal")
    assert lab("status").stdout.count("link up") == 2


def test_killed_daemon_is_restarted(lab):
    assert wait_for(lambda: started(lab))
    lab("kill", "re1", "tolvard")
    assert wait_for(lambda: signals(lab, "re1", "tolvard") == ["START", "START"])
    assert "restarts 1" in lab("status").stdout
    # The other engine and the other daemon were left alone.
    assert signals(lab, "re0", "tolvard") == ["START"]
    assert signals(lab, "re1", "keel") == ["START"]


def started(lab):
    """Every stand-in has set its handlers: signals sent now are logged."""
    return all(signals(lab, e, p) == ["START"]
               for e in ("re0", "re1") for p in ("keel", "tolvard"))


def test_switchover_flips_roles_and_signals_both_engines(lab):
    assert wait_for(lambda: started(lab))
    lab("switchover")
    status = lab("status").stdout
    assert "re0: role standby" in status and "re1: role master" in status
    for e in ("re0", "re1"):
        for prog in ("keel", "tolvard"):
            assert wait_for(lambda e=e, p=prog: "HUP" in signals(lab, e, p))
    lab("switchover")
    assert "re0: role master" in lab("status").stdout


def test_down_stops_daemons_and_removes_namespaces(lab):
    assert wait_for(lambda: started(lab))
    lab("down")
    for e in ("re0", "re1"):
        assert signals(lab, e, "tolvard")[-1] == "TERM"
    names = subprocess.run(["ip", "netns", "list"], capture_output=True,
                           text=True).stdout
    assert f"tl{os.getpid() % 10000}-re0" not in names
    assert lab("status", check=False).returncode == 1


def test_usage_errors(lab):
    assert lab("bogus", check=False).returncode == 2
    res = lab("kill", "re7", check=False)
    assert res.returncode == 1 and "unknown engine" in res.stderr
    res = lab("kill", "re0", "bogusd", check=False)
    assert res.returncode == 1 and "unknown program" in res.stderr
    assert lab("up", check=False).returncode == 1
    for args in (("cut", "now"), ("status", "x"), ("fail",),
                 ("switchover", "--now")):
        assert lab(*args, check=False).returncode == 2, args
    assert lab("--help").stdout.startswith("usage: tolvar-lab")
    assert lab("--version").stdout.startswith("tolvar-lab")


def test_a_second_lab_of_the_same_name_is_refused(lab, tmp_path):
    env = dict(lab.env, TOLVAR_LAB_DIR=str(tmp_path / "second"))
    res = subprocess.run([str(LAB), "up"], env=env, capture_output=True,
                         text=True, timeout=60)
    assert res.returncode == 1 and "already up" in res.stderr
    # The first lab still has its engines.
    assert "supervisor dead" not in lab("status").stdout


def test_up_fails_when_a_daemon_is_missing(tmp_path):
    if os.geteuid() != 0:
        pytest.skip("the lab needs root")
    env = dict(os.environ, TOLVAR_BIN=str(tmp_path),
               TOLVAR_LAB_DIR=str(tmp_path / "lab"),
               TOLVAR_LAB_NAME=f"tm{os.getpid() % 10000}")
    res = subprocess.run([str(LAB), "up"], env=env, capture_output=True,
                         text=True, timeout=60)
    assert res.returncode == 1 and "keel is not built" in res.stderr


def test_status_into_a_closed_pipe_is_quiet(lab):
    res = subprocess.run(f"'{LAB}' status | head -1", shell=True, env=lab.env,
                         capture_output=True, text=True, timeout=60)
    assert res.stdout.startswith("re0:") and res.stderr == ""


def set_status(lab, engine, **keys):
    p = lab.dir / engine / "root/var/run/tolvard.status"
    st = dict(line.split("=", 1) for line in p.read_text().splitlines())
    st.update(keys)
    p.write_text("".join(f"{k}={v}\n" for k, v in st.items()))


def test_switchover_refuses_a_standby_that_is_not_ready(lab):
    assert wait_for(lambda: started(lab))
    for keys, why in (({"link": "down"}, "link of re1 is down"),
                      ({"replication_ready": "no"}, "not said that"),
                      ({"restart_in": "12"}, "restarts in 12")):
        set_status(lab, "re1", link="up", replication_ready="yes",
                   restart_in="-")
        set_status(lab, "re1", **keys)
        res = lab("switchover", check=False)
        assert res.returncode == 1, keys
        assert "standby not ready for graceful switchover" in res.stderr
        assert why in res.stderr
    assert "re0: role master" in lab("status").stdout
    assert signals(lab, "re1", "tolvard") == ["START"]
    # Forced, it goes on: the master dies and the standby takes over.
    lab("switchover", "--force")
    status = lab("status").stdout
    assert "re0: role standby" in status and "re1: role master" in status
    assert "HUP" in signals(lab, "re1", "tolvard")


def test_fail_kills_every_process_of_the_engine(lab):
    assert wait_for(lambda: started(lab))
    marker = lab.dir / "re0/root/var/run/client"
    client = subprocess.Popen([str(LAB), "exec", "re0", "sh", "-c",
                               f"touch {marker}; exec sleep 600"],
                              env=lab.env)
    # The client is inside the engine once it has left its mark.
    assert wait_for(marker.exists, timeout=60)
    lab("fail", "re0")
    assert client.wait(timeout=60) != 0
    assert "re1: role master" in lab("status").stdout
    # The supervisor starts the dead engine's daemons again, as standby.
    assert wait_for(lambda: signals(lab, "re0", "tolvard").count("START") == 2)
    assert "re0: role standby" in lab("status").stdout
