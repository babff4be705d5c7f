#!/usr/bin/python3
"""Start and stop a one-node Ceph RADOS Gateway on the loopback interface.

    rgw.py start DIR [--objectstore memstore|bluestore] [--capacity GIB]
    rgw.py status DIR
    rgw.py stop DIR [--wipe]
    rgw.py kill-gateway DIR
    rgw.py start-gateway DIR

Everything (data, sockets, logs, pid files) lives below DIR, so that several gateways can run side by side; ports and keys
are chosen at random. `start` creates the cluster when DIR is empty, continues it otherwise, and returns when S3 requests
are answered; DIR/users.json then names the endpoint and the users admin (may read all users' keys), alice (two keys), bob.
A cluster on memstore keeps nothing when it stops: its next start begins from nothing, with new ports and keys.
Needs Debian's radosgw, ceph-mon and ceph-osd. No manager daemon, no cephx: this is for tests and demonstrations only.
"""

import argparse
import json
import os
import random
import secrets
import shutil
import signal
import socket
import string
import subprocess
import sys
import time
import urllib.error
import urllib.request
import uuid
from pathlib import Path

DAEMONS = ("mon", "osd", "rgw")
OSD_PORTS = 14
DEADLINE = 120.0  # seconds for any one step; generous because the machine may be loaded


class GatewayError(RuntimeError):
    """A step failed; the text is for people and names the log to read."""


def wait_for(condition, what, seconds=DEADLINE, interval=0.05):
    """Returns the first true value of `condition()`; GatewayError naming `what` when there is none in time."""
    end = time.monotonic() + seconds
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise GatewayError(f"timed out after {seconds:.0f} s: {what}")
        time.sleep(interval)


def free_port_block(count):
    """The first of `count` adjacent ports nobody listens on, below the range that the kernel gives to outgoing connections."""
    for _ in range(200):
        base = random.randrange(12000, 32000 - count)
        held = []
        try:
            for port in range(base, base + count):
                held.append(probe := socket.socket())
                probe.bind(("127.0.0.1", port))
            return base
        except OSError:
            continue
        finally:
            for probe in held:
                probe.close()
    raise GatewayError(f"no {count} adjacent free ports on 127.0.0.1")


def random_key():
    """An (access key, secret key) pair of the lengths that the gateway itself would make."""
    alphabet = string.ascii_uppercase + string.digits
    return ["".join(secrets.choice(alphabet) for _ in range(20)),
            "".join(secrets.choice(string.ascii_letters + string.digits + "/+") for _ in range(40))]


