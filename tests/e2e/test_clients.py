"""What people use: curl, lftp and Python's ftplib, as they come with Debian."""

import ftplib
import io

import pytest

from stores import random_bytes


# -- curl ---------------------------------------------------------------------------------------------------------------
def test_curl_uploads_and_downloads(curl, bucket, stored, tmp_path):
    content = random_bytes(5 << 20)
    source, copy = tmp_path / "source", tmp_path / "copy"
    source.write_bytes(content)
    up = curl(f"/{bucket}/big file.bin", "-T", source)
    assert up.returncode == 0, up.stderr
    assert stored(bucket, "big file.bin") == content
    down = curl(f"/{bucket}/big file.bin", "-o", copy)
    assert down.returncode == 0, down.stderr
    assert copy.read_bytes() == content


def test_curl_uploads_where_no_directory_is_yet(curl, bucket, stored):
    """A prefix needs no making; curl has to be told not to walk there."""
    done = curl(f"/{bucket}/new/sub/file", "--ftp-method", "nocwd", "-T", "-", input=b"data")
    assert done.returncode == 0, done.stderr
    assert stored(bucket, "new/sub/file") == b"data"


def test_curl_uploads_from_a_pipe(curl, bucket, stored):
    content = random_bytes(3 << 20)
    assert curl(f"/{bucket}/piped", "-T", "-", input=content).returncode == 0
    assert stored(bucket, "piped") == content


@pytest.mark.parametrize("options", [[], ["--disable-epsv"], ["-P", "127.0.0.1"], ["-P", "127.0.0.1", "--disable-eprt"],
                                     ["--ftp-method", "nocwd"], ["--ftp-method", "singlecwd"]], ids=" ".join)
def test_curl_data_connections(curl, bucket, s3, options):
    content = random_bytes(100000)
    s3.put_object(Bucket=bucket, Key="a/b/c/file", Body=content)
    done = curl(f"/{bucket}/a/b/c/file", *options)
    assert done.returncode == 0, done.stderr
    assert done.stdout == content


def test_curl_lists(curl, bucket, s3):
    s3.put_object(Bucket=bucket, Key="dir/one", Body=b"1")
    s3.put_object(Bucket=bucket, Key="dir/two", Body=b"22")
    assert sorted(curl(f"/{bucket}/dir/", "-l").stdout.split()) == [b"one", b"two"]
    assert len(curl(f"/{bucket}/dir/").stdout.splitlines()) == 2


def test_curl_continues_a_download(curl, bucket, s3, tmp_path):
    content = random_bytes(5 << 20)
    s3.put_object(Bucket=bucket, Key="big", Body=content)
    part = tmp_path / "part"
    part.write_bytes(content[:2000001])
    done = curl(f"/{bucket}/big", "-C", "-", "-o", part)
    assert done.returncode == 0, done.stderr
    assert part.read_bytes() == content
    assert curl(f"/{bucket}/big", "-C", "-", "-o", part).returncode == 0  # nothing left to fetch
    assert part.read_bytes() == content


def test_curl_reads_a_range(curl, bucket, s3):
    """curl closes the data connection when it has its bytes; the session has to live with that."""
    content = random_bytes(5 << 20)
    s3.put_object(Bucket=bucket, Key="big", Body=content)
    assert curl(f"/{bucket}/big", "-r", "1000-1999").stdout == content[1000:2000]


def test_curl_head(curl, bucket, s3):
    s3.put_object(Bucket=bucket, Key="file", Body=b"12345")
    shown = curl(f"/{bucket}/file", "-I").stdout.decode()
    assert "Content-Length: 5" in shown
    assert "Last-Modified: " in shown


def test_curl_starts_an_upload_that_it_was_told_to_continue(curl, bucket, stored, tmp_path):
    source = tmp_path / "source"
    source.write_bytes(content := random_bytes(300000))
    done = curl(f"/{bucket}/file", "-C", "-", "-T", source)
    assert done.returncode == 0, done.stderr
    assert stored(bucket, "file") == content


