# Two commands matter: `make demo` and `make test`. Both install whatever
# Debian packages are missing first.
JOBS ?= 2
ROOT := $(CURDIR)
OVERLAY := $(ROOT)/build/armhf-overlay
CMAKE_COMMON := -DCMAKE_BUILD_TYPE=RelWithDebInfo

.PHONY: all deps host demo test test-host test-asan test-tsan test-armhf test-fuzz soak-long fuzz-long \
        bench clean

all: host

deps:
	@ARM_OVERLAY=$(OVERLAY) ./scripts/install-deps.sh

host: deps
	cmake -S . -B build/host $(CMAKE_COMMON) >/dev/null
	cmake --build build/host -j$(JOBS)

# The camera-session simulator on a day of the sample 50 MP phone; the summary
# goes to the terminal, the library's log and the reports to build/demo.
demo: host
	./build/host/tools/sim/talmem_sim run samples/scenarios/camera-day.json -o build/demo

bench: host
	@for b in build/host/bench/bench_*; do [ -x "$$b" ] && $$b; done

test: deps
	$(MAKE) test-host
	$(MAKE) test-asan
	$(MAKE) test-tsan
	$(MAKE) test-fuzz
	$(MAKE) test-armhf

test-host: host
	ctest --test-dir build/host --output-on-failure -j$(JOBS)

test-asan: deps
	cmake -S . -B build/asan $(CMAKE_COMMON) -DTALMEM_SANITIZE=ON -DTALMEM_BUILD_BENCH=OFF \
	  -DTALMEM_BUILD_TOOLS=OFF >/dev/null
	cmake --build build/asan -j$(JOBS)
	ctest --test-dir build/asan --output-on-failure -j$(JOBS)

# ThreadSanitizer: the whole suite, without any suppression (none is needed, not
# even for the uninstrumented Android platform libraries).
test-tsan: deps
	cmake -S . -B build/tsan $(CMAKE_COMMON) -DTALMEM_TSAN=ON -DTALMEM_BUILD_BENCH=OFF \
	  -DTALMEM_BUILD_TOOLS=OFF >/dev/null
	cmake --build build/tsan -j$(JOBS)
	ctest --test-dir build/tsan --output-on-failure -j$(JOBS)

test-armhf: deps
	cmake -S . -B build/armhf $(CMAKE_COMMON) -DCMAKE_TOOLCHAIN_FILE=cmake/armhf-toolchain.cmake \
	  -DTALMEM_ARM_OVERLAY=$(OVERLAY) -DTALMEM_BUILD_BENCH=OFF -DTALMEM_BUILD_TOOLS=OFF >/dev/null
	cmake --build build/armhf -j$(JOBS)
	ctest --test-dir build/armhf --output-on-failure -j$(JOBS)

test-fuzz: deps
	@if [ -x scripts/run-fuzz.sh ]; then ./scripts/run-fuzz.sh; else echo "no fuzz targets"; fi

# Debian packages (runtime library and -dev) for /usr, in build/pkg.
.PHONY: package package-check
package: deps
	cmake -S . -B build/pkg $(CMAKE_COMMON) -DCMAKE_INSTALL_PREFIX=/usr -DTALMEM_BUILD_TESTS=OFF \
	  -DTALMEM_BUILD_BENCH=OFF >/dev/null
	cmake --build build/pkg -j$(JOBS)
	cd build/pkg && cpack -G DEB
	@ls -1 build/pkg/*.deb

# Installs both packages with dpkg (needs root), builds and runs examples/
# against them, then removes them again. Not part of `make test`.
package-check: package
	./scripts/check-package.sh build/pkg

# Long runs, never part of `make test`: an hour of the seeded camera soak under
# AddressSanitizer (SOAK_SECONDS, SOAK_SEED) and an hour per fuzz target (FUZZ_SECONDS).
SOAK_SECONDS ?= 3600
SOAK_SEED ?= $(shell date +%s)
soak-long: deps
	cmake -S . -B build/asan $(CMAKE_COMMON) -DTALMEM_SANITIZE=ON -DTALMEM_BUILD_BENCH=OFF \
	  -DTALMEM_BUILD_TOOLS=OFF >/dev/null
	cmake --build build/asan -j$(JOBS) --target test_soak
	TALMEM_SOAK_SECONDS=$(SOAK_SECONDS) TALMEM_SOAK_SEED=$(SOAK_SEED) ./build/asan/tests/test_soak

fuzz-long: deps
	FUZZ_SECONDS=$${FUZZ_SECONDS:-3600} ./scripts/run-fuzz.sh

clean:
	rm -rf build/host build/asan build/tsan build/armhf build/fuzz build/pkg build/demo
