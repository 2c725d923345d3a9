# Front door: `make demo` runs the main job, `make test` runs every test.
BUILD ?= build
JOBS ?= $(shell nproc)
# The tests mostly wait on sockets and timers, not on a core: make test runs
# twice as many at once as there are cores. The sanitizer runs, whose tests
# do compute, run one a core.
TEST_JOBS ?= $(shell echo $$(( $(JOBS) * 2 )))
CMAKE_FLAGS ?= -DCMAKE_BUILD_TYPE=RelWithDebInfo

.PHONY: all deps build test test-site demo fleet chaos faults package upgrade-check test-asan test-tsan bench fuzz memcheck clean

all: build

deps:
	bash scripts/install-deps.sh

$(BUILD)/CMakeCache.txt: | deps
	cmake -S . -B $(BUILD) $(CMAKE_FLAGS)

build: deps $(BUILD)/CMakeCache.txt
	cmake --build $(BUILD) -j $(JOBS)

# Every test but the long site runs, within about a minute once built.
test: build
	cd $(BUILD) && ctest --output-on-failure -j $(TEST_JOBS) -LE site

# The long site runs, labelled "site": whole small sites of engines, brokers
# and a master under faults. .ci/run runs them after make test.
test-site: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS) -L site

demo: build
	bash scripts/demo.sh $(BUILD)

# A site on this machine: FLEET_ENGINES engine simulators against one master
# simulator and two brokers listed as a cluster, the first stopped halfway,
# every link over TLS with client certificates (FLEET_TLS=off: in the clear);
# a summary line, a report from the subscribers and the engines' metrics
# files, a picture of the run, and a failure when a VM is not done or an
# alert missing. The run's folder stays; the last line names it.
FLEET_ENGINES ?= 20
fleet: build
	FLEET_ENGINES=$(FLEET_ENGINES) bash scripts/fleet.sh $(BUILD)

# The fleet under a fault schedule drawn from CHAOS_SEED: brokers killed,
# partitions, latency, resets, a master answering 503, brokers refusing
# handshakes, polls past the jobs interface's keep-alive, an engine killed
# mid-eviction, over TLS (CHAOS_TLS=off: in the clear); one summary line, and
# a failure for each broken invariant.
CHAOS_SEED ?= 1
CHAOS_ENGINES ?= 10
CHAOS_SECONDS ?= 180
chaos: build
	CHAOS_SEED=$(CHAOS_SEED) CHAOS_ENGINES=$(CHAOS_ENGINES) CHAOS_SECONDS=$(CHAOS_SECONDS) bash scripts/chaos.sh $(BUILD)

# One engine whose system calls fail at random, by a choice of failure points
# and chances drawn from FAULTS_SEED (libfiu): I/O, memory and network calls
# of the library and the libraries it uses; one summary line, and a failure
# for each broken invariant (a crash or hang, an accepted alert lost, a
# damaged outbox, a VM requested twice, a failure logged at each retry).
FAULTS_SEED ?= 1
FAULTS_SECONDS ?= 120
faults: build
	FAULTS_SEED=$(FAULTS_SEED) FAULTS_SECONDS=$(FAULTS_SECONDS) bash scripts/faults.sh $(BUILD)

# The Debian packages libkscdp1, libkscdp-dev and kscdp-tools, in
# $(BUILD)/packages/.
package: build
	cd $(BUILD) && cpack -G DEB

# The previous release's packages (the commit in packaging/previous-release,
# built once in a git worktree inside $(BUILD)) upgraded to this tree's with
# apt while alerts wait in the outbox, then rolled back and forth: every
# waiting alert must reach the broker. As root; it installs the packages and
# purges them at the end.
upgrade-check: package
	bash scripts/upgrade_check.sh $(BUILD) $(JOBS)

# The whole suite under AddressSanitizer, UndefinedBehaviorSanitizer and
# LeakSanitizer, in a build tree of its own.
test-asan:
	$(MAKE) test test-site BUILD=build-asan TEST_JOBS=$(JOBS) CMAKE_FLAGS="-DCMAKE_BUILD_TYPE=Debug -DKSCDP_SANITIZE=ON"

# The whole suite under ThreadSanitizer, in a build tree of its own: the
# engine may call the library from any number of threads at once. Races that
# it reports inside uninstrumented Debian libraries are suppressed
# (tests/tsan.supp).
test-tsan:
	TSAN_OPTIONS="suppressions=$(CURDIR)/tests/tsan.supp $(TSAN_OPTIONS)" \
	  $(MAKE) test test-site BUILD=build-tsan TEST_JOBS=$(JOBS) CMAKE_FLAGS="-DCMAKE_BUILD_TYPE=RelWithDebInfo -DKSCDP_TSAN=ON"

# Every benchmark, built in Release in a tree of its own, and one table of the
# results against their targets.
bench: deps
	cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DKSCDP_BUILD_TESTS=OFF
	cmake --build build-bench -j $(JOBS) --target kscdp_benchmarks
	bash bench/run.sh build-bench

# The fuzz targets of fuzz/, built with clang and libFuzzer under ASan and
# UBSan in a tree of their own, each run for FUZZ_SECONDS seconds.
FUZZ_BUILD ?= build-fuzz
FUZZ_SECONDS ?= 60
fuzz: deps
	cmake -S . -B $(FUZZ_BUILD) -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
	  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKSCDP_FUZZ=ON -DKSCDP_BUILD_TESTS=OFF -DKSCDP_BUILD_BENCH=OFF
	cmake --build $(FUZZ_BUILD) -j $(JOBS)
	FUZZ_SECONDS=$(FUZZ_SECONDS) bash scripts/fuzz.sh $(FUZZ_BUILD)

# The end-to-end test under valgrind's memcheck: no memory error, no leak.
memcheck: build
	bash scripts/memcheck.sh $(BUILD)

clean:
	rm -rf build build-asan build-tsan build-bench $(FUZZ_BUILD)
