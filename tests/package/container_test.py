#!/usr/bin/env python3
"""The container: deploy/container/Containerfile built, and a posting that goes through what it starts.

    tests/package/container_test.py CLEAN_ROOT

As root. scripts/package-test --container makes the root, which stands in for the image of Debian that the file names. Nothing is fetched
but Debian packages. buildah runs the image in a chroot with this host's network: no engine has to work here.
"""
import pathlib
import re
import shutil
import smtplib
import socket
import socketserver
import subprocess
import sys
import tempfile
import threading
import time
import unittest

from sandbox import SOURCE

POSTING = b"From: anna@example.com\r\nTo: garden@lists.example.org\r\nSubject: contained\r\n\r\nfrost\r\n"


class Relay(socketserver.StreamRequestHandler):
    """Takes all mail."""

    def handle(self):
        self.wfile.write(b"220 relay\r\n")
        for line in self.rfile:
            if line.upper().startswith(b"DATA"):
                self.wfile.write(b"354 go on\r\n")
                self.server.mails.append(b"".join(iter(self.rfile.readline, b".\r\n")))
            self.wfile.write(b"250 ok\r\n")


def free_port():
    with socket.create_server(("127.0.0.1", 0)) as server:
        return server.getsockname()[1]


class Container(unittest.TestCase):
    @classmethod
    def buildah_command(cls, *words):
        return ["buildah", "--root", f"{cls.folder}/root", "--runroot", f"{cls.folder}/run", "--storage-driver", "vfs", *words]

    @classmethod
    def buildah(cls, *words, timeout=300):
        return subprocess.run(cls.buildah_command(*words), check=True, stdout=subprocess.PIPE, text=True, timeout=timeout).stdout.strip()

    @classmethod
    def setUpClass(cls):
        cls.folder = pathlib.Path(tempfile.mkdtemp(prefix="dl-container.", dir="/var/tmp"))
        cls.addClassCleanup(shutil.rmtree, cls.folder)
        containerfile = SOURCE / "deploy/container/Containerfile"
        debian = re.search(r"^FROM (\S+)$", containerfile.read_text(), re.M).group(1)
        base = cls.buildah("from", "scratch")
        subprocess.run(["cp", "-a", f"{cls.root}/.", cls.buildah("mount", base)], check=True, timeout=300)
        cls.buildah("commit", "-q", "--rm", base, debian)
        with open(SOURCE / "build/container.log", "w", encoding="utf-8") as log:
            subprocess.run(cls.buildah_command("bud", "--isolation", "chroot", "--pull-never", "-f", str(containerfile), "-t", "dl-manager",
                                               str(SOURCE)), check=True, stdout=log, stderr=subprocess.STDOUT, timeout=3000)
        cls.box = cls.buildah("from", "--pull-never", "dl-manager")

    def setUp(self):
        relay = socketserver.ThreadingTCPServer(("127.0.0.1", 0), Relay)
        relay.daemon_threads, relay.mails = True, []
        threading.Thread(target=relay.serve_forever, daemon=True).start()
        self.addCleanup(relay.server_close)
        self.addCleanup(relay.shutdown)
        self.mails = relay.mails
        conf = self.folder / "conf"
        conf.mkdir()
        text = (SOURCE / "deploy/package/qvms.conf").read_text().replace("Port = 25", f"Port = {relay.server_address[1]}")
        (conf / "qvms.conf").write_text(text)

    def inside(self, *words):
        return ["run", "--isolation", "chroot", "-v", f"{self.folder}/conf:/etc/dlmanager:ro", self.box, "--", *words]

    def wait_for(self, what, seconds=60):
        end = time.monotonic() + seconds
        while not what():
            self.assertLess(time.monotonic(), end)
            time.sleep(0.2)

    def test_a_posting(self):
        entry = self.buildah("inspect", "--format", "{{.OCIv1.Config.Entrypoint}} {{.OCIv1.Config.User}}", self.box)
        self.assertEqual(entry, "[/usr/local/bin/dl-start] dlmanager")
        self.buildah(*self.inside("dlctl", "list", "create", "garden@lists.example.org", "--owner", "you@example.org"))
        self.buildah(*self.inside("dlctl", "member", "add", "garden@lists.example.org", "anna@example.com"))
        port = free_port()
        script = f"""DL_LMTP=127.0.0.1:{port} /usr/local/bin/dl-start &
            until [ -e /var/lib/dlmanager/stop ]; do sleep 0.2; done
            kill -TERM $!
            wait $!"""
        # With processes of its own, all of which end with it, whatever happens, and a process 1 that reaps.
        container = subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", "unshare", "--pid", "--fork", "--kill-child", "--mount-proc", "--propagation", "unchanged",
             "sh", "-c", '"$@"; exit $?', "sh", *self.buildah_command(*self.inside("sh", "-c", script))], stdin=subprocess.DEVNULL)
        self.addCleanup(container.wait, 30)
        self.addCleanup(container.kill)

        def answers():
            with socket.socket() as probe:
                return probe.connect_ex(("127.0.0.1", port)) == 0

        self.wait_for(answers)
        with smtplib.LMTP("127.0.0.1", port) as client:
            self.assertEqual(client.sendmail("anna@example.com", ["garden@lists.example.org"], POSTING), {})
        self.wait_for(lambda: self.mails)
        self.assertRegex(self.mails[0], rb"(?s)Subject: contained\r\nSender: garden@lists.example.org\r\n\r\nfrost\r\n$")
        self.assertIn("dlmanager", self.buildah(*self.inside("dlctl", "status")))
        self.buildah(*self.inside("touch", "/var/lib/dlmanager/stop"))
        self.assertEqual(container.wait(60), 0)
        self.assertEqual(len(self.mails), 1)


def main():
    Container.root = pathlib.Path(sys.argv.pop(1)).resolve()
    unittest.main(verbosity=2)


if __name__ == "__main__":
    main()
