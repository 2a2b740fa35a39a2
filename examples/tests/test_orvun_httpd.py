# End-to-end tests of orvun-httpd against curl, ApacheBench and raw sockets. CTest sets ORVUN_HTTPD to the
# built server; by hand: ORVUN_HTTPD=build/dev/examples/orvun-httpd python3 -m unittest -v test_orvun_httpd
# ORVUN_STRESS_SCALE (default 1) scales the ApacheBench load.

import concurrent.futures, contextlib, os, pathlib, subprocess, tempfile, time, unittest

import peers
from peers import LIMIT

SECRET = b"SECRET-outside-the-served-folder\n"
HUGE = 512 * 1024 * 1024


def setUpModule():
    global www, files  # the served folder and its files
    HttpdTests.program = peers.executable("ORVUN_HTTPD", curl="curl", ab="apache2-utils")
    # root/www is served; root/secret.txt and root/elsewhere lie outside, and links lead there.
    root = unittest.enterModuleContext(tempfile.TemporaryDirectory(prefix="orvun-httpd-"))
    www = os.path.join(root, "www")
    files = {"index.html": b"<h1>home</h1>\n", "sub/index.html": b"<h1>sub</h1>\n", "style.css": b"h1 { color: red }\n",
             "one.txt": bytes(i % 95 + 32 for i in range(1024)), "big.bin": os.urandom(3 * 1024 * 1024 + 17),
             "changing.txt": b"A" * len(SECRET), "huge.bin": b""}
    for name, content in {"../secret.txt": SECRET, "../elsewhere/secret.txt": SECRET, **files}.items():
        os.makedirs(os.path.dirname(os.path.join(www, name)), exist_ok=True)
        pathlib.Path(www, name).write_bytes(content)
    os.truncate(os.path.join(www, "huge.bin"), HUGE)  # sparse: a download that outlasts any socket buffer
    os.makedirs(os.path.join(www, "empty"))
    for target, name in (("../secret.txt", "out-file"), (os.path.join(root, "secret.txt"), "out-absolute"),
                         ("../elsewhere", "out-folder"), ("one.txt", "in-link")):
        os.symlink(target, os.path.join(www, name))


def curl(*args):
    return subprocess.run(["curl", "-s", "--max-time", str(LIMIT), *args], capture_output=True, timeout=LIMIT + 5)


def get(path, version="1.1", extra="", method="GET"):
    return ("%s %s HTTP/%s\r\nHost: localhost\r\n%s\r\n" % (method, path, version, extra)).encode("latin-1")


def send(port, *requests):
    # A raw connection that has sent `requests`, as the file to read the answers from. Closing the file
    # closes the connection.
    with peers.connect("127.0.0.1", port) as sock:
        sock.sendall(b"".join(requests))
        return sock.makefile("rb")


def response(file, head_request=False):
    # One answer: (status, headers with lower-case names, body).
    status = file.readline().split(b" ")
    fields = (line.decode("latin-1").split(":", 1) for line in iter(file.readline, b"\r\n"))
    headers = {name.lower(): value.strip() for name, value in fields}
    return int(status[1]), headers, file.read(0 if head_request else int(headers["content-length"]))


def closed_by_server(file):
    # True when the server closes with nothing more to say; a TimeoutError after LIMIT when it does not
    # (longer than the idle time-outs used here: an idle close cannot pass for this one).
    with contextlib.suppress(ConnectionResetError):
        return file.read() == b""
    return True


def syscalls(pid):
    # The system call each thread of process `pid` is in (44: sendto).
    for task in os.listdir("/proc/%d/task" % pid):
        with contextlib.suppress(OSError), open("/proc/%d/task/%s/syscall" % (pid, task)) as syscall:
            yield syscall.read().split()[0]


def serve(timeout, enter_context):
    # An orvun-httpd serving the tree on a free port with idle time-out `timeout`, in `enter_context`.
    server = enter_context(peers.Program(HttpdTests.program, "-p", "0", "-t", timeout, www))
    server.url = lambda path: "http://127.0.0.1:%d%s" % (server.port, path)
    return server


