"""End-to-end tests of orvun-httpd against curl, ApacheBench and raw sockets.

Run by CTest, which sets ORVUN_HTTPD to the built server; by hand:
    ORVUN_HTTPD=build/dev/examples/orvun-httpd python3 -m unittest -v test_orvun_httpd
curl and ab (apache2-utils) must be installed (scripts/run-tests.sh does it).
ORVUN_STRESS_SCALE (default 1) scales the ApacheBench load down under the
sanitizers. Everything stays on loopback; every wait has a limit.
"""

import hashlib
import os
import queue
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import threading
import time
import unittest

HTTPD = os.environ.get("ORVUN_HTTPD", "")
SCALE = float(os.environ.get("ORVUN_STRESS_SCALE", "1"))
LIMIT = 30.0  # seconds: the bound of every wait
SECRET = b"SECRET-outside-the-served-folder\n"
HUGE = 512 * 1024 * 1024


def setUpModule():
    if not HTTPD or not os.access(HTTPD, os.X_OK):
        raise RuntimeError("set ORVUN_HTTPD to the orvun-httpd executable (got %r)" % HTTPD)
    for tool, package in (("curl", "curl"), ("ab", "apache2-utils")):
        if shutil.which(tool) is None:
            raise RuntimeError("%s is missing: install it with bash scripts/install-deps.sh %s" % (tool, package))


def make_tree(root):
    """root/secret.txt outside the served folder root/www, and links that lead out."""
    www = os.path.join(root, "www")
    for folder in ("www/sub", "www/empty", "elsewhere"):
        os.makedirs(os.path.join(root, folder))
    files = {
        "secret.txt": SECRET,
        "elsewhere/secret.txt": SECRET,
        "www/index.html": b"<h1>home</h1>\n",
        "www/sub/index.html": b"<h1>sub</h1>\n",
        "www/one.txt": bytes(i % 95 + 32 for i in range(1024)),
        "www/style.css": b"h1 { color: red }\n",
        "www/big.bin": os.urandom(3 * 1024 * 1024 + 17),
    }
    for name, content in files.items():
        with open(os.path.join(root, name), "wb") as out:
            out.write(content)
    with open(os.path.join(www, "huge.bin"), "wb") as out:
        out.truncate(HUGE)  # sparse: a download that outlasts any socket buffer
    os.symlink("../secret.txt", os.path.join(www, "out-file"))
    os.symlink(os.path.join(root, "secret.txt"), os.path.join(www, "out-absolute"))
    os.symlink("../elsewhere", os.path.join(www, "out-folder"))
    os.symlink("one.txt", os.path.join(www, "in-link"))
    return www, files


class Server:
    """One orvun-httpd process; stderr is collected by a thread."""

    def __init__(self, folder, *options):
        self.process = subprocess.Popen(
            [HTTPD, "-p", "0", *options, folder], stdout=subprocess.PIPE, stderr=subprocess.PIPE
        )
        self.lines = queue.Queue()
        self.stderr = []
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()
        while True:
            line = self.lines.get(timeout=LIMIT)
            found = re.search(r"listening on 127\.0\.0\.1 port (\d+)", line)
            if found:
                self.port = int(found.group(1))
                break

    def _read(self):
        for line in self.process.stderr:
            text = line.decode(errors="replace")
            self.stderr.append(text)
            self.lines.put(text)

    def url(self, path):
        return "http://127.0.0.1:%d%s" % (self.port, path)

    def stop(self):
        """SIGTERM; returns (exit status, seconds to exit, stderr text)."""
        started = time.monotonic()
        self.process.send_signal(signal.SIGTERM)
        status = self.process.wait(timeout=LIMIT)
        elapsed = time.monotonic() - started
        self.reader.join(timeout=LIMIT)
        return status, elapsed, "".join(self.stderr)

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait(timeout=LIMIT)
        self.process.stdout.close()
        self.process.stderr.close()


def curl(*args):
    """Runs curl; returns (stdout bytes, stderr text)."""
    done = subprocess.run(["curl", "-s", "--max-time", str(LIMIT), *args], capture_output=True, timeout=LIMIT + 5)
    return done.stdout, done.stderr.decode(errors="replace")


