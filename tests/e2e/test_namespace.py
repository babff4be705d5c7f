"""MKD, RMD and DELE, and what lftp, curl and ftplib make of them, against what boto3 then finds in the store."""

import ftplib
import io

import botocore.exceptions
import pytest

from stores import keys


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


def test_forbidden_buckets_cannot_be_changed(login, bucket, s3):
    s3.put_object(Bucket=bucket, Key="file", Body=b"x")
    restricted = login(host="restricted.test")
    for line in (f"MKD /{bucket}/dir", f"RMD /{bucket}", f"DELE /{bucket}/file", "MKD /brand-new-bucket"):
        reply = restricted.command(line)
        assert reply.code == 550 and reply.word == "PERMISSION_DENIED", (line, reply.lines)
    assert keys(s3, bucket) == ["file"]


def test_quotes_in_the_reply_are_doubled(ftp, bucket, s3):
    """RFC 959, appendix II."""
    assert ftp.expect(257, f'MKD /{bucket}/say "hi"').last.startswith(f'"/{bucket}/say ""hi""" ')
    assert keys(s3, bucket) == ['say "hi"/']
    ftp.expect(250, f'CWD /{bucket}/say "hi"')
    assert ftp.expect(257, "PWD").last.startswith(f'"/{bucket}/say ""hi""" ')


@pytest.mark.parametrize("name", ["with blank", "plus+", "100%", "what?", "hash#tag", "Grüße", "日本語", "a&b=c", "tilde~"])
def test_names(ftp, bucket, s3, name):
    ftp.expect(257, f"MKD /{bucket}/{name}")
    assert keys(s3, bucket) == [f"{name}/"]
    s3.put_object(Bucket=bucket, Key=f"{name}/{name}", Body=b"x")
    ftp.expect(250, f"DELE /{bucket}/{name}/{name}")
    ftp.expect(250, f"XRMD /{bucket}/{name}")
    assert keys(s3, bucket) == []


@pytest.mark.parametrize("typed", ["{}/dir", "/{}/dir/", "//{}//dir", "/{}/./dir", "/{}/x/../dir"])
def test_spellings_of_one_directory(ftp, bucket, s3, typed):
    ftp.expect(250, "CWD /")
    ftp.expect(257, "MKD " + typed.format(bucket))
    assert keys(s3, bucket) == ["dir/"]
    ftp.expect(250, "RMD " + typed.format(bucket))
    assert keys(s3, bucket) == []


def test_directory_is_made_twice(ftp, bucket, s3):
    """Nothing looks whether it is there."""
    for _ in range(2):
        ftp.expect(257, f"MKD /{bucket}/dir")
    assert keys(s3, bucket) == ["dir/"]
    for _ in range(2):
        ftp.expect(250, f"RMD /{bucket}/dir")
    ftp.expect(250, f"RMD /{bucket}/never-made")


def test_own_bucket_is_made_again(ftp, bucket, store):
    """Stores differ: the RADOS Gateway confirms a bucket that its owner has already."""
    reply = ftp.command(f"MKD /{bucket}")
    assert reply.code == 257 or reply.word == "PATH_EXISTS", reply.lines


def test_missing_buckets(ftp):
    for line in ("MKD /no-such-bucket-here/dir", "RMD /no-such-bucket-here", "RMD /no-such-bucket-here/dir",
                 "DELE /no-such-bucket-here/file"):
        reply = ftp.command(line)
        assert reply.code == 550 and reply.word == "PATH_NOT_FOUND", (line, reply.lines)


def test_root_and_names_that_no_bucket_has(ftp, bucket, s3):
    for line in ("MKD /", "RMD /", "DELE /", "MKD //", "RMD //", "MKD /ab", "MKD /UPPER/..", "RMD /-x"):
        assert ftp.command(line).code in (550, 553), line
    for line in ("MKD", "MKD ", "RMD", "DELE", "RNFR", "RNTO"):
        assert ftp.command(line).code == 501, line
    assert ftp.command(b"MKD /" + bucket.encode() + b"/a\0b").code in (501, 553)
    assert keys(s3, bucket) == []


