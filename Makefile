# `make run` and `make test` are all a newcomer needs; both install and build what is missing.
# Targets are relative, and paths quoted: the checkout's own path may hold spaces.
PYTHON := /usr/bin/python3
MESON := /usr/bin/meson
VENV := .venv
SITE_PACKAGES := $(CURDIR)/$(VENV)/lib/python3.11/site-packages
INSTALL_HERE := -Dprogram=true -Ddevelopment=true -Dbindir="$(CURDIR)/$(VENV)/bin" \
	-Dpython.platlibdir="$(SITE_PACKAGES)" -Dpython.purelibdir="$(SITE_PACKAGES)"
REBUILD := ninja --quiet -C build/release >build/ninja.log || { cat build/ninja.log; exit 1; }
PLAY := QUILLET_EMBED_MODEL=build/example.model $(VENV)/bin/quillet play --repository . \
	--config examples/config.toml --database build/example.db

# A build for `make check` is installed within itself, and loaded with its sanitizer's runtime.
SETUP_CHECKED = $(MESON) setup -Dprogram=true -Ddevelopment=true -Dbuildtype=debugoptimized \
	-Dbindir="$(CURDIR)/$(@D)/bin" -Dpython.platlibdir="$(CURDIR)/$(@D)/site" \
	-Dpython.purelibdir="$(CURDIR)/$(@D)/site"
INSTALL_CHECKED = ninja --quiet -C build/$(1) && $(MESON) install -C build/$(1) --only-changed --quiet
CHECKED = PYTHONPATH=build/$(1)/site PYTHONMALLOC=malloc ASAN_OPTIONS=detect_leaks=0 \
	UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 TSAN_OPTIONS=halt_on_error=1 \
	LD_PRELOAD="$$(g++ -print-file-name=lib$(2).so) $$(g++ -print-file-name=libstdc++.so)"

CHECKS := sanitized threads debug
NO_ENDING = --deselect tests/test_summary.py::test_the_interpreter_ends_amid_calls

export PYTHONDONTWRITEBYTECODE := 1

.DEFAULT_GOAL := build
.PHONY: help build run test check interop lint lint-files bench clean packages

help: ## show this list
	@sed -n 's/^\([a-z]*\):.*## /  make \1\t/p' $(MAKEFILE_LIST) | expand -t 16

build: build/release/build.ninja $(VENV)/bin/quillet ## build the module, and install it with the stand-in into .venv
	@$(REBUILD)
	@$(MESON) install -C build/release --no-rebuild --only-changed --quiet

run: build ## let an agent call tools, one of which breaks and comes back, over MCP and a SQLite file
	@rm -f build/example.*
	@$(PLAY) examples/first_run.jsonl
	@echo
	echo "as good as a model" >build/example.model
	@echo
	@$(PLAY) examples/second_run.jsonl

test: build build/sanitized/build.ninja ## test the core, plainly and under sanitizers, and the module
	$(MESON) test -C build/release --print-errorlogs
	$(MESON) test -C build/sanitized --print-errorlogs
	$(VENV)/bin/python -m pytest

# The module's tests again, each time against a build of the module of its own. The sanitizers lose
# track of the stack of a thread that is unwound from outside, as the interpreter's end does it.
check: build $(CHECKS:%=build/%/build.ninja) ## test under sanitizers, without memory, with kills, on other versions, and count references
	$(call INSTALL_CHECKED,sanitized)
	$(call CHECKED,sanitized,asan) $(VENV)/bin/python -m pytest $(NO_ENDING)
	$(call INSTALL_CHECKED,threads)
	$(call CHECKED,threads,tsan) $(VENV)/bin/python -m pytest -s tests/test_summary.py $(NO_ENDING)
	$(call INSTALL_CHECKED,debug)
	PYTHONPATH=build/debug/site:bench /usr/bin/python3-dbg tests/leaks.py
	ninja --quiet -C build/release tests/libfailing_new.so
	LD_PRELOAD=build/release/tests/libfailing_new.so $(VENV)/bin/python tests/memory.py
	$(VENV)/bin/python tests/kills.py
	tools/check-versions

