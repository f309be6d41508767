# Front door: `make demo`, `make test`, `make build`; also `make bench`,
# `make test-sanitize`, `make fuzz`, `make fuzz-smoke`, `make install`, `make package`,
# `make package-check` and `make check-libcxx`.
BUILD ?= build
JOBS  ?= $(shell nproc 2>/dev/null || sysctl -n hw.ncpu 2>/dev/null || echo 2)
# The builds below are make runs of their own: no "Entering directory" around each.
MAKEFLAGS += --no-print-directory

# Debian packages the build, the tests (python3 runs the end-to-end journeys, mandoc,
# groff and man lint the man pages, bash-completion, zsh and fish run the completions,
# ansible-core and ansible-lint test the Ansible collection, clang-format checks the house
# style) and the demo need.
PACKAGES := g++ cmake make pkg-config python3 libasio-dev libwebsocketpp-dev libjsoncpp-dev libgtest-dev \
            libgmock-dev mandoc groff-base man-db bash-completion zsh fish ansible-core ansible-lint \
            clang-format
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

$(BUILD)/CMakeCache.txt:
	cmake -S . -B $(BUILD)

build: deps $(BUILD)/CMakeCache.txt
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

# `make install PREFIX=/usr DESTDIR=/tmp/root` stages an install as a package would.
PREFIX ?= /usr/local
install: build
	DESTDIR="$(DESTDIR)" cmake --install $(BUILD) --prefix "$(PREFIX)"

# Two .deb files in $(BUILD): devupdate and devsim. dpkg-shlibdeps (dpkg-dev) finds
# their dependencies, with the help of file; lintian and hardening-check (devscripts)
# check the result. The build takes its hardening flags from dpkg-buildflags (dpkg-dev):
# configured again once that is installed, whatever configured $(BUILD) first (cpack
# refuses a build without them). Next to them, the Ansible collection's tarball.
PACKAGE_PACKAGES := dpkg-dev file lintian devscripts

package-deps:
	@$(MAKE) deps EXTRA_PACKAGES="$(PACKAGE_PACKAGES)"

package: package-deps
	cmake -S . -B $(BUILD)
	cmake --build $(BUILD) -j $(JOBS) --target package
	ansible-galaxy collection build ansible --output-path $(BUILD) --force

# The packages' file lists, fields, lintian (any tag fails) and hardening-check; then the
# same sources copied to another folder and packaged again must give identical .debs.
package-check: package
	bash e2e/test_install.sh $(BUILD) $(BUILD)/e2e/stage package
	JOBS=$(JOBS) bash e2e/test_install.sh $(BUILD) $(BUILD)/e2e/stage reproducible

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
	  -DCMAKE_DISABLE_FIND_PACKAGE_jsoncpp=ON
	@grep -q '^pkgcfg_lib_JSONCPP_jsoncpp:FILEPATH=/' $(ASAN_BUILD)/CMakeCache.txt || \
	  { echo "$(ASAN_BUILD): jsoncpp was not found through pkg-config" >&2; exit 1; }

build-sanitize: configure-sanitize
	cmake --build $(ASAN_BUILD) -j $(JOBS)

test-sanitize: build-sanitize
	cd $(ASAN_BUILD) && $(SANITIZER_ENV) ctest --output-on-failure -j $(JOBS) -E '$(ONCE_ONLY)'

FUZZ_TARGETS := fuzz_receive
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
	  -DBUILD_TESTING=OFF
	cmake --build $(LIBCXX_BUILD) -j $(JOBS) --target devupdate_core devupdate_main
