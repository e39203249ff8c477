#!/usr/bin/env bash
# Run every benchmark program of the build.  Each one measures its own
# baseline in the same run and prints ratios against it.
set -u
build=${1:-build}
status=0
found=0
for b in "$build"/bench/*; do
	[ -f "$b" ] && [ -x "$b" ] || continue
	found=1
	printf '\n=== %s ===\n' "$(basename "$b")"
	"$b" || status=1
done
[ $found -eq 1 ] || echo "bench: no benchmark is built"
exit $status
