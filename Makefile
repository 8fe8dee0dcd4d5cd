# AVRecord: `make test` runs every test (native, sanitizer, 32-bit ARM under
# qemu-arm), installing what it needs first.
.PHONY: test deps build

deps:
	@scripts/install-deps

build: deps
	cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
	cmake --build build -j$$(nproc)

test: deps
	@scripts/run-tests
