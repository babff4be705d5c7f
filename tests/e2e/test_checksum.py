"""CKSM, HASH and XMD5: where the sum comes from, ranges, progress, and checksums that nobody waits for any more."""

import hashlib
import time

import pytest

from ftp_client import FtpClient
from gateway import Gateway
from stores import random_bytes
from waiting import wait_for

EMPTY = hashlib.md5(b"").hexdigest()


def md5(content):
    return hashlib.md5(content).hexdigest()


def cksm(ftp, line):
    """The reply that ends a checksum command; progress before it is skipped."""
    reply = ftp.command(line)
    while reply.code == 113:
        reply = ftp.read_reply()
    return reply


def put_in_parts(s3, bucket, key, *parts, **options):
    """An object whose ETag is no MD5 of its content."""
    upload = s3.create_multipart_upload(Bucket=bucket, Key=key, **options)["UploadId"]
    tags = [{"PartNumber": number, "ETag": s3.upload_part(Bucket=bucket, Key=key, UploadId=upload, PartNumber=number,
                                                          Body=part)["ETag"]} for number, part in enumerate(parts, 1)]
    s3.complete_multipart_upload(Bucket=bucket, Key=key, UploadId=upload, MultipartUpload={"Parts": tags})
    return b"".join(parts)


# -- where the sum comes from --------------------------------------------------------------------------------------------
@pytest.mark.parametrize("size", [0, 5, 3 << 20])
def test_whole_object(ftp, bucket, s3, size):
    content = random_bytes(size)
    s3.put_object(Bucket=bucket, Key="file", Body=content)
    for line in (f"CKSM MD5 0 -1 /{bucket}/file", f"CKSM md5 0 {size} /{bucket}/file"):
        assert cksm(ftp, line).lines == [f"213 {md5(content)}"]
    assert ftp.command(f"XMD5 /{bucket}/file").lines == [f"250 {md5(content)}"]
    assert ftp.command(f"HASH /{bucket}/file").lines == [f"213 MD5 0-{size} {md5(content)} /{bucket}/file"]


def test_uploaded_over_ftp(ftp, bucket):
    content = random_bytes(100000)
    assert ftp.store(f"/{bucket}/file", content, allocate=len(content)).code == 226
    assert cksm(ftp, f"CKSM MD5 0 -1 /{bucket}/file").last == md5(content)


def test_metadata_is_trusted_most(ftp, bucket, s3):
    told = "0123456789ABCDEF0123456789abcdef"
    s3.put_object(Bucket=bucket, Key="file", Body=b"content", Metadata={"md5": told})
    assert cksm(ftp, f"CKSM MD5 0 -1 /{bucket}/file").last == told
    s3.put_object(Bucket=bucket, Key="file", Body=b"content", Metadata={"md5": "short"})
    assert cksm(ftp, f"CKSM MD5 0 -1 /{bucket}/file").last == md5(b"content")
    s3.put_object(Bucket=bucket, Key="file", Body=b"content", Metadata={"md5": "g" * 32})
    assert cksm(ftp, f"CKSM MD5 0 -1 /{bucket}/file").last == md5(b"content")


def test_object_in_parts(ftp, bucket, s3):
    content = put_in_parts(s3, bucket, "file", random_bytes(5 << 20), random_bytes(1 << 20))
    for _ in range(2):
        assert cksm(ftp, f"CKSM MD5 0 -1 /{bucket}/file").last == md5(content)
    assert cksm(ftp, f"CKSM MD5 5242870 20 /{bucket}/file").last == md5(content[5242870:5242890])
    s3.put_object(Bucket=bucket, Key="file", Body=b"changed")
    assert cksm(ftp, f"CKSM MD5 0 -1 /{bucket}/file").last == md5(b"changed")


