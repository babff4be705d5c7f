"""LIST, NLST, MLSD, MLST, STAT, SIZE, MDTM, CWD: what they show of objects that boto3 made."""

import calendar
import re
import time
from concurrent.futures import ThreadPoolExecutor

import pytest

from ftp_client import parse_facts


@pytest.fixture(scope="session")
def tree(new_bucket, s3):
    """A bucket of files, an implicit directory, a marked and empty directory, and a file with a recorded time."""
    bucket = new_bucket()
    for key, body in {"a.txt": b"hello", "dir/b.bin": bytes(1000), "dir/sub/c": b"c", "empty": b"", "marked/": b"",
                      "both/x": b"x"}.items():
        s3.put_object(Bucket=bucket, Key=key, Body=body)
    s3.put_object(Bucket=bucket, Key="timed", Body=b"t", Metadata={"mtime": "1000000000"})
    s3.put_object(Bucket=bucket, Key="badtime", Body=b"t", Metadata={"mtime": "12x"})
    return bucket


def modified(s3, bucket, key):
    """An object's time as MDTM prints it."""
    return s3.head_object(Bucket=bucket, Key=key)["LastModified"].strftime("%Y%m%d%H%M%S")


def test_nlst(ftp, tree):
    assert sorted(ftp.listing("NLST", f"/{tree}")) == ["a.txt", "badtime", "both", "dir", "empty", "marked", "timed"]
    assert sorted(ftp.listing("NLST", f"/{tree}/dir")) == ["b.bin", "sub"]


def test_listing_of_the_working_directory(ftp, tree):
    ftp.expect(250, f"CWD /{tree}/dir")
    assert sorted(ftp.listing("NLST")) == ["b.bin", "sub"]
    assert sorted(ftp.listing("NLST", "sub")) == ["c"]
    assert len(ftp.listing("LIST", "-la")) == 2


def test_list_looks_like_ls(ftp, tree, s3):
    lines = ftp.listing("LIST", f"/{tree}")
    pattern = re.compile(r"^([-d])rwx------ +1 \S+ +\S+ +(\d+) ([A-Z][a-z]{2} [ \d]\d (?:\d\d:\d\d| \d{4})) (.+)$")
    shown = {}
    for line in lines:
        match = pattern.match(line)
        assert match, line
        shown[match.group(4)] = (match.group(1), int(match.group(2)))
    assert shown == {"a.txt": ("-", 5), "badtime": ("-", 1), "both": ("d", 0), "dir": ("d", 0), "empty": ("-", 0),
                     "marked": ("d", 0), "timed": ("-", 1)}


def test_mlsd_facts(ftp, tree, s3):
    facts = ftp.facts(f"/{tree}")
    assert facts.pop(".")["type"] == "cdir"
    assert sorted(facts) == ["a.txt", "badtime", "both", "dir", "empty", "marked", "timed"]
    assert facts["a.txt"]["type"] == "file"
    assert facts["a.txt"]["size"] == "5"
    assert facts["a.txt"]["modify"] == modified(s3, tree, "a.txt")
    assert facts["a.txt"]["unix.mode"] in ("0700", "700")
    assert facts["dir"]["type"] == "dir"
    assert "modify" not in facts["dir"]  # a prefix has no time
    assert "unique" not in facts["a.txt"]
    # The recorded time belongs to the single object: a listing shows when it was stored.
    assert facts["timed"]["modify"] == modified(s3, tree, "timed")


def test_mlsd_of_a_marked_directory_leaves_the_marker_out(ftp, tree):
    assert list(ftp.facts(f"/{tree}/marked")) == ["."]


def test_empty_bucket(ftp, bucket):
    assert ftp.listing("NLST", f"/{bucket}") == []
    assert ftp.listing("LIST", f"/{bucket}") == []
    assert list(ftp.facts(f"/{bucket}")) == ["."]


def test_root_lists_own_buckets(ftp, login, bucket, new_bucket):
    theirs = new_bucket("bob")
    names = ftp.listing("NLST", "/")
    assert bucket in names and theirs not in names
    facts = ftp.facts("/")
    assert facts["."]["type"] == "cdir" and facts[bucket]["type"] == "dir"
    assert theirs in login("bob").listing("NLST", "/")


def test_mlst_shows_the_path_that_was_asked_for(ftp, tree, s3):
    reply = ftp.expect(250, f"MLST /{tree}/a.txt")
    assert len(reply.lines) == 3 and reply.lines[1].startswith(" ")
    name, facts = parse_facts(reply.lines[1])
    assert name == f"/{tree}/a.txt"
    assert (facts["type"], facts["size"], facts["modify"]) == ("file", "5", modified(s3, tree, "a.txt"))
    name, facts = parse_facts(ftp.expect(250, f"MLST /{tree}/dir").lines[1])
    assert name == f"/{tree}/dir"
    assert facts["type"] in ("dir", "cdir") and "modify" not in facts
    ftp.expect(250, f"CWD /{tree}")
    assert parse_facts(ftp.expect(250, "MLST a.txt").lines[1])[1]["size"] == "5"


def test_recorded_time_shows_where_one_object_is_asked_for(ftp, tree, s3):
    recorded = time.strftime("%Y%m%d%H%M%S", time.gmtime(1000000000))
    assert ftp.expect(213, f"MDTM /{tree}/timed").last == recorded
    assert parse_facts(ftp.expect(250, f"MLST /{tree}/timed").lines[1])[1]["modify"] == recorded


