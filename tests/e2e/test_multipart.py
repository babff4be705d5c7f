"""Uploads of more than a part size: made in parts, resumed where they broke, and never left lying about by a later upload."""

import base64
import hashlib

import pytest

from gateway import shared_server
from multipart import BROKEN, PART, interrupt, restart
from stores import random_bytes
from waiting import wait_for


@pytest.fixture(scope="module")
def server(store, binaries):
    with shared_server(binaries, store, extra_options={"part_size": PART}) as gateway:
        yield gateway


def head(s3, bucket, key="file"):
    return s3.head_object(Bucket=bucket, Key=key)


# -- in parts -------------------------------------------------------------------------------------------------------------
def test_upload_in_parts_with_its_metadata(pyftp, bucket, s3, stored, uploads):
    content = random_bytes(3 * PART + 12345)
    digest = hashlib.md5(content)
    pyftp.sendcmd("TYPE I")
    pyftp.sendcmd(f"MFMT 20010909014640 /{bucket}/dir/big.txt")
    pyftp.sendcmd(f"SCKS MD5 {digest.hexdigest()}")
    pyftp.sendcmd(f"ALLO {len(content)}")
    with pyftp.transfercmd(f"STOR /{bucket}/dir/big.txt") as data:
        data.sendall(content)
    assert pyftp.voidresp().startswith("226")
    assert stored(bucket, "dir/big.txt") == content
    entry = head(s3, bucket, "dir/big.txt")
    assert entry["ETag"].endswith('-4"')
    assert entry["ContentType"] == "text/plain"
    assert entry["Metadata"] == {"mtime": "1000000000", "md5": base64.b64encode(digest.digest()).decode()}
    assert uploads(bucket) == {}


@pytest.mark.parametrize("size, parts", [(PART, None), (PART + 1, 2), (2 * PART, 2), (2 * PART + 1, 3)])
def test_edges_of_the_part_size(ftp, bucket, s3, stored, uploads, size, parts):
    content = random_bytes(size)
    assert ftp.store(f"/{bucket}/file", content, allocate=size).code == 226
    assert stored(bucket, "file") == content
    etag = head(s3, bucket)["ETag"]
    assert etag.endswith(f'-{parts}"') if parts else "-" not in etag
    assert uploads(bucket) == {}


def test_unknown_size(ftp, bucket, s3, stored):
    content = random_bytes(2 * PART + 1)
    assert ftp.store(f"/{bucket}/file", content).code == 226
    assert stored(bucket, "file") == content
    assert head(s3, bucket)["ETag"].endswith('-3"')


@pytest.mark.devstore_only(reason="it tells which requests were made")
def test_sum_is_known_after_the_upload(ftp, bucket, store):
    content = random_bytes(2 * PART + 1)
    assert ftp.store(f"/{bucket}/file", content, allocate=len(content)).code == 226
    store.forget_requests()
    ftp.send(f"CKSM MD5 0 -1 /{bucket}/file")
    while (reply := ftp.read_reply()).code == 113:
        pass
    assert (reply.code, reply.last) == (213, hashlib.md5(content).hexdigest())
    assert [entry["method"] for entry in store.requests()] == ["HEAD"], "the object was read to sum it"


def test_wrong_expected_checksum_stores_nothing(ftp, bucket, stored):
    content = random_bytes(2 * PART + 1)
    ftp.command(f"SCKS MD5 {hashlib.md5(b'other').hexdigest()}")
    reply = ftp.store(f"/{bucket}/file", content, allocate=len(content))
    assert (reply.code, reply.word) == (550, "INCORRECT_CHECKSUM"), reply.lines
    assert stored(bucket, "file") is None


# -- sizes that do not hold -----------------------------------------------------------------------------------------------
@pytest.mark.parametrize("difference", [-PART, -1, 1, PART])
def test_other_size_than_announced(ftp, bucket, s3, stored, difference):
    """The old object stays, and the next upload works."""
    s3.put_object(Bucket=bucket, Key="file", Body=b"old")
    size = 2 * PART + 100
    reply = ftp.store(f"/{bucket}/file", random_bytes(size + difference), allocate=size)
    assert reply.code in ((552,) if difference > 0 else (426, 451, 550)), reply.lines
    assert stored(bucket, "file") == b"old"
    content = random_bytes(size)
    assert ftp.store(f"/{bucket}/file", content, allocate=size).code == 226
    assert stored(bucket, "file") == content


# -- limits ---------------------------------------------------------------------------------------------------------------
TOO_LARGE = "File upload too large"
DECIMAL_5_TB, BINARY_5_TB = 5 * 10 ** 12, 5 << 40


def refused_as_too_large(ftp, bucket, size, offset=0):
    """Before the transfer begins."""
    ftp.expect(200, f"ALLO {size}")
    if offset:
        ftp.expect(350, f"REST {offset}")
    with ftp.open_data():
        reply = ftp.expect(550, f"STOR /{bucket}/file")
    assert reply.last == TOO_LARGE, reply.lines


