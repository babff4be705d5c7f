"""RNFR and RNTO: a copy inside the store, then a delete, against what boto3 then finds there."""

import ftplib
import io

import pytest

from stores import keys, random_bytes

# Names that careless code breaks in the header that names a copy's source.
NAMES = ["with blank", " edges ", "plus+plus", "100%", "%41", "%2F", "what?", "hash#tag", "a&b=c", "?versionId=null", "semi;colon",
         'double"quote', "single'quote", "back\\slash", "Grüße", "日本語", "🚀", "tilde~", "(paren)!*", "tab\there", "dir/below"]


def rename(ftp, source, target):
    """The reply to RNTO."""
    ftp.expect(350, f"RNFR {source}")
    return ftp.command(f"RNTO {target}")


@pytest.fixture
def faults(store):
    """Adds a rule for the dev store; all are gone after the test."""

    def add(action, count=1, **match):
        store.add_fault({**match, "count": count}, action)

    store.clear_faults()
    yield add
    store.clear_faults()


def test_metadata_and_content_stay(ftp, bucket, s3, stored):
    s3.put_object(Bucket=bucket, Key="old name", Body=b"content", ContentType="text/plain", Metadata={"mtime": "1000000000"})
    assert rename(ftp, f"/{bucket}/old name", f"/{bucket}/dir/new name+%").code == 250
    assert keys(s3, bucket) == ["dir/new name+%"]
    assert stored(bucket, "dir/new name+%") == b"content"
    renamed = s3.head_object(Bucket=bucket, Key="dir/new name+%")
    assert renamed["ContentType"] == "text/plain" and renamed["Metadata"] == {"mtime": "1000000000"}


@pytest.mark.parametrize("name", NAMES, ids=repr)
def test_names_as_source_and_as_target(ftp, bucket, s3, stored, name):
    content = name.encode()
    s3.put_object(Bucket=bucket, Key=name, Body=content)
    assert rename(ftp, f"/{bucket}/{name}", f"/{bucket}/plain").code == 250
    assert keys(s3, bucket) == ["plain"] and stored(bucket, "plain") == content
    assert rename(ftp, f"/{bucket}/plain", f"/{bucket}/{name}").code == 250
    assert keys(s3, bucket) == [name] and stored(bucket, name) == content


def test_between_buckets(ftp, bucket, new_bucket, s3, stored):
    other = new_bucket()
    s3.put_object(Bucket=bucket, Key="dir/a file", Body=b"content")
    assert rename(ftp, f"/{bucket}/dir/a file", f"/{other}/elsewhere/a+file").code == 250
    assert keys(s3, bucket) == [] and keys(s3, other) == ["elsewhere/a+file"]
    assert stored(other, "elsewhere/a+file") == b"content"


def test_relative_names(ftp, bucket, s3):
    s3.put_object(Bucket=bucket, Key="dir/one", Body=b"content")
    ftp.expect(250, f"CWD /{bucket}/dir")
    assert rename(ftp, "one", "../two").code == 250
    assert keys(s3, bucket) == ["two"]


def test_onto_another_object_replaces_it(ftp, bucket, s3, stored):
    s3.put_object(Bucket=bucket, Key="new", Body=b"new")
    s3.put_object(Bucket=bucket, Key="old", Body=b"old")
    assert rename(ftp, f"/{bucket}/new", f"/{bucket}/old").code == 250
    assert keys(s3, bucket) == ["old"] and stored(bucket, "old") == b"new"


@pytest.mark.parametrize("spelling", ["/{}/dir/file", "//{}//dir//file", "/{}/dir/./file", "/{}/x/../dir/file", "file"])
def test_onto_itself(ftp, bucket, s3, stored, spelling):
    s3.put_object(Bucket=bucket, Key="dir/file", Body=b"content")
    ftp.expect(250, f"CWD /{bucket}/dir")
    reply = rename(ftp, f"/{bucket}/dir/file", spelling.format(bucket))
    assert reply.lines == ["553-PATH_EXISTS", f"553-GridFTP-Path: /{bucket}/dir/file", "553 "]
    assert stored(bucket, "dir/file") == b"content"


def test_missing_source(ftp, bucket, s3):
    reply = rename(ftp, f"/{bucket}/missing", f"/{bucket}/other")
    assert reply.code == 550 and reply.word == "PATH_NOT_FOUND"
    assert reply.lines[1] == f'550-GridFTP-Path: "/{bucket}/missing"'
    assert keys(s3, bucket) == []


