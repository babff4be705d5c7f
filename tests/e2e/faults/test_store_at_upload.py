"""The store fails while a file is uploaded: 226 means that the new object is there, anything else that the old one is."""

import pytest

from refusals import all_refusals, asked
from stores import random_bytes

pytestmark = pytest.mark.devstore_only(reason="the faults are scripted in the dev store")

SMALL, LARGE = 1000, 3 << 20  # in the S3 client's own buffer, and straight through
KINDS = [pytest.param(True, SMALL, id="announced-small"), pytest.param(True, LARGE, id="announced-large"),
         pytest.param(False, SMALL, id="spooled-in-memory"), pytest.param(False, LARGE, id="spooled-in-a-file")]
kinds = pytest.mark.parametrize("announced, size", KINDS)


@pytest.fixture
def upload(ftp, bucket, s3, stored):
    """Uploads over an object that is there; gives (reply, content). What is stored fits the reply."""

    s3.put_object(Bucket=bucket, Key="file", Body=b"old")

    def run(announced, size, lost_answers=False):
        content = random_bytes(size)
        reply = ftp.store(f"/{bucket}/file", content, allocate=size if announced else None)
        if reply.code == 226:
            assert stored(bucket, "file") == content
        else:
            assert 400 <= reply.code < 600, reply.lines
            assert stored(bucket, "file") in ([b"old", content] if lost_answers else [b"old"])
        return reply, content

    return run


@kinds
@all_refusals(["xml"])
def test_refusal(upload, store, faults, announced, size, refusal):
    faults(refusal.action, method="PUT", path="/file$")
    store.forget_requests()
    reply, _ = upload(announced, size)
    refusal.check(reply, 451)
    # What the client library still holds it sends again by itself; of the rest not a byte was taken.
    tries = (4 if size == SMALL else 2) if refusal.retried else 1
    assert asked(store, "PUT", "/file") == tries


@all_refusals(["json", "html", "empty"])
def test_refusal_in_other_words(upload, faults, refusal):
    faults(refusal.action, method="PUT", path="/file$")
    reply, _ = upload(True, LARGE)
    refusal.check(reply, 451)


@kinds
@pytest.mark.parametrize("status", [400, 403, 500, 503, 507])
def test_refusal_after_the_whole_body(upload, store, faults, announced, size, status):
    """The bytes are gone, so they cannot be sent again unless the S3 client has kept them."""
    faults({"status": status, "read_body": True}, method="PUT", path="/file$")
    store.forget_requests()
    reply, _ = upload(announced, size)
    assert reply.code != 226
    assert asked(store, "PUT", "/file") == (4 if size == SMALL and status in (500, 503) else 1)


@kinds
@pytest.mark.parametrize("status", [500, 502, 503, 504])
def test_one_refusal_is_retried(upload, faults, announced, size, status):
    faults({"status": status}, count=1, method="PUT", path="/file$")
    assert upload(announced, size)[0].code == 226


@kinds
@pytest.mark.parametrize("reset", [False, True], ids=["FIN", "RST"])
@pytest.mark.parametrize("cut", [0, 1, 500, 999, (1 << 20) + 1, LARGE - 1])
def test_cut_request(upload, faults, announced, size, reset, cut):
    if cut >= size:
        pytest.skip("the body is shorter")
    faults({"cut_request_after": cut, "reset": reset}, method="PUT", path="/file$")
    assert upload(announced, size)[0].code != 226


@kinds
@pytest.mark.parametrize("reset", [False, True], ids=["FIN", "RST"])
@pytest.mark.parametrize("cut", [0, 500])
def test_one_cut_request(upload, faults, announced, size, reset, cut):
    faults({"cut_request_after": cut, "reset": reset}, count=1, method="PUT", path="/file$")
    reply, _ = upload(announced, size)
    if size == SMALL:
        assert reply.code == 226, "the S3 client has the whole body and can send it again"


@kinds
@pytest.mark.parametrize("reset", [False, True], ids=["FIN", "RST"])
@pytest.mark.parametrize("count", [1, 0])
def test_lost_answer(upload, faults, announced, size, reset, count):
    """The store has the object but could not say so."""
    faults({"cut_before_reply": True, "reset": reset}, count=count, method="PUT", path="/file$")
    upload(announced, size, lost_answers=True)


@kinds
@pytest.mark.parametrize("action", [{"etag": "wrong"}, {"etag": "missing"}, {"withhold_continue": True}, {"delay_ms": 300},
                                    {"overlong": 100}, {"headers": {"Content-Length": "0"}}], ids=str)
def test_what_does_not_matter(upload, faults, announced, size, action):
    faults(action, method="PUT", path="/file$")
    assert upload(announced, size)[0].code == 226


@kinds
@pytest.mark.parametrize("action", [
    {"status": 200, "read_body": True, "body": "<Error><Code>InternalError</Code><Message>Said by the store</Message></Error>"},
    {"redirect": "http://127.0.0.1:1/file"}, {"redirect": "http://127.0.0.1:1/file", "status": 301},
    {"status": 301, "body": "<Error><Code>PermanentRedirect</Code></Error>", "headers": {"x-amz-bucket-region": "eu-west-1"}}],
    ids=str)
def test_not_stored_whatever_the_status_says(upload, faults, announced, size, action):
    faults(action, method="PUT", path="/file$")
    assert upload(announced, size)[0].code != 226


@kinds
def test_redirect_inside_the_store(upload, bucket, store, faults, announced, size):
    faults({"redirect": f"{store.endpoint}/{bucket}/file"}, count=1, method="PUT", path="/file$")
    assert upload(announced, size)[0].code == 226


@kinds
def test_redirect_in_a_circle(upload, bucket, store, faults, announced, size):
    faults({"redirect": f"{store.endpoint}/{bucket}/file"}, method="PUT", path="/file$")
    store.forget_requests()
    assert upload(announced, size)[0].code != 226
    assert asked(store, "PUT", "/file") < 20


@kinds
@pytest.mark.parametrize("seconds", [3600, -3600])
def test_clocks_apart(ftp, bucket, s3, stored, store, announced, size, seconds):
    s3.put_object(Bucket=bucket, Key="file", Body=b"old")
    store.skew(seconds)
    try:
        reply = ftp.store(f"/{bucket}/file", random_bytes(size), allocate=size if announced else None)
        assert 400 <= reply.code < 600, reply.lines
    finally:
        store.skew(0)
    assert stored(bucket, "file") == b"old"


@pytest.mark.parametrize("refusal", [{"status": 503}, {"status": 403}, {"cut_before_reply": True}], ids=str)
def test_bucket_cannot_be_checked_before_the_spool_takes_disk_space(upload, bucket, faults, refusal):
    """The look at the bucket comes early so that a refusal does; the upload ends there."""
    faults(refusal, path=f"^/{bucket}/?$")
    assert upload(False, LARGE)[0].code != 226


@kinds
def test_others_go_on_while_one_waits(login, bucket, stored, store, faults, announced, size):
    waiting, other = login(), login()
    content = random_bytes(size)
    faults({"stall_before_reply": True}, count=1, method="PUT", path="/file$")
    if announced:
        waiting.expect(200, f"ALLO {size}")
    data = waiting.open_data()
    waiting.expect(150, f"STOR /{bucket}/file")
    data.sendall(content)
    data.close()
    assert waiting.command("NOOP").code == 200
    assert other.store(f"/{bucket}/other", b"other").code == 226
    store.clear_faults()
    assert waiting.read_reply().code == 226
    assert stored(bucket, "file") == content
