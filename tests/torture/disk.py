"""The disk that queue and data lie on: an ext4 of its own on a loop device, which can lose power and run full.

Without the right to mount it is a plain folder, which can do neither.
"""
import fcntl
import os
import pathlib
import shutil
import subprocess
import time

SHUTDOWN = 0x8004587D  # EXT4_IOC_SHUTDOWN
WITHOUT_FLUSH = (2).to_bytes(4, "little")
INODES = 5000


class Disk:
    def __init__(self, folder, megabytes, mounts):
        self.mounts, self.top, self.image = mounts, folder / "disk", folder / "image/ext4"
        for name in ("disk", "image"):
            (folder / name).mkdir()
        if mounts:
            self.run("mount", "-t", "tmpfs", "none", self.image.parent)  # so that a sync takes no time
            self.run("truncate", "-s", f"{megabytes}M", self.image)
            # Blocks of a page: of smaller ones SQLite leaves some unallocated in what it maps into memory, SIGBUS when the disk is full.
            self.run("mkfs.ext4", "-q", "-b", "4096", "-m", "0", "-N", str(INODES), self.image)
            self.mount()

    @staticmethod
    def run(*argv):
        subprocess.run(argv, check=True, capture_output=True, timeout=60)

    def mount(self):
        self.run("mount", "-o", "loop", self.image, self.top)

    def unmount(self):
        for attempt in range(100):  # a process that is ending may still hold it
            try:
                self.run("umount", self.top)
                return
            except subprocess.CalledProcessError:
                if attempt == 99:
                    raise
                time.sleep(0.05)

    def lose_power(self):
        """What is not synced is gone; nothing can be written or read until it is mounted again."""
        top = os.open(self.top, os.O_RDONLY)
        try:
            fcntl.ioctl(top, SHUTDOWN, WITHOUT_FLUSH)
        finally:
            os.close(top)

    def fill(self):
        with open(self.top / "filler", "ab", buffering=0) as filler:
            for block in (1 << 20, 4096, 512):
                try:
                    while filler.write(b"x" * block):
                        pass
                except OSError:
                    pass

    def fill_inodes(self):
        (self.top / "ballast").mkdir(exist_ok=True)
        try:
            for number in range(2 * INODES):
                (self.top / "ballast" / str(number)).touch()
        except OSError:
            pass

    def free(self):
        (self.top / "filler").unlink(missing_ok=True)
        shutil.rmtree(self.top / "ballast", ignore_errors=True)

    def keep(self, folder):
        """A copy of what lies on it, for whoever looks into a failure."""
        for name in ("queue", "data"):
            shutil.copytree(self.top / name, pathlib.Path(folder) / f"kept-{name}", dirs_exist_ok=True)

    def end(self):
        if self.mounts:
            self.unmount()
            self.run("umount", self.image.parent)
