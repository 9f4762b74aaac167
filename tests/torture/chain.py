"""The chain under test: our programs under a supervisor, their folders, and a record of what was done to them and when."""
import contextlib
import json
import os
import resource
import signal
import struct
import subprocess
import sys
import threading
import time

from directory import LdifFile, Slapd, wait_for
from disk import Disk
from proxy import Proxy
from relay import Relay

ANSWER_TIME = 4  # seconds that dlsend waits for the relay
TERM_TIME = 90  # that systemd gives a program to end
EXPECTED_SIGNALS = (0, signal.SIGKILL, signal.SIGTERM)


class Program:
    """One of the services, started again at once whenever it ends, as systemd would. It has a process group of its own."""

    def __init__(self, chain, name, *argv, before=()):
        self.chain, self.name, self.argv, self.before = chain, name, argv, before
        self.group, self.ending = 0, False
        self.thread = threading.Thread(target=self.supervise, daemon=True)
        self.thread.start()

    def supervise(self):
        while not self.ending:
            if self.before and self.chain.tool(*self.before)[0] != 0:
                time.sleep(0.2)
                continue
            with self.chain.power, open(self.chain.dir / f"{self.name}.out", "ab") as out:
                self.chain.power.wait_for(lambda: self.chain.powered)
                if self.ending:
                    return
                child = subprocess.Popen([self.chain.bin / self.argv[0], *self.argv[1:]], env=self.chain.env, cwd=self.chain.dir,
                                         stdin=subprocess.DEVNULL, stdout=out, stderr=out, start_new_session=True)
                child.returncode = 0  # it is waited for below
                self.group = child.pid
            number = self.wait()
            self.group = 0
            self.chain.deaths.append((time.time(), self.name))
            self.chain.note_end(self.name, number)
            time.sleep(0.05)

    def wait(self):
        """Until nothing of it is left. The signal that has ended it."""
        number = 0
        while True:
            try:
                pid, status = os.waitpid(-self.group, os.WNOHANG)
            except ChildProcessError:
                if not self.follow():
                    return number
                continue
            if pid:
                number = os.WTERMSIG(status) if os.WIFSIGNALED(status) else 0
            else:
                time.sleep(0.01)

    def follow(self):
        """Whether it goes on in the background, in a group of its own: such a child comes to us when its parent ends."""
        found = subprocess.run(["ps", "-o", "pid=,pgid=,comm=", "--ppid", str(os.getpid())], capture_output=True, text=True, check=False)
        for pid, group, name in (line.split(None, 2) for line in found.stdout.splitlines()):
            if pid == group and name.split()[0] == self.name:
                self.group = int(pid)
                return True
        return False

    def signal(self, number):
        group = self.group
        if not group:
            return False
        with contextlib.suppress(ProcessLookupError):
            os.killpg(group, number)
            return True
        return False

    def pids(self):
        """Of what runs now."""
        found = subprocess.run(["ps", "-o", "pid=", "-s", str(self.group)], capture_output=True, text=True, check=False).stdout
        return [int(pid) for pid in found.split()] if self.group else []

    def end(self):
        self.ending = True
        for _ in range(TERM_TIME):
            self.signal(signal.SIGTERM)
            self.thread.join(1)
            if not self.thread.is_alive():
                return
        self.chain.crashes.append(f"{self.name} did not end within {TERM_TIME} s of SIGTERM")
        self.signal(signal.SIGKILL)


