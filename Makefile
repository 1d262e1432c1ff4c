# The commands of the project. Each installs what is missing, builds what it needs and says what it does.

JOBS ?= $(shell nproc)

.PHONY: run test bench build deps sanitize format clean

run: PRESET = release
run: build
	exec build/release/root/bin/vendra --connector $(ARGS)

test: PRESET = dev
test: build
	ctest --test-dir build/dev --output-on-failure -j $(JOBS)

# The benchmarks, side by side in one run; see bench/README.md.
bench: PRESET = release
bench: build
	bench/run.sh build/release

# Address and thread sanitizers over the tests they are for.
sanitize: deps
	tools/sanitize.sh $(JOBS)

build: deps
	cmake --preset $(PRESET) --log-level=WARNING
	cmake --build --preset $(PRESET) -j $(JOBS)

deps:
	@tools/install-deps.sh

format:
	tools/check_format.sh --fix

clean:
	rm -rf build
