"""Buckets: making, owning, removing them; both styles of address; regions."""

import socket

import pytest
from botocore.exceptions import ClientError
from conftest import ADMIN, BOB


def refused(call, **arguments):
    with pytest.raises(ClientError) as error:
        call(**arguments)
    response = error.value.response
    return response["Error"]["Code"], response["ResponseMetadata"]["HTTPStatusCode"]


def test_create_twice_by_the_owner(s3, bucket):
    assert s3.create_bucket(Bucket=bucket)["ResponseMetadata"]["HTTPStatusCode"] == 200


def test_create_by_another(store, bucket):
    assert refused(store.s3(BOB).create_bucket, Bucket=bucket) == ("BucketAlreadyExists", 409)


def test_foreign_bucket(store, bucket):
    bob = store.s3(BOB)
    assert refused(bob.head_bucket, Bucket=bucket) == ("403", 403)
    assert refused(bob.list_objects_v2, Bucket=bucket) == ("AccessDenied", 403)
    assert refused(bob.put_object, Bucket=bucket, Key="k", Body=b"") == ("AccessDenied", 403)
    assert refused(bob.delete_bucket, Bucket=bucket) == ("AccessDenied", 403)
    assert bucket not in [b["Name"] for b in bob.list_buckets()["Buckets"]]
    # A user administrator owns no data.
    assert refused(store.s3(ADMIN).list_objects_v2, Bucket=bucket) == ("AccessDenied", 403)


def test_head_and_location(store, s3, bucket):
    s3.put_object(Bucket=bucket, Key="k", Body=b"12345")
    headers = s3.head_bucket(Bucket=bucket)["ResponseMetadata"]["HTTPHeaders"]
    assert headers["x-rgw-object-count"] == "1"
    assert headers["x-rgw-bytes-used"] == "5"
    assert "x-amz-bucket-region" not in headers
    assert b">default</LocationConstraint>" in store.raw("GET", f"/{bucket}?location").body


def test_missing_bucket(s3):
    assert refused(s3.head_bucket, Bucket="no-such-bucket") == ("404", 404)
    assert refused(s3.list_objects, Bucket="no-such-bucket") == ("NoSuchBucket", 404)
    assert refused(s3.put_object, Bucket="no-such-bucket", Key="k", Body=b"x") == ("NoSuchBucket", 404)
    assert refused(s3.get_object, Bucket="no-such-bucket", Key="k") == ("NoSuchBucket", 404)
    assert refused(s3.delete_bucket, Bucket="no-such-bucket") == ("NoSuchBucket", 404)


def test_delete(s3, bucket):
    s3.put_object(Bucket=bucket, Key="k", Body=b"x")
    assert refused(s3.delete_bucket, Bucket=bucket) == ("BucketNotEmpty", 409)
    s3.delete_object(Bucket=bucket, Key="k")
    assert s3.delete_bucket(Bucket=bucket)["ResponseMetadata"]["HTTPStatusCode"] == 204
    assert refused(s3.head_bucket, Bucket=bucket) == ("404", 404)


@pytest.mark.parametrize("name", ["ab", "Upper-case", "-leading", "two..dots", "192.168.1.1", "x" * 64])
def test_illegal_names(store, name):
    reply = store.raw("PUT", f"/{name}")
    assert (reply.status, b"<Code>InvalidBucketName</Code>" in reply.body) == (400, True)


def test_location_constraint(s3, bucket):
    arguments = {"Bucket": bucket, "CreateBucketConfiguration": {"LocationConstraint": "mars"}}
    assert refused(s3.create_bucket, **arguments) == ("InvalidLocationConstraint", 400)
    arguments["CreateBucketConfiguration"]["LocationConstraint"] = "default"
    assert s3.create_bucket(**arguments)["ResponseMetadata"]["HTTPStatusCode"] == 200


