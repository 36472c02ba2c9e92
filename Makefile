# The two set-up commands: `make demo` and `make test`.
BUILD ?= build
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: all deps configure build test demo bench clean

all: build

# Debian packages the build needs; installed only when missing.
DEPS = g++ cmake make libgtest-dev libbenchmark-dev
deps:
	@missing=""; for p in $(DEPS); do dpkg -s $$p >/dev/null 2>&1 || missing="$$missing $$p"; done; \
	if [ -n "$$missing" ]; then \
	  echo "installing:$$missing"; \
	  SUDO=""; [ "$$(id -u)" = 0 ] || SUDO=sudo; \
	  $$SUDO apt-get update -qq && $$SUDO apt-get install -y -qq $$missing; \
	fi

configure: deps
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release $(CMAKE_FLAGS) >/dev/null

build: configure
	@cmake --build $(BUILD) -j $(JOBS)

test: build
	@cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

demo: build
	@bash examples/demo.sh $(BUILD)

bench: build
	@for b in $(BUILD)/bench/bench_*; do [ -x $$b ] && $$b; done

clean:
	rm -rf $(BUILD)
