"""SITE STAGE: restores of archived objects, through all of its replies, and what stores answer that cannot do it."""

import shutil
import tempfile
from pathlib import Path

import botocore.exceptions
import pytest

from ftp_client import FtpClient
from gateway import Gateway
from stores import DevStore, random_bytes

NOT_REQUIRED = ["250 Stage is not required."]
STARTED = ["450 Stage has started."]
IN_PROGRESS = ["450 Stage is in progress."]
COMPLETED = ["250 Stage has completed."]
RESTORE_SECONDS = 3600
DAY = 24 * 3600


def test_object_that_is_no_archives(ftp, bucket, s3):
    s3.put_object(Bucket=bucket, Key="a file", Body=b"content")
    assert ftp.command(f"SITE STAGE /{bucket}/a file").lines == NOT_REQUIRED
    ftp.expect(250, f"CWD /{bucket}")
    assert ftp.command("site stage a file").lines == NOT_REQUIRED


def test_store_that_restores_nothing(ftp, bucket, s3, store):
    """501 from the store is an error that says so, and no "Stage has started."."""
    try:
        s3.put_object(Bucket=bucket, Key="cold", Body=b"content", StorageClass="GLACIER")
    except botocore.exceptions.ClientError as error:
        assert error.response["Error"]["Code"] in ("InvalidArgument", "InvalidStorageClass"), error
        assert store.name == "rgw", error  # there is no such class unless an administrator makes one
        return
    reply = ftp.command(f"SITE STAGE /{bucket}/cold")
    assert reply.code == 550 and "NotImplemented" in reply.text, reply.lines
    assert "Stage" not in reply.text
    assert ftp.retrieve(f"/{bucket}/cold") == b"content"


def test_refusals(ftp, bucket):
    missing = ftp.command(f"SITE STAGE /{bucket}/missing")
    assert missing.word == "PATH_NOT_FOUND" and missing.lines[1] == f'550-GridFTP-Path: "/{bucket}"'
    for path in (f"/{bucket}", f"/{bucket}/", f"/{bucket}/dir/", "/", "//"):
        assert ftp.command(f"SITE STAGE {path}").code == 550, path
    assert ftp.command("SITE STAGE").code == 501
    assert ftp.command("SITE STAGE ").code == 501
    assert ftp.command("SITE").code == 501
    assert ftp.command("SITE NONSENSE x").code == 500
    assert ftp.command(f"SITE CHMOD 644 /{bucket}/missing").code == 504
    assert ftp.command(f"SITE UTIME 20200102030405 /{bucket}/missing").code == 504


def test_help(ftp):
    reply = ftp.expect(214, "SITE HELP")
    assert [line.strip() for line in reply.lines[1:-1]] == ["HELP", "STAGE <path>"]


def test_forbidden_bucket(login, bucket, s3):
    s3.put_object(Bucket=bucket, Key="file", Body=b"content")
    assert login(host="restricted.test").command(f"SITE STAGE /{bucket}/file").word == "PERMISSION_DENIED"


