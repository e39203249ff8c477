#!/usr/bin/env bash
# The long run of the mapped queue's torture: the random campaign for
# MMCQ_TORTURE_SECONDS (default 600) under several seeds, then every crash
# point again.  make check runs the same tests, short.
set -u
build=${1:-build}
top=$(cd "$(dirname "$0")/.." && pwd)
seconds=${MMCQ_TORTURE_SECONDS:-600}
rounds=${MMCQ_TORTURE_ROUNDS:-3}
status=0
for i in $(seq 1 "$rounds"); do
	seed=$((19 + i * 7919))
	printf '\n=== mmcq torture: seed %d, %ds ===\n' "$seed" "$seconds"
	MMCQ_TORTURE_SECONDS=$seconds MMCQ_TORTURE_SEED=$seed \
	TOLVAR_BUILD="$top/$build" /usr/bin/python3 -m pytest -q \
	    -p no:cacheprovider "$top/tests/system/test_mmcq.py" || status=1
done
exit $status
