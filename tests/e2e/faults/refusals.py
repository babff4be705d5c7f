"""What a store may say when it refuses, and what the client is to hear of it."""

import json
from dataclasses import dataclass

import pytest

# The S3 code that belongs to each status. 409 is one that asks for another try.
CODES = {400: "InvalidRequest", 403: "AccessDenied", 404: "NoSuchKey", 409: "OperationAborted", 412: "PreconditionFailed",
         416: "InvalidRange", 500: "InternalError", 501: "NotImplemented", 502: "ServiceUnavailable", 503: "SlowDown",
         504: "ServiceUnavailable"}
WORDS = {403: (550, "PERMISSION_DENIED"), 404: (550, "PATH_NOT_FOUND"), 416: (553, "APPEND_NOT_SUPPORTED"),
         502: (451, "TOO_BUSY"), 503: (451, "TOO_BUSY"), 504: (451, "TOO_BUSY")}


@dataclass(frozen=True)
class Refusal:
    """A status with a body of one kind: xml (the store's own), json (an interface in front, with a code of its own),
    html (a proxy), empty."""

    status: int
    kind: str

    def __str__(self):
        return f"{self.status}-{self.kind}"

    @property
    def action(self):
        bodies = {
            "xml": "<?xml version='1.0' encoding='UTF-8'?><Error><Code>" + CODES[self.status] +
                   "</Code><Message>Said by the store</Message><RequestId>tx1</RequestId></Error>",
            "json": json.dumps({"Code": "ProxyTrouble", "Message": "Said by the store"}),
            "html": "<html><head><title>Trouble</title></head><body><h1>Trouble</h1><hr></body></html>",
            "empty": "",
        }
        return {"status": self.status, "body": bodies[self.kind]}

    @property
    def retried(self):
        return self.status in (500, 502, 503, 504) or (self.status, self.kind) == (409, "xml")

    def reply(self, otherwise):
        """(code, word) of the reply; word is None when the reply is the error's text. `otherwise`: the code for what
        has none of its own."""
        if self.status == 403 and self.kind != "xml":  # may be anything between here and the store
            return otherwise, None
        return WORDS.get(self.status, (otherwise, None))

    def check(self, reply, otherwise):
        code, word = self.reply(otherwise)
        assert reply.code == code, reply.lines
        if word:
            assert reply.word == word, reply.lines
        assert "S3 Error accessing" in reply.last
        if self.kind in ("xml", "json"):
            assert "Said by the store" in reply.last


def all_refusals(kinds=("xml", "json", "html", "empty")):
    return pytest.mark.parametrize("refusal", [Refusal(status, kind) for status in CODES for kind in kinds], ids=str)


def asked(store, method, path):
    """How many requests of that method and path (its end) the store has seen."""
    return sum(entry["method"] == method and entry["path"].endswith(path) for entry in store.requests())
