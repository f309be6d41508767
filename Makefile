# Front door: `make demo`, `make test`, `make build`.
BUILD ?= build
JOBS  ?= $(shell nproc 2>/dev/null || echo 2)

# Debian packages the build and the tests need.
PACKAGES := g++ cmake make libasio-dev libwebsocketpp-dev libjsoncpp-dev libgtest-dev libgmock-dev

.PHONY: all deps build test clean

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

clean:
	rm -rf $(BUILD)
