# Front door of the tree.  The build itself is CMake and Ninja.
#
#   make          build everything into build/ (programs in build/bin/)
#   make check    install what is missing, build, run every test, again
#                 with AddressSanitizer and UBSan, then the fuzzers
#   make torture  the long campaigns: the heap and unit-pool soaks with
#                 thousands of kills, crash points many times over, 20
#                 masters killed while handing out ids
#   make demo     build the programs of the main job, run it and show it
#   make bench    run the benchmarks
#   make install  install below $(DESTDIR)$(PREFIX) (default /usr/local)
#   make clean    remove the build directories
#
# TESTS=off builds without the unit tests: no GoogleTest, no apt-get.
# SHARED=on builds the libraries as shared objects.

BUILD ?= build
PREFIX ?= /usr/local
TESTS ?= on
SHARED ?= off
CMAKE_FLAGS = -DCMAKE_INSTALL_PREFIX=$(PREFIX)
ifeq ($(TESTS),off)
DEPS =
CMAKE_FLAGS += -DTOLVAR_TESTS=OFF
else
DEPS = deps
CMAKE_FLAGS += -DTOLVAR_TESTS=ON
endif
ifeq ($(SHARED),on)
CMAKE_FLAGS += -DBUILD_SHARED_LIBS=ON
else
CMAKE_FLAGS += -DBUILD_SHARED_LIBS=OFF
endif

.PHONY: all build configure check torture demo bench install clean deps

all: build

deps:
	@tools/install-deps.sh

configure: $(DEPS)
	cmake -S . -B $(BUILD) -G Ninja $(CMAKE_FLAGS)

build: configure
	ninja -C $(BUILD)

check:
	tools/check.sh

torture: build
	BUILD=$(BUILD) tools/torture.sh

# Only the programs that the demo runs.
demo: configure
	ninja -C $(BUILD) keel tolvard sdbctl
	tools/demo.sh $(BUILD)

bench: build
	tools/bench.sh $(BUILD)

install: build
	DESTDIR=$(DESTDIR) cmake --install $(BUILD)

clean:
	rm -rf build build-asan build-fuzz build-reports demo-root
