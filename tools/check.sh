#!/usr/bin/env bash
# The whole test run: dependencies, build, unit and system tests, the same
# again under AddressSanitizer and UBSan, and a bounded run of every fuzzer.
# Ends with one line "N passed, M failed".  Exit status 0 only when all pass.
set -u
top=$(cd "$(dirname "$0")/.." && pwd)
cd "$top"
reports="$top/build-reports"
rm -rf "$reports"
mkdir -p "$reports"
fuzz_seconds=${FUZZ_SECONDS:-15}
status=0

step() { printf '\n=== %s ===\n' "$*"; }

step "dependencies"
tools/install-deps.sh || { echo "check: cannot install dependencies"; exit 1; }

# run_suite NAME BUILDDIR [cmake args...]
run_suite() {
	local name=$1 dir=$2
	shift 2
	step "$name: build"
	if ! cmake -S "$top" -B "$dir" -G Ninja "$@" >/dev/null ||
	   ! ninja -C "$dir"; then
		echo "check: $name build failed"
		echo "build-$name" >> "$reports/broken"
		status=1
		return
	fi
	step "$name: unit tests"
	ctest --test-dir "$dir" --output-on-failure -j2 \
	      --output-junit "$reports/$name-unit.xml" || status=1
	step "$name: system tests"
	TOLVAR_BUILD="$dir" /usr/bin/python3 -m pytest -q -p no:cacheprovider \
	      --junitxml="$reports/$name-system.xml" tests/system
	local rc=$?
	# 5 means no test was collected, which is not a failure of the run.
	[ $rc -eq 0 ] || [ $rc -eq 5 ] || status=1
}

run_fuzzers() {
	local dir=$top/build-fuzz
	step "fuzz: build"
	if ! cmake -S "$top" -B "$dir" -G Ninja -DTOLVAR_FUZZ=ON \
	        -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ >/dev/null ||
	   ! ninja -C "$dir"; then
		echo "check: fuzz build failed"
		echo "build-fuzz" >> "$reports/broken"
		status=1
		return
	fi
	[ -d "$dir/fuzz" ] || return
	for f in "$dir"/fuzz/*; do
		[ -x "$f" ] || continue
		local name corpus work
		name=$(basename "$f")
		corpus=$top/tests/fuzz/corpus/$name
		work=$(mktemp -d)
		[ -d "$corpus" ] && cp -r "$corpus"/. "$work"/
		step "fuzz: $name for ${fuzz_seconds}s"
		if "$f" -max_total_time="$fuzz_seconds" -rss_limit_mb=2048 \
		        -artifact_prefix="$reports/$name-" "$work" \
		        > "$reports/$name.log" 2>&1; then
			echo "fuzz $name ok" >> "$reports/fuzz"
		else
			tail -40 "$reports/$name.log"
			echo "fuzz $name FAILED" >> "$reports/fuzz"
			status=1
		fi
		rm -rf "$work"
	done
}

run_suite plain "$top/build"
run_suite sanitize "$top/build-asan" -DTOLVAR_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug
run_fuzzers

step "summary"
/usr/bin/python3 tools/check-summary.py "$reports" || status=1
exit $status
