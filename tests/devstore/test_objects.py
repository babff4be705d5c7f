"""Objects: put, get, head, delete, ranges, conditions, attributes, copies."""

import base64
import hashlib
import os

import pytest
from botocore.exceptions import ClientError
from conftest import BOB


def refused(call, **arguments):
    with pytest.raises(ClientError) as error:
        call(**arguments)
    response = error.value.response
    return response["Error"]["Code"], response["ResponseMetadata"]["HTTPStatusCode"]


@pytest.mark.parametrize("size", [0, 1, 65536, (1 << 20) - 1, 1 << 20, (1 << 20) + 1, (5 << 20) + 7])
def test_round_trip(s3, bucket, size):
    data = os.urandom(size)
    etag = s3.put_object(Bucket=bucket, Key="k", Body=data)["ETag"]
    assert etag == f'"{hashlib.md5(data).hexdigest()}"'
    got = s3.get_object(Bucket=bucket, Key="k")
    assert (got["ContentLength"], got["ETag"], got["Body"].read()) == (size, etag, data)


def test_data_with_zero_blocks(s3, bucket):
    data = bytes(3 << 20) + b"end" + bytes(2 << 20)
    s3.put_object(Bucket=bucket, Key="k", Body=data)
    assert s3.get_object(Bucket=bucket, Key="k")["Body"].read() == data


def test_overwrite(s3, bucket):
    s3.put_object(Bucket=bucket, Key="k", Body=b"first", Metadata={"a": "1"})
    s3.put_object(Bucket=bucket, Key="k", Body=b"second one")
    got = s3.get_object(Bucket=bucket, Key="k")
    assert (got["Body"].read(), got["Metadata"]) == (b"second one", {})


def test_attributes(s3, bucket):
    s3.put_object(
        Bucket=bucket,
        Key="k",
        Body=b"x",
        ContentType="text/plain",
        CacheControl="no-store",
        ContentDisposition='attachment; filename="a"',
        ContentEncoding="gzip",
        ContentLanguage="fr",
        Metadata={"MTime": "1700000000.5", "md5": "abc"},
    )
    head = s3.head_object(Bucket=bucket, Key="k")
    assert head["ContentType"] == "text/plain"
    assert head["CacheControl"] == "no-store"
    assert head["ContentDisposition"] == 'attachment; filename="a"'
    assert head["ContentEncoding"] == "gzip"
    assert head["ContentLanguage"] == "fr"
    assert head["Metadata"] == {"mtime": "1700000000.5", "md5": "abc"}
    headers = head["ResponseMetadata"]["HTTPHeaders"]
    assert headers["x-rgw-object-type"] == "Normal"
    assert headers["accept-ranges"] == "bytes"
    assert "x-amz-storage-class" not in headers


def test_default_type_and_storage_class(s3, bucket):
    s3.put_object(Bucket=bucket, Key="k", Body=b"x", StorageClass="STANDARD")
    head = s3.head_object(Bucket=bucket, Key="k")
    assert (head["ContentType"], head["StorageClass"]) == ("binary/octet-stream", "STANDARD")
    assert refused(s3.put_object, Bucket=bucket, Key="k", Body=b"", StorageClass="NO_SUCH") == ("InvalidArgument", 400)


def test_head_of_a_missing_key_names_the_length_it_does_not_send(store, bucket):
    reply = store.raw("HEAD", f"/{bucket}/none")
    assert (reply.status, reply.body) == (404, b"")
    assert int(reply.headers["content-length"]) > 150


def test_error_document(store, bucket):
    reply = store.raw("GET", f"/{bucket}/none")
    assert reply.status == 404
    assert reply.headers["content-type"] == "application/xml"
    assert f"<Error><Code>NoSuchKey</Code><Message></Message><BucketName>{bucket}</BucketName><RequestId>tx" in (
        reply.body.decode()
    )


def test_delete(s3, bucket):
    s3.put_object(Bucket=bucket, Key="k", Body=b"x")
    assert s3.delete_object(Bucket=bucket, Key="k")["ResponseMetadata"]["HTTPStatusCode"] == 204
    assert s3.delete_object(Bucket=bucket, Key="k")["ResponseMetadata"]["HTTPStatusCode"] == 204
    assert refused(s3.get_object, Bucket=bucket, Key="k") == ("NoSuchKey", 404)


def test_delete_many(s3, bucket):
    for n in range(5):
        s3.put_object(Bucket=bucket, Key=f"k&{n}", Body=b"x")
    wanted = [{"Key": f"k&{n}"} for n in (0, 2, 9)]
    assert [d["Key"] for d in s3.delete_objects(Bucket=bucket, Delete={"Objects": wanted})["Deleted"]] == [
        "k&0",
        "k&2",
        "k&9",
    ]
    assert "Deleted" not in s3.delete_objects(Bucket=bucket, Delete={"Objects": [{"Key": "k&1"}], "Quiet": True})
    assert [o["Key"] for o in s3.list_objects_v2(Bucket=bucket)["Contents"]] == ["k&3", "k&4"]


