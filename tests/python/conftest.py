"""The bundles the tests run over, given by the build as --bundle DOMAIN LIBRARY SAMPLES CATALOGUE
(once per catalogue; SAMPLES holds TYPE-ARM-u and -t, the encodings wire_samples.cpp wrote), and
handles that must hold no allocation when their test ends."""

import os

import pytest

import ovrin_sm


def pytest_addoption(parser):
    parser.addoption("--bundle", nargs=4, action="append", default=[])
    parser.addoption("--tool", help="the ovrin-sm tool")
    parser.addoption("--source", help="the source tree")


class Bundle:
    def __init__(self, domain, path, samples, catalogue):
        self.domain, self.catalogue = domain, catalogue
        self.library = ovrin_sm.Library(path, domain)
        # (file, type, tracked, bytes) for each type and union member
        self.samples = []
        for f in sorted(os.listdir(samples)):
            with open(os.path.join(samples, f), "rb") as s:
                self.samples.append((f, f.rsplit("-", 2)[0], f.endswith("-t"), s.read()))

    def untracked(self):
        return [(f, t, b) for f, t, tracked, b in self.samples if not tracked]


_bundles = {}


def pytest_generate_tests(metafunc):
    if "bundle" in metafunc.fixturenames:
        for given in metafunc.config.getoption("bundle"):
            _bundles.setdefault(given[0], given)
        if not _bundles:
            pytest.fail("no --bundle given: the build runs these tests with its libraries", pytrace=False)
        metafunc.parametrize("bundle", sorted(_bundles), indirect=True)


@pytest.fixture
def bundle(request):
    if isinstance(_bundles[request.param], list):
        _bundles[request.param] = Bundle(*_bundles[request.param])
    return _bundles[request.param]


@pytest.fixture
def handle(bundle):
    """handle(tracking=..., variants=...): a handle over the test's bundle, checked to hold no
    allocation when the test ends, then closed."""
    made = []

    def make(**kw):
        made.append(ovrin_sm.Handle(library=bundle.library, **kw))
        return made[-1]

    yield make
    for h in made:
        assert h.live_allocations() == 0
        h.close()
