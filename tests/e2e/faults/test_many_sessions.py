"""Two hundred sessions at once: each gets its own bytes, and afterwards the server is as it was."""

import threading

from aftermath import settled, works
from ftp_client import FtpClient
from stores import random_bytes
from waiting import wait_for

SESSIONS = 200


def test_two_hundred_at_once(fresh_server, bucket, stored):
    gateway = fresh_server(environment={"ZORVAN_S3_MAX_IDLE_CONNECTIONS": "0"})
    with FtpClient(gateway.host, gateway.port) as first:
        first.quit()
    gateway.wait_idle()
    threads = gateway.threads()
    gateway.warm_up()
    settled(gateway, threads, 0)
    descriptors = gateway.descriptors()
    contents = [random_bytes(20000 + 1000 * number) for number in range(SESSIONS)]
    together = threading.Barrier(SESSIONS)
    wrong = []

    def work(number):
        path, content = f"/{bucket}/file-{number}", contents[number]
        try:
            with gateway.session() as ftp:
                if number % 2:
                    ftp.expect(200, f"ALLO {len(content)}")
                data = ftp.open_data()
                ftp.expect(150, f"STOR {path}")
                together.wait(120)
                data.sendall(content)
                data.close()
                assert ftp.read_reply().code == 226
                together.wait(120)
                assert ftp.retrieve(path) == content
                assert ftp.retrieve(path, rest=1000 + number) == content[1000 + number:]
                ftp.quit()
        except BaseException as error:  # pylint: disable=broad-except
            wrong.append((number, error))
            together.abort()

    clients = [threading.Thread(target=work, args=(number,)) for number in range(SESSIONS)]
    for client in clients:
        client.start()
    for client in clients:
        client.join(150)
    assert not any(client.is_alive() for client in clients)
    assert not wrong, wrong[:3]
    for number, content in enumerate(contents):
        assert stored(bucket, f"file-{number}") == content
    settled(gateway, threads, 0)
    wait_for(lambda: gateway.descriptors() <= descriptors, f"{gateway.descriptors()} descriptors are {descriptors}")
    with gateway.session() as ftp:
        works(ftp, bucket, stored)
        ftp.quit()
    gateway.stop()
