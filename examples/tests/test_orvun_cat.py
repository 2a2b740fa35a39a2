"""End-to-end tests of orvun-cat against peers written with Python's socket module.

Run by CTest, which sets ORVUN_CAT to the built tool; by hand:
    ORVUN_CAT=build/examples/orvun-cat python3 -m unittest -v test_orvun_cat
Everything stays on loopback, ports come from binding port 0, and every wait
has a limit.
"""

import os
import queue
import re
import signal
import socket
import subprocess
import threading
import unittest

CAT = os.environ.get("ORVUN_CAT", "")
LIMIT = 30.0  # seconds: the bound of every wait
FAMILIES = (("IPv4", socket.AF_INET, "127.0.0.1"), ("IPv6", socket.AF_INET6, "::1"))


def setUpModule():
    if not CAT or not os.access(CAT, os.X_OK):
        raise RuntimeError("set ORVUN_CAT to the orvun-cat executable (got %r)" % CAT)


def payload(size, seed):
    """Bytes that differ from one call to the next, so mix-ups show."""
    return bytes((i * 31 + seed * 7 + i // 251) % 256 for i in range(size))


class Cat:
    """One orvun-cat process; stderr is collected by a thread, line by line."""

    def __init__(self, *args):
        self.process = subprocess.Popen(
            [CAT, *args], stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE
        )
        self.lines = queue.Queue()
        self.stderr = []
        self.stdout = b""
        self._readers = [
            threading.Thread(target=self._read_stderr, daemon=True),
            threading.Thread(target=self._read_stdout, daemon=True),
        ]
        for reader in self._readers:
            reader.start()

    def _read_stderr(self):
        for line in self.process.stderr:
            text = line.decode(errors="replace")
            self.stderr.append(text)
            self.lines.put(text)

    def _read_stdout(self):
        chunks = []
        while True:
            chunk = self.process.stdout.read1(65536)
            if not chunk:
                break
            chunks.append(chunk)
        self.stdout = b"".join(chunks)

    def announced_port(self):
        """The port from the 'listening on ... port N' line."""
        while True:
            line = self.lines.get(timeout=LIMIT)
            found = re.search(r"listening on .* port (\d+)", line)
            if found:
                return int(found.group(1))

    def feed(self, data):
        """Writes all of `data` to stdin from a thread, then closes it."""

        def write():
            try:
                self.process.stdin.write(data)
                self.process.stdin.close()
            except BrokenPipeError:
                pass

        writer = threading.Thread(target=write, daemon=True)
        writer.start()
        return writer

    def finish(self):
        """Waits for the exit; returns (status, stdout, stderr text)."""
        status = self.process.wait(timeout=LIMIT)
        for reader in self._readers:
            reader.join(timeout=LIMIT)
        return status, self.stdout, "".join(self.stderr)

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait(timeout=LIMIT)
        for stream in (self.process.stdin, self.process.stdout, self.process.stderr):
            try:
                stream.close()
            except (BrokenPipeError, OSError):
                pass


def receive_exactly(connection, size):
    parts, have = [], 0
    while have < size:
        part = connection.recv(min(65536, size - have))
        if not part:
            break
        parts.append(part)
        have += len(part)
    return b"".join(parts)


class PeerThread(threading.Thread):
    """Runs `work` on a thread and keeps its result or its exception."""

    def __init__(self, work):
        super().__init__(daemon=True)
        self.work, self.result, self.error = work, None, None
        self.start()

    def run(self):
        try:
            self.result = self.work()
        except BaseException as error:  # reported by outcome()
            self.error = error

    def outcome(self):
        self.join(timeout=LIMIT)
        if self.is_alive():
            raise AssertionError("the Python peer did not finish in time")
        if self.error is not None:
            raise self.error
        return self.result


class CatTestCase(unittest.TestCase):
    def start(self, *args):
        cat = Cat(*args)
        self.addCleanup(cat.kill)
        return cat


class TcpTests(CatTestCase):
    def exchange(self, connection, to_cat, from_cat_size):
        """Sends and receives at once (neither side may block the other), then closes."""
        connection.settimeout(LIMIT)
        sender = PeerThread(lambda: connection.sendall(to_cat))
        received = receive_exactly(connection, from_cat_size)
        sender.outcome()
        connection.close()
        return received

    def test_connect_copies_both_ways_until_the_peer_closes(self):
        for name, family, host in FAMILIES:
            with self.subTest(name):
                to_cat, from_cat = payload(150_000, 1), payload(200_000, 2)
                server = socket.socket(family, socket.SOCK_STREAM)
                self.addCleanup(server.close)
                server.bind((host, 0))
                server.listen(1)
                server.settimeout(LIMIT)
                cat = self.start(host, str(server.getsockname()[1]))
                cat.feed(from_cat)
                connection, _ = server.accept()
                received = self.exchange(connection, to_cat, len(from_cat))
                status, out, err = cat.finish()
                self.assertEqual(status, 0, err)
                self.assertEqual(received, from_cat)
                self.assertEqual(out, to_cat)

    def test_listen_serves_one_connection_both_ways(self):
        for name, family, host in FAMILIES:
            with self.subTest(name):
                to_cat, from_cat = payload(70_000, 3), payload(90_000, 4)
                cat = self.start("-l", "-v", host, "0")
                port = cat.announced_port()
                client = socket.create_connection((host, port), timeout=LIMIT)
                self.addCleanup(client.close)
                cat.feed(from_cat)
                received = self.exchange(client, to_cat, len(from_cat))
                status, out, err = cat.finish()
                self.assertEqual(status, 0, err)
                self.assertEqual(received, from_cat)
                self.assertEqual(out, to_cat)
                self.assertIn("connection from", err)

    def test_quit_option_ends_the_session_while_the_peer_stays(self):
        server = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self.addCleanup(server.close)
        server.bind(("127.0.0.1", 0))
        server.listen(1)
        server.settimeout(LIMIT)
        cat = self.start("-q", "0.3", "--stats", "127.0.0.1", str(server.getsockname()[1]))
        cat.feed(b"request")
        connection, _ = server.accept()
        self.addCleanup(connection.close)
        connection.settimeout(LIMIT)
        self.assertEqual(receive_exactly(connection, 7), b"request")
        connection.sendall(b"answer")
        status, out, err = cat.finish()  # the peer never closes
        self.assertEqual(status, 0, err)
        self.assertEqual(out, b"answer")
        self.assertRegex(err, r"TCP TX: count=1 total=7\.0")
        self.assertRegex(err, r"TCP RX: count=1 total=6\.0")

    def test_reset_by_the_peer_is_reported(self):
        server = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self.addCleanup(server.close)
        server.bind(("127.0.0.1", 0))
        server.listen(1)
        server.settimeout(LIMIT)
        cat = self.start("127.0.0.1", str(server.getsockname()[1]))
        connection, _ = server.accept()
        connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\x01\x00\x00\x00\x00\x00\x00\x00")
        connection.close()  # linger 0: a reset instead of an orderly close
        status, _, err = cat.finish()
        self.assertEqual(status, 1, err)
        self.assertIn("orvun-cat:", err)


class UdpTests(CatTestCase):
    def test_connect_sends_chunks_and_prints_answers(self):
        for name, family, host in FAMILIES:
            with self.subTest(name):
                peer = socket.socket(family, socket.SOCK_DGRAM)
                self.addCleanup(peer.close)
                peer.bind((host, 0))
                peer.settimeout(LIMIT)
                message = payload(3000, 5)  # more than two 1400-byte chunks

                def serve():
                    got, sender = b"", None
                    while len(got) < len(message):
                        datagram, sender = peer.recvfrom(65536)
                        if len(datagram) > 1400:
                            raise AssertionError("a datagram of %d bytes" % len(datagram))
                        got += datagram
                    peer.sendto(b"answer one;", sender)
                    peer.sendto(b"answer two", sender)
                    return got

                server = PeerThread(serve)
                cat = self.start("-u", "-q", "2", "--stats", host, str(peer.getsockname()[1]))
                cat.feed(message)
                self.assertEqual(server.outcome(), message)
                status, out, err = cat.finish()
                self.assertEqual(status, 0, err)
                self.assertEqual(out, b"answer one;answer two")
                self.assertRegex(err, r"UDP TX: count=\d+ total=3000\.0")
                self.assertRegex(err, r"UDP RX: count=2 total=21\.0")

    def test_listen_prints_datagrams_and_answers_the_first_sender(self):
        for name, family, host in FAMILIES:
            with self.subTest(name):
                cat = self.start("-u", "-l", "-q", "2", "--stats", host, "0")
                port = cat.announced_port()
                client = socket.socket(family, socket.SOCK_DGRAM)
                self.addCleanup(client.close)
                client.bind((host, 0))
                client.settimeout(LIMIT)
                client.sendto(b"hello from python", (host, port))
                cat.feed(b"hello from orvun-cat")
                answer, sender = client.recvfrom(65536)
                status, out, err = cat.finish()
                self.assertEqual(status, 0, err)
                self.assertEqual(answer, b"hello from orvun-cat")
                self.assertEqual(sender[1], port)  # answered from the listening port
                self.assertEqual(out, b"hello from python")
                self.assertRegex(err, r"UDP RX: count=1 total=17\.0")
                self.assertRegex(err, r"UDP TX: count=1 total=20\.0")


class CommandLineTests(CatTestCase):
    def run_cat(self, *args):
        cat = self.start(*args)
        cat.process.stdin.close()
        return cat.finish()

    def test_help(self):
        for option in ("-h", "--help"):
            status, out, _ = self.run_cat(option)
            self.assertEqual(status, 0)
            self.assertIn(b"Usage: orvun-cat", out)

    def test_bad_arguments_exit_with_status_2_and_a_message(self):
        cases = {
            (): "HOST and PORT are required",
            ("127.0.0.1",): "HOST and PORT are required",
            ("127.0.0.1", "80", "extra"): "too many arguments",
            ("-x", "127.0.0.1", "80"): "unknown option '-x'",
            ("--bogus", "127.0.0.1", "80"): "unknown option '--bogus'",
            ("127.0.0.1", "70000"): "PORT must be a number",
            ("127.0.0.1", "http"): "PORT must be a number",
            ("127.0.0.1", "0"): "cannot connect to port 0",
            ("-w", "soon", "127.0.0.1", "80"): "-w wants a number of seconds",
            ("127.0.0.1", "80", "-q"): "-q needs a number of seconds",
            ("::zz", "80"): "'::zz' is not an IPv6 address",
        }
        for args, message in cases.items():
            with self.subTest(args=args):
                status, out, err = self.run_cat(*args)
                self.assertEqual(status, 2, err)
                self.assertIn(message, err)
                self.assertIn("--help", err)
                self.assertEqual(out, b"")

    def test_unresolvable_host_fails_with_status_1(self):
        for host in ("999.999.999.999", "1.2.3.4.5"):
            for mode in ((), ("-u",), ("-l",)):
                with self.subTest(host=host, mode=mode):
                    status, _, err = self.run_cat(*mode, host, "9")
                    self.assertEqual(status, 1, err)
                    self.assertIn("Could not resolve host '%s'" % host, err)

    def test_refused_connection_fails_with_status_1(self):
        for name, family, host in FAMILIES:
            with self.subTest(name):
                # Bound but not listening: connecting to it is refused.
                holder = socket.socket(family, socket.SOCK_STREAM)
                self.addCleanup(holder.close)
                holder.bind((host, 0))
                status, _, err = self.run_cat(host, str(holder.getsockname()[1]))
                self.assertEqual(status, 1, err)
                self.assertIn("cannot connect to TCP %s port" % host, err)

    def test_busy_port_fails_with_status_1(self):
        holder = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self.addCleanup(holder.close)
        holder.bind(("127.0.0.1", 0))  # no SO_REUSEPORT: the listener cannot share it
        status, _, err = self.run_cat("-l", "127.0.0.1", str(holder.getsockname()[1]))
        self.assertEqual(status, 1, err)
        self.assertIn("cannot listen on TCP 127.0.0.1 port", err)

    def test_interrupt_ends_a_listener_with_the_readout(self):
        cat = self.start("-l", "--stats", "127.0.0.1", "0")
        cat.announced_port()
        cat.process.send_signal(signal.SIGINT)
        status, _, err = cat.finish()
        self.assertEqual(status, 128 + signal.SIGINT, err)
        self.assertIn("[orvun-cat]", err)


if __name__ == "__main__":
    unittest.main()
