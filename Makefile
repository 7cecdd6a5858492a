# Entry points: `make demo` and `make test`. Each installs missing Debian
# packages first (scripts/install-deps.sh), then configures and builds.
JOBS ?= 2
CMAKE_FLAGS ?=
CTEST = ctest --output-on-failure --no-tests=error -j$(JOBS)

.PHONY: all deps build test test-asan test-tsan test-valgrind test-armhf test-arm64 soak bench fuzz fuzz-smoke demo clean format \
	deb deb-armhf deb-arm64 test-deb test-peer test-installers test-long

all: build

deps:
	@scripts/install-deps.sh

build: deps
	cmake -S . -B build -G Ninja -DTAMREL_BUILD_TESTS=ON $(CMAKE_FLAGS)
	cmake --build build -j$(JOBS)

# The suite less the tests labelled "long", which test-long runs with the
# soak test at full length (`make test` runs a short round, 200 cycles).
test: build
	cd build && $(CTEST) -LE long

test-long: build
	cd build && $(CTEST) -L long
	cd build && TAMREL_SOAK_CYCLES=2000 ./tamrel_tests --gtest_filter='Soak*'

# The same suite built with AddressSanitizer and UndefinedBehaviorSanitizer.
test-asan: deps
	cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DTAMREL_SANITIZE=address,undefined $(CMAKE_FLAGS)
	cmake --build build-asan -j$(JOBS)
	cd build-asan && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 $(CTEST)

# The whole suite built with ThreadSanitizer, less the tests in
# tests/tsan.deny (each with its reason; a stale entry fails the run).
test-tsan: deps
	cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DTAMREL_SANITIZE=thread $(CMAKE_FLAGS)
	cmake --build build-tsan -j$(JOBS)
	cd build-tsan && denied="$$(ctest -N | sed -n 's/^ *Test *#[0-9]*: //p' | \
	  ../scripts/deny-list.sh ../tests/tsan.deny regex)" && \
	  TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" $(CTEST) -E "$$denied"

# The soak test at full length alone.
soak: build
	cd build && TAMREL_SOAK_CYCLES=2000 ./tamrel_tests --gtest_filter='Soak*'

# The whole suite under valgrind memcheck, less the tests in
# tests/valgrind.deny: memory errors and definite leaks fail.
test-valgrind: build
	@scripts/install-deps.sh valgrind
	scripts/valgrind.sh build

# The plug-in, the static library and the whole suite cross-built for 32-bit
# ARM hard-float (test-armhf) or 64-bit ARM (test-arm64) against a bookworm
# sysroot, run under qemu-user. docs/cross-building.md has the recipe.
CROSS_ARCHES = armhf arm64
$(addprefix test-,$(CROSS_ARCHES)): test-%:
	scripts/cross-sysroot.sh $*
	cmake -S . -B build-$* -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/$*.cmake -DTAMREL_BUILD_TESTS=ON $(CMAKE_FLAGS)
	cmake --build build-$* -j$(JOBS)
	cd build-$* && $(CTEST)

fuzz:
	@scripts/install-deps.sh fuzz
	CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DTAMREL_BUILD_TESTS=OFF -DTAMREL_BUILD_FUZZERS=ON
	cmake --build build-fuzz -j$(JOBS) --target fuzz_all

# Each fuzz target for FUZZ_SECONDS, seeded from tests/data and fuzz/corpus.
FUZZ_SECONDS ?= 60
fuzz-smoke: fuzz
	scripts/fuzz-run.sh build-fuzz $(FUZZ_SECONDS)

# Debian packages from a copy of the tree into build-deb/ARCH, checked with
# lintian; test-deb installs the amd64 ones in a fresh bookworm chroot and runs
# them there (root).
deb:
	JOBS=$(JOBS) scripts/deb-build.sh amd64

$(addprefix deb-,$(CROSS_ARCHES)): deb-%:
	JOBS=$(JOBS) scripts/deb-build.sh $*

test-deb: deb
	scripts/deb-test.sh

# SWUpdate, an independent hawkBit client Debian ships, against tamrel-ddi-server.
test-peer: build
	@scripts/install-deps.sh peer
	scripts/peer-test.sh build

# The agent installing through RAUC and SWUpdate, from Debian, with the
# integrations of installers/ (root).
test-installers: build
	@scripts/install-deps.sh installers
	tests/installers_test.sh build

demo: build
	./build/tamrel-demo

format:
	clang-format -i $$(git ls-files '*.cpp' '*.h')

clean:
	rm -rf build build-asan build-tsan build-fuzz build-armhf build-arm64 build-deb

# Benchmarks against curl, openssl and coreutils (not part of `make test`).
bench: build
	scripts/bench.sh | tee build/bench.txt
	@if command -v gnuplot >/dev/null; then scripts/bench-chart.sh build/bench.txt build/throughput.png; fi
