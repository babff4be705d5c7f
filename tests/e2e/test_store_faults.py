"""What the store does wrong on purpose: cut connections, refusals, lies. The client gets exact bytes or an error, never half of it."""

import pytest

from stores import random_bytes

pytestmark = pytest.mark.devstore_only(reason="the faults are scripted in the dev store")


@pytest.fixture
def faults(store):
    """Adds a rule; all are gone after the test."""

    def add(action, count=0, **match):
        store.add_fault({**match, "count": count}, action)

    store.clear_faults()
    yield add
    store.clear_faults()


@pytest.fixture
def sample(bucket, s3):
    content = random_bytes(6 << 20)
    s3.put_object(Bucket=bucket, Key="file", Body=content)
    return content


@pytest.mark.parametrize("cut", [0, 1, 100000, 3 << 20, (6 << 20) - 1])
@pytest.mark.parametrize("reset", [False, True])
def test_cut_download_is_mended(ftp, bucket, sample, faults, cut, reset):
    faults({"cut_reply_after": cut, "reset": reset}, count=1, method="GET", path="/file$")
    assert ftp.retrieve(f"/{bucket}/file") == sample


def test_mended_download_does_not_restart_at_the_wrong_offset(ftp, bucket, sample, faults):
    faults({"cut_reply_after": 1 << 20}, count=1, method="GET", path="/file$")
    assert ftp.retrieve(f"/{bucket}/file", rest=1234567) == sample[1234567:]


def test_mending_stops_when_the_object_is_another_one(ftp, bucket, sample, faults):
    """The rest of a new object behind the beginning of the old one would be worse than an error."""
    faults({"cut_reply_after": 1 << 20}, count=1, method="GET", path="/file$")
    faults({"etag": "wrong"}, method="GET", path="/file$")
    replies, content = ftp.fetch(f"RETR /{bucket}/file")
    assert replies[-1].code in (425, 426, 451, 550), replies
    assert content is None or (len(content) < len(sample) and sample.startswith(content))


def test_store_that_ignores_the_range_is_not_believed(ftp, bucket, sample, faults):
    faults({"ignore_range": True}, method="GET", path="/file$")
    replies, content = ftp.fetch(f"RETR /{bucket}/file", rest=1000)
    if replies[-1].code == 226:
        assert content == sample[1000:]
    else:
        assert replies[-1].code >= 400 and not content


def test_download_that_cannot_be_mended_fails(ftp, bucket, sample, faults):
    faults({"cut_reply_after": 1 << 20}, count=1, method="GET", path="/file$")
    faults({"cut_reply_after": 0}, method="GET", path="/file$")
    replies, content = ftp.fetch(f"RETR /{bucket}/file")
    assert replies[-1].code in (425, 426, 451), replies
    assert content is None or sample.startswith(content)
    assert ftp.command("NOOP").code == 200


@pytest.mark.parametrize("command, expected", [("SIZE", 213), ("MDTM", 213), ("MLST", 250)])
def test_one_refusal_is_retried(ftp, bucket, sample, faults, command, expected):
    faults({"status": 503}, count=1, path="/file$")
    assert ftp.command(f"{command} /{bucket}/file").code == expected


def test_one_refused_download_is_retried(ftp, bucket, sample, faults):
    faults({"status": 503}, count=1, path="/file$")
    assert ftp.retrieve(f"/{bucket}/file") == sample


def test_store_that_stays_busy(ftp, bucket, sample, faults, stored):
    """451: clients repeat after it. No 150, so that nobody keeps an empty file."""
    slow_down = "<?xml version='1.0'?><Error><Code>SlowDown</Code><Message></Message></Error>"
    faults({"status": 503, "body": slow_down}, path=f"/{bucket}")
    replies, content = ftp.fetch(f"RETR /{bucket}/file")
    assert content is None and replies[0].code == 451 and replies[0].word == "TOO_BUSY", replies
    replies, content = ftp.fetch(f"NLST /{bucket}")
    assert content is None and 400 <= replies[0].code < 600


@pytest.mark.parametrize("allocate", [True, False])
@pytest.mark.parametrize("action", [
    {"status": 500}, {"status": 403, "read_body": True}, {"cut_request_after": 100000}, {"cut_request_after": 0, "reset": True},
    {"status": 507}], ids=str)
def test_refused_upload_changes_nothing(ftp, bucket, s3, stored, faults, allocate, action):
    s3.put_object(Bucket=bucket, Key="file", Body=b"old")
    content = random_bytes(4 << 20)
    faults(action, method="PUT", path="/file$")
    reply = ftp.store(f"/{bucket}/file", content, allocate=len(content) if allocate else None)
    assert 400 <= reply.code < 600, reply.lines
    assert stored(bucket, "file") == b"old"
    assert ftp.store(f"/{bucket}/other", b"other").code == 226


