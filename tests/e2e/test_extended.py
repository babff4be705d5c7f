"""Extended mode (MODE E) with the real module and store: several data connections, blocks in any order, exact content."""

import random

import pytest

from extended_client import BLOCK, interleaved, retrieve, store
from gateway import shared_server
from stores import random_bytes

PART = 5 << 20  # the smallest that the module takes
STREAMS = 4


@pytest.fixture(scope="module")
def server(store, binaries):
    with shared_server(binaries, store, extra_options={"part_size": PART}) as gateway:
        yield gateway


@pytest.fixture
def extended(server):
    """A session in extended mode."""
    with server.session() as client:
        client.expect(200, "MODE E")
        yield client


def in_turns(size):
    return interleaved(size, STREAMS)


def quarters(size):
    blocks = list(range(0, size, BLOCK))
    share = -(-len(blocks) // STREAMS)
    return [blocks[number * share:(number + 1) * share] for number in range(STREAMS)]


def shuffled(size):
    blocks = list(range(0, size, BLOCK))
    random.Random(size).shuffle(blocks)
    return [blocks[number::STREAMS] for number in range(STREAMS)]


@pytest.mark.parametrize("plan", [in_turns, quarters, shuffled])
@pytest.mark.parametrize("announced", [True, False], ids=["announced", "unannounced"])
@pytest.mark.parametrize("size", [3 << 20, 2 * PART + 12345], ids=["one-put", "parts"])
def test_upload_arrives_whole(extended, bucket, stored, plan, announced, size):
    content = random_bytes(size)
    if announced:
        extended.expect(200, f"ALLO {size}")
    assert store(extended, f"/{bucket}/file", content, plan(size)).code == 226
    assert stored(bucket, "file") == content


@pytest.mark.parametrize("announced", [True, False], ids=["announced", "unannounced"])
def test_upload_with_a_hole_leaves_no_object(extended, server, bucket, stored, announced):
    content = random_bytes(3 << 20)
    plans = in_turns(len(content))
    del plans[2][5]
    if announced:
        extended.expect(200, f"ALLO {len(content)}")
    assert store(extended, f"/{bucket}/file", content, plans).code >= 400
    assert stored(bucket, "file") is None
    with server.session() as after:
        assert after.store(f"/{bucket}/file", b"next").code == 226


@pytest.mark.parametrize("size", [1, 3 << 20, 2 * PART + 12345])
def test_download_is_exact(extended, bucket, s3, size):
    content = random_bytes(size)
    s3.put_object(Bucket=bucket, Key="file", Body=content)
    end, blocks = retrieve(extended, f"/{bucket}/file", STREAMS)
    assert end.code == 226
    assert b"".join(block for _, block in blocks) == content
    position = 0
    for offset, block in blocks:
        assert offset == position
        position += len(block)


def test_download_of_what_is_missing(extended, bucket, s3):
    content = random_bytes(3 << 20)
    s3.put_object(Bucket=bucket, Key="file", Body=content)
    end, blocks = retrieve(extended, f"/{bucket}/file", STREAMS, rest="0-1000000,2000000-2500000")
    assert end.code == 226
    found = bytearray(len(content))
    for offset, block in blocks:
        found[offset:offset + len(block)] = block
    assert found[1000000:2000000] == content[1000000:2000000]
    assert found[2500000:] == content[2500000:]
    assert sum(len(block) for _, block in blocks) == len(content) - 1500000


def test_stream_mode_again(extended, bucket, stored):
    extended.expect(200, "MODE S")
    assert extended.store(f"/{bucket}/file", b"content").code == 226
    assert extended.retrieve(f"/{bucket}/file") == b"content"
    assert stored(bucket, "file") == b"content"