def test_curl_sees_what_went_wrong(curl, bucket, stored, tmp_path):
    """Exit statuses: 78 no such file, 67 log-in refused, 25 and 18 upload refused before and after the data, 9 no such
    directory."""
    target = tmp_path / "target"
    assert curl(f"/{bucket}/missing", "-o", target).returncode == 78
    assert not target.exists()
    assert curl(f"/{bucket}/missing", password="wrong").returncode == 67
    assert curl("/no-such-bucket-here/file", "--ftp-method", "nocwd", "-T", "-", input=b"data").returncode in (18, 25)
    assert curl("/no-such-bucket-here/file").returncode == 9


def test_curl_fetches_many_over_one_connection(curl, bucket, s3):
    for number in range(20):
        s3.put_object(Bucket=bucket, Key=f"f{number}", Body=f"{number};".encode())
    done = curl(f"/{bucket}/", "-Q", "NOOP", "-l")
    assert done.returncode == 0, done.stderr
    assert len(done.stdout.split()) == 20


# -- lftp ---------------------------------------------------------------------------------------------------------------
@pytest.mark.parametrize("allo", ["yes", "no"])
def test_lftp_puts_and_gets(lftp, bucket, stored, tmp_path, allo):
    content = random_bytes(5 << 20)
    (tmp_path / "source name.bin").write_bytes(content)
    lftp(f'put -O {bucket}/dir "source name.bin"', f'get "{bucket}/dir/source name.bin" -o copy',
         settings=[f"set ftp:use-allo {allo}"])
    assert stored(bucket, "dir/source name.bin") == content
    assert (tmp_path / "copy").read_bytes() == content


def test_lftp_mput_and_mget(lftp, bucket, stored, tmp_path):
    for number in range(12):
        (tmp_path / f"f{number}.dat").write_bytes(bytes([number]) * number)
    (tmp_path / "back").mkdir()
    lftp(f"mput -O {bucket} *.dat", f"mget -O back {bucket}/*.dat")
    for number in range(12):
        assert stored(bucket, f"f{number}.dat") == bytes([number]) * number
        assert (tmp_path / "back" / f"f{number}.dat").read_bytes() == bytes([number]) * number


def test_lftp_mirrors_a_tree(lftp, bucket, s3, tmp_path):
    tree = {"one": b"1", "dir/two": b"22", "dir/sub dir/three": random_bytes(300000), "dir/empty": b"", "ü/four": b"4"}
    for key, content in tree.items():
        s3.put_object(Bucket=bucket, Key=key, Body=content)
    lftp(f"mirror --parallel=3 {bucket} copy")
    found = {str(path.relative_to(tmp_path / "copy")): path.read_bytes()
             for path in (tmp_path / "copy").rglob("*") if path.is_file()}
    assert found == tree
    again = lftp(f"mirror -v {bucket} copy")
    assert b"Transferring" not in again.stdout + again.stderr  # sizes and times fit: nothing is fetched twice


def test_lftp_mirrors_files_up(lftp, bucket, stored, tmp_path):
    (tmp_path / "up").mkdir()
    for number in range(5):
        (tmp_path / "up" / f"n{number}").write_bytes(str(number).encode() * 1000)
    lftp(f"mirror -R --no-perms --parallel=2 up {bucket}")
    for number in range(5):
        assert stored(bucket, f"n{number}") == str(number).encode() * 1000


def test_lftp_fetches_in_parallel_segments(lftp, bucket, s3, tmp_path):
    content = random_bytes(12 << 20)
    s3.put_object(Bucket=bucket, Key="big", Body=content)
    lftp(f"pget -n 4 {bucket}/big -o copy")
    assert (tmp_path / "copy").read_bytes() == content


def test_lftp_continues_a_download(lftp, bucket, s3, tmp_path):
    content = random_bytes(5 << 20)
    s3.put_object(Bucket=bucket, Key="big", Body=content)
    (tmp_path / "copy").write_bytes(content[:3000000])
    lftp(f"get -c {bucket}/big -o copy")
    assert (tmp_path / "copy").read_bytes() == content


def test_lftp_sees_what_went_wrong(lftp, bucket, tmp_path):
    done = lftp(f"get {bucket}/missing -o copy", check=False)
    assert done.returncode == 1 and b"missing" in done.stderr
    assert not (tmp_path / "copy").exists()
    assert lftp("ls no-such-bucket-here", check=False).returncode == 1


