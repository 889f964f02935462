# corvidine: the two commands are `make run` and `make test`.
JOBS ?= $(shell nproc)
BUILD ?= build
ASAN_BUILD ?= build-asan
BENCH_BUILD ?= build-bench
PYTHON ?= /usr/bin/python3

TSAN_BUILD ?= build-tsan

.PHONY: coverage bench-core bench-collector bench-ext bench-http all deps build build-asan build-tsan run test test-unit test-tsan test-wire bench clean check-core-isolation arginfo check-arginfo

all: build

deps:
	@tools/install-deps.sh

build: deps
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCORVIDINE_BENCH=OFF >/dev/null
	@cmake --build $(BUILD) -j$(JOBS)

build-asan: deps
	@cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DCORVIDINE_SANITIZE=ON -DCORVIDINE_BENCH=OFF >/dev/null
	@cmake --build $(ASAN_BUILD) -j$(JOBS)

build-tsan: deps
	@cmake -S . -B $(TSAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DCORVIDINE_TSAN=ON -DCORVIDINE_BENCH=OFF >/dev/null
	@cmake --build $(TSAN_BUILD) -j$(JOBS)

# The core and reporters must build without PHP: no file of theirs may name
# PHP's headers. Thrift stays out of the core and the metric aggregates (it
# belongs in reporters/collector), and the aggregates open no sockets.
check-core-isolation:
	@if grep -rnE '#\s*include\s*[<"](php|zend|main/|Zend/|TSRM)' core reporters; then \
	  echo "core/reporters must not include PHP headers" >&2; exit 1; fi
	@if grep -rnE '#\s*include\s*[<"](thrift/|Collector\.h|collector_types\.h)' core reporters/metrics; then \
	  echo "core and reporters/metrics must not include Thrift headers (they belong in reporters/collector)" >&2; exit 1; fi
	@if grep -rnE '#\s*include\s*[<"](sys/socket|netinet/|arpa/)' reporters/metrics; then \
	  echo "reporters/metrics must not include socket headers" >&2; exit 1; fi

# The user API's argument information (ext/corvidine_arginfo.h) from
# ext/corvidine.stub.php: regenerate after an edit of the stub / check it.
arginfo: deps
	@tools/gen-arginfo.sh

check-arginfo: deps
	@tools/gen-arginfo.sh --check

run: deps
	@tools/demo/run.sh

test-unit: build-asan check-core-isolation
	@cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --output-on-failure -j$(JOBS)

test-wire: build
	@PYTHON=$(PYTHON) tests/wire/run.sh $(BUILD)

# The groups that share state between threads, once more under ThreadSanitizer.
test-tsan: build-tsan
	@cd $(TSAN_BUILD) && TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
	  ctest --output-on-failure -j$(JOBS) -R 'settings|tracing_decisions|metadata|profiler|collector_reporter|span_aggregation|collector_metrics'

# Every stage, with a summary: unit (ASan+UBSan, TSan), wire, extension
# (NTS and ZTS PHP), integration through real servers.
test: deps
	@tools/run-tests.sh

# Line coverage of core/, reporters/ and ext/ by the unit and NTS extension tests.
coverage: deps
	@tools/coverage.sh

# Every benchmark, each against a baseline measured in the same run; ends
# with a summary of the per-request figures (instruction counts, which are
# stable where wall time is not, then the wrk ratios).
BENCH_SUMMARY_FILE = $(CURDIR)/build-logs/bench-summary.txt
bench:
	@mkdir -p build-logs && rm -f $(BENCH_SUMMARY_FILE)
	@BENCH_SUMMARY=$(BENCH_SUMMARY_FILE) $(MAKE) --no-print-directory bench-core bench-collector bench-ext bench-http
	@echo; echo "== bench summary (per request, against the same run's baseline) =="; cat $(BENCH_SUMMARY_FILE)

bench-core: deps
	@cmake -S . -B $(BENCH_BUILD) -DCMAKE_BUILD_TYPE=Release -DCORVIDINE_TESTS=OFF >/dev/null
	@cmake --build $(BENCH_BUILD) -j$(JOBS)
	@$(BENCH_BUILD)/core_bench --benchmark_min_time=0.2

# Round trips to the test Collector (Python, loopback): connect, and posts.
bench-collector: deps
	@cmake -S . -B $(BENCH_BUILD) -DCMAKE_BUILD_TYPE=Release -DCORVIDINE_TESTS=OFF >/dev/null
	@cmake --build $(BENCH_BUILD) -j$(JOBS) --target collector_bench
	@$(BENCH_BUILD)/collector_bench --benchmark_min_time=0.5

bench-ext: deps
	@tools/bench-ext.sh nts
	@tools/bench-events.sh nts
	@tools/bench-request-cost.sh
	@tools/bench-wrap.sh nts
	@tools/bench-profiler.sh
	@tools/bench-curl.sh nts
	@tools/bench-db.sh nts
	@tools/bench-kv.sh nts

bench-http: deps
	@tools/bench-http.sh
	@tools/bench-laravel.sh
	@tools/bench-shop.sh

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(BENCH_BUILD) $(TSAN_BUILD) build-cov build-logs