class Cluster:
    """The cluster below one folder: its configuration, daemons and users."""

    def __init__(self, root):
        self.root = Path(root).resolve()
        self.conf = self.root / "ceph.conf"
        self.users_file = self.root / "users.json"

    # -- processes ------------------------------------------------------------------------------------------------
    def pid_of(self, daemon):
        """Process id of a running daemon, or None. A recycled id does not count: its command line names another folder."""
        try:
            pid = int((self.root / "run" / f"{daemon}.pid").read_text())
            if str(self.conf).encode() in Path(f"/proc/{pid}/cmdline").read_bytes().split(b"\0"):
                return pid
        except (OSError, ValueError):
            pass
        return None

    def launch(self, daemon, *command):
        """Runs a daemon in a session of its own, so that Ctrl-C at a terminal reaches only the script above."""
        with open(self.root / "log" / f"{daemon}.out", "ab") as out:
            process = subprocess.Popen([*command, "-c", str(self.conf), "-f"], stdin=subprocess.DEVNULL, stdout=out,
                                       stderr=out, start_new_session=True)
        (self.root / "run" / f"{daemon}.pid").write_text(f"{process.pid}\n")
        # The kernel shows the new command line a moment after the new program began; pid_of relies on it.
        wait_for(lambda: self.pid_of(daemon) or process.poll() is not None, f"{daemon} did not start")

    def run(self, *command, seconds=DEADLINE):
        """Runs a tool to its end and returns what it printed; GatewayError with the end of its errors otherwise."""
        try:
            done = subprocess.run([*command, "-c", str(self.conf)], stdin=subprocess.DEVNULL, capture_output=True,
                                  text=True, timeout=seconds, check=False)
        except subprocess.TimeoutExpired:
            raise GatewayError(f"{command[0]} did not end within {seconds:.0f} s") from None
        if done.returncode != 0:
            raise GatewayError(f"{' '.join(command)} failed ({done.returncode}):\n{done.stderr[-2000:]}")
        return done.stdout

    def log_tails(self):
        texts = []
        for path in sorted((self.root / "log").glob("*")):
            text = path.read_text(errors="replace").strip()
            if text:
                texts.append(f"--- {path}\n" + "\n".join(text.splitlines()[-8:]))
        return "\n".join(texts)

    # -- configuration --------------------------------------------------------------------------------------------
    def configure(self, objectstore, capacity_gib):
        for name in ("run", "log", "osd", "rgw"):
            (self.root / name).mkdir(parents=True, exist_ok=True)
        base = free_port_block(2 + OSD_PORTS)
        capacity = capacity_gib << 30
        if objectstore == "bluestore":
            store = ("bluestore block create = true\n"
                     f"bluestore block size = {capacity}\n"
                     "bluestore fsck on mount = false\n"
                     "osd memory target = 1073741824\n")
        else:
            store = f"memstore device bytes = {capacity}\n"
        quiet = "\n".join(f"debug {subsystem} = 0/0" for subsystem in (
            "none", "context", "crush", "mds", "buffer", "timer", "filer", "objecter", "rados", "osd", "ms", "mon",
            "monc", "paxos", "tp", "auth", "finisher", "heartbeatmap", "perfcounter", "rgw", "asok", "throttle",
            "bluestore", "bluefs", "bdev", "rocksdb", "memdb", "memstore", "mgrc"))
        # The gateway's messenger asks the monitor for encryption by default, which needs cephx and would make it wait for ever
        # without a word; hence crc. Without tcp_nodelay each small answer over a kept connection takes 40 ms.
        self.conf.write_text(f"""[global]
fsid = {uuid.uuid4()}
auth cluster required = none
auth service required = none
auth client required = none
mon initial members = a
mon host = [v2:127.0.0.1:{base}/0]
ms bind ipv6 = false
ms bind msgr1 = false
ms bind port min = {base + 2}
ms bind port max = {base + 1 + OSD_PORTS}
run dir = {self.root}/run
admin socket =
log file = {self.root}/log/$name.log
log to syslog = false
log to stderr = false
err to stderr = true
{quiet}
osd pool default size = 1
osd pool default min size = 1
osd pool default pg num = 4
osd pool default pgp num = 4
osd pool default pg autoscale mode = off
osd crush chooseleaf type = 0
mon allow pool size one = true
mon max pg per osd = 1000
mon warn on pool no redundancy = false
rgw rados pool pg num min = 4

[mon]
mon data = {self.root}/mon
mon cluster log to file = false
mon data avail crit = 1
mon data avail warn = 2
paxos propose interval = 0.05
paxos min wait = 0.01

[osd]
public addr = 127.0.0.1
cluster addr = 127.0.0.1
osd data = {self.root}/osd
osd objectstore = {objectstore}
{store}
[client]
keyring = {self.root}/none
rgw data = {self.root}/rgw

[client.rgw]
ms mon client mode = crc
auth client required = none
rgw frontends = beast endpoint=127.0.0.1:{base + 1} tcp_nodelay=1
rgw dns name = s3.localhost
rgw enable usage log = false
rgw enable ops log = false
rgw enable lc threads = false
rgw gc obj min wait = 5
rgw gc processor period = 10
rgw dynamic resharding = false
""")

    def setting(self, name):
        for line in self.conf.read_text().splitlines():
            key, _, value = line.partition("=")
            if key.strip() == name:
                return value.strip()
        raise GatewayError(f"{self.conf} has no '{name}'")

    @property
    def endpoint(self):
        address = self.setting("rgw frontends").split("endpoint=", 1)[1].split()[0]
        return f"http://{address}"

    # -- start ----------------------------------------------------------------------------------------------------
    def create_monitor(self):
        # An explicit monitor map: with an address of one's own in the configuration alone, the monitor keeps a
        # placeholder name and probes for ever.
        fsid, address = self.setting("fsid"), self.setting("mon host").strip("[]")
        self.run("monmaptool", "--create", "--clobber", "--fsid", fsid, "--set-min-mon-release", "16",
                 "--enable-all-features", "--addv", "a", f"[{address}]", str(self.root / "monmap"))
        self.run("ceph-mon", "-i", "a", "--mkfs", "--monmap", str(self.root / "monmap"), "--fsid", fsid)

    def create_osd(self):
        osd_uuid = str(uuid.uuid4())
        self.run("ceph", "--connect-timeout", "60", "osd", "new", osd_uuid)
        self.run("ceph-osd", "-i", "0", "--mkfs", "--osd-uuid", osd_uuid)

    def answers(self):
        if self.pid_of("rgw") is None:
            raise GatewayError("radosgw ended while it was starting")
        try:
            with urllib.request.urlopen(self.endpoint, timeout=5) as reply:
                return reply.status == 200
        except urllib.error.HTTPError:
            return True
        except OSError:
            return False

    def create_users(self):
        """Makes the three users and writes users.json (readable by the owner only: it holds the keys)."""
        wanted = {"admin": ("Gateway administrator", 1), "alice": ("Alice", 2), "bob": ("Bob", 1)}
        users = []
        for uid, (name, count) in wanted.items():
            keys = sorted(random_key() for _ in range(count))
            caps = ["--caps", "users=*;buckets=*;metadata=*;usage=*"] if uid == "admin" else []
            self.run("radosgw-admin", "-n", "client.rgw", "user", "create", "--uid", uid, "--display-name", name, *caps,
                     "--access-key", keys[0][0], "--secret-key", keys[0][1])
            for access, secret in keys[1:]:
                self.run("radosgw-admin", "-n", "client.rgw", "key", "create", "--uid", uid, "--key-type", "s3",
                         "--access-key", access, "--secret-key", secret)
            users.append({"uid": uid, "display_name": name, "keys": keys, "admin": uid == "admin"})
        scratch = self.users_file.with_suffix(".new")
        scratch.touch(mode=0o600)
        scratch.write_text(json.dumps({"endpoint": self.endpoint, "region": "default", "users": users}, indent=1) + "\n")
        scratch.rename(self.users_file)

    def start_gateway(self):
        """Starts radosgw on the running cluster and returns when it answers."""
        if self.pid_of("rgw"):
            raise GatewayError(f"already running below {self.root}: rgw")
        self.launch("rgw", "radosgw", "-n", "client.rgw")
        wait_for(self.answers, "radosgw does not answer")

    def start(self, objectstore, capacity_gib, say):
        missing = [tool for tool in ("ceph-mon", "ceph-osd", "radosgw", "radosgw-admin", "ceph", "monmaptool")
                   if shutil.which(tool) is None]
        if missing:
            raise GatewayError(f"not installed: {', '.join(missing)} (apt-get install radosgw ceph-mon ceph-osd)")
        running = [daemon for daemon in DAEMONS if self.pid_of(daemon)]
        if running:
            raise GatewayError(f"already running below {self.root}: {', '.join(running)}")
        fresh = not self.users_file.exists() or self.setting("osd objectstore") == "memstore"
        if fresh:
            self.users_file.unlink(missing_ok=True)
            for name in ("mon", "osd", "rgw", "run", "log"):  # what an attempt that failed half-way left behind
                shutil.rmtree(self.root / name, ignore_errors=True)
            self.configure(objectstore, capacity_gib)
            self.create_monitor()
        self.launch("mon", "ceph-mon", "-i", "a")
        if fresh:
            self.create_osd()
        say("monitor answers")
        self.launch("osd", "ceph-osd", "-i", "0")
        self.start_gateway()
        say("gateway answers")
        if fresh:
            self.create_users()
            say("users made")
        say(f"RADOS Gateway at {self.endpoint} ({self.setting('osd objectstore')}), users in {self.users_file}")

    # -- stop -----------------------------------------------------------------------------------------------------
    def stop(self, wipe=False):
        """Ends the daemons from the top down. A daemon that ignores SIGTERM for 20 s is killed."""
        for daemon in reversed(DAEMONS):
            pid = self.pid_of(daemon)
            if pid is None:
                continue
            os.kill(pid, signal.SIGTERM)
            try:
                wait_for(lambda d=daemon: self.ended(d), f"{daemon} ignores SIGTERM", 20.0)
            except GatewayError:
                os.kill(pid, signal.SIGKILL)
                wait_for(lambda d=daemon: self.ended(d), f"{daemon} ignores SIGKILL", 20.0)
        if wipe:
            for name in ("mon", "osd", "rgw", "run", "log"):
                shutil.rmtree(self.root / name, ignore_errors=True)
            for path in (self.conf, self.users_file, self.root / "monmap"):
                path.unlink(missing_ok=True)

    def kill_gateway(self):
        """Ends radosgw at once, in the middle of whatever it does. The cluster goes on."""
        pid = self.pid_of("rgw")
        if pid is None:
            raise GatewayError("radosgw is not running")
        watchers = self.run("rados", "-p", "default.rgw.control", "listwatchers", "notify.0").splitlines()
        os.kill(pid, signal.SIGKILL)
        wait_for(lambda: self.ended("rgw"), "radosgw ignores SIGKILL", 20.0)
        # The dead one still counts as a listener to changes of buckets for half a minute, and each change waits for it.
        for watcher in watchers:
            self.run("ceph", "osd", "blocklist", "add", watcher.split()[0].partition("=")[2])

    def ended(self, daemon):
        pid = self.pid_of(daemon)
        if pid is None:
            return True
        try:  # when this process is the parent, an ended child stays until it is waited for
            return os.waitpid(pid, os.WNOHANG)[0] == pid
        except ChildProcessError:
            return False


