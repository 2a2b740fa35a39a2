# End-to-end tests of orvun-chat against clients nobody here wrote: socat, nc (netcat-openbsd) and Python's
# asyncio streams, over IPv4 and IPv6, plus raw sockets for the faults those clients cannot make (resets, a
# peer that never reads). CTest sets ORVUN_CHAT to the built server; by hand:
#     ORVUN_CHAT=build/dev/examples/orvun-chat python3 -m unittest -v test_orvun_chat
# ORVUN_STRESS_SCALE (default 1) scales the line counts.

import asyncio, itertools, re, subprocess, unittest

import peers
from peers import HOSTS, LIMIT

MAX_LINE = 4096
JOINED = r" joined \("


def setUpModule():
    ChatTests.program = peers.executable("ORVUN_CHAT", socat="socat", nc="netcat-openbsd")
    if b"OpenBSD netcat" not in subprocess.run(["nc", "-h"], capture_output=True, timeout=LIMIT).stderr:
        raise RuntimeError("nc is not OpenBSD netcat: install netcat-openbsd")


def line(tag, seq, width=40):
    # A line that names its sender and number, with a length that varies.
    return b"%s %06d %s\n" % (tag, seq, b"x" * (width + seq * 7 % 61))


def owed(sent, tag):
    # The bytes a client tagged `tag` is to receive of `sent` (tag -> lines): all but its own.
    return sum(len(text) for other, lines in sent.items() if other != tag for text in lines)


def by_sender(received):
    # Whole lines of a transcript grouped by the sender's tag; a cut last line is left out.
    groups = {}
    for text in bytes(received).split(b"\n")[:-1]:
        groups.setdefault(text.split(b" ", 1)[0], []).append(text + b"\n")
    return groups


def rss_kib(process):
    with open("/proc/%d/status" % process.pid) as status:
        return int(re.search(r"VmRSS:\s+(\d+) kB", status.read()).group(1))


def bounded(*awaitables):
    return asyncio.wait_for(asyncio.gather(*awaitables), LIMIT)


class Client:
    # A chat client behind a pair of asyncio streams: those of a socat or nc process (its stdin and stdout)
    # or of an asyncio connection.
    def __init__(self, tag, reader, writer, process=None):
        self.tag, self.reader, self.writer, self.process, self.received = tag, reader, writer, process, bytearray()

    async def send(self, data):
        self.writer.write(data)
        await self.writer.drain()

    async def receive(self, size):
        # Reads until `size` bytes have come in all.
        self.received += await self.reader.readexactly(size - len(self.received))

    async def receive_rest(self):
        # Reads until the server closes (a process's stdin is closed first: nc waits for it).
        if self.process is not None:
            self.writer.close()
        self.received += await self.reader.read()

    async def abort(self):
        self.writer.close()
        if self.process is not None and self.process.returncode is None:
            self.process.kill()
            await self.process.wait()


