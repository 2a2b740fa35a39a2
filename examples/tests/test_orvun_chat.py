"""End-to-end tests of orvun-chat against clients nobody here wrote: socat, nc
(netcat-openbsd) and Python's asyncio streams, over IPv4 and IPv6, plus raw
sockets for the faults those clients cannot make (resets, a peer that never
reads).

Run by CTest, which sets ORVUN_CHAT to the built server and ORVUN_SANITIZE
to the build's sanitizers; by hand:
    ORVUN_CHAT=build/dev/examples/orvun-chat python3 -m unittest -v test_orvun_chat
ORVUN_CHAT_SCALE (default 1) scales the line counts.
Everything stays on loopback, the server binds port 0, every wait has a
limit, and only processes started here are ever signalled.
"""

import asyncio
import collections
import os
import re
import shutil
import signal
import socket
import struct
import subprocess
import sys
import threading
import time
import unittest

CHAT = os.environ.get("ORVUN_CHAT", "")
SCALE = float(os.environ.get("ORVUN_CHAT_SCALE", "1"))
# Sanitizers keep freed memory aside and map shadow memory, so resident
# memory is measured in plain builds only.
SANITIZED = bool(os.environ.get("ORVUN_SANITIZE"))
LIMIT = 60.0  # seconds: the bound of every wait
HOSTS = ("127.0.0.1", "::1")  # the server listens on ::, so both reach one port
MAX_LINE = 4096


def setUpModule():
    if not CHAT or not os.access(CHAT, os.X_OK):
        raise RuntimeError("set ORVUN_CHAT to the orvun-chat executable (got %r)" % CHAT)
    missing = [tool for tool in ("socat", "nc") if shutil.which(tool) is None]
    if missing:
        raise RuntimeError(
            "%s not found: these tests use them as chat clients; "
            "install them with: bash scripts/install-deps.sh socat netcat-openbsd" % " and ".join(missing)
        )
    usage = subprocess.run(["nc", "-h"], capture_output=True, timeout=LIMIT)
    if b"OpenBSD netcat" not in usage.stdout + usage.stderr:
        raise RuntimeError("nc is not OpenBSD netcat: install netcat-openbsd")


def scaled(count):
    return max(10, int(count * SCALE))


def line(tag, seq, width=40):
    """A line that names its sender and number, with a length that varies."""
    return b"%s %06d %s\n" % (tag, seq, b"x" * (width + seq * 7 % 61))


def by_sender(received):
    """Whole lines of a transcript grouped by the sender's tag; a cut last line is left out."""
    groups = collections.defaultdict(list)
    for text in received.split(b"\n")[:-1]:
        groups[text.split(b" ", 1)[0]].append(text + b"\n")
    return groups


async def bounded(awaitable, what):
    try:
        return await asyncio.wait_for(awaitable, LIMIT)
    except asyncio.TimeoutError:
        raise AssertionError("%s did not finish within %s s" % (what, LIMIT)) from None


class Server:
    """One orvun-chat process (always -v); stderr is collected by a thread."""

    def __init__(self, *args):
        self.process = subprocess.Popen(
            [CHAT, "-v", "-p", "0", *args], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE
        )
        self.lines = []
        self._changed = threading.Condition()
        self._reader = threading.Thread(target=self._read_stderr, daemon=True)
        self._reader.start()
        self.port = int(self.wait_for(r"listening on :: port (\d+)").group(1))

    def _read_stderr(self):
        for text in self.process.stderr:
            with self._changed:
                self.lines.append(text.decode(errors="replace"))
                self._changed.notify_all()

    def stderr(self):
        with self._changed:
            return "".join(self.lines)

    def wait_for(self, pattern, count=1):
        """The `count`-th stderr line that matches `pattern`."""
        deadline = time.monotonic() + LIMIT
        with self._changed:
            while True:
                found = [m for m in (re.search(pattern, text) for text in self.lines) if m]
                if len(found) >= count:
                    return found[count - 1]
                left = deadline - time.monotonic()
                if left <= 0 or (self.process.poll() is not None and not self._reader.is_alive()):
                    raise AssertionError(
                        "the server did not print %r %d times; its stderr:\n%s" % (pattern, count, "".join(self.lines))
                    )
                self._changed.wait(min(left, 0.1))

    async def joined(self, count):
        await asyncio.to_thread(self.wait_for, r" joined \(", count)

    def rss_kib(self):
        with open("/proc/%d/status" % self.process.pid) as status:
            return int(re.search(r"VmRSS:\s+(\d+) kB", status.read()).group(1))

    def stop(self):
        """SIGTERM; returns (exit status, seconds until it exited)."""
        started = time.monotonic()
        self.process.send_signal(signal.SIGTERM)
        status = self.process.wait(timeout=LIMIT)
        elapsed = time.monotonic() - started
        self._reader.join(timeout=LIMIT)
        return status, elapsed

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait(timeout=LIMIT)
        self._reader.join(timeout=LIMIT)
        self.process.stderr.close()


