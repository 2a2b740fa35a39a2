"""End-to-end tests of orvun-httpd against curl, ApacheBench and raw sockets.

Run by CTest, which sets ORVUN_HTTPD to the built server; by hand:
    ORVUN_HTTPD=build/dev/examples/orvun-httpd python3 -m unittest -v test_orvun_httpd
ORVUN_STRESS_SCALE (default 1) scales the ApacheBench load.
"""

import concurrent.futures
import contextlib
import hashlib
import os
import shutil
import subprocess
import tempfile
import time
import unittest

import peers
from peers import LIMIT

SECRET = b"SECRET-outside-the-served-folder\n"
HUGE = 512 * 1024 * 1024


def setUpModule():
    HttpdTestCase.program = peers.executable("ORVUN_HTTPD", curl="curl", ab="apache2-utils")


def make_tree(add_cleanup):
    """A temporary root/www to serve, and {name: content} of its files;
    root/secret.txt and root/elsewhere lie outside, and links lead there."""
    root = tempfile.mkdtemp(prefix="orvun-httpd-")
    add_cleanup(shutil.rmtree, root)
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
        "www/changing.txt": b"A" * len(SECRET),
    }
    for name, content in files.items():
        with open(os.path.join(root, name), "wb") as out:
            out.write(content)
    www = os.path.join(root, "www")
    with open(os.path.join(www, "huge.bin"), "wb") as out:
        out.truncate(HUGE)  # sparse: a download that outlasts any socket buffer
    for target, name in (("../secret.txt", "out-file"), (os.path.join(root, "secret.txt"), "out-absolute"),
                         ("../elsewhere", "out-folder"), ("one.txt", "in-link")):
        os.symlink(target, os.path.join(www, name))
    return www, {name[4:]: content for name, content in files.items() if name.startswith("www/")}


def curl(*args):
    """(stdout bytes, stderr text) of curl with `args`."""
    done = subprocess.run(["curl", "-s", "--max-time", str(LIMIT), *args], capture_output=True, timeout=LIMIT + 5)
    return done.stdout, done.stderr.decode(errors="replace")


def get(path, version="1.1", extra="", method="GET"):
    return ("%s %s HTTP/%s\r\nHost: localhost\r\n%s\r\n" % (method, path, version, extra)).encode("latin-1")


class Client:
    """A raw connection that reads answers one at a time (pipelined ones too)."""

    def __init__(self, port):
        self.socket = peers.connect("127.0.0.1", port)
        self.file = self.socket.makefile("rb")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.file.close()
        self.socket.close()

    def send(self, data):
        self.socket.sendall(data)
        return self

    def response(self, head_request=False):
        """One answer: (status, headers with lower-case names, body)."""
        status = self.file.readline().split(b" ")
        fields = (line.decode("latin-1").split(":", 1) for line in iter(self.file.readline, b"\r\n"))
        headers = {name.lower(): value.strip() for name, value in fields}
        length = 0 if head_request else int(headers["content-length"])
        return int(status[1]), headers, self.file.read(length)

    def closed_by_server(self):
        """True when the server closes (within LIMIT) with nothing more to say."""
        try:
            return self.file.read() == b""
        except ConnectionResetError:
            return True
        except TimeoutError:
            return False


def serve(folder, add_cleanup, *options):
    """An orvun-httpd serving `folder` on a free port, killed by `add_cleanup` if still running."""
    server = peers.Program(HttpdTestCase.program, "-p", "0", *options, folder)
    add_cleanup(server.kill)
    server.port = server.announced_port()
    server.url = lambda path: "http://127.0.0.1:%d%s" % (server.port, path)
    return server


def stalled_download(port):
    """A client that asks for huge.bin, takes the head and stops reading: the
    server's thread then blocks in a send."""
    stalled = peers.connect("127.0.0.1", port, receive_buffer=4096)
    stalled.sendall(get("/huge.bin"))
    if not stalled.recv(1024).startswith(b"HTTP/1.1 200 OK"):
        raise AssertionError("huge.bin not served")
    return stalled


