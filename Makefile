# Entry points. Each target installs what is missing, configures, builds and runs.
.PHONY: all deps build test test-sanitize format clean demo

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

format:
	git ls-files '*.h' '*.cpp' | xargs clang-format -i

clean:
	rm -rf build

demo: build
	./build/default/demo/overlay_demo
