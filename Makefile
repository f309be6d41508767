# Front door: `make demo`, `make test`, `make build`; also `make bench`,
# `make test-sanitize`, `make fuzz`, `make fuzz-smoke`, `make install`, `make package`,
# `make package-check` and `make check-libcxx`.
BUILD ?= build
JOBS  ?= $(shell nproc 2>/dev/null || sysctl -n hw.ncpu 2>/dev/null || echo 2)
# The builds below are make runs of their own: no "Entering directory" around each.
MAKEFLAGS += --no-print-directory

# Debian packages the build, the tests (python3 runs the end-to-end journeys, python3-websockets
# serves them as a service on another WebSocket stack would, mandoc, groff and man lint the
# man pages, bash-completion, zsh and fish run the completions, ansible-core and ansible-lint
# test the Ansible collection, clang-format checks the house style) and the demo need.
# debian/control's Build-Depends are the part a package build needs (dpkg-buildpackage
# refuses to start without them).
PACKAGES := g++ cmake make pkg-config python3 python3-websockets libasio-dev libwebsocketpp-dev libjsoncpp-dev \
            libgtest-dev libgmock-dev mandoc groff-base man-db bash-completion zsh fish ansible-core \
            ansible-lint clang-format
# The same for a Mac with Homebrew (python3, zsh and bash come with macOS). Its asio is
# newer than websocketpp allows: see docs/macos.md for the one to use.
BREW_PACKAGES := cmake pkgconf jsoncpp websocketpp googletest mandoc groff bash-completion fish \
                 ansible ansible-lint

.PHONY: all deps build test demo bench clean clang-deps configure-sanitize build-sanitize test-sanitize \
        fuzz fuzz-smoke install package-deps package package-check check-libcxx

all: build

# Installs what is missing when run as root; otherwise prints the one line to run.
deps:
	@if command -v dpkg-query >/dev/null 2>&1; then \
	  missing=""; \
	  for p in $(PACKAGES) $(EXTRA_PACKAGES); do \
	    dpkg-query -W -f='$${Status}\n' $$p 2>/dev/null | grep -q '^install ok installed$$' || missing="$$missing $$p"; \
	  done; \
	  if [ -n "$$missing" ]; then \
	    if [ "$$(id -u)" = 0 ]; then \
	      apt-get update && DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends $$missing; \
	    else \
	      echo "Missing Debian packages. Install them with:"; \
	      echo "  sudo apt-get install -y$$missing"; \
	      exit 1; \
	    fi; \
	  fi; \
	elif command -v brew >/dev/null 2>&1; then \
	  have=" $$(brew list --formula -1 2>/dev/null | tr '\n' ' ')"; missing=""; \
	  for p in $(BREW_PACKAGES); do \
	    case "$$have" in *" $$p "*) ;; *) missing="$$missing $$p" ;; esac; \
	  done; \
	  if [ -n "$$missing" ]; then \
	    echo "Missing Homebrew packages. Install them with:"; \
	    echo "  brew install$$missing"; \
	    exit 1; \
	  fi; \
	fi

# In CI (CI=true, as CI services set it) every build stops at a compiler warning; the
# configure step is run again so that a build folder configured before gets the setting too.
WERROR := $(if $(filter true 1 yes,$(CI)),-DCMAKE_COMPILE_WARNING_AS_ERROR=ON)

$(BUILD)/CMakeCache.txt:
	cmake -S . -B $(BUILD) $(WERROR)

build: deps $(BUILD)/CMakeCache.txt
	$(if $(WERROR),cmake -S . -B $(BUILD) $(WERROR) >/dev/null)
	cmake --build $(BUILD) -j $(JOBS)

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

# The tool against devsim, the simulated service, on port 7071 (DEMO_PORT).
demo: build
	bash demo/demo.sh $(BUILD)

# Only here are the benchmark programs built. The second line is a short throughput
# check; docs/performance.md has the full runs.
bench: build
	cmake --build $(BUILD) -j $(JOBS) --target devupdate_bench floor reboot_service
	$(BUILD)/bench/devupdate_bench
	python3 bench/throughput.py --build=$(BUILD) --runs=3 list-10000 storm-20000 live-2000

# `make install PREFIX=/usr DESTDIR=/tmp/root` stages an install as a package would. Into a
# folder the user cannot write to, nothing is installed and the message says what to run.
PREFIX ?= /usr/local
install: build
	DESTDIR="$(DESTDIR)" sh cmake/install.sh $(BUILD) "$(PREFIX)"

# Two .deb files in $(BUILD), devupdate and devsim, built from debian/ by dpkg-buildpackage
# in a copy of the sources under $(BUILD)/deb (it writes next to the tree it builds), with the
# suite's loopback tests run on the package build. Next to them, the Ansible collection's
# tarball. lintian, hardening-check (devscripts) and autopkgtest check the result.
PACKAGE_PACKAGES := build-essential debhelper lintian devscripts autopkgtest
DEB_SOURCE       := $(BUILD)/deb/devupdate

package-deps:
	@$(MAKE) deps EXTRA_PACKAGES="$(PACKAGE_PACKAGES)"

