#!/usr/bin/env bash
# Long crash campaigns that "make check" runs only briefly: the mapped-heap
# soak and the unit-pool soak, each with thousands of SIGKILLs at random
# (TORTURE_KILLS, 3000 by default), checking that no block or unit is
# handed out twice and that no healthy store is refused.  Then the tests
# that stop a process at a named crash point, many times over.
set -u
top=$(cd "$(dirname "$0")/.." && pwd)
cd "$top"
build=${BUILD:-build}
kills=${TORTURE_KILLS:-3000}
rounds=${TORTURE_ROUNDS:-50}
status=0

cmake -S "$top" -B "$build" -G Ninja >/dev/null && ninja -C "$build" || exit 1

printf '\n=== soaks, %s kills each ===\n' "$kills"
TOLVAR_BUILD="$build" TOLVAR_TORTURE_KILLS="$kills" /usr/bin/python3 -m \
    pytest -q -p no:cacheprovider \
    "tests/system/test_mmf.py::test_soak_with_random_kills_leaves_a_valid_heap" \
    "tests/system/test_sdbenv.py::test_unit_pool_soak_with_random_kills_hands_no_unit_out_twice" ||
    status=1

printf '\n=== crash points, %s rounds ===\n' "$rounds"
"$build"/tests/mmf_test --gtest_repeat="$rounds" --gtest_brief=1 \
    --gtest_filter='MmfOpen.*:MmfDeadHolder.*' || status=1
"$build"/tests/meminfo_test --gtest_repeat="$rounds" --gtest_brief=1 \
    --gtest_filter='Meminfo.AWriterKilled*' || status=1
"$build"/tests/sdb_bucket_test --gtest_repeat="$rounds" --gtest_brief=1 ||
    status=1
unshare --ipc -- "$build"/tests/sdb_id_test --gtest_repeat="$rounds" \
    --gtest_brief=1 --gtest_filter='UnitPool.*' || status=1

printf '\n=== masters killed while handing out ids, 20 runs ===\n'
TOLVAR_BUILD="$build" TOLVAR_ID_MARGIN_RUNS=20 /usr/bin/python3 -m pytest -q \
    -p no:cacheprovider tests/system/test_id_margin.py || status=1

printf '\n=== mapped queue campaign ===\n'
tools/mmcq-torture.sh "$build" || status=1

printf '\n=== long-term store writers, 10,000 kills ===\n'
tools/lts-torture.sh "$build" || status=1

[ $status -eq 0 ] && echo "torture: passed" || echo "torture: FAILED"
exit $status
