"""End-to-end tests of orvun-chat against clients nobody here wrote: socat, nc
(netcat-openbsd) and Python's asyncio streams, over IPv4 and IPv6, plus raw
sockets for the faults those clients cannot make (resets, a peer that never
reads).

Run by CTest, which sets ORVUN_CHAT to the built server; by hand:
    ORVUN_CHAT=build/dev/examples/orvun-chat python3 -m unittest -v test_orvun_chat
ORVUN_STRESS_SCALE (default 1) scales the line counts.
"""

import asyncio
import collections
import subprocess
import sys
import time
import unittest

import peers
from peers import HOSTS, LIMIT

MAX_LINE = 4096


def setUpModule():
    ChatTestCase.program = peers.executable("ORVUN_CHAT", socat="socat", nc="netcat-openbsd")
    usage = subprocess.run(["nc", "-h"], capture_output=True, timeout=LIMIT)
    if b"OpenBSD netcat" not in usage.stdout + usage.stderr:
        raise RuntimeError("nc is not OpenBSD netcat: install netcat-openbsd")


def line(tag, seq, width=40):
    """A line that names its sender and number, with a length that varies."""
    return b"%s %06d %s\n" % (tag, seq, b"x" * (width + seq * 7 % 61))


def by_sender(received):
    """Whole lines of a transcript grouped by the sender's tag; a cut last line is left out."""
    groups = collections.defaultdict(list)
    for text in received.split(b"\n")[:-1]:
        groups[text.split(b" ", 1)[0]].append(text + b"\n")
    return dict(groups)


async def bounded(awaitable, what):
    try:
        return await asyncio.wait_for(awaitable, LIMIT)
    except asyncio.TimeoutError:
        raise AssertionError("%s took over %s s" % (what, LIMIT)) from None


class Client:
    """A chat client behind a pair of asyncio streams: a socat or nc process
    (its stdin and stdout) or an asyncio connection of its own."""

    def __init__(self, tag, reader, writer, process=None):
        self.tag, self.reader, self.writer, self.process = tag, reader, writer, process
        self.received = bytearray()
        self.lines = 0  # whole lines in `received`

    @classmethod
    async def start(cls, kind, tag, host, port):
        if kind == "asyncio":
            return cls(tag, *await asyncio.open_connection(host, port))
        if kind == "socat":
            command = ["socat", "-", ("TCP6:[%s]:%d" if ":" in host else "TCP4:%s:%d") % (host, port)]
        else:
            command = ["nc", "-6" if ":" in host else "-4", host, str(port)]
        process = await asyncio.create_subprocess_exec(
            *command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL
        )
        return cls(tag, process.stdout, process.stdin, process)

    async def send(self, data):
        self.writer.write(data)
        await self.writer.drain()

    async def receive_lines(self, count):
        """Reads until `count` lines have arrived in all."""
        while self.lines < count:
            chunk = await self.reader.read(65536)
            if not chunk:
                raise AssertionError("%s: end of stream after %d of %d lines" % (self.tag, self.lines, count))
            self.received += chunk
            self.lines += chunk.count(b"\n")

    async def receive_rest(self):
        """Reads until the server closes (a process's stdin is closed first: nc waits for it)."""
        if self.process is not None:
            self.writer.close()
        while chunk := await self.reader.read(65536):
            self.received += chunk

    async def abort(self):
        self.writer.close()
        if self.process is not None and self.process.returncode is None:
            self.process.kill()
            await self.process.wait()