def begins(ftp, bucket, size, uploads):
    """Such an upload is begun, and broken off."""
    data = ftp.begin_store(f"/{bucket}/file", b"some", size)
    wait_for(lambda: "file" in uploads(bucket), "the upload is begun")
    ftp.reset(data)
    assert ftp.read_reply().code in BROKEN


@pytest.mark.parametrize("mode", ["S", "E"])
def test_more_parts_than_there_may_be(ftp, bucket, store, uploads, mode):
    ftp.expect(200, f"MODE {mode}")
    if store.name == "devstore":
        store.forget_requests()
    refused_as_too_large(ftp, bucket, 10000 * PART + 1)
    if store.name == "devstore":
        assert store.requests() == []
    assert uploads(bucket) == {}
    ftp.expect(200, "MODE S")
    begins(ftp, bucket, 10000 * PART, uploads)


@pytest.mark.parametrize("part_size, limit", [(None, DECIMAL_5_TB), (5 << 30, BINARY_5_TB)])
def test_largest_object(fresh_server, bucket, uploads, part_size, limit):
    with fresh_server(extra_options={"part_size": part_size}).session() as ftp:
        refused_as_too_large(ftp, bucket, limit + 1)
        assert uploads(bucket) == {}
        begins(ftp, bucket, limit, uploads)


@pytest.mark.parametrize("part_size, text", [(PART - 1, "Multipart upload part size is too small"),
                                             ((5 << 30) + 1, "Multipart upload part size is too large")])
def test_part_size_that_stores_do_not_take(fresh_server, bucket, uploads, part_size, text):
    """The operator's mistake: it shows at once, also with what would be one PUT."""
    with fresh_server(extra_options={"part_size": part_size}).session() as ftp:
        for size in (1, 2 * PART):
            ftp.expect(200, f"ALLO {size}")
            with ftp.open_data():
                assert ftp.expect(550, f"STOR /{bucket}/file").last == text
    assert uploads(bucket) == {}


def test_restart_of_what_gets_too_large(ftp, bucket, stored, stored_parts):
    content = random_bytes(2 * PART + 5)
    interrupt(ftp, bucket, content, stored_parts, 1)
    refused_as_too_large(ftp, bucket, 9999 * PART + 1, offset=PART)
    assert stored_parts(bucket, "file") == [1]
    assert restart(ftp, bucket, content, PART).code == 226
    assert stored(bucket, "file") == content


# -- resumed --------------------------------------------------------------------------------------------------------------
@pytest.mark.parametrize("offset", [1, 2])
@pytest.mark.parametrize("announce", [True, False])
def test_interrupted_upload_is_resumed(ftp, bucket, stored, uploads, stored_parts, offset, announce):
    """Also from an earlier part's end than the last one that is stored."""
    content = random_bytes(3 * PART + 5)
    interrupt(ftp, bucket, content, stored_parts, 2)
    assert stored(bucket, "file") is None
    assert stored_parts(bucket, "file") == [1, 2]
    reply = restart(ftp, bucket, content, offset * PART, announce)
    assert reply.code == 226, reply.lines
    assert stored(bucket, "file") == content
    assert uploads(bucket) == {}


def test_interrupted_again(ftp, bucket, stored, stored_parts):
    content = random_bytes(4 * PART)
    interrupt(ftp, bucket, content, stored_parts, 1)
    for done in (1, 2):
        data = ftp.begin_store(f"/{bucket}/file", content[done * PART:(done + 1) * PART + 10], len(content) - done * PART, done * PART)
        wait_for(lambda: len(stored_parts(bucket, "file")) == done + 1, "one part more is stored", 60)
        ftp.reset(data)
        assert ftp.read_reply().code in BROKEN
    assert restart(ftp, bucket, content, 3 * PART).code == 226
    assert stored(bucket, "file") == content


@pytest.mark.parametrize("offset, size", [(PART + 1, 3 * PART), (3 * PART, 4 * PART), (PART, 1 * PART + 10)])
def test_restart_that_does_not_fit(ftp, bucket, stored, stored_parts, offset, size):
    """Inside a part, behind what is stored, or of a file of another size: refused, and what is stored stays."""
    content = random_bytes(3 * PART)
    interrupt(ftp, bucket, content, stored_parts, 2)
    ftp.expect(350, f"REST {offset}")
    reply = ftp.store(f"/{bucket}/file", b"", allocate=size - offset)
    assert (reply.code, reply.word) == (553, "MULTI_PART_UPLOAD_NOT_FOUND"), reply.lines
    assert stored_parts(bucket, "file") == [1, 2]
    assert restart(ftp, bucket, content, 2 * PART).code == 226
    assert stored(bucket, "file") == content


def test_restart_without_an_upload(ftp, bucket, stored):
    reply = restart(ftp, bucket, bytes(PART + 10), PART)
    assert (reply.code, reply.word) == (553, "MULTI_PART_UPLOAD_NOT_FOUND"), reply.lines
    assert stored(bucket, "file") is None