def test_missing_buckets(ftp, bucket, s3, stored):
    s3.put_object(Bucket=bucket, Key="file", Body=b"content")
    for source, target in ((f"/{bucket}/file", "/no-such-bucket-here/file"), ("/no-such-bucket-here/file", f"/{bucket}/new")):
        reply = rename(ftp, source, target)
        assert reply.code == 550 and reply.word == "PATH_NOT_FOUND", reply.lines
    assert keys(s3, bucket) == ["file"] and stored(bucket, "file") == b"content"


def test_order_of_the_two_commands(ftp, bucket, s3):
    s3.put_object(Bucket=bucket, Key="file", Body=b"content")
    assert ftp.command(f"RNTO /{bucket}/other").code == 503
    assert rename(ftp, f"/{bucket}/missing", f"/{bucket}/other").code == 550
    assert ftp.command(f"RNTO /{bucket}/other").code == 503  # the first RNTO has used it up
    ftp.expect(350, f"RNFR /{bucket}/missing")
    assert rename(ftp, f"/{bucket}/file", f"/{bucket}/other").code == 250  # the last RNFR counts
    assert keys(s3, bucket) == ["other"]


@pytest.mark.devstore_only(reason="looks into the dev store's log of requests")
def test_rnfr_asks_the_store_nothing(ftp, bucket, store):
    store.forget_requests()
    ftp.expect(350, f"RNFR /{bucket}/missing")
    ftp.expect(350, "RNFR /no-such-bucket-here/missing")
    assert store.requests() == []


def test_paths_without_a_key(ftp, bucket, s3, stored):
    s3.put_object(Bucket=bucket, Key="file", Body=b"content")
    for source in (f"/{bucket}", f"/{bucket}/", "/", "//", f"/{bucket}/x/.."):
        assert rename(ftp, source, f"/{bucket}/new").lines == ["550 Invalid source filename"]
    for target in (f"/{bucket}", f"/{bucket}/", "/"):
        assert rename(ftp, f"/{bucket}/file", target).lines == ["550 Invalid destination filename"]
    assert keys(s3, bucket) == ["file"] and stored(bucket, "file") == b"content"


def test_directories_are_not_moved_as_trees(ftp, bucket, s3):
    s3.put_object(Bucket=bucket, Key="dir/", Body=b"")
    s3.put_object(Bucket=bucket, Key="dir/file", Body=b"content")
    for source in ("dir", "dir/"):
        assert rename(ftp, f"/{bucket}/{source}", f"/{bucket}/moved").word == "PATH_NOT_FOUND"
    assert keys(s3, bucket) == ["dir/", "dir/file"]


def test_buckets_that_the_policy_does_not_name(login, server, bucket, s3, stored):
    allowed = server.allowed_buckets[0]
    if allowed not in [entry["Name"] for entry in s3.list_buckets()["Buckets"]]:
        s3.create_bucket(Bucket=allowed)
    restricted = login(host="restricted.test")
    s3.put_object(Bucket=bucket, Key="file", Body=b"content")
    s3.put_object(Bucket=allowed, Key="to-rename", Body=b"content")
    for source, target in ((f"/{bucket}/file", f"/{allowed}/taken"), (f"/{allowed}/to-rename", f"/{bucket}/given")):
        reply = rename(restricted, source, target)
        assert reply.code == 550 and reply.word == "PERMISSION_DENIED"
        assert reply.last == "Zorvan-S3-Error: Bucket not allowed."
    assert keys(s3, bucket) == ["file"] and stored(allowed, "to-rename") == b"content"
    s3.delete_object(Bucket=allowed, Key="to-rename")


def test_object_of_somebody_else(ftp, bucket, new_bucket, store, s3):
    foreign = new_bucket("bob")
    store.client("bob").put_object(Bucket=foreign, Key="file", Body=b"bob's")
    assert rename(ftp, f"/{foreign}/file", f"/{bucket}/file").word == "PERMISSION_DENIED"
    assert keys(s3, bucket) == [] and keys(store.client("bob"), foreign) == ["file"]


# -- failures at each of the two steps -----------------------------------------------------------------------------------
DENIED = "<Error><Code>AccessDenied</Code><Message>no</Message></Error>"
needs_faults = pytest.mark.devstore_only(reason="the faults are scripted in the dev store")


@needs_faults
def test_refused_copy_leaves_everything(ftp, bucket, s3, faults):
    s3.put_object(Bucket=bucket, Key="old", Body=b"content")
    faults({"status": 403, "body": DENIED}, method="PUT", path="/new$")
    assert rename(ftp, f"/{bucket}/old", f"/{bucket}/new").word == "PERMISSION_DENIED"
    assert keys(s3, bucket) == ["old"]


