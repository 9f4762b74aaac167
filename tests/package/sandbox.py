"""A Debian host for one test run, of which nothing is left: a root of its own in an overlay, with its own processes and network.

The base is a clean Debian made with debootstrap (kept in the build folder) from the mirror that apt is configured with here, or this
host's own root. Written is only to the overlay, which lies in memory. The network is a loopback interface of its own, so that
the ports of the documents (25, 389) are free; commands that fetch packages are let out by name. When the sandbox ends, all of its processes end.
"""
import os
import pathlib
import shutil
import subprocess
import tempfile
import time

SOURCE = pathlib.Path(__file__).resolve().parents[2]
PATH = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"

# Runs as process 1 of the sandbox: mounts, says so, and waits; its shell reaps what others leave.
INIT = r"""
set -e
mount --make-rprivate /
mount -t tmpfs -o mode=755 overlay "$2"
mkdir "$2/upper" "$2/work" "$2/root"
mount -t overlay -o "lowerdir=$1,upperdir=$2/upper,workdir=$2/work" overlay "$2/root"
cd "$2/root"
mount -t proc proc proc
mount --rbind /dev dev
mount -t tmpfs tmpfs tmp -o mode=1777
mount -t tmpfs tmpfs run -o mode=755
mkdir -p run/lock run/systemd/system package etc/systemd
cp /etc/resolv.conf run/resolv.conf
mount --bind -o ro "$3" package
hostname mx.example.org
ip link set lo up
rm -f etc/resolv.conf
cp run/resolv.conf etc/resolv.conf
printf '127.0.0.1 localhost\n127.0.1.1 mx.example.org mx\n' > etc/hosts
exec chroot . /bin/sh -c 'trap "exit 0" TERM; touch /run/ready; while :; do sleep 3600 & wait $!; done'
"""


def mirrors():
    """What apt on this host fetches Debian from: (address, suite, component), read from its configuration."""
    fields = "$(REPO_URI) $(CODENAME) $(COMPONENT) $(SIGNED_BY)"
    lines = subprocess.run(["apt-get", "indextargets", "--format", fields, "Created-By: Packages", "Origin: Debian"],
                           check=True, capture_output=True, text=True).stdout.splitlines()
    return [line.split(" ") for line in dict.fromkeys(lines)]


def clean_root(folder):
    """A minimal Debian in `folder`, made when it is not there."""
    folder = pathlib.Path(folder)
    if (folder / "made").exists():
        return folder
    shutil.rmtree(folder, ignore_errors=True)
    folder.parent.mkdir(parents=True, exist_ok=True)
    sources = mirrors()
    release = next(line.split("=")[1].strip() for line in open("/etc/os-release", encoding="utf-8")
                   if line.startswith("VERSION_CODENAME="))
    address = next(source[0] for source in sources if source[1] == release)
    with open(folder.with_suffix(".log"), "wb") as log:
        subprocess.run(["debootstrap", "--variant=minbase", "--include=ca-certificates,iproute2,procps", release, folder, address],
                       check=True, stdout=log, stderr=subprocess.STDOUT, timeout=900)
    (folder / "etc/apt/sources.list").write_text("".join(f"deb {a} {suite} {component}\n" for a, suite, component, *_ in sources))
    # How to reach the mirror, a proxy for instance, is this host's matter.
    settings = subprocess.run(["apt-config", "dump", "--no-empty", "Acquire"], check=True, capture_output=True, text=True).stdout
    (folder / "etc/apt/apt.conf.d/80host").write_text(
        "".join(f"{line}\n" for line in settings.splitlines() if line.startswith(("Acquire::http", "Acquire::Check"))))
    (folder / "made").touch()
    return folder


class Host:
    """What runs scripts."""

    patience = 1  # times the bounds of time

    def wait_for(self, script, seconds=60):
        end = time.monotonic() + seconds * self.patience
        while self.run(f"{script} && echo yes || true", timeout=30).rstrip().rpartition("\n")[2] != "yes":
            if time.monotonic() > end:
                raise TimeoutError(f"not within {seconds} s: {script}")
            time.sleep(0.5)


class Sandbox(Host):
    def __init__(self, base, packages):
        """`packages`: a folder that is /package inside."""
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="dl-sandbox.", dir="/tmp"))
        self.child = subprocess.Popen(
            ["unshare", "--mount", "--pid", "--net", "--uts", "--ipc", "--fork", "--kill-child", "sh", "-c", INIT, "init",
             str(base), str(self.folder), str(packages)], stdin=subprocess.DEVNULL, start_new_session=True)
        children = pathlib.Path(f"/proc/{self.child.pid}/task/{self.child.pid}/children")
        end = time.monotonic() + 30
        self.init = ""
        while not (self.init and pathlib.Path(f"/proc/{self.init}/root/run/ready").exists()):
            if time.monotonic() > end or self.child.poll() is not None:
                self.end()
                raise RuntimeError("the sandbox did not come up")
            self.init = children.read_text().strip()
            time.sleep(0.05)
        self.root = pathlib.Path(f"/proc/{self.init}/root")
        # Diverted, because apt gives maintainer scripts a path of its own.
        self.run("dpkg-divert --local --rename --divert /bin/systemctl.real --add /bin/systemctl")
        shutil.copy(SOURCE / "tests/package/systemctl", self.root / "usr/bin/systemctl")
        self.run("printf '#!/bin/sh\nexit 0\n' > /usr/sbin/policy-rc.d; chmod 755 /usr/sbin/policy-rc.d")  # services may start

    def run(self, script, network=False, timeout=300, check=True):
        """Runs `script` with bash inside, as root; its output with errors. `network`: with this host's network."""
        spaces = ["-m", "-p", "-u", "-i"] + ([] if network else ["-n"])
        environment = {"PATH": PATH, "HOME": "/root", "LANG": "C.UTF-8", "DEBIAN_FRONTEND": "noninteractive"}
        # Into a file: what a script leaves running may keep its output open.
        with tempfile.TemporaryFile() as out:
            try:
                done = subprocess.run(["nsenter", "-t", self.init, *spaces, "--root", "--wdns=/root", "bash", "-ec", script],
                                      env=environment, stdin=subprocess.DEVNULL, stdout=out, stderr=subprocess.STDOUT,
                                      timeout=timeout, check=False)
            finally:
                out.seek(0)
                output = out.read().decode(errors="replace")
                self.last = output
        if check and done.returncode != 0:
            raise RuntimeError(f"exit status {done.returncode} of\n{script}\n{output}")
        return output

    def end(self):
        self.child.kill()  # its child, process 1, goes with it, and all others with that
        self.child.wait(30)
        os.rmdir(self.folder)
