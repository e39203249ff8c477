#!/usr/bin/env bash
# The main job, shown on one machine: two routing engines in the lab
# (tolvar-lab(1)), session ids made on the master and followed by the
# standby, a switchover, and the new master going on without handing out
# an id twice.  The lab comes down at the end, also when a step fails.
#
# The old master starts again as standby 30 seconds after the switchover,
# as on a router; the demo waits for it.
set -u
top=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-build}
case $build in /*) ;; *) build=$top/$build ;; esac
bin=$build/bin
lab=$top/tools/lab/tolvar-lab

# A lab of its own for each run, so that two demos on one machine (or a
# demo beside the tests) never share namespaces, addresses or files.
export TOLVAR_BIN=$bin
export TOLVAR_LAB_NAME=${TOLVAR_LAB_NAME:-td$(($$ % 100000))}
export TOLVAR_LAB_DIR=${TOLVAR_LAB_DIR:-/tmp/tolvar-demo-$TOLVAR_LAB_NAME}
export TOLVAR_LAB_SUBNET=${TOLVAR_LAB_SUBNET:-10.76.$(($$ % 250))}

failed=0
say() { printf 'demo: %s\n' "$*"; }
indent() { sed 's/^/    /'; }
fail() { say "FAILED: $*"; failed=1; }
trace() { cat "$TOLVAR_LAB_DIR/$1/root/var/log/tolvard" 2>/dev/null; }
count() { trace "$1" | grep -c -F -- "$2"; }
on() { "$lab" exec "$@"; }

# Wait up to $3 seconds for the $4th (default 1st) line $2 in $1's trace.
wait_trace() {
	local n=${4:-1} i
	for i in $(seq $(($3 * 10))); do
		[ "$(count "$1" "$2")" -ge "$n" ] && return 0
		sleep 0.1
	done
	return 1
}

if [ "$(id -u)" -ne 0 ]; then
	say "the lab needs root for its namespaces; run make demo as root" >&2
	exit 1
fi
for p in keel tolvard sdbctl; do
	[ -x "$bin/$p" ] || { say "$p is not built in $build" >&2; exit 1; }
done

trap 'say "taking the lab down"; "$lab" down | indent' EXIT

say "1. two routing engines: re0 master, re1 standby"
"$lab" up | indent || exit 1
if ! wait_trace re0 "Mirroring connection up" 30 ||
   ! wait_trace re1 "Mirroring connection up" 30; then
	fail "the mirror link did not come up"
	trace re0 | grep -F "not built yet" | tail -3 | indent
fi
"$lab" status | indent

have_ids=1
if ! on re0 sdbctl id show >/dev/null 2>&1; then
	say "sdbctl id is not in this build: the session id steps are left out"
	have_ids=0
fi

if [ $have_ids = 1 ]; then
	say "2. the master hands out session ids"
	first=$(on re0 sdbctl id generate 5)
	echo $first | indent
	say "   and waits until the standby has acknowledged all it was sent"
	on re0 sdbctl barrier -t 30 | indent || fail "barrier on the master"

	say "3. the standby follows"
	m=$(on re0 sdbctl id show); s=$(on re1 sdbctl id show)
	echo "master re0: $m, standby re1: $s" | indent
	[ "$s" -ge "$m" ] 2>/dev/null || fail "the standby is behind the master"
fi

say "4. switchover: re1 becomes master in place, re0 restarts as standby"
opens=$(count re1 "Database Environment changed")
"$lab" switchover | indent
wait_trace re1 "Switching from Standby to Master" 30 || fail "re1 did not switch"
wait_trace re1 "Database Environment changed" 30 $((opens + 1)) ||
	fail "re1 did not open the database as master"
trace re1 | grep -F -e "Switching from" -e "Mastership change" | tail -2 | indent
trace re0 | grep -F -e "Switching from" -e "Restarting in" | tail -2 | indent

if [ $have_ids = 1 ]; then
	say "5. the new master goes on above the old one's ids, past its margin"
	second=$(on re1 sdbctl id generate 5)
	echo $second | indent
	reused=$(printf '%s\n%s\n' "$first" "$second" | sort -n | uniq -d)
	if [ -n "$reused" ]; then
		fail "ids handed out twice: $reused"
	else
		say "   no id was handed out twice"
	fi
fi

say "   waiting for re0 to come back as standby (30 seconds)"
if wait_trace re0 "tolvard restarting as standby" 60 &&
   wait_trace re0 "Mirroring connection up" 30 2; then
	trace re0 | grep -F -e "tolvard restarting" -e "Init: We are" | tail -2 | indent
	if [ $have_ids = 1 ]; then
		on re1 sdbctl barrier -t 30 | indent || fail "barrier on the new master"
		m=$(on re1 sdbctl id show); s=$(on re0 sdbctl id show)
		echo "master re1: $m, standby re0: $s" | indent
		[ "$s" -ge "$m" ] 2>/dev/null || fail "the new standby is behind"
	fi
else
	fail "re0 did not come back as standby"
fi
"$lab" status | indent

say "6. done"
if [ $failed = 0 ]; then
	say "every step went as it should"
else
	say "some steps failed; the traces are in $TOLVAR_LAB_DIR until the next run"
fi
exit $failed