class ChatTestCase(peers.TestCase):
    def serve(self, *args):
        server = self.start("-v", "-p", "0", *args)
        server.port = server.announced_port()
        return server

    async def logged(self, server, pattern, count=1):
        await asyncio.to_thread(server.wait_for, pattern, count)

    async def client(self, kind, tag, host, port):
        client = await Client.start(kind, tag, host, port)
        self._clients.append(client)
        return client

    def run_scenario(self, scenario):
        """Runs `scenario()` in an event loop that ends no sooner than every client."""

        async def main():
            self._clients = []
            try:
                await scenario()
            finally:
                for client in self._clients:
                    await client.abort()

        asyncio.run(main())

    async def check_transcripts(self, clients, sent):
        """Reads each client to the end of stream (the server has stopped), then
        checks it got every line of `sent` (tag -> lines) but its own, once
        and in order, and nothing else."""
        await bounded(asyncio.gather(*(c.receive_rest() for c in clients)), "reading to the end")
        for client in clients:
            expected = {tag: lines for tag, lines in sent.items() if tag != client.tag}
            self.assertLines(by_sender(bytes(client.received)), expected, client.tag)

    def assertLines(self, got, expected, who):
        """`got` == `expected` (tag -> lines), with a short message: a diff of thousands of lines takes minutes."""
        for tag in sorted(set(got) | set(expected)):
            mine, sent = got.get(tag, []), expected.get(tag, [])
            at = next((i for i, (a, b) in enumerate(zip(mine, sent)) if a != b), None)
            if at is not None or len(mine) != len(sent):
                self.fail("%s got %d lines from %s, %d sent; line %s differs" % (who, len(mine), tag, len(sent), at))


