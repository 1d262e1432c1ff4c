# The commands of the project. Each installs what is missing, builds what it needs and says what it does.

JOBS ?= $(shell nproc)

.PHONY: run test install deb bench build deps bench-deps node-modules sanitize format clean

run: PRESET = release
run: build
	exec build/release/root/bin/vendra --connector $(ARGS)

test: PRESET = dev
test: build node-modules
	ctest --test-dir build/dev --output-on-failure -j $(JOBS)

# `vendra` on the PATH; DESTDIR is put in front, for packagers.
PREFIX ?= /usr/local
install: PRESET = release
install: build
	cmake --install build/release --prefix $(DESTDIR)$(PREFIX)/lib/vendra
	mkdir -p $(DESTDIR)$(PREFIX)/bin
	ln -sfn ../lib/vendra/bin/vendra $(DESTDIR)$(PREFIX)/bin/vendra

# build/vendra.deb, for `apt install ./build/vendra.deb`.
deb: PRESET = release
deb: build
	cd build && cpack --config release/CPackConfig.cmake

# The benchmarks, side by side in one run; see bench/README.md.
bench: PRESET = release
bench: bench-deps build bench/faye/node_modules/.package-lock.json
	bench/run.sh build/release

# Address and thread sanitizers over the tests they are for.
sanitize: deps
	tools/sanitize.sh $(JOBS)

build: deps
	cmake --preset $(PRESET) --log-level=WARNING
	cmake --build --preset $(PRESET) -j $(JOBS)

deps:
	@tools/install-deps.sh

bench-deps:
	@tools/install-deps.sh bench-packages.txt

# The packages of the tests that act as browsers and as other people's clients.
node-modules: $(patsubst %/package-lock.json,%/node_modules/.package-lock.json,$(wildcard tests/*/package-lock.json))

%/node_modules/.package-lock.json: %/package-lock.json | deps
	cd $* && npm ci --no-audit --no-fund

format:
	tools/check_format.sh --fix

clean:
	rm -rf build
