"""Large empty objects, data kept in a directory, start and end of the program."""

import contextlib
import hashlib
import http.client
import os
import signal
import subprocess

import pytest
from conftest import Store, wait_until
from test_objects import refused

GIB = 1 << 30


@pytest.fixture(params=["memory", "directory"])
def any_store(request, make_store, tmp_path):
    return make_store(*(() if request.param == "memory" else ("--data-dir", str(tmp_path / "data"))))


def test_sparse_objects(any_store):
    s3 = any_store.s3()
    s3.create_bucket(Bucket="bucket")
    before = any_store.memory()
    made = any_store.control("PUT", "/sparse/bucket/dir/a%20b?size=" + str(20 * GIB))
    assert s3.head_object(Bucket="bucket", Key="dir/a b")["ContentLength"] == 20 * GIB
    assert made["etag"].endswith("-320")
    part = hashlib.md5(bytes(64 << 20)).digest()
    assert made["etag"] == hashlib.md5(part * 320).hexdigest() + "-320"
    got = s3.get_object(Bucket="bucket", Key="dir/a b", Range=f"bytes={15 * GIB - 2}-{15 * GIB + 2}")
    assert got["Body"].read() == bytes(5)
    assert any_store.memory() - before < 64 << 20


def test_sparse_etags(any_store):
    s3 = any_store.s3()
    s3.create_bucket(Bucket="bucket")
    size = (3 << 20) + 5
    any_store.control("PUT", f"/sparse/bucket/small?size={size}")
    got = s3.get_object(Bucket="bucket", Key="small")
    assert (got["ETag"], got["Body"].read()) == (f'"{hashlib.md5(bytes(size)).hexdigest()}"', bytes(size))
    any_store.control("PUT", f"/sparse/bucket/given?size={GIB}&etag=abc-1")
    assert s3.head_object(Bucket="bucket", Key="given")["ETag"] == '"abc-1"'
    any_store.control("PUT", "/sparse/bucket/exact?size=100000000&etag=md5")
    assert s3.head_object(Bucket="bucket", Key="exact")["ETag"] == f'"{hashlib.md5(bytes(100000000)).hexdigest()}"'


def test_copy_of_more_than_five_gib(any_store):
    s3 = any_store.s3()
    s3.create_bucket(Bucket="bucket")
    any_store.control("PUT", f"/sparse/bucket/fits?size={5 * GIB}&etag=a")
    any_store.control("PUT", f"/sparse/bucket/large?size={5 * GIB + 1}&etag=b")
    s3.copy_object(Bucket="bucket", Key="copy", CopySource={"Bucket": "bucket", "Key": "fits"})
    assert s3.head_object(Bucket="bucket", Key="copy")["ContentLength"] == 5 * GIB
    large = {"Bucket": "bucket", "Key": "large"}
    assert refused(s3.copy_object, Bucket="bucket", Key="copy", CopySource=large) == ("InvalidRequest", 400)


def test_uploaded_zeros_take_no_space(any_store, tmp_path):
    s3 = any_store.s3()
    s3.create_bucket(Bucket="bucket")
    before = any_store.memory()
    size = 512 << 20

    class Zeros:
        """A file of zeros that is never in memory."""

        def __init__(self):
            self.at = 0

        def read(self, amount=-1):
            amount = size - self.at if amount < 0 else min(amount, size - self.at)
            self.at += amount
            return bytes(amount)

        def tell(self):
            return self.at

        def seek(self, offset, whence=0):
            self.at = offset + (0, self.at, size)[whence]
            return self.at

    s3.put_object(Bucket="bucket", Key="k", Body=Zeros(), ContentLength=size)
    assert s3.head_object(Bucket="bucket", Key="k")["ContentLength"] == size
    assert any_store.memory() - before < 64 << 20
    blobs = tmp_path / "data" / "blobs"
    if blobs.exists():
        assert sum(f.stat().st_blocks * 512 for f in blobs.iterdir()) < 1 << 20


def test_directory_survives_a_restart(make_store, tmp_path):
    where = ("--data-dir", str(tmp_path / "data"))
    store = make_store(*where)
    s3 = store.s3()
    s3.create_bucket(Bucket="bucket")
    s3.create_bucket(Bucket="gone")
    s3.delete_bucket(Bucket="gone")
    big = os.urandom((5 << 20) + 3)
    s3.put_object(Bucket="bucket", Key="odd \x01/ü", Body=big, Metadata={"m": "1"}, StorageClass="GLACIER")
    s3.put_object(Bucket="bucket", Key="dropped", Body=b"x")
    s3.delete_object(Bucket="bucket", Key="dropped")
    s3.put_object(Bucket="bucket", Key="empty", Body=b"")
    s3.copy_object(Bucket="bucket", Key="copy", CopySource={"Bucket": "bucket", "Key": "odd \x01/ü"})
    where_part = {"Bucket": "bucket", "Key": "multi"}
    where_part["UploadId"] = s3.create_multipart_upload(**where_part)["UploadId"]
    first = s3.upload_part(**where_part, PartNumber=1, Body=big)["ETag"]
    assert store.stop() == 0

    store = make_store(*where)
    s3 = store.s3()
    assert [b["Name"] for b in s3.list_buckets()["Buckets"]] == ["bucket"]
    assert [o["Key"] for o in s3.list_objects_v2(Bucket="bucket")["Contents"]] == ["copy", "empty", "odd \x01/ü"]
    got = s3.get_object(Bucket="bucket", Key="odd \x01/ü")
    assert (got["Body"].read(), got["Metadata"], got["StorageClass"]) == (big, {"m": "1"}, "GLACIER")
    assert got["ETag"] == f'"{hashlib.md5(big).hexdigest()}"'
    assert s3.get_object(Bucket="bucket", Key="copy")["Body"].read() == big
    second = s3.upload_part(**where_part, PartNumber=2, Body=b"end")["ETag"]
    parts = [{"PartNumber": n, "ETag": e} for n, e in ((1, first), (2, second))]
    s3.complete_multipart_upload(**where_part, MultipartUpload={"Parts": parts})
    assert s3.get_object(Bucket="bucket", Key="multi")["Body"].read() == big + b"end"
    for key in ("copy", "empty", "odd \x01/ü", "multi"):
        s3.delete_object(Bucket="bucket", Key=key)
    s3.delete_bucket(Bucket="bucket")
    assert list((tmp_path / "data" / "blobs").iterdir()) == []
    assert list((tmp_path / "data" / "index").iterdir()) == []


