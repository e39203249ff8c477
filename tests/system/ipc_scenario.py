"""keel and its clients as real processes in an IPC namespace of their own.

The main segment and the semaphores live under fixed System V keys, so
each scenario keeps a namespace in a file made by "unshare --ipc=FILE"
and every process of the scenario enters it with nsenter.
"""
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


class IpcScenario:
    def __init__(self, root, ns):
        self.root, self.ns, self.procs, self.keel = root, ns, [], None

    def argv(self, name, *args):
        return ["nsenter", f"--ipc={self.ns}", "--", program(name),
                *map(str, args)]

    def spawn(self, name, *args, stdout=subprocess.DEVNULL, **env):
        p = subprocess.Popen(self.argv(name, *args), env=self.root.env(**env),
                             stdin=subprocess.DEVNULL, stdout=stdout,
                             stderr=subprocess.DEVNULL)
        self.procs.append(p)
        return p

    def run(self, name, *args):
        return subprocess.run(self.argv(name, *args), env=self.root.env(),
                              capture_output=True, text=True,
                              timeout=GENEROUS)

    def start_keel(self, **env):
        started = lambda: self.root.trace("keel").count("keel started")
        before = started()
        self.keel = self.spawn("keel", "-N", **env)
        assert wait_for(lambda: started() > before, timeout=GENEROUS), \
            self.root.trace("keel")
        return self.keel

    def close(self):
        for p in self.procs:
            if p.poll() is None:
                p.kill()
            p.wait(timeout=GENEROUS)
