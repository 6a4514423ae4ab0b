# Two commands for a fresh machine: `make example` and `make test`.
# Both install what is missing (needs root or sudo), then build.

JOBS ?= 2
BUILD ?= build
SAN_BUILD ?= build-san
TSAN_BUILD ?= build-tsan
FUZZ_BUILD ?= build-fuzz
PREFIX ?= /usr/local
# Seconds per fuzz target: `make fuzz` (grows the corpus) and the short
# run of `make test`.
FUZZ_SECONDS ?= 180
FUZZ_SHORT ?= 30

.PHONY: all deps build test test-release test-sanitize test-tsan test-install test-fuzz fuzz fuzz-build install package example bench clean

all: build

deps:
	bash scripts/install-deps.sh

build: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release
	cmake --build $(BUILD) -j $(JOBS)

test: test-release test-sanitize test-tsan test-install test-fuzz

test-release: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

# A second tree under AddressSanitizer and UndefinedBehaviorSanitizer, so that
# any out-of-bounds access or undefined behaviour fails the tests. The
# accuracy bench's large meshes are skipped there (Q5_SKIP_SLOW).
test-sanitize: deps
	cmake -S . -B $(SAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DQ5_SANITIZE=ON
	cmake --build $(SAN_BUILD) -j $(JOBS)
	cd $(SAN_BUILD) && Q5_SKIP_SLOW=1 ASAN_OPTIONS=detect_leaks=0 ctest --output-on-failure -j $(JOBS)

# The thread team and the solutions on threads under ThreadSanitizer, with
# small end-to-end runs of q5 on three threads (MKL itself is not
# instrumented: its own memory is not watched).
TSAN_TESTS = ThreadCount|ThreadRange|ThreadTeam|SameDoubles|OnThreads|FailureOnThreads|ThreadsVariable
test-tsan: deps
	cmake -S . -B $(TSAN_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQ5_TSAN=ON
	cmake --build $(TSAN_BUILD) -j $(JOBS) --target q5 q5_failing_solver test_run test_forward test_inversion test_e2e
	cd $(TSAN_BUILD) && Q5_SKIP_SLOW=1 TSAN_OPTIONS="halt_on_error=1 exitcode=66" \
	  ctest --output-on-failure -j $(JOBS) -R '$(TSAN_TESTS)' -E 'OnThreads/(Cases/Recovery|InverseJob/Recovery|Accuracy|FieldData)'

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

# The stages of the forward and inverse jobs in process (q5_bench), then q5
# itself on 1 and 2 threads: speed-ups and peak memory of the forward job of
# the bench's two grids and of two field inversions, and the identity of
# every file on 2, 3 and all threads over these, the bundled examples and
# the field runs (scripts/thread_bench.py).
FIELD = examples/field
bench: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release
	cmake --build $(BUILD) --target q5 q5_bench -j $(JOBS)
	cd $(BUILD) && ./q5_bench
	bash scripts/run-example.sh $(BUILD)/q5 > /dev/null
	/usr/bin/python3 scripts/thread_bench.py $(BUILD)/q5 --work $(BUILD)/bench-runs/threads \
	  --speed survey=$(BUILD)/bench-runs/bench-survey large=$(BUILD)/bench-runs/bench-large \
	    bedrock=$(FIELD)/bedrock slagdump=$(FIELD)/slagdump \
	  --identity forward-example=examples/forward inverse-example=scratch/example-inverse \
	    slagdump-example=examples/slagdump \
	    slagdump-forward=examples/slagdump/forward xochimilco=$(FIELD)/xochimilco \
	    mulda-hillslope=$(FIELD)/mulda-hillslope crosshole=$(FIELD)/crosshole/run \
	    pole-dipole=$(FIELD)/pole-dipole/run

clean:
	rm -rf $(BUILD) $(SAN_BUILD) $(TSAN_BUILD) $(FUZZ_BUILD)
