# Developer and CI entry points. `make test` is all a fresh Debian 12 machine
# needs: it installs missing packages, builds the normal and the sanitizer
# configuration and runs every test in both, then builds the fuzzers (clang)
# and runs each on its seed corpus and for a few seconds more.

SHELL := /bin/bash
.SHELLFLAGS := -eu -o pipefail -c
.DEFAULT_GOAL := build

# Build parallelism; set JOBS=2 on a shared machine.
JOBS ?= $(shell nproc 2>/dev/null || echo 2)
TEST_JOBS ?= 2
export CMAKE_BUILD_PARALLEL_LEVEL := $(JOBS)

CMAKE ?= cmake
CTEST ?= ctest
CLANG_FORMAT ?= clang-format
CMAKE_ARGS ?=

BUILD_DIR := build
RELEASE_DIR := $(BUILD_DIR)/release
ASAN_DIR := $(BUILD_DIR)/asan
FUZZ_DIR := $(BUILD_DIR)/fuzz

# `make fuzz`: seconds of fuzzing per target, where new inputs go, and extra
# libFuzzer flags (e.g. FUZZ_ARGS=-jobs=2).
FUZZ_SECONDS ?= 60
FUZZ_NEW_DIR ?= fuzz/corpus-new
FUZZ_ARGS ?=

DEB_PACKAGES := cmake ninja-build g++ clang libclang-rt-14-dev clang-format libgtest-dev libgmock-dev \
	googletest libbenchmark-dev nlohmann-json3-dev libcli11-dev libabsl-dev pkg-config

SANITIZER_ENV := ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1

# Our sources: everything except build trees and the git metadata.
FORMAT_FILES = find . \( -path ./build -o -path ./.git \) -prune -o -type f \( -name '*.h' -o -name '*.cpp' \) -print0

.PHONY: deps build build-asan test fuzz bench run format format-check clean

deps:
	@missing=""; \
	for pkg in $(DEB_PACKAGES); do \
	  status=$$(dpkg-query -W -f='$${Status}' "$$pkg" 2>/dev/null || true); \
	  case "$$status" in *" installed") ;; *) missing="$$missing $$pkg" ;; esac; \
	done; \
	if [ -z "$$missing" ]; then \
	  echo "deps: all packages present"; \
	else \
	  echo "deps: installing$$missing"; \
	  sudo=""; if [ "$$(id -u)" -ne 0 ]; then sudo="sudo"; fi; \
	  $$sudo env DEBIAN_FRONTEND=noninteractive apt-get update -q; \
	  $$sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends $$missing; \
	fi

# Configures a build directory once; afterwards Ninja re-runs CMake by itself
# whenever a CMakeLists.txt or a source glob changes.
# $(1): build directory, $(2): cache settings.
define configure
	@if [ ! -f $(1)/build.ninja ]; then \
	  $(CMAKE) -S . -B $(1) -G Ninja $(2) $(CMAKE_ARGS); \
	fi
endef

build:
	$(call configure,$(RELEASE_DIR),-DCMAKE_BUILD_TYPE=RelWithDebInfo)
	$(CMAKE) --build $(RELEASE_DIR) -j $(JOBS)

build-asan:
	$(call configure,$(ASAN_DIR),-DCMAKE_BUILD_TYPE=Debug -DTUNNEL_SANITIZE=ON -DTUNNEL_BUILD_BENCH=OFF)
	$(CMAKE) --build $(ASAN_DIR) -j $(JOBS)

# Runs both configurations even when the first fails, so one run shows all
# failures; exits non-zero if anything failed.
test: deps
	@start=$$(date +%s); release=FAILED; asan=FAILED; \
	rm -f $(RELEASE_DIR)/ctest.log $(ASAN_DIR)/ctest.log; \
	if $(MAKE) --no-print-directory build; then \
	  if (cd $(RELEASE_DIR) && $(CTEST) --output-on-failure --no-tests=error -j$(TEST_JOBS)) 2>&1 | tee $(RELEASE_DIR)/ctest.log; \
	  then release=passed; fi; \
	else release="build FAILED"; fi; \
	if $(MAKE) --no-print-directory build-asan; then \
	  if (cd $(ASAN_DIR) && env $(SANITIZER_ENV) $(CTEST) --output-on-failure --no-tests=error -j$(TEST_JOBS)) 2>&1 \
	       | tee $(ASAN_DIR)/ctest.log; \
	  then asan=passed; fi; \
	else asan="build FAILED"; fi; \
	fuzz=FAILED; mkdir -p $(FUZZ_DIR); rm -f $(FUZZ_DIR)/fuzz.log; \
	if $(MAKE) --no-print-directory fuzz FUZZ_SECONDS=5 FUZZ_NEW_DIR=$(FUZZ_DIR)/corpus-new 2>&1 \
	     | tee $(FUZZ_DIR)/fuzz.log; \
	then fuzz=passed; fi; \
	count() { c=$$(grep -Eo '[0-9]+% tests passed, [0-9]+ tests? failed out of [0-9]+' "$$1" 2>/dev/null | tail -1 || true); \
	          if [ -n "$$c" ]; then echo " ($$c)"; fi; }; \
	fuzzCount() { c=$$(grep -Eo '[0-9]+ of [0-9]+ fuzz targets passed' "$$1" 2>/dev/null | tail -1 || true); \
	              if [ -n "$$c" ]; then echo " ($$c)"; fi; }; \
	echo "== make test: release $$release$$(count $(RELEASE_DIR)/ctest.log);" \
	     "asan $$asan$$(count $(ASAN_DIR)/ctest.log); fuzz $$fuzz$$(fuzzCount $(FUZZ_DIR)/fuzz.log);" \
	     "$$(( $$(date +%s) - start ))s =="; \
	[ "$$release" = passed ] && [ "$$asan" = passed ] && [ "$$fuzz" = passed ]