def test_append_to_an_object(ftp, bucket, s3, stored):
    s3.put_object(Bucket=bucket, Key="file", Body=b"old")
    reply = ftp.store(f"/{bucket}/file", b"more", command="APPE")
    assert (reply.code, reply.word) == (553, "MULTI_PART_UPLOAD_NOT_FOUND"), reply.lines
    assert stored(bucket, "file") == b"old"


# -- stale uploads --------------------------------------------------------------------------------------------------------
def test_fresh_upload_aborts_stale_ones_of_its_key_alone(ftp, bucket, s3, stored, uploads):
    for key in ("dir/file", "dir/file", "dir/file", "dir/file.txt", "dir/file/deeper", "dir/fil"):
        s3.create_multipart_upload(Bucket=bucket, Key=key)
    content = random_bytes(PART + 1)
    assert ftp.store(f"/{bucket}/dir/file", content, allocate=len(content)).code == 226
    assert stored(bucket, "dir/file") == content
    assert sorted(uploads(bucket)) == ["dir/fil", "dir/file.txt", "dir/file/deeper"]


def test_of_several_uploads_the_newest_is_resumed(ftp, bucket, s3, stored, uploads, stored_parts):
    s3.create_multipart_upload(Bucket=bucket, Key="file")
    content = random_bytes(2 * PART + 5)
    wait_for(lambda: uploads(bucket).get("file"), "the older upload is listed")
    older = uploads(bucket)["file"]
    interrupt(ftp, bucket, content, stored_parts, 1)
    assert uploads(bucket)["file"] != older, "the fresh upload has aborted the older one"
    assert restart(ftp, bucket, content, PART).code == 226
    assert stored(bucket, "file") == content
    assert uploads(bucket) == {}


# -- a store that fails ---------------------------------------------------------------------------------------------------
@pytest.fixture
def faults(store):
    def add(action, **match):
        store.add_fault(match, action)

    store.clear_faults()
    yield add
    store.clear_faults()


@pytest.mark.devstore_only(reason="it fails when told to")
@pytest.mark.parametrize("action", [{"cut_request_after": PART // 2}, {"cut_request_after": 3 * PART // 4, "reset": True},
                                    {"status": 500, "read_body": True}, {"cut_before_reply": True}])
def test_store_cut_off_in_a_part_and_back(ftp, bucket, stored, uploads, stored_parts, faults, store, action):
    """The upload fails, nothing appears, and it can be resumed where the store has it."""
    content = random_bytes(3 * PART + 5)
    faults(action, method="PUT", path="/file$", query="partNumber=3", count=0)
    reply = ftp.store(f"/{bucket}/file", content, allocate=len(content))
    assert reply.code in (426, 451), reply.lines
    assert stored(bucket, "file") is None
    assert stored_parts(bucket, "file")[:2] == [1, 2]
    store.clear_faults()
    assert restart(ftp, bucket, content, 2 * PART).code == 226
    assert stored(bucket, "file") == content
    assert uploads(bucket) == {}


@pytest.mark.devstore_only(reason="it fails when told to")
@pytest.mark.parametrize("match", [{"method": "GET", "query": "uploads"}, {"method": "POST", "query": "uploads"},
                                   {"method": "PUT", "query": "partNumber=2"}, {"method": "POST", "query": "uploadId="}])
def test_request_refused_once_is_repeated(ftp, bucket, stored, uploads, faults, match):
    content = random_bytes(2 * PART + 5)
    faults({"status": 503}, path=f"^/{bucket}", count=1, **match)
    assert ftp.store(f"/{bucket}/file", content, allocate=len(content)).code == 226
    assert stored(bucket, "file") == content
    assert uploads(bucket) == {}


@pytest.mark.devstore_only(reason="it fails when told to")
def test_etag_of_a_part_that_lies(ftp, bucket, stored, stored_parts, faults):
    content = random_bytes(2 * PART + 5)
    faults({"etag": "wrong"}, method="PUT", path="/file$", query="partNumber=2", count=1)
    reply = ftp.store(f"/{bucket}/file", content, allocate=len(content))
    assert (reply.code, reply.word) == (550, "INCORRECT_CHECKSUM"), reply.lines
    assert hashlib.md5(content[PART:2 * PART]).hexdigest() in reply.text
    assert stored(bucket, "file") is None
    assert stored_parts(bucket, "file") == [1, 2]


@pytest.mark.devstore_only(reason="it fails when told to")
@pytest.mark.parametrize("action", [{"cut_before_reply": True}, {"etag": "missing"}])
def test_commit_whose_answer_is_lost_or_silent(ftp, bucket, s3, stored, uploads, faults, action):
    content = random_bytes(2 * PART + 5)
    faults(action, method="POST", path="/file$", query="uploadId=", count=1)
    assert ftp.store(f"/{bucket}/file", content, allocate=len(content)).code == 226
    assert stored(bucket, "file") == content
    assert head(s3, bucket)["ETag"].endswith('-3"')
    assert uploads(bucket) == {}
