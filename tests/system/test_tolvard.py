"""tolvard as a process: command line, run modes, pid lock, role and signals.

Each test runs the real program below its own TOLVAR_ROOT and reads what it
left in the trace file and the event log.
"""
import os
import pathlib
import re
import shutil
import signal
import subprocess
import tempfile

import pytest

from conftest import Root, program, run, wait_for

USAGE = ("usage: tolvard [-C] [-N] [-X] [-v] [-d] [-D] [-s] [-c]\n"
         "\t-C\tcheck syntax of configuration only\n"
         "\t-N\tdo not fork\n"
         "\t-X\tuse XML\n"
         "\t-v\tversion only\n"
         "\t-d\tset debugging\n"
         "\t-s\tdisplay DB stats\n")

GRES = "set chassis redundancy graceful-switchover"
NOBODY = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]
READY = "Config read ended in status 1"
# Whatever keel answers, the daemon reaches it and says how it went.
OPEN_TRIED = re.compile(r"Database Environment changed|Failed to init SDB")
CLOSED = re.compile(r"Successfully closed SDB|Failed to close SDB")


@pytest.fixture
def tolvard():
    return program("tolvard")


@pytest.fixture
def open_root():
    """A root that an unprivileged user can read and write traces into.

    pytest's own temporary directories are private to root, so this one
    lives directly in /tmp.
    """
    path = pathlib.Path(tempfile.mkdtemp(prefix="tolvard-"))
    path.chmod(0o755)
    r = Root(path / "root")
    for d in ("", "etc", "etc/tolvar", "var", "var/log", "var/run"):
        r.file("/" + d).chmod(0o777 if d.startswith("var") else 0o755)
    yield r
    shutil.rmtree(path, ignore_errors=True)


class Daemon:
    """A tolvard started in the foreground, ended by the test or here."""

    def __init__(self, root, args):
        self.root = root
        if not root.file("/etc/tolvar/config").exists():
            root.write_config()
        self.proc = subprocess.Popen(
            [program("tolvard"), "-N", *args], env=root.env(),
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL)

    def trace(self):
        return self.root.trace("tolvard")

    def wait_trace(self, text, count=1):
        ok = wait_for(lambda: self.trace().count(text) >= count
                      or self.proc.poll() is not None)
        assert self.trace().count(text) >= count, self.trace()
        return ok

    def ready(self):
        """Set-up is through the signal handlers and the first read."""
        self.wait_trace(READY)
        return self

    def signal(self, sig):
        self.proc.send_signal(sig)

    def wait(self):
        return self.proc.wait(timeout=20)

    def stop(self):
        if self.proc.poll() is None:
            self.proc.kill()
            self.proc.wait(timeout=20)


@pytest.fixture
def daemons():
    started = []

    def start(root, *args):
        d = Daemon(root, args)
        started.append(d)
        return d

    yield start
    for d in started:
        d.stop()


def lines_in_order(text, *wanted):
    """True when the wanted lines occur in text in this order."""
    at = 0
    for w in wanted:
        at = text.find(w, at)
        if at < 0:
            return False
        at += len(w)
    return True


def process_gone(pid):
    try:
        state = pathlib.Path(f"/proc/{pid}/stat").read_text().split(") ")[1][0]
    except (FileNotFoundError, IndexError):
        return True
    return state in "ZX"


# Command line

@pytest.mark.parametrize("args,letter", [
    (["-z"], "z"),
    (["-d"], "d"),
    (["-d", "1"], "d"),
    (["-D"], "D"),
    (["-c"], "c"),
    (["-N", "-q"], "q"),
])
def test_unknown_option_prints_usage_and_exits_zero(root, tolvard, args, letter):
    res = run([tolvard, *args], root)
    assert res.returncode == 0
    assert res.stderr == f'tolvard: Unknown option "{letter}"\n' + USAGE
    assert res.stdout == ""
    assert root.events() == [
        ("0xff03", "TOLVARD_ARGUMENT_FAILURE", "option",
         f'TOLVARD_ARGUMENT_FAILURE: Unknown option "{letter}"')]
    assert not root.file("/var/log/tolvard").exists()
    assert not root.file("/var/run/tolvard.pid").exists()


@pytest.mark.parametrize("args,first_line", [
    (["-v"], "tolvard release "),
    (["-v", "-X"], "<software-information>"),
    (["-X", "-v", "-v"], "<software-information>"),
])
def test_version_touches_nothing(root, tolvard, args, first_line):
    res = run([tolvard, *args], root)
    assert res.returncode == 0
    assert res.stdout.startswith(first_line)
    assert not root.file("/var/log/tolvard").exists()
    assert root.events() == []