class Chain:
    """`megabytes`: size of the disk. `shim`: the clock's library, or none. Lists as directory.list_entries makes them."""

    def __init__(self, binaries, folder, chance, entries, *, ldif, megabytes, mounts, shim):
        self.bin, self.dir, self.chance = binaries, folder, chance
        self.power, self.powered, self.tools = threading.Condition(), True, set()
        self.deaths, self.kills, self.crashes, self.power_losses, self.full = [], [], [], [], []
        self.asked_to_hold = {}
        for name in ("conf", "run", "tmp"):
            (folder / name).mkdir(parents=True)
        self.disk = Disk(folder, megabytes, mounts)
        (self.disk.top / "data").mkdir()
        self.relay = Relay(folder / "relay.jsonl", chance)
        if ldif:
            self.directory, self.proxy = LdifFile(self.disk.top / "directory", entries), None
            settings = self.directory.settings()
        else:
            self.directory = Slapd(folder / "slapd", entries)
            self.proxy = Proxy(self.directory.port, chance)
            settings = self.directory.settings().replace(str(self.directory.port), str(self.proxy.port)) + "TimeOut = 2\n"
        self.socket = folder / "run/lmtp"
        self.env = {**os.environ, "DLMANAGER_CONF": str(folder / "conf"), "TMPDIR": str(folder / "tmp"), "TZ": "UTC"}
        self.clock = folder / "clock"
        self.clock.write_bytes(bytes(8))
        self.offset = 0
        if shim:
            self.env |= {"LD_PRELOAD": str(shim), "TORTURE_CLOCK": str(self.clock)}
        self.configure(settings)
        self.programs = {}

    def configure(self, settings):
        (self.dir / "conf/qvmta.ini").write_text("[Ldap]\n" + settings)
        (self.dir / "conf/qvms.conf").write_text(f"""[Ldap]
{settings}[Connection]
GatewayHostName = mail
GatewayDomain = example.org
[Gateway]
TimeZone = UTC
[DlManager]
DbPath = {self.disk.top}/data
[Queue]
Path = {self.disk.top}/queue
[Process]
RunDir = {self.dir}/run
[Log]
Target = file
File = {self.dir}/dlmanager.log
[Relay]
Host = 127.0.0.1
Port = {self.relay.port}
RetryMin = 1
RetryMax = 3
ConnectTimeOut = 3
AnswerTimeOut = {ANSWER_TIME}
DataTimeOut = {ANSWER_TIME}
""")

    def start(self, lists):
        for address in lists:
            self.tool("dlctl", "list", "check", "--fix", address)
        self.programs = {
            "dlmanager": Program(self, "dlmanager", "dlmanager", before=("dlctl", "directory", "wait", "--seconds", "20")),
            "dlsend": Program(self, "dlsend", "dlsend"),
            "dlsubmit": Program(self, "dlsubmit", "dlsubmit", "--lmtp", str(self.socket)),
        }
        wait_for("the chain", lambda: self.socket.exists() and (self.dir / "run/dl.status").exists())

    def tool(self, *argv, data=b"", kill_after=None):
        """Runs dlctl or dlsubmit to its end, or kills it. Its exit status and output; a signal's number is negative."""
        with self.power:
            self.power.wait_for(lambda: self.powered)
            child = subprocess.Popen([self.bin / argv[0], *argv[1:]], env=self.env, cwd=self.dir, stdin=subprocess.PIPE,
                                     stdout=subprocess.PIPE, stderr=subprocess.PIPE)
            self.tools.add(child)
        timer = threading.Timer(kill_after, child.kill) if kill_after is not None else None
        if timer:
            timer.start()
        try:
            output = child.communicate(data, timeout=120)
        finally:
            self.tools.discard(child)
            if timer:
                timer.cancel()
        if child.returncode == -signal.SIGKILL and timer:
            self.kills.append((time.time(), f"{argv[0]} by hand" if argv[0] == "dlctl" else "dlsubmit by pipe"))
        else:
            self.note_end(" ".join(argv[:3]), max(0, -child.returncode))
        return child.returncode, output[0].decode(errors="replace")

    def note_end(self, name, number):
        """Without power what is mapped into memory is no longer there (SIGBUS), which nobody can help."""
        if number not in EXPECTED_SIGNALS and (number != signal.SIGBUS or self.powered):
            self.crashes.append(f"{name} was ended by signal {number} at {time.strftime('%H:%M:%S')}")

    def kill(self, name, number=signal.SIGKILL):
        if self.programs[name].signal(number):
            self.kills.append((time.time(), name + (" (SIGTERM)" if number == signal.SIGTERM else "")))

    def cut_power(self):
        """All processes die, and what was not synced is lost; then the machine boots."""
        began = time.time()
        with self.power:
            self.powered = False
        self.disk.lose_power()

        def ended():
            running = [program for program in self.programs.values() if program.signal(signal.SIGKILL) or program.group]
            for tool in list(self.tools):
                tool.kill()
            return not running and not self.tools
        wait_for("the end of all programs", ended)
        self.disk.unmount()
        self.disk.mount()
        self.power_losses.append((began, time.time()))
        with self.power:
            self.powered = True
            self.power.notify_all()

    @contextlib.contextmanager
    def on_disk(self):
        """The disk stays mounted meanwhile."""
        with self.power:
            self.power.wait_for(lambda: self.powered)
            yield

    def set_clock(self, offset):
        self.offset = offset
        with open(self.clock, "r+b") as file:
            file.write(struct.pack("q", offset))

    def now(self):
        """As our programs see it."""
        return int(time.time()) + self.offset

    def limit_files(self, name, spare):
        """Lowers how many files a program may open to `spare` more than it has; a function that raises it again."""
        limits = []
        for pid in self.programs[name].pids():
            with contextlib.suppress(OSError):
                before = resource.prlimit(pid, resource.RLIMIT_NOFILE)
                resource.prlimit(pid, resource.RLIMIT_NOFILE, (max(0, len(os.listdir(f"/proc/{pid}/fd")) + spare), before[1]))
                limits.append((pid, before))

        def restore():
            for pid, before in limits:
                with contextlib.suppress(OSError):
                    resource.prlimit(pid, resource.RLIMIT_NOFILE, before)
        return restore

    def queue(self, channel=""):
        """What waits; None when it cannot be read now."""
        status, output = self.tool("dlctl", "queue", "list", channel, "--json")
        return json.loads(output) if status == 0 else None

    def cpu(self, name):
        """Seconds of processor time that a program has used."""
        ticks = 0
        for pid in self.programs[name].pids():
            with open(f"/proc/{pid}/stat", encoding="ascii") as stat:
                ticks += sum(int(number) for number in stat.read().rpartition(")")[2].split()[11:13])
        return ticks / os.sysconf("SC_CLK_TCK")

    def stop(self):
        for name in ("dlsubmit", "dlmanager", "dlsend"):
            if name in self.programs:
                self.programs[name].end()

    def end(self):
        for one in (self.stop, self.relay.end, self.proxy.end if self.proxy else None, self.directory.kill, self.disk.end):
            try:
                if one:
                    one()
            except Exception as problem:  # the others still have to go
                print("at the end:", problem, file=sys.stderr)