@pytest.mark.devstore_only(reason="counts requests in the dev store's log")
class TestRequests:
    @pytest.fixture
    def asked(self, store, bucket):
        """The methods of the requests on the object since the last call."""

        def methods():
            seen = [entry["method"] for entry in store.requests() if entry["path"] == f"/{bucket}/file"]
            store.forget_requests()
            return seen

        store.forget_requests()
        return methods

    def test_etag_needs_no_download(self, ftp, bucket, s3, asked):
        s3.put_object(Bucket=bucket, Key="file", Body=b"content")
        asked()
        cksm(ftp, f"CKSM MD5 0 -1 /{bucket}/file")
        assert asked() == ["HEAD"]

    def test_metadata_needs_no_download(self, ftp, bucket, s3, asked):
        put_in_parts(s3, bucket, "file", b"content", Metadata={"md5": md5(b"content")})
        asked()
        assert cksm(ftp, f"CKSM MD5 0 -1 /{bucket}/file").last == md5(b"content")
        assert asked() == ["HEAD"]

    def test_second_time_comes_from_the_cache(self, ftp, login, bucket, s3, asked):
        put_in_parts(s3, bucket, "file", b"content")
        asked()
        cksm(ftp, f"CKSM MD5 0 -1 /{bucket}/file")
        assert asked() == ["HEAD", "GET"]
        for client, line in ((ftp, f"CKSM MD5 0 -1 /{bucket}/file"), (ftp, f"CKSM MD5 0 7 /{bucket}/file"),
                             (login(), f"CKSM MD5 0 -1 /{bucket}/file")):
            assert cksm(client, line).last == md5(b"content")
            assert asked() == ["HEAD"]
        # The same bytes again are another upload with the same ETag: the sum still holds. Others are not mistaken for it.
        put_in_parts(s3, bucket, "file", b"CONTENT")
        asked()
        assert cksm(ftp, f"CKSM MD5 0 -1 /{bucket}/file").last == md5(b"CONTENT")
        assert asked() == ["HEAD", "GET"]

    def test_download_fills_the_cache(self, ftp, bucket, s3, asked):
        put_in_parts(s3, bucket, "file", b"content")
        assert ftp.retrieve(f"/{bucket}/file") == b"content"
        asked()
        assert cksm(ftp, f"CKSM MD5 0 -1 /{bucket}/file").last == md5(b"content")
        assert asked() == ["HEAD"]

    def test_range_is_read_each_time_and_nothing_else(self, ftp, bucket, s3, asked, store):
        content = random_bytes(100000)
        s3.put_object(Bucket=bucket, Key="file", Body=content)
        for _ in range(2):
            asked()
            assert cksm(ftp, f"CKSM MD5 1000 500 /{bucket}/file").last == md5(content[1000:1500])
            got = [entry for entry in store.requests() if entry["method"] == "GET"]
            assert [(entry["headers"]["range"], entry["bytes_out"]) for entry in got] == [("bytes=1000-1499", 500)]

    def test_range_of_no_bytes_reads_none(self, ftp, bucket, s3, asked):
        s3.put_object(Bucket=bucket, Key="file", Body=b"content")
        asked()
        assert cksm(ftp, f"CKSM MD5 3 0 /{bucket}/file").last == EMPTY
        assert asked() == ["HEAD"]

    def test_one_refusal_of_each_is_retried(self, ftp, bucket, s3, store):
        put_in_parts(s3, bucket, "file", b"content")
        store.clear_faults()
        store.add_fault({"method": "HEAD", "path": "/file$", "count": 1}, {"status": 503})
        store.add_fault({"method": "GET", "path": "/file$", "count": 1}, {"status": 503})
        assert cksm(ftp, f"CKSM MD5 0 -1 /{bucket}/file").last == md5(b"content")

    def test_download_that_breaks_is_mended(self, ftp, bucket, s3, store):
        content = put_in_parts(s3, bucket, "file", random_bytes(5 << 20), random_bytes(1 << 20))
        store.clear_faults()
        store.add_fault({"method": "GET", "path": "/file$", "count": 1}, {"cut_reply_after": 3 << 20})
        assert cksm(ftp, f"CKSM MD5 0 -1 /{bucket}/file").last == md5(content)


