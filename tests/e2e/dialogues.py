#!/usr/bin/env python3
"""People join and leave lists by mail: dlsubmit, the running dlmanager, a directory, and a reader who answers what comes.

    tests/e2e/dialogues.py BUILD/bin [Dialogues | Outage | TwoServicesSlapd | TwoServicesLdif | Background | BigAndFull][.test]
    DL_KEEP=1 leaves the folder for a look at it
"""
import concurrent.futures
import email.message
import email.policy
import email.utils
import os
import re
import shutil
import signal
import subprocess
import time
import unittest

from directory import SLAPD, LdifFile, Slapd, list_entries, wait_for
from lab import run_cases
from service import House, Service

GARDEN, BOARD = "garden@lists.example.org", "board@lists.example.org"
GARDEN_REQUEST, BOARD_REQUEST = (name.replace("@", "-request@") for name in (GARDEN, BOARD))
OWNER = "owner@members.example"
ANNA, DORA, PAUL, PAULA = "anna@example.com", "dora@example.com", "Paul.Smith@example.org", "paula@example.org"
MEMBERS = [f"Digest;{DORA}", f"Immediate;{ANNA}"]


def entries(more=()):
    return [*list_entries(GARDEN, ["mode: 0", "archive: 0", "AutoSubscription: YES", *(f"listmember: {value}" for value in MEMBERS),
                                   *(f"listmember: {value}" for value in more)]),
            *list_entries(BOARD, ["mode: 1", "AutoSubscription: NO", f"listmember: Immediate;{ANNA}"])]


def mail(sender, recipient, subject, text, html=None, cte=None):
    """What a mail program sends."""
    message = email.message.EmailMessage(policy=email.policy.SMTP)
    message["From"] = f"Some Body <{sender}>"
    message["To"] = recipient
    message["Subject"] = subject
    message["Date"] = email.utils.localtime()
    message["Message-ID"] = email.utils.make_msgid(domain="client.example")
    message.set_content(text, cte=cte)
    if html:
        message.add_alternative(html, subtype="html")
    return message


def reply(got, sender, **how):
    """The answer of a mail program: OK above the quotation."""
    message = got.message
    quoted = "".join(f"> {line}\n" for line in got.text().splitlines())
    answer = mail(sender, message["Reply-To"], "Re: " + got.subject, f"OK\n\nOn {message['Date']}, {message['From']} wrote:\n{quoted}", **how)
    answer["In-Reply-To"] = answer["References"] = message["Message-ID"]
    return answer


class Case(unittest.TestCase):
    binaries = ""  # the build's folder bin; set by main
    kind = Slapd
    services = 1
    more = ()  # values of GARDEN beside MEMBERS

    def setUp(self):
        self.house = House(self.binaries, self.kind, entries(self.more), self.services)
        self.addCleanup(self.house.end)
        self.directory, self.service = self.house.directory, self.house.services[0]
        self.texts = 0  # log lines that have been looked at

    def send(self, sender, recipient, message):
        self.service.submit(sender, recipient, message)
        self.service.settle()

    def check_log(self, *want, errors=()):
        """The new lines hold these in this order, and no other refusal or error than `errors`."""
        # Those of a pass are written at its end.
        wait_for(f"the log line {want[-1]}", lambda: want[-1] in [text for _, text in self.service.log()[self.texts:]])
        new = self.service.log()[self.texts:]
        self.texts += len(new)
        rest = iter(text for _, text in new)
        for text in want:
            self.assertIn(text, rest, new)
        self.assertEqual([text for level, text in new if level == 1], list(errors))

    def check_owner_copy(self, got, subject, original):
        self.assertEqual((got.sender, got.recipients), (got.message["To"], [OWNER]))
        self.assertEqual(got.subject, subject)
        self.assertEqual(got.message.get_content_type(), "multipart/mixed")
        self.assertIn("is being forwarded to you.\r\nThe original message follows.\r\n", got.text())
        self.assertEqual(got.original()["Message-ID"], original["Message-ID"])
        # Byte for byte, but for the line break that stands before the boundary.
        self.assertIn(bytes(original), got.raw)

    def check_notice(self, got, sender, recipient, subject, text):
        self.assertEqual((got.sender, got.recipients), (sender, [recipient]))
        self.assertEqual((got.message["From"], got.message["Reply-To"], got.message["To"]), (sender, sender, recipient))
        self.assertEqual(got.message.get_content_type(), "text/plain")
        self.assertRegex(got.subject, subject)
        self.assertEqual(got.text(), text)

    def check_idle(self):
        self.assertEqual(self.service.queue(), [])
        wait_for("the end of the pending files", lambda: not self.service.pending(GARDEN))  # after the commit
        self.assertEqual(list((self.service.dir / "tmp").iterdir()), [])
        self.assertEqual(list((self.service.dir / "queue/msg").iterdir()), [])

    def request(self, sender, message, recipient=GARDEN_REQUEST):
        """The confirmation request that comes of `message`, and the owner's copy."""
        self.send(sender, recipient, message)
        return self.service.take(2)