class Client:
    """A raw connection that reads answers one at a time (pipelined ones too)."""

    def __init__(self, port):
        self.socket = socket.create_connection(("127.0.0.1", port), timeout=LIMIT)
        self.pending = b""

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()

    def send(self, data):
        self.socket.sendall(data)

    def _more(self, what):
        part = self.socket.recv(65536)
        if not part:
            raise AssertionError("connection closed inside %s: %r" % (what, self.pending[:200]))
        self.pending += part

    def response(self, head_request=False):
        """One answer: (status, headers with lower-case names, body)."""
        while b"\r\n\r\n" not in self.pending:
            self._more("a head")
        head, self.pending = self.pending.split(b"\r\n\r\n", 1)
        lines = head.decode("latin-1").split("\r\n")
        status = int(lines[0].split()[1])
        headers = {}
        for line in lines[1:]:
            name, value = line.split(":", 1)
            headers[name.strip().lower()] = value.strip()
        length = 0 if head_request else int(headers["content-length"])
        while len(self.pending) < length:
            self._more("a body")
        body, self.pending = self.pending[:length], self.pending[length:]
        return status, headers, body

    def closed_by_server(self):
        """True when the server closes the connection (within LIMIT) with nothing more to say."""
        try:
            while True:
                part = self.socket.recv(65536)
                if not part:
                    return self.pending == b""
                self.pending += part
        except ConnectionResetError:
            return self.pending == b""
        except socket.timeout:
            return False


def raw(port, request):
    """Sends `request` as is on a new connection; returns (status, headers, body)."""
    with Client(port) as client:
        client.send(request)
        return client.response()


def get(path, version="1.1", extra=""):
    return ("GET %s HTTP/%s\r\nHost: localhost\r\n%s\r\n" % (path, version, extra)).encode("latin-1")


