"""Servers for the tests: each is stopped and checked for sanitizer reports when its test ends."""
import pytest

import harness


@pytest.fixture
def servers(tmp_path):
    """Starts servers: servers("-N", peers="...") gives a running harness.Server."""
    pool = harness.Servers(tmp_path)
    yield pool
    pool.close()


@pytest.fixture
def server(servers):
    return servers()


@pytest.fixture(scope="module")
def lasting_server(tmp_path_factory):
    """One server for all tests of a file."""
    pool = harness.Servers(tmp_path_factory.mktemp("lasting"))
    yield pool()
    pool.close()