def main():
    parser = argparse.ArgumentParser(description="A one-node Ceph RADOS Gateway on the loopback interface.")
    commands = parser.add_subparsers(dest="command", required=True)
    start = commands.add_parser("start", help="create or continue the cluster; returns when it answers")
    start.add_argument("dir")
    start.add_argument("--objectstore", choices=("memstore", "bluestore"), default="memstore")
    start.add_argument("--capacity", type=int, default=16, metavar="GIB", help="of the store (default 16)")
    start.add_argument("--quiet", action="store_true", help="print errors only")
    commands.add_parser("status", help="say what runs").add_argument("dir")
    stop = commands.add_parser("stop", help="end the daemons")
    stop.add_argument("dir")
    stop.add_argument("--wipe", action="store_true", help="remove all data as well")
    commands.add_parser("kill-gateway", help="end radosgw by SIGKILL; the cluster goes on").add_argument("dir")
    commands.add_parser("start-gateway", help="start radosgw again; returns when it answers").add_argument("dir")
    options = parser.parse_args()

    cluster = Cluster(options.dir)
    begun = time.monotonic()

    def say(text):
        if not getattr(options, "quiet", False):
            print(f"{time.monotonic() - begun:6.1f} s  {text}", flush=True)

    try:
        if options.command == "start":
            try:
                cluster.start(options.objectstore, options.capacity, say)
            except BaseException as error:
                if not str(error).startswith("already running"):
                    print(cluster.log_tails(), file=sys.stderr)
                    cluster.stop()
                raise
        elif options.command == "stop":
            cluster.stop(options.wipe)
        elif options.command == "kill-gateway":
            cluster.kill_gateway()
        elif options.command == "start-gateway":
            cluster.start_gateway()
        else:
            running = {daemon: cluster.pid_of(daemon) for daemon in DAEMONS}
            print(" ".join(f"{daemon}={pid or 'stopped'}" for daemon, pid in running.items()))
            return 0 if all(running.values()) else 3
    except GatewayError as error:
        print(f"rgw.py: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