def test_virtual_host_style(store, s3, bucket, monkeypatch):
    resolve = socket.getaddrinfo

    def local(host, *arguments, **named):
        # Not every resolver knows that names below "localhost" are local.
        return resolve("127.0.0.1" if str(host).endswith("localhost") else host, *arguments, **named)

    monkeypatch.setattr(socket, "getaddrinfo", local)
    host = f"http://s3.localhost:{store.port}"
    virtual = store.s3(style="virtual", endpoint=host)
    virtual.put_object(Bucket=bucket, Key="dir/a b", Body=b"virtual")
    assert s3.get_object(Bucket=bucket, Key="dir/a b")["Body"].read() == b"virtual"
    assert [o["Key"] for o in virtual.list_objects_v2(Bucket=bucket)["Contents"]] == ["dir/a b"]
    assert store.log()[-1]["headers"]["host"].startswith(bucket + ".s3.localhost")
    # The suffix itself as host is path style.
    path = store.s3(style="path", endpoint=host)
    assert path.head_object(Bucket=bucket, Key="dir/a b")["ContentLength"] == 7


def test_unknown_subresources_touch_nothing(store, s3, bucket):
    s3.put_object(Bucket=bucket, Key="k", Body=b"kept")
    for method, target in (("PUT", "k?tagging"), ("DELETE", "k?tagging"), ("PUT", "?policy"), ("DELETE", "?lifecycle")):
        reply = store.raw(method, f"/{bucket}/{target}" if target[0] != "?" else f"/{bucket}{target}", body=b"<x/>")
        assert (reply.status, b"NotImplemented" in reply.body) == (501, True)
    assert s3.get_object(Bucket=bucket, Key="k")["Body"].read() == b"kept"


def test_regions(make_store):
    store = make_store("--region-mode", "aws", "--region", "us-east-1")
    s3 = store.s3()
    s3.create_bucket(Bucket="home")
    s3.create_bucket(Bucket="away", CreateBucketConfiguration={"LocationConstraint": "eu-west-3"})
    assert s3.head_bucket(Bucket="home")["ResponseMetadata"]["HTTPHeaders"]["x-amz-bucket-region"] == "us-east-1"
    assert s3.get_bucket_location(Bucket="away")["LocationConstraint"] == "eu-west-3"
    assert s3.get_bucket_location(Bucket="home")["LocationConstraint"] is None
    reply = store.raw("HEAD", "/away")
    assert (reply.status, reply.headers["x-amz-bucket-region"]) == (301, "eu-west-3")
    reply = store.raw("GET", "/away/k")
    assert reply.status == 301
    assert b"<Code>PermanentRedirect</Code><Message>The bucket" in reply.body
    assert b"<Region>eu-west-3</Region>" in reply.body
    away = store.s3(region="eu-west-3")
    away.put_object(Bucket="away", Key="k", Body=b"x")
    assert away.get_object(Bucket="away", Key="k")["Body"].read() == b"x"


def test_requests_on_buckets_are_counted_for_good(store, s3, bucket):
    def counted():
        seen = store.control("GET", "/log/buckets")["requests"]
        return {(entry["method"], tuple(entry["parameters"])): entry["count"] for entry in seen if entry["bucket"] == bucket}

    before = counted()
    s3.put_object(Bucket=bucket, Key="key", Body=b"x")
    s3.delete_object(Bucket=bucket, Key="key")
    s3.head_bucket(Bucket=bucket)
    assert counted() == before
    store.raw("GET", f"/{bucket}?prefix=a&delimiter=/")
    store.control("DELETE", "/log")
    # What an abort without its key does, here as on the gateway: the bucket is gone.
    assert store.raw("DELETE", f"/{bucket}/?uploadId=x").status == 204
    new = {what: count - before.get(what, 0) for what, count in counted().items() if count != before.get(what, 0)}
    assert new == {("DELETE", ("uploadId",)): 1, ("GET", ("delimiter", "prefix")): 1}
