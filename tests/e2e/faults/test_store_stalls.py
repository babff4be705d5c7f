"""A store that stops in the middle and neither goes on nor hangs up: the server gives up at its limit, and says so."""

import pytest

from gateway import shared_server
from stores import random_bytes

pytestmark = pytest.mark.devstore_only(reason="the faults are scripted in the dev store")

SMALL, LARGE = 1000, 3 << 20


@pytest.fixture(scope="module")
def server(store, binaries):
    """Gives up after 4 seconds without a byte, at the first time: longer than a busy machine keeps anybody waiting."""
    limits = {"ZORVAN_S3_STALL_SECONDS": "4", "ZORVAN_S3_SLOW_STALL_SECONDS": "4", "ZORVAN_S3_DOWNLOAD_RESUMES": "0",
              "ZORVAN_S3_UPLOAD_RESENDS": "0", "ZORVAN_S3_RETRY_PAUSE_MS": "1"}
    with shared_server(binaries, store, extra_options={"max_retries": 0}, environment=limits) as gateway:
        yield gateway


@pytest.fixture(scope="module")
def beginning(server):
    server.wait_idle()
    return {"threads": server.threads(), "files": server.open_files()}


@pytest.mark.parametrize("action", [{"stall_before_reply": True}, {"stall_reply_after": 30}], ids=str)
def test_login(connect, server, faults, action):
    faults(action, path="^/admin/user")
    reply = connect().login("alice", server.passwords["alice"])
    assert reply.code == 530 and 'No access key for ceph user "alice"' in reply.text


@pytest.mark.parametrize("action", [{"stall_before_reply": True}, {"stall_reply_after": 30}], ids=str)
def test_listing(ftp, bucket, s3, faults, action):
    s3.put_object(Bucket=bucket, Key="file", Body=b"x")
    faults(action, method="GET", path=f"^/{bucket}/?$")
    replies, content = ftp.fetch(f"NLST /{bucket}")
    assert content is None and replies[0].code == 550, replies


@pytest.mark.parametrize("action", [{"stall_before_reply": True}, {"stall_reply_after": 0}], ids=str)
def test_download(ftp, bucket, s3, faults, action):
    content = random_bytes(LARGE)
    s3.put_object(Bucket=bucket, Key="file", Body=content)
    faults(action, method="GET", path="/file$")
    replies, received = ftp.fetch(f"RETR /{bucket}/file")
    assert replies[-1].code in (426, 451), replies
    assert content.startswith(received or b"") and received != content


def test_download_goes_on_where_it_stalled(ftp, bucket, s3, faults):
    """A try that brought something is followed by another one."""
    content = random_bytes(LARGE)
    s3.put_object(Bucket=bucket, Key="file", Body=content)
    faults({"stall_reply_after": LARGE - 1000}, method="GET", path="/file$")
    assert ftp.retrieve(f"/{bucket}/file") == content


@pytest.mark.parametrize("announced, size", [(True, SMALL), (True, LARGE), (False, LARGE)])
@pytest.mark.parametrize("action", [{"stall_request_after": 500}, {"stall_before_reply": True}], ids=str)
def test_upload(ftp, bucket, s3, stored, faults, action, announced, size):
    s3.put_object(Bucket=bucket, Key="file", Body=b"old")
    faults(action, method="PUT", path="/file$")
    content = random_bytes(size)
    reply = ftp.store(f"/{bucket}/file", content, allocate=size if announced else None)
    assert reply.code == 451, reply.lines
    assert stored(bucket, "file") == (content if "stall_before_reply" in action else b"old")


def test_client_that_stalls_is_not_the_stores_fault(login, bucket, s3, faults):
    """For longer than the limit no byte moves, because the client takes none: that is no error of the store."""
    content = random_bytes(24 << 20)
    s3.put_object(Bucket=bucket, Key="big", Body=content)
    s3.put_object(Bucket=bucket, Key="clock", Body=b"x")
    slow, clock = login(), login()
    data = slow.open_data(receive_buffer=65536)
    slow.expect(150, f"RETR /{bucket}/big")
    faults({"stall_before_reply": True}, method="GET", path="/clock$")
    for _ in range(2):  # each takes as long as the limit is
        assert clock.fetch(f"RETR /{bucket}/clock")[0][0].code == 451
    assert slow.read_all(data) == content
    assert slow.read_reply().code == 226
