# `make run` and `make test` are all a newcomer needs; both install and build what is missing.
PYTHON := /usr/bin/python3
MESON := /usr/bin/meson
VENV := .venv
SITE_PACKAGES := $(CURDIR)/$(VENV)/lib/python3.11/site-packages
INSTALL_HERE := -Dpython.platlibdir=$(SITE_PACKAGES) -Dpython.purelibdir=$(SITE_PACKAGES)
PLAY := $(VENV)/bin/python -P -m quillet --repository . --config examples/config.toml \
	--database build/example.db
CPP = $(shell git ls-files '*.cpp' '*.hpp')

# A build for `make check` is installed within itself, and loaded with its sanitizer's runtime.
SETUP_CHECKED = $(MESON) setup -Dbuildtype=debugoptimized -Dpython.platlibdir=$(CURDIR)/$@/site \
	-Dpython.purelibdir=$(CURDIR)/$@/site
INSTALL_CHECKED = ninja --quiet -C build/$(1) && $(MESON) install -C build/$(1) --only-changed --quiet
CHECKED = PYTHONPATH=build/$(1)/site PYTHONMALLOC=malloc ASAN_OPTIONS=detect_leaks=0 \
	UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 TSAN_OPTIONS=halt_on_error=1 \
	LD_PRELOAD="$$(g++ -print-file-name=lib$(2).so) $$(g++ -print-file-name=libstdc++.so)"

NO_ENDING = --deselect tests/test_summary.py::test_the_interpreter_ends_amid_calls

export PYTHONDONTWRITEBYTECODE := 1

.PHONY: build run test check lint bench clean packages

build: build/release
	ninja --quiet -C build/release
	$(MESON) install -C build/release --only-changed --quiet

run: build
	@rm -f build/example.db*
	@$(PLAY) --text examples/first_run.jsonl
	@echo
	@$(PLAY) --text examples/second_run.jsonl
	@echo
	@$(PLAY) --text examples/threads.jsonl

test: build build/sanitized
	$(MESON) test -C build/release --print-errorlogs
	$(MESON) test -C build/sanitized --print-errorlogs
	$(VENV)/bin/python -m pytest

# The module's tests again, each time against a build of the module of its own. The sanitizers lose
# track of the stack of a thread that is unwound from outside, as the interpreter's end does it.
check: build build/sanitized build/threads build/debug
	$(call INSTALL_CHECKED,sanitized)
	$(call CHECKED,sanitized,asan) $(VENV)/bin/python -m pytest $(NO_ENDING)
	$(call INSTALL_CHECKED,threads)
	$(call CHECKED,threads,tsan) $(VENV)/bin/python -m pytest -s tests/test_summary.py $(NO_ENDING)
	$(call INSTALL_CHECKED,debug)
	PYTHONPATH=build/debug/site /usr/bin/python3-dbg tests/leaks.py

lint: build/release
	clang-format --dry-run --Werror $(CPP)
	ninja --quiet -C build/release
	run-clang-tidy -quiet -p build/release 'src/.*\.cpp'

bench: build
	$(VENV)/bin/python bench/run.py $(if $(JSON),--json $(JSON))

clean:
	rm -rf build $(VENV)

packages:
	@tools/install-packages packages.txt

$(VENV): | packages
	$(PYTHON) -m venv --system-site-packages --without-pip $@

# The first build takes a while, and shows how far it is.
build/release: | $(VENV)
	$(MESON) setup $(INSTALL_HERE) $@
	ninja -C $@

build/sanitized: | packages
	$(SETUP_CHECKED) -Db_sanitize=address,undefined $@

build/threads: | packages
	$(SETUP_CHECKED) -Db_sanitize=thread $@

# Meson builds for the interpreter that runs it. Debian's headers for the debug interpreter lead to
# the other one's configuration, so what matters of it is said here.
build/debug: | packages
	/usr/bin/python3-dbg $(SETUP_CHECKED) -Dcpp_args=-DPy_DEBUG $@
