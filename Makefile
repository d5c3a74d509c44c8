# Thin front door; the work is in CMake presets and scripts/.
SHELL := /bin/bash
PRESETS_HOST := host host-asan fuzz
JOBS ?= $(shell nproc)
# CI builds with warnings as errors.
export KVNXST_WERROR := $(if $(CI),ON,OFF)

.PHONY: all setup build test bench scale soak cut cmdstorm fuzz demo msi clean
all: build

setup:
	@scripts/setup-machine.sh
	@mkdir -p build
	@scripts/build-deps.sh > build/.deps-prefix.new && mv build/.deps-prefix.new build/.deps-prefix

build: setup
	@set -e; export KVNXST_DEPS_PREFIX=$$(tail -n 1 build/.deps-prefix); \
	for p in win $(PRESETS_HOST); do \
	  cmake --preset $$p > build/configure-$$p.log || { cat build/configure-$$p.log; exit 1; }; \
	  cmake --build --preset $$p -j $(JOBS); \
	done

# Every layer runs even when an earlier one fails; the exit code says whether all passed.
test: build
	@scripts/with-display.sh bash -c 'rc=0; \
	  for p in $(PRESETS_HOST) win; do ctest --preset $$p -j $(JOBS) || rc=1; done; exit $$rc'

bench: build
	@scripts/with-display.sh scripts/run-bench.sh

# 1, 10 and 50 agents side by side against one stand-in service: what each holds and costs when idle.
scale: build
	@cd build/win/bin && ../../../scripts/with-display.sh ../../../cmake/wine-run.sh --root=.. \
	  bench_agent.exe --scale 1,10,50 --idle-seconds 60 --deadline 1200

# 10,000 seeded random records against the built agent; KVNXST_SOAK_SEED replays a run.
soak: build
	@seed=$${KVNXST_SOAK_SEED:-$$(shuf -i 0-4294967295 -n 1)}; echo "soak: seed $$seed"; \
	  cd build/win/bin && KVNXST_SOAK_RECORDS=10000 KVNXST_SOAK_SEED=$$seed ../../../scripts/with-display.sh \
	  ../../../cmake/wine-run.sh --root=.. test_resident_e2e.exe --gtest_filter='ResidentAgentSoak.*'

# The service's link cut at each of 220 points of what it sends, an agent each (make test: every fourth).
cut: build
	@cd build/win/bin && KVNXST_CUT_ALL=1 ../../../scripts/with-display.sh \
	  ../../../cmake/wine-run.sh --root=.. test_link_cut_e2e.exe

# 10,000 seeded hostile command lines against the built agent, in KVNXST_CMDSTORM_JOBS runs side by
# side; KVNXST_CMDSTORM_SEED replays a run.
cmdstorm: build
	@scripts/with-display.sh scripts/run-cmdstorm.sh $(CURDIR)/build/win $${KVNXST_CMDSTORM_COUNT:-10000} \
	  $${KVNXST_CMDSTORM_SEED:-1} $${KVNXST_CMDSTORM_JOBS:-4}

# Each libFuzzer target for KVNXST_FUZZ_SECONDS (an hour; make test: 30 s each), with its final figures.
fuzz: build
	@KVNXST_FUZZ_SECONDS=$${KVNXST_FUZZ_SECONDS:-3600} cmake --preset fuzz > build/configure-fuzz.log
	@cmake --build --preset fuzz && ctest --preset fuzz -j $(JOBS)

# The resident agent against the simulator in the Wine virtual desktop.
demo: build
	@scripts/with-display.sh scripts/demo.sh

# The administrator's package, build/win/KVNXST-<version>.msi.
msi: build
	@installer/build-msi.sh

clean:
	rm -rf build
