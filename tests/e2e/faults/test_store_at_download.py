"""The store fails while a file is downloaded: the client gets exact bytes or an error, and no 150 for what never began."""

import hashlib
import threading

import pytest

from refusals import all_refusals, asked
from stores import random_bytes
from waiting import wait_for

pytestmark = pytest.mark.devstore_only(reason="the faults are scripted in the dev store")

SIZE = 6 << 20


@pytest.fixture(scope="session")
def sample(new_bucket, s3):
    """(bucket, content) of an object "file" that no test changes."""
    name, content = new_bucket(), random_bytes(SIZE)
    s3.put_object(Bucket=name, Key="file", Body=content)
    return name, content


def exact_or_error(replies, content, wanted):
    """226 says that the bytes are right; anything else says that they are at most the beginning."""
    if replies[-1].code == 226:
        assert content == wanted
    else:
        assert replies[-1].code in (425, 426, 451, 550, 553), replies
        assert wanted.startswith(content or b"")


@all_refusals()
def test_refusal(ftp, sample, store, faults, refusal):
    faults(refusal.action, method="GET", path="/file$")
    store.forget_requests()
    replies, content = ftp.fetch(f"RETR /{sample[0]}/file")
    assert content is None and len(replies) == 1, "no 150, or the client keeps an empty file"
    refusal.check(replies[0], 451)
    assert asked(store, "GET", "/file") == (2 if refusal.retried else 1)


@all_refusals(["xml"])
def test_refusal_of_a_restart(ftp, sample, faults, refusal):
    faults(refusal.action, method="GET", path="/file$")
    replies, content = ftp.fetch(f"RETR /{sample[0]}/file", rest=1000)
    assert content is None
    refusal.check(replies[0], 451)


@pytest.mark.parametrize("action", [{"status": 500}, {"status": 503}, {"status": 504}, {"cut_before_reply": True},
                                    {"cut_before_reply": True, "reset": True}, {"delay_ms": 300}, {"overlong": 1000}], ids=str)
@pytest.mark.parametrize("rest", [None, 1234567])
def test_mended(ftp, sample, faults, action, rest):
    faults(action, count=1, method="GET", path="/file$")
    assert ftp.retrieve(f"/{sample[0]}/file", rest=rest) == sample[1][rest or 0:]
    assert ftp.retrieve(f"/{sample[0]}/file", rest=SIZE - 1) == sample[1][-1:]


@pytest.mark.parametrize("cut", [0, 1, 100000, 3 << 20, SIZE - 1])
@pytest.mark.parametrize("reset", [False, True], ids=["FIN", "RST"])
def test_cut_is_mended(ftp, sample, faults, cut, reset):
    faults({"cut_reply_after": cut, "reset": reset}, count=1, method="GET", path="/file$")
    assert ftp.retrieve(f"/{sample[0]}/file") == sample[1]


def test_cut_again_and_again(ftp, sample, store, faults):
    """Each try brings something, so there is no end of them before the end of the file."""
    store.forget_requests()
    faults({"cut_reply_after": 500000}, method="GET", path="/file$")
    assert ftp.retrieve(f"/{sample[0]}/file") == sample[1]
    assert asked(store, "GET", "/file") >= SIZE // 500000


def test_mended_download_does_not_restart_at_the_wrong_offset(ftp, sample, faults):
    faults({"cut_reply_after": 1 << 20}, count=1, method="GET", path="/file$")
    assert ftp.retrieve(f"/{sample[0]}/file", rest=1234567) == sample[1][1234567:]


@pytest.mark.parametrize("second", [
    {"cut_reply_after": 0}, {"cut_before_reply": True, "reset": True}, {"status": 500}, {"status": 403}, {"status": 404},
    {"status": 412}, {"status": 416}, {"etag": "wrong"}, {"ignore_range": True}, {"redirect": "http://127.0.0.1:1/"},
    {"short_body": 100}, {"status": 206, "body": "something else"}, {"status": 200, "body": ""}], ids=str)
@pytest.mark.parametrize("first", [{"cut_reply_after": 1 << 20}, {"cut_reply_after": 1 << 20, "etag": "missing"}], ids=str)
def test_cut_that_cannot_be_mended(ftp, sample, faults, first, second):
    """The rest of another object behind the beginning of this one would be worse than an error."""
    faults(first, count=1, method="GET", path="/file$")
    faults(second, method="GET", path="/file$")
    replies, content = ftp.fetch(f"RETR /{sample[0]}/file")
    assert replies[-1].code != 226 or second in ({"ignore_range": True}, {"short_body": 100})
    exact_or_error(replies, content, sample[1])


@pytest.mark.parametrize("cut", [1, 1 << 20])
def test_object_replaced_in_the_middle(ftp, bucket, s3, store, faults, cut):
    """Nothing scripted but the cut: the object really is another one when the rest is asked for."""
    old, new = random_bytes(SIZE), random_bytes(SIZE)
    s3.put_object(Bucket=bucket, Key="file", Body=old)
    faults({"cut_reply_after": cut}, count=1, method="GET", path="/file$")
    faults({"stall_before_reply": True}, count=1, method="GET", path="/file$")
    store.forget_requests()
    result = []
    client = threading.Thread(target=lambda: result.append(ftp.fetch(f"RETR /{bucket}/file")))
    client.start()
    wait_for(lambda: asked(store, "GET", "/file") == 2, "the rest is asked for")
    s3.put_object(Bucket=bucket, Key="file", Body=new)
    # The second request is already looked up; the one after it meets the new object.
    faults({"cut_reply_after": 0}, count=1, method="GET", path="/file$")
    store.clear_faults()
    client.join(60)
    replies, content = result[0]
    exact_or_error(replies, content, old)


