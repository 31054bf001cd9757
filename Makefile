# The project's entry points. `make demo` and `make test` set up everything
# they need on a fresh Debian machine (packages, configure, build) first.

BUILD_DIR ?= build
BUILD_TYPE ?= RelWithDebInfo
CMAKE_FLAGS ?=
# The tests mostly wait on the daemon's fixed periods, so they run wide.
TEST_JOBS ?= 8

.PHONY: all build deps test demo emulate bench clean

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
	@$(BUILD_DIR)/bin/orv-bench all

emulate: build
	@tools/emulate.sh $(BUILD_DIR)

clean:
	rm -rf $(BUILD_DIR) build-*