@pytest.mark.parametrize(
    "asked, shown",
    [("0-0", "0-0"), ("5-100", "5-10"), ("5-", "5-10"), ("-3", "8-10"), ("-100", "0-10"), ("10-10", "10-10")],
)
def test_ranges(s3, bucket, asked, shown):
    data = b"hello world"
    s3.put_object(Bucket=bucket, Key="k", Body=data)
    got = s3.get_object(Bucket=bucket, Key="k", Range="bytes=" + asked)
    first, last = map(int, shown.split("-"))
    assert got["ResponseMetadata"]["HTTPStatusCode"] == 206
    assert got["ContentRange"] == f"bytes {shown}/11"
    assert got["Body"].read() == data[first : last + 1]


def test_range_over_blocks(s3, bucket):
    data = os.urandom(3 << 20)
    s3.put_object(Bucket=bucket, Key="k", Body=data)
    for first, last in (((1 << 20) - 1, 1 << 20), (5, (3 << 20) - 6), (1 << 20, (2 << 20) - 1)):
        got = s3.get_object(Bucket=bucket, Key="k", Range=f"bytes={first}-{last}")["Body"].read()
        assert got == data[first : last + 1]


@pytest.mark.parametrize("size, asked", [(11, "bytes=11-"), (11, "bytes=12-20"), (0, "bytes=0-"), (11, "bytes=-0")])
def test_range_beyond_the_end(store, s3, bucket, size, asked):
    s3.put_object(Bucket=bucket, Key="k", Body=b"x" * size)
    reply = store.raw("GET", f"/{bucket}/k", headers={"Range": asked})
    assert reply.status == 416
    assert b"<Code>InvalidRange</Code><Message></Message><BucketName>" in reply.body
    assert "content-range" not in reply.headers


@pytest.mark.parametrize("asked", ["bytes=5-2", "bytes=x-", "lines=1-2", "bytes=0-1,3-4", "bytes=-"])
def test_ranges_that_are_ignored(store, s3, bucket, asked):
    s3.put_object(Bucket=bucket, Key="k", Body=b"whole")
    reply = store.raw("GET", f"/{bucket}/k", headers={"Range": asked})
    assert (reply.status, reply.body) == (200, b"whole")


def test_content_md5(store, s3, bucket):
    md5 = base64.b64encode(hashlib.md5(b"other").digest()).decode()
    assert refused(s3.put_object, Bucket=bucket, Key="k", Body=b"this", ContentMD5=md5) == ("BadDigest", 400)
    assert refused(s3.put_object, Bucket=bucket, Key="k", Body=b"this", ContentMD5="bad!") == ("InvalidDigest", 400)
    assert s3.list_objects_v2(Bucket=bucket)["KeyCount"] == 0
    md5 = base64.b64encode(hashlib.md5(b"this").digest()).decode()
    assert s3.put_object(Bucket=bucket, Key="k", Body=b"this", ContentMD5=md5)["ETag"]


def test_conditions(s3, bucket):
    etag = s3.put_object(Bucket=bucket, Key="k", Body=b"x")["ETag"]
    modified = s3.head_object(Bucket=bucket, Key="k")["LastModified"]
    other = '"0123456789abcdef0123456789abcdef"'
    get = {"Bucket": bucket, "Key": "k"}
    assert s3.get_object(**get, IfMatch=etag)["ContentLength"] == 1
    assert refused(s3.get_object, **get, IfMatch=other) == ("PreconditionFailed", 412)
    assert s3.get_object(**get, IfNoneMatch=other)["ContentLength"] == 1
    assert refused(s3.get_object, **get, IfNoneMatch=etag) == ("304", 304)
    assert refused(s3.head_object, **get, IfMatch=other) == ("412", 412)
    assert refused(s3.get_object, **get, IfModifiedSince=modified) == ("304", 304)
    assert s3.get_object(**get, IfUnmodifiedSince=modified)["ContentLength"] == 1
    import datetime

    hour = datetime.timedelta(hours=1)
    assert s3.get_object(**get, IfModifiedSince=modified - hour)["ContentLength"] == 1
    assert refused(s3.get_object, **get, IfUnmodifiedSince=modified - hour) == ("PreconditionFailed", 412)
    # An ETag that matches outranks the date.
    assert s3.get_object(**get, IfMatch=etag, IfUnmodifiedSince=modified - hour)["ContentLength"] == 1


def test_conditional_put(store, s3, bucket):
    assert store.raw("PUT", f"/{bucket}/k", headers={"If-None-Match": "*"}, body=b"1").status == 200
    assert store.raw("PUT", f"/{bucket}/k", headers={"If-None-Match": "*"}, body=b"2").status == 412
    assert store.raw("PUT", f"/{bucket}/k", headers={"If-Match": '"00"'}, body=b"3").status == 412
    assert s3.get_object(Bucket=bucket, Key="k")["Body"].read() == b"1"


def test_response_overrides(s3, bucket):
    s3.put_object(Bucket=bucket, Key="k", Body=b"x", ContentType="text/plain")
    got = s3.get_object(Bucket=bucket, Key="k", ResponseContentType="image/png")
    assert got["ContentType"] == "image/png"


