# Front door of the tree.  The build itself is CMake and Ninja.
#
#   make          build everything into build/ (programs in build/bin/)
#   make check    install what is missing, build, run every test, again
#                 with AddressSanitizer and UBSan, then the fuzzers
#   make demo     run the main job and show what it does
#   make bench    run the benchmarks
#   make torture  long crash campaigns (the long-term store: 10,000 kills)
#   make clean    remove the build directories

BUILD ?= build

.PHONY: all build check demo bench torture clean deps

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

torture: build
	tools/lts-torture.sh $(BUILD)

clean:
	rm -rf build build-asan build-fuzz build-reports demo-root
