# Top-level entry points; each one sets up what it needs first.
#   make demo    build and run the demo on the built-in test card
#   make test    build and run the whole test suite
#   make bench   build and run the benchmarks
#   make fuzz    run each fuzz target for FUZZ_SECONDS (default 60)
#   make sanitize  build with ASan and UBSan and run the test suite
#   make msan      replay the fuzz files under MSan: no load leaves a bitmap byte unwritten
#   make windows   cross-build brivanta.dll for 32-bit (build-win32) and 64-bit (build-win64) Windows
#   make test-windows  run the portable tests, the DLL test and the demo comparison under Wine
#   make test-32   build the library and the suite as 32-bit Linux programs (build-32) and run them
#   make install   install under PREFIX (default /usr/local)

BUILD ?= build
JOBS ?= $(shell nproc)
FUZZ_SECONDS ?= 60
CMAKE_FLAGS ?=
PREFIX ?= /usr/local

PACKAGES = cmake ninja-build g++ clang libgtest-dev libbenchmark-dev \
	libtiff-tools netpbm imagemagick libjpeg-turbo-progs giflib-tools python3-pil python3-numpy \
	libclang-rt-14-dev libtiff-dev libgif-dev libturbojpeg0-dev libstb-dev \
	mingw-w64 g++-mingw-w64-i686-posix g++-mingw-w64-x86-64-posix googletest wine wine64 \
	pkg-config g++-multilib qemu-user libx11-dev libxext-dev xvfb xdotool x11-apps pngquant ghostscript graphicsmagick libmagickcore-6.q16-6-extra libfreetype-dev libfontconfig-dev fonts-liberation libspng-dev zlib1g-dev \
	libsane1 sane-utils libcairo2-dev libcups2-dev poppler-utils cups xclip
# What the benchmarks compare against, linked by them alone.
BENCH_PACKAGES = libvips-dev libmagickwand-6.q16-dev libimagequant-dev libpixman-1-dev

.PHONY: all deps build demo test bench fuzz msan sanitize clean windows test-windows test-32 install

all: build

deps:
	@missing=$$(for p in $(PACKAGES) $(EXTRA_PACKAGES); do dpkg-query -W -f='$${Status}\n' $$p 2>/dev/null | grep -q 'install ok installed' || echo $$p; done); \
	if [ -n "$$missing" ]; then \
	  if [ "$$(id -u)" = 0 ]; then \
	    echo "installing:" $$missing; \
	    (apt-get update -qq || true) && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq $$missing >/dev/null; \
	  else \
	    echo "missing packages; run: sudo apt-get install -y $$missing"; exit 1; \
	  fi; \
	fi

$(BUILD)/build.ninja:
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_FLAGS)

build: deps $(BUILD)/build.ninja
	cmake --build $(BUILD) -j $(JOBS)

demo: build
	./$(BUILD)/brivanta demo $(BUILD)/demo

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS) --timeout 600

install: build
	cmake --install $(BUILD) --prefix $(PREFIX)

# Pointers, size_t and long of 32 bits, as in the Windows DLL.  The programs
# run under qemu's user mode: not every kernel runs 32-bit programs itself.
build-32/build.ninja:
	cmake -S . -B build-32 -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DCMAKE_TOOLCHAIN_FILE=$(CURDIR)/cmake/linux-i686.cmake \
	  -DCMAKE_CROSSCOMPILING_EMULATOR=qemu-i386 $(CMAKE_FLAGS)

test-32: deps build-32/build.ninja
	cmake --build build-32 -j $(JOBS)
	cd build-32 && ctest --output-on-failure -j $(JOBS) --timeout 900

sanitize: deps
	cmake -S . -B build-sanitize -G Ninja -DCMAKE_BUILD_TYPE=Debug \
	  -DCMAKE_CXX_FLAGS="-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer" \
	  -DCMAKE_EXE_LINKER_FLAGS="-fsanitize=address,undefined" \
	  -DCMAKE_SHARED_LINKER_FLAGS="-fsanitize=address,undefined"
	cmake --build build-sanitize -j $(JOBS)
	# The scanner tests run libsane's own threads, which keep memory past
	# sane_exit and can stall under the sanitizer's fork handling; they run in `make test`.
	cd build-sanitize && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
	  ctest --output-on-failure -j $(JOBS) --timeout 900 -E '^(interop_|Sane\.)'

