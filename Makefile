# AVRecord: `make test` builds every preset (camera, test, release,
# sanitizer) and runs their tests, installing what it needs first.
.PHONY: test deps build demo reliability camera

deps:
	@scripts/install-deps

build: deps
	cmake --preset dev
	cmake --build --preset dev -j$$(nproc)

test: deps
	@scripts/run-tests

# Fault and crash sweeps at every point, fuzzing (FUZZ_SECONDS per target,
# default 600) and the process-level loops; prints one summary table.
reliability: deps
	@scripts/reliability

demo:
	@scripts/install-deps
	@scripts/demo

# The camera bundle: dist/avrecord-<version>-armhf.tar.gz (and its debug
# symbols beside it), from the static armhf preset.
camera: deps
	@scripts/package
