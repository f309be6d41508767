# Front door: `make demo`, `make test`, `make build`; also `make bench`,
# `make test-sanitize`, `make fuzz`, `make fuzz-smoke`, `make install`, `make package`
# and `make package-check`.
BUILD ?= build
JOBS  ?= $(shell nproc 2>/dev/null || echo 2)

# Debian packages the build, the tests (python3 runs the end-to-end journeys, mandoc,
# groff and man lint the man pages, bash-completion runs the completion, ansible-core and
# ansible-lint test the Ansible collection) and the demo need.
PACKAGES := g++ cmake make python3 libasio-dev libwebsocketpp-dev libjsoncpp-dev libgtest-dev libgmock-dev \
            mandoc groff-base man-db bash-completion ansible-core ansible-lint

.PHONY: all deps build test demo bench clean build-sanitize test-sanitize fuzz-deps fuzz fuzz-smoke \
        install package-deps package package-check

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

# The second line is a short throughput check; docs/performance.md has the full runs.
bench: build
	$(BUILD)/bench/devupdate_bench
	python3 bench/throughput.py --build=$(BUILD) --runs=3 list-10000 storm-20000 live-2000

# `make install PREFIX=/usr DESTDIR=/tmp/root` stages an install as a package would.
PREFIX ?= /usr/local
install: build
	DESTDIR="$(DESTDIR)" cmake --install $(BUILD) --prefix "$(PREFIX)"

# Two .deb files in $(BUILD): devupdate and devsim. dpkg-shlibdeps (dpkg-dev) finds
# their dependencies, with the help of file; lintian and hardening-check (devscripts)
# check the result. The build takes its hardening flags from dpkg-buildflags (dpkg-dev).
# Next to them, the Ansible collection's tarball.
PACKAGE_PACKAGES := dpkg-dev file lintian devscripts

package-deps:
	@$(MAKE) --no-print-directory deps EXTRA_PACKAGES="$(PACKAGE_PACKAGES)"

package: package-deps build
	cmake --build $(BUILD) --target package
	ansible-galaxy collection build ansible --output-path $(BUILD) --force

# The packages' file lists, fields, lintian (any tag fails) and hardening-check; then the
# same sources copied to another folder and packaged again must give identical .debs.
package-check: package
	bash e2e/test_install.sh $(BUILD) $(BUILD)/e2e/stage package
	JOBS=$(JOBS) bash e2e/test_install.sh $(BUILD) $(BUILD)/e2e/stage reproducible

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(FUZZ_BUILD)

# Checked build: every target and the whole CTest suite under ASan and UBSan, stopping
# at the first report.
ASAN_BUILD ?= build-asan
SANITIZER_ENV := ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1

# Configured on every call (cheap when nothing changed), so that the option is always on
# and folders added since the last call join the build.
build-sanitize: deps
	cmake -S . -B $(ASAN_BUILD) -DDEVUPDATE_SANITIZE=ON
	cmake --build $(ASAN_BUILD) -j $(JOBS)

test-sanitize: build-sanitize
	cd $(ASAN_BUILD) && $(SANITIZER_ENV) ctest --output-on-failure -j $(JOBS)

# libFuzzer targets, built by clang with the sanitizers; only these targets need clang.
FUZZ_BUILD    ?= build-fuzz
FUZZ_PACKAGES := clang libclang-rt-14-dev
FUZZ_TARGETS  := fuzz_receive
FUZZ_TIME     ?= 30
FUZZ_SCRATCH  ?= $(FUZZ_BUILD)/scratch

fuzz-deps:
	@$(MAKE) --no-print-directory deps EXTRA_PACKAGES="$(FUZZ_PACKAGES)"

fuzz: fuzz-deps
	cmake -S . -B $(FUZZ_BUILD) -DCMAKE_CXX_COMPILER=clang++ -DDEVUPDATE_SANITIZE=ON -DDEVUPDATE_FUZZ=ON -DBUILD_TESTING=OFF
	cmake --build $(FUZZ_BUILD) -j $(JOBS) --target $(FUZZ_TARGETS)

# Each target for FUZZ_TIME seconds from its committed seeds, copied to a scratch corpus
# so that the repository is not touched.
fuzz-smoke: fuzz
	@set -e; for t in $(FUZZ_TARGETS:fuzz_%=%); do \
	  rm -rf $(FUZZ_SCRATCH)/$$t && mkdir -p $(FUZZ_SCRATCH)/$$t $(FUZZ_SCRATCH)/$$t-crashes; \
	  cp fuzz/corpus/$$t/* $(FUZZ_SCRATCH)/$$t/; \
	  echo "fuzz_$$t: $(FUZZ_TIME) s"; \
	  $(FUZZ_BUILD)/fuzz/fuzz_$$t -max_total_time=$(FUZZ_TIME) -timeout=10 -dict=fuzz/protocol.dict \
	    -artifact_prefix=$(FUZZ_SCRATCH)/$$t-crashes/ -print_final_stats=1 $(FUZZ_SCRATCH)/$$t; \
	done; \
	echo "fuzz-smoke: $(words $(FUZZ_TARGETS)) passed, 0 failed"
