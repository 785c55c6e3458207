# Front door of the project. Every target installs missing Debian packages
# first (scripts/install-deps.sh), then configures and builds as needed.

BUILD_DIR    ?= build
SANITIZE_DIR ?= build-sanitize
FUZZ_DIR     ?= build-fuzz
TSAN_DIR     ?= build-tsan
FUZZ_SECONDS ?= 60
BUILD_TYPE   ?= RelWithDebInfo
PREFIX       ?= /usr/local
JOBS         ?= $(shell nproc 2>/dev/null || echo 2)

CMAKE_FLAGS ?=

.PHONY: all deps build demo test bench bench-micro bench-peers sanitize fuzz tsan install clean

all: build

deps:
	@sh scripts/install-deps.sh

$(BUILD_DIR)/CMakeCache.txt: | deps
	cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) $(CMAKE_FLAGS)

build: deps $(BUILD_DIR)/CMakeCache.txt
	cmake --build $(BUILD_DIR) -j $(JOBS)

demo: build
	cd $(BUILD_DIR) && ./examples/demo

test: build
	cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS)

# The workloads W1..W8 on a million rows, each repetition in a child process;
# results in $(BUILD_DIR)/bench/results.tsv. WORKLOAD_ARGS passes options,
# e.g. make bench WORKLOAD_ARGS="--n 200000 --filter W4". Then a live model
# under a writer thread (results in $(BUILD_DIR)/bench/model.tsv).
bench: build
	./$(BUILD_DIR)/bench/workloads --out $(BUILD_DIR)/bench/results.tsv $(WORKLOAD_ARGS)
	./$(BUILD_DIR)/bench/model_load --out $(BUILD_DIR)/bench/model.tsv $(MODEL_ARGS)

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
	cd $(BUILD_DIR)/bench/perspective && npm install --no-audit --no-fund --loglevel=error
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

# The concurrency tests under ThreadSanitizer (GCC's; Qt's own locks are
# stated to it through annotations in the library).
tsan: deps
	cmake -S . -B $(TSAN_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DDATABASE_TSAN=ON \
	    -DDATABASE_BUILD_BENCHMARKS=OFF -DDATABASE_BUILD_EXAMPLES=OFF -DDATABASE_INSTALL=OFF $(CMAKE_FLAGS)
	cmake --build $(TSAN_DIR) -j $(JOBS) --target concurrency_test tablemodel_test joinstress_test tablefile_test tableio_test livequery_test parallel_test tablemodelplan_test sortbatch_test
	cd $(TSAN_DIR) && TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:suppressions=$(CURDIR)/tests/tsan.supp \
	    ctest --output-on-failure -L concurrency

# Each libFuzzer target for FUZZ_SECONDS, from its seed corpus in fuzz/corpus
# (what it finds is kept in $(FUZZ_DIR)/corpus). A sanitizer report, a leak,
# a run over 10 s, an allocation over 2 GiB or an exception of an
# undocumented kind fails the target.
FUZZ_TARGETS = tableload compressor text
fuzz: deps
	@sh scripts/install-deps.sh --fuzz
	cmake -S . -B $(FUZZ_DIR) -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo -DDATABASE_FUZZ=ON \
	    -DDATABASE_BUILD_TESTS=OFF -DDATABASE_BUILD_BENCHMARKS=OFF -DDATABASE_BUILD_EXAMPLES=OFF \
	    -DDATABASE_INSTALL=OFF $(CMAKE_FLAGS)
	cmake --build $(FUZZ_DIR) -j $(JOBS)
	@for t in $(FUZZ_TARGETS); do \
	    mkdir -p $(FUZZ_DIR)/corpus/$$t; \
	    echo "fuzz: $$t for $(FUZZ_SECONDS) s (log in $(FUZZ_DIR)/$$t.log)"; \
	    ./$(FUZZ_DIR)/fuzz/$${t}_fuzz -max_total_time=$(FUZZ_SECONDS) -timeout=10 -malloc_limit_mb=2048 \
	        -rss_limit_mb=4096 -print_final_stats=1 -artifact_prefix=$(FUZZ_DIR)/ \
	        $(FUZZ_DIR)/corpus/$$t fuzz/corpus/$$t \
	        > $(FUZZ_DIR)/$$t.log 2>&1 || { tail -60 $(FUZZ_DIR)/$$t.log; exit 1; }; \
	    grep -E '^stat::number_of_executed_units|^Done' $(FUZZ_DIR)/$$t.log; \
	done

install: build
	cmake --install $(BUILD_DIR) --prefix $(PREFIX)

clean:
	rm -rf $(BUILD_DIR) $(SANITIZE_DIR) $(FUZZ_DIR) $(TSAN_DIR)