# -- a store with an archive ---------------------------------------------------------------------------------------------
class TestArchive:
    """Against a store of its own, whose restores take an hour of a clock that the tests set."""

    @pytest.fixture(scope="class")
    def archive(self, binaries):
        folder = Path(tempfile.mkdtemp(prefix="zorvan-archive-"))
        store = DevStore(binaries.devstore, folder, "--restore", str(RESTORE_SECONDS))
        yield store
        store.stop()
        shutil.rmtree(folder, ignore_errors=True)

    @pytest.fixture(scope="class")
    def gateway(self, archive, binaries):
        folder = Path(tempfile.mkdtemp(prefix="zorvan-server-"))
        gateway = Gateway(binaries, archive, folder)
        yield gateway
        gateway.wait_idle()
        gateway.stop()
        shutil.rmtree(folder, ignore_errors=True)

    @pytest.fixture
    def client(self, gateway, archive):
        archive.set_clock(0)
        archive.clear_faults()
        with FtpClient(gateway.host, gateway.port) as client:
            assert client.login("alice", gateway.passwords["alice"]).code == 230
            client.expect(200, "TYPE I")
            yield client
        archive.set_clock(0)
        archive.clear_faults()

    @pytest.fixture(scope="class")
    def cold(self, archive):
        """Puts an object into an archive class; returns its path."""
        s3 = archive.client("alice")
        s3.create_bucket(Bucket="archive")
        numbers = iter(range(1000))

        def put(storage_class="GLACIER", content=b"content"):
            key = f"dir/cold {next(numbers)}"
            s3.put_object(Bucket="archive", Key=key, Body=content, StorageClass=storage_class)
            return f"/archive/{key}"

        return put

    @staticmethod
    def restores(archive):
        return [entry for entry in archive.requests() if entry["method"] == "POST" and entry["query"].startswith("restore")]

    @pytest.mark.parametrize("storage_class", ["GLACIER", "DEEP_ARCHIVE"])
    def test_through_all_states(self, archive, client, cold, storage_class):
        content = random_bytes(100000)
        path = cold(storage_class, content)
        replies, data = client.fetch(f"RETR {path}")
        assert replies[-1].code == 550 or replies[-1].code == 451, replies
        assert data is None
        archive.forget_requests()
        assert client.command(f"SITE STAGE {path}").lines == STARTED
        assert client.command(f"SITE STAGE {path}").lines == IN_PROGRESS
        assert client.command(f"SITE STAGE {path}").lines == IN_PROGRESS
        archive.set_clock(RESTORE_SECONDS + 1)
        assert client.command(f"SITE STAGE {path}").lines == COMPLETED
        assert client.command(f"SITE STAGE {path}").lines == COMPLETED
        assert len(self.restores(archive)) == 1
        assert client.retrieve(path) == content

    def test_copy_that_expires_soon_is_extended(self, archive, client, cold):
        """The restored copy's life is judged by the server's clock: a store in the past hands out an early expiry."""
        path = cold()
        archive.set_clock(-5 * DAY)
        assert client.command(f"SITE STAGE {path}").lines == STARTED
        archive.set_clock(-5 * DAY + RESTORE_SECONDS + 1)
        archive.forget_requests()
        assert client.command(f"SITE STAGE {path}").lines == STARTED
        assert [entry["status"] for entry in self.restores(archive)] == [200]
        archive.set_clock(0)

    def test_copy_that_has_gone_is_asked_for_again(self, archive, client, cold):
        path = cold()
        assert client.command(f"SITE STAGE {path}").lines == STARTED
        archive.set_clock(10 * DAY)
        assert client.command(f"SITE STAGE {path}").lines == STARTED
        assert client.command(f"SITE STAGE {path}").lines == IN_PROGRESS

    @pytest.mark.parametrize("status", ["ARCHIVE_ACCESS", "DEEP_ARCHIVE_ACCESS"])
    def test_intelligent_tiering(self, archive, binaries, client, cold, tmp_path, status):
        """Its archive tiers give objects back for good, and refuse restores for a number of days."""
        path = cold("INTELLIGENT_TIERING")
        bucket, key = path[1:].split("/", 1)
        assert client.command(f"SITE STAGE {path}").lines == NOT_REQUIRED
        archive.set_archive_status(bucket, key, status)
        refused = client.command(f"SITE STAGE {path}")
        assert refused.code == 550 and "MalformedXML" in refused.text and "Stage" not in refused.text
        gateway = Gateway(binaries, archive, tmp_path / "without-days", extra_options={"restore_days": 0})
        with FtpClient(gateway.host, gateway.port) as other:
            assert other.login("alice", gateway.passwords["alice"]).code == 230
            assert other.command(f"SITE STAGE {path}").lines == STARTED
            assert other.command(f"SITE STAGE {path}").lines == IN_PROGRESS
        gateway.wait_idle()
        gateway.stop()
        archive.set_clock(RESTORE_SECONDS + 1)
        assert client.command(f"SITE STAGE {path}").lines == NOT_REQUIRED
        assert client.retrieve(path) == b"content"

    def test_one_refusal_of_each_request_is_retried(self, archive, client, cold):
        path = cold()
        archive.add_fault({"method": "HEAD", "count": 1}, {"status": 503})
        archive.add_fault({"method": "POST", "count": 1}, {"status": 503})
        assert client.command(f"SITE STAGE {path}").lines == STARTED
        assert client.command(f"SITE STAGE {path}").lines == IN_PROGRESS

    def test_refused_restore(self, archive, client, cold):
        path = cold()
        archive.add_fault({"method": "POST", "count": 1}, {"status": 403, "body": "<Error><Code>AccessDenied</Code></Error>"})
        reply = client.command(f"SITE STAGE {path}")
        assert reply.code == 550 and reply.word == "PERMISSION_DENIED" and "Stage" not in reply.text
        assert client.command(f"SITE STAGE {path}").lines == STARTED

    def test_checksum_of_an_archived_object(self, client, cold):
        """The whole object's comes from its ETag; a range would have to be read."""
        path = cold()
        assert client.command(f"XMD5 {path}").lines == ["250 9a0364b9e99bb480dd25e1f0284c8555"]
        assert client.command(f'XMD5 "{path}" 1 2').code == 550

    def test_archived_object_cannot_be_renamed_before(self, archive, client, cold):
        path = cold()
        client.expect(350, f"RNFR {path}")
        assert client.command("RNTO /archive/warm").code == 550
        client.expect(350, f"RNFR {path}")
        assert client.command(f"SITE STAGE {path}").lines == STARTED
        archive.set_clock(RESTORE_SECONDS + 1)
        assert client.command("RNTO /archive/warm").code == 250
        assert client.retrieve("/archive/warm") == b"content"

    def test_raw_reply(self, client, cold):
        """Byte for byte, as the back end has it."""
        path = cold()
        client.send(f"SITE STAGE {path}")
        received = b""
        while not received.endswith(b"\n"):
            received += client.socket.recv(100) or b"the connection has ended\n"
        assert received == b"450 Stage has started.\r\n"
