"""Multipart uploads, including what the gateway does differently from S3."""

import hashlib
import io
import os

import pytest
from botocore.exceptions import ClientError
from test_objects import refused

FIVE = 5 << 20


def part_md5s(*parts):
    return [hashlib.md5(p).digest() for p in parts]


def multipart_etag(*parts):
    return hashlib.md5(b"".join(part_md5s(*parts))).hexdigest() + f"-{len(parts)}"


@pytest.fixture
def upload(s3, bucket):
    class Upload:
        def __init__(self):
            self.id = s3.create_multipart_upload(
                Bucket=bucket, Key="dir/k", ContentType="text/plain", Metadata={"m": "1"}, StorageClass="GLACIER"
            )["UploadId"]
            self.where = {"Bucket": bucket, "Key": "dir/k", "UploadId": self.id}
            self.parts = {}

        def put(self, number, data):
            etag = s3.upload_part(**self.where, PartNumber=number, Body=data)["ETag"]
            assert etag == f'"{hashlib.md5(data).hexdigest()}"'
            self.parts[number] = etag
            return etag

        def document(self, *numbers):
            numbers = numbers or sorted(self.parts)
            return {"Parts": [{"PartNumber": n, "ETag": self.parts.get(n, '"00"')} for n in numbers]}

        def complete(self, *numbers):
            return s3.complete_multipart_upload(**self.where, MultipartUpload=self.document(*numbers))

    return Upload()


def test_complete(s3, bucket, upload):
    first, second, third = os.urandom(FIVE), bytes(FIVE), b"tail"
    for number, data in ((7, third), (2, first), (3, second)):
        upload.put(number, data)
    assert "Contents" not in s3.list_objects_v2(Bucket=bucket)
    result = upload.complete()
    assert result["ETag"] == ""
    assert result["Location"] == f"s3.localhost/{bucket}/dir/k"
    etag = multipart_etag(first, second, third)
    head = s3.head_object(Bucket=bucket, Key="dir/k")
    assert head["ETag"] == f'"{etag}"'
    assert (head["ContentType"], head["Metadata"], head["StorageClass"]) == ("text/plain", {"m": "1"}, "GLACIER")
    assert s3.get_object(Bucket=bucket, Key="dir/k")["Body"].read() == first + second + third
    over_the_seam = s3.get_object(Bucket=bucket, Key="dir/k", Range=f"bytes={FIVE - 3}-{FIVE + 2}")["Body"].read()
    assert over_the_seam == first[-3:] + second[:3]
    # Repeated, the commit names the ETag, without quotes.
    assert upload.complete()["ETag"] == etag
    assert refused(s3.list_parts, **upload.where) == ("NoSuchKey", 404)
    assert refused(s3.abort_multipart_upload, **upload.where) == ("NoSuchUpload", 404)


def test_a_part_sent_again_replaces_the_first(s3, bucket, upload):
    upload.put(1, b"old")
    upload.put(1, b"new one")
    upload.complete()
    assert s3.get_object(Bucket=bucket, Key="dir/k")["Body"].read() == b"new one"


def test_parts_in_any_order(s3, bucket, upload):
    upload.put(1, bytes(FIVE))
    upload.put(2, b"end")
    upload.complete(2, 1)
    assert s3.head_object(Bucket=bucket, Key="dir/k")["ContentLength"] == FIVE + 3


def test_commits_that_are_refused(s3, bucket, upload):
    upload.put(1, b"small")
    upload.put(2, b"end")
    assert refused(upload.complete) == ("EntityTooSmall", 400)
    assert refused(lambda: upload.complete(1)) == ("InvalidPart", 400)
    assert refused(lambda: upload.complete(1, 2, 3)) == ("InvalidPart", 400)
    upload.parts[2] = '"0123456789abcdef0123456789abcdef"'
    assert refused(upload.complete) == ("InvalidPart", 400)
    assert "Contents" not in s3.list_objects_v2(Bucket=bucket)


