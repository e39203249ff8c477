"""keel and a damaged store: kept aside, reported, made again; never lost
in silence and never a reason to fail every start."""
import signal
import struct

import pytest

from ipc_scenario import GENEROUS, ipc_ns  # noqa: F401
from test_keel_client import root  # noqa: F401
from test_local_hostile import Scenario

HEAD = "/mfs/var/sdb/shmem/sdb.head"
INTF = "/mfs/var/sdb/shmem/sdb_intf.db"


def bad_magic(data):
    return struct.pack("=I", 0xDEADBEEF) + data[4:]


def longer(data):
    return data + b"\x55" * 100


def garbled_size(data):
    # global_size far beyond the file: every later mapping would fault.
    return data[:396] + struct.pack("=I", 0x7FFFFFF0) + data[400:]


def cut_short(data):
    return data[:100]


@pytest.fixture
def sc(root, ipc_ns):  # noqa: F811
    s = Scenario(root, ipc_ns)
    yield s
    s.close()


@pytest.mark.parametrize("store,damage,what", [
    (HEAD, bad_magic, "bad magic"),
    (HEAD, longer, "bytes, not"),
    (INTF, garbled_size, "size word beyond the file"),
    (INTF, cut_short, "shorter than its first mapping"),
])
def test_a_damaged_store_is_kept_aside_and_made_again(sc, store, damage,
                                                      what):
    sc.start_keel()
    sc.keel.send_signal(signal.SIGTERM)
    assert sc.keel.wait(timeout=GENEROUS) == 0
    path = sc.root.file(store)
    damaged = damage(path.read_bytes())
    path.write_bytes(damaged)

    sc.start_keel()
    assert sc.register()[1] & 1
    kept = list(path.parent.glob(path.name + ".damaged.*"))
    assert len(kept) == 1 and kept[0].read_bytes() == damaged
    events = [e for e in sc.root.events() if e[1] == "LIBSDB_STORE_DAMAGED"]
    assert len(events) == 1 and what in events[0][3]
    assert str(kept[0]) in events[0][3]
    assert path.read_bytes() != damaged

    # Made whole again: the next start finds nothing to complain about.
    sc.keel.send_signal(signal.SIGTERM)
    assert sc.keel.wait(timeout=GENEROUS) == 0
    sc.start_keel()
    assert sc.register()[1] & 1
    assert sc.root.event_tags().count("LIBSDB_STORE_DAMAGED") == 1

