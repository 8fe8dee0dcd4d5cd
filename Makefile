# AVRecord: `make test` runs every test (native, sanitizer, 32-bit ARM under
# qemu-arm), installing what it needs first.
.PHONY: test deps build demo reliability

deps:
	@scripts/install-deps

build: deps
	cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
	cmake --build build -j$$(nproc)

test: deps
	@scripts/run-tests

# Fault and crash sweeps at every point, fuzzing (FUZZ_SECONDS per target,
# default 600) and the process-level loops; prints one summary table.
reliability: deps
	@scripts/reliability

demo:
	@scripts/install-deps
	@scripts/demo
