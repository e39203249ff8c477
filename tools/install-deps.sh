#!/bin/sh
# Install the Debian packages the build and the tests need.  Runs apt-get
# only when something is missing, so a ready machine is not touched.
set -e
pkgs="cmake ninja-build g++ clang libclang-rt-14-dev libgtest-dev libgmock-dev
      libbenchmark-dev python3 python3-pytest iproute2 util-linux procps gdb
      psmisc pkg-config liblmdb-dev"
missing=""
for p in $pkgs; do
	dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" ||
		missing="$missing $p"
done
[ -z "$missing" ] && exit 0
if [ "$(id -u)" -ne 0 ]; then
	echo "install-deps: missing packages:$missing (run as root to install)" >&2
	exit 1
fi
export DEBIAN_FRONTEND=noninteractive
apt-get update
# shellcheck disable=SC2086
apt-get install -y --no-install-recommends $missing