# -- ranges and bad input ------------------------------------------------------------------------------------------------
def test_ranges(ftp, bucket, s3):
    content = random_bytes(1 << 20)
    s3.put_object(Bucket=bucket, Key="a file", Body=content)
    for offset, length, expected in ((1000, 5000, content[1000:6000]), (1000, -1, content[1000:]), (0, 10, content[:10]),
                                     (len(content) - 1, 1, content[-1:]), (len(content) - 5, 100, content[-5:]),
                                     (0, 0, b""), (len(content), 0, b"")):
        assert cksm(ftp, f"CKSM MD5 {offset} {length} /{bucket}/a file").last == md5(expected), (offset, length)
    assert ftp.command(f'XMD5 "/{bucket}/a file" 1000 6000').last == md5(content[1000:6000])
    assert ftp.command(f'XMD5 "/{bucket}/a file" 1000').last == md5(content[1000:])
    assert ftp.command(f'XMD5 "/{bucket}/a file"').last == md5(content)


def test_quotes_in_names(ftp, bucket, s3):
    s3.put_object(Bucket=bucket, Key='say "hi"', Body=b"content")
    assert ftp.command(f'XMD5 "/{bucket}/say "hi""').last == md5(b"content")
    assert ftp.command(f'XMD5 "/{bucket}/say ""hi"""').last == md5(b"content")


@pytest.mark.parametrize("offset, length", [(7, -1), (7, 1), (8, -1), (1 << 40, 5), ((1 << 63) - 1, -1), ((1 << 63) - 1, 10)])
def test_offset_behind_the_end(ftp, bucket, s3, offset, length):
    s3.put_object(Bucket=bucket, Key="file", Body=b"content")
    reply = cksm(ftp, f"CKSM MD5 {offset} {length} /{bucket}/file")
    assert reply.code == 553 and reply.word == "APPEND_NOT_SUPPORTED", reply.lines
    assert cksm(ftp, f"CKSM MD5 8 0 /{bucket}/file").code == 550


def test_refusals(ftp, bucket, s3):
    s3.put_object(Bucket=bucket, Key="file", Body=b"content")
    s3.put_object(Bucket=bucket, Key="dir/file", Body=b"content")
    missing = cksm(ftp, f"CKSM MD5 0 -1 /{bucket}/missing")
    assert missing.word == "PATH_NOT_FOUND" and missing.lines[1] == f'550-GridFTP-Path: "{bucket}/missing"'
    assert cksm(ftp, f"CKSM CRC32 0 -1 /{bucket}/file").lines == ['550 Unknown checksum algorithm "CRC32"']
    assert cksm(ftp, f"CKSM CRC32 0 0 /{bucket}/file").lines == ['550 Unknown checksum algorithm "CRC32"']
    for path in (f"/{bucket}", f"/{bucket}/", "/", f"/{bucket}/file/", f"/{bucket}/dir", "/no-such-bucket-here/file"):
        for line in (f"CKSM MD5 0 -1 {path}", f"HASH {path}", f"XMD5 {path}"):
            assert cksm(ftp, line).code == 550, line
    for line in ("CKSM", "CKSM MD5", "CKSM MD5 0", f"CKSM MD5 0 /{bucket}/file", f"CKSM MD5 0 -2 /{bucket}/file",
                 f"CKSM MD5 -1 -1 /{bucket}/file", f"CKSM MD5 0 -9223372036854775808 /{bucket}/file",
                 f"CKSM MD5 9223372036854775808 -1 /{bucket}/file", f'XMD5 "/{bucket}/file', f'XMD5 "/{bucket}/file" 5 3'):
        assert cksm(ftp, line).code == 501, line
    assert cksm(ftp, f"CKSM MD5 0 -1 //{bucket}//file").last == md5(b"content")


