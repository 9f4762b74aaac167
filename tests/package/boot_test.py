#!/usr/bin/env python3
"""The package on a host that boots: the documents' commands under a real systemd, then what only systemd, a fault or a reboot shows.

    tests/package/boot_test.py CLEAN_ROOT PACKAGE [Boot.test_...]

As root. scripts/boot-test makes both.
"""
import os
import pathlib
import re
import sys
import time
import unittest

import documents
from machine import Machine

MAX_EXPOSURE = 20  # of systemd-analyze security, in tenths
UNITS = ("dlmanager", "dlsend", "dlsubmit-lmtp")
KILL = 2**31 - 2  # as systemctl shows the error number "kill"
FIGURES = "/var/lib/prometheus/node-exporter/dlmanager.prom"


class Boot(documents.Documents):
    """The steps stand on each other; they run in the order of their names, the documents' first."""

    test_0_every_command_is_run_or_listed = None

    @classmethod
    def setUpClass(cls):
        cls.box = Machine(cls.root, cls.packages, cls.fetch)
        cls.addClassCleanup(cls.box.end)
        print(f"\nwith {cls.box.accelerator}: {cls.box.up()}")

    @classmethod
    def fetch(cls, box):
        """Postfix and the LDAP server are installed before: with an emulated processor, that takes minutes. The package is not."""
        super().fetch(box)
        answers = next(documents.blocks("docs/install.md"))[1].partition("apt-get")[0]
        box.run(answers + "apt-get install -y -q --no-install-recommends --no-download postfix slapd ldap-utils", timeout=600)

    def show(self, unit, *names):
        values = dict(line.split("=", 1) for line in self.box.run(f"systemctl show {unit} -p {','.join(names)}").splitlines())
        return [int(values[name]) if values[name].isdigit() else values[name] for name in names]

    def wait_until_up(self, seconds=120):
        self.box.wait_for(f"systemctl is-active {' '.join(UNITS)} postfix slapd > /dev/null", seconds)

    def post(self, subject, to="talk"):
        """Into the queue, whoever runs."""
        self.box.run(f"printf 'From: root@localhost\\nTo: {to}@lists.example.org\\nSubject: {subject}\\n\\nfrost\\n' | "
                     f"runuser -u dlmanager -- dlsubmit -f root@localhost {to}@lists.example.org")

    def wait_for_posting(self, subject):
        self.box.wait_for(f"grep -q '^Subject: {subject}$' /var/mail/root", 90)
        self.assertEqual(self.box.run(f"sleep 2; grep -c '^Subject: {subject}$' /var/mail/root"), "1\n")

    def test_80_as_their_user_and_shut_in(self):
        user = self.box.run("id -u dlmanager").strip()
        self.wait_until_up()
        for unit in UNITS:
            with self.subTest(unit):
                state, pid = self.show(unit, "SubState", "MainPID")
                self.assertEqual(state, "running")
                status = dict(line.split(":\t", 1) for line in self.box.run(f"cat /proc/{pid}/status").splitlines() if ":\t" in line)
                self.assertEqual(status["Uid"].split(), [user] * 4)
                self.assertEqual((status["Seccomp"], status["NoNewPrivs"]), ("2", "1"))
                self.assertEqual({status[name] for name in ("CapPrm", "CapEff", "CapBnd", "CapAmb")}, {"0" * 16})
                # As root, but with the eyes of the service.
                inside = f"nsenter -t {pid} -m -- sh -c"
                self.assertEqual(self.box.run(f"{inside} 'touch /usr/x /etc/x /var/lib/x 2>&1 || true'").count("Read-only file system"), 3)
                self.assertEqual(self.box.run(f"touch /tmp/theirs; {inside} 'ls -A /tmp /home /root; ls /dev/vda 2>&1 || true'"),
                                 "/home:\n\n/root:\n\n/tmp:\nls: cannot access '/dev/vda': No such file or directory\n")
                self.box.run(f"{inside} 'cd /var/spool/dlmanager/queue; touch x; rm x'")

    def test_81_exposure(self):
        for unit in (*UNITS, "dlmanager-metrics"):
            report = self.box.run(f"systemd-analyze security --no-pager --threshold={MAX_EXPOSURE} {unit}")
            print(re.sub(r"^\W+|\s*\S*$", "", report.strip().splitlines()[-1]))

    def test_82_killed(self):
        before = {unit: self.show(unit, "NRestarts")[0] for unit in UNITS}
        self.box.run(f"systemctl kill -s KILL {' '.join(UNITS)}")
        self.post("after the kill")
        for unit, pause in zip(UNITS, (30, 30, 5)):
            self.box.wait_for(f"[ $(systemctl show {unit} -p NRestarts --value) != {before[unit]} ] && systemctl is-active {unit} >/dev/null")
            down, up, restarts = self.show(unit, "ActiveExitTimestampMonotonic", "ActiveEnterTimestampMonotonic", "NRestarts")
            print(f"{unit}: back after {(up - down) / 1e6:.1f} s")
            self.assertEqual(restarts, before[unit] + 1)
            self.assertGreaterEqual(up - down, pause * 1e6)
        self.wait_for_posting("after the kill")

    def test_83_the_directory_is_gone(self):
        """When a confirmation comes: the service ends in good order, comes back with the directory, and says that it was in vain."""
        request = "sendmail -f root@localhost talk-request@lists.example.org"
        self.box.run(f"printf 'Subject: leaving\n\nunsubscribe\n' | {request}")
        found = r"sed -n 's/^Subject: \(unsubscription confirmation request (.*)\)$/\1/p' /var/mail/root"
        self.box.wait_for(f"{found} | grep -q .")
        self.box.run(f"systemctl stop slapd; printf 'Subject: Re: %s\n\nOK\n' \"$({found})\" | {request}")
        self.box.wait_for("[ $(systemctl show dlmanager -p SubState --value) = start-pre ]", 90)
        self.assertEqual(self.show("dlmanager", "Result"), ["success"])
        self.assertIn("Breaking main loop", self.box.run("grep ' 1 ' /var/log/dlmanager/dlmanager.log"))
        self.box.run("systemctl start slapd")
        self.wait_until_up()
        self.box.wait_for("grep -q 'You have sent an unknown command' /var/mail/root")
        self.post("after the directory")
        self.wait_for_posting("after the directory")

    def test_84_no_call_is_refused(self):
        """A system call beyond the filters is answered EPERM, which a library may hide: let it kill, and see that all works."""
        self.box.run("for unit in dlmanager dlsend dlsubmit-lmtp dlmanager-metrics; do mkdir -p /run/systemd/system/$unit.service.d; "
                     "printf '[Service]\nSystemCallErrorNumber=kill\n' > /run/systemd/system/$unit.service.d/kill.conf; done; "
                     f"systemctl daemon-reload; systemctl restart {' '.join(UNITS)}; systemctl start dlmanager-metrics")
        self.box.run("printf 'Subject: without a refusal\\n\\nagain\\n' | sendmail -f root@localhost talk@lists.example.org; "
                     "printf 'Subject: unsubscribe\\n\\nunsubscribe\\n' | sendmail -f anna@example.com garden-request@lists.example.org")
        self.wait_for_posting("without a refusal")
        self.box.run(f"systemctl restart {' '.join(UNITS)}")  # to the end of each
        self.assertEqual([self.show(unit, "Result", "NRestarts", "SystemCallErrorNumber") for unit in UNITS], [["success", 0, KILL]] * 3)
        self.box.run("rm /run/systemd/system/dl*/kill.conf; systemctl daemon-reload")

    def test_85_figures(self):
        folder = pathlib.Path(FIGURES).parent
        # The timer goes on when the exporter, and with it the folder, comes after it.
        self.box.run(f"mv {folder} {folder}.away; sleep 32; mv {folder}.away {folder}; rm -f {FIGURES}")
        for _ in range(2):
            self.box.wait_for(f"[ -e {FIGURES} ]", 40)
            self.assertRegex(self.box.run(f"cat {FIGURES}; rm {FIGURES}"), r'(?m)^dlmanager_up\S* 1$')
        self.assertIn("dlmanager", self.box.run("dlctl status"))
        self.box.run("dlctl check")

    def test_86_stop(self):
        for unit in UNITS:
            begin = time.monotonic()
            self.box.run(f"systemctl stop {unit}")
            print(f"{unit}: stopped in {time.monotonic() - begin:.1f} s")
            self.assertLess(time.monotonic() - begin, 15)
            self.assertEqual(self.show(unit, "Result", "SubState"), ["success", "dead"])

    def test_87_a_message_waits_and_the_directory_is_late(self):
        self.box.run("systemctl start dlsubmit-lmtp dlsend; systemctl disable slapd")
        # A first wait that is in vain, too.
        self.box.run("mkdir /etc/systemd/system/dlmanager.service.d; printf '[Service]\nExecStartPre=\nExecStartPre=/usr/bin/dlctl directory "
                     "wait --seconds 4\nRestartSec=3\n' > /etc/systemd/system/dlmanager.service.d/short.conf")
        self.post("over the reboot")
        begin = time.monotonic()
        self.box.power_off()
        print(f"down in {time.monotonic() - begin:.0f} s")
        self.box.boot()
        self.box.wait_for("[ $(systemctl show dlmanager -p NRestarts --value) -gt 1 ]")
        self.assertEqual(self.box.run("pgrep -x dlmanager || dlctl queue list dl --json | grep -c '\"id\"'"), "1\n")
        self.box.run("systemctl enable slapd; systemctl start slapd")
        self.wait_until_up()
        self.wait_for_posting("over the reboot")
        self.box.run("rm -r /etc/systemd/system/dlmanager.service.d; systemctl daemon-reload")

    def test_88_power_loss(self):
        self.box.run("systemctl stop dlmanager dlsend")
        self.post("over the loss")
        self.box.lose_power()
        self.box.boot()
        print(self.box.up())
        self.wait_until_up()
        self.wait_for_posting("over the loss")

    def test_89_nothing_to_complain(self):
        """Since that boot, in which nothing failed."""
        self.box.run(f"systemctl restart {' '.join(UNITS)} dlmanager-metrics")
        self.assertEqual(self.box.run("systemctl --failed --plain --no-legend"), "")
        self.assertEqual(self.box.run("journalctl -b -p warning -q --no-pager -u 'dl*' -o cat"), "")


def main():
    if os.geteuid() != 0:
        sys.exit("a disk is made by root only")
    Boot.root, package = (pathlib.Path(sys.argv.pop(1)).resolve() for _ in range(2))
    Boot.packages, Boot.package = package.parent, package.name
    unittest.main(verbosity=2, failfast=True)


if __name__ == "__main__":
    main()