@pytest.mark.parametrize("size", [1000, 4 << 20])
def test_upload_whose_answer_is_lost(ftp, bucket, stored, faults, size):
    """The store has the object but could not say so: 226 may be said only when it is true."""
    content = random_bytes(size)
    faults({"cut_before_reply": True}, count=1, method="PUT", path="/file$")
    reply = ftp.store(f"/{bucket}/file", content, allocate=size)
    assert reply.code == 226 or 400 <= reply.code < 600, reply.lines
    assert stored(bucket, "file") == content
    assert ftp.store(f"/{bucket}/file", b"next", allocate=4).code == 226
    assert stored(bucket, "file") == b"next"


def test_listing_that_ends_in_the_middle(ftp, bucket, s3, faults):
    """A listing that is cut must not look like a short one."""
    for number in range(5):
        s3.put_object(Bucket=bucket, Key=f"f{number}", Body=b"x")
    faults({"truncate_xml": True}, method="GET", path=f"/{bucket}/?$")
    replies, _ = ftp.fetch(f"NLST /{bucket}")
    assert replies[-1].code in (451, 550), replies


def test_second_page_fails(ftp, bucket, s3, faults):
    """The entries of the first page have gone out; the last reply says that there should have been more."""
    from concurrent.futures import ThreadPoolExecutor
    with ThreadPoolExecutor(16) as pool:
        list(pool.map(lambda n: s3.put_object(Bucket=bucket, Key=f"f{n:04}", Body=b""), range(1100)))
    faults({"status": 500}, method="GET", path=f"/{bucket}/?$", query="marker=[^&]")
    replies, content = ftp.fetch(f"NLST /{bucket}")
    assert [reply.code for reply in replies[:-1]] == [150]
    assert replies[-1].code in (451, 550)
    assert len(content.splitlines()) == 1000


def test_user_lookup_is_retried_once(connect, server, faults):
    faults({"status": 500}, count=1, path="^/admin/user")
    assert connect().login("alice", server.passwords["alice"]).code == 230


def test_user_lookup_that_fails(connect, server, faults):
    faults({"status": 500}, path="^/admin/user")
    assert connect().login("alice", server.passwords["alice"]).code == 530


@pytest.mark.parametrize("body", ["", "not json", "{}", '{"user_id":"alice","keys":[]}', "[1,2", '{"keys":"none"}'])
def test_user_lookup_with_a_strange_answer(connect, server, faults, body):
    faults({"status": 200, "body": body}, path="^/admin/user")
    reply = connect().login("alice", server.passwords["alice"])
    assert reply.code == 530


# -- how the store is asked ---------------------------------------------------------------------------------------------
def test_connections_to_the_store_are_kept(ftp, bucket, s3, store):
    for number in range(20):
        s3.put_object(Bucket=bucket, Key=f"f{number}", Body=b"x")
    ftp.retrieve(f"/{bucket}/f0")
    store.forget_requests()
    for number in range(20):
        assert ftp.retrieve(f"/{bucket}/f{number}") == b"x"
    seen = store.requests()
    assert len([request for request in seen if request["method"] == "GET"]) == 20
    assert len({request["connection"] for request in seen}) == 1


def test_a_download_costs_one_request_and_a_size_one(ftp, bucket, s3, store):
    s3.put_object(Bucket=bucket, Key="file", Body=b"x")
    store.forget_requests()
    ftp.retrieve(f"/{bucket}/file")
    assert [request["method"] for request in store.requests()] == ["GET"]
    store.forget_requests()
    ftp.expect(213, f"SIZE /{bucket}/file")
    assert [request["method"] for request in store.requests()] == ["HEAD"]


def test_names_that_cannot_be_files_cost_no_request(ftp, bucket, store):
    store.forget_requests()
    assert ftp.store("/root-file", b"x", allocate=1).code == 553
    assert ftp.fetch(f"RETR /{bucket}/dir/")[0][0].code == 553
    assert store.requests() == []


def test_a_forbidden_bucket_is_not_asked_for(login, bucket, store):
    restricted = login(host="restricted.test")
    store.forget_requests()
    assert restricted.command(f"SIZE /{bucket}/file").code == 550
    assert restricted.fetch(f"RETR /{bucket}/file")[0][0].code == 550
    assert restricted.listing("NLST", "/") == ["allowed-one", "allowed-two"]
    assert store.requests() == []
