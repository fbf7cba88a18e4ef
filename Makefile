# make demo      install what is missing, build, run the demo (writes demo-out/)
# make test      install what is missing, build, run the whole test suite
# make sanitize  build the tests with AddressSanitizer + UBSan and run them
# make bench     build and run the benchmarks
# make fuzz      build the fuzz targets with clang and run each for FUZZ_SECONDS
BUILD ?= build
ASAN_BUILD ?= build-asan
BENCH_BUILD ?= build-bench
FUZZ_BUILD ?= build-fuzz
FUZZ_SECONDS ?= 60
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: all deps configure build demo test sanitize bench fuzz install clean

all: build

deps:
	./scripts/install-deps.sh

configure: deps
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Release $(CMAKE_FLAGS)

build: configure
	cmake --build $(BUILD) -j $(JOBS)

demo: build
	./$(BUILD)/tools/zorl-image demo demo-out

test: build
	ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)

sanitize: deps
	cmake -S . -B $(ASAN_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZORL_SANITIZE=ON \
	      -DZORL_BUILD_TOOLS=OFF -DZORL_INSTALL=OFF $(CMAKE_FLAGS)
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	@# intercept_tls_get_addr=0: the leak checker can misread glibc's dynamic TLS blocks and
	@# die at exit ("Tracer caught signal 11") depending on heap layout; leaks are still found.
	ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:intercept_tls_get_addr=0 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	      ctest --test-dir $(ASAN_BUILD) --output-on-failure -j $(JOBS)

bench: deps
	cmake -S . -B $(BENCH_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Release -DZORL_BUILD_BENCH=ON \
	      -DZORL_BUILD_TESTS=OFF $(CMAKE_FLAGS)
	cmake --build $(BENCH_BUILD) -j $(JOBS) --target zorl_benchmarks
	@for b in $(BENCH_BUILD)/bench/*_bench; do echo "== $$b"; $$b --benchmark_min_time=0.3 --benchmark_repetitions=3 --benchmark_report_aggregates_only=true || exit 1; done

fuzz: deps
	./scripts/install-deps.sh --fuzz
	CC=clang CXX=clang++ cmake -S . -B $(FUZZ_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	      -DZORL_BUILD_FUZZ=ON -DZORL_BUILD_TESTS=OFF -DZORL_BUILD_TOOLS=OFF -DZORL_INSTALL=OFF $(CMAKE_FLAGS)
	cmake --build $(FUZZ_BUILD) -j $(JOBS)
	@for f in $(FUZZ_BUILD)/fuzz/fuzz_*; do \
	  name=$$(basename $$f); mkdir -p $(FUZZ_BUILD)/corpus/$$name; \
	  echo "== $$name"; $$f -max_total_time=$(FUZZ_SECONDS) -print_final_stats=1 \
	      $(FUZZ_BUILD)/corpus/$$name fuzz/corpus/$$name || exit 1; done

install: build
	cmake --install $(BUILD)

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(BENCH_BUILD) $(FUZZ_BUILD) demo-out
