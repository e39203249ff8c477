#!/usr/bin/env bash
# The main job, shown on one machine: make a root from the sample under
# demo-root/, run tolvard in the foreground there, show its trace and stop it.
set -eu
top=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-build}
case $build in /*) ;; *) build=$top/$build ;; esac
bin=$build/bin
root=$top/demo-root

if [ "$(id -u)" -ne 0 ]; then
	echo "demo: tolvard runs as root; run make demo as root" >&2
	exit 1
fi

rm -rf "$root"
mkdir -p "$root"
cp -r "$top/etc/sample-root/." "$root/"
export TOLVAR_ROOT=$root
echo "demo: TOLVAR_ROOT=$root"
echo "demo: platform file:"; sed 's/^/    /' "$root/etc/tolvar/platform"
echo "demo: configuration:"; sed 's/^/    /' "$root/etc/tolvar/config"

"$bin/tolvard" -N &
pid=$!
trap 'kill -9 $pid 2>/dev/null || true' EXIT
for _ in $(seq 50); do
	grep -q "Config read ended" "$root/var/log/tolvard" 2>/dev/null && break
	sleep 0.1
done
echo "demo: tolvard running as pid $pid; asking for statistics (SIGPWR)"
kill -PWR $pid
sleep 0.5
echo "demo: stopping tolvard (SIGTERM)"
kill -TERM $pid
wait $pid && rc=0 || rc=$?
trap - EXIT
echo "demo: tolvard exited with status $rc; its trace:"
sed 's/^/    /' "$root/var/log/tolvard"
if [ -s "$root/var/log/events" ]; then
	echo "demo: system events:"
	sed 's/^/    /' "$root/var/log/events"
fi
