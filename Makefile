# The two commands of the README: `make demo` and `make test`.
BUILD ?= build
# Ninja when installed, else Makefiles. Left to the shell of the recipe that
# configures, which runs after `deps`: on a fresh machine ninja only exists
# once install-deps has run, and a choice made while make reads this file would
# give the first build another generator than every later one.
# `make GENERATOR=...` still chooses.
GENERATOR ?= $$(command -v ninja >/dev/null 2>&1 && echo Ninja || echo 'Unix Makefiles')
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=
CTEST_FLAGS ?=
FUZZ_SECONDS ?= 60

# Other Debian architectures, each built in its own directory ($(BUILD)-ARCH)
# with Debian's cross compiler and the target's multiarch libraries:
#   make cross ARCH=arm64|armhf|i386     build
#   make package ARCH=...                the .deb for that architecture
#   make test-cross ARCH=arm64|armhf     the unit tier under qemu-user
#   make test-i386                       the whole suite on a 32-bit CPU
ARCH ?=
TRIPLET_arm64 := aarch64-linux-gnu
TRIPLET_armhf := arm-linux-gnueabihf
TRIPLET_i386 := i686-linux-gnu
XBUILD = $(BUILD)-$(ARCH)

.PHONY: all deps configure build test demo bench clean lint format package test-asan test-tsan fuzz \
	cross test-cross test-i386

all: build

deps:
	@bash scripts/install-deps

# Configures once, and again whenever CMAKE_FLAGS differ from the last ones.
configure: deps
	@bash scripts/configure $(BUILD) "$(GENERATOR)" $(CMAKE_FLAGS)

build: deps configure
	cmake --build $(BUILD) -j $(JOBS)

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS) $(CTEST_FLAGS)

demo: build
	@bash scripts/demo $(BUILD)

# The vehicle-to-fleet path: shipped broker ACL and bridge, a 10 s uplink outage.
.PHONY: demo-fleet
demo-fleet: build
	@bash scripts/demo-fleet $(BUILD)

bench: deps
	@IPCD_DEPS_BENCH=1 bash scripts/install-deps
	cmake -S . -B $(BUILD)-bench -G "$(GENERATOR)" -DCMAKE_BUILD_TYPE=Release -DIPCD_BENCH=ON -DBUILD_TESTING=OFF
	cmake --build $(BUILD)-bench -j $(JOBS)
	@bash scripts/bench $(BUILD)-bench

test-asan:
	@IPCD_DEPS_CLANG=1 bash scripts/install-deps
	CC=clang CXX=clang++ cmake -S . -B $(BUILD)-asan -G "$(GENERATOR)" -DCMAKE_BUILD_TYPE=Debug "-DIPCD_SANITIZE=address;undefined"
	cmake --build $(BUILD)-asan -j $(JOBS)
# The options reach the instrumented ipcd that the tests start, too: a
# report ends it with a non-zero status, which the tests check.
	cd $(BUILD)-asan && ASAN_OPTIONS=detect_leaks=1:halt_on_error=1 \
	  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --output-on-failure -j $(JOBS) $(CTEST_FLAGS)

test-tsan:
	@IPCD_DEPS_CLANG=1 bash scripts/install-deps
	CC=clang CXX=clang++ cmake -S . -B $(BUILD)-tsan -G "$(GENERATOR)" -DCMAKE_BUILD_TYPE=Debug -DIPCD_SANITIZE=thread
	cmake --build $(BUILD)-tsan -j $(JOBS)
# halt_on_error and exitcode 66 make a race in the instrumented ipcd end it
# with status 66, which the tests see.
	cd $(BUILD)-tsan && TSAN_OPTIONS="halt_on_error=1 exitcode=66 second_deadlock_stack=1" \
	  ctest --output-on-failure -j $(JOBS) $(CTEST_FLAGS)

fuzz:
	@IPCD_DEPS_CLANG=1 bash scripts/install-deps
	CC=clang CXX=clang++ cmake -S . -B $(BUILD)-fuzz -G "$(GENERATOR)" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DIPCD_FUZZ=ON -DBUILD_TESTING=OFF
	cmake --build $(BUILD)-fuzz -j $(JOBS)
	@bash scripts/fuzz $(BUILD)-fuzz $(FUZZ_SECONDS)

ifeq ($(ARCH),)
package: build
	cd $(BUILD) && cpack -G DEB
else
package: cross
	cd $(XBUILD) && cpack -G DEB
endif

# Every command block of README.md that can run here, as written, against a
# broker and an ipcd of its own (scripts/readme-check says how).
.PHONY: readme-check
readme-check: build
	@bash scripts/readme-check $(BUILD)

# Debian's own checks of the .deb (make package, ARCH too): any error fails.
.PHONY: lint-deb
lint-deb: package
	@IPCD_DEPS_LINTIAN=1 bash scripts/install-deps
	lintian --fail-on error $(if $(ARCH),$(XBUILD),$(BUILD))/ipcd_*.deb

cross:
	@[ -n "$(TRIPLET_$(ARCH))" ] || { echo "make: ARCH=arm64, armhf or i386 (not '$(ARCH)')" >&2; exit 2; }
	@bash scripts/install-deps --arch $(ARCH)
	@bash scripts/configure $(XBUILD) "$(GENERATOR)" \
	  -DCMAKE_TOOLCHAIN_FILE=$(CURDIR)/cmake/toolchains/$(TRIPLET_$(ARCH)).cmake $(CMAKE_FLAGS)
	cmake --build $(XBUILD) -j $(JOBS)

# Under emulation only the unit tier: the other tiers start ipcd and the
# tools as child processes, and an emulated program can start an ARM one only
# where binfmt_misc hands those to qemu, a machine-wide setting. The whole
# suite runs on i386 instead.
test-cross:
	@case "$(ARCH)" in arm64|armhf) ;; *) echo "make test-cross: ARCH=arm64 or armhf" >&2; exit 2;; esac
	@$(MAKE) --no-print-directory cross ARCH=$(ARCH)
	cd $(XBUILD) && ctest --output-on-failure -j $(JOBS) -L unit $(CTEST_FLAGS)

# The kernel must run 32-bit x86 programs (IA32 emulation, which some
# kernels leave out or switch off): scripts/runs-i386 tells, before anything
# is installed.
test-i386:
	@bash scripts/runs-i386 || { echo "make test-i386: this kernel does not run 32-bit x86 programs (no IA32 emulation)" >&2; exit 3; }
	@bash scripts/install-deps --arch i386
	@$(MAKE) --no-print-directory cross ARCH=i386
	cd $(BUILD)-i386 && ctest --output-on-failure -j $(JOBS) $(CTEST_FLAGS)

lint: configure
	@IPCD_DEPS_LINT=1 bash scripts/install-deps
	@bash scripts/lint $(BUILD)

format:
	@IPCD_DEPS_LINT=1 bash scripts/install-deps
	@git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf $(BUILD) $(BUILD)-bench $(BUILD)-asan $(BUILD)-tsan $(BUILD)-fuzz \
	  $(BUILD)-arm64 $(BUILD)-armhf $(BUILD)-i386