package: package-deps
	rm -rf $(BUILD)/deb
	bash packaging/copy-source.sh . $(DEB_SOURCE)
	cd $(DEB_SOURCE) && DEB_BUILD_OPTIONS="parallel=$(JOBS) $(DEB_BUILD_OPTIONS)" dpkg-buildpackage -us -uc
	cp $(BUILD)/deb/devupdate_*.deb $(BUILD)/deb/devsim_*.deb $(BUILD)/
	ansible-galaxy collection build ansible --output-path $(BUILD) --force

# autopkgtest's runner: `null` installs both packages on this machine, for CI's throwaway
# one; AUTOPKGTEST_VIRT="unshare --release bookworm" keeps them in a container instead
# (packaging/README.md).
AUTOPKGTEST_VIRT ?= null

# The packages' file lists, fields, lintian on the source and binary packages (any tag
# fails) and hardening-check; the same sources packaged again in another folder must give
# identical .debs; then the installed packages' tests.
package-check: package
	bash e2e/test_install.sh $(BUILD) $(BUILD)/e2e/stage package
	JOBS=$(JOBS) bash e2e/test_install.sh $(BUILD) $(BUILD)/e2e/stage reproducible
	autopkgtest $(BUILD)/deb/devupdate_*.changes -- $(AUTOPKGTEST_VIRT)

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(LIBCXX_BUILD)

# The other builds run only what the compiler or the standard library can change: not the
# install, Ansible, build and style checks, which `make test` runs once.
ONCE_ONLY := ^(install|ansible|cmake|style)\.

# The second compiler's build: clang, as on a Mac, with jsoncpp found through pkg-config
# (Homebrew installs no CMake package for it), every target under ASan and UBSan stopping at
# the first report, and the libFuzzer targets where this clang has libFuzzer.
ASAN_BUILD     ?= build-asan
CLANG_PACKAGES := clang libclang-rt-dev libc++-dev libc++abi-dev
SANITIZER_ENV  := ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1

clang-deps:
	@$(MAKE) deps EXTRA_PACKAGES="$(CLANG_PACKAGES)"

# Configured on every call (cheap when nothing changed), so that the options are always on
# and folders added since the last call join the build.
configure-sanitize: clang-deps
	cmake -S . -B $(ASAN_BUILD) -DCMAKE_CXX_COMPILER=clang++ -DDEVUPDATE_SANITIZE=ON -DDEVUPDATE_FUZZ=ON \
	  -DCMAKE_DISABLE_FIND_PACKAGE_jsoncpp=ON $(WERROR)
	@grep -q '^pkgcfg_lib_JSONCPP_jsoncpp:FILEPATH=/' $(ASAN_BUILD)/CMakeCache.txt || \
	  { echo "$(ASAN_BUILD): jsoncpp was not found through pkg-config" >&2; exit 1; }

build-sanitize: configure-sanitize
	cmake --build $(ASAN_BUILD) -j $(JOBS)

test-sanitize: build-sanitize
	cd $(ASAN_BUILD) && $(SANITIZER_ENV) ctest --output-on-failure -j $(JOBS) -E '$(ONCE_ONLY)'

FUZZ_TARGETS := fuzz_receive fuzz_service
FUZZ_TIME    ?= 30
FUZZ_SCRATCH ?= $(ASAN_BUILD)/scratch

fuzz: configure-sanitize
	cmake --build $(ASAN_BUILD) -j $(JOBS) --target $(FUZZ_TARGETS)

# Each target for FUZZ_TIME seconds from its committed seeds, copied to a scratch corpus
# so that the repository is not touched.
fuzz-smoke: fuzz
	@set -e; for t in $(FUZZ_TARGETS:fuzz_%=%); do \
	  rm -rf $(FUZZ_SCRATCH)/$$t && mkdir -p $(FUZZ_SCRATCH)/$$t $(FUZZ_SCRATCH)/$$t-crashes; \
	  cp fuzz/corpus/$$t/* $(FUZZ_SCRATCH)/$$t/; \
	  echo "fuzz_$$t: $(FUZZ_TIME) s"; \
	  $(ASAN_BUILD)/fuzz/fuzz_$$t -max_total_time=$(FUZZ_TIME) -timeout=10 -dict=fuzz/protocol.dict \
	    -artifact_prefix=$(FUZZ_SCRATCH)/$$t-crashes/ -print_final_stats=1 $(FUZZ_SCRATCH)/$$t; \
	done; \
	echo "fuzz-smoke: $(words $(FUZZ_TARGETS)) passed, 0 failed"

LIBCXX_BUILD ?= build-libcxx

# The tool's sources against libc++, the standard library of macOS, hardened. Compiled only:
# Debian's jsoncpp is built for libstdc++, so nothing here links against it.
check-libcxx: clang-deps
	cmake -S . -B $(LIBCXX_BUILD) -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_CXX_FLAGS=-stdlib=libc++ \
	  -DBUILD_TESTING=OFF $(WERROR)
	cmake --build $(LIBCXX_BUILD) -j $(JOBS) --target devupdate_core devupdate_main
