"""What "make install" gives a distribution: programs, man pages, headers
under one directory, pkg-config files whose flags build and link a client,
systemd units and the rotation of the trace files.

Installs the build under test into a DESTDIR of its own.
"""
import os
import shutil
import subprocess

import pytest

from conftest import BUILD



def cache(key, default=""):
    for line in (BUILD / "CMakeCache.txt").read_text().splitlines():
        if line.startswith(key + ":"):
            return line.split("=", 1)[1]
    return default


def configured_prefix():
    return cache("CMAKE_INSTALL_PREFIX", "/usr/local")


@pytest.fixture(scope="module")
def tree(tmp_path_factory):
    if shutil.which("cmake") is None or not (BUILD / "CMakeCache.txt").exists():
        pytest.skip("no configured build to install")
    dest = tmp_path_factory.mktemp("destdir")
    res = subprocess.run(["cmake", "--install", str(BUILD)],
                         env=dict(os.environ, DESTDIR=str(dest)),
                         capture_output=True, text=True, timeout=300)
    assert res.returncode == 0, res.stderr
    return dest


def test_programs_pages_units_and_rotation(tree):
    root = tree / configured_prefix().lstrip("/")
    for rel in ("sbin/keel", "sbin/tolvard", "sbin/sdbctl", "bin/tolvar-lab",
                "share/man/man8/sdbctl.8", "share/man/man8/tolvard.8",
                "share/man/man8/keel.8", "share/man/man1/tolvar-lab.1",
                "include/tolvar/sdb/sdb_id.h",
                "include/tolvar/platform/paths.h",
                "lib/systemd/system/keel.service",
                "lib/systemd/system/tolvard.service",
                "etc/logrotate.d/tolvar"):
        assert (root / rel).exists(), rel
    # Nothing of the project lands loose in include/.
    assert sorted(p.name for p in (root / "include").iterdir()) == ["tolvar"]
    unit = (root / "lib/systemd/system/tolvard.service").read_text()
    assert "Restart=always" in unit and "After=keel.service" in unit
    assert "Type=notify" in unit and f"ExecStart={configured_prefix()}/sbin/tolvard -N" in unit


def test_pkg_config_builds_and_links_a_client(tree, tmp_path):
    if shutil.which("pkg-config") is None:
        pytest.skip("pkg-config is not installed")
    libdir = next((tree / configured_prefix().lstrip("/")).glob("lib*/pkgconfig"))
    env = dict(os.environ, PKG_CONFIG_PATH=str(libdir),
               PKG_CONFIG_SYSROOT_DIR=str(tree))
    flags = subprocess.run(["pkg-config", "--cflags", "--libs", "tolvar-sdb"],
                           env=env, capture_output=True, text=True)
    assert flags.returncode == 0, flags.stderr
    src = tmp_path / "client.cc"
    src.write_text('#include <sdb/sdb_id.h>\n'
                   'int main() { return sdb_id_get() == 0 ? 0 : 1; }\n')
    exe = tmp_path / "client"
    # Libraries built for the sanitizers need them in the client too.
    sanitize = (["-fsanitize=address,undefined"]
                if cache("TOLVAR_SANITIZE") == "ON" else [])
    res = subprocess.run(["g++", "-std=c++20", *sanitize, str(src), "-o",
                          str(exe), *flags.stdout.split()],
                         capture_output=True, text=True, timeout=300)
    assert res.returncode == 0, res.stderr
    run_env = dict(os.environ, LD_LIBRARY_PATH=flags.stdout.split("-L")[1]
                   .split()[0] if "-L" in flags.stdout else "")
    assert subprocess.run([str(exe)], env=run_env).returncode == 0
