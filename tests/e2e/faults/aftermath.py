"""What is asked of a server that has been through something."""

from stores import random_bytes
from waiting import wait_for


def works(client, bucket, stored):
    """Uploads of both kinds, a download and a listing on a logged-in control connection."""
    for name, size in (("announced", 1000), ("unannounced", None)):
        content = random_bytes(1000)
        assert client.store(f"/{bucket}/after/{name}", content, allocate=size).code == 226
        assert stored(bucket, f"after/{name}") == content
        assert client.retrieve(f"/{bucket}/after/{name}") == content
    assert sorted(client.listing("NLST", f"/{bucket}/after")) == ["announced", "unannounced"]


def settled(gateway, threads, store_sockets, files=None):
    """Waits until nothing of the clients' is left and the rest is as little as it was."""
    gateway.wait_idle()
    wait_for(lambda: gateway.threads() <= threads, f"{gateway.threads()} threads are {threads}")
    wait_for(lambda: gateway.store_sockets() <= store_sockets, f"{store_sockets} connections to the store are left")
    if files is not None:
        wait_for(lambda: gateway.open_files() <= files, f"{gateway.open_files()} open files are {files}")