@pytest.mark.parametrize("document", [b"", b"<CompleteMultipartUpload/>", b"<Other/>", b"<CompleteMultipartUpload><Part>"])
def test_malformed_commit(store, bucket, upload, document):
    reply = store.raw("POST", f"/{bucket}/dir/k?uploadId={upload.id}", body=document)
    assert (reply.status, b"MalformedXML" in reply.body) == (400, True)


def test_unquoted_etags(store, s3, bucket, upload):
    etag = upload.put(1, b"x").strip('"')
    part = f"<Part><PartNumber>1</PartNumber><ETag>{etag}</ETag></Part>"
    body = f"<CompleteMultipartUpload>{part}</CompleteMultipartUpload>".encode()
    assert store.raw("POST", f"/{bucket}/dir/k?uploadId={upload.id}", body=body).status == 200
    assert s3.head_object(Bucket=bucket, Key="dir/k")["ContentLength"] == 1


def test_abort(s3, bucket, upload):
    upload.put(1, b"x")
    assert s3.abort_multipart_upload(**upload.where)["ResponseMetadata"]["HTTPStatusCode"] == 204
    assert refused(s3.abort_multipart_upload, **upload.where) == ("NoSuchUpload", 404)
    assert refused(s3.upload_part, **upload.where, PartNumber=1, Body=b"x") == ("NoSuchUpload", 404)
    assert refused(upload.complete) == ("NoSuchUpload", 404)


@pytest.mark.parametrize("number", ["0", "10001", "x", ""])
def test_part_numbers(store, bucket, upload, number):
    reply = store.raw("PUT", f"/{bucket}/dir/k?partNumber={number}&uploadId={upload.id}", body=b"x")
    assert (reply.status, b"InvalidArgument" in reply.body) == (400, True)


def test_list_parts(s3, upload):
    for number in (1, 3, 5, 9):
        upload.put(number, b"x" * number)
    page = s3.list_parts(**upload.where, MaxParts=2)
    assert [(p["PartNumber"], p["Size"], p["ETag"]) for p in page["Parts"]] == [
        (1, 1, upload.parts[1]),
        (3, 3, upload.parts[3]),
    ]
    assert (page["IsTruncated"], page["NextPartNumberMarker"], page["StorageClass"]) == (True, 3, "GLACIER")
    page = s3.list_parts(**upload.where, PartNumberMarker=3)
    assert [p["PartNumber"] for p in page["Parts"]] == [5, 9]
    # The marker is there even when there is no next page.
    assert (page["IsTruncated"], page["NextPartNumberMarker"]) == (False, 9)


@pytest.fixture
def uploads(s3, bucket):
    ids = {}
    for key in ("b", "a", "d/x", "a", "c", "d/y"):
        ids.setdefault(key, []).append(s3.create_multipart_upload(Bucket=bucket, Key=key)["UploadId"])
    return [(key, upload_id) for key in sorted(ids) for upload_id in sorted(ids[key])]


def listed(page):
    return [(u["Key"], u["UploadId"]) for u in page.get("Uploads", [])]


def test_list_uploads(s3, bucket, uploads):
    page = s3.list_multipart_uploads(Bucket=bucket)
    assert listed(page) == uploads
    assert page["Uploads"][0]["Initiator"]["ID"] == "alice"
    assert listed(s3.list_multipart_uploads(Bucket=bucket, Prefix="d/")) == uploads[4:]


@pytest.mark.parametrize("limit", [1, 2, 5, 6])
def test_pages_of_uploads(s3, bucket, uploads, limit):
    seen = []
    for page in s3.get_paginator("list_multipart_uploads").paginate(
        Bucket=bucket, PaginationConfig={"PageSize": limit}
    ):
        assert len(listed(page)) <= limit
        seen += listed(page)
    assert seen == uploads


def test_deeper_uploads_are_dropped(s3, bucket, uploads):
    page = s3.list_multipart_uploads(Bucket=bucket, Delimiter="/")
    assert listed(page) == uploads[:4]
    assert "CommonPrefixes" not in page


def test_key_marker_alone_repeats_its_key(s3, bucket, uploads):
    assert listed(s3.list_multipart_uploads(Bucket=bucket, KeyMarker="a")) == uploads


