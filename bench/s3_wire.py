"""The store alone, as fast as one kept connection gets: a signed request is one write, its reply parsed by hand.

boto3 would cost more processor time per small request than the gateway does and so flatter every ratio; this client costs
about as much as the FTP client of the other side. Signature V4 with UNSIGNED-PAYLOAD: nobody hashes the body, here or in the gateway.
"""

import hashlib
import hmac
import re
import time
import urllib.parse

from processes import BenchError
from stores import BUCKET
from tcp import connection

REGION = "us-east-1"
LONG_BODY = 1 << 20  # a second write costs less than a copy


def _hmac(key, text):
    return hmac.digest(key, text.encode(), "sha256")


class S3Connection:
    """One connection to a store as its user; not for threads. Keys must need no percent-encoding."""

    def __init__(self, store):
        self.host = store.host
        self.access, self.secret = store.user
        self.day = self.signing_key = None
        address, _, port = store.host.rpartition(":")
        self.socket = connection(address, int(port))
        self.pending = b""

    def close(self):
        self.socket.close()

    def _head(self, method, path, query, length):
        """The signed head of a request (the rule: S3 API, "Signature Calculations for the Authorization Header")."""
        now = time.strftime("%Y%m%dT%H%M%SZ", time.gmtime())
        scope = f"{now[:8]}/{REGION}/s3/aws4_request"
        if self.day != now[:8]:
            self.day = now[:8]
            key = _hmac(f"AWS4{self.secret}".encode(), self.day)
            for part in (REGION, "s3", "aws4_request"):
                key = _hmac(key, part)
            self.signing_key = key
        canonical = (f"{method}\n{path}\n{query}\nhost:{self.host}\nx-amz-content-sha256:UNSIGNED-PAYLOAD\nx-amz-date:{now}\n\n"
                     "host;x-amz-content-sha256;x-amz-date\nUNSIGNED-PAYLOAD")
        digest = hashlib.sha256(canonical.encode()).hexdigest()
        signature = hmac.new(self.signing_key, f"AWS4-HMAC-SHA256\n{now}\n{scope}\n{digest}".encode(), "sha256").hexdigest()
        target = f"{path}?{query}" if query else path
        size = f"Content-Length: {length}\r\n" if length is not None else ""
        return (f"{method} {target} HTTP/1.1\r\nHost: {self.host}\r\nx-amz-content-sha256: UNSIGNED-PAYLOAD\r\nx-amz-date: {now}\r\n"
                f"Authorization: AWS4-HMAC-SHA256 Credential={self.access}/{scope}, "
                f"SignedHeaders=host;x-amz-content-sha256;x-amz-date, Signature={signature}\r\n{size}\r\n").encode()

    def _more(self):
        received = self.socket.recv(1 << 18)
        if not received:
            raise BenchError("the store closed a kept connection")
        self.pending += received

    def _take_until(self, mark):
        while mark not in self.pending:
            self._more()
        text, _, self.pending = self.pending.partition(mark)
        return text

    def _take(self, count):
        while len(self.pending) < count:
            self._more()
        text, self.pending = self.pending[:count], self.pending[count:]
        return text

    def request(self, method, key="", query="", body=None):
        """(status, lower-case head, body) of one request for a key of the bucket, or for the bucket itself."""
        path = f"/{BUCKET}/{key}" if key else f"/{BUCKET}"
        head = self._head(method, path, query, None if body is None else len(body))
        if body and len(body) > LONG_BODY:
            self.socket.sendall(head)
            self.socket.sendall(body)
        else:
            self.socket.sendall(head + body if body else head)
        reply = self._take_until(b"\r\n\r\n").decode("latin-1").lower()
        status = int(reply[9:12])
        if method == "HEAD" or status == 204:
            return status, reply, b""
        if "transfer-encoding: chunked" in reply:
            pieces = []
            while size := int(self._take_until(b"\r\n"), 16):
                pieces.append(self._take(size))
                self._take_until(b"\r\n")
            self._take_until(b"\r\n")
            return status, reply, b"".join(pieces)
        length = re.search(r"content-length: (\d+)", reply)
        return status, reply, self._take(int(length[1]) if length else 0)

    def expect(self, wanted, *arguments, **named):
        """The reply's body; BenchError for another status."""
        status, _, body = self.request(*arguments, **named)
        if status != wanted:
            raise BenchError(f"{arguments}: the store answered {status}, not {wanted}: {body[:500]!r}")
        return body

    def size(self, key):
        """Of a stored object; None when there is none."""
        status, head, _ = self.request("HEAD", key)
        return int(re.search(r"content-length: (\d+)", head)[1]) if status == 200 else None

    def pages(self, prefix):
        """The bodies of the pages of a listing of one folder, 1000 keys each."""
        token = ""
        while True:
            query = (f"continuation-token={token}&" if token else "") + "delimiter=%2F&list-type=2&max-keys=1000&prefix=" + \
                urllib.parse.quote(prefix, safe="")
            page = self.expect(200, "GET", query=query)
            yield page
            match = re.search(rb"<NextContinuationToken>(.*?)</NextContinuationToken>", page)
            if not match:
                return
            token = urllib.parse.quote(match[1].decode(), safe="")

    def sizes(self, prefix):
        """{key: size} of the objects whose key begins with `prefix`; no slash may follow."""
        found = {}
        for page in self.pages(prefix):
            found.update((key.decode(), int(size)) for key, size in re.findall(rb"<Key>(.*?)</Key>.*?<Size>(\d+)</Size>", page))
        return found


class DirectSession:
    """The operations of an FTP session, straight to the store."""

    def __init__(self, store):
        self.connection = S3Connection(store)

    def close(self):
        self.connection.close()

    def store(self, name, content, announce):  # pylint: disable=unused-argument  # HTTP always announces
        self.connection.expect(200, "PUT", name, body=content)

    def retrieve(self, name):
        return self.connection.expect(200, "GET", name)

    def delete(self, name):
        self.connection.expect(204, "DELETE", name)

    def size(self, name):
        return self.connection.size(name)

    def listing(self, verb, path):  # pylint: disable=unused-argument
        """(keys, seconds until the first page is there)."""
        begin, first, keys = time.monotonic(), None, []
        for page in self.connection.pages(f"{path}/"):
            first = first or time.monotonic() - begin
            keys += re.findall(rb"<Key>(.*?)</Key>", page)
        return keys, first