@unittest.skipUnless(os.path.exists(SLAPD), "slapd is not installed")
class Dialogues(Case):
    def setUp(self):
        super().setUp()
        texts = {}
        for key, text in (("subtxtpath", "Garden rules apply.\r\n"), ("unsubtxtpath", "A pity.\r\n"),
                          ("welcometxtpath", "Welcome to the garden.\r\n")):
            texts[key] = self.house.dir / key
            texts[key].write_bytes(text.encode())
        change = f"dn: mail={GARDEN},dc=lists,dc=example,dc=org\nchangetype: modify\n" + "-\n".join(
            f"add: {key}\n{key}: {path}\n" for key, path in texts.items())
        subprocess.run(["ldapmodify", "-x", "-H", f"ldap://127.0.0.1:{self.directory.port}/", "-D", "cn=dlmanager,dc=example,dc=org",
                        "-w", "secret"], input=change, text=True, check=True, capture_output=True, timeout=60)
        self.service.start()

    def dialogue(self, sender, command, word, line, how, values, done, log):
        """From the request to the changed directory."""
        asked = mail(sender, GARDEN_REQUEST, "", command, **how)
        question, copy = self.request(sender, asked)
        rules = {"subscription": "Garden rules apply.\r\n", "unsubscription": "A pity.\r\n"}[word]
        self.check_notice(question, GARDEN_REQUEST, sender, rf"^{word} confirmation request \([0-9A-F]{{8}}\)$",
                          f"Your {word} of the mailing list {GARDEN} requires confirmation.\r\n"
                          "To confirm, simply reply to the present message with \"OK\"\r\n"
                          "(without the quotes) in the message body and do not retain\r\n"
                          f"the original content of this message.\r\n\r\n{rules}")
        self.check_owner_copy(copy, f"{word} to {GARDEN_REQUEST} (fwd)", asked)
        identifier = question.subject[-9:-1]
        self.assertEqual(self.service.pending(GARDEN), {f"{identifier}.cnf": f"{line} {GARDEN} {sender}\r\n".encode()})
        self.assertEqual(self.directory.members(GARDEN), self.before)
        article = "An" if word == "unsubscription" else "A"
        self.check_log(f"Received {word} message from {sender} for mailing list {GARDEN}",
                       f"{article} {word} confirmation request message for mailing list ({GARDEN}) has been sent to {sender}")

        answer = reply(question, sender, **how)
        copy, notice = self.request(sender, answer)
        self.check_owner_copy(copy, f"{word} confirmation to {GARDEN_REQUEST} (fwd)", answer)
        what = "subscription request" if word == "subscription" else "subscription removal"
        self.check_notice(notice, GARDEN_REQUEST, sender, f"^Your {word} of {re.escape(GARDEN)}$", done)
        self.assertEqual(self.directory.members(GARDEN), sorted(values))
        self.check_log(f"Received {word} confirm message from {sender} for mailing list {GARDEN}", log,
                       f"A notification of {what} of {GARDEN} has been sent to {sender}", f"Found mailing list {GARDEN}")
        self.check_idle()
        self.before = sorted(values)

    def test_1_subscribe_digest_unsubscribe(self):
        self.before = MEMBERS
        added = f"Your subscription request of the mailing list {GARDEN} has been processed successfully.\r\nWelcome to the garden.\r\n"
        self.dialogue(PAUL, "Subscribe\n-- \nPaul\n", "subscription", "subscribe", {"cte": "quoted-printable"},
                      [*MEMBERS, f"Immediate;{PAUL}"], added, f"Added {PAUL}, mode=Immediate to {GARDEN}")
        self.dialogue(PAULA, "subscribe digest\n", "subscription", "subscribe digest", {"html": "<p>subscribe digest</p>"},
                      [*MEMBERS, f"Immediate;{PAUL}", f"Digest;{PAULA}"], added, f"Added {PAULA}, mode=Digest to {GARDEN}")
        self.dialogue(PAUL, "unsubscribe\n", "unsubscription", "unsubscribe", {"cte": "base64"},
                      [*MEMBERS, f"Digest;{PAULA}"], f"You have been successfully removed from the mailing list {GARDEN}.\r\n",
                      f"{PAUL} was successfully removed from mailing list: {GARDEN}")
        # The lists have been read again at once: who has joined is known, who has left is not.
        self.send(PAULA, GARDEN_REQUEST, mail(PAULA, GARDEN_REQUEST, "", "subscribe\n"))
        self.check_log(f"{PAULA} has been subscribed to mailing list {GARDEN} already, message was discarded")
        self.send(PAUL, GARDEN_REQUEST, mail(PAUL, GARDEN_REQUEST, "", "unsubscribe\n"))
        self.check_log(f"{PAUL} is not a valid list member of mailing list {GARDEN}, message was discarded")
        self.check_idle()

    def test_2_reply_of_somebody_else_changes_nothing(self):
        question, _ = self.request(PAUL, mail(PAUL, GARDEN_REQUEST, "", "subscribe\n"))
        pending = self.service.pending(GARDEN)
        answer = reply(question, PAULA)
        for sender, recipient in ((PAULA, GARDEN_REQUEST), (PAUL, BOARD_REQUEST), ("", GARDEN_REQUEST)):
            self.send(sender, recipient, answer)
            bounce, = self.service.take(1)
            self.assertEqual((bounce.sender, bounce.recipients), ("<>", [sender or "postmaster@mail.example.org"]))
            self.assertIn("put the keyword \"subscribe\" (without the quotes) in the message body", bounce.text())
        self.assertEqual(self.service.pending(GARDEN), pending)
        self.assertEqual(self.directory.members(GARDEN), MEMBERS)

    def test_3_a_list_is_one_list_however_it_is_written(self):
        question, _ = self.request(PAUL, mail(PAUL, GARDEN_REQUEST, "", "subscribe\n"), "Garden-Request@Lists.Example.ORG")
        self.assertEqual(len(self.service.pending(GARDEN)), 1)
        self.send(PAUL, question.message["Reply-To"], reply(question, PAUL))
        self.assertEqual(self.directory.members(GARDEN), sorted([*MEMBERS, f"Immediate;{PAUL}"]))
        self.service.take(2)
        self.check_idle()

    def test_4_archive_registration(self):
        printed = self.service.run("dlctl", "archive", "register", BOARD, ANNA, data=b"a secret: word\n")
        identifier = re.search(r"^identifier  ([0-9A-F]{8})$", printed, re.M)[1]
        command = re.search(r"archive registration \([0-9A-F]{8}\)", printed)[0]
        users = self.service.dir / "data" / BOARD / "archive/htpasswd"
        users.write_text("somebody@example.org:hash\n")
        pending = self.service.pending(BOARD)
        self.assertEqual(list(pending), [f"{identifier}.cnf"])
        # Who is no member gets no answer.
        self.send(PAUL, BOARD_REQUEST, mail(PAUL, BOARD_REQUEST, "", command + "\n"))
        self.check_log(f"Received archive registration message from {PAUL} for mailing list {BOARD}")
        self.assertEqual(self.service.queue(), [])

        asked = mail(ANNA, BOARD_REQUEST, "", command + "\n")
        question, copy = self.request(ANNA, asked, BOARD_REQUEST)
        self.check_notice(question, BOARD_REQUEST, ANNA, rf"^archive authentication confirmation request \({identifier}\)$",
                          f"Your archive authentication to the mailing list {BOARD} requires confirmation.\r\n"
                          "To confirm, simply reply to the present message with \"OK\"\r\n"
                          "(without the quotes) in the message body and do not retain\r\n"
                          "the original content of this message.\r\n\r\n")
        self.check_owner_copy(copy, f"archive registration to {BOARD_REQUEST} (fwd)", asked)
        self.send(ANNA, BOARD_REQUEST, reply(question, ANNA))
        notice, = self.service.take(1)
        self.check_notice(notice, BOARD_REQUEST, ANNA, f"^Your archive registration to {re.escape(BOARD)}$",
                          f"You have been successfully registered to the archives of {BOARD} mailing list.\r\n")
        lines = users.read_text().splitlines()
        self.assertEqual(lines[0], "somebody@example.org:hash")
        self.assertEqual([line.encode() + b"\r\n" for line in lines[1:]], list(pending.values()))
        self.check_log(f"Received archive authentication confirm message from {ANNA} for mailing list {BOARD}",
                       f"A notification of archive registration to {BOARD} has been sent to {ANNA}")
        self.assertEqual(self.service.pending(BOARD), {})
        self.check_idle()


