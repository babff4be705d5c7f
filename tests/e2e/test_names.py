"""Keys with every kind of name: up, in all listings, and down again, against the key that boto3 sees."""

import unicodedata

import pytest

from ftp_client import parse_facts

NAMES = [
    "with blank", " leading blank", "trailing blank ", "two  blanks", 'double"quote', "single'quote", "per%cent", "%41", "%",
    "a+b", "a#b", "a?b&c=d", "semi;colon", "co:lon,comma", "<xml>&amp;", "back\\slash", "dollar$(x)`y`", "{braces}[x]",
    "star*", "tilde~", "-l", "--", "...", ".hidden", "exclamation!", "at@sign", "pipe|caret^", "tab\there",
    "Grüße", unicodedata.normalize("NFD", "Grüße"), "日本語.txt", "emoji-🚀", "مرحبا", "zero​width",
    "n" * 1000, "Ж" * 500,
]


def short(name):
    return f"{name[:12]!r}x{len(name)}" if len(name) > 40 else repr(name)



@pytest.mark.parametrize("name", NAMES, ids=short)
def test_name(ftp, bucket, s3, stored, name):
    content = name.encode()[:50]
    assert ftp.store(f"/{bucket}/{name}", content, allocate=len(content)).code == 226
    assert [entry["Key"] for entry in s3.list_objects_v2(Bucket=bucket)["Contents"]] == [name]
    assert stored(bucket, name) == content
    assert ftp.retrieve(f"/{bucket}/{name}") == content
    assert ftp.expect(213, f"SIZE /{bucket}/{name}").last == str(len(content))
    ftp.expect(250, f"CWD /{bucket}")
    assert ftp.listing("NLST") == [name]
    assert ftp.facts()[name]["type"] == "file"
    assert ftp.listing("LIST")[0].endswith(" " + name)
    assert parse_facts(ftp.expect(250, f"MLST {name}").lines[1])[0] in (name, f"/{bucket}/{name}")


@pytest.mark.parametrize("name", [name for name in NAMES if len(name.encode()) < 500], ids=short)
def test_directory_of_that_name(ftp, bucket, s3, name):
    s3.put_object(Bucket=bucket, Key=f"{name}/{name}", Body=b"deep")
    facts = ftp.facts(f"/{bucket}")
    assert facts[name]["type"] == "dir"
    ftp.expect(250, f"CWD /{bucket}/{name}")
    assert ftp.listing("NLST") == [name]
    assert ftp.retrieve(name) == b"deep"
    quoted = f"/{bucket}/{name}".replace('"', '""')
    assert ftp.expect(257, "PWD").last.startswith(f'"{quoted}"')


def test_file_and_directory_of_one_name(ftp, bucket, s3):
    s3.put_object(Bucket=bucket, Key="both", Body=b"file")
    s3.put_object(Bucket=bucket, Key="both/inside", Body=b"inside")
    assert ftp.retrieve(f"/{bucket}/both") == b"file"
    assert ftp.retrieve(f"/{bucket}/both/inside") == b"inside"
    assert ftp.listing("NLST", f"/{bucket}/both") == ["inside"]
    assert sorted(ftp.listing("NLST", f"/{bucket}")) == ["both", "both"]


def test_no_name_adds_a_line_to_a_listing(ftp, bucket, s3):
    """Line ends in a key are shown as something else, and the rest of the listing is whole."""
    for key in ("plain", "with\nline feed", "with\r\nboth", "with\rreturn"):
        s3.put_object(Bucket=bucket, Key=key, Body=b"x")
    for command in ("NLST", "LIST", "MLSD"):
        lines = ftp.listing(command, f"/{bucket}")
        lines = [line for line in lines if not line.endswith(" .")]
        assert len(lines) == 4, lines
        assert sum(line.endswith("plain") for line in lines) == 1
        assert not any("\n" in line or "\r" in line for line in lines)


def test_bytes_that_are_not_utf8_do_not_break_the_session(ftp, bucket):
    reply = ftp.store(f"/{bucket}/".encode() + b"latin1-\xe4", b"x", allocate=1)
    assert reply.code >= 226
    assert ftp.command("NOOP").code == 200


def test_key_that_is_too_long_for_the_store(ftp, bucket, s3):
    reply = ftp.store(f"/{bucket}/{'k' * 1100}", b"x", allocate=1)
    assert 400 <= reply.code < 600
    assert "Contents" not in s3.list_objects_v2(Bucket=bucket)
    assert ftp.command("NOOP").code == 200
