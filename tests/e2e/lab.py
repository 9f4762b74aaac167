"""A private mail host for one test run: slapd with the shipped schema, Postfix, and our programs.

Everything lies in one folder below /tmp, listens on free ports of 127.0.0.1 and is ended by the process ids that were started
here. Postfix runs from its own queue and data folder; its configuration is what deploy/postfix and the commands of
docs/postfix.md make of a bare one. Our programs run as "nobody" from copies that this user may read. Members of
members.example have mailboxes (maildirs) that the same Postfix fills.
"""
import atexit
import json
import os
import pathlib
import pwd
import re
import shutil
import signal
import smtplib
import socket
import subprocess
import sys
import tempfile
import unittest

from directory import SOURCE, Slapd, free_port, list_entries, listens, wait_for

USER = "nobody"
MEMBERS = "members.example"
SKIP = 77  # for ctest


def run_cases(base, *programs, seconds, some_without=False, root=False):
    """Runs the cases of a script with our programs from BUILD/bin, for so long at most.

    Where one of `programs` is missing, none is run, or only those that do without it; in CI that is a failure.
    """
    missing = [program for program in programs if not os.path.exists(program)]
    missing += ["root"] if root and os.geteuid() != 0 else []
    if missing:
        print("missing:", *missing)
    if missing and (os.environ.get("CI") or not some_without):
        sys.exit(1 if os.environ.get("CI") else SKIP)
    for number in (signal.SIGTERM, signal.SIGINT, signal.SIGALRM):
        signal.signal(number, lambda *_: sys.exit("ended by a signal"))
    signal.alarm(seconds)  # before ctest ends this process alone
    base.binaries = sys.argv.pop(1)
    result = unittest.main(verbosity=2, exit=False).result
    sys.exit(not result.wasSuccessful() or (SKIP if result.testsRun == len(result.skipped) else 0))