@unittest.skipUnless(os.path.exists(SLAPD), "slapd is not installed")
class Outage(Case):
    """The directory dies between a request and its confirmation."""

    def setUp(self):
        super().setUp()
        self.service.start()
        self.question, _ = self.request(PAUL, mail(PAUL, GARDEN_REQUEST, "", "subscribe\n"))
        self.answer = reply(self.question, PAUL)

    def check_added(self):
        _, notice = self.service.take(2)
        self.assertIn("has been processed successfully", notice.text())
        self.assertEqual(self.directory.members(GARDEN), sorted([*MEMBERS, f"Immediate;{PAUL}"]))
        self.check_idle()

    def test_1_back_before_the_reply(self):
        self.directory.kill()
        time.sleep(1.2)  # a turn of the service without it
        self.directory.start()
        self.send(PAUL, GARDEN_REQUEST, self.answer)
        self.check_added()

    def test_2_service_started_without_it_waits(self):
        self.service.stop()
        self.directory.kill()
        self.service.submit(PAUL, GARDEN_REQUEST, self.answer)
        self.service.start()
        time.sleep(2.5)
        self.assertTrue(self.service.pid(), "it waits")
        self.assertEqual(len(self.service.queue("dl")), 1)
        self.assertEqual(len(self.service.pending(GARDEN)), 1)
        self.directory.start()
        self.service.stop()
        self.service.start()
        self.service.settle()
        self.check_added()

    def test_3_gone_when_the_reply_comes(self):
        pid = self.service.pid()
        self.directory.kill()
        self.service.submit(PAUL, GARDEN_REQUEST, self.answer)
        self.service.wait_for_end(pid)
        lines = [text for level, text in self.service.log() if level == 1]
        self.assertEqual(lines[-2:], ["Could not connect to Directory Server", "Breaking main loop at line: 260"])
        self.assertEqual([item["channel"] for item in self.service.queue()], ["dl"], "the reply waits, and nobody was told anything")
        self.assertEqual(len(self.service.pending(GARDEN)), 1)
        self.directory.start()
        self.assertEqual(self.directory.members(GARDEN), MEMBERS)
        self.service.start()
        self.service.settle()
        self.check_added()


