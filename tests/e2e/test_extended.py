"""Extended mode (MODE E) with the real module and store: several data connections, blocks in any order, exact content."""

import random

import pytest

from extended_client import BLOCK, connect, end_of_data, ending, interleaved, retrieve, send_block, store
from gateway import shared_server
from multipart import BROKEN, PART, interrupt, parts_of, uploads_in
from stores import random_bytes
from waiting import wait_for

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


# -- resumed --------------------------------------------------------------------------------------------------------------
def break_off(ftp, bucket, s3, content, parts, there=0):
    """An announced upload of several connections, reset when so many parts are stored; `there`: what was before. What the store
    has of it, and the ranges that the client was told at last."""
    ftp.expect(200, f"ALLO {len(content) - there}")
    if there:
        ftp.expect(350, f"REST 0-{there}")
    connections = connect(ftp, STREAMS)
    ftp.expect(150, f"STOR /{bucket}/file")
    for number, offset in enumerate(range(there, parts * PART + BLOCK, BLOCK)):
        send_block(connections[number % STREAMS], content, offset)
    kept = wait_for(lambda: len(stored := parts_of(s3, bucket)) == parts and stored, f"{parts} parts are stored", 60)
    for data in connections:
        ftp.reset(data)
    end = ending(ftp)
    assert end.code in BROKEN
    told = [marker.last for marker in end.markers if marker.code == 111][-1]
    assert told.startswith("Range Marker ")
    return kept, told.removeprefix("Range Marker ")


@pytest.mark.parametrize("announced", [True, False], ids=["announced", "unannounced"])
@pytest.mark.parametrize("begun", ["extended", "stream"])
def test_upload_goes_on_behind_a_range(extended, login, bucket, s3, stored, stored_parts, announced, begun):
    """Whichever way it was begun, the blocks go on with the offsets of the whole file."""
    content = random_bytes(3 * PART + 12345)
    if begun == "extended":
        break_off(extended, bucket, s3, content, 2)
    else:
        interrupt(login(), bucket, content, stored_parts, 2)
    if announced:
        extended.expect(200, f"ALLO {len(content) - 2 * PART}")
    extended.expect(350, f"REST 0-{2 * PART}")
    assert store(extended, f"/{bucket}/file", content, interleaved(len(content), STREAMS, begin=2 * PART)).code == 226
    assert stored(bucket, "file") == content
    assert uploads_in(s3, bucket) == {}


def test_markers_tell_where_to_go_on(extended, bucket, s3, stored):
    """What they tell is what the store has, also of earlier tries, and what REST takes."""
    content = random_bytes(4 * PART + 12345)
    _, told = break_off(extended, bucket, s3, content, 1)
    assert told == f"0-{PART}"
    _, told = break_off(extended, bucket, s3, content, 3, there=PART)
    assert told == f"0-{3 * PART}"
    extended.expect(200, f"ALLO {len(content) - 3 * PART}")
    extended.expect(350, f"REST {told}")
    assert store(extended, f"/{bucket}/file", content, interleaved(len(content), STREAMS, begin=3 * PART)).code == 226
    assert stored(bucket, "file") == content


def test_upload_in_stream_mode_goes_on_with_one_of_extended_mode(extended, login, bucket, s3, stored):
    content = random_bytes(3 * PART + 12345)
    break_off(extended, bucket, s3, content, 2)
    ftp = login()
    ftp.expect(350, f"REST {2 * PART}")
    assert ftp.store(f"/{bucket}/file", memoryview(content)[2 * PART:], allocate=len(content) - 2 * PART).code == 226
    assert stored(bucket, "file") == content


def test_part_that_is_stored_is_not_sent_again(extended, bucket, s3, stored):
    content = random_bytes(3 * PART + 12345)
    kept, _ = break_off(extended, bucket, s3, content, 2)
    extended.expect(200, f"ALLO {len(content) - 2 * PART}")
    extended.expect(350, f"REST {2 * PART}")
    [data] = connect(extended, 1)
    extended.expect(150, f"STOR /{bucket}/file")
    send_block(data, content, 2 * PART, size=PART + 1)
    stored_now = wait_for(lambda: len(parts := parts_of(s3, bucket)) == 3 and parts, "the third part is stored", 60)
    assert {number: stored_now[number] for number in kept} == kept
    send_block(data, content, 3 * PART + 1, size=PART)
    data.sendall(end_of_data(1))
    assert ending(extended).code == 226
    data.close()
    assert stored(bucket, "file") == content


@pytest.mark.parametrize("ranges", [f"0-{PART},{2 * PART}-{2 * PART + 1}", f"{PART}-{2 * PART}", f"0-1,{PART}-{2 * PART}"])
def test_upload_around_other_ranges_is_refused(extended, bucket, s3, stored, ranges):
    """Before any data, though something could be resumed. The list and the announced size are forgotten with that."""
    content = random_bytes(3 * PART)
    kept, _ = break_off(extended, bucket, s3, content, 2)
    extended.expect(200, f"ALLO {PART}")
    extended.expect(350, f"REST {ranges}")
    reply = extended.expect(553, f"STOR /{bucket}/file")
    assert reply.last == "An upload can be restarted only behind one part that begins at 0."
    assert parts_of(s3, bucket) == kept
    assert store(extended, f"/{bucket}/other", content[:1000], [[0]]).code == 226
    assert stored(bucket, "other") == content[:1000]


def test_restart_inside_a_part_is_refused(extended, bucket, s3):
    """Before any data, with the numbers that help."""
    content = random_bytes(3 * PART)
    kept, _ = break_off(extended, bucket, s3, content, 2)
    extended.expect(200, f"ALLO {2 * PART - 1}")
    extended.expect(350, f"REST 0-{PART + 1}")
    extended.expect(229, "EPSV")
    reply = extended.expect(553, f"STOR /{bucket}/file")
    assert (reply.word, reply.last) == ("MULTI_PART_UPLOAD_NOT_FOUND",
                                        f"The restart offset {PART + 1} is not a multiple of the part size {PART}.")
    assert parts_of(s3, bucket) == kept


def test_stream_mode_again(extended, bucket, stored):
    extended.expect(200, "MODE S")
    assert extended.store(f"/{bucket}/file", b"content").code == 226
    assert extended.retrieve(f"/{bucket}/file") == b"content"
    assert stored(bucket, "file") == b"content"