def test_lftp_lists(lftp, bucket, s3):
    s3.put_object(Bucket=bucket, Key="dir/one", Body=b"1")
    assert lftp(f"cls -1 {bucket}/dir").stdout.decode().split() == [f"{bucket}/dir/one"]
    assert b"one" in lftp(f"ls {bucket}/dir").stdout
    assert f"{bucket}/" in lftp("cls -1").stdout.decode().split()


# -- ftplib -------------------------------------------------------------------------------------------------------------
@pytest.mark.parametrize("passive", [True, False])
def test_ftplib_round_trip(pyftp, bucket, stored, passive):
    pyftp.set_pasv(passive)
    content = random_bytes(2 << 20)
    assert pyftp.storbinary(f"STOR {bucket}/dir/file", io.BytesIO(content)).startswith("226")
    assert stored(bucket, "dir/file") == content
    received = io.BytesIO()
    assert pyftp.retrbinary(f"RETR {bucket}/dir/file", received.write).startswith("226")
    assert received.getvalue() == content
    received = io.BytesIO()
    pyftp.retrbinary(f"RETR {bucket}/dir/file", received.write, rest=1234567)
    assert received.getvalue() == content[1234567:]


def test_ftplib_announces_the_size(pyftp, bucket, stored):
    content = random_bytes(2 << 20)
    pyftp.voidcmd("TYPE I")
    pyftp.sendcmd(f"ALLO {len(content)}")
    assert pyftp.storbinary(f"STOR {bucket}/file", io.BytesIO(content)).startswith("226")
    assert stored(bucket, "file") == content


def test_ftplib_lists(pyftp, bucket, s3):
    s3.put_object(Bucket=bucket, Key="dir/one", Body=b"1")
    s3.put_object(Bucket=bucket, Key="dir/sub/two", Body=b"22")
    entries = dict(pyftp.mlsd(f"{bucket}/dir", ["type", "size"]))
    assert {name: facts["type"] for name, facts in entries.items()} == {".": "cdir", "one": "file", "sub": "dir"}
    assert pyftp.nlst(f"{bucket}/dir") == ["one", "sub"]
    lines = []
    pyftp.dir(f"{bucket}/dir", lines.append)
    assert len(lines) == 2
    pyftp.cwd(f"/{bucket}/dir")
    assert pyftp.pwd() == f"/{bucket}/dir"
    pyftp.voidcmd("TYPE I")
    assert pyftp.size("one") == 1


def test_ftplib_text_mode_keeps_the_bytes(pyftp, bucket, stored):
    pyftp.storlines(f"STOR {bucket}/text.txt", io.BytesIO(b"one\ntwo\n"))
    assert stored(bucket, "text.txt") == b"one\r\ntwo\r\n"  # the client's own line ends, as it sent them
    lines = []
    pyftp.retrlines(f"RETR {bucket}/text.txt", lines.append)
    assert lines == ["one", "two"]


def test_ftplib_sees_what_went_wrong(pyftp, bucket):
    with pytest.raises(ftplib.error_perm, match="550"):
        pyftp.retrbinary(f"RETR {bucket}/missing", lambda block: None)
    with pytest.raises(ftplib.error_perm, match="550"):
        pyftp.cwd("/no-such-bucket-here")
    with pytest.raises(ftplib.error_perm, match="550"):
        pyftp.storbinary("STOR no-such-bucket-here/file", io.BytesIO(random_bytes(8 << 20)))
    assert pyftp.sendcmd("NOOP").startswith("200")


def test_ftplib_abort(pyftp, bucket, s3):
    s3.put_object(Bucket=bucket, Key="big", Body=random_bytes(16 << 20))
    pyftp.voidcmd("TYPE I")
    data = pyftp.transfercmd(f"RETR {bucket}/big")
    assert data.recv(1000)
    pyftp.abort()
    data.close()
    assert pyftp.voidresp().startswith("226")
    assert pyftp.size(f"{bucket}/big") == 16 << 20
