# The two entry points: `make test` and `make demo` (see README.md).
BUILD_DIR ?= build
BUILD_TYPE ?= RelWithDebInfo
WINESERVER ?= /usr/lib/wine/wineserver

.PHONY: all deps build test demo clean

all: build

deps:
	@./cmake/install-deps.sh

build: deps
	cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE)
	cmake --build $(BUILD_DIR) -j2

test: build
	cd $(BUILD_DIR) && ctest -j2 --output-on-failure; status=$$?; \
	WINEPREFIX=$(CURDIR)/$(BUILD_DIR)/wineprefix $(WINESERVER) -k 2>/dev/null; exit $$status

demo: build
	./cmake/demo.sh $(BUILD_DIR)
	WINEPREFIX=$(CURDIR)/$(BUILD_DIR)/wineprefix $(WINESERVER) -k 2>/dev/null || true

clean:
	rm -rf $(BUILD_DIR)
