# The two commands people need: `make run` and `make test`. The rest is for CI
# and for developers.
.PHONY: all deps build test test-sanitize test-tsan bench fuzz run clean darwin-check lint \
        format-check format check-install package

# CI (CI=true in the environment) builds with warnings as errors.
PRESET ?= $(if $(filter true,$(CI)),ci,default)
JOBS ?= $(shell nproc)

all: build

deps:
	@scripts/install-deps

build: deps
	cmake --preset $(PRESET) >/dev/null
	cmake --build build/$(PRESET) -j $(JOBS)

test: build
	ctest --test-dir build/$(PRESET) --output-on-failure --timeout 600 -j $(JOBS)

test-sanitize:
	$(MAKE) test PRESET=sanitize

test-tsan:
	TSAN_OPTIONS=suppressions=$(CURDIR)/scripts/tsan.supp $(MAKE) test PRESET=tsan

bench:
	@scripts/install-deps --bench
	cmake --preset bench >/dev/null
	cmake --build build/bench -j $(JOBS)

fuzz: deps
	cmake --preset fuzz >/dev/null
	cmake --build build/fuzz -j $(JOBS)

# clang-tidy over the tree (.clang-tidy, findings are errors).
lint: deps
	scripts/lint

# Layout by .clang-format: format-check fails on any difference, format fixes it.
format-check: deps
	scripts/format-check
format: deps
	scripts/format-check --fix

# The Debian package of the daemon and the tool: build/$(PRESET)/tarskel_*.deb.
package: build
	cd build/$(PRESET) && cpack -G DEB

# The installed libraries, found and linked by an outside project.
check-install: deps
	scripts/check-install build/$(PRESET)

# Every source under a darwin/ folder, compiled in syntax-only mode for macOS
# against the declarations in cmake/darwin-sdk/.
darwin-check: deps
	scripts/darwin-check

# Starts tarskeld in the foreground with its state under ./.state; from another
# terminal: build/default/Tools/tarskel/tarskel call daemon.info --mach-service ./.state/tarskeld.sock
run: build
	@mkdir -p .state
	build/$(PRESET)/Daemons/tarskeld/tarskeld --root ./.state --mach-service ./.state/tarskeld.sock

clean:
	rm -rf build