class ChatTests(peers.TestCase, unittest.IsolatedAsyncioTestCase):
    async def asyncSetUp(self):
        asyncio.get_running_loop().set_debug(False)  # its checks slow the loop down far more than the server

    async def join(self, server, wanted, joined=None):
        # A client per (kind, tag, host) of `wanted`, once the server has seen `joined` clients in all.
        clients = []
        for kind, tag, host in wanted:
            if kind == "asyncio":
                clients.append(Client(tag, *await asyncio.open_connection(host, server.port)))
            else:
                command = (["socat", "-", ("TCP6:[%s]:%d" if ":" in host else "TCP4:%s:%d") % (host, server.port)]
                           if kind == "socat" else ["nc", "-6" if ":" in host else "-4", host, str(server.port)])
                process = await asyncio.create_subprocess_exec(*command, stdin=subprocess.PIPE,
                                                               stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
                clients.append(Client(tag, process.stdout, process.stdin, process))
            self.addAsyncCleanup(clients[-1].abort)
        await asyncio.to_thread(server.wait_for, JOINED, joined or len(clients))
        return clients

    async def check_transcripts(self, server, clients, sent):
        # Stops the server and reads each client to the end of stream, then checks it got every line of `sent`
        # (tag -> lines) but its own, once and in order, and nothing else. (A duplicate would still arrive
        # before the end of stream that the stop brings.)
        server.stop()
        await bounded(*(c.receive_rest() for c in clients))
        for client in clients:
            self.assertLines(by_sender(client.received), {t: l for t, l in sent.items() if t != client.tag}, client.tag)

    def assertLines(self, got, expected, who):
        # `got` == `expected` (tag -> lines), with a short message: a diff of thousands of lines takes minutes.
        for tag in sorted(set(got) | set(expected)):
            mine, sent = got.get(tag, []), expected.get(tag, [])
            at = next((i for i, (a, b) in enumerate(itertools.zip_longest(mine, sent)) if a != b), None)
            self.assertIsNone(at, "%s got %d/%d lines from %s; line %s differs" % (who, len(mine), len(sent), tag, at))

    async def test_thirty_mixed_clients_get_every_whole_line_once_in_order_and_byte_for_byte(self):
        # Thirty clients of three kinds look on while attackers send whole lines, then misbehave; then they
        # chat. Every whole line up to 4096 bytes arrives once, in order and unchanged however it was split;
        # nothing else does.
        count = max(10, int(200 * peers.SCALE))
        longest = b"R3 " + b"y" * (MAX_LINE - 4) + b"\n"
        sent = {b"R1": [b"R1 odd \x00\x01\r\xff\t \r\n"], b"R2": [b"R2 whole\n"], b"": [b"\n"], b"R3": [longest]}
        server = self.start("-v", "-p", "0")
        kinds = ("socat", "nc", "asyncio")  # each five times over IPv4 and five over IPv6
        clients = await self.join(server, [(kinds[i % 3], b"%s-%02d" % (kinds[i % 3].encode(), i),
                                            HOSTS[i // 3 % 2]) for i in range(30)])
        # A reset in the middle of a line, once the server has read it.
        resetter = peers.connect("127.0.0.1", server.port)
        resetter.sendall(sent[b"R1"][0] + b"R1 cut-by-reset")
        await asyncio.to_thread(server.wait_for, JOINED, 31)
        await asyncio.sleep(0.2)
        peers.reset(resetter)
        # An end of stream in the middle of a line: socat sends its input and closes its sending side.
        socat, = await self.join(server, [("socat", b"R2", "::1")], 32)
        await socat.send(b"R2 whole\n\nR2 cut-by-socat")
        await bounded(socat.receive_rest())
        # The longest line and then one a byte longer, each in two pieces.
        with peers.connect("127.0.0.1", server.port) as flooder:
            for part in (longest[:1000], longest[1000:] + b"R3 " + b"z" * 2997, b"z" * (MAX_LINE - 3000) + b"\n"):
                flooder.sendall(part)
                await asyncio.sleep(0.1)
            peers.receive(flooder)  # ends: the server closes on the long line
        await asyncio.to_thread(server.wait_for, r" left: ", 3)
        self.assertIn(" left: sent a line over 4096 bytes", server.stderr())
        sent.update({c.tag: [line(c.tag, seq) for seq in range(count)] for c in clients})
        await bounded(*(c.send(b"".join(sent[c.tag])) for c in clients),
                      *(c.receive(owed(sent, c.tag)) for c in clients))
        await self.check_transcripts(server, clients, sent)

    async def test_a_client_that_never_reads_is_dropped_and_memory_stays_bounded(self):
        # Four clients send as fast as they can take each other's lines while a fifth never reads. The four
        # get everything; the fifth is dropped once its backlog passes the limit, having had a clean prefix;
        # the server's resident memory grows by far less than what was sent to the fifth.
        count = max(1000, int(10000 * peers.SCALE))
        server = self.start("-v", "-p", "0")  # the default limit: 1 MiB
        stalled = self.enterContext(peers.connect("::1", server.port, receive_buffer=4096))
        fast = await self.join(server, [("asyncio", b"F1", "127.0.0.1"), ("asyncio", b"F2", "::1"),
                                        ("socat", b"F3", "127.0.0.1"), ("nc", b"F4", "::1")], joined=5)
        baseline = peak = rss_kib(server.process)
        sent = {c.tag: [line(c.tag, seq, width=900) for seq in range(count)] for c in fast}

        async def flood(client):
            # 64 lines at a time, each once all that the other three sent up to the batch before is in: no
            # more than two batches from each (384 lines in all) are in flight to any of them, below the limit.
            nonlocal peak
            due = 0  # what the client is owed once the batches sent so far are through
            for start in range(0, count, 64):
                await client.receive(due)
                await client.send(b"".join(sent[client.tag][start : start + 64]))
                due += owed({tag: lines[start : start + 64] for tag, lines in sent.items()}, client.tag)
                peak = max(peak, rss_kib(server.process))
            await client.receive(due)

        await bounded(*(flood(c) for c in fast))
        if not peers.SANITIZED:
            # Keeping all that the stalled client did not take would cost about 36 MiB at full scale.
            self.assertLess(peak - baseline, 12 * 1024, "RSS grew from %d to %d KiB" % (baseline, peak))
        await asyncio.to_thread(server.wait_for, r"port %d left: backlog over the limit" % stalled.getsockname()[1])
        await self.check_transcripts(server, fast, sent)
        # What reached the stalled client before the drop is in order, without gaps.
        got = by_sender(peers.receive(stalled))
        self.assertTrue(got, "no whole line reached the stalled client")
        self.assertLines(got, {tag: sent[tag][: len(lines)] for tag, lines in got.items()}, "the stalled client")

    async def test_threads_blocked_sending_to_stalled_clients_are_freed(self):
        # Three clients stop reading until the server's sends to them block. One sends a line over the limit
        # and one resets: each is dropped, the blocked send does not keep it, and the others chat on. Then
        # SIGTERM stops the server within a second, with a send to the third blocked.
        count = 6000  # 1 KiB lines: more than the kernel buffers between them
        server = self.start("-v", "-p", "0", "-m", "64M")
        flooder, resetter, sleeper = (self.enterContext(peers.connect(host, server.port, receive_buffer=4096))
                                      for host in HOSTS + HOSTS[:1])
        talker, witness = await self.join(server, [("asyncio", b"T", "::1"), ("socat", b"W", "127.0.0.1")], 5)
        sent = {b"T": [line(b"T", seq, width=1000) for seq in range(count)]}
        await bounded(talker.send(b"".join(sent[b"T"])), witness.receive(owed(sent, b"W")))
        self.assertNotIn(" left: ", server.stderr())
        flooder.sendall(b"F " + b"z" * MAX_LINE)
        await asyncio.to_thread(server.wait_for, r"port %d left: sent a line over" % flooder.getsockname()[1])
        resetter_port = resetter.getsockname()[1]
        peers.reset(resetter)
        # Its reader or its writer notices first (a send that meets the reset clears the error: the reader
        # then sees an end of stream); it goes.
        await asyncio.to_thread(server.wait_for, r"port %d left: " % resetter_port)
        for client in (talker, witness):
            sent.setdefault(client.tag, []).append(b"%s after\n" % client.tag)
            await client.send(sent[client.tag][-1])
        await bounded(witness.receive(owed(sent, b"W")), talker.receive(owed(sent, b"T")))
        await self.check_transcripts(server, [talker, witness], sent)
        peers.receive(sleeper)  # ends: the stop closed it too

    def test_exit_status_and_message_for_each_command_line(self):
        self.check_exits([(("--help",), text) for text in ("-p, --port", "-b, --bind", "--max-backlog", "4096 bytes",
                                                           "dropped")], [
            (("-p", "65536"), "-p wants a port"), (("-p", "http"), "-p wants a port"), (("-p",), "needs a value"),
            (("-b", "::1::2"), "is not an IPv6 address"), (("-b", ""), "-b wants a host"),
            (("-m", "1K"), "-m wants a byte count"), (("-m", "2G"), "-m wants a byte count"),
            (("-m", "-5M"), "-m wants a byte count"), (("-x",), "unknown option '-x'"),
            (("--colour",), "unknown option '--colour'"), (("extra",), "unexpected argument 'extra'")],
            [(("-b", host, "-p", "0"), host) for host in ("999.999.999.999", "1.2.3.4.5")])

