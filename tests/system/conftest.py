"""Servers for the tests: each is stopped and checked for sanitizer reports when its test ends."""
import pytest

import harness
from storage_provider import Provider


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
    """One server for all tests of a file, and its `provider`, which it knows as DEST."""
    pool = harness.Servers(tmp_path_factory.mktemp("lasting"))
    with Provider("DEST") as provider:
        server = pool(peers=provider.map_line)
        server.provider = provider
        yield server
        pool.close()


@pytest.fixture
def later_server(servers, tmp_path):
    """A server and the file that sets its clock forward."""
    clock = tmp_path / "clock"
    server = harness.Server(tmp_path / "later")
    server.environment |= {"LD_PRELOAD": str(harness.preload("later_clock.c", tmp_path)),
                           "LATER_CLOCK": str(clock)}
    server.environment["ASAN_OPTIONS"] += ":verify_asan_link_order=0"
    servers.started.append(server)
    return server.start(), clock
