#!/usr/bin/env python3
"""The package's life on a clean Debian: installed, started, used, upgraded, removed, purged; and the documents' commands in order.

    tests/package/package_test.py CLEAN_ROOT PACKAGE NEWER_PACKAGE [Package | Documents]

As root. scripts/package-test makes the packages and the root. No systemd runs in the sandbox: tests/package/systemctl starts the
services by hand, as the units say.
"""
import os
import pathlib
import re
import shutil
import sys
import unittest

from documents import Documents
from sandbox import SOURCE, Sandbox

MAX_EXPOSURE = 20  # of systemd-analyze security, in tenths
POSTING = "From: anna@example.com\\r\\nTo: garden@lists.example.org\\r\\nSubject: %s\\r\\n\\r\\nfrost\\r\\n"
DATA = "/var/lib/dlmanager /var/spool/dlmanager /var/log/dlmanager"

__all__ = ["Documents"]


class Package(unittest.TestCase):
    """The steps stand on each other; they run in the order of their names."""

    @classmethod
    def setUpClass(cls):
        cls.box = Sandbox(cls.root, cls.packages)
        cls.addClassCleanup(cls.box.end)
        cls.box.run("apt-get update -q", network=True)

    def post(self, subject):
        self.box.run(f"printf '{POSTING % subject}' | runuser -u dlmanager -- dlsubmit -f anna@example.com garden@lists.example.org")

    def out(self):
        return self.box.run("dlctl queue list dlout --json")

    def test_1_install(self):
        self.box.run(f"apt-get install -y -q --no-install-recommends /package/{self.package}", network=True, timeout=600)
        self.assertEqual(self.box.run("dpkg-query -W -f '${Status}' dl-manager"), "install ok installed")
        self.assertEqual(self.box.run("stat -c '%a %U %G' /etc/dlmanager/qvms.conf " + DATA),
                         "640 root dlmanager\n750 dlmanager dlmanager\n750 dlmanager dlmanager\n750 dlmanager adm\n")
        for program in ("dlmanager", "dlsubmit", "dlsend", "dlctl"):
            self.assertNotIn("not found", self.box.run(f"ldd /usr/bin/{program}"))
        self.assertEqual(self.box.run("pgrep -l '^dl' || true"), "", "nothing starts before it is configured")

    def test_2_units(self):
        units = "dlmanager.service dlsend.service dlsubmit-lmtp.service dlmanager-metrics.service dlmanager-metrics.timer"
        paths = " ".join(f"/lib/systemd/system/{unit}" for unit in units.split())
        self.assertEqual(self.box.run(f"systemd-analyze verify --man=no --recursive-errors=no {paths}"), "")
        for unit in units.split()[:4]:
            report = self.box.run(f"systemd-analyze security --offline=true --no-pager --threshold={MAX_EXPOSURE} "
                                  f"/lib/systemd/system/{unit}")
            print(report.strip().splitlines()[-1])

    def test_3_start_and_post(self):
        self.box.run("systemctl enable --now dlmanager")
        self.assertEqual(self.box.run("ps -o user= -C dlmanager"), "dlmanager\n")
        self.box.run("dlctl list create garden@lists.example.org --owner you@example.org")
        self.box.run("dlctl member add garden@lists.example.org anna@example.com")
        self.post("first")
        self.box.wait_for("dlctl queue list dlout --json | grep -q garden-owner@lists.example.org")
        self.assertEqual(self.box.run("systemctl is-active dlmanager"), "active\n")

    def test_4_upgrade(self):
        self.box.run("systemctl stop dlmanager")
        self.post("second")  # waits in channel dl while the package changes
        self.box.run("sed -i 's/^GatewayHostName = .*/GatewayHostName = lists/' /etc/dlmanager/qvms.conf; systemctl start dlsend")
        before = self.box.run(f"md5sum /etc/dlmanager/qvms.conf; pidof dlsend; find {DATA} -type d -printf '%p %u %m\\n'")
        self.box.run(f"dpkg -i /package/{self.newer}")
        self.assertIn(self.newer_version, self.box.run("dpkg-query -W -f '${Version}' dl-manager"))
        after = self.box.run(f"md5sum /etc/dlmanager/qvms.conf; pidof dlsend; find {DATA} -type d -printf '%p %u %m\\n'")
        drop = re.compile(r"^\d+$", re.M)
        self.assertEqual(drop.sub("", before), drop.sub("", after), "configuration and folders are as they were")
        self.assertNotEqual(drop.findall(before), drop.findall(after), "what ran is the new one")
        self.assertEqual(self.box.run("systemctl is-active dlmanager || true"), "inactive\n", "what was stopped stays so")
        self.assertIn("anna@example.com", self.box.run("dlctl queue list dl --json"))
        self.box.run("systemctl stop dlsend; systemctl start dlmanager")
        self.box.wait_for("[ $(dlctl queue list dlout --json | grep -c garden-owner) = 2 ]")

    def test_5_upgrade_while_it_runs(self):
        pid = self.box.run("pidof dlmanager")
        self.box.run(f"dpkg -i /package/{self.newer}")
        self.assertNotEqual(self.box.run("pidof dlmanager"), pid)
        self.post("third")
        self.box.wait_for("[ $(dlctl queue list dlout --json | grep -c garden-owner) = 3 ]")

    def test_6_remove_and_purge(self):
        kept = f"find {DATA} -type f -printf '%p\\n' | sort"
        queued = self.out().count('"id"')
        self.box.run("apt-get remove -y -q dl-manager")
        self.assertEqual(self.box.run("pgrep -l '^dl' || true"), "", "it is stopped")
        before = self.box.run(kept)
        self.assertIn(".msg", before)
        self.assertIn("GatewayHostName = lists", self.box.run("cat /etc/dlmanager/qvms.conf"))
        said = self.box.run("apt-get purge -y -q dl-manager </dev/null")
        self.assertIn("mail, lists and logs stay in", said)
        self.assertEqual(self.box.run(kept), before)
        self.assertEqual(self.box.run("ls /etc/systemd/system/multi-user.target.wants | grep dl || true"), "")
        self.assertIn("No such file", self.box.run("ls /etc/dlmanager/qvms.conf 2>&1 || true"))
        # It comes back as if it had never been away.
        self.box.run(f"dpkg -i /package/{self.newer} && systemctl start dlmanager")
        self.assertEqual(self.out().count('"id"'), queued)
        self.assertIn("garden@lists.example.org", self.box.run("dlctl list"))

    def test_7_the_containers_entry(self):
        """deploy/container/start, as process 1 of a process space of its own."""
        self.box.run("systemctl stop dlmanager")
        shutil.copy(SOURCE / "deploy/container/start", self.box.root / "usr/local/bin/dl-start")
        before = self.out().count('"id"')
        self.box.run("(DL_LMTP=127.0.0.1:2424 unshare --pid --fork --mount-proc setpriv --reuid dlmanager --regid dlmanager "
                     "--init-groups /usr/local/bin/dl-start; echo $? > /run/ended) > /run/start.out 2>&1 &")
        self.box.wait_for("ss -ltn | grep -q 127.0.0.1:2424", 20)
        said = self.box.run(r"""exec 3<>/dev/tcp/127.0.0.1/2424
        answer() { while read -r -t 10 line <&3; do [ "${line:3:1}" = - ] || break; done; echo "$line"; }
        answer
        for word in 'LHLO x' 'MAIL FROM:<anna@example.com>' 'RCPT TO:<garden@lists.example.org>' DATA; do
            printf '%s\r\n' "$word" >&3
            answer
        done
        printf 'From: anna@example.com\r\nSubject: contained\r\n\r\nfrost\r\n.\r\n' >&3
        answer""")
        self.assertRegex(said, r"(?s)354.*250 ")
        self.box.wait_for(f"[ $(dlctl queue list dlout --json | grep -c '\"id\"') = {before + 1} ]")
        self.box.run("kill -TERM $(pgrep -x dl-start -o)")
        self.box.wait_for("[ -e /run/ended ]", 30)
        self.assertEqual(self.box.run("cat /run/ended; pgrep -l '^dl' || true"), "0\n", self.box.run("cat /run/start.out"))


def main():
    if os.geteuid() != 0:
        sys.exit("a sandbox is made by root only")
    root, package, newer = (pathlib.Path(sys.argv.pop(1)).resolve() for _ in range(3))
    for case in (Package, Documents):
        case.root, case.packages, case.package, case.newer = root, package.parent, package.name, newer.name
        case.newer_version = newer.name.split("_")[1]
    unittest.main(verbosity=2)


if __name__ == "__main__":
    main()
