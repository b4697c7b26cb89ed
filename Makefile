# The front door. Every goal sets up what it needs; a second run starts in seconds.

PYTHON := .venv/bin/python
export TF_CPP_MIN_LOG_LEVEL ?= 2
# No demo needs device code; it stays in where a goal before brought its compiler.
demo demo-digits demo-numeric demo-detect demo-training: export BITFOLD_GPU ?= $(if $(wildcard .cuda/.stamp),ON,OFF)

.PHONY: help setup demo demo-digits demo-numeric demo-detect demo-training demo-rtl test test-long prove prove-floats test-browser docs test-docs check fuzz device-test bench bench-networks wheel release-check test-remedy format lint clean constraints

help: ## list the goals
	@grep -E '^[a-z-]+:.*##' $(MAKEFILE_LIST) | sed 's/:.*##/\t/' | expand -t 14

setup: ## virtual environment in .venv with the package built and installed
	@scripts/setup.sh build
	@scripts/install_package.sh
	@$(if $(filter setup,$(MAKECMDGOALS)),scripts/next_steps.sh)

demo: ## a network trained on Fashion-MNIST, studied and narrowed: tables and a report with pictures
	@scripts/setup.sh demo
	@scripts/install_package.sh
	@$(PYTHON) examples/fashion/run.py --output-dir build/demo

demo-digits: setup ## shifts and half precision on handwritten digits, layer by layer
	@$(PYTHON) examples/digits/run.py --output-dir build/demo-digits

demo-numeric: setup ## softmax, layer norm and activation units in a transformer: errors and curves
	@$(PYTHON) examples/numeric/run.py --output-dir build/demo-numeric

demo-detect: setup ## faces in a photograph, a cascade of networks in integers: boxes and agreement
	@$(PYTHON) examples/detect/run.py --output-dir build/demo-detect

demo-training: ## the network of `make demo` trained on, until no input can wrap 16, 14 and 12 bits
	@scripts/setup.sh demo
	@scripts/install_package.sh
	@$(PYTHON) examples/training/run.py --output-dir build/demo-training

demo-rtl: ## a multiply-accumulate unit in SystemVerilog against the C library, and one with a planted bug
	@BITFOLD_GPU=OFF scripts/setup.sh rtl
	@examples/rtl/run.sh

test: ## every test: C++, sanitizers, fuzz, Python, doctests, lint
	@scripts/setup.sh tests
	@scripts/install_package.sh
	@$(PYTHON) scripts/run_tests.py

test-long: ## a thousand random networks, studies of 50, 6000 random calls, 4000 defects in device code, the C library installed, RTL; NETWORKS=COUNT, FIRST=SEED
	@scripts/setup.sh tests
	@scripts/install_package.sh
	@BITFOLD_NETWORKS=$(or $(NETWORKS),1000) BITFOLD_FIRST_NETWORK=$(or $(FIRST),0) \
	    $(PYTHON) -m pytest -q tests/python/network/test_generated.py
	@BITFOLD_STUDIED_NETWORKS=50 $(PYTHON) -m pytest -q tests/python/studies/test_study.py -k random
	@BITFOLD_COUNTS_LONG=1 $(PYTHON) -m pytest -q tests/python/studies/test_counts.py
	@BITFOLD_RANDOM_CALLS=6000 $(PYTHON) -m pytest -q tests/robustness/test_random_calls.py
	@BITFOLD_DEVICE_TEXT_LONG=1 BITFOLD_DEFECTS=4000 $(PYTHON) -m pytest -q -s tests/ptx/test_shipped_text.py
	@BITFOLD_INSTALLED_LONG=1 $(PYTHON) -m pytest -q tests/python/test_installed_packages.py
	@BITFOLD_GPU=OFF scripts/setup.sh rtl
	@$(PYTHON) -m pytest -q tests/rtl

prove: ## every integer rule proved for all inputs by a solver: the table of docs/proofs.md
	@scripts/setup.sh tests
	@cmake --preset tests -Wno-dev >/dev/null
	@cmake --build --preset tests --target bitfold_rules
	@$(PYTHON) tests/proofs/prove.py