interop: build build/interop/node_modules ## try daemon and guard with the protocol's official clients and servers, from npm
	@cp interop/*.mjs build/interop
	@node build/interop/clients.mjs "$(CURDIR)/$(VENV)/bin/quillet"
	@node build/interop/guard.mjs "$(CURDIR)/$(VENV)/bin/quillet"

lint: build/release/build.ninja ## check the form of what changed since it was last in order
	@$(REBUILD)
	@$(MAKE) --no-print-directory -k -O -j2 lint-files

bench: build ## measure beside a plain class; JSON=FILE and PLOT=FILE.svg keep the figures
	$(VENV)/bin/python bench/run.py $(if $(JSON),--json "$(JSON)") $(if $(PLOT),--plot "$(PLOT)")

clean: ## remove what was built
	rm -rf build $(VENV)

packages: ## install what is missing from Debian's packages
	@tools/install-packages packages.txt

$(VENV)/bin/activate: | packages
	$(PYTHON) -m venv --system-site-packages --without-pip $(VENV)

$(VENV)/bin/quillet: python/quillet.sh | $(VENV)/bin/activate
	@install -m 755 $< $@

# A set-up that was interrupted left no build.ninja, and is done again from the start. The first build
# takes a while, and shows how far it is.
build/release/build.ninja: | $(VENV)/bin/activate
	rm -rf $(@D)
	$(MESON) setup $(INSTALL_HERE) $(@D)
	ninja -C $(@D)

build/sanitized/build.ninja: | packages
	rm -rf $(@D)
	$(SETUP_CHECKED) -Db_sanitize=address,undefined $(@D)

build/threads/build.ninja: | packages
	rm -rf $(@D)
	$(SETUP_CHECKED) -Db_sanitize=thread $(@D)

# Meson builds for the interpreter that runs it. Debian's headers for the debug interpreter lead to
# the other one's configuration, so what matters of it is said here.
build/debug/build.ninja: | packages
	rm -rf $(@D)
	/usr/bin/python3-dbg $(SETUP_CHECKED) -Dcpp_args=-DPy_DEBUG $(@D)

build/interop/node_modules: interop/package.json
	@node --version >/dev/null && npm --version >/dev/null || { echo "make interop needs node 18 or later, and npm"; exit 1; }
	@mkdir -p $(@D) && cp $< $(@D)
	npm install --prefix $(@D) --no-package-lock --no-audit --no-fund --silent
	@touch $@

# A stamp under build/lint/ is as old as the last time that what it stands for was in order. Where
# one stands for many files, those that are newer are checked, or all when the rules are newer.
files = $(wildcard $(shell git ls-files --cached --others --exclude-standard $(1)))
PYTHON_FILES = $(call files,'*.py' '*.pyi')
CPP_FILES = $(call files,'*.cpp' '*.hpp')
TYPED_FILES = $(filter python/% examples/%,$(PYTHON_FILES))
SOURCES = $(filter src/%.cpp,$(CPP_FILES))
newer = $(filter $(1),$(if $(filter-out $(1),$?),$^,$?))

lint-files: build/lint/python build/lint/types build/lint/format $(SOURCES:%=build/lint/%.tidy)

build/lint/python: $(PYTHON_FILES) pyproject.toml .flake8
	@black --quiet --check --diff $(call newer,%.py %.pyi)
	@flake8 $(call newer,%.py)
	@mkdir -p $(@D) && touch $@

build/lint/types: $(TYPED_FILES) pyproject.toml
	@mypy --strict --no-error-summary --cache-dir build/lint/mypy $(TYPED_FILES)
	@touch $@

build/lint/format: $(CPP_FILES) .clang-format
	@clang-format --dry-run --Werror $(call newer,%.cpp %.hpp)
	@mkdir -p $(@D) && touch $@

# The build makes an object again when its source changes, or any header that this includes.
.SECONDEXPANSION:
build/lint/%.tidy: % .clang-tidy $$(wildcard build/release/*.p/$$(subst /,_,$$*).o)
	@mkdir -p $(@D)
	@clang-tidy --quiet -p build/release $< 2>$@.log || { cat $@.log; exit 1; }
	@touch $@
