#!/usr/bin/env python3
"""dlctl list, member and archive register: the real program, on a server and on one LDIF file.

    tests/e2e/dlctl.py BUILD/bin [Slapd | Ldif][.test]
"""
import concurrent.futures
import json
import os
import re
import stat
import subprocess
import time
import unittest

import directory
import service
from lab import run_cases

GARDEN, NEWS, TWICE = "garden@lists.example.org", "news@lists.example.org", "twice@lists.example.org"
ANNA, PAUL = "anna@example.com", "paul@example.org"


class Commands:
    """One case for both back ends."""
    binaries = ""  # the build's folder bin; set by main

    def setUp(self):
        person = f"dn: mail={PAUL},dc=lists,dc=example,dc=org\nobjectClass: qvlistowner\nmail: {PAUL}\nlistowner: x@y.example\n"
        entries = directory.list_entries(GARDEN, ["mode: 1", f"listmember: Immediate;{ANNA}", "listmember: Digest;Blocked;Dora@example.com"])
        entries += directory.list_entries(TWICE, [f"listmember: Immediate;{ANNA}", f"listmember: Digest;{ANNA}", f"listmember: Digest;{PAUL}"],
                                        "dc=example,dc=org")
        entries[-1] = entries[-1].replace("listowner: owner@members.example", "cn: without an owner")
        self.house = service.House(self.binaries, self.kind, [*entries, person])
        self.addCleanup(self.house.end)
        self.service, self.members = self.house.services[0], self.house.directory.members
        self.data = self.service.dir / "data"

    def dlctl(self, *arguments, want=0, data=b""):
        """(standard output, standard error)"""
        done = subprocess.run([self.service.bin / "dlctl", *arguments], env=self.service.env, input=data, capture_output=True, timeout=120,
                              check=False)
        output, errors = done.stdout.decode(), done.stderr.decode()
        self.assertEqual(done.returncode, want, (arguments, output, errors))
        self.assertNotIn("Sanitizer", errors)
        return output, errors

    def json(self, *arguments, want=0):
        return json.loads(self.dlctl(*arguments, "--json", want=want)[0])

    def test_1_list_from_create_to_delete(self):
        self.assertEqual(sorted(one["mail"] for one in self.json("list")), [GARDEN, TWICE])
        self.dlctl("list", "create", NEWS, "--owner", PAUL, "--description", "All; the \"news\"", "--auto-subscription", "--no-archive")
        for folder in ("", "digest", "archive"):
            status = (self.data / NEWS / folder).stat()
            self.assertEqual(stat.S_IMODE(status.st_mode), 0o750, folder)
            self.assertEqual(status.st_uid, self.data.stat().st_uid)
        shown = self.json("list", "show", NEWS)
        self.assertEqual(shown, {"dn": f"mail={NEWS},dc=lists,dc=example,dc=org", "mail": NEWS, "description": "All; the \"news\"", "mode": "0",
                                 "AutoSubscription": "YES", "InvalidPosting": "both", "archive": "0", "immediate_members": 0,
                                 "digest_members": 0, "owner": PAUL, "data": f"{self.data}/{NEWS}"})
        self.assertIn(f"owner                  {PAUL}\n", self.dlctl("list", "show", NEWS)[0])
        self.assertEqual(self.json("list", "check", NEWS), [])
        self.assertIn("it is there already", self.dlctl("list", "create", NEWS, want=1)[1])
        self.dlctl("member", "add", NEWS, "a@example.org", "b@example.org")
        self.assertIn(f"{NEWS} deleted, with 2 member(s)", self.dlctl("list", "delete", NEWS)[0])
        self.assertTrue((self.data / NEWS).is_dir(), "its data stays")
        for command in ("show", "check", "delete"):
            self.dlctl("list", command, NEWS, want=2)
        self.assertEqual(sorted(one["mail"] for one in self.json("list")), [GARDEN, TWICE])
        self.dlctl("list", "delete", TWICE)
        self.dlctl("list", "show", TWICE, want=2)
        self.dlctl("list", "create", NEWS, "--owner", ANNA)  # the owner alias had gone too
        self.assertEqual(self.json("list", "show", NEWS)["owner"], ANNA)

    def test_2_names_that_can_be_no_list(self):
        def tree():
            return sorted(str(path) for path in self.house.dir.rglob("*") if "directory" not in str(path))
        before = tree()
        climbing = ("../news@lists.example.org", "a/b@lists.example.org", "news@../../tmp")
        aliases = ("news-owner@lists.example.org", "news-requests@lists.example.org")
        for name in (*climbing, *aliases, "news", "", "@lists.example.org", "news@", "..@lists.example.org", "a b@lists.example.org",
                     "News <news@lists.example.org>", "news@lists.example.org,x@y.example", "a\nb@lists.example.org",
                     "a\x1b[2J@lists.example.org", "x" * 300 + "@lists.example.org"):
            with self.subTest(name):
                _, errors = self.dlctl("list", "create", name, want=1)
                self.assertNotRegex(errors[:-1], r"[\x00-\x1f]", "no control character reaches a terminal")
        for name in climbing:
            with self.subTest(name):
                self.dlctl("list", "check", "--fix", name, want=1)
                self.dlctl("archive", "register", "--generate", name, ANNA, want=1)
                for command in (["list", "show", name], ["list", "delete", name], ["member", "add", name, ANNA]):
                    self.dlctl(*command, want=2)
        self.assertEqual(tree(), before)
        # What has the address and is no list is neither shown nor deleted.
        for name in (PAUL, GARDEN.replace("@", "-owner@")):
            for command in ("show", "delete"):
                self.dlctl("list", command, name, want=2)
        self.assertEqual(self.json("list", "show", GARDEN)["owner"], "owner@members.example")
        self.dlctl("list", "create", want=64)
        self.dlctl("list", "create", NEWS, "--invalid-posting", "shout", want=64)
        self.dlctl("list", "create", NEWS, "--owner", "no address", want=1)

    def test_3_check_finds_and_mends(self):
        folder = self.data / GARDEN
        (folder / "digest").rmdir()
        folder.chmod(0o777)
        found = self.json("list", "check", GARDEN, want=1)
        self.assertEqual([sorted(one) for one in found], [["finding", "mend"]] * 2)
        self.assertEqual([one["finding"] for one in found], [f"everybody may look into {folder}", f"the folder {folder}/digest is missing"])
        self.assertEqual(self.json("list", "check", "--fix", GARDEN), [])
        self.assertEqual(stat.S_IMODE(folder.stat().st_mode), 0o750)
        # A link is not followed to a folder that is none of its business.
        other = self.house.dir / "other"
        other.mkdir(mode=0o755)
        (folder / "archive").rmdir()
        (folder / "archive").symlink_to(other)
        self.assertIn(f"the folder {folder}/archive cannot be made", self.dlctl("list", "check", "--fix", GARDEN, want=1)[1])
        self.assertEqual(stat.S_IMODE(other.stat().st_mode), 0o755)
        # The service would look for this one under another name.
        found, owner = self.json("list", "check", TWICE, want=1)
        self.assertEqual(owner, {"finding": "the owner alias twice-owner@lists.example.org names no owner: mail for the owner cannot be sent",
                                 "mend": "add the attribute listowner with the owner's address"})
        self.assertEqual(found, {"finding": f"the entry is named mail={TWICE},dc=example,dc=org: nobody can join or leave by mail",
                                 "mend": f"name it mail={TWICE},dc=lists,dc=example,dc=org"})
        self.data.rename(self.house.dir / "away")
        self.assertIn("the data folder", self.dlctl("list", "create", NEWS, want=1)[1])
        self.dlctl("list", "show", NEWS, want=2)

    def test_4_members(self):
        self.assertEqual(self.json("member", "list", GARDEN), [{"address": ANNA, "mode": "immediate", "blocked": False},
                                                               {"address": "Dora@example.com", "mode": "digest", "blocked": True}])
        self.assertEqual(self.dlctl("member", "add", GARDEN, "--digest", PAUL, ANNA.upper())[0], "1 added, 1 already there\n")
        self.assertEqual(self.dlctl("member", "add", GARDEN, "--blocked", "not an address", "eve@example.org", "x\nlistmember: y@z.example",
                                    "a@b.example;c", want=1)[0], "1 added, 0 already there\n")
        self.assertEqual(self.dlctl("member", "export", GARDEN)[0],
                         f"Immediate;{ANNA}\nDigest;Blocked;Dora@example.com\nDigest;{PAUL}\nImmediate;Blocked;eve@example.org\n")
        self.assertIn("bert@example.net is no member", self.dlctl("member", "remove", GARDEN, "DORA@example.com", "bert@example.net", want=2)[1])
        self.assertEqual(self.members(GARDEN), sorted([f"Immediate;{ANNA}", f"Digest;{PAUL}", "Immediate;Blocked;eve@example.org"]))
        self.dlctl("member", "import", GARDEN, "-", data=f"# twice\n\nDigest;Blocked;new@example.org\r\n{PAUL}\n".encode())
        self.assertIn("Digest;Blocked;new@example.org", self.members(GARDEN))
        # What stands there in two forms goes in both.
        self.assertEqual(self.dlctl("member", "remove", TWICE, ANNA)[0], "2 removed\n")
        self.assertEqual(self.members(TWICE), [f"Digest;{PAUL}"])
        for command in (["list"], ["add", PAUL], ["remove", PAUL], ["export"]):
            self.dlctl("member", command[0], NEWS, *command[1:], want=2)
        self.dlctl("member", "import", GARDEN, "/no/such/file", want=1)

    def test_5_ten_thousand_members(self):
        wanted = [f"{('Immediate', 'Digest')[i % 2]};member{i}@example.org" for i in range(10_000)]
        file = self.house.dir / "members"
        file.write_text("\n".join([*wanted, "no address", f"Immediate;{ANNA}"]) + "\n")
        started = time.monotonic()
        self.assertEqual(self.dlctl("member", "import", GARDEN, file, want=1)[0], "10000 added, 1 already there\n")
        self.assertEqual(self.dlctl("member", "import", GARDEN, file, want=1)[0], "0 added, 10001 already there\n")
        exported = self.dlctl("member", "export", GARDEN)[0].splitlines()
        self.assertEqual(sorted(exported), sorted([*wanted, f"Immediate;{ANNA}", "Digest;Blocked;Dora@example.com"]))
        seconds = time.monotonic() - started
        print(f"{seconds:.1f} s for 10,000 members", flush=True)
        self.assertLess(seconds, 60)
        shown = self.json("list", "show", GARDEN)
        self.assertEqual((shown["immediate_members"], shown["digest_members"]), (5001, 5001))

    def test_5_two_imports_at_once(self):
        files = []
        for part in (range(3000), range(1000, 4000)):
            files.append(self.house.dir / f"members{part.start}")
            files[-1].write_text("".join(f"member{i}@example.org\n" for i in part))
        with concurrent.futures.ThreadPoolExecutor() as pool:
            outputs = list(pool.map(lambda file: self.dlctl("member", "import", GARDEN, file)[0], files))
        counts = [[int(number) for number in re.findall(r"\d+", output)] for output in outputs]
        self.assertEqual(len(self.members(GARDEN)), 4002)
        self.assertEqual([sum(column) for column in zip(*counts)], [4000, 2000], counts)

    def test_6_archive_register(self):
        def register(*arguments, data=b"", want=0):
            output, errors = self.dlctl("archive", "register", GARDEN, *arguments, data=data, want=want)
            if want:
                self.assertEqual(output, "")
                return errors
            identifier = re.search(r"^identifier  ([0-9A-F]{8})$", output, re.M)[1]
            self.assertIn(f"    From: {arguments[0]}\n    To: garden-request@lists.example.org\n\n    archive registration ({identifier})\n", output)
            file = self.data / GARDEN / f"{identifier}.cnf"
            self.assertEqual(stat.S_IMODE(file.stat().st_mode), 0o600)
            line = file.read_bytes()
            self.assertRegex(line, rb"^" + re.escape(arguments[0].encode()) + rb":\$6\$[./0-9A-Za-z]+\$[./0-9A-Za-z]{86}\r\n$")
            self.assertEqual(errors, "")
            return output, line.decode()[len(arguments[0]) + 1:-2]

        def check(password, hashed):
            made = subprocess.run(["openssl", "passwd", "-6", "-salt", hashed.split("$")[2], "-stdin"], input=password + "\n", text=True,
                                  capture_output=True, check=True).stdout
            self.assertEqual(made, hashed + "\n")

        _, hashed = register(ANNA, data="pass: wörd %s\n".encode())
        check("pass: wörd %s", hashed)
        output, hashed = register(ANNA, "--generate")
        check(re.search(r"^password    (\S{20})$", output, re.M)[1], hashed)
        self.assertEqual(self.dlctl("archive", "register", "--generate", TWICE, "bert@example.net")[1],
                         f"dlctl: note: bert@example.net is no member of {TWICE}, and the mail will get no answer\n"
                         f"dlctl: note: {TWICE} is an open list, and the mail will get no answer\n")
        self.assertEqual(len(self.service.pending(GARDEN)), 2)
        for name, address, data in (("no password", ANNA, b"\n"), ("too long", ANNA, b"x" * 256 + b"\n"), ("a NUL", ANNA, b"a\0b\n"),
                                    ("no address", "anna", b"x\n"), ("a field of the file", "\"a:b\"@example.com", b"x\n"),
                                    ("a name beside it", f"Anna <{ANNA}>", b"x\n"), ("two lines", f"{ANNA}\nroot@example.com", b"x\n")):
            with self.subTest(name):
                register(address, data=data, want=1)
        self.assertEqual(len(self.service.pending(GARDEN)), 2)

    def test_7_directory_away(self):
        if isinstance(self.house.directory, directory.Slapd):
            self.house.directory.kill()
        else:
            self.house.directory.path.write_text("dn: broken\nno colon\n")
        for command in (["list"], ["list", "create", NEWS], ["list", "show", GARDEN], ["list", "check", GARDEN], ["list", "delete", GARDEN],
                        ["member", "list", GARDEN], ["member", "add", GARDEN, PAUL], ["member", "remove", GARDEN, ANNA],
                        ["member", "import", GARDEN, "/dev/null"], ["member", "export", GARDEN]):
            with self.subTest(command):
                output, errors = self.dlctl(*command, want=1)
                self.assertEqual(output, "")
                self.assertIn("Could not connect to Directory Server", errors)


@unittest.skipUnless(os.path.exists(directory.SLAPD), "slapd is not installed")
class Slapd(Commands, unittest.TestCase):
    kind = directory.Slapd


class Ldif(Commands, unittest.TestCase):
    kind = directory.LdifFile


if __name__ == "__main__":
    run_cases(Commands, directory.SLAPD, seconds=220, some_without=True)