class TwoServices(Case):
    """Two services, and dlctl, change one list at once."""
    services = 2
    each = 25  # come, and as many go, through each service
    more = [f"{('Immediate', 'Digest')[i % 2]};old{service}-{i}@example.org" for service in range(2) for i in range(25)]

    def confirmation(self, service, command, who, identifier):
        """The reply to a request that waits: service, sender and mail.

        An identifier is drawn from the second, so fifty whole dialogues would last fifty seconds; their first half is made here.
        """
        file = service.dir / "data" / GARDEN / f"{identifier:08X}.cnf"
        file.write_bytes(f"{command} {GARDEN} {who}\r\n".encode())
        word = command.replace("scribe", "scription")
        return service, who, mail(who, GARDEN_REQUEST, f"Re: {word} confirmation request ({identifier:08X})", "OK\n")

    def test_every_change_stands(self):
        jobs = []
        for number, service in enumerate(self.house.services):
            for i in range(self.each):
                jobs.append(self.confirmation(service, "subscribe", f"new{number}-{i}@example.org", i))
                jobs.append(self.confirmation(service, "unsubscribe", f"old{number}-{i}@example.org", 0x100 + i))
        with concurrent.futures.ThreadPoolExecutor(4) as pool:
            for done in [pool.submit(service.submit, who, GARDEN_REQUEST, message) for service, who, message in jobs]:
                done.result()
            list(pool.map(Service.start, self.house.services))
        third = [f"third{i}@example.org" for i in range(10)]
        for who in third:
            self.house.services[0].run("dlctl", "member", "add", GARDEN, who)
        for number, service in enumerate(self.house.services):
            service.settle(60)
            self.assertTrue(service.pid())
            wait_for("the end of the pending files", lambda service=service: not service.pending(GARDEN))
            self.assertEqual(len(service.queue("dlout")), 4 * self.each)
            self.assertEqual([text for level, text in service.log() if level == 1], [])
        want = [*MEMBERS, *(f"Immediate;{who}" for who in third), *(f"Immediate;new{n}-{i}@example.org" for n in range(2) for i in range(self.each))]
        self.assertEqual(self.directory.members(GARDEN), sorted(want))