def test_hash_options(ftp):
    assert ftp.command("OPTS HASH").lines == ["200 MD5"]
    assert ftp.command("OPTS HASH md5").lines == ["200 MD5"]
    assert ftp.command("OPTS HASH SHA-256").code == 501
    assert " HASH MD5*" in ftp.expect(211, "FEAT").lines


def test_forbidden_bucket(login, bucket, s3):
    s3.put_object(Bucket=bucket, Key="file", Body=b"content")
    restricted = login(host="restricted.test")
    for line in (f"CKSM MD5 0 -1 /{bucket}/file", f"HASH /{bucket}/file", f"XMD5 /{bucket}/file"):
        assert cksm(restricted, line).word == "PERMISSION_DENIED"


# -- long checksums ------------------------------------------------------------------------------------------------------
class EagerGateway(Gateway):
    """Reports progress every second, and lets a user have two checksums at a time."""

    def _configuration(self, *arguments):
        text = super()._configuration(*arguments)
        assert text.count("[server]\n") == 1
        return text.replace("[server]\n", "[server]\nupdate_interval = 1\nchecksums_per_user = 2\n")


@pytest.mark.devstore_only(reason="the slow store is scripted in the dev store")
class TestLong:
    @pytest.fixture
    def gateway(self, store, binaries, tmp_path):
        store.clear_faults()
        gateway = EagerGateway(binaries, store, tmp_path / "eager")
        yield gateway
        store.clear_faults()
        if gateway.process.poll() is None:
            gateway.wait_idle()
            gateway.stop()

    @pytest.fixture
    def client(self, gateway):
        """Makes logged-in clients of the eager server."""
        made = []

        def make(user="alice"):
            made.append(FtpClient(gateway.host, gateway.port))
            assert made[-1].login(user, gateway.passwords[user]).code == 230
            return made[-1]

        yield make
        for each in made:
            each.close()

    @pytest.fixture
    def slow(self, store, new_bucket):
        """Makes an object whose download stops half-way; returns its path and content."""

        def make(owner="alice"):
            bucket = new_bucket(owner)
            content = put_in_parts(store.client(owner), bucket, "file", random_bytes(5 << 20), random_bytes(1 << 20))
            store.add_fault({"method": "GET", "path": f"/{bucket}/file$", "count": 0}, {"stall_reply_after": 3 << 20})
            return f"/{bucket}/file", content

        return make

    @staticmethod
    def wait_for_downloads(store, count):
        def running():
            return [entry for entry in store.requests() if entry["method"] == "GET" and entry["path"].endswith("/file")
                    and entry["outcome"] == "running"]

        wait_for(lambda: len(running()) == count, f"{count} downloads are running")

    def begin(self, store, client, path, running, line="CKSM MD5 0 -1 "):
        client.send(line + path)
        self.wait_for_downloads(store, running)

    def leave_behind(self, store, client, path):
        """A checksum that is given up while its download runs."""
        self.begin(store, client, path, 1)
        reply = client.command("ABOR")
        while reply.code == 113:  # was under way
            reply = client.read_reply()
        assert reply.code == 426
        assert client.read_reply().code == 226

    def test_progress(self, store, client, slow):
        path, content = slow()
        ftp = client()
        store.forget_requests()
        self.begin(store, ftp, path, 1)
        began = time.monotonic()
        wait_for(lambda: time.monotonic() > began + 2, "the interval is over")
        store.clear_faults()
        numbers = []
        reply = ftp.read_reply()
        while reply.code == 113:
            numbers.append(int(reply.last))
            reply = ftp.read_reply()
        assert reply.lines == [f"213 {md5(content)}"]
        assert numbers and numbers == sorted(set(numbers)) and numbers[-1] <= len(content)

    @pytest.mark.parametrize("line", ["HASH ", "XMD5 "])
    def test_no_progress_for_those_who_do_not_expect_it(self, store, client, slow, line):
        path, content = slow()
        ftp = client()
        store.forget_requests()
        self.begin(store, ftp, path, 1, line)
        began = time.monotonic()
        wait_for(lambda: time.monotonic() > began + 2, "the interval is over")
        store.clear_faults()
        assert md5(content) in ftp.read_reply().text

    def test_abort_is_answered_at_once(self, store, client, slow):
        path, content = slow()
        ftp = client()
        store.forget_requests()
        self.leave_behind(store, ftp, path)
        self.wait_for_downloads(store, 1)  # the worker goes on unseen
        assert ftp.command(f"SIZE {path}").last == str(len(content))
        store.clear_faults()
        # Its sum went into the cache: from then on there is no download.
        wait_for(lambda: all(entry["outcome"] == "done" for entry in store.requests()), "the download has ended")
        wait_for(lambda: self.sum_without_download(store, ftp, path) == md5(content), "the sum is known")

    @staticmethod
    def sum_without_download(store, ftp, path):
        store.forget_requests()
        value = cksm(ftp, f"CKSM MD5 0 -1 {path}").last
        return value if [entry["method"] for entry in store.requests()] == ["HEAD"] else None

    @pytest.mark.parametrize("reset", [True, False])
    def test_lost_client_does_not_keep_its_session(self, store, gateway, client, slow, reset):
        path, _ = slow()
        ftp = client()
        store.forget_requests()
        self.begin(store, ftp, path, 1)
        if reset:
            ftp.reset(ftp.socket)
            wait_for(lambda: "disconnected" in gateway.log_text(), "the session ends while the download still runs")
            self.wait_for_downloads(store, 1)
        else:
            # An end of the input alone may be a script's; the first progress that nobody takes tells.
            ftp.close()
            store.clear_faults()
            wait_for(lambda: "disconnected" in gateway.log_text(), "the session ends")

    def test_limit_for_each_user(self, store, gateway, client, slow):
        path, content = slow()
        bobs, bobs_content = slow("bob")
        store.forget_requests()
        first, second, third, bob = client(), client(), client(), client("bob")
        self.leave_behind(store, first, path)
        self.begin(store, second, path, 2)
        refusal = ["450 2 checksums are running for you, as many as checksums_per_user allows; try again when one has ended."]
        for line in (f"CKSM MD5 0 -1 {path}", f"HASH {path}", f"XMD5 {path}"):
            assert third.command(line).lines == refusal
        assert first.command(f"XMD5 {path}").lines == refusal
        self.begin(store, bob, bobs, 3)
        store.clear_faults()
        assert self.last_reply(second).last == md5(content)
        assert self.last_reply(bob).last == md5(bobs_content)
        wait_for(lambda: third.command(f"XMD5 {path}").last == md5(content), "there is room again")

    @staticmethod
    def last_reply(ftp):
        reply = ftp.read_reply()
        while reply.code == 113:
            reply = ftp.read_reply()
        return reply

    def test_a_failed_download_makes_room(self, store, client, new_bucket, s3):
        bucket = new_bucket()
        put_in_parts(s3, bucket, "file", b"content")
        ftp = client()
        store.add_fault({"method": "GET", "path": f"/{bucket}/file$", "count": 0},
                        {"status": 403, "body": "<Error><Code>AccessDenied</Code></Error>"})
        for _ in range(5):
            assert cksm(ftp, f"CKSM MD5 0 -1 /{bucket}/file").word == "PERMISSION_DENIED"

    def test_the_server_ends_without_it(self, store, gateway, client, slow):
        path, _ = slow()
        ftp = client()
        store.forget_requests()
        self.leave_behind(store, ftp, path)
        gateway.stop()
        text = gateway.log_text()
        assert "ending with back-end work still running" in text
        assert "the time to shut down is over" not in text