def test_delete_of_names_that_are_no_files(ftp, bucket, s3):
    s3.put_object(Bucket=bucket, Key="dir/", Body=b"")
    s3.put_object(Bucket=bucket, Key="dir/file", Body=b"x")
    for path in (f"/{bucket}", f"/{bucket}/", f"/{bucket}/dir/", "/", f"/{bucket}/dir/file/", f"/{bucket}/x/.."):
        assert ftp.command(f"DELE {path}").code == 550, path
    assert keys(s3, bucket) == ["dir/", "dir/file"]
    assert s3.head_bucket(Bucket=bucket)


# -- programs ------------------------------------------------------------------------------------------------------------
TREE = ["one", "dir/", "dir/two", "dir/sub dir/", "dir/sub dir/three", "dir/sub dir/ü", "other/four"]


@pytest.fixture
def tree(bucket, s3):
    for key in TREE:
        s3.put_object(Bucket=bucket, Key=key, Body=b"" if key.endswith("/") else key.encode())
    return bucket


def test_lftp_moves_a_file(lftp, tree, s3, stored):
    lftp(f'mv {tree}/one "{tree}/dir/one more"')
    assert stored(tree, "dir/one more") == b"one" and stored(tree, "one") is None


def test_lftp_cannot_move_a_directory(lftp, tree, s3):
    done = lftp(f"mv {tree}/other {tree}/elsewhere", check=False)
    assert done.returncode == 1 and b"550" in done.stderr
    assert keys(s3, tree) == sorted(TREE)


def test_lftp_removes_a_tree(lftp, tree, s3):
    lftp(f"rm -r {tree}/dir")
    assert keys(s3, tree) == ["one", "other/four"]


def test_lftp_makes_and_removes(lftp, bucket, s3):
    lftp(f"mkdir -p {bucket}/a/b/c")
    assert keys(s3, bucket) == ["a/", "a/b/", "a/b/c/"]
    lftp(f"rmdir {bucket}/a/b/c {bucket}/a/b {bucket}/a")
    assert keys(s3, bucket) == []


def test_lftp_makes_and_removes_a_bucket(lftp, s3, store):
    name = f"made-by-lftp-{store.name}"
    lftp(f"mkdir {name}")
    assert s3.head_bucket(Bucket=name)
    lftp(f"rmdir {name}")
    with pytest.raises(botocore.exceptions.ClientError):
        s3.head_bucket(Bucket=name)


def test_lftp_mirrors_and_deletes_here(lftp, tree, tmp_path):
    copy = tmp_path / "copy"
    (copy / "dir").mkdir(parents=True)
    (copy / "surplus").write_bytes(b"x")
    (copy / "dir" / "surplus too").write_bytes(b"x")
    lftp(f"mirror --delete {tree} copy")
    found = sorted(str(path.relative_to(copy)) for path in copy.rglob("*") if path.is_file())
    assert found == sorted(key for key in TREE if not key.endswith("/"))


def test_lftp_mirrors_and_deletes_there(lftp, tree, s3, stored, tmp_path):
    source = tmp_path / "source"
    (source / "dir").mkdir(parents=True)
    (source / "dir" / "two").write_bytes(b"another two")
    (source / "new").write_bytes(b"new")
    lftp(f"mirror -R --delete --no-perms source {tree}")
    assert [key for key in keys(s3, tree) if not key.endswith("/")] == ["dir/two", "new"]
    assert stored(tree, "dir/two") == b"another two"


def test_curl_sends_commands(curl, tree, server, s3, stored):
    done = curl("/", "-l", "-Q", f"MKD /{tree}/made by curl", "-Q", f"DELE /{tree}/one", "-Q", f"RNFR /{tree}/dir/two",
                "-Q", f"RNTO /{tree}/two", "-Q", f"RMD /{tree}/dir")
    assert done.returncode == 0, done.stderr
    assert stored(tree, "two") == b"dir/two"
    assert keys(s3, tree) == ["dir/sub dir/", "dir/sub dir/three", "dir/sub dir/ü", "made by curl/", "other/four", "two"]
    assert curl("/", "-l", "-Q", "RMD /no-such-bucket-here").returncode == 21  # a quoted command was refused


