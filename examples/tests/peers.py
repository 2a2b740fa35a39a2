# What the end-to-end tests of orvun-cat, orvun-chat and orvun-httpd share: the program under test with its
# output kept in files, stopping by signal, the command line, and raw loopback sockets for the faults
# that real clients cannot make. Every wait is bounded.

import contextlib, functools, os, pathlib, re, shutil, signal, socket, struct, subprocess, tempfile, threading
import time, unittest

LIMIT = 30.0  # seconds: the bound of every wait
socket.setdefaulttimeout(LIMIT)  # for every socket made here, the accepted ones too
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


class Program(contextlib.AbstractContextManager):
    # One process under test, killed on leaving the context if still running. Its stdout and stderr go to
    # files, read afresh by name each time.
    def __init__(self, *command):
        self.out, self.err = (tempfile.NamedTemporaryFile(prefix="orvun-") for _ in range(2))
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=self.out, stderr=self.err)

    def stderr(self):
        return pathlib.Path(self.err.name).read_text(errors="replace")

    def wait_for(self, pattern, count=1):
        # The `count`-th match of `pattern` in stderr.
        deadline = time.monotonic() + LIMIT
        while True:
            ended = self.process.poll() is not None  # before reading: its last words are then in the text
            if len(found := list(re.finditer(pattern, text := self.stderr()))) >= count:
                return found[count - 1]
            if ended or time.monotonic() > deadline:
                raise AssertionError("stderr has no %r (%d times):\n%s" % (pattern, count, text))
            time.sleep(0.02)

    @functools.cached_property
    def port(self):
        # The port the program says it listens on, once it has said so.
        return int(self.wait_for(r"listening on .* port (\d+)").group(1))

    def feed(self, data):
        # Writes `data` to stdin and closes it, from a thread: the program may take it slowly.
        threading.Thread(target=self.process.communicate, args=(data,), daemon=True).start()

    def finish(self):
        # Waits for the exit: (status, stdout bytes, stderr text).
        return self.process.wait(timeout=LIMIT), pathlib.Path(self.out.name).read_bytes(), self.stderr()

    def stop(self, sig=signal.SIGTERM, status=0, within=1.0):
        # Sends `sig`; fails unless the exit status `status` comes within `within` seconds and no sanitizer
        # spoke. Returns the stderr text.
        self.process.send_signal(sig)
        if self.process.wait(timeout=within) != status or "Sanitizer" in self.stderr():
            raise AssertionError("exit status %d:\n%s" % (self.process.returncode, self.stderr()))
        return self.stderr()

    def __exit__(self, *_):
        self.process.kill()  # nothing when it has ended
        with self.process, self.out, self.err:  # waits, then closes stdin and the files
            pass


class TestCase(unittest.TestCase):
    program = ""  # the executable, set by each module

    def start(self, *args):
        # The program with `args`, killed at the end of the test if still running.
        return self.enterContext(Program(self.program, *args))

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
        sock = self.enterContext(socket.socket(socket.AF_INET6 if ":" in host else socket.AF_INET, kind))
        sock.bind((host, 0))
        if listen and kind == socket.SOCK_STREAM:
            sock.listen()
        return sock


def connect(host, port, receive_buffer=None):
    # A raw TCP connection; a small `receive_buffer` (set before connect) keeps the window small.
    sock = socket.socket(socket.AF_INET6 if ":" in host else socket.AF_INET)
    if receive_buffer:
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
    sock.connect((host, port))
    return sock


def reset(sock):
    # Closes with SO_LINGER 0: the peer gets a reset, not an end of stream.
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    sock.close()


def receive(sock):
    # Everything until the peer closes or resets.
    data = bytearray()
    with contextlib.suppress(ConnectionResetError):
        while part := sock.recv(65536):
            data += part
    return bytes(data)