class DeliveryTests(ChatTestCase):
    def test_thirty_mixed_clients_get_every_other_line_once_in_order(self):
        count = max(10, int(200 * peers.SCALE))

        async def scenario():
            server = self.serve()
            clients = []
            for i in range(30):  # each kind five times over IPv4 and five over IPv6
                kind, host = ("socat", "nc", "asyncio")[i % 3], HOSTS[i // 3 % 2]
                clients.append(await self.client(kind, b"%s-%s-%02d" % (kind.encode(), host.encode(), i), host,
                                                 server.port))
            await self.logged(server, r" joined \(", 30)
            sent = {c.tag: [line(c.tag, seq) for seq in range(count)] for c in clients}
            await bounded(
                asyncio.gather(*(c.send(b"".join(sent[c.tag])) for c in clients),
                               *(c.receive_lines(29 * count) for c in clients)),
                "30 clients sending %d lines each" % count,
            )
            # A duplicate would still arrive before the end of stream that the stop brings.
            server.stop()
            await self.check_transcripts(clients, sent)

        self.run_scenario(scenario)

    def test_lines_pass_byte_for_byte_up_to_4096_bytes(self):
        longest = b"long " + b"y" * (MAX_LINE - 6) + b"\n"
        odd, empty = b"odd \x00\x01\r\xff\t \r\n", b"\n"

        async def scenario():
            server = self.serve("-b", "::")
            a = await self.client("asyncio", b"a", "::1", server.port)
            b = await self.client("socat", b"b", "127.0.0.1", server.port)
            await self.logged(server, r" joined \(", 2)
            # Split at awkward places: the server must put each line together.
            for part in (longest[:1000], longest[1000:] + odd[:5], odd[5:] + empty):
                await a.send(part)
                await asyncio.sleep(0.05)
            await bounded(b.receive_lines(3), "receiving the three lines")
            self.assertEqual(bytes(b.received), longest + odd + empty)
            server.stop()

        self.assertEqual(len(longest), MAX_LINE)
        self.run_scenario(scenario)


class FaultTests(ChatTestCase):
    def test_resets_cut_lines_and_long_lines_reach_nobody(self):
        """Each attacker sends one whole line, then misbehaves; only the whole
        lines arrive, and the listeners go on chatting afterwards."""

        async def scenario():
            server = self.serve()
            listeners = [await self.client(kind, b"L" + kind.encode(), host, server.port)
                         for kind, host in (("asyncio", "::1"), ("socat", "127.0.0.1"), ("nc", "::1"))]
            await self.logged(server, r" joined \(", 3)
            # A reset in the middle of a line.
            resetter = peers.connect("127.0.0.1", server.port)
            resetter.sendall(b"R1 whole\nR1 cut-by-reset")
            await self.logged(server, r" joined \(", 4)
            await asyncio.sleep(0.2)
            peers.reset(resetter)
            # An end of stream in the middle of a line, from a raw socket and
            # from socat, which sends its input and closes its sending side.
            closer = peers.connect("::1", server.port)
            closer.sendall(b"R2 whole\nR2 cut-by-close")
            closer.close()
            socat = await asyncio.create_subprocess_exec(
                "socat", "-", "TCP6:[::1]:%d" % server.port,
                stdin=subprocess.PIPE, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            )
            await bounded(socat.communicate(b"R3 whole\nR3 cut-by-socat"), "socat ending mid-line")
            # A line one byte over the limit, in two pieces.
            long_line = b"R4 " + b"z" * (MAX_LINE - 3)
            flooder = peers.connect("127.0.0.1", server.port)
            flooder.sendall(b"R4 whole\n" + long_line[:3000])
            await asyncio.sleep(0.2)
            flooder.sendall(long_line[3000:] + b"\n")
            peers.receive(flooder)  # ends: the server closes on the long line
            flooder.close()

            await self.logged(server, r" left: ", 4)
            self.assertIn(" left: sent a line over 4096 bytes", server.stderr())
            sent = {b"R%d" % i: [b"R%d whole\n" % i] for i in range(1, 5)}
            for listener in listeners:
                sent[listener.tag] = [b"%s after\n" % listener.tag]
                await listener.send(sent[listener.tag][0])
            await bounded(asyncio.gather(*(l.receive_lines(4 + 2) for l in listeners)), "the lines after the faults")
            server.stop()
            await self.check_transcripts(listeners, sent)

        self.run_scenario(scenario)

    def test_a_client_that_never_reads_is_dropped_and_memory_stays_bounded(self):
        """Four clients send as fast as they can take each other's lines while
        a fifth never reads. The four get everything; the fifth is dropped
        once its backlog passes the limit, having had a clean prefix; the
        server's resident memory grows by far less than what was sent to the
        fifth."""
        count = max(1000, int(10000 * peers.SCALE))

        async def scenario():
            server = self.serve()  # the default limit: 1 MiB
            stalled = peers.connect("::1", server.port, receive_buffer=4096)
            self.addCleanup(stalled.close)
            await self.logged(server, r" joined \(", 1)
            fast = [await self.client(kind, tag, host, server.port) for kind, tag, host in (
                ("asyncio", b"F1", "127.0.0.1"), ("asyncio", b"F2", "::1"), ("socat", b"F3", "127.0.0.1"),
                ("nc", b"F4", "::1"))]
            await self.logged(server, r" joined \(", 5)
            baseline = peak = server.rss_kib()
            sent = {c.tag: [line(c.tag, seq, width=900) for seq in range(count)] for c in fast}
            passed = collections.Counter()  # lines each fast client has sent

            async def flood(client):
                # As fast as the other three take it: never more than `ahead`
                # lines in flight to any of them, well below the backlog limit.
                nonlocal peak
                ahead, step = 256, 64
                others = [c for c in fast if c is not client]
                for start in range(0, count, step):
                    while not all(o.lines + ahead >= sum(passed.values()) - passed[o.tag] for o in others):
                        await asyncio.sleep(0.001)
                    await client.send(b"".join(sent[client.tag][start : start + step]))
                    passed[client.tag] += len(sent[client.tag][start : start + step])
                    peak = max(peak, server.rss_kib())

            started = time.monotonic()
            await bounded(asyncio.gather(*(flood(c) for c in fast), *(c.receive_lines(3 * count) for c in fast)),
                          "four clients beside a stalled one")
            elapsed = time.monotonic() - started
            if not peers.SANITIZED:
                # Keeping all that the stalled client did not take would cost
                # about 36 MiB at full scale.
                self.assertLess(peak - baseline, 12 * 1024, "RSS grew from %d to %d KiB" % (baseline, peak))
            await self.logged(server, r"port %d left: backlog over the limit" % stalled.getsockname()[1])
            server.stop()
            await self.check_transcripts(fast, sent)
            # What reached the stalled client before the drop is in order, without gaps.
            prefix = peers.receive(stalled)
            self.assertIn(b"\n", prefix)
            got = by_sender(prefix)
            self.assertLines(got, {tag: sent[tag][: len(lines)] for tag, lines in got.items()}, "the stalled client")
            print("\n  stalled client: %.1f MiB reached it, RSS %d -> %d KiB, %d lines delivered in %.2f s"
                  % (len(prefix) / 2**20, baseline, peak, 12 * count, elapsed), file=sys.stderr)

        self.run_scenario(scenario)

    def test_threads_blocked_sending_to_stalled_clients_are_freed(self):
        """Three clients stop reading until the server's sends to them block.
        One sends a line over the limit and one resets: each is dropped, the
        blocked send does not keep it, and the others chat on. Then SIGTERM
        stops the server within a second, with a send to the third blocked."""
        count = 6000  # 1 KiB lines: more than the kernel buffers between them

        async def scenario():
            server = self.serve("-m", "64M")
            stalled = [peers.connect(host, server.port, receive_buffer=4096) for host in HOSTS + HOSTS[:1]]
            for client in stalled:
                self.addCleanup(client.close)
            talker = await self.client("asyncio", b"T", "::1", server.port)
            witness = await self.client("socat", b"W", "127.0.0.1", server.port)
            await self.logged(server, r" joined \(", 5)
            sent = {b"T": [line(b"T", seq, width=1000) for seq in range(count)]}
            await bounded(asyncio.gather(talker.send(b"".join(sent[b"T"])), witness.receive_lines(count)),
                          "the talker's lines reaching the witness")
            self.assertNotIn(" left: ", server.stderr())

            flooder, resetter, sleeper = stalled
            flooder.sendall(b"F " + b"z" * MAX_LINE)
            await self.logged(server, r"port %d left: sent a line over 4096 bytes" % flooder.getsockname()[1])
            resetter_port = resetter.getsockname()[1]
            peers.reset(resetter)
            # Its reader or its writer notices first (a send that meets the reset
            # clears the error: the reader then sees an end of stream); it goes.
            await self.logged(server, r"port %d left: " % resetter_port)
            sent[b"T"].append(b"T after\n")
            sent[b"W"] = [b"W after\n"]
            await talker.send(b"T after\n")
            await witness.send(b"W after\n")
            await bounded(asyncio.gather(witness.receive_lines(count + 1), talker.receive_lines(1)),
                          "the lines after the drops")
            server.stop()
            await self.check_transcripts([talker, witness], sent)
            peers.receive(sleeper)  # ends: the stop closed it too

        self.run_scenario(scenario)


class CommandLineTests(ChatTestCase):
    def test_exit_status_and_message_for_each_command_line(self):
        self.check_exits([(("--help",), text) for text in ("-p, --port", "-b, --bind", "--max-backlog", "4096 bytes",
                                                           "dropped")], [
            (("-p", "65536"), "-p wants a port"), (("-p", "http"), "-p wants a port"), (("-p",), "needs a value"),
            (("-b", "::1::2"), "is not an IPv6 address"), (("-b", ""), "-b wants a host"),
            (("-m", "1K"), "-m wants a byte count"), (("-m", "2G"), "-m wants a byte count"),
            (("-m", "-5M"), "-m wants a byte count"), (("-x",), "unknown option '-x'"),
            (("--colour",), "unknown option '--colour'"), (("extra",), "unexpected argument 'extra'")],
            [(("-b", host, "-p", "0"), host) for host in ("999.999.999.999", "1.2.3.4.5")])


if __name__ == "__main__":
    unittest.main()