@unittest.skipUnless(os.path.exists(SLAPD), "slapd is not installed")
class TwoServicesSlapd(TwoServices):
    pass


class TwoServicesLdif(TwoServices):
    kind = LdifFile

    def test_every_change_stands(self):
        super().test_every_change_stands()
        text = self.directory.path.read_text()
        self.assertTrue(text.startswith("# The lists of the house.\n\n"))
        self.assertEqual(re.findall(r"^dn: (.*)$", text, re.M)[-4:], re.findall(r"^dn: (.*)$", "\n".join(entries()), re.M), "the order stays")


class Background(Case):
    """The service leaves whoever has started it alone, and says so when it cannot run."""
    kind = LdifFile

    def begin(self):
        # The end of its output is waited for, as a shell's $(dlmanager) does.
        return subprocess.run([self.service.bin / "dlmanager"], env=self.service.env, stdin=subprocess.DEVNULL, capture_output=True, timeout=60,
                              check=False)

    def test_start_and_end(self):
        done = self.begin()
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, b"", b""))
        pid = self.service.pid()
        self.assertEqual(os.getsid(pid), pid)
        self.assertEqual({os.readlink(f"/proc/{pid}/fd/{fd}") for fd in range(3)}, {"/dev/null"})
        done = self.begin()
        self.assertEqual((done.returncode, done.stdout), (1, b""))
        self.assertEqual(done.stderr.decode(), f'dlmanager: process {pid} runs under the name "dl" already\n')
        self.assertEqual(self.service.pid(), pid)
        # Impatience during the end changes nothing of it.
        for _ in range(1000):
            try:
                os.kill(pid, signal.SIGTERM)
            except ProcessLookupError:
                break
            time.sleep(0.001)
        self.service.wait_for_end(pid)
        wait_for("the last line", lambda: self.service.log()[-1][1] == "Terminating")
        self.assertFalse((self.service.dir / "run/dl.pid").exists())
        shutil.rmtree(self.service.dir / "run")
        self.check_closed_streams()
        shutil.rmtree(self.service.dir / "run")
        (self.service.dir / "run").write_text("no folder")
        done = self.begin()
        self.assertEqual(done.returncode, 1)
        self.assertRegex(done.stderr.decode(), "^dlmanager: cannot write .*/run/dl.pid: Not a directory\n$")

    def check_closed_streams(self):
        """No file that the service opens gets the number of a stream that its caller has closed."""
        lines = len(self.service.log())
        done = subprocess.run(["/bin/sh", "-c", f"exec {self.service.bin}/dlmanager <&- >&- 2>&-"], env=self.service.env, timeout=60, check=False)
        self.assertEqual(done.returncode, 0)
        pid = self.service.pid()
        self.service.stop()
        self.service.wait_for_end(pid)
        wait_for("its log", lambda: self.service.log()[lines:][-1:] == [(6, "Terminating")])


