"""Fixtures: a running zorvan-devstore and clients for it.

Every store listens on a free port of the loopback interface and is ended by
the fixture that started it; a store that ends with an error fails its tests,
so that a sanitizer's report is not lost.
"""

import json
import os
import shutil
import subprocess
import time
import urllib.error
import urllib.request

import boto3
import botocore.auth
import botocore.awsrequest
import botocore.config
import botocore.credentials
import http.client
import pytest

ALICE = ("ALICEKEY0001", "alicesecret/+0001")
ALICE2 = ("ALICEKEY0002", "alicesecret/+0002")
BOB = ("BOBKEY0001", "bobsecret0001")
ADMIN = ("ADMINKEY0001", "adminsecret0001")


def pytest_addoption(parser):
    parser.addoption("--devstore-binary", default=os.environ.get("ZORVAN_DEVSTORE"))


class Reply:
    """A raw reply: status, headers (names in lower case), body."""

    def __init__(self, response):
        self.status = response.status
        self.headers = {name.lower(): value for name, value in response.getheaders()}
        self.body = response.read()


class Store:
    """A running store."""

    def __init__(self, binary, *arguments):
        command = [binary, "--listen", "127.0.0.1:0", "--control", "127.0.0.1:0"]
        command += ["--admin-key", ADMIN[0], "--admin-secret", ADMIN[1]]
        for name, keys in (("alice", ALICE), ("alice", ALICE2), ("bob", BOB)):
            command += ["--user", ":".join((name,) + keys)]
        self.process = subprocess.Popen(
            command + list(arguments), stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True
        )
        first = self.process.stdout.readline()
        assert first.startswith("listening on http://127.0.0.1:"), first + self.process.stderr.read()
        self.url = first.split()[-1]
        self.port = int(self.url.rsplit(":", 1)[1])
        self.control_url = self.process.stdout.readline().split()[-1]

    def stop(self):
        """Ends the store and returns its exit status."""
        if self.process.poll() is None:
            self.process.terminate()
        _, errors = self.process.communicate(timeout=60)
        self.errors = errors
        return self.process.returncode

    def s3(self, keys=ALICE, style="path", region="us-east-1", endpoint=None, **config):
        return boto3.client(
            "s3",
            endpoint_url=endpoint or self.url,
            aws_access_key_id=keys[0],
            aws_secret_access_key=keys[1],
            region_name=region,
            config=botocore.config.Config(
                s3={"addressing_style": style}, retries={"max_attempts": 0, "mode": "standard"}, **config
            ),
        )

    def signed(self, method, target, headers=None, body=None, keys=ALICE, payload="UNSIGNED-PAYLOAD"):
        """The headers of a signed request. `target` is path and query as they go over the wire."""
        headers = dict(headers or {})
        if payload:
            headers["x-amz-content-sha256"] = payload
        request = botocore.awsrequest.AWSRequest(method=method, url=self.url + target, headers=headers, data=body)
        credentials = botocore.credentials.Credentials(*keys)
        signer = botocore.auth.S3SigV4Auth(credentials, "s3", "us-east-1")
        if payload:
            signer.payload = lambda _: payload
        signer.add_auth(request)
        request.headers["Host"] = self.url.split("//")[1]
        return dict(request.headers)

    def raw(self, method, target, headers=None, body=None, keys=ALICE, payload="UNSIGNED-PAYLOAD"):
        """Sends one signed request over a connection of its own; keys=None leaves it unsigned."""
        if keys:
            headers = self.signed(method, target, headers, body if isinstance(body, bytes) else None, keys, payload)
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=30)
        try:
            chunked = (headers or {}).get("Transfer-Encoding") == "chunked"
            connection.request(method, target, body=body, headers=headers or {}, encode_chunked=chunked)
            return Reply(connection.getresponse())
        finally:
            connection.close()

    def control(self, method, path, document=None):
        """A request to the control port; returns the JSON of the answer."""
        data = json.dumps(document).encode() if document is not None else None
        request = urllib.request.Request(self.control_url + path, data=data, method=method)
        with urllib.request.urlopen(request, timeout=60) as response:
            return json.loads(response.read())

    def fault(self, action, **match):
        self.control("POST", "/faults", {"match": match, "action": action})

    def log(self):
        return self.control("GET", "/log")["requests"]

    def memory(self):
        """Resident set of the store in bytes."""
        with open(f"/proc/{self.process.pid}/status", encoding="ascii") as status:
            for line in status:
                if line.startswith("VmRSS:"):
                    return int(line.split()[1]) * 1024
        raise AssertionError("no VmRSS")


@pytest.fixture(scope="session")
def binary(request):
    path = request.config.getoption("--devstore-binary") or shutil.which("zorvan-devstore")
    if not path:
        pytest.fail("--devstore-binary PATH or ZORVAN_DEVSTORE names the program to test")
    return path


@pytest.fixture
def make_store(binary):
    """Starts stores with further options; all are ended after the test."""
    running = []

    def make(*arguments):
        running.append(Store(binary, *arguments))
        return running[-1]

    yield make
    for store in running:
        status = store.stop()
        assert status == 0 and store.errors == "", store.errors


@pytest.fixture(scope="session")
def shared_store(binary):
    store = Store(binary, "--dns-name", "s3.localhost")
    yield store
    status = store.stop()
    assert status == 0 and store.errors == "", store.errors


_bucket_number = 0


@pytest.fixture
def store(shared_store):
    """The store that most tests share, with clean log, rules and clock."""
    shared_store.control("DELETE", "/log")
    yield shared_store
    shared_store.control("DELETE", "/faults")
    shared_store.control("POST", "/clock", {"offset": 0, "request_offset": 0})


@pytest.fixture
def s3(store):
    return store.s3()


@pytest.fixture
def bucket(s3):
    """A bucket of the test's own."""
    global _bucket_number
    _bucket_number += 1
    name = f"bucket-{_bucket_number}"
    s3.create_bucket(Bucket=name)
    return name


def wait_until(condition, seconds=30):
    """Waits for a condition, with a bound; fails the test when it does not come."""
    end = time.monotonic() + seconds
    while not condition():
        assert time.monotonic() < end, "the condition did not come true"
        time.sleep(0.005)
