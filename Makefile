# The two set-up commands: `make demo` and `make test`.
BUILD ?= build
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=

PREFIX ?= /usr/local

.PHONY: all deps configure build test demo bench bench-peer clean asan fuzz fuzz-deps install

all: build

# Install the Debian packages of a list that are not installed yet (as root,
# or through sudo).
install_missing = missing=""; for p in $(1); do dpkg -s $$p >/dev/null 2>&1 || missing="$$missing $$p"; done; \
	if [ -n "$$missing" ]; then \
	  echo "installing:$$missing"; \
	  SUDO=""; [ "$$(id -u)" = 0 ] || SUDO=sudo; \
	  $$SUDO apt-get update -qq && $$SUDO apt-get install -y -qq $$missing; \
	fi

# Debian packages the build needs; installed only when missing.  brelix
# itself needs only the compiler; GoogleTest and Google Benchmark serve the
# tests and benchmarks, and the companion programs (brelix-prep, brelix-plot)
# use CGAL (mesh repair, intersection tests, remeshing; with GMP/MPFR and
# Eigen), BioSig (EEG recordings), matio (MATLAB files), Cairo (pictures),
# expat and zlib (GIfTI surfaces).
DEPS = g++ cmake make libgtest-dev libbenchmark-dev libcgal-dev libgmp-dev libmpfr-dev libeigen3-dev \
       libbiosig-dev libmatio-dev libcairo2-dev libexpat1-dev zlib1g-dev
deps:
	@$(call install_missing,$(DEPS))

configure: deps
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release $(CMAKE_FLAGS) >/dev/null

build: configure
	@cmake --build $(BUILD) -j $(JOBS)

test: build
	@cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

install: build
	@cmake --install $(BUILD) --prefix $(PREFIX)

demo: build
	@bash examples/demo.sh $(BUILD)

bench: build
	@for b in $(BUILD)/bench/bench_*; do [ -x $$b ] && $$b; done

# brelix side by side with MNE-Python: spheres against the analytic series,
# a realistic head, dipole fits and timings, written to bench/RESULTS.md.
# Takes several minutes and is never part of `make test` or CI.  It needs
# Debian's MNE-Python for the system interpreter, and an optimised BLAS so
# that the peer's BEM solution runs at the speed its users see (with the
# reference BLAS it is ten times slower).  Fails when the two programs
# disagree beyond the benchmark's tolerances.
PEER_DEPS = python3-mne libopenblas0-pthread
bench-peer: build
	@$(call install_missing,$(PEER_DEPS))
	@/usr/bin/python3 bench/peer/run_bench.py --build $(BUILD)

# The whole test suite built with AddressSanitizer and UndefinedBehavior-
# Sanitizer.  The leak checker stays off: one-based arrays keep pointers
# shifted away from their blocks in globals, which it takes for leaks.
ASAN_BUILD ?= build-asan
asan: deps
	@cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Release -DBRELIX_SANITIZE=ON -DBRELIX_BENCH=OFF $(CMAKE_FLAGS) >/dev/null
	@cmake --build $(ASAN_BUILD) -j $(JOBS)
	@cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=0 UBSAN_OPTIONS=print_stacktrace=1 \
	  ctest --output-on-failure -j $(JOBS)

# Coverage-guided fuzzing of the file readers and the dialogue (libFuzzer,
# with the address and undefined-behaviour sanitizers): `make fuzz
# FUZZ_SECONDS=N` runs every target for N seconds, starting from the seeds in
# tests/fuzz/corpus/<target>; what it learns stays in $(FUZZ_BUILD)/corpus and
# any failing input lands in $(FUZZ_BUILD)/artifacts/<target>/.  Targets whose
# fatal paths end the process inside the library run without the leak check
# (those paths never free, by design).
FUZZ_BUILD ?= build-fuzz
FUZZ_SECONDS ?= 60
FUZZ_TARGETS ?= dhkinp matrix sources electrodes ama dialogue
FUZZ_NOLEAK = sources electrodes dialogue
FUZZ_DEPS = clang-14 libclang-rt-14-dev cmake make
fuzz-deps:
	@$(call install_missing,$(FUZZ_DEPS))

fuzz: fuzz-deps
	@cmake -S . -B $(FUZZ_BUILD) -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_COMPILER=clang++-14 \
	  -DBRELIX_FUZZ=ON -DBRELIX_TESTS=OFF -DBRELIX_BENCH=OFF -DBRELIX_COMPANIONS=OFF >/dev/null
	@cmake --build $(FUZZ_BUILD) -j $(JOBS) --target fuzz_all
	@failed=""; for t in $(FUZZ_TARGETS); do \
	  mkdir -p $(FUZZ_BUILD)/corpus/$$t $(FUZZ_BUILD)/artifacts/$$t; \
	  leaks=1; case " $(FUZZ_NOLEAK) " in *" $$t "*) leaks=0;; esac; \
	  dict=""; [ -f tests/fuzz/$$t.dict ] && dict="-dict=tests/fuzz/$$t.dict"; \
	  ASAN_OPTIONS=detect_leaks=$$leaks $(FUZZ_BUILD)/tests/fuzz/fuzz_$$t -max_total_time=$(FUZZ_SECONDS) \
	    -timeout=20 -rss_limit_mb=4096 -close_fd_mask=3 -detect_leaks=$$leaks -print_final_stats=1 $$dict \
	    -artifact_prefix=$(FUZZ_BUILD)/artifacts/$$t/ $(FUZZ_BUILD)/corpus/$$t tests/fuzz/corpus/$$t \
	    >$(FUZZ_BUILD)/fuzz_$$t.log 2>&1 || failed="$$failed $$t"; \
	  runs=$$(sed -n 's/^stat::number_of_executed_units: *//p' $(FUZZ_BUILD)/fuzz_$$t.log); \
	  echo "fuzz_$$t: $${runs:-?} inputs in $(FUZZ_SECONDS) s"; \
	done; \
	if [ -n "$$failed" ]; then \
	  for t in $$failed; do echo "== fuzz_$$t failed:"; grep -E -A12 "ERROR|runtime error|invariant" $(FUZZ_BUILD)/fuzz_$$t.log | head -40; done; \
	  exit 1; \
	fi

clean:
	rm -rf $(BUILD)