bench: EXTRA_PACKAGES = $(BENCH_PACKAGES)
bench: deps
	cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DBRIVANTA_BENCH=ON -DBRIVANTA_TESTS=OFF
	cmake --build build-bench -j $(JOBS)
	@for b in build-bench/bench/*_bench; do echo "== $$b"; $$b --benchmark_counters_tabular=true || exit 1; done

FUZZ_CMAKE = cmake -S . -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBRIVANTA_FUZZ=ON -DBRIVANTA_TESTS=OFF \
	-DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++

fuzz: deps
	$(FUZZ_CMAKE) -B build-fuzz
	cmake --build build-fuzz -j $(JOBS)
	@mkdir -p fuzz/crashers
	@for f in build-fuzz/fuzz/*_fuzz; do \
	  n=$$(basename $$f); mkdir -p build-fuzz/corpus/$$n; \
	  echo "== $$n for $(FUZZ_SECONDS) s"; \
	  $$f -max_total_time=$(FUZZ_SECONDS) -max_len=65536 -timeout=10 -rss_limit_mb=2048 -malloc_limit_mb=1024 \
	    -dict=fuzz/dict/$$n.dict -artifact_prefix=fuzz/crashers/$$n- build-fuzz/corpus/$$n fuzz/corpus || exit 1; \
	done

# The fuzz targets that load into handles, under the memory sanitizer, run
# once on every crash file and corpus file: loads take bitmaps uncleared, so
# a byte a load neither wrote nor cleared is reported.  The sanitizer's
# calloc touches what it hands out, so huge claimed pictures need memory:
# no RSS limit here.
MSAN_TARGETS = $(notdir $(basename $(shell grep -l check_loaded fuzz/*_fuzz.cpp)))
msan: deps
	$(FUZZ_CMAKE) -B build-msan -DBRIVANTA_FUZZ_SANITIZERS=memory
	cmake --build build-msan -j $(JOBS) --target $(MSAN_TARGETS)
	@for n in $(MSAN_TARGETS); do \
	  echo "== $$n"; \
	  find fuzz/crashers fuzz/corpus -type f | sort | xargs -P $(JOBS) -n 16 build-msan/fuzz/$$n -rss_limit_mb=0 \
	    > build-msan/$$n.log 2>&1 || { grep -B2 -A30 -E 'WARNING|ERROR' build-msan/$$n.log | head -60; exit 1; }; \
	done

# Windows: 32-bit is what applications load; 64-bit runs the tests under Wine.
WIN_RUNNER = $(CURDIR)/tests/windows/wine-run.sh
WIN32_TARGETS = brivanta brivanta_tool brivanta_dll_test brivanta_link_example

build-win32/build.ninja:
	cmake -S . -B build-win32 -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DCMAKE_TOOLCHAIN_FILE=$(CURDIR)/cmake/mingw-i686.cmake $(CMAKE_FLAGS)

build-win64/build.ninja:
	cmake -S . -B build-win64 -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DCMAKE_TOOLCHAIN_FILE=$(CURDIR)/cmake/mingw-x86_64.cmake \
	  -DCMAKE_CROSSCOMPILING_EMULATOR=$(WIN_RUNNER) \
	  -DBRIVANTA_HOST_BUILD=$(abspath $(BUILD)) $(CMAKE_FLAGS)

windows: deps build-win32/build.ninja build-win64/build.ninja
	cmake --build build-win32 -j $(JOBS) --target $(WIN32_TARGETS)
	cmake --build build-win64 -j $(JOBS)

test-windows: build windows
	cd build-win32 && ctest --output-on-failure -R '^dll_(export_table|stdcall_returns)$$'
	# A program that starts while the previous one's wine server is shutting
	# down can die or stall through no fault of its own: such a test runs once more.
	cd build-win64 && (ctest --output-on-failure -j $(JOBS) --timeout 300 || \
	  ctest --output-on-failure --rerun-failed --timeout 300)

clean:
	rm -rf $(BUILD) build-sanitize build-bench build-fuzz build-win32 build-win64 build-32
