"""Faults: what the store, the client, the disk or the administrator does to the server, and what must hold afterwards.

Every test here ends with the same questions (see `sound`): do the sessions that are left still work, does a new one, is
anything left open, half-made or leaked? The server is one that wastes no time between its tries.
"""

import pytest

from aftermath import settled, works
from gateway import shared_server

# Threads and connections to the store may stay for a while for those who come next; more than this is a leak.
SPARE_THREADS = 16
SPARE_CONNECTIONS = 16


@pytest.fixture(scope="session")
def server(store, binaries):
    # What is sent because the store did not answer in time cannot be sent again: that is no matter of this machine's speed.
    quick = {"ZORVAN_S3_RETRY_PAUSE_MS": "1", "ZORVAN_S3_EXPECT_TIMEOUT_MS": "5000"}
    with shared_server(binaries, store, extra_options={"retry_delay": 1}, environment=quick) as gateway:
        yield gateway


@pytest.fixture
def faults(store):
    """Adds a rule for the store to follow; all are gone after the test. count: how often, 0 = always."""

    def add(action, count=0, **match):
        store.add_fault({**match, "count": count}, action)

    store.clear_faults()
    yield add
    store.clear_faults()


@pytest.fixture
def connect(connect):
    """As for the other tests; remembers its clients for `sound`."""

    def make(host=None):
        make.clients.append(connect(host))
        return make.clients[-1]

    make.clients = []
    return make


@pytest.fixture(scope="session")
def beginning(server):
    """What the idle server has open."""
    server.wait_idle()
    return {"threads": server.threads(), "files": server.open_files()}


@pytest.fixture(autouse=True)
def sound(server, store, connect, bucket, s3, stored, beginning):
    """After each test: the sessions that the test has left, and a new one, work; nothing is left behind."""
    yield
    if hasattr(store, "clear_faults"):
        store.clear_faults()
    assert server.process.poll() is None, f"the server died:\n{server.log_text()[-4000:]}"
    for client in connect.clients:
        if client.socket.fileno() >= 0:
            assert client.command("NOOP").code == 200
            if client.command("PWD").code == 257:
                client.expect(200, "TYPE I")
                works(client, bucket, stored)
            client.quit()
    with server.session() as client:
        works(client, bucket, stored)
        client.quit()
    settled(server, beginning["threads"] + SPARE_THREADS, SPARE_CONNECTIONS, beginning["files"])
    assert "Uploads" not in s3.list_multipart_uploads(Bucket=bucket)