# Check mode, without root

@pytest.mark.parametrize("config,gres_line,rc", [
    ([GRES], "Graceful Switchover configured", 0),
    (["set chassis redundancy"], "Graceful Switchover not configured", 0),
    (["set chassis redundancy {"],
     "Error determining Graceful Switchover configuration, msg: line 1", 1),
])
def test_check_mode_reads_configuration_as_nobody(open_root, tolvard, config,
                                                  gres_line, rc):
    open_root.write_config(*config)
    res = run(NOBODY + [tolvard, "-C"], open_root)
    assert res.returncode == rc, res.stderr
    verdict = (res.stdout if rc == 0 else res.stderr).strip().splitlines()[-1]
    assert verdict.startswith("tolvard: configuration OK" if rc == 0 else
                              "tolvard: configuration check failed")
    trace = open_root.trace("tolvard")
    assert lines_in_order(trace, "Trace init", "=== Configuration CHECK ===",
                          gres_line, READY,
                          "=== Configuration CHECK DONE ==="), trace
    assert "TOLVARD_NOT_ROOT" not in open_root.event_tags()
    assert not open_root.file("/var/run/tolvard.pid").exists()


@pytest.mark.parametrize("unreadable", ["missing", "no permission"])
def test_check_mode_fails_without_configuration(open_root, tolvard, unreadable):
    if unreadable == "no permission":
        open_root.write_config(GRES)
        open_root.file("/etc/tolvar/config").chmod(0)
    res = run(NOBODY + [tolvard, "-C"], open_root)
    assert res.returncode == 1
    trace = open_root.trace("tolvard")
    assert ("tolvard_config_read: Error opening configuration database "
            "(check: 1): ") in trace
    assert "=== Configuration CHECK ===" not in trace
    assert "exited with code 1" in trace


@pytest.mark.parametrize("args", [["-N"], ["-s"]])
def test_not_root_is_refused(open_root, tolvard, args):
    res = run(NOBODY + [tolvard, *args], open_root)
    assert res.returncode == 1
    assert ("0xff03", "TOLVARD_NOT_ROOT", "program-name",
            "TOLVARD_NOT_ROOT: tolvard must be run as root") in open_root.events()
    assert not open_root.file("/var/run/tolvard.pid").exists()


def test_stats_mode_shows_the_running_daemon(root, tolvard, daemons):
    root.write_platform(role="master")
    root.write_config()
    # None running: it says so, and starts nothing.
    res = run([tolvard, "-s"], root)
    assert res.returncode == 1 and "no tolvard is running" in res.stderr
    assert not root.file("/var/run/tolvard.pid").exists()

    d = daemons(root).ready()
    assert wait_for(lambda: root.file("/var/run/tolvard.status").exists())
    res = run([tolvard, "-s"], root)
    assert res.returncode == 0, res.stderr
    assert f"pid={d.proc.pid}\n" in res.stdout and "role=Master" in res.stdout
    # The running daemon wrote its full statistics to its trace.
    d.wait_trace("====== Running stats FINISH =======")
    trace = d.trace()
    assert lines_in_order(trace, "====== Running stats START ======",
                          "Max buffer full 0 times", "role: Master",
                          "bytes_received: 0", "link_closes: 0",
                          "====== Running stats FINISH ======="), trace
    # A clean exit takes the pid file away and leaves the status, pid 0.
    d.signal(signal.SIGTERM)
    assert d.wait() == 0
    assert not root.file("/var/run/tolvard.pid").exists()
    assert "pid=0\n" in root.file("/var/run/tolvard.status").read_text()


# Pid lock

def test_second_instance_is_refused(root, tolvard, daemons):
    root.write_platform(role="master")
    first = daemons(root).ready()
    pid_file = root.file("/var/run/tolvard.pid")
    assert pid_file.read_text().strip() == str(first.proc.pid)

    res = run([tolvard, "-N"], root)
    assert res.returncode == 1
    assert ("0xff03", "TOLVARD_PID_FILE_LOCK", "program-name",
            "TOLVARD_PID_FILE_LOCK: Unable to lock PID file; "
            "another tolvard was running") in root.events()
    assert first.proc.poll() is None
    assert pid_file.read_text().strip() == str(first.proc.pid)

    first.signal(signal.SIGTERM)
    assert first.wait() == 0
    daemons(root).ready()	# the lock went with the first process