def test_mdtm(ftp, tree, s3):
    assert ftp.expect(213, f"MDTM /{tree}/a.txt").last == modified(s3, tree, "a.txt")
    assert calendar.timegm(time.strptime(ftp.expect(213, f"MDTM /{tree}/a.txt").last, "%Y%m%d%H%M%S")) > 1e9
    assert ftp.command(f"MDTM /{tree}/dir").code == 550
    assert ftp.command(f"MDTM /{tree}/badtime").code == 550  # recorded, but unreadable: unknown


def test_size(ftp, tree):
    assert ftp.expect(213, f"SIZE /{tree}/a.txt").last == "5"
    assert ftp.expect(213, f"SIZE /{tree}/empty").last == "0"
    assert ftp.command(f"SIZE /{tree}/dir").code == 550
    assert ftp.command(f"SIZE /{tree}").code == 550


def test_stat_lists_on_the_control_connection(ftp, tree):
    reply = ftp.command(f"STAT /{tree}/dir")
    assert reply.code in (212, 213)
    assert any("b.bin" in line for line in reply.lines) and any("sub" in line for line in reply.lines)
    reply = ftp.command(f"STAT /{tree}/a.txt")
    assert reply.code == 213 and any("a.txt" in line for line in reply.lines)
    assert ftp.command("STAT").code == 211


def test_cwd_needs_a_directory(ftp, tree):
    assert ftp.command(f"CWD /{tree}/dir").code == 250
    assert ftp.expect(257, "PWD").last.startswith(f'"/{tree}/dir"')
    assert ftp.command("CWD sub").code == 250
    assert ftp.command("CDUP").code in (200, 250)
    assert ftp.expect(257, "PWD").last.startswith(f'"/{tree}/dir"')
    assert ftp.command("CWD b.bin").code == 550
    assert ftp.command("CWD missing").code == 550
    assert ftp.command("CWD /no-such-bucket-here").code == 550
    assert ftp.expect(257, "PWD").last.startswith(f'"/{tree}/dir"')
    for _ in range(5):
        assert ftp.command("CDUP").code in (200, 250)
    assert ftp.expect(257, "PWD").last.startswith('"/"')


def test_listing_a_file(ftp, tree):
    """A name that is a file: LIST and NLST show it, MLSD is for directories."""
    assert len(ftp.listing("LIST", f"/{tree}/a.txt")) == 1
    assert ftp.listing("NLST", f"/{tree}/a.txt")[0].endswith("a.txt")
    replies, content = ftp.fetch(f"MLSD /{tree}/a.txt")
    assert content is None and replies[0].code == 501


@pytest.mark.parametrize("command", ["LIST", "NLST", "MLSD"])
@pytest.mark.parametrize("where", ["/{}/missing", "/no-such-bucket-here", "/no-such-bucket-here/dir"])
def test_missing_directory_is_an_error_before_the_transfer(ftp, tree, command, where):
    replies, content = ftp.fetch(f"{command} {where.format(tree)}")
    assert content is None
    assert replies[0].code == 550 and replies[0].word == "PATH_NOT_FOUND"


@pytest.mark.parametrize("command", ["SIZE", "MDTM", "MLST", "CWD"])
@pytest.mark.parametrize("where", ["/{}/missing", "/no-such-bucket-here/file", "/{}/dir/none"])
def test_missing_path_is_an_error_that_names_it(ftp, tree, command, where):
    reply = ftp.command(f"{command} {where.format(tree)}")
    assert reply.code == 550 and reply.word == "PATH_NOT_FOUND"
    assert all(line.startswith("550") for line in reply.lines)


def test_facts_can_be_chosen(ftp, tree):
    assert ftp.expect(200, "OPTS MLST size;type;").code == 200
    _, facts = parse_facts(ftp.expect(250, f"MLST /{tree}/a.txt").lines[1])
    assert set(facts) == {"size", "type"}


@pytest.mark.slow
def test_ten_thousand_names(ftp, new_bucket, s3, store):
    """Ten pages of the store's listing: every name once, none missing."""
    bucket = new_bucket()
    count = 10000
    with ThreadPoolExecutor(16) as pool:
        list(pool.map(lambda n: s3.put_object(Bucket=bucket, Key=f"many/file-{n:05}", Body=b"x"), range(count)))
    expected = [f"file-{n:05}" for n in range(count)]
    assert sorted(ftp.listing("NLST", f"/{bucket}/many")) == expected
    facts = ftp.facts(f"/{bucket}/many")
    del facts["."]
    assert sorted(facts) == expected
    assert all(fact["size"] == "1" and fact["type"] == "file" for fact in facts.values())
    assert len(ftp.listing("LIST", f"/{bucket}/many")) == count
    # A client that leaves in the middle of it does not disturb the session.
    data = ftp.open_data(receive_buffer=4096)
    ftp.expect(150, f"MLSD /{bucket}/many")
    assert data.recv(100)
    ftp.reset(data)
    assert ftp.read_reply().code in (226, 425, 426, 451)
    assert ftp.expect(213, f"SIZE /{bucket}/many/file-00000").last == "1"
