"""MKD, RMD, DELE, RNFR and RNTO, and the checksum commands, against what boto3 then finds in the store."""

import hashlib

import botocore.exceptions
import pytest

from ftp_client import FtpClient
from stores import random_bytes


def keys(s3, bucket):
    return [entry["Key"] for entry in s3.list_objects_v2(Bucket=bucket).get("Contents", [])]


def test_make_directory(ftp, bucket, s3):
    reply = ftp.expect(257, f"MKD /{bucket}/new dir")
    assert reply.last.startswith(f'"/{bucket}/new dir"')
    assert keys(s3, bucket) == ["new dir/"]
    placeholder = s3.head_object(Bucket=bucket, Key="new dir/")
    assert placeholder["ContentLength"] == 0
    assert placeholder["ContentType"] == "application/x-zorvan-dir-placeholder"
    assert ftp.facts(f"/{bucket}")["new dir"]["type"] == "dir"
    assert ftp.command(f"CWD /{bucket}/new dir").code == 250
    assert ftp.listing("NLST") == []
    ftp.expect(257, "XMKD deeper")
    assert keys(s3, bucket) == ["new dir/", "new dir/deeper/"]


def test_remove_directory(ftp, bucket, s3):
    ftp.expect(257, f"MKD /{bucket}/dir")
    ftp.expect(250, f"RMD /{bucket}/dir")
    assert keys(s3, bucket) == []
    assert ftp.command(f"CWD /{bucket}/dir").code == 550


def test_remove_directory_leaves_what_is_below(ftp, bucket, s3):
    s3.put_object(Bucket=bucket, Key="dir/", Body=b"")
    s3.put_object(Bucket=bucket, Key="dir/file", Body=b"x")
    ftp.expect(250, f"RMD /{bucket}/dir")
    assert keys(s3, bucket) == ["dir/file"]
    assert ftp.listing("NLST", f"/{bucket}/dir") == ["file"]


def test_make_and_remove_a_bucket(ftp, s3, store):
    ftp.expect(257, f"MKD /made-over-ftp-{store.name}")
    assert s3.head_bucket(Bucket=f"made-over-ftp-{store.name}")
    assert f"made-over-ftp-{store.name}" in ftp.listing("NLST", "/")
    ftp.expect(250, f"RMD /made-over-ftp-{store.name}")
    with pytest.raises(botocore.exceptions.ClientError):
        s3.head_bucket(Bucket=f"made-over-ftp-{store.name}")


def test_bucket_of_somebody_else(ftp, new_bucket):
    bucket = new_bucket("bob")
    reply = ftp.command(f"MKD /{bucket}")
    assert reply.code == 553 and reply.word == "PATH_EXISTS", reply.lines
    assert ftp.command(f"RMD /{bucket}").word == "PERMISSION_DENIED"


def test_bucket_that_is_not_empty_stays(ftp, bucket, s3):
    s3.put_object(Bucket=bucket, Key="file", Body=b"x")
    assert ftp.command(f"RMD /{bucket}").code == 550
    assert keys(s3, bucket) == ["file"]


def test_delete(ftp, bucket, s3):
    s3.put_object(Bucket=bucket, Key="dir/a file", Body=b"x")
    s3.put_object(Bucket=bucket, Key="other", Body=b"x")
    ftp.expect(250, f"DELE /{bucket}/dir/a file")
    assert keys(s3, bucket) == ["other"]
    assert ftp.command(f"DELE /{bucket}/other/").code == 550
    assert ftp.command(f"DELE /{bucket}").code == 550
    assert keys(s3, bucket) == ["other"]
    reply = ftp.command("DELE /no-such-bucket-here/file")
    assert reply.code == 550 and reply.word == "PATH_NOT_FOUND"


def test_rename(ftp, bucket, s3, stored):
    s3.put_object(Bucket=bucket, Key="old name", Body=b"content", ContentType="text/plain", Metadata={"mtime": "1000000000"})
    ftp.expect(350, f"RNFR /{bucket}/old name")
    ftp.expect(250, f"RNTO /{bucket}/dir/new name+%")
    assert keys(s3, bucket) == ["dir/new name+%"]
    assert stored(bucket, "dir/new name+%") == b"content"
    renamed = s3.head_object(Bucket=bucket, Key="dir/new name+%")
    assert renamed["ContentType"] == "text/plain" and renamed["Metadata"] == {"mtime": "1000000000"}


