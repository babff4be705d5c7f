"""An FTP session that costs little: what a careful client sends for each file (EPSV, then the command), and nothing else."""

import re
import time

from processes import BenchError
from tcp import connection


class FtpSession:
    """A logged-in control connection in binary mode, in the folder of the bucket; not for threads."""

    def __init__(self, service):
        self.socket = connection("127.0.0.1", service.port)
        self.pending = b""
        self._reply()
        self.command(f"USER {service.user}", 3)
        self.command(f"PASS {service.password}", 2)
        self.command("TYPE I", 2)
        if service.folder:
            self.command(f"CWD {service.folder}", 2)

    def close(self):
        self.socket.close()

    def _line(self):
        while b"\n" not in self.pending:
            received = self.socket.recv(65536)
            if not received:
                raise BenchError("an FTP server closed its control connection")
            self.pending += received
        line, _, self.pending = self.pending.partition(b"\n")
        return line

    def _reply(self):
        line = self._line()
        if line[3:4] == b"-":
            end = line[:3] + b" "
            while not (line := self._line()).startswith(end):
                pass
        return line

    def expect(self, kind):
        """The next reply's last line, which must begin with the digit `kind`."""
        line = self._reply()
        if line[0] - 48 != kind:
            raise BenchError(f"an FTP server answered {line!r}, not {kind}xx")
        return line

    def command(self, text, kind):
        self.socket.sendall(f"{text}\r\n".encode())
        return self.expect(kind)

    def _data(self):
        port = int(re.search(rb"\(\|\|\|(\d+)\|\)", self.command("EPSV", 2))[1])
        return connection("127.0.0.1", port)

    def store(self, name, content, announce):
        """STOR of bytes; with `announce` an ALLO goes before. Returns when the 226 is there."""
        if announce:
            self.command(f"ALLO {len(content)}", 2)
        with self._data() as data:
            self.command(f"STOR {name}", 1)
            data.sendall(content)
        self.expect(2)

    def store_file(self, name, path):
        """The same for a file, announced; seconds from the client's last byte to the 226."""
        self.command(f"ALLO {path.stat().st_size}", 2)
        with self._data() as data, open(path, "rb") as source:
            self.command(f"STOR {name}", 1)
            data.sendfile(source)
        begin = time.monotonic()
        self.expect(2)
        return time.monotonic() - begin

    def _receive(self, command):
        """(data, seconds until their first byte) of a command that sends some."""
        begin = time.monotonic()
        with self._data() as data:
            self.socket.sendall(f"{command}\r\n".encode())
            pieces = [data.recv(1 << 18)]
            first = time.monotonic() - begin
            while pieces[-1]:
                pieces.append(data.recv(1 << 18))
        self.expect(1)
        self.expect(2)
        return b"".join(pieces), first

    def retrieve(self, name):
        """The bytes of a file, once the 226 is there."""
        return self._receive(f"RETR {name}")[0]

    def listing(self, verb, path):
        """(lines, seconds until the first byte)."""
        data, first = self._receive(f"{verb} {path}")
        return data.splitlines(), first

    def delete(self, name):
        self.command(f"DELE {name}", 2)

    def size(self, name):
        return int(self.command(f"SIZE {name}", 2)[4:])
