# Front door of the project. Every target installs missing Debian packages
# first (scripts/install-deps.sh), then configures and builds as needed.

BUILD_DIR    ?= build
SANITIZE_DIR ?= build-sanitize
BUILD_TYPE   ?= RelWithDebInfo
PREFIX       ?= /usr/local
JOBS         ?= $(shell nproc 2>/dev/null || echo 2)

CMAKE_FLAGS ?=

.PHONY: all deps build demo test bench sanitize install clean

all: build

deps:
	@sh scripts/install-deps.sh

$(BUILD_DIR)/CMakeCache.txt: | deps
	cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) $(CMAKE_FLAGS)

build: deps $(BUILD_DIR)/CMakeCache.txt
	cmake --build $(BUILD_DIR) -j $(JOBS)

demo: build
	./$(BUILD_DIR)/examples/demo

test: build
	cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS)

# Benchmarks of the optimised build; pass BENCH_ARGS to filter them, e.g.
# make bench BENCH_ARGS=--benchmark_filter=Decimal
bench: build
	@set -e; for b in $(BUILD_DIR)/bench/*_bench; do echo "== $$b"; $$b $(BENCH_ARGS); done

# The whole test suite under AddressSanitizer (leaks included) and
# UndefinedBehaviorSanitizer, in a separate debug build.
sanitize: deps
	cmake -S . -B $(SANITIZE_DIR) -DCMAKE_BUILD_TYPE=Debug -DDATABASE_SANITIZE=ON \
	    -DDATABASE_BUILD_BENCHMARKS=OFF $(CMAKE_FLAGS)
	cmake --build $(SANITIZE_DIR) -j $(JOBS)
	cd $(SANITIZE_DIR) && \
	    ASAN_OPTIONS=detect_leaks=1:abort_on_error=0:strict_string_checks=1:detect_stack_use_after_return=1 \
	    UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
	    ctest --output-on-failure -j $(JOBS)

install: build
	cmake --install $(BUILD_DIR) --prefix $(PREFIX)

clean:
	rm -rf $(BUILD_DIR) $(SANITIZE_DIR)
