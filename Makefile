# The front door. Every target installs what it needs first (scripts/install-deps).
BUILD      ?= build
JOBS       ?= $(shell nproc)
BUILD_TYPE ?= RelWithDebInfo

.PHONY: all deps build test demo bench bench-flood bench-profile bench-scale fuzz install package clean

all: build

deps:
	@scripts/install-deps

build: deps
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) >/dev/null
	@cmake --build $(BUILD) -j$(JOBS)

test: build
	@ctest --test-dir $(BUILD) --output-on-failure -j$(JOBS)

# The lab of scripts/demo (root: namespaces and raw sockets); only the two programs it runs are built,
# quietly: the build's output shows only when it fails.
demo: deps
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) >/dev/null
	@log=$$(mktemp); if cmake --build $(BUILD) -j$(JOBS) --target solicd solicctl >$$log 2>&1; then rm -f $$log; \
	    else cat $$log >&2; rm -f $$log; echo "demo: the build failed (above)" >&2; exit 1; fi
	@SOLICD_BIN=$(abspath $(BUILD))/bin scripts/demo

# Every benchmark executable in build/bin named bench_*; figures are printed.
bench: build
	@for b in $(BUILD)/bin/bench_*; do echo "== $$(basename $$b)"; $$b --benchmark_min_time=0.2; done

# The flood benchmark (root): RA floods over a veth between two namespaces against a raw-socket
# reference; the table is printed and written to bench/results/latest.md.
bench-flood: build
	@bench/flood/run.sh

# Where solicd's time goes per RA under the typical flood (root, perf): system calls, parts of the
# process and functions; the table is printed and written to bench/results/profile.md.
bench-profile: build
	@bench/flood/profile.sh

# The scale benchmark (root): 100 idle daemons in 100 namespaces, their memory (PSS), CPU and
# wakeups over 20 s; the table is printed and written to bench/results/scale.md.
bench-scale: build
	@bench/scale/run.sh

# Each fuzz target for FUZZ_SECONDS over its seeds and regression inputs (clang, ASan+UBSan).
FUZZ_SECONDS ?= 30
fuzz: deps
	@CC=clang CXX=clang++ cmake -S . -B build-fuzz -DSOLICD_FUZZ=ON -DSOLICD_TESTS=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	@cmake --build build-fuzz -j$(JOBS)
	@scripts/run-fuzzers build-fuzz/bin $(FUZZ_SECONDS)

# Installs into $(DESTDIR)$(PREFIX). The prefix is configured into the build, since the systemd
# unit and the pkg-config files name it; a real install (no DESTDIR) by root refreshes the linker
# cache and makes group lmx and /run/lmx at once, as the next boot would.
PREFIX  ?= /usr/local
DESTDIR ?=
install: deps
	@cmake -S . -B $(BUILD) -DCMAKE_INSTALL_PREFIX=$(PREFIX) >/dev/null
	@cmake --build $(BUILD) -j$(JOBS)
	@DESTDIR="$(DESTDIR)" cmake --install $(BUILD)
	@if [ -z "$(DESTDIR)" ] && [ "$$(id -u)" -eq 0 ]; then \
	    ldconfig && systemd-sysusers solicd.conf && systemd-tmpfiles --create solicd.conf; fi

# The Debian packages (debian/), built by dpkg-buildpackage from a copy of the tree in
# $(PACKAGE_BUILD)/source; prints the paths of the .deb files. DEB_BUILD_OPTIONS=nocheck leaves
# out the unit tests.
PACKAGE_BUILD ?= build-package
package: deps
	@scripts/build-packages $(PACKAGE_BUILD)

clean:
	rm -rf build build-*