@pytest.mark.parametrize("rest", [1, 1000, SIZE - 1])
@pytest.mark.parametrize("action", [{"ignore_range": True}, {"short_body": 1}, {"headers": {"Content-Range": None}},
                                    {"headers": {"Content-Range": f"bytes 0-{SIZE - 1}/{SIZE}"}},
                                    {"headers": {"Content-Range": "bytes nonsense"}}], ids=str)
def test_store_that_does_not_keep_to_the_range(ftp, sample, faults, action, rest):
    faults(action, method="GET", path="/file$")
    replies, content = ftp.fetch(f"RETR /{sample[0]}/file", rest=rest)
    exact_or_error(replies, content, sample[1][rest:])


@pytest.mark.parametrize("etag", ["wrong", "missing"])
def test_etag_is_only_a_name(ftp, sample, faults, etag):
    faults({"etag": etag}, method="GET", path="/file$")
    assert ftp.retrieve(f"/{sample[0]}/file") == sample[1]


def test_redirect_inside_the_store(ftp, sample, store, faults):
    faults({"redirect": f"{store.endpoint}/{sample[0]}/file"}, count=1, method="GET", path="/file$")
    assert ftp.retrieve(f"/{sample[0]}/file") == sample[1]


@pytest.mark.parametrize("action", [
    {"redirect": "http://127.0.0.1:1/file"}, {"redirect": "http://127.0.0.1:1/file", "status": 301},
    {"redirect": "ftp://127.0.0.1/file"}, {"redirect": "//elsewhere/file"},
    {"status": 301, "body": "<Error><Code>PermanentRedirect</Code><Endpoint>elsewhere</Endpoint></Error>",
     "headers": {"x-amz-bucket-region": "eu-west-1"}},
    {"status": 400, "body": "<Error><Code>AuthorizationHeaderMalformed</Code><Region>eu-west-1</Region></Error>"}], ids=str)
def test_sent_elsewhere(ftp, sample, faults, action):
    """Nobody but the configured store gets a signature."""
    faults(action, method="GET", path="/file$")
    replies, content = ftp.fetch(f"RETR /{sample[0]}/file")
    assert content is None and replies[0].code == 451, replies


def test_redirect_in_a_circle(ftp, sample, store, faults):
    faults({"redirect": f"{store.endpoint}/{sample[0]}/file"}, method="GET", path="/file$")
    store.forget_requests()
    replies, content = ftp.fetch(f"RETR /{sample[0]}/file")
    assert content is None and replies[0].code == 451
    assert asked(store, "GET", "/file") < 20


@pytest.mark.parametrize("seconds", [3600, -3600])
def test_clocks_apart(ftp, sample, store, seconds):
    store.skew(seconds)
    try:
        replies, content = ftp.fetch(f"RETR /{sample[0]}/file")
        assert content is None and replies[0].code in (451, 550), replies
    finally:
        store.skew(0)


@all_refusals(["xml", "empty"])
def test_checksum_of_what_cannot_be_read(ftp, sample, faults, refusal):
    faults(refusal.action, path="/file$")
    reply = ftp.command(f"CKSM MD5 0 -1 /{sample[0]}/file")
    assert 400 <= reply.code < 600, reply.lines


@pytest.mark.parametrize("action", [{"cut_reply_after": 1 << 20}, {"cut_reply_after": 1 << 20, "reset": True}], ids=str)
def test_checksum_of_a_broken_download(ftp, bucket, s3, faults, action):
    """The sum is the object's, however often the store breaks off."""
    content = random_bytes(SIZE)
    upload = s3.create_multipart_upload(Bucket=bucket, Key="file")["UploadId"]
    part = s3.upload_part(Bucket=bucket, Key="file", UploadId=upload, PartNumber=1, Body=content)
    s3.complete_multipart_upload(Bucket=bucket, Key="file", UploadId=upload,
                                 MultipartUpload={"Parts": [{"PartNumber": 1, "ETag": part["ETag"]}]})
    faults(action, count=2, method="GET", path="/file$")
    reply = ftp.command(f"CKSM MD5 0 -1 /{bucket}/file")
    while reply.code == 113:
        reply = ftp.read_reply()
    assert (reply.code, reply.last) == (213, hashlib.md5(content).hexdigest())


def test_others_go_on_while_one_waits(login, sample, store, faults):
    waiting, other = login(), login()
    faults({"stall_reply_after": 3 << 20}, count=1, method="GET", path="/file$")
    data = waiting.open_data()
    waiting.expect(150, f"RETR /{sample[0]}/file")
    assert waiting.command("NOOP").code == 200
    assert other.retrieve(f"/{sample[0]}/file") == sample[1]
    store.clear_faults()
    assert waiting.read_all(data) == sample[1]
    assert waiting.read_reply().code == 226