class Lab:
    def __init__(self, binaries, lists):
        """`lists`: address -> members; each has the owner owner@members.example."""
        self.dir = pathlib.Path(tempfile.mkdtemp(prefix="dl-e2e.", dir="/tmp"))
        self.dir.chmod(0o755)
        self.spool = self.dir / "spool"
        self.lists = lists
        self.children = {}
        self.dead = []  # (name, exit status) of what ended by itself
        atexit.register(self.end)
        self.smtp_port = free_port()
        self.env = {**os.environ, "MAIL_CONFIG": str(self.dir / "postfix"), "DLMANAGER_CONF": str(self.dir / "conf"),
                    "PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", "TMPDIR": str(self.dir / "tmp"),
                    "ASAN_OPTIONS": f"detect_leaks=0:log_path={self.dir}/log/sanitizer"}
        for name in ("bin", "conf", "postfix", "log"):
            (self.dir / name).mkdir(parents=True)
        for name in ("spool", "data", "run", "tmp", "mail"):
            (self.dir / name).mkdir(mode=0o700)
            shutil.chown(self.dir / name, USER)
        for program in ("dlmanager", "dlsubmit", "dlctl", "dlsend"):
            shutil.copy(pathlib.Path(binaries) / program, self.dir / "bin")
        self.dlsend_command = [self.dir / "bin/dlsend"]
        self.configure()

    # Configuration.

    def configure(self):
        lines = ["mode: 0", "archive: 0", "InvalidPosting: bounce"]
        self.slapd = Slapd(self.dir / "slapd", [
            entry for address, members in self.lists.items()
            for entry in list_entries(address, [*lines, *(f"listmember: Immediate;{member}" for member in members)])])
        directory = "[Ldap]\n" + self.slapd.settings()
        (self.dir / "conf/qvmta.ini").write_text(directory)
        (self.dir / "conf/qvms.conf").write_text(f"""{directory}[Connection]
GatewayHostName = mail
GatewayDomain = example.org
[DlManager]
DbPath = {self.dir}/data
[Queue]
Path = {self.dir}/spool/queue
[Process]
RunDir = {self.dir}/run
[Log]
Target = file
File = {self.dir}/log/dlmanager.log
[Intake]
User = {USER}
LogFile = {self.dir}/log/dlsubmit.log
[Relay]
Host = 127.0.0.1
Port = {self.smtp_port}
RetryMin = 1
RetryMax = 3
LogFile = {self.dir}/log/dlsend.log
""")
        shutil.chown(self.dir / "log", USER)
        for address in self.lists:
            for folder in ("digest", "archive"):
                (self.dir / "data" / address / folder).mkdir(parents=True)
        subprocess.run(["chown", "-R", USER, self.dir / "data"], check=True)
        self.configure_postfix()

    def mount_small_disk(self):
        """Under the queue; before anything uses it."""
        nobody = pwd.getpwnam(USER)
        self.command(["mount", "-t", "tmpfs", "-o", f"size=8m,mode=700,uid={nobody.pw_uid}", "none", self.spool])

    def fill_disk(self, room=0):
        with open(self.spool / "filler", "wb", buffering=0) as filler:
            try:
                while filler.write(b"x" * 4096):
                    pass
            except OSError:
                filler.truncate(filler.tell() - room)

    def free_disk(self):
        (self.spool / "filler").unlink()

    def configure_postfix(self):
        folder = self.dir / "postfix"
        for name in ("pfspool", "pfdata"):
            (self.dir / name).mkdir(mode=0o755)
        shutil.chown(self.dir / "pfdata", "postfix")
        nobody = pwd.getpwnam(USER)
        # Members whose names begin with "gone" have none.
        users = {f"owner@{MEMBERS}", *(member for members in self.lists.values() for member in members)}
        (folder / "mailboxes").write_text("".join(f"{user} {user.split('@')[0]}/\n" for user in sorted(users)
                                                  if not user.startswith("gone")), encoding="utf-8")
        (folder / "main.cf").write_text(f"""compatibility_level = 3.6
queue_directory = {self.dir}/pfspool
data_directory = {self.dir}/pfdata
maillog_file = /dev/stdout
myhostname = mx.example.org
mydestination =
mynetworks = 127.0.0.0/8
inet_interfaces = 127.0.0.1
inet_protocols = ipv4
disable_dns_lookups = yes
alias_maps =
alias_database =
local_recipient_maps =
smtputf8_enable = yes
message_size_limit = 50000000
mailbox_size_limit = 0
virtual_mailbox_limit = 0
virtual_mailbox_domains = {MEMBERS}
virtual_mailbox_base = {self.dir}/mail
virtual_mailbox_maps = texthash:{folder}/mailboxes
virtual_minimum_uid = 1
virtual_uid_maps = static:{nobody.pw_uid}
virtual_gid_maps = static:{nobody.pw_gid}
minimal_backoff_time = 2s
maximal_backoff_time = 3s
queue_run_delay = 2s
transport_retry_time = 2s
address_verify_map =
smtpd_client_connection_count_limit = 0
export_environment = TZ LANG MAIL_CONFIG DLMANAGER_CONF={self.dir}/conf ASAN_OPTIONS=detect_leaks=0
smtpd_recipient_restrictions = permit_mynetworks, reject
""")
        services = "\n".join(f"{name} unix {flags} {command}" for name, flags, command in (
            ("cleanup", "n - n - 0", "cleanup"), ("qmgr", "n - n 300 1", "qmgr"), ("rewrite", "- - n - -", "trivial-rewrite"),
            ("bounce", "- - n - 0", "bounce"), ("defer", "- - n - 0", "bounce"), ("trace", "- - n - 0", "bounce"),
            ("proxymap", "- - n - -", "proxymap"), ("proxywrite", "- - n - 1", "proxymap"), ("smtp", "- - n - -", "smtp"),
            ("relay", "- - n - -", "smtp"), ("showq", "n - n - -", "showq"), ("error", "- - n - -", "error"),
            ("retry", "- - n - -", "error"), ("discard", "- - n - -", "discard"), ("local", "- n n - -", "local"),
            ("virtual", "- n n - -", "virtual"), ("lmtp", "- - n - -", "lmtp"), ("anvil", "- - n - 1", "anvil"),
            ("scache", "- - n - 1", "scache"), ("flush", "n - n 1000? 0", "flush")))
        (folder / "master.cf").write_text(f"127.0.0.1:{self.smtp_port} inet n - n - - smtpd\n{services}\n"
                                          "postlog unix-dgram n - n - 1 postlogd\n")
        # What a postmaster has read and put in: the documented files, with this lab's paths.
        shutil.copytree(SOURCE / "deploy/postfix", self.dir / "deploy/postfix")
        for file in (self.dir / "deploy/postfix").iterdir():
            file.write_text(self.here(file.read_text()))

    def here(self, text):
        """Documented paths, users and ports as they are in this lab."""
        for there, here in (("/etc/postfix", f"{self.dir}/postfix"), ("/var/spool/postfix", f"{self.dir}/pfspool"),
                            ("/usr/bin/dl", f"{self.dir}/bin/dl"), ("127.0.0.1:25", f"127.0.0.1:{self.smtp_port}"),
                            ("-o dlmanager", f"-o {USER}"), ("user=dlmanager", f"user={USER}"),
                            ("deploy/postfix/", f"{self.dir}/deploy/postfix/")):
            text = text.replace(there, here)
        return text

    # Processes.

    def command(self, argv, data=b""):
        """Runs a program to its end with `data` for input; its output."""
        done = subprocess.run(argv, env=self.env, cwd=self.dir, input=data, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, timeout=120, check=False)
        output = done.stdout.decode(errors="replace")
        if done.returncode != 0:
            raise RuntimeError(f"{argv}: exit status {done.returncode}\n{output}")
        return output

    def start(self, name, argv, ready, user=None):
        """Starts a program that stays in the foreground, in a process group of its own."""
        how = {}
        if user:
            entry = pwd.getpwnam(user)
            how = {"user": entry.pw_uid, "group": entry.pw_gid, "extra_groups": []}
        log = self.dir / "log" / f"{name}.out"
        log.touch()
        log.chmod(0o666)  # Postfix's programs open /dev/stdout again, under their own user
        with open(log, "ab") as out:
            child = subprocess.Popen(argv, env=self.env, cwd=self.dir, stdin=subprocess.DEVNULL, stdout=out,
                                     stderr=subprocess.STDOUT, start_new_session=True, **how)
        self.children[name] = child
        try:
            wait_for(name, lambda: ready() or child.poll() is not None)
        finally:
            if child.poll() is not None:
                raise RuntimeError(f"{name} ended with {child.returncode}: {self.output(name)}")

    def start_slapd(self):
        self.slapd.start()

    def start_postfix(self):
        self.start("postfix", ["postfix", "-c", self.dir / "postfix", "start-fg"], lambda: listens(self.smtp_port))

    def start_intake(self):
        path = self.dir / "pfspool/dlmanager/lmtp"

        def answers():
            with socket.socket(socket.AF_UNIX) as probe:
                return probe.connect_ex(str(path)) == 0

        self.start("dlsubmit", [self.dir / "bin/dlsubmit", "--lmtp", path], answers)

    def start_dlmanager(self):
        """Unless it runs. It goes into the background by itself; its pid file tells which it is."""
        if self.dlmanager_pid():
            return
        entry = pwd.getpwnam(USER)
        with open(self.dir / "log/dlmanager.out", "ab") as out:
            subprocess.run([self.dir / "bin/dlmanager"], env=self.env, cwd=self.dir, stdin=subprocess.DEVNULL, stdout=out,
                           stderr=out, user=entry.pw_uid, group=entry.pw_gid, extra_groups=[], check=True, timeout=60)
        status = self.dir / "run/dl.status"
        wait_for("dlmanager", lambda: self.dlmanager_pid() and status.exists() and "Running" in status.read_text())

    def start_dlsend(self):
        pid_file = self.dir / "run/dlsend.pid"

        def runs():  # the file of one that was killed may be there
            return pid_file.exists() and pid_file.read_text().strip() == str(self.children["dlsend"].pid)

        self.start("dlsend", self.dlsend_command, runs, user=USER)

    def dlmanager_pid(self):
        try:
            pid = int((self.dir / "run/dl.pid").read_text())
            command = pathlib.Path(f"/proc/{pid}/cmdline").read_bytes()
            return pid if command.startswith(bytes(self.dir)) else 0
        except (OSError, ValueError):
            return 0

    def postfix_pid(self):
        """Postfix's master, which is in a session of its own."""
        try:
            pid = int((self.dir / "pfspool/pid/master.pid").read_text())
            return pid if b"postfix" in pathlib.Path(f"/proc/{pid}/cmdline").read_bytes() else 0
        except (OSError, ValueError):
            return 0

    def stop(self, name, number=signal.SIGTERM):
        """Ends a program and all that it started."""
        if name == "dlmanager":
            if pid := self.dlmanager_pid():
                os.kill(pid, number)
                wait_for("the end of dlmanager", lambda: not self.dlmanager_pid(), 30)
            return
        if name == "slapd":
            self.slapd.kill()
            return
        child = self.children.pop(name, None)
        if not child:
            return
        pid = self.postfix_pid() if name == "postfix" else child.pid
        try:
            if pid and number == signal.SIGKILL:
                os.killpg(pid, number)
            elif pid:
                os.kill(pid, number)
            wait_for(f"the end of {name}", lambda: child.poll() is not None, 30)
        except ProcessLookupError:
            child.wait(10)
        finally:
            for group in {pid, child.pid} - {0}:
                self.end_group(group)
            child.wait(10)

    @staticmethod
    def end_group(group):
        """What a program has started ends a moment after it, or is ended."""
        def alive():
            for stat in pathlib.Path("/proc").glob("[0-9]*/stat"):
                try:
                    state, _, pgrp = stat.read_text().rpartition(")")[2].split()[:3]
                except OSError:
                    continue
                if int(pgrp) == group and state != "Z":
                    return True
            return False

        try:
            wait_for("its end", lambda: not alive(), 3)
        except TimeoutError:
            os.killpg(group, signal.SIGKILL)

    def end(self):
        for name in ("dlsend", "dlsubmit", "dlmanager", "postfix", "slapd"):
            try:
                self.stop(name)
            except Exception as problem:  # the others still have to go
                print("at the end:", problem)
        if not os.environ.get("DL_KEEP"):
            shutil.rmtree(self.dir, ignore_errors=True)

    def output(self, name):
        text = ""
        for suffix in ("out", "log"):
            file = self.dir / "log" / f"{name}.{suffix}"
            if file.exists():
                text += file.read_text(errors="replace")
        return text

    # Mail.

    def post(self, sender, recipients, message, **options):
        with smtplib.SMTP("127.0.0.1", self.smtp_port, "client.example", timeout=60) as client:
            return client.sendmail(sender, recipients, message, **options)

    def queue(self, channel):
        return json.loads(self.command([self.dir / "bin/dlctl", "queue", "list", channel, "--json"]))

    def queued_message(self, identifier):
        return (self.dir / "spool/queue/msg" / f"{identifier}.msg").read_bytes()

    def queued_recipients(self, identifier):
        shown = self.command([self.dir / "bin/dlctl", "queue", "show", identifier])
        return re.findall(r"^recipient +(.*)$", shown, re.M)

    def postfix_is_empty(self):
        """Files without the execute bit are no mail yet: a server that was killed left them, unanswered."""
        def is_mail(file):
            try:
                return file.is_file() and file.stat().st_mode & 0o100
            except FileNotFoundError:  # it goes from folder to folder
                return True

        folders = (self.dir / "pfspool" / name for name in ("maildrop", "incoming", "active", "deferred"))
        return not any(is_mail(file) for folder in folders for file in folder.rglob("*"))

    def mailbox(self, user):
        folder = self.dir / "mail" / user / "new"
        return sorted(folder.iterdir()) if folder.exists() else []


