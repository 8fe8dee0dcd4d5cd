# AVRecord: `make test` builds every preset (camera, test, release,
# sanitizer) and runs their tests, installing what it needs first.
.PHONY: test deps build demo reliability camera package

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

# The PC card tool as a Debian package, dist/avrecord-card_<version>_<arch>.deb,
# from the native release build.
package: deps
	cmake --preset release
	cmake --build --preset release -j$$(nproc) --target avrecord-card avrecord-card-docs
	rm -rf build-release/package
	cpack --config build-release/CPackConfig.cmake -B build-release/package
	mkdir -p dist && rm -f dist/avrecord-card_*.deb && cp build-release/package/avrecord-card_*.deb dist/