class BigAndFull(Case):
    """Bodies of 100 MB, and a data folder without room."""
    kind = LdifFile

    def test_1_big_bodies(self):
        self.service.start()
        head = f"From: {PAUL}\r\nTo: {GARDEN_REQUEST}\r\nSubject: subscription confirmation request (0000ABCD)\r\n".encode()
        size = 100_000_000
        self.send(PAUL, GARDEN_REQUEST, head + b"\r\nhello\r\n")
        self.service.take(1)
        base64 = b"Mime-Version: 1.0\r\nContent-Type: text/plain\r\nContent-Transfer-Encoding: base64\r\n"
        for name, header, line in (("many lines", b"", b"0123456\r\n0123456789abcdef 0123456789abcdef 0123456789abcdef 0123456789abcdef\r\n" * (size // 78)), ("one line of base64", base64, b"QUJD" * (size // 4))):
            with self.subTest(name):
                before = self.service.peak_kb()
                self.service.submit(PAUL, GARDEN_REQUEST, head + header + b"\r\n" + line)
                started = time.monotonic()
                self.service.settle(60)
                print(f"{name}: {time.monotonic() - started:.1f} s, {self.service.peak_kb() - before} kB more", flush=True)
                self.assertLess(self.service.peak_kb() - before, 30_000)
                bounce, = self.service.queue("dlout")
                self.assertGreater(bounce["bytes"], size * 0.98)
                self.service.run("dlctl", "queue", "remove", bounce["id"])
        self.check_idle()
        self.assertEqual(self.directory.members(GARDEN), MEMBERS)

    def test_2_full_data_folder(self):
        folder = self.service.dir / "data" / GARDEN
        if subprocess.run(["mount", "-t", "tmpfs", "-o", "size=64k", "none", folder], capture_output=True, check=False).returncode != 0:
            self.skipTest("no file system can be mounted here")
        self.addCleanup(subprocess.run, ["umount", "-l", folder], check=True)

        def fill():
            with self.assertRaises(OSError), open(folder / "filler", "wb", buffering=0) as filler:
                while True:
                    filler.write(b"x" * 4096)

        fill()
        self.service.start()
        pid = self.service.pid()
        self.service.submit(PAUL, GARDEN_REQUEST, mail(PAUL, GARDEN_REQUEST, "", "subscribe\n"))
        self.service.wait_for_end(pid)
        lines = [text for level, text in self.service.log() if level == 1]
        self.assertEqual(lines[-1], "Breaking main loop at line: 315")
        self.assertIn("No space left on device", lines[-2])
        self.assertEqual([(item["channel"], item["attempts"]) for item in self.service.queue()], [("dl", 0)], "it is not the request's fault")
        self.assertEqual(self.service.pending(GARDEN), {}, "no half of a pending file")
        (folder / "filler").unlink()
        self.service.start()
        self.service.settle()
        question, _ = self.service.take(2)
        fill()
        self.request(PAUL, reply(question, PAUL))
        self.assertEqual(self.directory.members(GARDEN), sorted([*MEMBERS, f"Immediate;{PAUL}"]))
        self.check_idle()


if __name__ == "__main__":
    run_cases(Case, SLAPD, seconds=220, some_without=True)
