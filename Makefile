# `make run` and `make test` are all a newcomer needs; both install and build what is missing.
PYTHON := /usr/bin/python3
MESON := /usr/bin/meson
VENV := .venv
SITE_PACKAGES := $(CURDIR)/$(VENV)/lib/python3.11/site-packages
INSTALL_HERE := -Dpython.platlibdir=$(SITE_PACKAGES) -Dpython.purelibdir=$(SITE_PACKAGES)
PLAY := $(VENV)/bin/python -m quillet --repository . --config examples/config.toml \
	--database build/example.db
CPP = $(shell git ls-files '*.cpp' '*.hpp')

export PYTHONDONTWRITEBYTECODE := 1

.PHONY: build run test lint bench clean packages

build: build/release
	ninja --quiet -C build/release
	$(MESON) install -C build/release --only-changed --quiet

run: build
	rm -f build/example.db*
	$(PLAY) examples/first_run.jsonl
	@echo "--- a second start, on the same database ---"
	$(PLAY) examples/second_run.jsonl
	@echo "--- threads that pile up ---"
	$(PLAY) examples/threads.jsonl

test: build build/sanitized
	$(MESON) test -C build/release --print-errorlogs
	$(MESON) test -C build/sanitized --print-errorlogs
	$(VENV)/bin/python -m pytest

lint: build/release
	clang-format --dry-run --Werror $(CPP)
	ninja --quiet -C build/release
	run-clang-tidy -quiet -p build/release 'src/.*\.cpp'

bench: build
	$(VENV)/bin/python bench/run.py

clean:
	rm -rf build $(VENV)

packages:
	@tools/install-packages packages.txt

$(VENV): | packages
	$(PYTHON) -m venv --system-site-packages --without-pip $@

build/release: | $(VENV)
	$(MESON) setup $(INSTALL_HERE) $@

build/sanitized: | packages
	$(MESON) setup -Dbuildtype=debugoptimized -Db_sanitize=address,undefined $@
