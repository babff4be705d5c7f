"""Extended mode (MODE E) with the real module and store: several data connections, blocks in any order, exact content."""

import concurrent.futures
import random
import socket
import struct

import pytest

from gateway import shared_server
from stores import random_bytes

PART = 5 << 20  # the smallest that the module takes
BLOCK = 70000
HEADER = struct.Struct(">BQQ")  # descriptor, byte count, offset
END_OF_FILE, END_OF_DATA = 0x40, 0x08
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


def connect(ftp, count):
    """So many data connections to one passive port."""
    first = ftp.open_data()
    return [first, *(socket.create_connection(first.getpeername(), ftp.timeout) for _ in range(count - 1))]


def send_blocks(data, content, offsets, last):
    """The blocks that begin at these offsets, and the end of the data; `last` also tells how many such ends there are."""
    with data:
        for offset in offsets:
            block = content[offset:offset + BLOCK]
            data.sendall(HEADER.pack(0, len(block), offset) + block)
        data.sendall(HEADER.pack(END_OF_DATA | (END_OF_FILE if last else 0), 0, STREAMS if last else 0))


def store(ftp, path, content, plans):
    """An upload over as many connections as there are plans (lists of offsets). Its last reply."""
    connections = connect(ftp, len(plans))
    first = ftp.command(f"STOR {path}")
    assert first.code == 150, first.lines
    with concurrent.futures.ThreadPoolExecutor(len(plans)) as pool:
        sends = [pool.submit(send_blocks, data, content, offsets, number == 0)
                 for number, (data, offsets) in enumerate(zip(connections, plans))]
        reply = ftp.read_reply()
        for send in sends:
            error = send.exception()
            assert reply.code != 226 or error is None, error
    return reply


def interleaved(size):
    return [list(range(number * BLOCK, size, STREAMS * BLOCK)) for number in range(STREAMS)]


def quarters(size):
    blocks = list(range(0, size, BLOCK))
    share = -(-len(blocks) // STREAMS)
    return [blocks[number * share:(number + 1) * share] for number in range(STREAMS)]


def shuffled(size):
    blocks = list(range(0, size, BLOCK))
    random.Random(size).shuffle(blocks)
    return [blocks[number::STREAMS] for number in range(STREAMS)]


def read_exactly(data, count):
    content = bytearray()
    while len(content) < count:
        piece = data.recv(count - len(content))
        assert piece, "the connection ended inside a block"
        content += piece
    return bytes(content)


def read_blocks(data):
    """([(offset, bytes)], number of connections if this one told it): up to the connection's end of data."""
    blocks, announced = [], None
    with data:
        while True:
            descriptor, count, offset = HEADER.unpack(read_exactly(data, HEADER.size))
            if descriptor & END_OF_FILE:
                announced = offset
            elif count:
                blocks.append((offset, read_exactly(data, count)))
            if descriptor & END_OF_DATA:
                return blocks, announced


def retrieve(ftp, path, rest=None):
    """A download: its last reply, and its blocks in the order of their offsets."""
    with socket.create_server(("127.0.0.1", 0), backlog=STREAMS) as listener:
        listener.settimeout(ftp.timeout)
        ftp.expect(200, f"EPRT |1|127.0.0.1|{listener.getsockname()[1]}|")
        ftp.expect(200, f"OPTS RETR Parallelism={STREAMS},{STREAMS},{STREAMS};")
        if rest:
            ftp.expect(350, f"REST {rest}")
        ftp.send(f"RETR {path}")
        with concurrent.futures.ThreadPoolExecutor(STREAMS) as pool:
            reads, announced, ended = [], None, 0
            first = ftp.read_reply()
            assert first.code == 150, first.lines
            connections = [listener.accept()[0] for _ in range(STREAMS)]
            for data in connections:
                data.settimeout(ftp.timeout)
                reads.append(pool.submit(read_blocks, data))
            blocks = []
            for read in reads:
                found, told = read.result()
                blocks += found
                ended += 1
                announced = told if told is not None else announced
        assert announced == ended == STREAMS
        return ftp.read_reply(), sorted(blocks)


@pytest.mark.parametrize("plan", [interleaved, quarters, shuffled])
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
    plans = interleaved(len(content))
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
    reply, blocks = retrieve(extended, f"/{bucket}/file")
    assert reply.code == 226
    assert b"".join(block for _, block in blocks) == content
    position = 0
    for offset, block in blocks:
        assert offset == position
        position += len(block)


def test_download_of_what_is_missing(extended, bucket, s3):
    content = random_bytes(3 << 20)
    s3.put_object(Bucket=bucket, Key="file", Body=content)
    reply, blocks = retrieve(extended, f"/{bucket}/file", rest="0-1000000,2000000-2500000")
    assert reply.code == 226
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
