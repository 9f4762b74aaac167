#!/usr/bin/env python3
"""How quickly mail goes through all of it: smtp-source -> dlsubmit --lmtp -> dlmanager -> dlsend -> smtp-sink.

    bench/pipeline.py BUILD/bin      DL_BENCH_DIR (default /var/tmp): on the disk that is to be measured

Each case starts the three programs anew on an empty queue, with the log of a usual site in files, and ends when the queue is
empty: everything is then handed over and written down as such. Beside each case smtp-source sends as many messages to as many
recipients straight to smtp-sink, which writes nothing down; before all of them stands what the disk alone takes. By pipe, each
posting is a process of dlsubmit; beside it stand as many processes of true.
"""
import os
import pathlib
import re
import shutil
import signal
import socket
import sqlite3
import statistics
import subprocess
import sys
import tempfile
import time

SOURCE, SINK = "/usr/sbin/smtp-source", "/usr/sbin/smtp-sink"
PROGRAMS = ("dlsubmit", "dlmanager", "dlsend")
LIST = "list0@lists.example.org"
BYTES = 4096
PER_TRANSACTION = 100
TIMES = int(os.environ.get("DL_BENCH_TIMES", "3"))
PIPE = 0
#        postings, members, connections of the client
CASES = ((1, 100, 1), (1, 1_000, 1), (1, 10_000, 1), (1, 100_000, 1), (200, 50, 1), (200, 50, 20), (2_000, 50, 20), (200, 50, PIPE))


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def listens(port):
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", port)) == 0


def wait_for(what, condition, pause=0.005):
    end = time.monotonic() + 120
    while not condition():
        if time.monotonic() > end:
            raise TimeoutError(what)
        time.sleep(pause)