class ServedFolderTests(unittest.TestCase):
    """One server for the requests that do not stop it."""

    @classmethod
    def setUpClass(cls):
        cls.root = tempfile.mkdtemp(prefix="orvun-httpd-")
        cls.www, cls.files = make_tree(cls.root)
        cls.server = Server(cls.www, "-t", "20")

    @classmethod
    def tearDownClass(cls):
        status, _, err = cls.server.stop()
        cls.server.kill()
        shutil.rmtree(cls.root)
        if status != 0 or "Sanitizer" in err:
            raise AssertionError("orvun-httpd ended with %d:\n%s" % (status, err))

    def test_get_and_head_give_length_type_and_body(self):
        cases = (
            ("/one.txt", "www/one.txt", "text/plain; charset=utf-8"),
            ("/style.css", "www/style.css", "text/css; charset=utf-8"),
            ("/", "www/index.html", "text/html; charset=utf-8"),
            ("/sub/", "www/sub/index.html", "text/html; charset=utf-8"),
            ("/sub", "www/sub/index.html", "text/html; charset=utf-8"),
            ("/in-link", "www/one.txt", "application/octet-stream"),  # a link that stays inside
            ("/big.bin", "www/big.bin", "application/octet-stream"),
        )
        for path, name, kind in cases:
            with self.subTest(path):
                content = self.files[name]
                with Client(self.server.port) as client:
                    client.send(get(path) + get(path).replace(b"GET", b"HEAD", 1) + get("/one.txt"))
                    status, headers, body = client.response()
                    self.assertEqual((status, headers["content-type"], body), (200, kind, content))
                    self.assertEqual(int(headers["content-length"]), len(content))
                    status, head_headers, _ = client.response(head_request=True)
                    self.assertEqual(status, 200)
                    self.assertEqual(head_headers["content-length"], str(len(content)))
                    self.assertEqual(client.response()[2], self.files["www/one.txt"])  # the HEAD answer had no body

    def test_curl_downloads_a_big_file_whole(self):
        out, err = curl("-f", self.server.url("/big.bin"))
        self.assertEqual(hashlib.sha256(out).hexdigest(), hashlib.sha256(self.files["www/big.bin"]).hexdigest(), err)
        out, err = curl("-I", self.server.url("/big.bin"))
        self.assertIn("Content-Length: %d" % len(self.files["www/big.bin"]), out.decode(), err)

    def test_missing_files_and_other_methods(self):
        for path in ("/nothing.txt", "/empty/", "/one.txt/", "/sub/nothing/"):
            with self.subTest(path):
                out, _ = curl("-o", "/dev/null", "-w", "%{http_code}", self.server.url(path))
                self.assertEqual(out, b"404")
        for method in ("POST", "PUT", "DELETE", "OPTIONS", "BREW"):
            with self.subTest(method):
                out, _ = curl("-i", "-X", method, "--data", "x", self.server.url("/one.txt"))
                self.assertRegex(out.decode(), r"^HTTP/1\.1 405 ")
                self.assertIn("Allow: GET, HEAD\r\n", out.decode())

    def test_one_connection_serves_many_requests(self):
        # curl reuses the connection for its second URL.
        out, err = curl("-v", self.server.url("/one.txt"), self.server.url("/style.css"))
        self.assertEqual(out, self.files["www/one.txt"] + self.files["www/style.css"])
        self.assertIn("Re-using existing connection", err)
        self.assertEqual(err.count("Connected to"), 1, err)
        # Pipelined: three requests in one send, three answers in order.
        with Client(self.server.port) as client:
            client.send(get("/one.txt") + get("/nothing") + get("/style.css"))
            self.assertEqual(client.response()[::2], (200, self.files["www/one.txt"]))
            self.assertEqual(client.response()[0], 404)
            self.assertEqual(client.response()[::2], (200, self.files["www/style.css"]))
            # HTTP/1.1 with "Connection: close" ends it.
            client.send(get("/one.txt", extra="Connection: close\r\n"))
            status, headers, _ = client.response()
            self.assertEqual((status, headers["connection"]), (200, "close"))
            self.assertTrue(client.closed_by_server())

    def test_http_1_0_closes_unless_asked_to_keep_alive(self):
        out, err = curl("-0", "-i", self.server.url("/one.txt"))
        self.assertTrue(out.startswith(b"HTTP/1.0 200 OK\r\n"), out[:100])
        self.assertTrue(out.endswith(self.files["www/one.txt"]), err)
        with Client(self.server.port) as client:
            client.send(get("/one.txt", "1.0"))
            self.assertEqual(client.response()[0], 200)
            self.assertTrue(client.closed_by_server())
        # What ApacheBench -k sends.
        with Client(self.server.port) as client:
            for _ in range(2):
                client.send(b"GET /one.txt HTTP/1.0\r\nConnection: Keep-Alive\r\n\r\n")
                status, headers, _ = client.response()
                self.assertEqual((status, headers["connection"].lower()), (200, "keep-alive"))

    def test_a_changed_file_is_never_served_stale(self):
        path = os.path.join(self.www, "changing.txt")
        with open(path, "wb") as out:
            out.write(b"A" * len(SECRET))
        time.sleep(2.2)  # old enough to be kept in memory
        for _ in range(2):
            self.assertEqual(curl(self.server.url("/changing.txt"))[0], b"A" * len(SECRET))
        with open(path, "r+b") as out:  # same size, same inode
            out.write(b"B" * len(SECRET))
        self.assertEqual(curl(self.server.url("/changing.txt"))[0], b"B" * len(SECRET))
        os.remove(path)
        os.symlink("../secret.txt", path)  # same size, outside
        out, _ = curl("-w", "%{http_code}", self.server.url("/changing.txt"))
        self.assertNotIn(SECRET, out)
        self.assertTrue(out.endswith(b"404"), out)
        os.remove(path)
        with open(path + ".new", "wb") as out:
            out.write(b"C" * len(SECRET))
        os.rename(path + ".new", path)  # replaced by a rename
        self.assertEqual(curl(self.server.url("/changing.txt"))[0], b"C" * len(SECRET))

    def test_nothing_outside_the_folder_is_served(self):
        targets = (
            "/../secret.txt",
            "/sub/../../secret.txt",
            "/%2e%2e/secret.txt",
            "/%2E%2e/secret.txt",
            "/.%2e/secret.txt",
            "/..%2fsecret.txt",
            "/sub/..%2F..%2Fsecret.txt",
            "/%2fetc%2fpasswd",
            "//etc/passwd",
            "/%2e%2e%2f%2e%2e%2fetc%2fpasswd",
            "/one.txt%00.html",
            "/%00",
            "/out-file",
            "/out-absolute",
            "/out-folder/secret.txt",
            "/out-folder/",
            "http://localhost/../secret.txt",
            "/..\\secret.txt",
            "/%",
            "/%zz",
            "secret.txt",
        )
        for target in targets:
            with self.subTest(target):
                status, _, body = raw(self.server.port, get(target))
                self.assertIn(status, (400, 403, 404))
                self.assertNotIn(SECRET, body)
        # curl --path-as-is sends the dots unchanged.
        for target in ("/../secret.txt", "/sub/../../secret.txt", "/%2e%2e/secret.txt", "/out-folder/secret.txt"):
            with self.subTest(curl=target):
                out, _ = curl("--path-as-is", "-w", "%{http_code}", self.server.url(target))
                self.assertNotIn(SECRET, out)
                self.assertRegex(out.decode(errors="replace"), r"(400|403|404)$")

    def test_malformed_and_oversized_requests_are_refused_and_closed(self):
        cases = (
            (b"GARBAGE\r\n\r\n", 400),
            (b"GET /one.txt HTTP/1.1\r\n\r\n", 400),  # no Host
            (b"GET /one.txt HTTP/1.1\r\nHost: a\r\nHost: b\r\n\r\n", 400),
            (b"GET /one.txt HTTP/1.1\r\nHost: a\r\nno colon here\r\n\r\n", 400),
            (b"GET /one.txt HTTP/1.1\r\nHost: a\r\n folded: line\r\n\r\n", 400),
            (b"GET /one.txt HTTP/1.1\r\nHost: a\r\nContent-Length: 3\r\nTransfer-Encoding: chunked\r\n\r\n", 400),
            (b"GET  /one.txt HTTP/1.1\r\nHost: a\r\n\r\n", 400),
            (b"GET /one.txt HTTP/2.0\r\nHost: a\r\n\r\n", 505),
            (get("/" + "a" * 9000), 414),
            (get("/one.txt", extra="".join("X-Filler-%04d: %s\r\n" % (i, "v" * 40) for i in range(300))), 431),
        )
        for request, expected in cases:
            with self.subTest(request=request[:60]):
                with Client(self.server.port) as client:
                    client.send(request)
                    status, headers, _ = client.response()
                    self.assertEqual((status, headers["connection"]), (expected, "close"))
                    self.assertTrue(client.closed_by_server())
        self.assertEqual(raw(self.server.port, get("/one.txt"))[0], 200)  # and it goes on serving

    def test_apache_bench_keep_alive_without_failures(self):
        count = max(200, int(2000 * SCALE))
        done = subprocess.run(
            ["ab", "-k", "-c", "20", "-n", str(count), "-s", str(int(LIMIT)), self.server.url("/one.txt")],
            capture_output=True, timeout=5 * LIMIT,
        )
        report = done.stdout.decode(errors="replace")
        self.assertEqual(done.returncode, 0, report + done.stderr.decode(errors="replace"))
        self.assertRegex(report, r"Complete requests:\s+%d\n" % count)
        self.assertRegex(report, r"Failed requests:\s+0\n")
        self.assertRegex(report, r"Keep-Alive requests:\s+%d\n" % count)
        self.assertNotIn("Non-2xx responses", report)


