"""The short-term store from several processes, and sdbctl sts.

sts-exercise opens the store below the test's TOLVAR_ROOT (no keel and no
System V objects are needed), so these tests share nothing with others.
"""
import json
import struct
import subprocess

import pytest

from conftest import program

ENTRY = 76
STORE = "/mfs/var/sdb/shmem/sdb_sts_data"


def run(root, *args, check=True):
    r = subprocess.run([program(args[0]), *map(str, args[1:])],
                       env=root.env(), capture_output=True, text=True,
                       timeout=120)
    if check:
        assert r.returncode == 0, (args, r.stdout, r.stderr)
    return r


def test_a_session_written_by_one_process_reads_back_in_another(root):
    wrote = run(root, "sts-exercise", "write", 7).stdout.splitlines()
    read = run(root, "sts-exercise", "read", 7).stdout.splitlines()
    assert read == wrote
    kinds = {line.split()[0] for line in wrote}
    assert kinds == {"attr", "dyn", "auth-req", "auth-resp", "app",
                     "service", "ids"}
    assert len([x for x in wrote if x.startswith("attr ")]) == 14
    shown = json.loads(run(root, "sdbctl", "sts", "show", "--json", 7).stdout)
    names = {a["name"] for a in shown["attributes"]}
    assert {"USER_MAC_ADDRESS", "ROUTING_INSTANCE_NAME"} <= names
    mac = [a for a in shown["attributes"] if a["name"] == "USER_MAC_ADDRESS"]
    assert mac[0]["value"] == "00:1b:21:3c:4d:5e"
    assert shown["service_ids"] == [8]
    text = run(root, "sdbctl", "sts", "show", 7).stdout
    assert "orvia-ipv6-address-type [member] = 24" in text
    assert run(root, "sdbctl", "sts", "show", 8, check=False).returncode == 1


def test_random_operations_leave_a_store_that_checks_and_damage_is_found(root):
    out = run(root, "sts-exercise", "random", 100000, 7).stdout
    assert out.startswith("ops 100000 ")
    status = json.loads(run(root, "sdbctl", "sts", "status", "--json").stdout)
    assert status["entries"] == 50 and status["home_slots"] == 20
    assert status["defragmentations"] > 0
    assert not status["damaged"]
    assert run(root, "sdbctl", "sts", "check").returncode == 0

    path = root.file(STORE)
    pristine = path.read_bytes()

    def planted(offset, data):
        img = bytearray(pristine)
        img[offset:offset + len(data)] = data
        path.write_bytes(bytes(img))
        r = run(root, "sdbctl", "sts", "check", "--json", check=False)
        path.write_bytes(pristine)
        assert r.returncode == 1, r.stdout
        return "\n".join(json.loads(r.stdout)["damage"])

    heap_ctl = 50 * ENTRY
    slot0 = struct.unpack_from("<I", pristine, 60)[0]
    # A free list that starts inside the slot's unused head.
    assert "free piece at 2" in planted(40, struct.pack("<H", 2))
    # Two entries claiming one slot.
    assert "share the slot" in planted(ENTRY + 60, struct.pack("<I", slot0))
    # A bin head that leads nowhere.
    assert "bin 0" in planted(heap_ctl + 16, struct.pack("<I", slot0 + 8))
    # A session outside its home entry.
    assert "belongs in entry" in planted(16, struct.pack("<Q", 2))
    # An attribute count that disagrees with the table.
    first = next(i for i in range(20)
                 if struct.unpack_from("<Q", pristine, i * ENTRY + 16)[0])
    client = struct.unpack_from("<H", pristine, first * ENTRY + 42)[0]
    slot = struct.unpack_from("<I", pristine, first * ENTRY + 60)[0]
    if client:
        assert "attribute" in planted(slot + client + 592,
                                      struct.pack("<H", 296))
    assert run(root, "sdbctl", "sts", "check").returncode == 0


def test_usage_and_a_missing_store(root):
    for args in (["sts"], ["sts", "show"], ["sts", "show", "x"],
                 ["sts", "show", "0"], ["sts", "stat"]):
        r = run(root, "sdbctl", *args, check=False)
        assert r.returncode == 2 and "usage" in r.stderr
    r = run(root, "sdbctl", "sts", "status", check=False)
    assert r.returncode == 1 and "sdb_sts_data" in r.stderr
