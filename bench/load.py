"""The load: curl processes for large files, kept sessions in processes of their own for everything small.

Whoever is measured looks the same from here: a contender with a name, pids, session(), download_command() and
upload_command(). The client's processor time is measured as well, so that a reader sees when the client is the limit.
"""

import contextlib
import gc
import multiprocessing
import resource
import signal
import subprocess
import time
from dataclasses import dataclass
from pathlib import Path

from processes import BenchError
from s3_wire import DirectSession

DIRECT = "store alone"


class Direct:
    """The store without anything in front of it."""

    name = DIRECT
    title = "curl, or a kept HTTP connection"
    lists_with = "pages"
    pids = ()
    forget = None

    def __init__(self, store):
        self.store = store

    def session(self):
        return DirectSession(self.store)

    def download_command(self, key, target):
        return self.store.curl(key, "-o", target)

    def upload_command(self, key, source, announce):  # pylint: disable=unused-argument  # HTTP always announces
        return self.store.curl(key, "-T", source)


@dataclass
class Load:
    """What a piece of load took: seconds on the clock, seconds of the client's processors, and what the jobs returned."""

    seconds: float
    client: float
    results: list


def together(commands):
    """Runs commands at once, to their ends."""
    with contextlib.ExitStack() as stack:
        before, begin, running = resource.getrusage(resource.RUSAGE_CHILDREN), time.monotonic(), []
        for command in commands:
            process = subprocess.Popen([str(part) for part in command], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                       stderr=subprocess.PIPE, text=True)
            stack.callback(process.wait)
            stack.callback(process.kill)  # in case the harness is interrupted; one that has ended does not mind
            running.append(process)
        for process in running:
            errors = process.communicate()[1]
            if process.returncode != 0:
                raise BenchError(f"{Path(process.args[0]).name} ... {process.args[-1]}: exit status {process.returncode}\n{errors}")
        seconds, after = time.monotonic() - begin, resource.getrusage(resource.RUSAGE_CHILDREN)
    return Load(seconds, after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime, [])


# -- jobs of a session: module-level functions, so that they can be sent to its process ----------------------------------
def upload(session, names, content, announce):
    for name in names:
        session.store(name, content, announce)


def download(session, names, content):
    for name in names:
        if session.retrieve(name) != content:
            raise BenchError(f"{name} differs from what was uploaded")


def delete(session, names):
    for name in names:
        session.delete(name)


def size(session, names, length):
    for name in names:
        if session.size(name) != length:
            raise BenchError(f"{name} has another size than what was uploaded")


def listing(session, verb, path, count):
    """Seconds until the first byte."""
    lines, first = session.listing(verb, path)
    if len(lines) < count:
        raise BenchError(f"a listing of {path} has {len(lines)} lines, not {count}")
    return first


def upload_file(session, name, path):
    """Seconds from the last byte to the reply."""
    return session.store_file(name, path)


def _serve(contender, pipe):
    """Body of a session's process: logs in, then does one job after the other until the other end goes."""
    signal.signal(signal.SIGINT, signal.SIG_IGN)  # the harness ends this process
    signal.signal(signal.SIGTERM, signal.SIG_DFL)
    gc.disable()
    try:
        session = contender.session()
        pipe.send(None)
        while True:
            job, arguments = pipe.recv()
            cpu, begin = time.process_time(), time.monotonic()
            result = job(session, *arguments)
            pipe.send((begin, time.monotonic(), time.process_time() - cpu, result))
    except EOFError:
        pass
    except Exception as error:  # pylint: disable=broad-except  # whatever it is, the harness has to be told
        pipe.send(f"{contender.name}: {type(error).__name__}: {error}")


def _answer(pipe):
    answer = pipe.recv()
    if isinstance(answer, str):
        raise BenchError(answer)
    return answer


class Each(list):
    """An argument of a job of which every session gets its own element."""


class Sessions:
    """Sessions with a contender, each in a process of its own; logged in when the block begins, closed when it ends."""

    def __init__(self, contender, count):
        self.contender, self.count = contender, count
        self.members = []

    def __enter__(self):
        context = multiprocessing.get_context("fork")
        try:
            for _ in range(self.count):
                here, there = context.Pipe()
                process = context.Process(target=_serve, args=(self.contender, there), daemon=True)
                process.start()
                self.members.append((process, here))
                there.close()
            for _, pipe in self.members:
                _answer(pipe)
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_):
        for process, pipe in self.members:
            process.terminate()
            process.join()
            pipe.close()

    def run(self, job, *arguments):
        """Has every session do a job at once."""
        for index, (_, pipe) in enumerate(self.members):
            own = [argument[index] if isinstance(argument, Each) else argument for argument in arguments]
            pipe.send((job, own))
        answers = [_answer(pipe) for _, pipe in self.members]
        begins, ends, cpus, results = zip(*answers)
        return Load(max(ends) - min(begins), sum(cpus), list(results))
