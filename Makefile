# Everyday entry points. CMake does the real work; these pick the build folder and options.
BUILD_DIR   ?= build
ASAN_DIR    ?= build-asan
BENCH_DIR   ?= build-bench
COVERAGE_DIR ?= build-coverage
PACKAGE_DIR ?= build-package
DIST_DIR    ?= dist
FUZZ_SECONDS ?= 30
PREFIX      ?= $(HOME)/.local
WERROR      ?= OFF
# Batched compiles (see VEERLINE_UNITY in CMakeLists.txt) speed up a build from scratch; UNITY=OFF suits
# edit-and-rebuild work, where one edited file then recompiles alone.
UNITY       ?= ON
JOBS        ?= $(shell nproc 2>/dev/null || echo 2)
GENERATOR   := $(shell command -v ninja >/dev/null 2>&1 && echo "-G Ninja")
# A compiler cache, where there is one, makes rebuilds after a branch switch cheap.
LAUNCHER    := $(shell command -v ccache >/dev/null 2>&1 && echo "-DCMAKE_CXX_COMPILER_LAUNCHER=ccache")
CMAKE_FLAGS := -DVEERLINE_WERROR=$(WERROR) -DVEERLINE_UNITY=$(UNITY) $(LAUNCHER)
# Paths below the checkout reach the cache as relative ones, so that the package's build folder
# reuses what the main build compiled.
export CCACHE_BASEDIR := $(CURDIR)
# The one version, CMake's project version; a release is named after it.
VERSION     := $(shell sed -n 's/^project.Veerline VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
RELEASE_URL ?= https://github.com/veerline/veerline/releases/download/v$(VERSION)

.PHONY: all build test test-deps test-asan coverage fuzz bench install uninstall package dist bootstrap clean

all: build

build:
	cmake -S . -B $(BUILD_DIR) $(GENERATOR) -DCMAKE_BUILD_TYPE=Release $(CMAKE_FLAGS) -DCMAKE_INSTALL_PREFIX=$(PREFIX)
	cmake --build $(BUILD_DIR) -j $(JOBS)

# The tests need tools that building does not (shells, a Secret Service, shellcheck): installed
# here, where they are missing, so that no test has to skip.
test-deps:
	scripts/bootstrap test

test: test-deps build
	ctest --test-dir $(BUILD_DIR) --output-on-failure -j $(JOBS)

# One sanitizer build serves the tests and the fuzzers: clang with AddressSanitizer and UBSan,
# optimised a little so that the fuzzers get through many inputs.
SANITIZED := cmake -S . -B $(ASAN_DIR) $(GENERATOR) -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG="-O1 -g" \
	-DCMAKE_CXX_COMPILER=clang++ -DVEERLINE_FUZZ=ON $(CMAKE_FLAGS)

test-asan: test-deps
	$(SANITIZED)
	cmake --build $(ASAN_DIR) -j $(JOBS)
	ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
		ctest --test-dir $(ASAN_DIR) --output-on-failure -j $(JOBS)

# Unoptimised, so that each line counts where it is written; stale counts from an earlier run are
# dropped first. The report covers src/ only: the tests themselves are not the measure.
coverage:
	cmake -S . -B $(COVERAGE_DIR) $(GENERATOR) -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS=--coverage \
		-DCMAKE_EXE_LINKER_FLAGS=--coverage $(CMAKE_FLAGS)
	cmake --build $(COVERAGE_DIR) -j $(JOBS)
	find $(COVERAGE_DIR) -name '*.gcda' -delete
	ctest --test-dir $(COVERAGE_DIR) --output-on-failure -j $(JOBS)
	mkdir -p $(COVERAGE_DIR)/coverage
	gcovr -r . --filter src/ -j $(JOBS) --print-summary \
		--html-details $(COVERAGE_DIR)/coverage/index.html $(COVERAGE_DIR)
	@echo "HTML report: $(COVERAGE_DIR)/coverage/index.html"

# Each tests/fuzz/<name>_fuzz.cpp runs FUZZ_SECONDS on a scratch copy of tests/fuzz/corpus/<name>/,
# so the seeds in the repository stay as they are; any crash fails the run and leaves its input in
# $(ASAN_DIR)/fuzz/artifacts/.
fuzz: test-deps
	$(SANITIZED)
	cmake --build $(ASAN_DIR) --target veerline-fuzzers -j $(JOBS)
	@mkdir -p $(ASAN_DIR)/fuzz/artifacts
	@for source in tests/fuzz/*_fuzz.cpp; do \
		name=$$(basename $$source _fuzz.cpp); scratch=$(ASAN_DIR)/fuzz/corpus/$$name; \
		rm -rf $$scratch && mkdir -p $$scratch && cp -R tests/fuzz/corpus/$$name/. $$scratch/ || exit 1; \
		$(ASAN_DIR)/fuzz/$${name}_fuzz -max_total_time=$(FUZZ_SECONDS) -timeout=10 -print_final_stats=1 \
			-artifact_prefix=$(ASAN_DIR)/fuzz/artifacts/$$name- $$scratch > $(ASAN_DIR)/fuzz/$$name.log 2>&1 \
			|| { tail -n 60 $(ASAN_DIR)/fuzz/$$name.log; echo "fuzz: $$name crashed (log: $(ASAN_DIR)/fuzz/$$name.log)"; exit 1; }; \
		echo "fuzz: $$name: $$(sed -n 's/^stat::number_of_executed_units: *//p' $(ASAN_DIR)/fuzz/$$name.log) runs in $(FUZZ_SECONDS) s, no crash"; \
	done

bench:
	scripts/bootstrap bench
	cmake -S . -B $(BENCH_DIR) $(GENERATOR) -DCMAKE_BUILD_TYPE=Release -DVEERLINE_BENCH=ON -DVEERLINE_TESTS=ON $(CMAKE_FLAGS)
	cmake --build $(BENCH_DIR) -j $(JOBS)
	@for script in bench/*.sh; do [ -f "$$script" ] && BUILD_DIR=$(BENCH_DIR) bash "$$script" || exit 1; done

bootstrap:
	scripts/bootstrap build

install: bootstrap build
	cmake --install $(BUILD_DIR) --prefix $(PREFIX)
	@echo
	@echo "Veerline is installed in $(PREFIX)."
	@echo "Next steps:"
	@echo "  veerline profile add Work --color blue"
	@echo "  veerline profile add Personal --color green"
	@echo "  veerline rule add ~/work Work"
	@echo "  veerline shell install"
	@echo "(Make sure $(PREFIX)/bin is on your PATH.)"

uninstall:
	rm -f $(PREFIX)/bin/veerline $(PREFIX)/libexec/veerline/veerline-resolve \
		$(PREFIX)/share/man/man1/veerline.1.gz $(PREFIX)/share/man/man1/veerline-resolve.1.gz \
		$(PREFIX)/share/bash-completion/completions/veerline $(PREFIX)/share/zsh/site-functions/_veerline \
		$(PREFIX)/share/fish/vendor_completions.d/veerline.fish \
		$(PREFIX)/share/doc/veerline/README.md $(PREFIX)/share/doc/veerline/LICENSE
	-rmdir $(PREFIX)/libexec/veerline $(PREFIX)/share/doc/veerline 2>/dev/null

# The Debian package, veerline_<version>_<arch>.deb in $(PACKAGE_DIR): a build folder of its own,
# installed under /usr and laid out as Debian's packages are, without the tests.
package: bootstrap
	cmake -S . -B $(PACKAGE_DIR) $(GENERATOR) -DCMAKE_BUILD_TYPE=Release $(CMAKE_FLAGS) -DVEERLINE_TESTS=OFF \
		-DVEERLINE_DEBIAN_LAYOUT=ON -DCMAKE_INSTALL_PREFIX=/usr
	cmake --build $(PACKAGE_DIR) -j $(JOBS)
	cd $(PACKAGE_DIR) && cpack -G DEB

# The release tarball of the commit checked out (uncommitted changes are not in it), its SHA-256,
# and the Homebrew formula that builds it, with both filled in.
dist:
	@git diff --quiet HEAD -- || echo "dist: uncommitted changes are left out of the tarball" >&2
	mkdir -p $(DIST_DIR)
	git archive --format=tar.gz --prefix=veerline-$(VERSION)/ -o $(DIST_DIR)/veerline-$(VERSION).tar.gz HEAD
	cd $(DIST_DIR) && { sha256sum veerline-$(VERSION).tar.gz 2>/dev/null || shasum -a 256 veerline-$(VERSION).tar.gz; } \
		> veerline-$(VERSION).tar.gz.sha256
	sed -e 's|^  url ".*"|  url "$(RELEASE_URL)/veerline-$(VERSION).tar.gz"|' \
		-e "s|^  sha256 \".*\"|  sha256 \"$$(cut -d' ' -f1 $(DIST_DIR)/veerline-$(VERSION).tar.gz.sha256)\"|" \
		packaging/homebrew/veerline.rb > $(DIST_DIR)/veerline.rb
	@echo "$(DIST_DIR)/veerline-$(VERSION).tar.gz, its .sha256, and $(DIST_DIR)/veerline.rb for a Homebrew tap."

clean:
	rm -rf $(BUILD_DIR) $(ASAN_DIR) $(BENCH_DIR) $(COVERAGE_DIR) $(PACKAGE_DIR) $(DIST_DIR)
