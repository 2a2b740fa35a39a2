"""End-to-end tests of orvun-cat against peers written with Python's socket module.

Run by CTest, which sets ORVUN_CAT to the built tool; by hand:
    ORVUN_CAT=build/dev/examples/orvun-cat python3 -m unittest -v test_orvun_cat
"""

import signal
import socket
import threading
import unittest

import peers
from peers import HOSTS, LIMIT


def setUpModule():
    CatTestCase.program = peers.executable("ORVUN_CAT")


def payload(size, seed):
    """Bytes that differ from one call to the next, so mix-ups show."""
    return bytes((i * 31 + seed * 7 + i // 251) % 256 for i in range(size))


class CatTestCase(peers.TestCase):
    pass


class TcpTests(CatTestCase):
    def test_copies_both_ways_until_the_peer_closes(self):
        for listen in (False, True):
            for host in HOSTS:
                with self.subTest(listen=listen, host=host):
                    to_cat, from_cat = payload(150_000, 1), payload(200_000, 2)
                    if listen:
                        cat = self.start("-l", "-v", host, "0")
                        connection = peers.connect(host, cat.announced_port())
                    else:
                        server = self.socket_on(host)
                        cat = self.start(host, str(server.getsockname()[1]))
                        connection = server.accept()[0]
                    cat.feed(from_cat)
                    # Sends on a thread while receiving: neither side may block the other.
                    sender = threading.Thread(target=connection.sendall, args=(to_cat,))
                    sender.start()
                    received = peers.receive(connection, len(from_cat))
                    sender.join(LIMIT)
                    connection.close()
                    status, out, err = cat.finish()
                    self.assertEqual(status, 0, err)
                    self.assertEqual(out, to_cat)
                    self.assertEqual(received, from_cat)
                    if listen:
                        self.assertIn("connection from", err)

    def test_quit_option_ends_the_session_while_the_peer_stays(self):
        server = self.socket_on("127.0.0.1")
        cat = self.start("-q", "0.3", "--stats", "127.0.0.1", str(server.getsockname()[1]))
        cat.feed(b"request")
        connection = server.accept()[0]
        self.addCleanup(connection.close)
        self.assertEqual(peers.receive(connection, 7), b"request")
        connection.sendall(b"answer")
        status, out, err = cat.finish()  # the peer never closes
        self.assertEqual((status, out), (0, b"answer"), err)
        self.assertRegex(err, r"TCP TX: count=1 total=7\.0")
        self.assertRegex(err, r"TCP RX: count=1 total=6\.0")

    def test_reset_by_the_peer_fails_with_status_1(self):
        server = self.socket_on("127.0.0.1")
        cat = self.start("127.0.0.1", str(server.getsockname()[1]))
        peers.reset(server.accept()[0])
        status, _, err = cat.finish()
        self.assertEqual(status, 1, err)
        self.assertIn("connection lost", err)


class UdpTests(CatTestCase):
    def test_connect_sends_chunks_of_at_most_1400_bytes_and_prints_answers(self):
        for host in HOSTS:
            with self.subTest(host):
                peer = self.socket_on(host, socket.SOCK_DGRAM)
                message = payload(3000, 5)
                cat = self.start("-u", "-q", "1", "--stats", host, str(peer.getsockname()[1]))
                cat.feed(message)
                got = b""
                while len(got) < len(message):
                    datagram, sender = peer.recvfrom(65536)
                    self.assertLessEqual(len(datagram), 1400)
                    got += datagram
                self.assertEqual(got, message)
                peer.sendto(b"answer one;", sender)
                peer.sendto(b"answer two", sender)
                status, out, err = cat.finish()
                self.assertEqual((status, out), (0, b"answer one;answer two"), err)
                self.assertRegex(err, r"UDP TX: count=\d+ total=3000\.0")
                self.assertRegex(err, r"UDP RX: count=2 total=21\.0")

    def test_listen_prints_datagrams_and_answers_the_first_sender(self):
        for host in HOSTS:
            with self.subTest(host):
                cat = self.start("-u", "-l", "-v", "-q", "1", "--stats", host, "0")
                port = cat.announced_port()
                first, second = (self.socket_on(host, socket.SOCK_DGRAM) for _ in range(2))
                first.sendto(b"from the first;", (host, port))
                second.sendto(b"from the second", (host, port))
                cat.wait_for(r"bytes from", count=2)  # both have arrived before there is anything to answer
                cat.feed(b"hello from orvun-cat")
                answer, sender = first.recvfrom(65536)
                status, out, err = cat.finish()
                self.assertEqual((status, answer, sender[1]), (0, b"hello from orvun-cat", port), err)
                self.assertEqual(out, b"from the first;from the second")
                self.assertRegex(err, r"UDP RX: count=2 total=30\.0")
                self.assertRegex(err, r"UDP TX: count=1 total=20\.0")


class CommandLineTests(CatTestCase):
    def test_exit_status_and_message_for_each_command_line(self):
        # Bound, not listening: connecting there is refused, and so is listening (no SO_REUSEPORT).
        held = {host: str(self.socket_on(host, listen=False).getsockname()[1]) for host in HOSTS}
        self.check_exits([(("-h",), "Usage: orvun-cat"), (("--help",), "Usage: orvun-cat")], [
            ((), "HOST and PORT are required"), (("127.0.0.1",), "HOST and PORT are required"),
            (("127.0.0.1", "80", "extra"), "too many arguments"),
            (("-x", "127.0.0.1", "80"), "unknown option '-x'"),
            (("--bogus", "127.0.0.1", "80"), "unknown option '--bogus'"),
            (("127.0.0.1", "70000"), "PORT must be a number"), (("127.0.0.1", "http"), "PORT must be a number"),
            (("127.0.0.1", "0"), "cannot connect to port 0"),
            (("-w", "soon", "127.0.0.1", "80"), "-w wants a number of seconds"),
            (("127.0.0.1", "80", "-q"), "-q needs a number of seconds"),
            (("::zz", "80"), "'::zz' is not an IPv6 address")],
            [((*mode, host, "9"), "Could not resolve host '%s'" % host)
             for host in ("999.999.999.999", "1.2.3.4.5") for mode in ((), ("-u",), ("-l",))]
            + [((host, port), "cannot connect to TCP %s port" % host) for host, port in held.items()]
            + [(("-l", "127.0.0.1", held["127.0.0.1"]), "cannot listen on TCP 127.0.0.1 port")])

    def test_interrupt_ends_a_listener_with_status_130_and_the_readout(self):
        cat = self.start("-l", "--stats", "127.0.0.1", "0")
        cat.announced_port()
        self.assertIn("[orvun-cat]", cat.stop(signal.SIGINT, status=128 + signal.SIGINT, within=LIMIT))


if __name__ == "__main__":
    unittest.main()
