# Two commands for a fresh machine: `make example` and `make test`.
# Both install what is missing (needs root or sudo), then build.

JOBS ?= 2
BUILD ?= build
SAN_BUILD ?= build-san
FUZZ_BUILD ?= build-fuzz
PREFIX ?= /usr/local
# Seconds per fuzz target: `make fuzz` (grows the corpus) and the short
# run of `make test`.
FUZZ_SECONDS ?= 180
FUZZ_SHORT ?= 30

.PHONY: all deps build test test-release test-sanitize test-install test-fuzz fuzz fuzz-build install package example bench clean

all: build

deps:
	bash scripts/install-deps.sh

build: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release
	cmake --build $(BUILD) -j $(JOBS)

test: test-release test-sanitize test-install test-fuzz

test-release: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

# A second tree under AddressSanitizer and UndefinedBehaviorSanitizer, so that
# any out-of-bounds access or undefined behaviour fails the tests. The
# accuracy bench's large meshes are skipped there (Q5_SKIP_SLOW).
test-sanitize: deps
	cmake -S . -B $(SAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DQ5_SANITIZE=ON
	cmake --build $(SAN_BUILD) -j $(JOBS)
	cd $(SAN_BUILD) && Q5_SKIP_SLOW=1 ASAN_OPTIONS=detect_leaks=0 ctest --output-on-failure -j $(JOBS)

# The readers under libFuzzer (clang, AddressSanitizer, UndefinedBehavior-
# Sanitizer) in a tree of their own; see fuzz/run.sh.
fuzz-build: deps
	CXX=clang++ cmake -S . -B $(FUZZ_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQ5_FUZZ=ON
	cmake --build $(FUZZ_BUILD) --target fuzz_targets -j $(JOBS)

# Fuzzes every target for FUZZ_SECONDS and keeps the new inputs, minimised,
# in fuzz/corpus/<target>/.
fuzz: fuzz-build
	bash fuzz/run.sh long $(FUZZ_BUILD) $(FUZZ_SECONDS)

# A short run of every target on a scratch copy of its corpus: fails on any
# crash, sanitizer report, leak, timeout or memory excess.
test-fuzz: fuzz-build
	bash fuzz/run.sh short $(FUZZ_BUILD) $(FUZZ_SHORT)

# q5 and the companion tools (q5-import, q5-plot, q5-invert) under PREFIX.
install: build
	cmake --install $(BUILD) --prefix $(PREFIX)

# A Debian package of the same files, in $(BUILD).
package: build
	cd $(BUILD) && cpack -G DEB

# Both of the above, on a scratch prefix, then a check of what they made.
test-install: build
	rm -rf scratch/prefix
	$(MAKE) install PREFIX=$(CURDIR)/scratch/prefix
	$(MAKE) package
	bash scripts/check-install.sh $(CURDIR)/scratch/prefix $(BUILD)

example: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release
	cmake --build $(BUILD) --target q5 -j $(JOBS)
	bash scripts/run-example.sh $(BUILD)/q5

bench: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release
	cmake --build $(BUILD) --target q5_bench -j $(JOBS)
	cd $(BUILD) && ./q5_bench

clean:
	rm -rf $(BUILD) $(SAN_BUILD) $(FUZZ_BUILD)