def stalled_download(port):
    """A client that asks for huge.bin, takes the head and stops reading:
    the server's thread then blocks in a send."""
    stalled = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    stalled.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
    stalled.settimeout(LIMIT)
    stalled.connect(("127.0.0.1", port))
    stalled.sendall(get("/huge.bin"))
    if not stalled.recv(1024).startswith(b"HTTP/1.1 200 OK"):
        raise AssertionError("huge.bin not served")
    return stalled


def received_until_closed(connection):
    """Reads until the server closes or resets; returns the byte count."""
    count = 0
    try:
        while True:
            part = connection.recv(1 << 20)
            if not part:
                return count
            count += len(part)
    except ConnectionResetError:
        return count


class LifetimeTests(unittest.TestCase):
    def setUp(self):
        self.root = tempfile.mkdtemp(prefix="orvun-httpd-")
        self.addCleanup(shutil.rmtree, self.root)
        self.www, self.files = make_tree(self.root)

    def start(self, *options):
        server = Server(self.www, *options)
        self.addCleanup(server.kill)
        return server

    def test_idle_connections_are_closed_after_the_time_out(self):
        server = self.start("-t", "1")
        stalled = stalled_download(server.port)
        self.addCleanup(stalled.close)
        silent = Client(server.port)
        partial = Client(server.port)
        partial.send(b"GET /one.txt HTTP/1.1\r\nHost: a\r\n")
        kept = Client(server.port)
        kept.send(get("/one.txt"))
        self.assertEqual(kept.response()[0], 200)
        started = time.monotonic()
        for client in (silent, partial, kept):
            with client:
                self.assertTrue(client.closed_by_server())
        elapsed = time.monotonic() - started
        self.assertGreaterEqual(elapsed, 0.9, "closed before the time-out")
        self.assertLess(elapsed, 10, "not closed long after the time-out")
        # The stalled download was cut too, far from its end.
        self.assertLess(received_until_closed(stalled), HUGE // 2)
        self.assertEqual(raw(server.port, get("/one.txt"))[0], 200)  # new connections still served
        status, _, err = server.stop()
        self.assertEqual(status, 0, err)

    def test_stop_under_load_within_a_second(self):
        server = self.start("-t", "30")
        stalled = stalled_download(server.port)
        self.addCleanup(stalled.close)
        silent = Client(server.port)
        self.addCleanup(silent.socket.close)
        bench = subprocess.Popen(
            ["ab", "-k", "-c", "10", "-t", str(int(LIMIT)), "-n", "100000000", server.url("/one.txt")],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
        )
        self.addCleanup(bench.wait, LIMIT)
        self.addCleanup(bench.kill)
        time.sleep(1.0)  # ab is under way
        self.assertIsNone(bench.poll(), "ab stopped early")
        status, elapsed, err = server.stop()
        self.assertEqual(status, 0, err)
        self.assertNotIn("Sanitizer", err)
        self.assertIn("stopping", err)
        # Measured: 0.01-0.02 s plainly, up to 0.17 s under ThreadSanitizer.
        self.assertLess(elapsed, 1.0, "took %.2f s to stop" % elapsed)
        self.assertTrue(silent.closed_by_server())


class CommandLineTests(unittest.TestCase):
    def run_httpd(self, *args):
        done = subprocess.run([HTTPD, *args], capture_output=True, timeout=LIMIT)
        return done.returncode, done.stdout.decode(errors="replace"), done.stderr.decode(errors="replace")

    def test_help(self):
        for option in ("-h", "--help"):
            status, out, _ = self.run_httpd(option)
            self.assertEqual(status, 0)
            self.assertIn("Usage: orvun-httpd", out)

    def test_bad_arguments_exit_with_status_2_and_a_message(self):
        cases = {
            ("-p", "70000"): "-p wants a port number",
            ("-p", "http"): "-p wants a port number",
            ("-t", "0"): "-t wants a number of seconds",
            ("-t", "soon"): "-t wants a number of seconds",
            ("-b", "::zz"): "'::zz' is not an IPv6 address",
            ("-x",): "unknown option '-x'",
            ("--bogus",): "unknown option '--bogus'",
            ("-p",): "-p needs a value",
            (".", "."): "too many arguments",
            ("/nonexistent/folder",): "cannot serve '/nonexistent/folder'",
        }
        for args, message in cases.items():
            with self.subTest(args=args):
                status, out, err = self.run_httpd(*args)
                self.assertEqual(status, 2, err)
                self.assertIn(message, err)
                self.assertIn("--help", err)
                self.assertEqual(out, "")

    def test_busy_port_fails_with_status_1(self):
        holder = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self.addCleanup(holder.close)
        holder.bind(("127.0.0.1", 0))  # no SO_REUSEPORT: the listener cannot share it
        status, _, err = self.run_httpd("-p", str(holder.getsockname()[1]), ".")
        self.assertEqual(status, 1, err)
        self.assertIn("cannot listen on 127.0.0.1 port", err)


if __name__ == "__main__":
    unittest.main()
