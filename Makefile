# Front door of the project. Every target installs missing Debian packages
# first (scripts/install-deps.sh), then configures and builds as needed.

BUILD_DIR    ?= build
SANITIZE_DIR ?= build-sanitize
BUILD_TYPE   ?= RelWithDebInfo
PREFIX       ?= /usr/local
JOBS         ?= $(shell nproc 2>/dev/null || echo 2)

CMAKE_FLAGS ?=

.PHONY: all deps build demo test bench bench-micro bench-peers sanitize install clean

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

# The workloads W1..W8 on a million rows, each repetition in a child process;
# results in $(BUILD_DIR)/bench/results.tsv. WORKLOAD_ARGS passes options,
# e.g. make bench WORKLOAD_ARGS="--n 200000 --filter W4".
bench: build
	./$(BUILD_DIR)/bench/workloads --out $(BUILD_DIR)/bench/results.tsv $(WORKLOAD_ARGS)

# The micro-benchmarks of bench/*_bench.cpp; pass BENCH_ARGS to filter them,
# e.g. make bench-micro BENCH_ARGS=--benchmark_filter=Decimal
bench-micro: build
	@set -e; for b in $(BUILD_DIR)/bench/*_bench; do echo "== $$b"; $$b $(BENCH_ARGS); done

# The same workloads on a B-tree map and set, SQLite in memory,
# std::stable_sort, raw and gzip files and ISA-L, alternating with the
# library's runs; prints each ratio and writes $(BUILD_DIR)/bench/peers.tsv.
# Installs the peers' Debian packages first; the library never links them.
bench-peers: deps
	@sh scripts/install-deps.sh --peers
	cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) -DDATABASE_BUILD_PEERS=ON $(CMAKE_FLAGS)
	cmake --build $(BUILD_DIR) -j $(JOBS) --target peers
	./$(BUILD_DIR)/bench/peers --out $(BUILD_DIR)/bench/peers.tsv $(WORKLOAD_ARGS)

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
