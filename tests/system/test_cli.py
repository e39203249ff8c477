"""The programs as an operator types them: help, version, stray words,
exit codes (0 success, 1 failure, 2 usage) and configuration checks.

Each test runs the real programs below its own TOLVAR_ROOT.
"""
import pytest

from conftest import TOP, program, run, wait_for

GRES = "set chassis redundancy graceful-switchover"
LAB = str(TOP / "tools/lab/tolvar-lab")


@pytest.mark.parametrize("name", ["tolvard", "keel"])
@pytest.mark.parametrize("word", ["help", "status", "start"])
def test_a_stray_word_starts_no_daemon(root, name, word):
    res = run([program(name), word], root)
    assert res.returncode == 2
    assert f'unexpected operand "{word}"' in res.stderr
    assert res.stderr.splitlines()[1].startswith(f"usage: {name}")
    assert not root.file(f"/var/run/{name}.pid").exists()


@pytest.mark.parametrize("name", ["tolvard", "keel", "sdbctl", "tolvar-lab"])
def test_help_and_version(root, name):
    prog = LAB if name == "tolvar-lab" else program(name)
    res = run([prog, "--help"], root)
    assert res.returncode == 0 and res.stdout.startswith(f"usage: {name}")
    res = run([prog, "--version"], root)
    assert res.returncode == 0 and res.stdout.startswith(name)
    assert not root.file(f"/var/run/{name}.pid").exists()


def test_sdbctl_usage(root):
    sdbctl = program("sdbctl")
    for cmd in ("status", "id", "unit", "barrier", "strerror", "meminfo"):
        res = run([sdbctl, cmd, "--help"], root)
        assert res.returncode == 0, cmd
        assert res.stdout.startswith(f"usage: sdbctl {cmd}"), cmd
    for args in (["status", "now"], ["meminfo", "x"], ["id", "show", "1"],
                 ["bogus"], [], ["barrier", "-x"]):
        assert run([sdbctl, *args], root).returncode == 2, args


def test_sdbctl_refuses_to_hand_out_on_a_standby(root):
    root.write_platform(role="standby", scale_class=100)
    sdbctl = program("sdbctl")
    for args in (["id", "generate"], ["unit", "alloc", "ifl"],
                 ["unit", "release", "ifl", "1073741824"]):
        res = run([sdbctl, *args], root)
        assert res.returncode == 1, args
        assert "this engine is Standby" in res.stderr and "--force" in res.stderr


@pytest.mark.parametrize("config,platform,error", [
    ([GRES], "role = master\nscale_class = 100\n", None),
    ([], "role = standby\n", None),
    (["this is not a configuration"], "role = master\n", "syntax error"),
    ([GRES], "role = primary\n", "value out of range: role = primary"),
    ([GRES], "scale_class = 7\n", "value out of range: scale_class = 7"),
    ([GRES], "rol = master\n", "unknown key: rol = master"),
    ([GRES, "set system processes tolvard session-id-margin 0"], "",
     'bad value "0" of session-id-margin'),
    ([GRES, "set system processes tolvard session-id-rate fast"], "",
     'bad value "fast" of session-id-rate'),
])
def test_check_mode_gives_a_verdict(root, config, platform, error):
    root.write_config(*config)
    root.file("/etc/tolvar/platform").write_text(platform)
    res = run([program("tolvard"), "-C"], root)
    if error is None:
        assert res.returncode == 0, res.stderr
        assert res.stdout.startswith("tolvard: configuration OK")
    else:
        assert res.returncode == 1
        assert error in res.stderr
        assert "configuration check failed" in res.stderr


def test_margin_settings_are_taken(root):
    root.write_config(GRES, "set system processes tolvard session-id-margin 5",
                      "set system processes tolvard session-id-margin-unknown 7")
    res = run([program("tolvard"), "-C"], root)
    assert res.returncode == 0, res.stderr


def test_a_daemon_in_the_background_lets_go_of_its_streams(root):
    import os
    import signal
    import subprocess
    if os.geteuid() != 0:
        pytest.skip("tolvard needs root")
    root.write_platform(role="standby")
    root.write_config(GRES)
    # The pipes reach end of file only when no process holds them: the
    # parent exits and the detached child must have closed them too.
    proc = subprocess.Popen(["unshare", "--ipc", "--", program("tolvard")],
                            env=root.env(), stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE, stdin=subprocess.DEVNULL)
    try:
        out, err = proc.communicate(timeout=30)
    finally:
        # The child writes its pid after it has detached.
        pid_file = root.file("/var/run/tolvard.pid")
        assert wait_for(lambda: pid_file.exists() and
                        pid_file.read_text().strip())
        os.kill(int(pid_file.read_text()), signal.SIGKILL)
    assert proc.returncode == 0 and out == b"" and err == b""
