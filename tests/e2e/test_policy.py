"""Collections with a storage policy: only the named buckets exist."""

import botocore.exceptions
import pytest


@pytest.fixture
def restricted(server, login):
    """A session on the collection whose policy names two buckets; only the first of them exists, with one object."""
    client = server.store.client("alice")
    try:
        client.create_bucket(Bucket="allowed-one")
    except botocore.exceptions.ClientError as error:
        assert error.response["Error"]["Code"] == "BucketAlreadyOwnedByYou", error
    client.put_object(Bucket="allowed-one", Key="file", Body=b"here")
    return login(host="restricted.test")


def test_root_shows_the_policys_buckets_whether_they_exist_or_not(restricted):
    assert restricted.listing("NLST", "/") == ["allowed-one", "allowed-two"]
    facts = restricted.facts("/")
    assert facts["allowed-two"]["type"] == "dir"


def test_allowed_bucket_works(restricted, stored):
    assert restricted.retrieve("/allowed-one/file") == b"here"
    assert restricted.store("/allowed-one/new", b"new", allocate=3).code == 226
    assert stored("allowed-one", "new") == b"new"


@pytest.mark.parametrize("line", ["SIZE /{}/file", "MLST /{}/file", "CWD /{}", "MDTM /{}/file"])
def test_forbidden_bucket_is_refused(restricted, bucket, s3, line):
    s3.put_object(Bucket=bucket, Key="file", Body=b"hidden")
    reply = restricted.command(line.format(bucket))
    assert reply.code == 550
    assert reply.word == "PERMISSION_DENIED"
    assert reply.last == "Zorvan-S3-Error: Bucket not allowed."


@pytest.mark.parametrize("line", ["RETR /{}/file", "LIST /{}", "MLSD /{}", "NLST /{}"])
def test_forbidden_bucket_is_refused_before_a_transfer(restricted, bucket, s3, line):
    s3.put_object(Bucket=bucket, Key="file", Body=b"hidden")
    replies, content = restricted.fetch(line.format(bucket))
    assert content is None
    assert replies[0].code == 550 and replies[0].word == "PERMISSION_DENIED"


@pytest.mark.parametrize("allocate", [6, None])
def test_upload_to_forbidden_bucket_stores_nothing(restricted, bucket, stored, allocate):
    reply = restricted.store(f"/{bucket}/file", b"secret", allocate=allocate)
    assert reply.code == 550 and reply.word == "PERMISSION_DENIED"
    assert stored(bucket, "file") is None


def test_bucket_names_are_compared_exactly(restricted):
    for name in ("Allowed-One", "allowed-on", "allowed-one-more"):
        assert restricted.command(f"CWD /{name}").word == "PERMISSION_DENIED"
    assert restricted.command("CWD /allowed-one").code == 250
    assert restricted.command("CWD /allowed-one/../allowed-one").code == 250
    assert restricted.command("CWD ../forbidden").word == "PERMISSION_DENIED"