@needs_faults
def test_refused_delete_is_told_and_leaves_both(ftp, bucket, s3, faults):
    s3.put_object(Bucket=bucket, Key="old", Body=b"content")
    faults({"status": 403, "body": DENIED}, method="DELETE", path="/old$")
    reply = rename(ftp, f"/{bucket}/old", f"/{bucket}/new")
    assert reply.code == 550 and reply.word == "PERMISSION_DENIED"
    assert keys(s3, bucket) == ["new", "old"]


@needs_faults
@pytest.mark.parametrize("method, path", [("PUT", "/new$"), ("DELETE", "/old$")])
def test_one_refusal_is_retried(ftp, bucket, s3, faults, method, path):
    s3.put_object(Bucket=bucket, Key="old", Body=b"content")
    faults({"status": 503}, method=method, path=path)
    assert rename(ftp, f"/{bucket}/old", f"/{bucket}/new").code == 250
    assert keys(s3, bucket) == ["new"]


@needs_faults
@pytest.mark.parametrize("method, path, left", [("PUT", "/new$", ["old"]), ("DELETE", "/old$", ["new", "old"])])
def test_store_that_stays_busy(ftp, bucket, s3, faults, method, path, left):
    s3.put_object(Bucket=bucket, Key="old", Body=b"content")
    faults({"status": 503, "body": "<Error><Code>SlowDown</Code></Error>"}, count=0, method=method, path=path)
    reply = rename(ftp, f"/{bucket}/old", f"/{bucket}/new")
    assert reply.code == 451 and reply.word == "TOO_BUSY"
    assert keys(s3, bucket) == left


@needs_faults
def test_copy_that_fails_after_its_headers(ftp, bucket, s3, faults):
    """200 with an error in the body: the copy was not made, so the source must stay."""
    s3.put_object(Bucket=bucket, Key="old", Body=b"content")
    faults({"status": 200, "body": DENIED}, method="PUT", path="/new$")
    assert rename(ftp, f"/{bucket}/old", f"/{bucket}/new").word == "PERMISSION_DENIED"
    assert keys(s3, bucket) == ["old"]


@pytest.mark.devstore_only(reason="the RADOS Gateway copies larger objects too")
def test_object_too_large_to_be_copied(ftp, bucket, s3, store):
    store.make_sparse(bucket, "huge", (5 << 30) + 1)
    store.make_sparse(bucket, "large", 5 << 30)
    reply = rename(ftp, f"/{bucket}/huge", f"/{bucket}/moved")
    assert reply.code == 550 and "InvalidRequest" in reply.text, reply.lines
    assert f"/{bucket}/huge" in reply.text
    assert keys(s3, bucket) == ["huge", "large"]
    assert rename(ftp, f"/{bucket}/large", f"/{bucket}/moved").code == 250
    assert keys(s3, bucket) == ["huge", "moved"]


# -- uploads under a temporary name --------------------------------------------------------------------------------------
@pytest.mark.parametrize("announced", [True, False])
@pytest.mark.parametrize("temporary", ["report.pdf.filepart", ".report.pdf.3f2a", "dir of uploads/report.pdf~"])
def test_upload_then_rename(ftp, bucket, s3, stored, temporary, announced):
    """What desktop clients do so that nobody sees half a file."""
    content = random_bytes(300000)
    assert ftp.store(f"/{bucket}/{temporary}", content, allocate=len(content) if announced else None).code == 226
    assert rename(ftp, f"/{bucket}/{temporary}", f"/{bucket}/report.pdf").code == 250
    assert keys(s3, bucket) == ["report.pdf"] and stored(bucket, "report.pdf") == content
    assert ftp.command(f"SIZE /{bucket}/report.pdf").last == str(len(content))
    # The second upload of the same file replaces the first.
    content = random_bytes(1000)
    assert ftp.store(f"/{bucket}/{temporary}", content, allocate=1000 if announced else None).code == 226
    assert rename(ftp, f"/{bucket}/{temporary}", f"/{bucket}/report.pdf").code == 250
    assert keys(s3, bucket) == ["report.pdf"] and stored(bucket, "report.pdf") == content


def test_ftplib_uploads_then_renames(pyftp, bucket, s3, stored):
    pyftp.storbinary(f"STOR /{bucket}/part", io.BytesIO(b"content"))
    assert pyftp.rename(f"/{bucket}/part", f"/{bucket}/whole").startswith("250")
    assert keys(s3, bucket) == ["whole"] and stored(bucket, "whole") == b"content"
    with pytest.raises(ftplib.error_perm, match="550"):
        pyftp.rename(f"/{bucket}/part", f"/{bucket}/whole")
