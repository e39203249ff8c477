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
# Stand-in daemon: creates keel's socket path and logs the signals it gets.
mkdir -p "$TOLVAR_ROOT/var/run" "$TOLVAR_ROOT/var/log"
touch "$TOLVAR_ROOT/var/run/keel_server_communication"
log="$TOLVAR_ROOT/var/log/$(basename "$0").signals"
trap 'echo HUP >> "$log"' HUP
trap 'echo TERM >> "$log"; exit 0' TERM
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
    assert wait_for(lambda: signals(lab, "re1", "tolvard") == ["START"])
    lab("kill", "re1", "tolvard")
    assert wait_for(lambda: signals(lab, "re1", "tolvard") == ["START", "START"])
    assert "restarts 1" in lab("status").stdout
    # The other engine and the other daemon were left alone.
    assert signals(lab, "re0", "tolvard") == ["START"]
    assert signals(lab, "re1", "keel") == ["START"]


def test_switchover_flips_roles_and_signals_both_engines(lab):
    for e in ("re0", "re1"):
        assert wait_for(lambda e=e: signals(lab, e, "tolvard") == ["START"])
    lab("switchover")
    status = lab("status").stdout
    assert "re0: role standby" in status and "re1: role master" in status
    for e in ("re0", "re1"):
        for prog in ("keel", "tolvard"):
            assert wait_for(lambda e=e, p=prog: "HUP" in signals(lab, e, p))
    lab("switchover")
    assert "re0: role master" in lab("status").stdout


def test_down_stops_daemons_and_removes_namespaces(lab):
    for e in ("re0", "re1"):
        assert wait_for(lambda e=e: signals(lab, e, "tolvard") == ["START"])
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
    assert lab("up", check=False).returncode == 1
