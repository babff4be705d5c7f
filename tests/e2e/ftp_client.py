"""An FTP client that shows everything: each reply with its lines, the data connection as a plain socket."""

import re
import socket
import struct
from dataclasses import dataclass


@dataclass
class Reply:
    """One reply. `lines` are without CRLF, the first and the last with their codes."""

    code: int
    lines: list

    @property
    def text(self):
        return "\n".join(self.lines)

    @property
    def last(self):
        """The text of the last line, without its code."""
        return self.lines[-1][4:]

    @property
    def word(self):
        """The error word of a reply of several lines ("550-WORD"), or the text of a reply of one line."""
        return self.lines[0][4:]


class FtpError(AssertionError):
    """A reply was not the one that the test needed to go on."""


class FtpClient:
    """A control connection. Binary-transparent: paths are bytes or UTF-8 texts, replies are decoded with surrogates."""

    def __init__(self, host, port, timeout=60.0):
        self.timeout = timeout
        self.socket = socket.create_connection((host, port), timeout)
        self.host = host
        self._pending = b""
        self.greeting = self.read_reply()

    # -- control channel --------------------------------------------------------------------------------------------
    def _read_line(self):
        while b"\n" not in self._pending:
            received = self.socket.recv(65536)
            if not received:
                raise EOFError("the server closed the control connection")
            self._pending += received
        line, _, self._pending = self._pending.partition(b"\n")
        assert line.endswith(b"\r"), f"a reply line ends in a bare LF: {line!r}"
        return line[:-1].decode("utf-8", "surrogateescape")

    def read_reply(self):
        first = self._read_line()
        match = re.match(r"(\d{3})([ -])", first)
        assert match, f"not a reply: {first!r}"
        lines = [first]
        if match.group(2) == "-":
            while not lines[-1].startswith(match.group(1) + " "):
                lines.append(self._read_line())
        return Reply(int(match.group(1)), lines)

    def send(self, line):
        if isinstance(line, str):
            line = line.encode("utf-8", "surrogateescape")
        self.socket.sendall(line + b"\r\n")

    def command(self, line):
        """Send one command and return its reply."""
        self.send(line)
        return self.read_reply()

    def expect(self, code, line):
        """The same, for a command that has to be answered with `code`."""
        reply = self.command(line)
        if reply.code != code:
            raise FtpError(f"{line!r} was answered with {reply.lines}, not {code}")
        return reply

    def login(self, user, password):
        """USER and PASS; the reply to PASS (or to USER when that was refused)."""
        reply = self.command(f"USER {user}")
        return self.command(f"PASS {password}") if reply.code == 331 else reply

    # -- data channel -----------------------------------------------------------------------------------------------
    def open_data(self, receive_buffer=None):
        """EPSV and a connected data socket. A small receive buffer makes the server feel a slow client."""
        reply = self.expect(229, "EPSV")
        port = int(re.search(r"\(\|\|\|(\d+)\|\)", reply.last).group(1))
        data = socket.socket()
        if receive_buffer:
            data.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        data.settimeout(self.timeout)
        data.connect((self.host, port))
        return data

    @staticmethod
    def read_all(data):
        """Everything up to the end of the data; closes the socket. ConnectionResetError when the end is none."""
        content = bytearray()
        FtpClient._read_into(content, data)
        return bytes(content)

    @staticmethod
    def _read_into(content, data):
        with data:
            while block := data.recv(1 << 20):
                content += block

    def fetch(self, line, rest=None):
        """A command whose answer comes over a data connection. Returns (replies, data); data is None when the command was
        refused before the transfer."""
        data = self.open_data()
        if rest is not None:
            self.expect(350, f"REST {rest}")
        first = self.command(line)
        if not 100 <= first.code < 200:
            data.close()
            return [first], None
        content, reset = bytearray(), None
        try:
            self._read_into(content, data)
        except ConnectionResetError as error:  # how a server in stream mode says that this was not the end
            reset = error
        last = self.read_reply()
        if reset and last.code == 226:
            raise FtpError(f"{line!r}: the data connection was reset, but the reply is {last.lines}") from reset
        return [first, last], bytes(content)

    def retrieve(self, path, rest=None):
        """A download that has to succeed: its bytes."""
        replies, content = self.fetch(_join("RETR", path), rest)
        if [reply.code for reply in replies] != [150, 226]:
            raise FtpError(f"RETR {path!r}: {[reply.lines for reply in replies]}")
        return content

    def listing(self, command, path=""):
        """A listing that has to succeed: its lines."""
        replies, content = self.fetch(_join(command, path) if path else command)
        if [reply.code for reply in replies] != [150, 226]:
            raise FtpError(f"{command} {path!r}: {[reply.lines for reply in replies]}")
        assert content == b"" or content.endswith(b"\r\n"), content[-80:]
        return content.decode("utf-8", "surrogateescape").split("\r\n")[:-1]

    def facts(self, path=""):
        """MLSD as {name: {fact: value}}, fact names in lower case."""
        return dict(parse_facts(line) for line in self.listing("MLSD", path))

    def begin_store(self, path, content, allocate=None, rest=None):
        """The open data connection of an upload over which `content` has gone; `allocate`: the bytes to come, None: unannounced."""
        if allocate is not None:
            self.expect(200, f"ALLO {allocate}")
        if rest:
            self.expect(350, f"REST {rest}")
        data = self.open_data()
        self.expect(150, _join("STOR", path))
        data.sendall(content)
        return data

    def store(self, path, content, allocate=None, command="STOR"):
        """An upload. Returns the last reply: 226, or what refused it. A reset data connection is left to the reply."""
        if allocate is not None:
            reply = self.command(f"ALLO {allocate}")
            assert reply.code in (200, 202), reply.lines
        data = self.open_data()
        first = self.command(_join(command, path))
        if not 100 <= first.code < 200:
            data.close()
            return first
        try:
            data.sendall(content)
        except (ConnectionResetError, BrokenPipeError):
            pass
        data.close()
        return self.read_reply()

    @staticmethod
    def reset(data):
        """Close a socket so that the peer sees a reset and not an end."""
        data.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        data.close()

    # -- end --------------------------------------------------------------------------------------------------------
    def quit(self):
        reply = self.expect(221, "QUIT")
        self.close()
        return reply

    def close(self):
        self.socket.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


def _join(command, path):
    path = path if isinstance(path, bytes) else path.encode("utf-8", "surrogateescape")
    return command.encode() + b" " + path


def parse_facts(line):
    """("name", {fact: value}) of an MLSD or MLST line."""
    facts, _, name = line.lstrip(" ").partition(" ") if line.startswith(" ") else line.partition(" ")
    return name, {key.lower(): value for key, _, value in (fact.partition("=") for fact in facts.split(";") if fact)}
