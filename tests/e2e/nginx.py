#!/usr/bin/env python3
"""The shipped nginx configuration serves an open archive to everybody and a closed one to who has a password.

    tests/e2e/nginx.py BUILD/bin        DL_KEEP=1 leaves the folder for a look at it
"""
import base64
import http.client
import os
import pathlib
import re
import shutil
import ssl
import subprocess
import tempfile
import unittest

from directory import SOURCE, free_port, listens, wait_for
from lab import run_cases

NGINX = "/usr/sbin/nginx"
OPEN, CLOSED = "garden@lists.example.org", "board@lists.example.org"
POSTING = b"""From: anna@example.com\r
Subject: Frost\r
Message-ID: <frost@example.com>\r
MIME-Version: 1.0\r
Content-Type: multipart/mixed; boundary=b\r
\r
--b\r
\r
Tonight.\r
--b\r
Content-Type: text/html\r
Content-Disposition: attachment; filename=map.html\r
\r
<script>alert(1)</script>\r
--b--\r
"""


class Served(unittest.TestCase):
    binaries = ""  # the build's folder bin; set by main

    @classmethod
    def setUpClass(cls):
        cls.dir = pathlib.Path(tempfile.mkdtemp(prefix="dl-nginx.", dir="/tmp"))
        cls.addClassCleanup(shutil.rmtree, cls.dir, True)
        cls.dir.chmod(0o755)
        cls.data, cls.port = cls.dir / "data", free_port()
        (cls.dir / "conf").mkdir()
        (cls.dir / "conf/qvms.conf").write_text(f"[DlManager]\nDbPath = {cls.data}\n[Queue]\nPath = {cls.dir}/queue\n")
        for address in (OPEN, CLOSED):
            (cls.data / address / "archive").mkdir(parents=True)
            (cls.data / address / "archive/0000000A.msg").write_bytes(POSTING)
            subprocess.run([pathlib.Path(cls.binaries) / "dlctl", "--conf", cls.dir / "conf", "archive", "rebuild", address],
                           check=True, capture_output=True, timeout=60)
        hashed = subprocess.run(["openssl", "passwd", "-6", "a secret: word"], check=True, capture_output=True, text=True).stdout
        (cls.data / CLOSED / "archive/htpasswd").write_text(f"anna@example.com:{hashed}")
        subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=lists.example.org", "-days", "1",
                        "-keyout", cls.dir / "key", "-out", cls.dir / "certificate"], check=True, capture_output=True, timeout=60)
        text = (SOURCE / "deploy/nginx/dlmanager-archives.conf").read_text()
        for there, here in (("/var/lib/dlmanager/data", str(cls.data)), ("listen 443", f"listen 127.0.0.1:{cls.port}"),
                            ("/etc/ssl/certs/lists.example.org.pem", f"{cls.dir}/certificate"),
                            ("/etc/ssl/private/lists.example.org.key", f"{cls.dir}/key")):
            assert there in text, there
            text = text.replace(there, here)
        temp = "".join(f"{kind}_temp_path {cls.dir}/temp;\n" for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        # Its own user is root here where root runs the test: the folder is the test's.
        (cls.dir / "nginx.conf").write_text(f"daemon off;\npid {cls.dir}/pid;\nerror_log {cls.dir}/error.log;\nevents {{}}\n"
                                            f"{'user root;' if os.geteuid() == 0 else ''}\n"
                                            f"http {{\naccess_log off;\n{temp}{text}}}\n")
        child = subprocess.Popen([NGINX, "-e", cls.dir / "error.log", "-c", cls.dir / "nginx.conf"], stderr=subprocess.PIPE)
        cls.addClassCleanup(child.stderr.close)
        cls.addClassCleanup(child.wait, 30)
        cls.addClassCleanup(child.terminate)
        wait_for("nginx", lambda: listens(cls.port) or child.poll() is not None)
        assert child.poll() is None, child.stderr.read()

    def get(self, path, user="", method="GET"):
        """Sent as it stands: no client has tidied the path up."""
        context = ssl.create_default_context()
        context.check_hostname, context.verify_mode = False, ssl.CERT_NONE
        connection = http.client.HTTPSConnection("127.0.0.1", self.port, timeout=30, context=context)
        self.addCleanup(connection.close)
        headers = {"Authorization": "Basic " + base64.b64encode(user.encode()).decode()} if user else {}
        connection.request(method, path, headers=headers)
        answer = connection.getresponse()
        return answer.status, answer.read().decode(errors="replace"), answer.headers

    def test_readers(self):
        open_list, closed = f"/archive/{OPEN}/", f"/archive/{CLOSED}/"
        rows = [(open_list, "", 200), (open_list[:-1], "", 301), (open_list + "search.html", "", 200), (open_list + "feed.xml", "", 200),
                (open_list + "none.html", "", 404), (closed, "", 401), (closed + "feed.xml", "", 401),
                (closed, "anna@example.com:a secret: word", 200), (closed, "anna@example.com:wrong", 401),
                (closed, "bert@example.com:a secret: word", 401)]
        for path, user, want in rows:
            with self.subTest(f"{path} {user}"):
                self.assertEqual(self.get(path, user)[0], want)
        self.assertIn("Frost", self.get(open_list)[1])
        self.assertEqual(self.get(open_list, method="DELETE")[0], 403)

    def test_only_pages_are_served(self):
        for address in (OPEN, CLOSED):
            for path in ("../0000000A.msg", "../index.db", "../htpasswd", "../../archive/0000000A.msg", "..%2findex.db", "%2e%2e/htpasswd",
                         "0000000A.msg", "index.db", "htpasswd", ".lock", "../../../conf/qvms.conf"):
                with self.subTest(f"{address} {path}"):
                    status, text, _ = self.get(f"/archive/{address}/{path}", "anna@example.com:a secret: word")
                    self.assertIn(status, (301, 400, 403, 404))
                    self.assertNotIn("Frost", text)

    def test_an_attachment_is_saved_and_runs_nothing(self):
        page = re.search(r'href="(p/[^"]+)"', self.get(f"/archive/{OPEN}/")[1])[1]
        text = self.get(f"/archive/{OPEN}/{page}")[1]
        attachment = re.search(r'href="([^"]*map[^"]*)"', text)[1]
        status, _, headers = self.get(f"/archive/{OPEN}/{pathlib.PurePosixPath(page).parent}/{attachment}")
        self.assertEqual((status, headers["Content-Disposition"]), (200, "attachment"))
        self.assertEqual(headers["X-Content-Type-Options"], "nosniff")
        self.assertIn("default-src 'none'", headers["Content-Security-Policy"])


if __name__ == "__main__":
    run_cases(Served, NGINX, seconds=110)
