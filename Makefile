# Two entry points: `make run` and `make test`. Both install what is missing,
# configure and build, then run the diagnosis or the whole suite.
SHELL := /bin/bash
JOBS ?= $(shell nproc)
BUILD ?= build
ASAN_BUILD ?= build-asan
TSAN_BUILD ?= build-tsan

DEB_PACKAGES := cmake g++ make pkg-config ccache qtbase5-dev libqt5svg5-dev \
	libusb-1.0-0-dev libhidapi-dev libzmq3-dev cppzmq-dev libfmt-dev libspdlog-dev \
	libbackward-cpp-dev libsimpleini-dev libeigen3-dev libgtest-dev libgmock-dev \
	libbenchmark-dev libclang-rt-14-dev xvfb fonts-dejavu-core librsvg2-bin

.PHONY: all deps configure build run test unit-test asan-test tsan-test bench clean

all: build

# Installs the Debian packages that are missing (apt-get update first, as a
# fresh machine needs it).
deps:
	@missing=""; for p in $(DEB_PACKAGES); do \
	    dpkg-query -W -f='$${Status}' $$p 2>/dev/null | grep -q "install ok installed" || missing="$$missing $$p"; \
	done; \
	if [ -n "$$missing" ]; then \
	    echo "Installing:$$missing"; \
	    SUDO=""; [ "$$(id -u)" -ne 0 ] && SUDO=sudo; \
	    $$SUDO apt-get update -qq && DEBIAN_FRONTEND=noninteractive $$SUDO apt-get install -y -qq $$missing; \
	fi

configure: deps
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null

build: configure
	@cmake --build $(BUILD) -j $(JOBS)

run: build
	./$(BUILD)/kov_diagnostic -c

unit-test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

asan-test: deps
	@cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DKOV_SANITIZE=ON -DKOV_UNIT_ONLY=ON >/dev/null
	@cmake --build $(ASAN_BUILD) -j $(JOBS)
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=0 UBSAN_OPTIONS=print_stacktrace=1 ctest --output-on-failure -j $(JOBS) -L unit -LE nosan

tsan-test: deps
	@cmake -S . -B $(TSAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DKOV_TSAN=ON -DKOV_UNIT_ONLY=ON >/dev/null
	@cmake --build $(TSAN_BUILD) -j $(JOBS)
	cd $(TSAN_BUILD) && TSAN_OPTIONS=halt_on_error=1 ctest --output-on-failure -j $(JOBS) -L threads

test: unit-test asan-test

bench: build
	@for b in $(BUILD)/bench/bench_*; do [ -x "$$b" ] && "$$b" --benchmark_repetitions=5 --benchmark_report_aggregates_only=true; done

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(TSAN_BUILD)