def test_curl_makes_directories_on_its_way(curl, bucket, s3, stored):
    done = curl(f"/{bucket}/new/sub/file", "--ftp-create-dirs", "-T", "-", input=b"data")
    assert done.returncode == 0, done.stderr
    assert stored(bucket, "new/sub/file") == b"data"
    assert keys(s3, bucket) == ["new/", "new/sub/", "new/sub/file"]


def test_curl_renames_after_its_upload(curl, bucket, s3, stored):
    done = curl(f"/{bucket}/file.part", "-T", "-", "-Q", f"-RNFR /{bucket}/file.part", "-Q", f"-RNTO /{bucket}/file", input=b"data")
    assert done.returncode == 0, done.stderr
    assert keys(s3, bucket) == ["file"] and stored(bucket, "file") == b"data"


def test_ftplib(pyftp, bucket, s3, stored):
    assert pyftp.mkd(f'/{bucket}/new "dir"') == f'/{bucket}/new "dir"'
    pyftp.cwd(f'/{bucket}/new "dir"')
    pyftp.storbinary("STOR part", io.BytesIO(b"content"))
    assert pyftp.rename("part", "whole").startswith("250")
    assert stored(bucket, 'new "dir"/whole') == b"content"
    assert pyftp.delete("whole").startswith("250")
    pyftp.cwd("/")
    assert pyftp.rmd(f'/{bucket}/new "dir"').startswith("250")
    assert keys(s3, bucket) == []
    assert pyftp.rmd(f"/{bucket}").startswith("250")
    with pytest.raises(ftplib.error_perm, match="550"):
        pyftp.rmd(f"/{bucket}")


# -- failures ------------------------------------------------------------------------------------------------------------
@pytest.mark.devstore_only(reason="the faults are scripted in the dev store")
@pytest.mark.parametrize("line, method, path, good", [
    ("MKD /{}/dir", "PUT", "/dir/$", 257), ("RMD /{}/dir", "DELETE", "/dir/$", 250), ("DELE /{}/dir/file", "DELETE", "/file$", 250),
    ("MKD /{}-two", "PUT", "-two/?$", 257), ("RMD /{}", "DELETE", "/?$", 250)])
def test_refusals_of_the_store(ftp, bucket, s3, store, line, method, path, good):
    line = line.format(bucket)
    store.clear_faults()
    try:
        for answer, code, word in (("AccessDenied", 550, "PERMISSION_DENIED"), ("SlowDown", 451, "TOO_BUSY")):
            body = f"<Error><Code>{answer}</Code></Error>"
            store.add_fault({"method": method, "path": path, "count": 0}, {"status": 503 if code == 451 else 403, "body": body})
            reply = ftp.command(line)
            assert (reply.code, reply.word) == (code, word)
            store.clear_faults()
        store.add_fault({"method": method, "path": path, "count": 1}, {"status": 503})
        ftp.expect(good, line)
    finally:
        store.clear_faults()


def test_key_of_the_greatest_length(ftp, bucket, s3):
    """A directory of that name cannot be: its key would be one byte too long to be asked for."""
    key = "k" * 1024
    s3.put_object(Bucket=bucket, Key=key, Body=b"content")
    assert ftp.expect(213, f"SIZE /{bucket}/{key}").last == "7"
    assert ftp.command(f"MLST /{bucket}/{key}").code == 250
    assert ftp.retrieve(f"/{bucket}/{key}") == b"content"
    assert ftp.listing("NLST", f"/{bucket}") == [key]
    assert ftp.command(f"XMD5 /{bucket}/{key}").last == "9a0364b9e99bb480dd25e1f0284c8555"
    for line in (f"MKD /{bucket}/{key}", f"RMD /{bucket}/{key}", f"STAT /{bucket}/{key}"):
        reply = ftp.command(line)
        assert reply.code == 550 and "UriTooLong" in reply.text, reply.lines
    ftp.expect(350, f"RNFR /{bucket}/{key}")
    assert "UriTooLong" in ftp.command(f"RNTO /{bucket}/{key}x").text
    assert keys(s3, bucket) == [key]
    ftp.expect(350, f"RNFR /{bucket}/{key}")
    ftp.expect(250, f"RNTO /{bucket}/short")
    assert keys(s3, bucket) == ["short"]
