"""A Debian host for one test run that really boots: a virtual machine with systemd and a kernel of its own, on a disk image that is thrown away.

The image is made from a sandbox. The machine has no network but its loopback interface. Scripts are handed by a serial port to an agent
inside, which is root; what the console says is in `console.log`. With KVM where it works, else emulated (many times slower).
"""
import base64
import os
import pathlib
import shutil
import signal
import socket
import subprocess
import tempfile

from sandbox import Host, Sandbox

AGENT = r"""#!/bin/bash
until [ -e /dev/virtio-ports/agent ]; do sleep 0.1; done
exec 3<>/dev/virtio-ports/agent
echo ready >&3
while read -r script <&3; do
    bash -ec "$(base64 -d <<<"$script")" </dev/null >/run/agent.out 2>&1 3>&-
    echo "$? $(base64 -w0 /run/agent.out)" >&3
done
"""
UNIT = """[Service]
ExecStart=/usr/local/sbin/agent
Environment=HOME=/root LANG=C.UTF-8 DEBIAN_FRONTEND=noninteractive
WorkingDirectory=/root
[Install]
WantedBy=multi-user.target
"""


def make_image(base, packages, prepare, folder):
    """Makes disk, kernel and initrd in `folder`. `prepare` is called with the sandbox, which becomes the disk."""
    box = Sandbox(base, packages)
    try:
        box.run("rm /usr/bin/systemctl; dpkg-divert --local --rename --remove /bin/systemctl; apt-get update -q; "
                "printf '#!/bin/sh\nexit 101\n' > /usr/sbin/policy-rc.d", network=True)  # nothing is started here
        box.run("apt-get install -y -q --no-install-recommends systemd-sysv systemd dbus udev linux-image-cloud-amd64", network=True, timeout=900)
        prepare(box)
        (box.root / "usr/local/sbin/agent").write_text(AGENT)
        (box.root / "etc/systemd/system/agent.service").write_text(UNIT)
        box.run("chmod 755 /usr/local/sbin/agent; SYSTEMD_OFFLINE=1 systemctl enable agent; rm -f /usr/sbin/policy-rc.d /etc/resolv.conf; "
                "echo /dev/vda / ext4 defaults 0 1 > /etc/fstab; echo mx.example.org > /etc/hostname")
        for name in ("vmlinuz", "initrd.img"):
            shutil.copy(next(box.root.glob(f"boot/{name}-*")), folder / name)
        # Only the overlay, without what is mounted in it.
        script = 'mkdir "$1/tree"; mount --bind "$1/root" "$1/tree"; mke2fs -q -t ext4 -d "$1/tree" "$2/disk" 4G'
        subprocess.run(["nsenter", "-t", box.init, "-m", "sh", "-ec", script, "sh", str(box.folder), str(folder)], check=True, timeout=300,
                       stdout=subprocess.DEVNULL)
    finally:
        box.end()


class Machine(Host):
    def __init__(self, base, packages, prepare):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="dl-machine.", dir="/var/tmp"))
        self.child = self.wire = self.connection = None
        try:
            make_image(base, packages, prepare, self.folder)
            self.accelerator = self.fastest()
            self.patience = {"kvm": 1, "tcg": 4}[self.accelerator]
            self.boot()
        except BaseException:
            self.end()
            raise

    @staticmethod
    def command(accelerator, *more, system=""):
        # What the machine has handed to its disk is with this host then, and stays when the machine is killed: no wait for the platter.
        cpu = {"kvm": "host", "tcg": "qemu64"}[accelerator]
        return ["setpriv", "--pdeathsig", "KILL", "qemu-system-x86_64", "-accel", accelerator, "-cpu", cpu, "-m", "1024", "-nic", "none",
                "-display", "none", "-no-reboot", "-device", "virtio-rng-pci", "-drive", "file=disk,if=virtio,format=raw,cache=unsafe",
                "-kernel", "vmlinuz", "-initrd", "initrd.img", "-append", f"root=/dev/vda rw console=ttyS0 quiet panic=-1 {system}", *more]

    def fastest(self):
        """KVM, if a machine is up and down again soon with it: inside of another virtual machine it may be there and not work."""
        try:
            subprocess.run(self.command("kvm", "-snapshot", system="systemd.unit=poweroff.target"), cwd=self.folder, check=True, timeout=20,
                           stdin=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        except (subprocess.TimeoutExpired, subprocess.CalledProcessError):
            return "tcg"
        return "kvm"

    def boot(self, timeout=300):
        """Starts the machine; back when the agent is there, which is early: ask systemd for what has to be up."""
        with socket.socket(socket.AF_UNIX) as door:
            door.settimeout(timeout)
            door.bind(str(self.folder / "agent"))
            door.listen()
            self.child = subprocess.Popen(
                self.command(self.accelerator, "-serial", "file:console.log", "-device", "virtio-serial", "-chardev", "socket,id=agent,path=agent",
                             "-device", "virtserialport,chardev=agent,name=agent"),
                cwd=self.folder, stdin=subprocess.DEVNULL, start_new_session=True)
            connection, _ = door.accept()
        os.unlink(self.folder / "agent")
        self.wire = connection.makefile("rwb")
        connection.settimeout(timeout)
        self.connection = connection
        if self.wire.readline() != b"ready\n":
            raise RuntimeError("the machine did not come up:\n" + self.console())

    def console(self):
        return (self.folder / "console.log").read_text(errors="replace")[-4000:]

    def run(self, script, network=False, timeout=300, check=True):
        """As Sandbox.run; there is no network to have. After a TimeoutError the machine is of no use any more."""
        self.connection.settimeout(timeout * self.patience)
        self.wire.write(base64.b64encode(script.encode()) + b"\n")
        self.wire.flush()
        status, _, output = self.wire.readline().decode().strip().partition(" ")
        output = base64.b64decode(output).decode(errors="replace")
        if status == "" or (check and status != "0"):
            raise RuntimeError(f"exit status {status} of\n{script}\n{output}{'' if status else self.console()}")
        return output

    def up(self):
        """Waits for the end of the boot, and says how long it took."""
        self.wait_for("systemctl is-system-running", 300)
        return self.run("systemd-analyze time").splitlines()[0]

    def power_off(self, timeout=200):
        """Shuts down in good order."""
        self.run("systemctl poweroff --no-block")
        self.child.wait(timeout * self.patience)
        self.hang_up()

    def lose_power(self):
        self.child.send_signal(signal.SIGKILL)
        self.child.wait(30)
        self.hang_up()

    def hang_up(self):
        for side in (self.wire, self.connection):
            if side:
                side.close()

    def end(self):
        if self.child and self.child.poll() is None:
            self.lose_power()
        shutil.rmtree(self.folder)