def test_the_aws_way(make_store):
    store = make_store("--region-mode", "aws", "--min-part-size", "3")
    s3 = store.s3()
    s3.create_bucket(Bucket="bucket")
    ids = {k: s3.create_multipart_upload(Bucket="bucket", Key=k)["UploadId"] for k in ("a", "d/x", "d/y", "e")}
    page = s3.list_multipart_uploads(Bucket="bucket", Delimiter="/")
    assert [u["Key"] for u in page["Uploads"]] == ["a", "e"]
    assert [p["Prefix"] for p in page["CommonPrefixes"]] == ["d/"]
    page = s3.list_multipart_uploads(Bucket="bucket", KeyMarker="d/x")
    assert [u["Key"] for u in page["Uploads"]] == ["d/y", "e"]
    where = {"Bucket": "bucket", "Key": "a", "UploadId": ids["a"]}
    etags = [s3.upload_part(**where, PartNumber=n, Body=b"xyz")["ETag"] for n in (1, 2, 3)]
    parts = [{"PartNumber": n, "ETag": etags[n - 1]} for n in (2, 1)]
    assert refused(s3.complete_multipart_upload, **where, MultipartUpload={"Parts": parts}) == ("InvalidPartOrder", 400)
    result = s3.complete_multipart_upload(**where, MultipartUpload={"Parts": parts[::-1]})
    assert result["ETag"] == f'"{multipart_etag(b"xyz", b"xyz")}"'
    assert s3.get_object(Bucket="bucket", Key="a")["Body"].read() == b"xyzxyz"


def test_complete_etag_option(make_store):
    s3 = make_store("--complete-etag").s3()
    s3.create_bucket(Bucket="bucket")
    where = {"Bucket": "bucket", "Key": "k"}
    where["UploadId"] = s3.create_multipart_upload(**where)["UploadId"]
    etag = s3.upload_part(**where, PartNumber=1, Body=b"x")["ETag"]
    parts = {"Parts": [{"PartNumber": 1, "ETag": etag}]}
    assert s3.complete_multipart_upload(**where, MultipartUpload=parts)["ETag"] == f'"{multipart_etag(b"x")}"'


def test_part_copy(s3, bucket, upload):
    data = os.urandom(FIVE + 1000)
    s3.put_object(Bucket=bucket, Key="source", Body=data)
    source = {"Bucket": bucket, "Key": "source"}
    copied = s3.upload_part_copy(
        **upload.where, PartNumber=1, CopySource=source, CopySourceRange=f"bytes=10-{FIVE + 9}"
    )["CopyPartResult"]["ETag"]
    assert copied == hashlib.md5(data[10 : FIVE + 10]).hexdigest()
    upload.parts[1] = copied
    whole = s3.upload_part_copy(**upload.where, PartNumber=2, CopySource=source)
    upload.parts[2] = whole["CopyPartResult"]["ETag"]
    beyond = {"CopySourceRange": f"bytes=0-{len(data)}"}
    assert refused(s3.upload_part_copy, **upload.where, PartNumber=3, CopySource=source, **beyond)[0] == "InvalidRange"
    upload.complete()
    s3.delete_object(Bucket=bucket, Key="source")
    assert s3.get_object(Bucket=bucket, Key="dir/k")["Body"].read() == data[10 : FIVE + 10] + data


def test_boto3_transfer(s3, bucket):
    data = os.urandom(21 << 20)
    s3.upload_fileobj(io.BytesIO(data), bucket, "k")
    assert s3.head_object(Bucket=bucket, Key="k")["ETag"].endswith('-3"')
    out = io.BytesIO()
    s3.download_fileobj(bucket, "k", out)
    assert out.getvalue() == data


def test_bucket_with_uploads_can_go(s3, bucket, upload):
    upload.put(1, b"x")
    s3.delete_bucket(Bucket=bucket)
    s3.create_bucket(Bucket=bucket)
    assert "Uploads" not in s3.list_multipart_uploads(Bucket=bucket)
    assert refused(s3.upload_part, **upload.where, PartNumber=1, Body=b"x") == ("NoSuchUpload", 404)