class Client:
    """A chat client behind a pair of asyncio streams: a socat or nc process
    (its stdin and stdout) or an asyncio connection of its own."""

    def __init__(self, tag, reader, writer, process=None):
        self.tag, self.reader, self.writer, self.process = tag, reader, writer, process
        self.received = bytearray()
        self.lines = 0  # whole lines in `received`
        self.progress = None  # an asyncio.Condition notified as lines arrive

    @classmethod
    async def start(cls, kind, tag, host, port):
        if kind == "asyncio":
            reader, writer = await asyncio.open_connection(host, port)
            return cls(tag, reader, writer)
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
                raise AssertionError("%s: end of stream after %d of %d lines" % (self.tag.decode(), self.lines, count))
            self.received += chunk
            self.lines += chunk.count(b"\n")
            if self.progress is not None:
                async with self.progress:
                    self.progress.notify_all()

    async def receive_rest(self):
        """Reads until the server closes the connection (and, for a process,
        until it exits: nc waits for the end of its input too)."""
        if self.process is not None:
            self.writer.close()
        while chunk := await self.reader.read(65536):
            self.received += chunk

    async def close(self):
        self.writer.close()
        if self.process is not None:
            try:
                await asyncio.wait_for(self.process.wait(), LIMIT)
            finally:
                await self.abort()

    async def abort(self):
        """Ends the process at once, if it still runs."""
        self.writer.close()
        if self.process is not None and self.process.returncode is None:
            try:
                self.process.kill()
            except ProcessLookupError:
                pass
            await self.process.wait()


class ChatTestCase(unittest.TestCase):
    maxDiff = 2000

    def start_server(self, *args):
        server = Server(*args)
        self.addCleanup(server.kill)
        return server

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

    def assertTranscript(self, client, expected):
        """`client` got every line of `expected` (tag -> lines) once and in
        order, and nothing else."""
        got = by_sender(bytes(client.received))
        self.assertEqual(sorted(got), sorted(expected), "%s: senders heard" % client.tag.decode())
        for tag, lines in expected.items():
            self.assertEqual(len(got[tag]), len(lines), "%s: lines from %s" % (client.tag.decode(), tag.decode()))
            self.assertEqual(got[tag], lines, "%s: lines from %s" % (client.tag.decode(), tag.decode()))

    def stop_cleanly(self, server, within=1.0):
        status, elapsed = server.stop()
        err = server.stderr()
        self.assertEqual(status, 0, err)
        self.assertLess(elapsed, within, err)
        self.assertNotIn("Sanitizer", err)
        return elapsed


def raw_client(host, port, receive_buffer=None):
    client = socket.socket(socket.AF_INET6 if ":" in host else socket.AF_INET, socket.SOCK_STREAM)
    if receive_buffer is not None:
        # Before connect, so that the window stays small.
        client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
    client.settimeout(LIMIT)
    client.connect((host, port))
    return client


def reset(client):
    """Closes with SO_LINGER 0: the server gets a reset, not an end of stream."""
    client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    client.close()