def test_body_without_length(store, bucket):
    headers = store.signed("PUT", f"/{bucket}/k")
    import socket

    with socket.create_connection(("127.0.0.1", store.port), timeout=30) as peer:
        head = f"PUT /{bucket}/k HTTP/1.1\r\n" + "".join(f"{n}: {v}\r\n" for n, v in headers.items()) + "\r\n"
        peer.sendall(head.encode())
        assert peer.recv(65536).startswith(b"HTTP/1.1 411 ")


def test_transfer_encoding_chunked(store, s3, bucket):
    data = os.urandom(300000)
    pieces = iter([data[:100], data[100:200000], data[200000:]])
    reply = store.raw("PUT", f"/{bucket}/k", body=pieces, headers={"Transfer-Encoding": "chunked"})
    assert reply.status == 200
    assert s3.get_object(Bucket=bucket, Key="k")["Body"].read() == data


def test_body_cut_short_makes_no_object(store, s3, bucket):
    import socket

    headers = store.signed("PUT", f"/{bucket}/k", headers={"Content-Length": "1000"})
    with socket.create_connection(("127.0.0.1", store.port), timeout=30) as peer:
        head = f"PUT /{bucket}/k HTTP/1.1\r\n" + "".join(f"{n}: {v}\r\n" for n, v in headers.items()) + "\r\n"
        peer.sendall(head.encode() + b"x" * 999)
        peer.shutdown(socket.SHUT_WR)
        assert peer.recv(65536) == b""
    assert s3.list_objects_v2(Bucket=bucket)["KeyCount"] == 0
    assert [e["outcome"] for e in store.log() if e["path"] == f"/{bucket}/k"] == ["lost"]


def test_copy(store, s3, bucket):
    s3.put_object(Bucket=bucket, Key="a ü/+", Body=b"copied", ContentType="text/plain", Metadata={"m": "1"})
    source = {"Bucket": bucket, "Key": "a ü/+"}
    s3.create_bucket(Bucket=bucket + "-2")
    result = s3.copy_object(Bucket=bucket + "-2", Key="b", CopySource=source)["CopyObjectResult"]
    assert result["ETag"] == hashlib.md5(b"copied").hexdigest()
    got = s3.get_object(Bucket=bucket + "-2", Key="b")
    assert (got["Body"].read(), got["ContentType"], got["Metadata"]) == (b"copied", "text/plain", {"m": "1"})
    s3.copy_object(Bucket=bucket, Key="c", CopySource=source, MetadataDirective="REPLACE", Metadata={"n": "2"})
    got = s3.head_object(Bucket=bucket, Key="c")
    assert (got["ContentType"], got["Metadata"]) == ("binary/octet-stream", {"n": "2"})
    s3.copy_object(Bucket=bucket, Key="c", CopySource=source, StorageClass="GLACIER")
    assert s3.head_object(Bucket=bucket, Key="c")["StorageClass"] == "GLACIER"
    # Deleting the source leaves the copies whole.
    s3.delete_object(Bucket=bucket, Key="a ü/+")
    assert s3.get_object(Bucket=bucket + "-2", Key="b")["Body"].read() == b"copied"


def test_copy_refused(store, s3, bucket):
    s3.put_object(Bucket=bucket, Key="k", Body=b"x")
    missing = {"Bucket": bucket, "Key": "none"}
    assert refused(s3.copy_object, Bucket=bucket, Key="b", CopySource=missing) == ("NoSuchKey", 404)
    missing = {"Bucket": "no-such-bucket", "Key": "none"}
    assert refused(s3.copy_object, Bucket=bucket, Key="b", CopySource=missing) == ("NoSuchBucket", 404)
    itself = {"Bucket": bucket, "Key": "k"}
    assert refused(s3.copy_object, Bucket=bucket, Key="k", CopySource=itself) == ("InvalidRequest", 400)
    bob = store.s3(BOB)
    bob.create_bucket(Bucket=bucket + "-bob")
    assert refused(bob.copy_object, Bucket=bucket + "-bob", Key="k", CopySource=itself) == ("AccessDenied", 403)
    unchanged = {"CopySource": itself, "CopySourceIfMatch": '"00"'}
    assert refused(s3.copy_object, Bucket=bucket, Key="b", **unchanged) == ("PreconditionFailed", 412)


def test_copy_to_itself_with_new_metadata(s3, bucket):
    s3.put_object(Bucket=bucket, Key="k", Body=b"x")
    itself = {"Bucket": bucket, "Key": "k"}
    s3.copy_object(Bucket=bucket, Key="k", CopySource=itself, MetadataDirective="REPLACE", Metadata={"a": "b"})
    assert s3.head_object(Bucket=bucket, Key="k")["Metadata"] == {"a": "b"}


def test_key_length(s3, bucket):
    s3.put_object(Bucket=bucket, Key="k" * 1024, Body=b"x")
    assert refused(s3.put_object, Bucket=bucket, Key="k" * 1025, Body=b"x") == ("KeyTooLongError", 400)
