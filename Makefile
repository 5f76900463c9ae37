# The front door. Every target installs what it needs first (scripts/install-deps).
BUILD      ?= build
JOBS       ?= $(shell nproc)
BUILD_TYPE ?= RelWithDebInfo

.PHONY: all deps build test clean

all: build

deps:
	@scripts/install-deps

build: deps
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) >/dev/null
	@cmake --build $(BUILD) -j$(JOBS)

test: build
	@ctest --test-dir $(BUILD) --output-on-failure -j$(JOBS)

clean:
	rm -rf build build-*
