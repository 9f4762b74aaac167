"""A directory, and list managers over it, without a mail server: what they send waits in channel "dlout" to be read.

All runs as the user who runs the test, in one folder below /tmp and on free ports of 127.0.0.1, and is ended by the process ids
that were started here.
"""
import email
import email.policy
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import tempfile

from directory import wait_for


class Mail:
    """A message of a channel: its envelope, and its text as Python reads it."""

    def __init__(self, shown, text):
        self.id, self.sender, self.recipients = shown["id"], shown["envelope"]["sender"], shown["envelope"]["recipients"]
        self.raw = text
        self.message = email.message_from_bytes(text, policy=email.policy.default)
        self.subject = self.message["Subject"]
        for part in self.message.walk():
            assert not part.defects, (part.defects, text)

    def text(self):
        """Of the first part."""
        part = self.message if not self.message.is_multipart() else self.message.get_payload(0)
        return part.get_payload(decode=True).decode()

    def original(self):
        """The message that is shown behind the explanation."""
        return self.message.get_payload(1).get_payload(0)


class Service:
    """One list manager: configuration, queue and data in a folder of its own."""

    def __init__(self, binaries, folder, directory):
        self.bin, self.dir = pathlib.Path(binaries), folder
        for name in ("conf", "data", "run", "tmp"):
            (folder / name).mkdir(parents=True)
        self.env = {**os.environ, "DLMANAGER_CONF": str(folder / "conf"), "TMPDIR": str(folder / "tmp"),
                    "ASAN_OPTIONS": f"detect_leaks=0:quarantine_size_mb=1:log_path={folder}/sanitizer"}
        (folder / "conf/qvmta.ini").write_text("[Ldap]\n" + directory.settings())
        (folder / "conf/qvms.conf").write_text(f"""[Ldap]
{directory.settings()}[Connection]
GatewayHostName = mail
GatewayDomain = example.org
[DlManager]
DbPath = {folder}/data
[Queue]
Path = {folder}/queue
[Process]
RunDir = {folder}/run
[Log]
Target = file
File = {folder}/dlmanager.log
""")

    def run(self, program, *arguments, data=b"", want=0):
        done = subprocess.run([self.bin / program, *arguments], env=self.env, input=data, capture_output=True, timeout=120, check=False)
        assert want in (done.returncode, None), (program, arguments, done.returncode, done.stderr.decode(errors="replace"))
        return done.stdout.decode(errors="replace")

    # The service.

    def start(self):
        status = self.dir / "run/dl.status"
        status.unlink(missing_ok=True)
        with open(self.dir / "dlmanager.out", "ab") as out:
            subprocess.run([self.bin / "dlmanager"], env=self.env, stdin=subprocess.DEVNULL, stdout=out, stderr=out, check=True, timeout=60)
        wait_for("dlmanager", lambda: self.pid() and status.exists() and "Running" in status.read_text())

    def pid(self):
        try:
            pid = int((self.dir / "run/dl.pid").read_text())
            return pid if b"dlmanager" in pathlib.Path(f"/proc/{pid}/cmdline").read_bytes() else 0
        except (OSError, ValueError):
            return 0

    def stop(self, number=signal.SIGTERM):
        if pid := self.pid():
            os.kill(pid, number)
            self.wait_for_end(pid)

    def wait_for_end(self, pid):
        def ended():
            try:
                return not pathlib.Path(f"/proc/{pid}/cmdline").read_bytes()  # nobody may have asked for its status
            except OSError:
                return True
        wait_for("the end of dlmanager", ended)

    def peak_kb(self):
        return int(re.search(r"VmHWM:\s+(\d+)", pathlib.Path(f"/proc/{self.pid()}/status").read_text())[1])

    def log(self):
        """(level, text) of each line."""
        file = self.dir / "dlmanager.log"
        lines = file.read_text().splitlines() if file.exists() else []
        return [(int(found[1]), found[2]) for line in lines if (found := re.search(r" (\d) DL Manager: (.*)$", line))]

    # Mail.

    def submit(self, sender, recipient, message):
        self.run("dlsubmit", "-f", sender, "--", recipient, data=bytes(message))

    def queue(self, channel=""):
        return json.loads(self.run("dlctl", "queue", "list", channel, "--json"))

    def settle(self, seconds=30):
        """Waits until all that came in has been handled."""
        wait_for("the end of channel dl", lambda: not self.queue("dl"), seconds, 0.1)

    def take(self, want, remove=True):
        """The `want` mails that wait to go out, which are then gone."""
        items = self.queue("dlout")
        mails = []
        for item in items:
            shown = json.loads(self.run("dlctl", "queue", "show", item["id"], "--json"))
            mails.append(Mail(shown, pathlib.Path(shown["file"]).read_bytes()))
        if items and remove:
            self.run("dlctl", "queue", "remove", *(item["id"] for item in items))
        assert len(mails) == want, [(mail.recipients, mail.subject) for mail in mails]
        return mails

    def pending(self, address):
        return {file.name: file.read_bytes() for file in (self.dir / "data" / address).glob("*.cnf")}


class House:
    """A folder with a directory and services, ended and removed at the end."""

    def __init__(self, binaries, kind, entries, services=1):
        self.dir = pathlib.Path(tempfile.mkdtemp(prefix="dl-service.", dir="/tmp"))
        self.directory, self.services = None, []
        try:
            self.directory = kind(self.dir / "directory", entries)
            self.services = [Service(binaries, self.dir / f"service{i}", self.directory) for i in range(services)]
            for service in self.services:
                for address in json.loads(service.run("dlctl", "list", "--json")):
                    service.run("dlctl", "list", "check", "--fix", address["mail"], want=None)
        except BaseException:
            self.end()
            raise

    def end(self):
        for service in self.services:
            service.stop()
        if self.directory:
            self.directory.kill()
        if not os.environ.get("DL_KEEP"):
            shutil.rmtree(self.dir, ignore_errors=True)