# The libFuzzer targets of fuzz/, in a clang build of their own with
# AddressSanitizer and UndefinedBehaviorSanitizer (only the libraries and the
# fuzzers are built there). Each target first replays its seed corpus
# fuzz/corpus/<target>/, then fuzzes for FUZZ_SECONDS, writing new inputs to
# $(FUZZ_NEW_DIR)/<target>/ and crash inputs to $(FUZZ_DIR)/artifacts/.
# Fails if any target crashed; the output of each is in $(FUZZ_DIR)/logs/.
fuzz: deps
	@if [ ! -f $(FUZZ_DIR)/build.ninja ]; then \
	  CC=clang CXX=clang++ $(CMAKE) -S . -B $(FUZZ_DIR) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	    -DTUNNEL_FUZZ=ON -DTUNNEL_BUILD_TESTS=OFF -DTUNNEL_BUILD_BENCH=OFF $(CMAKE_ARGS); \
	fi
	$(CMAKE) --build $(FUZZ_DIR) -j $(JOBS) --target fuzzers
	@mkdir -p $(FUZZ_DIR)/logs $(FUZZ_DIR)/artifacts; \
	total=0; passed=0; failed=""; \
	for dir in fuzz/corpus/*/; do \
	  t=$$(basename "$$dir"); exe=$(FUZZ_DIR)/fuzz/$$t; log=$(FUZZ_DIR)/logs/$$t.log; \
	  if [ ! -x "$$exe" ]; then echo "fuzz: $$t was not built, skipped"; continue; fi; \
	  total=$$((total + 1)); mkdir -p $(FUZZ_NEW_DIR)/$$t; \
	  if ! env $(SANITIZER_ENV) "$$exe" -artifact_prefix=$(FUZZ_DIR)/artifacts/$$t- "$$dir"* >"$$log" 2>&1; then \
	    echo "fuzz: $$t FAILED replaying its corpus"; tail -n 40 "$$log"; failed="$$failed $$t"; continue; \
	  fi; \
	  if ! env $(SANITIZER_ENV) "$$exe" -max_total_time=$(FUZZ_SECONDS) -timeout=30 -print_final_stats=1 \
	         -artifact_prefix=$(FUZZ_DIR)/artifacts/$$t- $(FUZZ_ARGS) $(FUZZ_NEW_DIR)/$$t "$$dir" >>"$$log" 2>&1; then \
	    echo "fuzz: $$t FAILED while fuzzing"; tail -n 40 "$$log"; failed="$$failed $$t"; continue; \
	  fi; \
	  passed=$$((passed + 1)); \
	  echo "fuzz: $$t passed: $$(grep -Eo 'Done [0-9]+ runs' "$$log" | tail -1),$$(grep -Eo ' cov: [0-9]+' "$$log" | tail -1)"; \
	done; \
	echo "fuzz: $$passed of $$total fuzz targets passed$${failed:+ (failed:$$failed)}"; \
	[ -z "$$failed" ] && [ "$$total" -gt 0 ]

bench: build
	@found=0; \
	for exe in $(RELEASE_DIR)/bench/*; do \
	  if [ -f "$$exe" ] && [ -x "$$exe" ]; then found=1; echo "== $$exe"; "$$exe" $(BENCH_ARGS); fi; \
	done; \
	if [ $$found = 0 ]; then echo "bench: no benchmarks in $(RELEASE_DIR)/bench"; fi

# Plays the provider-edge example through the agent program (tools/tunnel-agent).
run: deps build
	$(RELEASE_DIR)/tools/tunnel-agent run examples/provider-edge.json

format:
	@$(FORMAT_FILES) | xargs -0 -r $(CLANG_FORMAT) -i

format-check:
	@$(FORMAT_FILES) | xargs -0 -r $(CLANG_FORMAT) --dry-run --Werror

clean:
	rm -rf $(BUILD_DIR)