def no_thread_sending(pid, deadline):
    """Waits until no thread of process `pid` is blocked in sendto (44)."""
    while time.monotonic() < deadline:
        calls = []
        for task in os.listdir("/proc/%d/task" % pid):
            with contextlib.suppress(OSError):
                with open("/proc/%d/task/%s/syscall" % (pid, task)) as syscall:
                    calls.append(syscall.read().split()[0])
        if "44" not in calls:
            return True
        time.sleep(0.05)
    return False


class HttpdTestCase(peers.TestCase):
    pass


class ServedFolderTests(HttpdTestCase):
    """One server for the requests that do not stop it."""

    @classmethod
    def setUpClass(cls):
        cls.www, cls.files = make_tree(cls.addClassCleanup)
        cls.server = serve(cls.www, cls.addClassCleanup, "-t", "20")

    @classmethod
    def tearDownClass(cls):
        cls.server.stop()

    def test_get_and_head_give_length_type_and_body(self):
        for path, name, kind in (
            ("/one.txt", "one.txt", "text/plain; charset=utf-8"),
            ("/style.css", "style.css", "text/css; charset=utf-8"),
            ("/", "index.html", "text/html; charset=utf-8"),
            ("/sub/", "sub/index.html", "text/html; charset=utf-8"),
            ("/sub", "sub/index.html", "text/html; charset=utf-8"),
            ("/in-link", "one.txt", "application/octet-stream"),  # a link that stays inside
            ("/big.bin", "big.bin", "application/octet-stream"),
        ):
            with self.subTest(path), Client(self.server.port) as client:
                # The GET after the HEAD shows that the HEAD answer had no body.
                client.send(get(path) + get(path, method="HEAD") + get("/one.txt"))
                status, headers, body = client.response()
                self.assertEqual((status, headers["content-type"]), (200, kind))
                self.assertEqual(body, self.files[name])  # bytes: no slow diff of megabytes
                _, head_headers, _ = client.response(head_request=True)
                self.assertEqual(head_headers["content-length"], str(len(self.files[name])))
                self.assertEqual(client.response()[2], self.files["one.txt"])

    def test_curl_downloads_a_big_file_whole(self):
        out, err = curl("-f", self.server.url("/big.bin"))
        self.assertEqual(hashlib.sha256(out).hexdigest(), hashlib.sha256(self.files["big.bin"]).hexdigest(), err)
        out, err = curl("-I", self.server.url("/big.bin"))
        self.assertIn("Content-Length: %d\r\n" % len(self.files["big.bin"]), out.decode(), err)

    def test_missing_files_get_404_and_other_methods_405(self):
        cases = [("GET", path, 404) for path in ("/nothing.txt", "/empty/", "/one.txt/", "/sub/nothing/")]
        cases += [(method, "/one.txt", 405) for method in ("POST", "PUT", "DELETE", "OPTIONS", "BREW")]
        for method, path, status in cases:
            with self.subTest(method=method, path=path):
                out = curl("-i", "-X", method, "--data-binary", "x", self.server.url(path))[0].decode()
                self.assertRegex(out, r"^HTTP/1\.1 %d " % status)
                self.assertEqual("Allow: GET, HEAD\r\n" in out, status == 405)

    def test_one_connection_serves_many_requests(self):
        # curl reuses the connection for its second URL.
        out, err = curl("-v", self.server.url("/one.txt"), self.server.url("/style.css"))
        self.assertEqual(out, self.files["one.txt"] + self.files["style.css"])
        self.assertEqual(err.count("Connected to"), 1, err)
        # Pipelined: three requests in one send, three answers in order.
        with Client(self.server.port) as client:
            client.send(get("/one.txt") + get("/nothing") + get("/style.css"))
            self.assertEqual(client.response()[::2], (200, self.files["one.txt"]))
            self.assertEqual(client.response()[0], 404)
            self.assertEqual(client.response()[::2], (200, self.files["style.css"]))
            # HTTP/1.1 with "Connection: close" ends it.
            status, headers, _ = client.send(get("/one.txt", extra="Connection: close\r\n")).response()
            self.assertEqual((status, headers["connection"]), (200, "close"))
            self.assertTrue(client.closed_by_server())

    def test_http_1_0_closes_unless_asked_to_keep_alive(self):
        out, err = curl("-0", "-i", self.server.url("/one.txt"))
        self.assertTrue(out.startswith(b"HTTP/1.0 200 OK\r\n") and out.endswith(self.files["one.txt"]), err)
        with Client(self.server.port) as client:
            self.assertEqual(client.send(get("/one.txt", "1.0")).response()[0], 200)
            self.assertTrue(client.closed_by_server())
        with Client(self.server.port) as client:  # what ApacheBench -k sends
            for _ in range(2):
                status, headers, _ = client.send(get("/one.txt", "1.0", "Connection: Keep-Alive\r\n")).response()
                self.assertEqual((status, headers["connection"].lower()), (200, "keep-alive"))

    def test_a_changed_file_is_never_served_stale(self):
        path = os.path.join(self.www, "changing.txt")
        time.sleep(max(0.0, os.stat(path).st_mtime + 2.2 - time.time()))  # old enough to be kept in memory
        for _ in range(2):
            self.assertEqual(curl(self.server.url("/changing.txt"))[0], self.files["changing.txt"])
        with open(path, "r+b") as out:  # same size, same inode
            out.write(b"B" * len(SECRET))
        self.assertEqual(curl(self.server.url("/changing.txt"))[0], b"B" * len(SECRET))
        os.remove(path)
        os.symlink("../secret.txt", path)  # same size, outside
        self.assertEqual(curl("-w", "%{http_code}", self.server.url("/changing.txt"))[0][-3:], b"404")
        os.remove(path)
        with open(path + ".new", "wb") as out:
            out.write(b"C" * len(SECRET))
        os.rename(path + ".new", path)  # replaced by a rename
        self.assertEqual(curl(self.server.url("/changing.txt"))[0], b"C" * len(SECRET))

    def test_nothing_outside_the_folder_is_served(self):
        refusals = {
            # Refused from the target alone, before any file is looked at.
            403: ("/../secret.txt", "/sub/../../secret.txt", "/%2e%2e/secret.txt", "/%2E%2e/secret.txt",
                  "/.%2e/secret.txt", "/..%2fsecret.txt", "/sub/..%2F..%2Fsecret.txt", "/%2fetc%2fpasswd",
                  "/%2e%2e%2f%2e%2e%2fetc%2fpasswd", "/one.txt%00.html", "/%00", "http://localhost/../secret.txt"),
            400: ("/%", "/%zz", "secret.txt"),
            # Links that lead out, and names that are no path out.
            404: ("/out-file", "/out-absolute", "/out-folder/secret.txt", "/out-folder/", "//etc/passwd",
                  "/..\\secret.txt"),
        }
        for expected, targets in refusals.items():
            for target in targets:
                with self.subTest(target), Client(self.server.port) as client:
                    status, _, body = client.send(get(target)).response()
                    self.assertEqual(status, expected)
                    self.assertNotIn(SECRET, body)
        # curl --path-as-is sends the dots unchanged.
        for target in ("/../secret.txt", "/%2e%2e/secret.txt", "/out-folder/secret.txt"):
            with self.subTest(curl=target):
                out, _ = curl("--path-as-is", "-w", "%{http_code}", self.server.url(target))
                self.assertNotIn(SECRET, out)
                self.assertRegex(out.decode(errors="replace"), r"(403|404)$")

    def test_malformed_and_oversized_requests_are_refused_and_closed(self):
        cases = (
            (b"GARBAGE\r\n\r\n", 400),
            (b"GET /one.txt HTTP/1.1\r\n\r\n", 400),  # no Host
            (get("/one.txt", extra="Host: b\r\n"), 400),
            (get("/one.txt", extra="no colon here\r\n"), 400),
            (get("/one.txt", extra=" folded: line\r\n"), 400),
            (get("/one.txt", extra="Content-Length: 3\r\nTransfer-Encoding: chunked\r\n"), 400),
            (b"GET  /one.txt HTTP/1.1\r\nHost: a\r\n\r\n", 400),
            (get("/one.txt", "2.0"), 505),
            (get("/" + "a" * 9000), 414),
            (get("/one.txt", extra="".join("X-Filler-%04d: %s\r\n" % (i, "v" * 40) for i in range(300))), 431),
        )

        def refused(request):
            with Client(self.server.port) as client:
                status, headers, _ = client.send(request).response()
                return status, headers["connection"], client.closed_by_server()

        # At once: the server reads on for up to a second before each close.
        with concurrent.futures.ThreadPoolExecutor(len(cases)) as pool:
            answers = list(pool.map(refused, (request for request, _ in cases)))
        for (request, expected), answer in zip(cases, answers):
            with self.subTest(request=request[:60]):
                self.assertEqual(answer, (expected, "close", True))
        with Client(self.server.port) as client:  # and it goes on serving
            self.assertEqual(client.send(get("/one.txt")).response()[0], 200)

    def test_apache_bench_keep_alive_without_failures(self):
        count = max(200, int(2000 * peers.SCALE))
        done = subprocess.run(
            ["ab", "-k", "-c", "20", "-n", str(count), "-s", str(int(LIMIT)), self.server.url("/one.txt")],
            capture_output=True, timeout=5 * LIMIT,
        )
        report = done.stdout.decode(errors="replace")
        self.assertEqual(done.returncode, 0, report + done.stderr.decode(errors="replace"))
        for line in ("Complete requests: +%d" % count, "Failed requests: +0", "Keep-Alive requests: +%d" % count):
            self.assertRegex(report, line + "\n")
        self.assertNotIn("Non-2xx responses", report)


