"""The server under test as a child process: its configuration, its life, and what it must not leave behind."""

import contextlib
import crypt
import json
import os
import re
import secrets
import shutil
import signal
import subprocess
import tempfile
from pathlib import Path

from ftp_client import FtpClient
from waiting import wait_for

CAROL_IS_NOT_IN_THE_STORE = "carol"


def sha512_hash(password):
    return crypt.crypt(password, crypt.mksalt(crypt.METHOD_SHA512, rounds=1000))


def yescrypt_hash(password):
    """As an operator makes it."""
    return subprocess.run(["mkpasswd", "-m", "yescrypt", "-s"], input=password, capture_output=True, text=True,
                          check=True).stdout.strip()


def module_options(store, **overrides):
    """The module's option file for a store, as text. An override of None leaves a line out."""
    access, secret = store.users["admin"][0]
    settings = {"host_name": store.host, "use_https": "no", "ceph_rgw_admin_access_key_id": access,
                "ceph_rgw_admin_secret_access_key": secret, "part_size": 512 << 20, **overrides}
    return "".join(f"{key} = {value}\n" for key, value in settings.items() if value is not None)


def write_private(path, text):
    path.touch(mode=0o600)
    path.write_text(text)
    return path


class Gateway:
    """A running zorvan-gridftp-server in front of one store.

    Besides the default collection it has others, chosen with HOST: restricted.test (buckets of self.allowed_buckets only),
    badadmin.test (wrong administrator's key), down.test (nobody listens at its endpoint), noscheme.test, empty.test
    (an empty policy file).
    """

    def __init__(self, binaries, store, folder, spool_memory="1MiB", spool_limit="32MiB", spool_enabled=True,
                 extra_options=None, environment=None, **timeouts):
        """`environment`: further variables of the server's; `timeouts`: keys of its [timeouts], in seconds."""
        self.store = store
        # Few seconds: what is left open in the end is counted.
        self.environment = {**os.environ, "ZORVAN_S3_IDLE_CONNECTION_SECONDS": "5", **(environment or {})}
        self.timeouts = {"data_connect": 20, "data_stall": 30, "shutdown": 10, **timeouts}
        self.folder = folder
        self.spool = folder / "spool"
        self.spool.mkdir(parents=True)
        self.log_file = folder / "server.log"
        self.port_file = folder / "port"
        self.allowed_buckets = ["allowed-one", "allowed-two"]
        self.passwords = {uid: secrets.token_urlsafe(12) for uid in ("alice", "bob", CAROL_IS_NOT_IN_THE_STORE)}
        hashes = {uid: (yescrypt_hash if uid == "bob" else sha512_hash)(word) for uid, word in self.passwords.items()}
        write_private(folder / "users", "".join(f"{uid}:{word}\n" for uid, word in hashes.items()))
        mime = folder / "mime.types"
        mime.write_text("text/plain txt text\napplication/x-hdf5 h5 hdf5 # scientific data\nimage/jpeg jpeg jpg\n")
        options = write_private(folder / "ceph.conf",
                                module_options(store, mime_types_path=mime, **(extra_options or {})))
        self.config = write_private(folder / "server.toml", self._configuration(
            binaries, options, spool_memory, spool_limit, spool_enabled))
        self.start(binaries)

    def _configuration(self, binaries, options, spool_memory, spool_limit, spool_enabled):
        access, secret = self.store.users["admin"][0]
        good = {"s3_endpoint": self.store.endpoint, "ceph_admin_key_id": access, "ceph_admin_secret_key": secret}
        policies = {
            "restricted": {**good, "s3_buckets": self.allowed_buckets},
            "badadmin": {**good, "ceph_admin_secret_key": "wrong" + secret},
            "down": {**good, "s3_endpoint": "http://127.0.0.1:9"},  # the discard port: nothing listens there
            "noscheme": {**good, "s3_endpoint": self.store.host},
            "empty": None,
        }
        lines = [
            "[server]", 'listen = ["127.0.0.1:0"]', f'port_file = "{self.port_file}"', "",
            "[backend]", 'name = "ceph"', f'module_dir = "{binaries.module_dir}"', f'options = "{options}"', "",
            "[users]", f'file = "{self.folder}/users"', "",
            "[spool]", f"enabled = {'true' if spool_enabled else 'false'}", f'directory = "{self.spool}"',
            f'memory = "{spool_memory}"', f'limit = "{spool_limit}"', "",
            "[log]", 'level = "debug"', "",
            "[timeouts]", *(f"{key} = {value}" for key, value in self.timeouts.items()), "",
            "[[collection]]", 'name = "default"', "default = true", "",
        ]
        for name, policy in policies.items():
            file = write_private(self.folder / f"{name}.json", json.dumps(policy) if policy else "")
            lines += ["[[collection]]", f'name = "{name}"', f'hosts = ["{name}.test"]', f'policy = "{file}"', ""]
        return "\n".join(lines)

    # -- life -------------------------------------------------------------------------------------------------------
    def start(self, binaries):
        self.port_file.unlink(missing_ok=True)
        with open(self.log_file, "ab") as log:
            self.process = subprocess.Popen([str(binaries.server), "--config", str(self.config)],
                                            stdin=subprocess.DEVNULL, stdout=log, stderr=log, env=self.environment)
        wait_for(self._ready, "the server wrote its port file", 60)
        self.host, port = self.port_file.read_text().split()[:2]
        self.port = int(port)

    def _ready(self):
        assert self.process.poll() is None, f"the server ended with {self.process.returncode}:\n{self.log_text()[-3000:]}"
        return self.port_file.exists() and self.port_file.read_text().strip()

    def stop(self):
        """SIGTERM; the server has to end by itself, cleanly, with nothing of a sanitizer in its log."""
        self.process.send_signal(signal.SIGTERM)
        try:
            status = self.process.wait(60)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            raise AssertionError(f"the server ignores SIGTERM:\n{self.log_text()[-3000:]}") from None
        text = self.log_text()
        assert status == 0, f"the server ended with {status}:\n{text[-6000:]}"
        assert "Sanitizer" not in text and "runtime error" not in text, text[-6000:]
        assert "error objects were not released" not in text, text[-6000:]

    def session(self, user="alice"):
        """A control connection of this user's, in binary mode."""
        client = FtpClient(self.host, self.port)
        reply = client.login(user, self.passwords[user])
        assert reply.code == 230, reply.lines
        client.expect(200, "TYPE I")
        return client

    def warm_up(self):
        """Has each of its threads serve a session: what they open for their first one stays open. It has one for each processor."""
        with contextlib.ExitStack() as stack:
            for _ in range(os.cpu_count() + 1):
                stack.enter_context(self.session()).listing("NLST", "/")
        self.wait_idle()

    def log_text(self):
        return self.log_file.read_text(errors="replace")

    # -- leaks ------------------------------------------------------------------------------------------------------
    def client_sockets(self):
        """The server's sockets that belong to clients: neither its listener nor connections to the store, as
        "local remote state" texts, and those that the peer has reset but the server has not closed ("reset INODE").
        Empty once every session and every data connection is gone."""
        inodes = set()
        for target in self._open_targets():
            if target.startswith("socket:["):
                inodes.add(target[8:-1])
        store_port = f":{self.store.address[1]:04X}"
        own_port = f":{self.port:04X}"
        found = []
        for table in ("tcp", "tcp6"):
            for line in Path(f"/proc/{self.process.pid}/net/{table}").read_text().splitlines()[1:]:
                fields = line.split()
                local, remote, state, inode = fields[1], fields[2], fields[3], fields[9]
                if inode not in inodes:
                    continue
                inodes.remove(inode)
                if remote.endswith(store_port):
                    continue
                if state == "0A" and local.endswith(own_port):
                    continue
                found.append(f"{local} {remote} {state}")
        for line in Path(f"/proc/{self.process.pid}/net/unix").read_text().splitlines()[1:]:
            inodes.discard(line.split()[6])  # to the service manager, for one
        return found + [f"reset {inode}" for inode in inodes]

    def _without_client_sockets(self):
        left = self.client_sockets()
        if left and all(text.startswith("reset ") for text in left):
            # Idle connections that the store has reset look the same; old ones go when a request takes one.
            with self.session() as client:
                client.listing("NLST", "/")
        return not left

    def spool_files(self):
        """Names in the spool folder, and open files of it that have no name any more."""
        names = os.listdir(self.spool)
        for target in self._open_targets():
            if target.startswith(str(self.spool)):
                names.append(target)
        return names

    def spooled_bytes(self):
        """How much of all uploads is in the spool's files: what does not fit into memory."""
        found = 0
        for name in os.listdir(f"/proc/{self.process.pid}/fd"):
            link = f"/proc/{self.process.pid}/fd/{name}"
            with contextlib.suppress(FileNotFoundError):
                if os.readlink(link).startswith(str(self.spool)):
                    found += os.stat(link).st_size
        return found

    def open_files(self):
        """How many regular files, pipes and event handles are open: everything but sockets and the spool."""
        count = 0
        for target in self._open_targets():
            count += not target.startswith("socket:[") and not target.startswith(str(self.spool))
        return count

    def store_sockets(self):
        """How many connections to the store are open; idle ones are kept for the next request."""
        store_port = f":{self.store.address[1]:04X}"
        lines = Path(f"/proc/{self.process.pid}/net/tcp").read_text().splitlines()[1:]
        inodes = {fields[9] for fields in map(str.split, lines) if fields[2].endswith(store_port)}
        return sum(target[8:-1] in inodes for target in self._open_targets())

    def _open_targets(self):
        for name in os.listdir(f"/proc/{self.process.pid}/fd"):
            try:
                yield os.readlink(f"/proc/{self.process.pid}/fd/{name}")
            except FileNotFoundError:
                continue

    def _status(self, name):
        text = Path(f"/proc/{self.process.pid}/status").read_text()
        return int(re.search(rf"{name}:\s+(\d+)", text).group(1))

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.process.pid}/fd"))

    def memory_kib(self):
        return self._status("VmRSS")

    def threads(self):
        return self._status("Threads")

    def wait_idle(self):
        """Returns when no session, data connection or spool file is left; fails when that does not come to pass."""
        wait_for(self._without_client_sockets, f"no client socket is left ({self.client_sockets()})")
        wait_for(lambda: not self.spool_files(), f"no spool file is left ({self.spool_files()})")


@contextlib.contextmanager
def shared_server(binaries, store, **options):
    """A server for many tests; keyword arguments as Gateway takes them. What it must not do, over all of them, is
    checked at the end."""
    folder = Path(tempfile.mkdtemp(prefix="zorvan-server-"))
    gateway = Gateway(binaries, store, folder, **options)
    gateway.warm_up()
    files = gateway.open_files()
    yield gateway
    gateway.wait_idle()
    with gateway.session() as last:
        last.quit()
    gateway.wait_idle()
    wait_for(lambda: gateway.open_files() <= files, "no files, pipes or event handles are left open")
    gateway.stop()
    text = gateway.log_text()
    for secret in [*gateway.passwords.values(), *(pair[1] for pairs in store.users.values() for pair in pairs)]:
        assert secret not in text, "a password or a secret key is in the server's log"
    shutil.rmtree(folder, ignore_errors=True)
