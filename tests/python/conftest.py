"""The bundles the Python package's tests run over (given by the build as --bundle DOMAIN LIBRARY
SAMPLES CATALOGUE, once per catalogue), each type's encodings as the library made them, and
handles that must hold no allocation when their test ends."""

import os
import re

import pytest

import ovrin_sm


def pytest_addoption(parser):
    parser.addoption("--bundle", nargs=4, action="append", default=[],
                     metavar=("DOMAIN", "LIBRARY", "SAMPLES", "CATALOGUE"))
    parser.addoption("--tool", help="the ovrin-sm tool")
    parser.addoption("--source", help="the source tree")


class Bundle:
    def __init__(self, domain, path, samples, catalogue):
        self.domain, self.catalogue = domain, catalogue
        self.library = ovrin_sm.Library(path, domain)
        # (file name, type, tracked, bytes), in table order; every union member of every type
        self.samples = []
        names = sorted(os.listdir(samples))
        for t in self.library.types():
            for f in names:
                m = re.fullmatch(re.escape(t) + r"-(\d+)-([ut])", f)
                if m:
                    with open(os.path.join(samples, f), "rb") as s:
                        self.samples.append((f, t, m.group(2) == "t", s.read()))

    def untracked(self):
        return [(f, t, b) for f, t, tracked, b in self.samples if not tracked]

    def __repr__(self):
        return self.domain


def pytest_generate_tests(metafunc):
    if "bundle" in metafunc.fixturenames:
        given = metafunc.config.getoption("bundle")
        if not given:
            pytest.fail("no --bundle given: the build runs these tests with its libraries", pytrace=False)
        metafunc.parametrize("bundle", [g[0] for g in given], indirect=True)


_bundles = {}


@pytest.fixture
def bundle(request):
    domain = request.param
    if domain not in _bundles:
        given = {g[0]: g for g in request.config.getoption("bundle")}
        _bundles[domain] = Bundle(*given[domain])
    return _bundles[domain]


@pytest.fixture
def handle(bundle):
    """handle(tracking=..., variants=...): a handle over the test's bundle, checked to hold no
    allocation when the test ends, then closed."""
    made = []

    def make(**kw):
        h = ovrin_sm.Handle(library=bundle.library, **kw)
        made.append(h)
        return h

    yield make
    for h in made:
        assert h.live_allocations() == 0
        h.close()
