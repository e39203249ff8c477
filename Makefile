# Front door of the tree.  The build itself is CMake and Ninja.
#
#   make          build everything into build/ (programs in build/bin/)
#   make check    install what is missing, build, run every test, again
#                 with AddressSanitizer and UBSan, then the fuzzers
#   make demo     run the main job and show what it does
#   make bench    run the benchmarks
#   make torture  the long crash campaigns: the heap and unit-pool soaks
#                 with thousands of kills, crash-point tests many times
#   make clean    remove the build directories

BUILD ?= build

.PHONY: all build check demo bench clean deps torture

all: build

deps:
	@tools/install-deps.sh

build: deps
	cmake -S . -B $(BUILD) -G Ninja
	ninja -C $(BUILD)

check:
	tools/check.sh

demo: build
	tools/demo.sh $(BUILD)

bench: build
	tools/bench.sh $(BUILD)

torture: deps
	BUILD=$(BUILD) tools/torture.sh

clean:
	rm -rf build build-asan build-fuzz build-reports demo-root