class LifetimeTests(HttpdTestCase):
    def setUp(self):
        self.www, self.files = make_tree(self.addCleanup)

    def test_idle_connections_are_closed_after_the_time_out(self):
        server = serve(self.www, self.addCleanup, "-t", "1")
        stalled = stalled_download(server.port)
        self.addCleanup(stalled.close)
        silent = Client(server.port)
        partial = Client(server.port).send(b"GET /one.txt HTTP/1.1\r\nHost: a\r\n")
        kept = Client(server.port)
        self.assertEqual(kept.send(get("/one.txt")).response()[0], 200)
        started = time.monotonic()
        for client in (silent, partial, kept):
            with client:
                self.assertTrue(client.closed_by_server())
        elapsed = time.monotonic() - started
        self.assertGreaterEqual(elapsed, 0.9, "closed before the time-out")
        self.assertLess(elapsed, 10, "not closed long after the time-out")
        # Reading earlier would let the stalled download make progress again.
        self.assertTrue(no_thread_sending(server.process.pid, deadline=time.monotonic() + 10),
                        "the stalled download was not cut")
        self.assertLess(len(peers.receive(stalled)), HUGE // 2, "the stalled download was not cut")
        with Client(server.port) as client:  # new connections are still served
            self.assertEqual(client.send(get("/one.txt")).response()[0], 200)
        server.stop()

    def test_stop_under_load_within_a_second(self):
        server = serve(self.www, self.addCleanup, "-t", "30")
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
        # Measured: 0.01-0.02 s plainly, up to 0.17 s under ThreadSanitizer.
        self.assertIn("stopping", server.stop())
        self.assertTrue(silent.closed_by_server())


class CommandLineTests(HttpdTestCase):
    def test_exit_status_and_message_for_each_command_line(self):
        held = str(self.socket_on("127.0.0.1", listen=False).getsockname()[1])  # no SO_REUSEPORT: cannot share
        self.check_exits([(("-h",), "Usage: orvun-httpd"), (("--help",), "Usage: orvun-httpd")], [
            (("-p", "70000"), "-p wants a port number"), (("-p", "http"), "-p wants a port number"),
            (("-t", "0"), "-t wants a number of seconds"), (("-t", "soon"), "-t wants a number of seconds"),
            (("-b", "::zz"), "'::zz' is not an IPv6 address"), (("-p",), "-p needs a value"),
            (("-x",), "unknown option '-x'"), (("--bogus",), "unknown option '--bogus'"),
            ((".", "."), "too many arguments"), (("/nonexistent/folder",), "cannot serve '/nonexistent/folder'")],
            [(("-p", held, "."), "cannot listen on 127.0.0.1 port")])


if __name__ == "__main__":
    unittest.main()