class DeliveryTests(ChatTestCase):
    def test_thirty_mixed_clients_get_every_other_line_once_in_order(self):
        count = scaled(200)
        kinds = ("socat", "nc", "asyncio")

        async def scenario():
            server = self.start_server()
            clients = []
            for i in range(30):  # each kind five times over IPv4 and five over IPv6
                kind, host = kinds[i % 3], HOSTS[i // 3 % 2]
                tag = b"%s-%s-%02d" % (kind.encode(), b"v6" if ":" in host else b"v4", i)
                clients.append(await self.client(kind, tag, host, server.port))
            await server.joined(30)
            sent = {c.tag: [line(c.tag, seq) for seq in range(count)] for c in clients}
            started = time.monotonic()
            await bounded(
                asyncio.gather(
                    *(c.send(b"".join(sent[c.tag])) for c in clients),
                    *(c.receive_lines(29 * count) for c in clients),
                ),
                "30 clients sending %d lines each" % count,
            )
            elapsed = time.monotonic() - started
            # Whatever else the server still had for them (a duplicate) arrives
            # before the end of stream that the stop brings.
            self.stop_cleanly(server)
            await bounded(asyncio.gather(*(c.receive_rest() for c in clients)), "reading to the end")
            for client in clients:
                self.assertTranscript(client, {tag: lines for tag, lines in sent.items() if tag != client.tag})
                await client.close()
            print("\n  30 clients: %d lines delivered in %.2f s" % (30 * 29 * count, elapsed), file=sys.stderr)

        self.run_scenario(scenario)

    def test_lines_pass_byte_for_byte_up_to_4096_bytes(self):
        longest = b"long " + b"y" * (MAX_LINE - 6) + b"\n"
        odd = b"odd \x00\x01\r\xff\t \r\n"
        empty = b"\n"

        async def scenario():
            server = self.start_server("-b", "::")
            a = await self.client("asyncio", b"a", "::1", server.port)
            b = await self.client("socat", b"b", "127.0.0.1", server.port)
            await server.joined(2)
            # Split at awkward places: the server must put each line together.
            for part in (longest[:1000], longest[1000:] + odd[:5], odd[5:] + empty):
                await a.send(part)
                await asyncio.sleep(0.05)
            await bounded(b.receive_lines(3), "receiving the three lines")
            self.assertEqual(bytes(b.received), longest + odd + empty)
            for client in (a, b):
                await client.close()
            self.stop_cleanly(server)

        self.assertEqual(len(longest), MAX_LINE)
        self.run_scenario(scenario)


class FaultTests(ChatTestCase):
    def test_resets_cut_lines_and_long_lines_reach_nobody(self):
        """Each attacker sends one whole line, then misbehaves; only the whole
        lines arrive, and the listeners go on chatting afterwards."""

        async def scenario():
            server = self.start_server()
            listeners = [
                await self.client("asyncio", b"L1", "::1", server.port),
                await self.client("socat", b"L2", "127.0.0.1", server.port),
                await self.client("nc", b"L3", "::1", server.port),
            ]
            await server.joined(3)

            # A reset in the middle of a line.
            resetter = raw_client("127.0.0.1", server.port)
            resetter.sendall(b"R1 whole\nR1 cut-by-reset")
            await server.joined(4)
            await asyncio.sleep(0.2)
            reset(resetter)
            # An end of stream in the middle of a line, from a raw socket and
            # from socat, which sends its input and closes its sending side.
            closer = raw_client("::1", server.port)
            closer.sendall(b"R2 whole\nR2 cut-by-close")
            closer.close()
            socat = await asyncio.create_subprocess_exec(
                "socat", "-", "TCP6:[::1]:%d" % server.port,
                stdin=subprocess.PIPE, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            )
            await bounded(socat.communicate(b"R3 whole\nR3 cut-by-socat"), "socat ending mid-line")
            # A line one byte over the limit, in two pieces.
            long_line = b"R4 " + b"z" * (MAX_LINE - 3)
            flooder = raw_client("127.0.0.1", server.port)
            flooder.sendall(b"R4 whole\n" + long_line[:3000])
            await asyncio.sleep(0.2)
            flooder.sendall(long_line[3000:] + b"\n")
            try:
                self.assertEqual(flooder.recv(65536), b"", "the server closes on the long line")
            except ConnectionResetError:
                pass  # also a close: the rest of the long line was still unread
            flooder.close()

            await asyncio.to_thread(server.wait_for, r"left: reset the connection")
            await asyncio.to_thread(server.wait_for, r"left: sent a line over 4096 bytes")
            await asyncio.to_thread(server.wait_for, r" left: ", 4)
            expected = {b"R%d" % i: [b"R%d whole\n" % i] for i in range(1, 5)}
            for listener in listeners:
                await listener.send(b"%s after\n" % listener.tag)
            for listener in listeners:
                await bounded(listener.receive_lines(4 + 2), "the lines after the faults")
            self.stop_cleanly(server)
            for listener in listeners:
                await bounded(listener.receive_rest(), "reading to the end")
                others = {l.tag: [b"%s after\n" % l.tag] for l in listeners if l is not listener}
                self.assertTranscript(listener, {**expected, **others})
                await listener.close()

        self.run_scenario(scenario)

    def test_a_client_that_never_reads_is_dropped_and_memory_stays_bounded(self):
        """Four clients send as fast as they can take each other's lines while
        a fifth never reads. The four get everything; the fifth is dropped
        once its backlog passes the limit, having had a clean prefix; the
        server's resident memory grows by far less than what was sent to the
        fifth."""
        count = scaled(10000)

        async def scenario():
            server = self.start_server()  # the default limit: 1 MiB
            stalled = raw_client("::1", server.port, receive_buffer=4096)
            self.addCleanup(stalled.close)
            await server.joined(1)
            slow_port = stalled.getsockname()[1]
            fast = [
                await self.client(kind, tag, host, server.port)
                for kind, tag, host in (
                    ("asyncio", b"F1", "127.0.0.1"),
                    ("asyncio", b"F2", "::1"),
                    ("socat", b"F3", "127.0.0.1"),
                    ("nc", b"F4", "::1"),
                )
            ]
            await server.joined(5)
            baseline = peak = server.rss_kib()
            done = threading.Event()

            def sample():
                nonlocal peak
                while not done.wait(0.01):
                    peak = max(peak, server.rss_kib())

            sampler = threading.Thread(target=sample, daemon=True)
            sampler.start()
            sent = {c.tag: [line(c.tag, seq, width=900) for seq in range(count)] for c in fast}
            volume = sum(len(text) for lines in sent.values() for text in lines)
            progress = asyncio.Condition()
            passed = collections.Counter()  # lines each fast client has sent

            async def flood(client):
                # As fast as the other three take it: never more than `ahead`
                # lines in flight to any of them, well below the backlog limit.
                ahead, step = 256, 64
                others = [c for c in fast if c is not client]
                for start in range(0, count, step):
                    async with progress:
                        await progress.wait_for(
                            lambda: all(o.lines + ahead >= sum(passed.values()) - passed[o.tag] for o in others)
                        )
                    await client.send(b"".join(sent[client.tag][start : start + step]))
                    passed[client.tag] += len(sent[client.tag][start : start + step])

            for client in fast:
                client.progress = progress
            started = time.monotonic()
            try:
                await bounded(
                    asyncio.gather(*(flood(c) for c in fast), *(c.receive_lines(3 * count) for c in fast)),
                    "four clients beside a stalled one",
                )
            finally:
                done.set()
                sampler.join(timeout=LIMIT)
            elapsed = time.monotonic() - started
            growth = peak - baseline
            if not SANITIZED:
                # Keeping all that the stalled client did not take would cost
                # about `volume` (36 MiB at full scale).
                self.assertLess(growth, 12 * 1024, "RSS grew from %d to %d KiB" % (baseline, peak))
            await asyncio.to_thread(server.wait_for, r"port %d left: backlog over the limit" % slow_port)
            self.stop_cleanly(server)
            await bounded(asyncio.gather(*(c.receive_rest() for c in fast)), "reading to the end")
            for client in fast:
                self.assertTranscript(client, {tag: lines for tag, lines in sent.items() if tag != client.tag})
                await client.close()

            # What reached the stalled client before the drop is in order, without gaps.
            prefix = bytearray()
            while chunk := stalled.recv(65536):
                prefix += chunk
            self.assertIn(b"\n", prefix)
            for tag, lines in by_sender(bytes(prefix)).items():
                self.assertEqual(lines, sent[tag][: len(lines)], "the stalled client's lines from %s" % tag.decode())

            print(
                "\n  stalled client: %.1f MiB sent to it, %.1f MiB reached it, RSS %d -> %d KiB (+%d), "
                "%d lines delivered in %.2f s" % (volume / 2**20, len(prefix) / 2**20, baseline, peak, growth,
                                                   12 * count, elapsed),
                file=sys.stderr,
            )

        self.run_scenario(scenario)

    def test_clients_that_stopped_reading_can_still_be_dropped_for_their_input(self):
        """Two clients stop reading until the server's sends to them block;
        then one sends a line over the limit and the other resets. Each is
        dropped (its blocked send must not keep it), and the rest chat on."""
        count = 6000  # 1 KiB lines: more than the kernel buffers between them

        async def scenario():
            server = self.start_server("-m", "64M")
            stalled = [raw_client(host, server.port, receive_buffer=4096) for host in HOSTS]
            for client in stalled:
                self.addCleanup(client.close)
            talker = await self.client("asyncio", b"T", "::1", server.port)
            witness = await self.client("socat", b"W", "127.0.0.1", server.port)
            await server.joined(4)
            talk = [line(b"T", seq, width=1000) for seq in range(count)]
            await bounded(
                asyncio.gather(talker.send(b"".join(talk)), witness.receive_lines(count)),
                "the talker's lines reaching the witness",
            )
            self.assertNotIn(" left: ", server.stderr())

            flooder, resetter = stalled
            flooder.sendall(b"F " + b"z" * MAX_LINE)
            await asyncio.to_thread(
                server.wait_for, r"port %d left: sent a line over 4096 bytes" % flooder.getsockname()[1]
            )
            resetter_port = resetter.getsockname()[1]
            reset(resetter)
            # Its reader or its writer notices first; either way it goes.
            await asyncio.to_thread(
                server.wait_for, r"port %d left: (reset the connection|stopped taking data)" % resetter_port
            )

            await talker.send(b"T after\n")
            await witness.send(b"W after\n")
            await bounded(
                asyncio.gather(witness.receive_lines(count + 1), talker.receive_lines(1)), "the lines after the drops"
            )
            self.stop_cleanly(server)
            for client in (talker, witness):
                await bounded(client.receive_rest(), "reading to the end")
                await client.close()
            self.assertTranscript(witness, {b"T": talk + [b"T after\n"]})
            self.assertTranscript(talker, {b"W": [b"W after\n"]})

        self.run_scenario(scenario)


class StopTests(ChatTestCase):
    def test_sigterm_stops_within_a_second_beside_a_client_that_stopped_reading(self):
        """The stalled client has megabytes waiting for it, so its thread is
        blocked in a send when the signal comes."""
        count = 6000  # 1 KiB lines: more than the kernel buffers between them

        async def scenario():
            server = self.start_server("-m", "64M")
            stalled = raw_client("127.0.0.1", server.port, receive_buffer=4096)
            self.addCleanup(stalled.close)
            talker = await self.client("asyncio", b"T", "::1", server.port)
            witness = await self.client("socat", b"W", "127.0.0.1", server.port)
            await server.joined(3)
            await bounded(
                asyncio.gather(
                    talker.send(b"".join(line(b"T", seq, width=1000) for seq in range(count))),
                    witness.receive_lines(count),
                ),
                "the talker's lines reaching the witness",
            )
            self.assertNotIn(" left: ", server.stderr())
            elapsed = self.stop_cleanly(server)
            # Every client learns of the stop, the stalled one too once it reads.
            await bounded(asyncio.gather(talker.receive_rest(), witness.receive_rest()), "the end of stream")
            for client in (talker, witness):
                await client.close()
            while stalled.recv(65536):
                pass
            print("\n  stopped in %.3f s" % elapsed, file=sys.stderr)

        self.run_scenario(scenario)


class ArgumentTests(unittest.TestCase):
    def run_chat(self, *args):
        done = subprocess.run([CHAT, *args], capture_output=True, timeout=LIMIT)
        return done.returncode, done.stdout.decode(errors="replace"), done.stderr.decode(errors="replace")

    def test_help_documents_the_limits(self):
        status, out, _ = self.run_chat("--help")
        self.assertEqual(status, 0)
        for text in ("-p, --port", "-b, --bind", "--max-backlog", "4096 bytes", "dropped"):
            self.assertIn(text, out)

    def test_bad_arguments_exit_2_with_a_message(self):
        for args, message in (
            (("-p", "65536"), "-p wants a port"),
            (("-p", "http"), "-p wants a port"),
            (("-p",), "needs a value"),
            (("-b", "::1::2"), "is not an IPv6 address"),
            (("-b", ""), "-b wants a host"),
            (("-m", "1K"), "-m wants a byte count"),
            (("-m", "2G"), "-m wants a byte count"),
            (("-m", "-5M"), "-m wants a byte count"),
            (("-x",), "unknown option '-x'"),
            (("--colour",), "unknown option '--colour'"),
            (("extra",), "unexpected argument 'extra'"),
        ):
            with self.subTest(args=args):
                status, out, err = self.run_chat(*args)
                self.assertEqual(status, 2, err)
                self.assertIn(message, err)
                self.assertIn("--help", err)
                self.assertEqual(out, "")

    def test_an_address_it_cannot_listen_on_exits_1(self):
        for host in ("999.999.999.999", "1.2.3.4.5"):
            with self.subTest(host=host):
                status, _, err = self.run_chat("-b", host, "-p", "0")
                self.assertEqual(status, 1, err)
                self.assertIn(host, err)


if __name__ == "__main__":
    unittest.main()
