"""The server under test as a child process: its configuration, its life, and what it must not leave behind."""

import crypt
import json
import os
import re
import secrets
import signal
import subprocess
from pathlib import Path

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
                 extra_options=None):
        self.store = store
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
            "[timeouts]", "data_connect = 20", "data_stall = 30", "shutdown = 10", "",
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
                                            stdin=subprocess.DEVNULL, stdout=log, stderr=log)
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

    def log_text(self):
        return self.log_file.read_text(errors="replace")

    # -- leaks ------------------------------------------------------------------------------------------------------
    def client_sockets(self):
        """The server's sockets that belong to clients: neither its listener nor connections to the store, as
        "local remote state" texts, and those that the peer has reset but the server has not closed ("reset INODE").
        Empty once every session and every data connection is gone."""
        inodes = set()
        for name in os.listdir(f"/proc/{self.process.pid}/fd"):
            try:
                target = os.readlink(f"/proc/{self.process.pid}/fd/{name}")
            except FileNotFoundError:
                continue
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

    def spool_files(self):
        """Names in the spool folder, and open files of it that have no name any more."""
        names = os.listdir(self.spool)
        for name in os.listdir(f"/proc/{self.process.pid}/fd"):
            try:
                target = os.readlink(f"/proc/{self.process.pid}/fd/{name}")
            except FileNotFoundError:
                continue
            if target.startswith(str(self.spool)):
                names.append(target)
        return names

    def open_files(self):
        """How many regular files, pipes and event handles are open: everything but sockets and the spool."""
        count = 0
        for name in os.listdir(f"/proc/{self.process.pid}/fd"):
            try:
                target = os.readlink(f"/proc/{self.process.pid}/fd/{name}")
            except FileNotFoundError:
                continue
            count += not target.startswith("socket:[") and not target.startswith(str(self.spool))
        return count

    def memory_kib(self):
        return int(re.search(r"VmRSS:\s+(\d+)", Path(f"/proc/{self.process.pid}/status").read_text()).group(1))

    def wait_idle(self):
        """Returns when no session, data connection or spool file is left; fails when that does not come to pass."""
        wait_for(lambda: not self.client_sockets(), f"no client socket is left ({self.client_sockets()})", 12)
        wait_for(lambda: not self.spool_files(), f"no spool file is left ({self.spool_files()})", 12)
