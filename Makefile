# Two entry points: `make run` and `make test`. Both install the Debian
# packages that are missing, configure and build with CMake into build/, then
# run the diagnosis on this terminal or the whole test suite.
SHELL := /bin/bash
.SHELLFLAGS := -eu -o pipefail -c
JOBS ?= $(shell nproc 2>/dev/null || echo 2)
BUILD ?= build
ASAN_BUILD ?= build-asan
TSAN_BUILD ?= build-tsan
FUZZ_BUILD ?= build-fuzz
FUZZ_SECONDS ?= 60
FUZZ_TEST_SECONDS ?= 5
BUILD_TYPE ?= RelWithDebInfo
CTEST_FLAGS ?= --output-on-failure

DEB_PACKAGES := cmake g++ make pkg-config ccache qtbase5-dev \
	libusb-1.0-0-dev libhidapi-dev libzmq3-dev cppzmq-dev libfmt-dev libspdlog-dev \
	libbackward-cpp-dev libsimpleini-dev libeigen3-dev libgtest-dev libgmock-dev \
	libbenchmark-dev libclang-rt-14-dev libegl-dev xvfb fonts-dejavu-core librsvg2-bin

.PHONY: all deps configure build run test unit-test e2e-test asan-test tsan-test fuzz-build fuzz fuzz-test bench \
	screenshots clean

all: build

# Installs the Debian packages that are missing (apt-get update first, as a
# fresh machine needs it). Uses sudo when not run as root.
deps:
	@missing=""; \
	for p in $(DEB_PACKAGES); do \
	    status=$$(dpkg-query -W -f='$${Status}' "$$p" 2>/dev/null || true); \
	    case "$$status" in *"install ok installed"*) ;; *) missing="$$missing $$p" ;; esac; \
	done; \
	if [ -n "$$missing" ]; then \
	    echo "Installing missing packages:$$missing"; \
	    SUDO=""; \
	    if [ "$$(id -u)" -ne 0 ]; then \
	        if command -v sudo >/dev/null; then SUDO=sudo; \
	        else echo "Missing packages:$$missing -- run as root or install sudo" >&2; exit 1; fi; \
	    fi; \
	    $$SUDO apt-get update -qq; \
	    DEBIAN_FRONTEND=noninteractive $$SUDO apt-get install -y -qq --no-install-recommends $$missing; \
	fi

configure: deps
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) >/dev/null

build: configure
	@cmake --build $(BUILD) -j $(JOBS)

# The diagnosis in command-line mode; the report is written in the current
# directory.
run: build
	./$(BUILD)/kov_diagnostic -c

# Everything: the normal build's suite (unit, end-to-end, GUI), then the unit
# tests again under AddressSanitizer and UndefinedBehaviorSanitizer, the
# threaded ones under ThreadSanitizer, and the fuzz targets' regression run.
test:
	@$(MAKE) --no-print-directory unit-test
	@$(MAKE) --no-print-directory asan-test
	@$(MAKE) --no-print-directory tsan-test
	@$(MAKE) --no-print-directory fuzz-test

unit-test: build
	cd $(BUILD) && ctest $(CTEST_FLAGS) -j $(JOBS)

e2e-test: build
	cd $(BUILD) && ctest $(CTEST_FLAGS) -j $(JOBS) -L e2e

asan-test: deps
	@cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DKOV_SANITIZE=ON -DKOV_UNIT_ONLY=ON >/dev/null
	@cmake --build $(ASAN_BUILD) -j $(JOBS)
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=0:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	    ctest $(CTEST_FLAGS) -j $(JOBS) -L unit -LE nosan

# The thread sanitizer covers the threaded parts: only the test programs
# labelled "threads" (and the libraries they need) are built for it.
tsan-test: deps
	@cmake -S . -B $(TSAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DKOV_TSAN=ON -DKOV_UNIT_ONLY=ON >/dev/null
	@targets=$$(cd $(TSAN_BUILD) && ctest -N -L threads | sed -n 's/^ *Test *#[0-9]*: *//p'); \
	    cmake --build $(TSAN_BUILD) -j $(JOBS) --target $$targets
	cd $(TSAN_BUILD) && TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" \
	    ctest $(CTEST_FLAGS) -j $(JOBS) -L threads

# The libFuzzer targets of tests/fuzz: clang, coverage, AddressSanitizer and
# UndefinedBehaviorSanitizer; optimised a little (-O1) so that each target
# runs thousands of inputs a second, asserts kept.
fuzz-build: deps
	@cmake -S . -B $(FUZZ_BUILD) -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
	    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_FLAGS_RELWITHDEBINFO="-O1 -g" \
	    -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -g" -DKOV_FUZZ=ON -DKOV_UNIT_ONLY=ON >/dev/null
	@cmake --build $(FUZZ_BUILD) -j $(JOBS) --target kov_fuzz_all

# Each fuzz target for FUZZ_SECONDS (FUZZ_RUNS=N: N executions instead) on a
# working corpus in $(FUZZ_BUILD)/fuzz-corpus; new crashing inputs are left in
# $(FUZZ_BUILD)/fuzz-crashes/<name>/ for triage. FUZZ_TARGETS="a b" picks some.
fuzz: fuzz-build
	tests/fuzz/run_fuzz.sh campaign $(FUZZ_BUILD) $(FUZZ_SECONDS) $(FUZZ_TARGETS)

# The step of `make test`: every crash input kept under tests/fuzz/crashes
# runs again, then each target runs FUZZ_TEST_SECONDS over its seed corpus.
fuzz-test: fuzz-build
	tests/fuzz/run_fuzz.sh regress $(FUZZ_BUILD) $(FUZZ_TEST_SECONDS) $(FUZZ_TARGETS)

bench: build
	@for b in $(BUILD)/bench/bench_*; do \
	    if [ -x "$$b" ]; then "$$b" --benchmark_repetitions=5 --benchmark_report_aggregates_only=true; fi; \
	done

# Screenshots of the graphical mode, taken under a virtual X server.
screenshots: configure
	scripts/screenshots.sh $(BUILD)

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(TSAN_BUILD) $(FUZZ_BUILD)
