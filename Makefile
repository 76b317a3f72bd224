# One command per intent. Each does first whatever set-up is missing.
.DEFAULT_GOAL := help
.PHONY: help demo test real types fuzz leaks exits build devserver bench docs check format warnings tidy coverage ctime chaos model mutants sanitize torture wheel wheels test-wheel test-wheels wheel-sources systems pins clean
.NOTPARALLEL:

# Extra arguments: make test ARGS="-k login", make devserver ARGS="--port 8080"
ARGS ?=

help: ## this page
	@sed -n 's/^\([a-z-]*\):.*## \(.*\)/  make \1\t\2/p' Makefile | expand -t 20

demo: ## log a wallet in against the development server, and print each step
	@tools/setup demo
	@.venv/bin/python examples/demo.py $(ARGS)

test: build ## every test; with CI=true also the second compiler
	@tools/test $(ARGS)

fuzz: build ## a minute of libFuzzer for every parser (10 min; ARGS="--seconds 3600" before a release)
	@tools/fuzz $(ARGS)

leaks: build ## every test again and again in one process, which may not grow (about 45 min)
	@tools/leaks $(ARGS)

exits: build ## every way to end a program or to fork it, 100 times each (about 40 min)
	@tools/exits $(ARGS)

build: ## set up what is missing, build, install into .venv
	@tools/setup

devserver: build ## run the development server
	@.venv/bin/python -m devserver $(ARGS)

bench: wheel ## measure it beside its peers, and its wheel, into docs/benchmarks (10 minutes after the wheel's)
	@tools/bench $(ARGS)

docs: build ## build the documentation into build/docs; ARGS=--browser also looks at it in Chromium (1 min)
	@tools/docs $(ARGS)

check: build ## formatters, linters, types, house rules, git diff; changes nothing (1 min; 15 when every source is new to clang-tidy)
	@tools/check $(ARGS)

real: build ## log in through real servers and proxies: nginx, HAProxy, Squid, Tinyproxy, gunicorn, ... (20 s)
	@tools/real $(ARGS)

types: build ## mypy, pyright and stubtest (about 30 s)
	@tools/types

format: build ## format the sources in place
	@tools/format

warnings: build ## compile with g++ and clang, warnings being errors
	@tools/warnings

tidy: build ## clang-tidy over the C++ sources that changed since they last passed
	@tools/tidy $(ARGS)

coverage: build ## which lines and branches all tests reach, C++ and Python; 98 % of lines at least (about 8 min)
	@tools/coverage $(ARGS)

model: build ## search a model of the manager's threads exhaustively, and its mutants (15 min; 35 on a busy machine)
	@tools/model

mutants: build ## plant 400 faults one at a time: the tests have to find each (about 10 min)
	@tools/mutants $(ARGS)

ctime: build ## whether any branch or address depends on key bytes (valgrind; about 30 s)
	@tools/ctime

chaos: build ## 10,000 logins and renewals with faults, 1,000 managers for 1,000 simulated days, a keeper for 100 (15 min; 55 on a busy machine)
	@tools/chaos $(ARGS)

sanitize: build ## every test under ASan, UBSan and TSan (about 30 min; ARGS="thread tests/contract" about 4 min)
	@tools/sanitize $(ARGS)

torture: build ## fail every allocation and library call in turn (about 7 min); ARGS="--run ..." repeats one
	@tools/torture $(ARGS)

wheel: build ## dist/: a wheel that needs nothing but the C library, and the source archive (10 min; 1 min when it built before)
	@tools/wheel

wheels: build ## dist/: one for each CPython (3.13, 3.14, 3.15) on x86-64 (glibc, musl) and aarch64, and the development server's (15 min)
	@tools/wheel --all
	@tools/devserver-wheel

test-wheel: wheel ## install that wheel into fresh environments, and run the tests against it (6 min)
	@tools/test-wheel $(ARGS)

test-wheels: build ## try the wheels of dist/ in Debian 11, 12, 13, sid, on an emulated aarch64 and with musl, in systems that it makes first (as root; 1 h)
	@tools/test-wheels $(ARGS)

systems: build ## make demo and make test in Debian 12, 13, sid and an emulated aarch64, which it makes first (as root; hours)
	@tools/systems $(ARGS)

wheel-sources: build ## pin the newest OpenSSL, libcurl, libsecp256k1 and Python headers that Debian has for wheels
	@.venv/bin/python -m tools.wheels.renew

pins: ## renew the pinned Python packages
	@tools/pins

clean: ## remove everything that these commands made
	@rm -rf .venv build dist .pytest_cache .ruff_cache .mypy_cache .hypothesis