def test_blobs_of_a_killed_store_are_cleared(make_store, binary, tmp_path):
    where = ("--data-dir", str(tmp_path / "data"))
    store = make_store(*where)
    s3 = store.s3()
    s3.create_bucket(Bucket="bucket")
    s3.put_object(Bucket="bucket", Key="k", Body=b"kept")
    store.stop()
    (tmp_path / "data" / "blobs" / "0123456789abcdef0123456789abcdef").write_bytes(b"left over")
    store = make_store(*where)
    assert store.s3().get_object(Bucket="bucket", Key="k")["Body"].read() == b"kept"
    assert len(list((tmp_path / "data" / "blobs").iterdir())) == 1


def test_killed_in_the_middle_of_a_part(binary, make_store, tmp_path):
    """What was confirmed is there again, what was not has left nothing."""
    where = ("--data-dir", str(tmp_path / "data"))
    blobs = tmp_path / "data" / "blobs"
    killed = Store(binary, *where)
    s3 = killed.s3()
    s3.create_bucket(Bucket="bucket")
    part = {"Bucket": "bucket", "Key": "multi"}
    part["UploadId"] = s3.create_multipart_upload(**part)["UploadId"]
    content = os.urandom((5 << 20) + 3)
    first = s3.upload_part(**part, PartNumber=1, Body=content)
    target = f"/bucket/multi?partNumber=2&uploadId={part['UploadId']}"
    with contextlib.closing(http.client.HTTPConnection("127.0.0.1", killed.port, timeout=30)) as connection:
        connection.putrequest("PUT", target, skip_host=True)
        for name, value in killed.signed("PUT", target, {"Content-Length": str(len(content))}).items():
            connection.putheader(name, value)
        connection.endheaders(content[: len(content) // 2])
        wait_until(lambda: len(list(blobs.iterdir())) == 2)
        killed.process.kill()
        killed.process.communicate()

    store = make_store(*where)
    s3 = store.s3()
    assert [(p["PartNumber"], p["ETag"]) for p in s3.list_parts(**part)["Parts"]] == [(1, first["ETag"])]
    assert len(list(blobs.iterdir())) == 1
    second = s3.upload_part(**part, PartNumber=2, Body=b"end")
    parts = [{"PartNumber": n, "ETag": reply["ETag"]} for n, reply in ((1, first), (2, second))]
    s3.complete_multipart_upload(**part, MultipartUpload={"Parts": parts})
    assert s3.get_object(Bucket="bucket", Key="multi")["Body"].read() == content + b"end"


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_port_files_and_clean_end(binary, tmp_path, number):
    arguments = ["--port-file", str(tmp_path / "s3"), "--control", "127.0.0.1:0"]
    arguments += ["--control-port-file", str(tmp_path / "control"), "--threads", "3"]
    process = subprocess.Popen([binary] + arguments, stdout=subprocess.PIPE, text=True)
    first, second = process.stdout.readline(), process.stdout.readline()
    wait_until((tmp_path / "s3").exists)
    assert first == f"listening on http://127.0.0.1:{(tmp_path / 's3').read_text().strip()}\n"
    assert second == f"control on http://127.0.0.1:{(tmp_path / 'control').read_text().strip()}\n"
    process.send_signal(number)
    assert process.wait(timeout=30) == 0


def test_help_names_every_option(binary):
    text = subprocess.run([binary, "--help"], capture_output=True, text=True, check=True).stdout
    for option in (
        "--listen --port-file --control --control-port-file --data-dir --admin-key --admin-secret --user --users-file "
        "--dns-name --admin-entry --region-mode --region --complete-etag --min-part-size --max-put-size --restore "
        "--storage-class --idle-timeout --socket-buffer --threads"
    ).split():
        assert option in text
    for path in ("/log", "/clock", "/users", "/archive", "/sparse/", "/faults"):
        assert path in text


@pytest.mark.parametrize(
    "arguments",
    [
        ["--listen", "nowhere"],
        ["--user", "only-a-name"],
        ["--admin-key", "x"],
        ["--restore", "soon"],
        ["--region-mode", "other"],
        ["--users-file", "/does/not/exist"],
        ["--no-such-option"],
    ],
)
def test_wrong_options(binary, arguments):
    ended = subprocess.run([binary] + arguments, capture_output=True, text=True, timeout=30)
    assert ended.returncode != 0
    assert ended.stderr


@pytest.mark.parametrize("text", ["", "{}", '{"users":[{"keys":[]}]}', '{"users":[{"uid":"a","keys":["x"]}]}'])
def test_wrong_users_file(binary, tmp_path, text):
    (tmp_path / "users").write_text(text)
    ended = subprocess.run([binary, "--users-file", str(tmp_path / "users")], capture_output=True, timeout=30)
    assert ended.returncode == 1
