"""The client's side of extended mode (MODE E): blocks with offsets over several data connections."""

import concurrent.futures
import socket
import struct
from dataclasses import dataclass, field

BLOCK = 70000
HEADER = struct.Struct(">BQQ")  # descriptor, byte count, offset
END_OF_FILE, END_OF_DATA = 0x40, 0x08


def connect(ftp, count):
    """So many data connections to one passive port."""
    first = ftp.open_data()
    return [first, *(socket.create_connection(first.getpeername(), ftp.timeout) for _ in range(count - 1))]


def send_block(data, content, offset, size=BLOCK, place=None):
    """The bytes of `content` from `offset` on as one block; `place`: its offset in the file where that is another."""
    block = memoryview(content)[offset:offset + size]
    data.sendall(HEADER.pack(0, len(block), offset if place is None else place))
    data.sendall(block)


def end_of_data(streams=None):
    """The end of the data on one connection; `streams` also tells how many such ends there are."""
    return HEADER.pack(END_OF_DATA | (END_OF_FILE if streams else 0), 0, streams or 0)


def send_blocks(data, content, offsets, streams=None, size=BLOCK):
    """The blocks that begin at these offsets, and the end of the data."""
    with data:
        for offset in offsets:
            send_block(data, content, offset, size)
        data.sendall(end_of_data(streams))


@dataclass
class Ending:
    """How a transfer ended: its last reply, and the markers (111, 112) before it."""

    reply: object
    markers: list = field(default_factory=list)

    @property
    def code(self):
        return self.reply.code


def ending(ftp):
    """Reads up to the last reply of a transfer."""
    markers = []
    while (reply := ftp.read_reply()).code < 200:
        markers.append(reply)
    return Ending(reply, markers)


def store(ftp, path, content, plans, size=BLOCK):
    """An upload over as many connections as there are plans (lists of offsets, of blocks of `size`). Its ending."""
    connections = connect(ftp, len(plans))
    first = ftp.command(f"STOR {path}")
    assert first.code == 150, first.lines
    with concurrent.futures.ThreadPoolExecutor(len(plans)) as pool:
        sends = [pool.submit(send_blocks, data, content, offsets, len(plans) if number == 0 else None, size)
                 for number, (data, offsets) in enumerate(zip(connections, plans))]
        end = ending(ftp)
        for send in sends:
            error = send.exception()
            assert end.code != 226 or error is None, error
    return end


def interleaved(size, streams, begin=0, block=BLOCK):
    """One plan for each stream: in turns, from `begin` on."""
    return [list(range(begin + number * block, size, streams * block)) for number in range(streams)]


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


def retrieve(ftp, path, streams, rest=None):
    """A download over so many connections: its ending, and its blocks in the order of their offsets."""
    with socket.create_server(("127.0.0.1", 0), backlog=streams) as listener:
        listener.settimeout(ftp.timeout)
        ftp.expect(200, f"EPRT |1|127.0.0.1|{listener.getsockname()[1]}|")
        ftp.expect(200, f"OPTS RETR Parallelism={streams},{streams},{streams};")
        if rest:
            ftp.expect(350, f"REST {rest}")
        ftp.send(f"RETR {path}")
        with concurrent.futures.ThreadPoolExecutor(streams) as pool:
            reads, announced, ended = [], None, 0
            first = ftp.read_reply()
            assert first.code == 150, first.lines
            connections = [listener.accept()[0] for _ in range(streams)]
            for data in connections:
                data.settimeout(ftp.timeout)
                reads.append(pool.submit(read_blocks, data))
            blocks = []
            for read in reads:
                found, told = read.result()
                blocks += found
                ended += 1
                announced = told if told is not None else announced
        assert announced == ended == streams
        return ending(ftp), sorted(blocks)
