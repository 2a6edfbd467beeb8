# Thin wrapper over the one CMake build.
#   make         configure and build into build/
#   make test    build and run every test (C++ and Python, every interpreter found)
#   make asan    the same suites under AddressSanitizer + UndefinedBehaviorSanitizer
#   make bench   build and run the benchmarks
#   make fuzz    build the fuzz targets (clang-14, libFuzzer) and run each for
#                FUZZ_SECONDS (default 60)
#   make demo    start the simulator and run the quick start against it
#   make clean
CMAKE   ?= cmake
JOBS    ?= $(shell nproc 2>/dev/null || echo 2)
CONFIG  ?=
WERROR  := $(if $(CI),-DTQ_WERROR=ON,)

.PHONY: all build test asan bench fuzz demo clean

all: build

build/CMakeCache.txt:
	$(CMAKE) -S . -B build $(WERROR) $(CONFIG)

build: build/CMakeCache.txt
	$(CMAKE) --build build -j $(JOBS)

test: build
	cd build && ctest --output-on-failure -j $(JOBS)

build-asan/CMakeCache.txt:
	$(CMAKE) -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DTQ_SANITIZE=ON $(WERROR) $(CONFIG)

asan: build-asan/CMakeCache.txt
	$(CMAKE) --build build-asan -j $(JOBS)
	cd build-asan && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
	  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --output-on-failure -j $(JOBS)

build-bench/CMakeCache.txt:
	$(CMAKE) -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DTQ_BUILD_BENCH=ON -DTQ_BUILD_TESTS=OFF -DTQ_BUILD_PYTHON=OFF $(CONFIG)

bench: build build-bench/CMakeCache.txt
	$(CMAKE) --build build-bench -j $(JOBS)
	bash bench/run

FUZZ_SECONDS ?= 60

build-fuzz/CMakeCache.txt:
	CC=clang-14 CXX=clang++-14 $(CMAKE) -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTQ_FUZZ=ON \
	  -DTQ_BUILD_TESTS=OFF -DTQ_BUILD_PYTHON=OFF $(CONFIG)

fuzz: build-fuzz/CMakeCache.txt
	$(CMAKE) --build build-fuzz -j $(JOBS) --target fuzz_targets
	FUZZ_SECONDS=$(FUZZ_SECONDS) bash fuzz/run build-fuzz

demo: build
	bash examples/demo.sh

# pip install . offline, as a new user would: fresh venvs of 3.8 and 3.13, 2.7's
# pip into a --target directory (2 to 5 minutes; not part of `make test`).
.PHONY: install-check
install-check:
	bash tests/packaging/check_install.sh $(INSTALL_CHECK_PYTHONS)

clean:
	rm -rf build build-asan build-bench build-fuzz
