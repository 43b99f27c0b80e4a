"""Servers for the tests: each is stopped and checked for sanitizer reports when its test ends."""
import pytest

import harness
from storage_provider import Provider


def pytest_terminal_summary(terminalreporter):
    terminalreporter.write_line(f"TARVO_TEST_SEED={harness.SEED}")


@pytest.fixture
def servers(tmp_path):
    """Starts servers: servers("-N", peers="...") gives a running harness.Server."""
    pool = harness.Servers(tmp_path)
    yield pool
    pool.close()


@pytest.fixture
def server(servers):
    return servers()


@pytest.fixture
def provider():
    with Provider("DEST") as running:
        yield running


@pytest.fixture(scope="module")
def lasting_server(tmp_path_factory):
    """One server for all tests of a file, and its `provider`."""
    pool = harness.Servers(tmp_path_factory.mktemp("lasting"))
    with Provider("DEST") as provider:
        server = pool(provider=provider)
        server.provider = provider
        yield server
        pool.close()