def test_rename_to_another_bucket(ftp, bucket, new_bucket, s3, stored):
    other = new_bucket()
    s3.put_object(Bucket=bucket, Key="file", Body=b"content")
    ftp.expect(350, f"RNFR /{bucket}/file")
    ftp.expect(250, f"RNTO /{other}/file")
    assert keys(s3, bucket) == [] and stored(other, "file") == b"content"


def test_rename_that_fails_loses_nothing(ftp, bucket, s3, stored):
    s3.put_object(Bucket=bucket, Key="file", Body=b"content")
    ftp.expect(350, f"RNFR /{bucket}/file")
    assert ftp.command("RNTO /no-such-bucket-here/file").code == 550
    ftp.expect(350, f"RNFR /{bucket}/file")
    reply = ftp.command(f"RNTO /{bucket}/file")
    assert reply.code == 553 and reply.word == "PATH_EXISTS"
    assert stored(bucket, "file") == b"content"
    assert ftp.command(f"RNFR /{bucket}/missing").code == 550
    assert ftp.command(f"RNTO /{bucket}/other").code == 503
    assert keys(s3, bucket) == ["file"]


def test_forbidden_buckets_cannot_be_changed(login, bucket, s3):
    s3.put_object(Bucket=bucket, Key="file", Body=b"x")
    restricted = login(host="restricted.test")
    for line in (f"MKD /{bucket}/dir", f"RMD /{bucket}", f"DELE /{bucket}/file", "MKD /brand-new-bucket"):
        reply = restricted.command(line)
        assert reply.code == 550 and reply.word == "PERMISSION_DENIED", (line, reply.lines)
    assert keys(s3, bucket) == ["file"]


def final_checksum(ftp: FtpClient, line):
    """The reply that ends a checksum command; progress before it is skipped."""
    reply = ftp.command(line)
    while reply.code == 113:
        reply = ftp.read_reply()
    return reply


@pytest.mark.parametrize("size", [0, 5, 3 << 20])
def test_checksum_of_a_whole_object(ftp, bucket, s3, size):
    content = random_bytes(size)
    s3.put_object(Bucket=bucket, Key="file", Body=content)
    digest = hashlib.md5(content).hexdigest()
    reply = final_checksum(ftp, f"CKSM MD5 0 -1 /{bucket}/file")
    assert (reply.code, reply.last.lower()) == (213, digest)
    assert digest in final_checksum(ftp, f"XMD5 /{bucket}/file").text.lower()


def test_checksum_of_a_range(ftp, bucket, s3):
    content = random_bytes(1 << 20)
    s3.put_object(Bucket=bucket, Key="file", Body=content)
    reply = final_checksum(ftp, f"CKSM MD5 1000 5000 /{bucket}/file")
    assert (reply.code, reply.last.lower()) == (213, hashlib.md5(content[1000:6000]).hexdigest())


def test_checksum_of_an_object_in_parts(ftp, bucket, s3):
    """Its ETag is no MD5 of the content: the server has to read it, and may remember."""
    parts = [random_bytes(5 << 20), random_bytes(1 << 20)]
    upload = s3.create_multipart_upload(Bucket=bucket, Key="file")["UploadId"]
    tags = [{"PartNumber": number, "ETag": s3.upload_part(Bucket=bucket, Key="file", UploadId=upload, PartNumber=number,
                                                          Body=part)["ETag"]} for number, part in enumerate(parts, 1)]
    s3.complete_multipart_upload(Bucket=bucket, Key="file", UploadId=upload, MultipartUpload={"Parts": tags})
    content = b"".join(parts)
    digest = hashlib.md5(content).hexdigest()
    assert final_checksum(ftp, f"CKSM MD5 0 -1 /{bucket}/file").last.lower() == digest
    assert ftp.retrieve(f"/{bucket}/file") == content
    assert final_checksum(ftp, f"CKSM MD5 0 -1 /{bucket}/file").last.lower() == digest
    s3.put_object(Bucket=bucket, Key="file", Body=b"changed")
    assert final_checksum(ftp, f"CKSM MD5 0 -1 /{bucket}/file").last.lower() == hashlib.md5(b"changed").hexdigest()


def test_checksum_refusals(ftp, bucket):
    assert final_checksum(ftp, f"CKSM MD5 0 -1 /{bucket}/missing").word == "PATH_NOT_FOUND"
    assert 500 <= final_checksum(ftp, f"CKSM CRC32 0 -1 /{bucket}/missing").code < 600
    assert 500 <= final_checksum(ftp, "CKSM MD5").code < 600