class HttpdTests(peers.TestCase):
    # One server for the tests that do not stop it. Its idle time-out outlasts every wait, so that no idle
    # close passes for one that a request asked for.
    @classmethod
    def setUpClass(cls):
        cls.server = serve("100", cls.enterClassContext)
        cls.addClassCleanup(cls.server.stop)

    def test_pipelined_answers_come_in_order_on_one_connection_unless_closed_or_http_1_0(self):
        # A GET and a HEAD per path; a HEAD answer with a body would spoil the next one. A 404 keeps the
        # connection, so does HTTP/1.0 asking to (as ApacheBench -k asks); it closes after a request that
        # asks to close, or an HTTP/1.0 one that does not ask to stay.
        text, html, binary = "text/plain; charset=utf-8", "text/html; charset=utf-8", "application/octet-stream"
        paths = (("/one.txt", "one.txt", text), ("/style.css", "style.css", "text/css; charset=utf-8"),
                 ("/", "index.html", html), ("/sub/", "sub/index.html", html), ("/sub", "sub/index.html", html),
                 ("/big.bin", "big.bin", binary), ("/in-link", "one.txt", binary))  # a link that stays inside
        requests = [get(path, method=method) for path, _, _ in paths for method in ("GET", "HEAD")]
        keep, style = get("/style.css", "1.0", "Connection: Keep-Alive\r\n"), files["style.css"]
        for last in (get("/one.txt", extra="Connection: close\r\n"), get("/one.txt", "1.0")):
            with send(self.server.port, *requests, get("/nothing"), keep, keep, last) as client:
                for path, name, kind in paths:
                    status, headers, body = response(client)
                    self.assertEqual((status, headers["content-type"], len(body)), (200, kind, len(files[name])), path)
                    self.assertTrue(body == files[name], path)  # no slow diff of megabytes
                    self.assertEqual(response(client, head_request=True)[1]["content-length"], str(len(body)), path)
                self.assertEqual(response(client)[0], 404)
                for status, headers, body in (response(client), response(client)):
                    self.assertEqual((status, headers["connection"].lower(), body), (200, "keep-alive", style))
                status, headers, body = response(client)
                self.assertEqual((status, headers["connection"], body), (200, "close", files["one.txt"]))
                self.assertTrue(closed_by_server(client))

    def test_curl_and_apache_bench_keep_their_connections_and_curl_speaks_http_1_0(self):
        done = curl("-v", *map(self.server.url, ("/one.txt", "/big.bin", "/style.css")))
        self.assertTrue(done.stdout == files["one.txt"] + files["big.bin"] + files["style.css"], done.stderr[-300:])
        self.assertEqual(done.stderr.count(b"Connected to"), 1, done.stderr)
        done = curl("-0", "-i", self.server.url("/one.txt"))
        self.assertTrue(done.stdout.startswith(b"HTTP/1.0 200 OK\r\n") and done.stdout.endswith(files["one.txt"]))
        count = max(200, int(2000 * peers.SCALE))
        done = subprocess.run(["ab", "-k", "-c", "20", "-n", str(count), "-s", str(int(LIMIT)),
                               self.server.url("/one.txt")], capture_output=True, errors="replace", timeout=5 * LIMIT)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        for line in ("Complete requests: +%d" % count, "Failed requests: +0", "Keep-Alive requests: +%d" % count):
            self.assertRegex(done.stdout, line + "\n")
        self.assertNotIn("Non-2xx responses", done.stdout)

    def test_a_changed_file_is_never_served_stale(self):
        path, url = pathlib.Path(www, "changing.txt"), self.server.url("/changing.txt")
        time.sleep(max(0.0, path.stat().st_mtime + 2.2 - time.time()))  # old enough to be kept in memory
        for _ in range(2):  # read, then served from memory
            self.assertEqual(curl(url).stdout, files["changing.txt"])
        path.write_bytes(b"B" * len(SECRET))  # same size, same inode
        self.assertEqual(curl(url).stdout, b"B" * len(SECRET))
        path.unlink()
        path.symlink_to("../secret.txt")  # same size, outside
        self.assertEqual(curl("-w", "%{http_code}", url).stdout[-3:], b"404")
        pathlib.Path(www, "new.txt").write_bytes(b"C" * len(SECRET))
        os.rename(os.path.join(www, "new.txt"), path)  # replaced by a rename
        self.assertEqual(curl(url).stdout, b"C" * len(SECRET))

    def test_refusals_of_paths_out_methods_and_malformed_or_oversized_requests(self):
        # Refused from the target alone, before any file is looked at.
        cases = [(get(target), 403) for target in (
            "/../secret.txt", "/sub/../../secret.txt", "/%2e%2e/secret.txt", "/%2E%2e/secret.txt", "/.%2e/secret.txt",
            "/..%2fsecret.txt", "/sub/..%2F..%2Fsecret.txt", "/%2fetc%2fpasswd", "/%2e%2e%2f%2e%2e%2fetc%2fpasswd",
            "/one.txt%00.html", "/%00", "http://localhost/../secret.txt")]
        # Links that lead out, names that are no path out, and files that are not there.
        cases += [(get(target), 404) for target in (
            "/out-file", "/out-absolute", "/out-folder/secret.txt", "/out-folder/", "//etc/passwd", "/..\\secret.txt",
            "/nothing.txt", "/empty/", "/one.txt/", "/sub/nothing/")]
        cases += [(get("/one.txt", method=method, extra="Content-Length: 1\r\n") + b"x", 405)
                  for method in ("POST", "PUT", "DELETE", "OPTIONS", "BREW")]
        cases += [(get(target), 400) for target in ("/%", "/%zz", "secret.txt")] + [
            (b"GARBAGE\r\n\r\n", 400), (b"GET /one.txt HTTP/1.1\r\n\r\n", 400),  # no Host
            (get("/one.txt", extra="Host: b\r\n"), 400), (get("/one.txt", extra="no colon here\r\n"), 400),
            (get("/one.txt", extra=" folded: line\r\n"), 400), (b"GET  /one.txt HTTP/1.1\r\nHost: a\r\n\r\n", 400),
            (get("/one.txt", extra="Content-Length: 3\r\nTransfer-Encoding: chunked\r\n"), 400),
            (get("/one.txt", "2.0"), 505), (get("/" + "a" * 9000), 414),
            (get("/one.txt", extra="".join("X-Filler-%04d: %s\r\n" % (i, "v" * 40) for i in range(300))), 431)]

        def answer(request):
            # (status, Allow given, closed); all but 403 and 404 close the connection.
            with send(self.server.port, request) as client:
                status, headers, _ = response(client)
                return status, "allow" in headers, headers.get("connection") == "close" and closed_by_server(client)

        # At once: the server reads on for up to a second before each close.
        with concurrent.futures.ThreadPoolExecutor(len(cases)) as pool:
            answers = list(pool.map(answer, (request for request, _ in cases)))
        for (request, status), got in zip(cases, answers):
            with self.subTest(request=request[:60]):
                self.assertEqual(got, (status, status == 405, status not in (403, 404)))
        # curl --path-as-is sends the dots unchanged (and the server goes on serving).
        for target in ("/../secret.txt", "/%2e%2e/secret.txt", "/out-folder/secret.txt"):
            self.assertRegex(curl("--path-as-is", "-w", "%{http_code}", self.server.url(target)).stdout, rb"40[34]\Z")

    def stalled_download(self, server):
        # Asks for huge.bin, takes the head and stops reading: the server's thread then blocks in a send.
        sock = self.enterContext(peers.connect("127.0.0.1", server.port, receive_buffer=4096))
        sock.sendall(get("/huge.bin"))
        self.assertTrue(sock.recv(1024).startswith(b"HTTP/1.1 200 OK"))
        return sock

    def test_idle_connections_are_closed_after_the_time_out_and_a_stop_under_load_is_quick(self):
        server = serve("2", self.enterContext)
        stalled = self.stalled_download(server)
        clients = [self.enterContext(send(server.port, *requests)) for requests in (
            (), (b"GET /one.txt HTTP/1.1\r\nHost: a\r\n",), (get("/one.txt"),))]  # silent, partial, answered
        self.assertEqual(response(clients[2])[0], 200)
        started = time.monotonic()
        self.assertTrue(all(closed_by_server(client) for client in clients))
        self.assertTrue(1.9 <= time.monotonic() - started < 15, "closed after %.1f s" % (time.monotonic() - started))
        # Read once no thread is blocked sending: reading earlier would let the stalled download make progress
        # again. Not cut, it would bring the whole file.
        deadline = time.monotonic() + 10
        while "44" in syscalls(server.process.pid) and time.monotonic() < deadline:
            time.sleep(0.05)
        self.assertLess(len(peers.receive(stalled)), HUGE // 2, "the stalled download was not cut")
        # With a download stalled, a connection silent and ApacheBench running, SIGTERM stops it at once
        # (measured: 0.01-0.02 s plainly, up to 0.17 s under ThreadSanitizer).
        self.stalled_download(server)
        silent = self.enterContext(send(server.port))
        bench = subprocess.Popen(["ab", "-k", "-c", "10", "-t", str(int(LIMIT)), "-n", "100000000",
                                  server.url("/one.txt")], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(bench.wait, LIMIT)
        self.addCleanup(bench.kill)
        time.sleep(1.0)  # ab is under way; the idle time-out has not come yet
        self.assertIsNone(bench.poll(), "ab stopped early")
        self.assertIn("stopping", server.stop())
        self.assertTrue(closed_by_server(silent))

    def test_exit_status_and_message_for_each_command_line(self):
        held = str(self.socket_on("127.0.0.1", listen=False).getsockname()[1])  # no SO_REUSEPORT: cannot share
        self.check_exits([(("-h",), "Usage: orvun-httpd"), (("--help",), "Usage: orvun-httpd")], [
            (("-p", "70000"), "-p wants a port number"), (("-p", "http"), "-p wants a port number"),
            (("-t", "0"), "-t wants a number of seconds"), (("-t", "soon"), "-t wants a number of seconds"),
            (("-b", "::zz"), "'::zz' is not an IPv6 address"), (("-p",), "-p needs a value"),
            (("-x",), "unknown option '-x'"), (("--bogus",), "unknown option '--bogus'"),
            ((".", "."), "too many arguments"), (("/nonexistent/folder",), "cannot serve '/nonexistent/folder'")],
            [(("-p", held, "."), "cannot listen on 127.0.0.1 port")])

