# What the end-to-end tests of orvun-cat, orvun-chat and orvun-httpd share: the program under test with its
# output collected as it comes, stopping by signal, the command line, and raw loopback sockets for the faults
# that real clients cannot make. Every wait is bounded.

import contextlib, os, re, shutil, signal, socket, struct, subprocess, threading, time, unittest

LIMIT = 30.0  # seconds: the bound of every wait
HOSTS = ("127.0.0.1", "::1")
# Sanitizers keep freed memory aside and slow everything down: the loads shrink
# by ORVUN_STRESS_SCALE and resident memory is not measured.
SANITIZED = bool(os.environ.get("ORVUN_SANITIZE"))
SCALE = float(os.environ.get("ORVUN_STRESS_SCALE", "1"))


def executable(variable, **clients):
    # The program that CTest names in `variable`, once every client tool is there: executable("X", ab="apache2-utils").
    path = os.environ.get(variable, "")
    if not os.access(path, os.X_OK):
        raise RuntimeError("set %s to the executable under test (got %r)" % (variable, path))
    if missing := [package for tool, package in clients.items() if shutil.which(tool) is None]:
        raise RuntimeError("clients missing; install them with: bash scripts/install-deps.sh " + " ".join(missing))
    return path


class Program:
    # One process under test; threads collect its stdout and its stderr lines.
    def __init__(self, *command):
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.out, self.lines, self._changed = bytearray(), [], threading.Condition()
        self._readers = [threading.Thread(target=read, daemon=True) for read in (self._read_out, self._read_err)]
        for reader in self._readers:
            reader.start()

    def _read_out(self):
        while chunk := self.process.stdout.read1(65536):
            self.out += chunk

    def _read_err(self):
        for line in self.process.stderr:
            with self._changed:
                self.lines.append(line.decode(errors="replace"))
                self._changed.notify_all()

    def stderr(self):
        with self._changed:
            return "".join(self.lines)

    def wait_for(self, pattern, count=1):
        # The match of the `count`-th stderr line that matches `pattern`.
        deadline = time.monotonic() + LIMIT
        with self._changed:
            while len(found := [match for match in map(re.compile(pattern).search, self.lines) if match]) < count:
                if time.monotonic() > deadline or not self._readers[1].is_alive():
                    raise AssertionError("stderr has no %r (%d times):\n%s" % (pattern, count, "".join(self.lines)))
                self._changed.wait(0.1)
            return found[count - 1]

    def announced_port(self):
        return int(self.wait_for(r"listening on .* port (\d+)").group(1))

    def feed(self, data):
        # Writes `data` to stdin from a thread (so that stdout keeps flowing), then closes it.
        def write():
            with contextlib.suppress(BrokenPipeError):
                self.process.stdin.write(data)
                self.process.stdin.close()

        threading.Thread(target=write, daemon=True).start()

    def finish(self):
        # Waits for the exit: (status, stdout bytes, stderr text).
        status = self.process.wait(timeout=LIMIT)
        for reader in self._readers:
            reader.join(timeout=LIMIT)
        return status, bytes(self.out), self.stderr()

    def stop(self, sig=signal.SIGTERM, status=0, within=1.0):
        # Sends `sig`; fails unless the exit status `status` came within `within` seconds and no sanitizer
        # spoke. Returns the stderr text.
        started = time.monotonic()
        self.process.send_signal(sig)
        got, _, err = self.finish()
        elapsed = time.monotonic() - started
        if got != status or elapsed >= within or "Sanitizer" in err:
            raise AssertionError("exit status %d after %.2f s:\n%s" % (got, elapsed, err))
        return err

    def rss_kib(self):
        with open("/proc/%d/status" % self.process.pid) as status:
            return int(re.search(r"VmRSS:\s+(\d+) kB", status.read()).group(1))

    def kill(self):
        self.process.kill()  # nothing when it has ended
        self.finish()
        for stream in (self.process.stdin, self.process.stdout, self.process.stderr):
            with contextlib.suppress(OSError):
                stream.close()


class TestCase(unittest.TestCase):
    program = ""  # the executable, set by each module

    def start(self, *args):
        # The program with `args`, killed at the end of the test if still running.
        program = Program(self.program, *args)
        self.addCleanup(program.kill)
        return program

    def check_exits(self, helps, usage_errors, failures):
        # Runs the program with no input once per (arguments, text): each of `helps` prints its text on
        # stdout with status 0; each of `usage_errors` prints it on stderr, points to --help and exits with 2;
        # each of `failures` prints it on stderr and exits with 1.
        cases = [(args, 0, text) for args, text in helps] + [(args, 2, text) for args, text in usage_errors]
        for args, status, text in cases + [(args, 1, text) for args, text in failures]:
            with self.subTest(args=args):
                done = subprocess.run([self.program, *args], stdin=subprocess.DEVNULL, capture_output=True,
                                      errors="replace", timeout=LIMIT)
                self.assertEqual(done.returncode, status, done.stderr)
                self.assertIn(text, done.stdout if status == 0 else done.stderr)
                if status == 2:
                    self.assertEqual((done.stdout, "--help" in done.stderr), ("", True))

    def socket_on(self, host, kind=socket.SOCK_STREAM, listen=True):
        # A socket bound to a free port of `host`, closed after the test.
        sock = socket.socket(family(host), kind)
        self.addCleanup(sock.close)
        sock.settimeout(LIMIT)
        sock.bind((host, 0))
        if listen and kind == socket.SOCK_STREAM:
            sock.listen()
        return sock


def family(host):
    return socket.AF_INET6 if ":" in host else socket.AF_INET


def connect(host, port, receive_buffer=None):
    # A raw TCP connection; a small `receive_buffer` (set before connect) keeps the window small.
    sock = socket.socket(family(host), socket.SOCK_STREAM)
    if receive_buffer:
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
    sock.settimeout(LIMIT)
    sock.connect((host, port))
    return sock


def reset(sock):
    # Closes with SO_LINGER 0: the peer gets a reset, not an end of stream.
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    sock.close()


def receive(sock, size=None):
    # `size` bytes, or everything until the peer closes or resets.
    data = bytearray()
    with contextlib.suppress(ConnectionResetError):
        while size is None or len(data) < size:
            part = sock.recv(65536 if size is None else min(65536, size - len(data)))
            if not part:
                break
            data += part
    return bytes(data)
