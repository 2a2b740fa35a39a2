# End-to-end tests of orvun-cat against peers written with Python's socket module. CTest sets ORVUN_CAT to
# the built tool; by hand: ORVUN_CAT=build/dev/examples/orvun-cat python3 -m unittest -v test_orvun_cat

import os, re, signal, socket, unittest

import peers
from peers import HOSTS, LIMIT


def setUpModule():
    CatTests.program = peers.executable("ORVUN_CAT")


def readout(err):
    # The byte counters that --stats printed, as {"TCP TX": "count=1 total=7", ...}.
    return dict(re.findall(r"(\w+ [RT]X): (count=\d+ total=\d+)", err))


class CatTests(peers.TestCase):
    def test_tcp_copies_both_ways_until_the_peer_closes(self):
        for listen, host in [(listen, host) for listen in (False, True) for host in HOSTS]:
            with self.subTest(listen=listen, host=host):
                to_cat, from_cat = os.urandom(150_000), os.urandom(200_000)  # a mix-up shows
                if listen:
                    cat = self.start("-l", "-v", host, "0")
                    connection = peers.connect(host, cat.port)
                else:
                    server = self.socket_on(host)
                    cat = self.start(host, str(server.getsockname()[1]))
                    connection = server.accept()[0]
                cat.feed(from_cat)
                # Half before reading: the tool has to take it in even while its own sending waits. The rest
                # right before the close: none of it may be lost to the end of stream that follows it.
                connection.sendall(to_cat[:75_000])
                received = connection.makefile("rb").read(len(from_cat))
                connection.sendall(to_cat[75_000:])
                connection.close()
                status, out, err = cat.finish()
                self.assertEqual((status, out, received, "connection from" in err), (0, to_cat, from_cat, listen), err)

    def test_tcp_quit_and_wait_options_and_a_reset(self):
        server = self.socket_on("127.0.0.1")
        port = str(server.getsockname()[1])
        cat = self.start("-q", "0.3", "--stats", "127.0.0.1", port)
        cat.feed(b"request")
        connection = self.enterContext(server.accept()[0])
        self.assertEqual(connection.makefile("rb").read(7), b"request")
        connection.sendall(b"answer")
        status, out, err = cat.finish()  # the peer never closes
        self.assertEqual((status, out, readout(err)), (0, b"answer", {
            "TCP TX": "count=1 total=7", "TCP RX": "count=1 total=6"}), err)
        cat = self.start("127.0.0.1", port)
        peers.reset(server.accept()[0])
        status, _, err = cat.finish()
        self.assertEqual((status, "connection lost" in err), (1, True), err)
        # A listener whose accept queue is full leaves new connections hanging: -w gives up (by default
        # after 10 s).
        server.listen(0)
        self.addCleanup(socket.create_connection(server.getsockname()).close)  # fills the queue
        cat = self.start("-w", "0.5", "127.0.0.1", port)
        self.assertEqual((cat.process.wait(timeout=5), "cannot connect" in cat.stderr()), (1, True))

    def test_udp_sends_chunks_of_at_most_1400_bytes_and_a_listener_answers_the_first_sender(self):
        for host in HOSTS:
            with self.subTest(host):
                peer = self.socket_on(host, socket.SOCK_DGRAM)
                message, got = os.urandom(3000), b""
                cat = self.start("-u", "-q", "1", "--stats", host, str(peer.getsockname()[1]))
                cat.feed(message)
                while len(got) < len(message):
                    datagram, sender = peer.recvfrom(65536)
                    self.assertLessEqual(len(datagram), 1400)
                    got += datagram
                self.assertEqual(got, message)
                for answer in (b"answer one;", b"answer two"):
                    peer.sendto(answer, sender)
                status, out, err = cat.finish()
                self.assertEqual((status, out, readout(err)), (0, b"answer one;answer two", {
                    "UDP TX": "count=3 total=3000", "UDP RX": "count=2 total=21"}), err)  # 3000 bytes: 3 datagrams

                cat = self.start("-u", "-l", "-v", "-q", "1", "--stats", host, "0")
                peer.sendto(b"from the first;", (host, cat.port))
                self.socket_on(host, socket.SOCK_DGRAM).sendto(b"from the second", (host, cat.port))
                cat.wait_for(r"bytes from", count=2)  # both have arrived before there is anything to answer
                cat.feed(b"hello from orvun-cat")
                answer, sender = peer.recvfrom(65536)
                status, out, err = cat.finish()
                self.assertEqual((status, answer, sender[1], out, readout(err)), (
                    0, b"hello from orvun-cat", cat.port, b"from the first;from the second",
                    {"UDP RX": "count=2 total=30", "UDP TX": "count=1 total=20"}), err)

    def test_exit_status_and_message_for_each_command_line(self):
        # Bound, not listening: connecting there is refused, and so is listening (no SO_REUSEPORT).
        held = {host: str(self.socket_on(host, listen=False).getsockname()[1]) for host in HOSTS}
        self.check_exits([(("-h",), "Usage: orvun-cat"), (("--help",), "Usage: orvun-cat")], [
            ((), "HOST and PORT are required"), (("127.0.0.1",), "HOST and PORT are required"),
            (("127.0.0.1", "80", "extra"), "too many arguments"), (("-x", "127.0.0.1", "80"), "unknown option '-x'"),
            (("--bogus", "127.0.0.1", "80"), "unknown option '--bogus'"),
            (("127.0.0.1", "70000"), "PORT must be a number"), (("127.0.0.1", "http"), "PORT must be a number"),
            (("127.0.0.1", "0"), "cannot connect to port 0"), (("-w", "soon", "127.0.0.1", "80"), "-w wants a number"),
            (("127.0.0.1", "80", "-q"), "-q needs a number of seconds"), (("::zz", "80"), "'::zz' is not an IPv6")],
            [((*mode, host, "9"), "Could not resolve host '%s'" % host)
             for host in ("999.999.999.999", "1.2.3.4.5") for mode in ((), ("-u",), ("-l",))]
            + [((host, port), "cannot connect to TCP %s port" % host) for host, port in held.items()]
            + [(("-l", "127.0.0.1", held["127.0.0.1"]), "cannot listen on TCP 127.0.0.1 port")])

    def test_interrupt_ends_a_listener_with_status_130_and_the_readout(self):
        cat = self.start("-l", "--stats", "127.0.0.1", "0")
        self.assertGreater(cat.port, 0)  # listening before the signal comes
        self.assertIn("[orvun-cat]", cat.stop(signal.SIGINT, status=128 + signal.SIGINT, within=LIMIT))

