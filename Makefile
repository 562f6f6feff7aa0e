# Entry points. Each target installs what is missing, configures, builds and runs.
.PHONY: all deps build test test-sanitize test-tsan soak fuzz format clean demo

all: build

deps:
	./scripts/install-deps.sh

build: deps
	cmake --preset default
	cmake --build --preset default

test: build
	ctest --preset default

test-sanitize: deps
	cmake --preset sanitize
	cmake --build --preset sanitize
	ctest --preset sanitize

test-tsan: deps
	cmake --preset tsan
	cmake --build --preset tsan
	ctest --preset tsan

# The randomized soak, long: 250,000 operations in each of its four plans.
soak: build
	OVERLAY_SOAK_OPS=$${OVERLAY_SOAK_OPS:-250000} ./build/default/tests/overlay/overlay_soak_tests

# Builds the libFuzzer targets (clang) and runs each for FUZZ_SECONDS (default 60) over a
# scratch copy of its seed corpus; see scripts/run-fuzzers.sh.
FUZZ_SECONDS ?= 60
fuzz:
	./scripts/install-deps.sh fuzz
	cmake --preset fuzz
	cmake --build --preset fuzz
	FUZZ_SECONDS=$(FUZZ_SECONDS) ./scripts/run-fuzzers.sh

format:
	git ls-files '*.h' '*.cpp' | xargs clang-format -i

clean:
	rm -rf build

demo: build
	./build/default/demo/overlay_demo
