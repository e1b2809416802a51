# make run  - install what is missing, build, and record (a demo on a virtual display when there
#             is no desktop session; the tray application when there is one)
# make test - install, build, and run every test, also under AddressSanitizer/UBSan and
#             ThreadSanitizer
# make package - a .deb of a Release build, in $(BUILD_DIR)/package
.PHONY: all deps configure build build-run build-asan build-tsan run test install package format clean

BUILD_DIR ?= build
PREFIX ?= /usr/local
JOBS ?= $(shell nproc)

all: build

deps:
	@./scripts/install-deps

configure: deps
	@cmake -S . -B $(BUILD_DIR)/release -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DGB_WERROR=ON \
	  -DCMAKE_INSTALL_PREFIX=$(PREFIX) >/dev/null

build: configure
	@cmake --build $(BUILD_DIR)/release -j $(JOBS)

# Only what the program and its demo need: no tests, no benchmarks.
build-run: configure
	@cmake --build $(BUILD_DIR)/release -j $(JOBS) --target glimmerbox demo_scene

build-asan: deps
	@cmake -S . -B $(BUILD_DIR)/asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DGB_PLATFORM=OFF -DGB_WERROR=ON \
	  -DGB_SANITIZE=address >/dev/null
	@cmake --build $(BUILD_DIR)/asan -j $(JOBS)

build-tsan: deps
	@cmake -S . -B $(BUILD_DIR)/tsan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DGB_PLATFORM=OFF \
	  -DGB_WERROR=ON -DGB_SANITIZE=thread >/dev/null
	@cmake --build $(BUILD_DIR)/tsan -j $(JOBS)

run: build-run
	@./scripts/run

# The ten-minute audio/video sync test runs in the background while the sanitizer builds compile.
test: build
	@./scripts/test-all $(BUILD_DIR) "$(MAKE) --no-print-directory build-asan build-tsan"

install: build
	@cmake --install $(BUILD_DIR)/release --prefix $(PREFIX)

# A Release build of the program alone (no tests or benchmarks), packaged by CPack.
package: deps
	@cmake -S . -B $(BUILD_DIR)/package -G Ninja -DCMAKE_BUILD_TYPE=Release -DGB_WERROR=ON \
	  -DGB_TESTS=OFF -DCMAKE_INSTALL_PREFIX=/usr >/dev/null
	@cmake --build $(BUILD_DIR)/package -j $(JOBS)
	@cd $(BUILD_DIR)/package && cpack >cpack.log 2>&1 || { cat cpack.log; exit 1; }
	@sed -n 's/^CPack: - package: \(.*\) generated\.$$/Package: \1/p' $(BUILD_DIR)/package/cpack.log

format:
	@find src tests bench -name '*.cpp' -o -name '*.h' | xargs clang-format -i

clean:
	@rm -rf $(BUILD_DIR)
