"""The two object stores that the tests run against, with one shape.

A store has an endpoint, users with key pairs, and boto3 clients for them; boto3 is the judge of what is stored. Both are
child processes (trees) of the test run, bound to ports of their own, and gone when stop() returns.
"""

import json
import os
import re
import secrets
import signal
import string
import subprocess
import sys
import urllib.request
from pathlib import Path

import boto3
import botocore.config

from waiting import wait_for

RGW_SCRIPT = Path(__file__).resolve().parent.parent / "rgw" / "rgw.py"


def random_key():
    """An (access key, secret key) pair. The secret always holds "+" and "/", which careless code would escape."""
    return ["".join(secrets.choice(string.ascii_uppercase + string.digits) for _ in range(20)),
            "".join(secrets.choice(string.ascii_letters + string.digits) for _ in range(38)) + "+/"]


class Store:
    """What the tests may ask of any store."""

    name = ""
    endpoint = ""  # "http://HOST:PORT"

    def __init__(self):
        self.users = {}  # user id -> list of [access key, secret key]
        self._clients = {}

    @property
    def host(self):
        """HOST:PORT, as the module's configuration wants it."""
        return self.endpoint.partition("://")[2]

    @property
    def address(self):
        host, _, port = self.host.rpartition(":")
        return host, int(port)

    def client(self, uid="alice"):
        """A boto3 client with the user's first key pair; made once for each user."""
        if uid not in self._clients:
            access, secret = self.users[uid][0]
            self._clients[uid] = boto3.client(
                "s3", endpoint_url=self.endpoint, aws_access_key_id=access, aws_secret_access_key=secret,
                region_name="us-east-1",
                config=botocore.config.Config(s3={"addressing_style": "path"}, max_pool_connections=32,
                                              retries={"max_attempts": 2}))
        return self._clients[uid]

    def _read_users(self, file):
        for user in json.loads(Path(file).read_text())["users"]:
            self.users[user["uid"]] = user["keys"]


class DevStore(Store):
    """The small store of this repository, with a control port for the tests."""

    name = "devstore"

    def __init__(self, binary, folder, *options):
        """`options`: further arguments of the program."""
        super().__init__()
        users_file, control_file = folder / "users.json", folder / "control-port"
        users = [{"uid": "admin", "display_name": "Administrator", "keys": [random_key()], "admin": True},
                 {"uid": "alice", "display_name": "Alice", "keys": sorted([random_key(), random_key()]), "admin": False},
                 {"uid": "bob", "display_name": "Bob", "keys": [random_key()], "admin": False}]
        users_file.write_text(json.dumps({"users": users}))
        users_file.chmod(0o600)
        self._read_users(users_file)
        self.log = folder / "devstore.log"
        self._control_file = control_file
        self._command = [str(binary), "--users-file", str(users_file), "--control-port-file", str(control_file), *options]
        self._start("127.0.0.1:0", "127.0.0.1:0")

    def _start(self, listen, control):
        with open(self.log, "wb") as log:
            self.process = subprocess.Popen([*self._command, "--listen", listen, "--control", control],
                                            stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        self.endpoint = wait_for(self._announced, "the dev store says where it listens")
        file = self._control_file
        port = wait_for(lambda: file.exists() and file.read_text(), "control port")
        self.control = "http://127.0.0.1:" + re.findall(r"\d+", port)[-1]

    def kill(self):
        """SIGKILL. What survives is what --data-dir names."""
        self.process.kill()
        self.process.wait()
        self._control_file.unlink()

    def start_again(self):
        """After kill(): with the same data, at the same address."""
        self._start(self.host, self.control.partition("://")[2])

    def _announced(self):
        assert self.process.poll() is None, f"zorvan-devstore ended: {self.log.read_text()}"
        found = re.search(r"listening on (http://\S+)", self.log.read_text())
        return found and found.group(1)

    def _control(self, method, path, body=None):
        data = json.dumps(body).encode() if body is not None else None
        request = urllib.request.Request(self.control + path, method=method, data=data)
        with urllib.request.urlopen(request, timeout=60) as reply:
            return reply.read()

    def make_sparse(self, bucket, key, size):
        """An object of `size` zero bytes that costs neither time nor memory."""
        self._control("PUT", f"/sparse/{bucket}/{key}?size={size}")

    def requests(self):
        """The requests seen since the last forget_requests(), as dictionaries."""
        return json.loads(self._control("GET", "/log"))["requests"]

    def requests_on_buckets(self):
        """All requests ever on buckets themselves, HEAD excepted, counted by what they are."""
        return json.loads(self._control("GET", "/log/buckets"))["requests"]

    def set_clock(self, seconds):
        """Shift the clock of modification times and restores, seconds from the true time."""
        self._control("POST", "/clock", {"offset": seconds})

    def set_archive_status(self, bucket, key, status):
        """Move an object of class INTELLIGENT_TIERING into an archive tier, or out of it ("")."""
        self._control("POST", "/archive", {"bucket": bucket, "key": key, "status": status})

    def forget_requests(self):
        self._control("DELETE", "/log")

    def add_fault(self, match, action):
        """Make requests that match fail as the action says, until clear_faults()."""
        self._control("POST", "/faults", {"match": match, "action": action})

    def skew(self, seconds):
        """Set the clock that requests' dates are judged by so far ahead."""
        self._control("POST", "/clock", {"request_offset": seconds})

    def clear_faults(self):
        self._control("DELETE", "/faults")

    def stop(self):
        self.process.send_signal(signal.SIGTERM)
        assert self.process.wait(30) == 0, f"zorvan-devstore ended badly: {self.log.read_text()[-2000:]}"


class RgwStore(Store):
    """A real Ceph RADOS Gateway with everything below it in memory."""

    name = "rgw"

    def __init__(self, folder):
        super().__init__()
        self.folder = folder
        started = subprocess.run([sys.executable, str(RGW_SCRIPT), "start", str(folder), "--quiet"], check=False,
                                 stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=300)
        assert started.returncode == 0, f"the RADOS Gateway did not start:\n{started.stderr[-4000:]}"
        self._read_users(folder / "users.json")
        self.endpoint = json.loads((folder / "users.json").read_text())["endpoint"]

    def _run(self, *command):
        subprocess.run([sys.executable, str(RGW_SCRIPT), command[0], str(self.folder), *command[1:]], check=True,
                       stdin=subprocess.DEVNULL, timeout=120)

    def kill(self):
        """SIGKILL to the gateway; the cluster below it, with the data, goes on."""
        self._run("kill-gateway")

    def start_again(self):
        """After kill(): at the same address."""
        self._run("start-gateway")

    def stop(self):
        self._run("stop", "--wipe")


def random_bytes(size):
    """Data that no two uploads share and that compress nowhere."""
    return os.urandom(size)


def keys(s3, bucket):
    """All keys in a bucket, sorted; for buckets of less than a page."""
    return [entry["Key"] for entry in s3.list_objects_v2(Bucket=bucket).get("Contents", [])]