prove-floats: ## rules of floats tried at every input: three quarters of an hour on two cores; RULES="H1 S2", LONG=1 for the hours
	@scripts/setup.sh tests
	@cmake --preset tests -Wno-dev >/dev/null
	@cmake --build --preset tests --target bitfold_enumerate
	@build/tests/tests/proofs/enumerate/bitfold_enumerate $(foreach rule,$(RULES),--rule $(rule)) $(if $(LONG),--long)

test-browser: ## reports in a real browser: screens, light and dark, paper; pictures in build/browser
	@scripts/setup.sh browser
	@scripts/install_package.sh
	@$(PYTHON) -m pytest -q tests/browser/test_report.py

docs: ## these pages as a site in build/docs, with notebooks that run; warnings are errors
	@scripts/setup.sh docs
	@scripts/install_package.sh
	@$(PYTHON) -m sphinx -q -E -W --keep-going -b html -d build/docs/doctrees docs build/docs/html
	@echo "build/docs/html/index.html"

test-docs: docs ## the site in a real browser: links, widths, light and dark; pictures in build/browser
	@scripts/setup.sh browser
	@$(PYTHON) -m pytest -q tests/browser/test_site.py

check: ## the quick tests, for daily work: C++, Python, format
	@scripts/setup.sh tests
	@scripts/install_package.sh
	@$(PYTHON) scripts/run_tests.py --quick

fuzz: ## random calls of the ops under sanitizers, without end; FIRST=SEED where to begin
	@scripts/setup.sh tests
	@scripts/install_package.sh
	@$(PYTHON) tests/robustness/caller.py --forever $(if $(FIRST),--first $(FIRST))

device-test: ## the device kernels on this machine's GPU; needs a CUDA toolkit, nothing else
	@scripts/device_test.sh

bench: ## ratios to stock ops, plain loops and the mobile runtime: tables, JSON and a picture
	@scripts/setup.sh bench
	@scripts/install_package.sh
	@$(PYTHON) bench/run.py --output build/bench/bench.json
	@$(PYTHON) bench/plot.py build/bench/bench.json build/bench/layers.png
	@$(PYTHON) bench/growth.py
	@$(PYTHON) bench/networks.py --output build/bench/networks.json

bench-networks: setup ## the part of it on whole networks, their layers and threads; PARTS="networks ..."
	@$(PYTHON) bench/networks.py --output build/bench/networks.json $(if $(PARTS),--parts $(PARTS))

wheel: setup ## a wheel in dist/ for the TensorFlow of .venv and all systems that it runs on
	@$(PYTHON) scripts/build_wheel.py

release-check: ## sdist and wheel, built and tried in a fresh environment without compiler or checkout
	@scripts/setup.sh build
	@$(PYTHON) -m pytest -q --durations=5 tests/release/test_release.py

test-remedy: ## what the error beside another TensorFlow says to type; OTHER=VERSION
	@scripts/setup.sh build
	@BITFOLD_OTHER_TENSORFLOW=$(or $(OTHER),2.20.0) $(PYTHON) -m pytest -q --durations=5 tests/release/test_remedy.py

format: ## clang-format and ruff, in place
	@scripts/setup.sh tests
	git ls-files '*.h' '*.cc' '*.cu' '*.c' '*.inc' | xargs clang-format -i
	$(PYTHON) -m ruff format . && $(PYTHON) -m ruff check --fix .

lint: ## clang-format, ruff, and clang-tidy over the tests, too; checking only
	@scripts/setup.sh tests
	@cmake --preset tests -Wno-dev >/dev/null
	@$(PYTHON) scripts/lint.py --all

constraints: setup ## renew requirements/constraints.txt from .venv
	@scripts/setup.sh docs
	@(echo "# The versions that the project is built and tested with. Renew: make constraints"; \
	  $(PYTHON) -m pip freeze --exclude bitfold) > requirements/constraints.txt

clean: ## remove everything built, but not the virtual environment
	rm -rf build dist