class Site:
    def __init__(self, binaries, members, sink_port):
        self.dir = pathlib.Path(tempfile.mkdtemp(prefix="dlbench.", dir=os.environ.get("DL_BENCH_DIR", "/var/tmp")))
        self.binaries, self.port = pathlib.Path(binaries), free_port()
        (self.dir / "data" / LIST / "digest").mkdir(parents=True)
        (self.dir / "run").mkdir()
        (self.dir / "qvms.conf").write_text(
            f"[Connection]\nGatewayHostName=mail\nGatewayDomain=example.org\n[DlManager]\nDbPath={self.dir}/data\n"
            f"[Queue]\nPath={self.dir}/queue\n[Process]\nRunDir={self.dir}/run\n[Ldap]\nFile={self.dir}/lists.ldif\n"
            f"[Log]\nTarget=file\nFile={self.dir}/dlmanager.log\nMaxBytes=1000000000\n"
            f"[Relay]\nHost=127.0.0.1\nPort={sink_port}\nMaxRecipients={PER_TRANSACTION}\n")
        with open(self.dir / "lists.ldif", "w", encoding="utf-8") as out:
            owner = LIST.replace("@", "-owner@")
            out.write("dn: dc=example,dc=org\nobjectClass: domain\ndc: example\n\n"
                      f"dn: mail={owner},dc=example,dc=org\nobjectClass: qvlistowner\nmail: {owner}\nlistowner: o@example.org\n\n"
                      f"dn: mail={LIST},dc=example,dc=org\nobjectClass: qvlist\nmail: {LIST}\nmode: 0\narchive: 0\n")
            for i in range(members):
                out.write(f"listmember: Immediate;member{i}@host{i % 997}.example.com\n")
        self.env = {**os.environ, "DLMANAGER_CONF": str(self.dir)}
        self.children = {}
        self.pids = {}

    def start(self):
        self.children["dlsubmit"] = self.spawn("dlsubmit", "--lmtp", f"127.0.0.1:{self.port}")
        wait_for("the intake", lambda: listens(self.port))
        subprocess.run([self.binaries / "dlmanager"], env=self.env, check=True, stdin=subprocess.DEVNULL,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=60)
        wait_for("dlmanager", lambda: "Running" in self.text("run/dl.status"))
        self.children["dlsend"] = self.spawn("dlsend")
        wait_for("dlsend", lambda: "Running" in self.text("run/dlsend.status"))
        self.pids = {name: child.pid for name, child in self.children.items()}
        self.pids["dlmanager"] = int(self.text("run/dl.pid"))

    def spawn(self, name, *arguments):
        return subprocess.Popen([self.binaries / name, *arguments], env=self.env, stdin=subprocess.DEVNULL,
                                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def text(self, name):
        file = self.dir / name
        return file.read_text(errors="replace") if file.exists() else ""

    def run(self, postings, connections):
        """(seconds in all, seconds until the client had its last answer)"""
        index = sqlite3.connect(f"file:{self.dir}/queue/index.db?mode=ro", uri=True, isolation_level=None, timeout=30)
        time.sleep(1.3)  # what starting has left to do
        begin = time.perf_counter()
        if connections == PIPE:
            pipe(postings, self.env, self.binaries / "dlsubmit", "-f", "anna@example.com", "--", LIST)
        else:
            send(postings, connections, 1, self.port, "-L", "-t", LIST)
        taken = time.perf_counter() - begin
        wait_for("the end of the queue", lambda: not index.execute("SELECT EXISTS (SELECT 1 FROM chan)").fetchone()[0], 0.001)
        time_in_all = time.perf_counter() - begin
        index.close()
        return time_in_all, taken

    def memory(self):
        return {name: int(re.search(r"VmHWM:\s+(\d+)", pathlib.Path(f"/proc/{pid}/status").read_text())[1]) / 1024
                for name, pid in self.pids.items()}

    def cpu(self):
        ticks = os.sysconf("SC_CLK_TCK")
        result = {}
        for name, pid in self.pids.items():
            words = pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()
            result[name] = (int(words[11]) + int(words[12])) / ticks
        return result

    def end(self):
        pid = self.pids.get("dlmanager")
        if pid:
            os.kill(pid, signal.SIGTERM)
            wait_for("the end of dlmanager", lambda: not pathlib.Path(f"/proc/{pid}").exists())
        for child in self.children.values():
            child.terminate()
            child.wait(30)
        relayed = self.text("dlsend.log").count("Relayed ")
        if not os.environ.get("DL_KEEP"):
            shutil.rmtree(self.dir)
        return relayed


def send(messages, connections, recipients, port, *options):
    subprocess.run([SOURCE, "-d", "-s", str(connections), "-m", str(messages), "-l", str(BYTES), "-r", str(recipients), "-f",
                    "anna@example.com", *options, f"127.0.0.1:{port}"], check=True, timeout=300)


def pipe(count, env, *command):
    text = ("Subject: x\n\n" + ("x" * 70 + "\n") * (BYTES // 71)).encode()
    for _ in range(count):
        subprocess.run(command, env=env, input=text, check=True, stdout=subprocess.DEVNULL, timeout=60)


def direct(postings, members, connections, port):
    if connections == PIPE:
        begin = time.perf_counter()
        pipe(postings, None, "/bin/true")
        return time.perf_counter() - begin
    recipients = min(members, PER_TRANSACTION)
    begin = time.perf_counter()
    send(postings * (members // recipients), max(connections, 4), recipients, port, "-t", "member@example.com")
    return time.perf_counter() - begin


def disk(count=100):
    """Milliseconds of what each posting waits for at least: a file, its folder, a log; each synced."""
    with tempfile.TemporaryDirectory(prefix="dlbench.", dir=os.environ.get("DL_BENCH_DIR", "/var/tmp")) as name:
        folder, log = os.open(name, os.O_RDONLY), os.open(f"{name}/log", os.O_WRONLY | os.O_CREAT)
        begin = time.perf_counter()
        for i in range(count):
            file = os.open(f"{name}/{i}", os.O_WRONLY | os.O_CREAT)
            os.write(file, b"x" * BYTES)
            os.fsync(file)
            os.close(file)
            os.fsync(folder)
            os.write(log, b"y" * 3 * BYTES)
            os.fdatasync(log)
        spent = time.perf_counter() - begin
        os.close(folder)
        os.close(log)
        return spent / count * 1000


def main():
    binaries = sys.argv[1]
    port = free_port()
    sink = subprocess.Popen([SINK, *(["-u", "nobody"] if os.geteuid() == 0 else []), f"127.0.0.1:{port}", "200"])
    try:
        wait_for("smtp-sink", lambda: listens(port))
        floor = disk()
        print(f"the disk: {floor:.2f} ms to put one posting on it, {1000 / floor:.0f} postings/s one after the other")
        print(f"{'postings x members':>18} {'by':>8}  {'ms':>8} {'intake':>8} {'direct':>8}  {'postings/s':>10} {'rcpts/s':>8}  "
              f"{'CPU ms, peak MiB of ' + ', '.join(PROGRAMS)}", flush=True)
        for postings, members, connections in CASES:
            runs = []
            straight = []
            for _ in range(TIMES):
                site = Site(binaries, members, port)
                try:
                    site.start()
                    before = site.cpu()
                    taken = site.run(postings, connections)
                    cpu = {name: value - before[name] for name, value in site.cpu().items()}
                    memory = site.memory()
                finally:
                    relayed = site.end()
                if relayed != postings * members:
                    sys.exit(f"{relayed} recipients were handed over, not {postings * members}")
                runs.append((*taken, cpu, memory))
                straight.append(direct(postings, members, connections, port))
            runs.sort(key=lambda run: run[0])
            total, intake, cpu, memory = runs[len(runs) // 2]
            way = f"{connections} conn." if connections else "pipe"
            print(f"{postings:>8} x {members:>7} {way:>8}  {total * 1000:8.1f} {intake * 1000:8.1f} {statistics.median(straight) * 1000:8.1f}"
                  f"  {postings / total:10.0f} {postings * members / total:8.0f}  " +
                  ", ".join(f"{cpu[name] * 1000:.0f} {memory[name]:.1f}" for name in PROGRAMS) +
                  f"   [{runs[0][0] * 1000:.1f} .. {runs[-1][0] * 1000:.1f}]", flush=True)
    finally:
        sink.terminate()
        sink.wait(10)


if __name__ == "__main__":
    main()
