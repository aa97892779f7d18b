# Front door. Every target that builds installs what it needs first.
BUILD ?= build
TEST_BUILD ?= build-test
TSAN_BUILD ?= build-tsan
FUZZ_BUILD ?= build-fuzz
SECONDS ?= 60
# The suites whose code runs threads: host sync objects, pull-file and multicast status threads,
# the server, and whole jobs (worker, idle timer) end to end.
TSAN_SUITES ?= unit/winux unit/pullfile unit/multicast unit/server e2e
JOBS ?= $(shell nproc)

FLEET_ARGS ?= --devices 20 --multicast --loss 0.05

.PHONY: all build test test-tsan fuzz demo demo-multicast fleet bench format clean deps package \
	package-test

all: build

deps:
	@scripts/bootstrap.sh build

build: deps
	@cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Release -DFTC_TESTS=OFF >/dev/null
	@cmake --build $(BUILD) -j $(JOBS)

test:
	@scripts/bootstrap.sh test
	@cmake -S . -B $(TEST_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Debug -DFTC_SANITIZE=ON >/dev/null
	@cmake --build $(TEST_BUILD) -j $(JOBS)
	@cd $(TEST_BUILD) && ctest --output-on-failure -j $(JOBS) --timeout 300
	@$(MAKE) --no-print-directory test-tsan

test-tsan:
	@scripts/bootstrap.sh test
	@scripts/test_tsan.sh $(TSAN_BUILD) $(JOBS) $(TSAN_SUITES)

fuzz:
	@scripts/bootstrap.sh fuzz
	@scripts/fuzz.sh $(FUZZ_BUILD) $(SECONDS)

# The Debian packages ftc-server and ftc-device, from the release build.
package:
	@scripts/bootstrap.sh package
	@cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Release -DFTC_TESTS=OFF -DFTC_MAN=ON >/dev/null
	@cmake --build $(BUILD) -j $(JOBS)
	@rm -f $(BUILD)/ftc-*.deb
	@cd $(BUILD) && cpack -G DEB >/dev/null && ls -1 $(CURDIR)/$(BUILD)/ftc-*.deb

# Install, run, upgrade and purge them in a throwaway Debian root (root; a few minutes).
package-test: package
	@scripts/package_test.sh $(BUILD)

demo: build
	@scripts/demo.sh $(BUILD)

demo-multicast: build
	@scripts/bootstrap.sh multicast
	@scripts/demo_multicast.sh $(BUILD)

# Needs root: the devices live in network namespaces.
fleet: build
	@scripts/bootstrap.sh multicast
	@$(BUILD)/bin/ftc-fleet $(FLEET_ARGS)

bench:
	@scripts/bootstrap.sh bench
	@cmake -S . -B $(BUILD)-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DFTC_TESTS=OFF -DFTC_BENCH=ON >/dev/null
	@cmake --build $(BUILD)-bench -j $(JOBS)
	@bench/run.sh $(BUILD)-bench

format:
	@git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf $(BUILD) $(TEST_BUILD) $(TSAN_BUILD) $(FUZZ_BUILD) $(BUILD)-bench