def test_daemon_keeps_the_lock_across_fork(root, tolvard):
    root.write_platform(role="standby")
    root.write_config()
    res = subprocess.run([tolvard], env=root.env(), stdin=subprocess.DEVNULL,
                         stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                         timeout=20)
    assert res.returncode == 0
    pid_file = root.file("/var/run/tolvard.pid")
    assert wait_for(lambda: pid_file.exists() and pid_file.read_text().strip())
    pid = int(pid_file.read_text())
    try:
        assert wait_for(lambda: READY in root.trace("tolvard"))
        assert not process_gone(pid)
        assert f"tolvard[{pid}] 4 {READY}" in root.trace("tolvard")

        second = run([tolvard, "-N"], root)
        assert second.returncode == 1
        assert "TOLVARD_PID_FILE_LOCK" in root.event_tags()
    finally:
        os.kill(pid, signal.SIGTERM)
    assert wait_for(lambda: process_gone(pid))
    assert "Shutdown complete" in root.trace("tolvard")


# Role

@pytest.mark.parametrize("platform,line", [
    ({"role": "master"}, "Init: We are Master"),
    ({"role": "standby"}, "Init: We are StandBy"),
    ({"role": "master", "master_reboot_pending": 1},
     "Init: We are neither Master nor StandBy"),
    ({"role": "none"}, "Init: We are neither Master nor StandBy"),
])
def test_role_from_platform(root, daemons, platform, line):
    root.write_platform(**platform)
    d = daemons(root).ready()
    skipped = "tolvard_open called, but our role is neither master nor standby"
    # The open comes after the configuration read that ready() waits for.
    if "neither" in line:
        assert wait_for(lambda: skipped in d.trace())
        assert not OPEN_TRIED.search(d.trace())
    else:
        assert wait_for(lambda: OPEN_TRIED.search(d.trace()))
        assert skipped not in d.trace()
    assert line in d.trace()


# Signals

def test_signals_act_from_the_event_loop(root, daemons):
    root.write_platform(role="master")
    root.write_config("set chassis redundancy")
    d = daemons(root).ready()
    assert "Graceful Switchover not configured" in d.trace()

    d.signal(signal.SIGUSR1)
    d.wait_trace("Enable libtolvar debug")
    d.signal(signal.SIGUSR1)
    d.wait_trace("Disable libtolvar debug")

    root.write_config(GRES)
    d.signal(signal.SIGHUP)
    d.wait_trace(READY, count=2)
    tail = d.trace().split("Disable libtolvar debug")[1]
    assert lines_in_order(tail, "=== Begin reloading configuration ===",
                          "Graceful Switchover configured", READY), tail

    d.signal(signal.SIGPWR)
    d.wait_trace("====== Running stats FINISH =======")
    assert lines_in_order(d.trace(), "====== Running stats START ======",
                          "Max buffer full 0 times",
                          "====== Running stats FINISH =======")

    d.signal(signal.SIGTERM)
    assert d.wait() == 0
    trace = d.trace()
    assert lines_in_order(
        trace, "received SIGTERM signal: graceful shutdown commencing....",
        "Shutdown complete"), trace
    assert CLOSED.search(trace.split("graceful shutdown commencing")[1])
    assert [e for e in root.events() if e[0] == "0xff03"] == []


def test_signals_that_arrive_together_run_in_fixed_order(root, daemons):
    """USR1, then HUP, then TERM; INFO after TERM is never reached."""
    root.write_platform(role="standby")
    d = daemons(root).ready()
    d.signal(signal.SIGSTOP)
    try:
        for sig in (signal.SIGPWR, signal.SIGTERM, signal.SIGHUP,
                    signal.SIGUSR1):
            d.signal(sig)
    finally:
        d.signal(signal.SIGCONT)
    assert d.wait() == 0
    trace = d.trace()
    assert lines_in_order(trace, "Enable libtolvar debug",
                          "=== Begin reloading configuration ===",
                          "received SIGTERM signal: graceful shutdown "
                          "commencing....", "Shutdown complete"), trace
    assert "Running stats START" not in trace


def test_sigpipe_is_ignored(root, daemons):
    root.write_platform(role="master")
    d = daemons(root).ready()
    d.signal(signal.SIGPIPE)
    d.signal(signal.SIGPWR)
    d.wait_trace("====== Running stats FINISH =======")
    assert d.proc.poll() is None
