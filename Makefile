# The project's entry points. `make demo` and `make test` set up everything
# they need on a fresh Debian machine (packages, configure, build) first.

BUILD_DIR ?= build
BUILD_TYPE ?= RelWithDebInfo
CMAKE_FLAGS ?=
# The tests mostly wait on the daemon's fixed periods, so they run wide; the
# sanitized builds cost the CPU several times more, so they run narrower.
TEST_JOBS ?= 12
SAN_TEST_JOBS ?= 8

.PHONY: all build deps test lint format test-asan test-tsan soak fuzz demo emulate bench bench-hostile card card-test package clean

all: build

deps:
	@tools/install-deps.sh

build: deps
	@if [ ! -f $(BUILD_DIR)/build.ninja ]; then \
	    cmake -S . -B $(BUILD_DIR) -G Ninja -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) $(CMAKE_FLAGS); \
	fi
	@cmake --build $(BUILD_DIR)

test: build
	cd $(BUILD_DIR) && ctest --output-on-failure -j $(TEST_JOBS)

demo: build
	@$(BUILD_DIR)/bin/orv-demo

bench: build
	@tools/install-deps.sh base bench
	@$(BUILD_DIR)/bin/orv-bench all

# Honest hosts served while every attack runs at once, against the same load
# undisturbed (bench/README.md); BENCH_SECONDS each.
BENCH_SECONDS ?= 60
bench-hostile: build
	@$(BUILD_DIR)/bin/orv-bench-hostile --seconds $(BENCH_SECONDS)

emulate: build
	@tools/emulate.sh $(BUILD_DIR)

# The style checks: the clang build (build-clang/), whose thread-safety
# analysis is an error, then clang-format and clang-tidy (tools/check-style.sh).
# `make format` reformats the tree.
lint: deps
	@if [ ! -f build-clang/build.ninja ]; then cmake --preset clang >/dev/null; fi
	@cmake --build --preset clang
	@tools/check-style.sh format
	@tools/check-style.sh tidy

format: deps
	@tools/check-style.sh apply

# The whole suite again under AddressSanitizer with UndefinedBehaviorSanitizer
# (build-asan/), and under ThreadSanitizer (build-tsan/); any report, from the
# test itself or from a program of its sandbox, fails the test.
test-asan: deps
	@if [ ! -f build-asan/build.ninja ]; then cmake --preset asan >/dev/null; fi
	@cmake --build --preset asan
	cd build-asan && ctest --output-on-failure -j $(SAN_TEST_JOBS)

test-tsan: deps
	@if [ ! -f build-tsan/build.ninja ]; then cmake --preset tsan >/dev/null; fi
	@cmake --build --preset tsan
	cd build-tsan && TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" ctest --output-on-failure -j $(SAN_TEST_JOBS)

# 10,000 start/close cycles with crashes, dropped links and hostile peers, then a
# flood of reports to one session, then the leak checks;
# SOAK_BUILD=build-asan runs it on the sanitized build (after make test-asan).
SOAK_BUILD ?= $(BUILD_DIR)
SOAK_CYCLES ?= 10000
soak: build
	@cmake --build $(SOAK_BUILD) --target orv-soak
	$(SOAK_BUILD)/bin/orv-soak --cycles $(SOAK_CYCLES)

# The card build: liborvdaemon.so and orvdaemon for AArch64 in build-aarch64/,
# without the emulated card, then checked (tools/check-card-build.sh). The
# platform calls are left to the card's loader unless ORV_PLATFORM_SYSROOT names
# a card sysroot holding the platform libraries; each run configures with the
# value given (or none), and looks the libraries up again.
card:
	@tools/install-deps.sh base cross
	@cmake --preset aarch64 -DORV_PLATFORM_SYSROOT="$(ORV_PLATFORM_SYSROOT)" -U 'ORV_PLATFORM_LIB_*' >/dev/null
	@cmake --build --preset aarch64
	@tools/check-card-build.sh build-aarch64
	@tools/check-card-build.sh --self-test build-aarch64

# The unit tests built for AArch64 with the emulated card (build-aarch64-emu/),
# run through qemu-user.
card-test:
	@tools/install-deps.sh base cross cross-test
	@tools/enable-aarch64-binfmt.sh
	@if [ ! -f build-aarch64-emu/build.ninja ]; then cmake --preset aarch64-emu >/dev/null; fi
	@cmake --build --preset aarch64-emu
	ctest --preset aarch64-emu

# The libFuzzer targets (build-fuzz/), each run for FUZZ_SECONDS in a sandbox
# of its own; fails on any crash, leak or time-out (tools/run-fuzzers.sh).
FUZZ_SECONDS ?= 60
fuzz:
	@tools/install-deps.sh base fuzz
	@tools/run-fuzzers.sh $(FUZZ_SECONDS)

# The Debian packages, in build-deb/: orvdaemon for this machine and (cross-built)
# for arm64, orv-emu for this machine; then lintian, their contents and a smoke
# test of the emulated card unpacked from its package (tools/check-packages.sh).
package:
	@tools/install-deps.sh base cross package
	@tools/build-packages.sh build-deb
	@tools/check-packages.sh build-deb

clean:
	rm -rf $(BUILD_DIR) build-*
