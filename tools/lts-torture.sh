#!/bin/sh
# The crash torture of the long-term store at full length: 10,000 kills
# of its writers, at random instants and at named crash points.
#   tools/lts-torture.sh [build-dir] [kills]
set -e
build=${1:-build}
kills=${2:-10000}
cd "$(dirname "$0")/.."
TOLVAR_BUILD="$build" LTS_TORTURE_KILLS="$kills" /usr/bin/python3 -m pytest \
    -q -s -p no:cacheprovider tests/system/test_lts_torture.py
