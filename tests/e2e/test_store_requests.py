"""How the store is asked: over connections that are kept, and no more often than it takes."""

import pytest

pytestmark = pytest.mark.devstore_only(reason="looks at the dev store's log of requests")


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
