#!/usr/bin/env python3
"""Mail into a real Postfix, through the list manager, and out of it again into mailboxes.

    tests/e2e/roundtrip.py BUILD/bin [Intake | Relay | FullDisk | Chaos][.test]      DL_KEEP=1 leaves the folder for a look at it
"""
import os
import re
import signal
import time

import mails
from chaos import Chaos
from directory import SLAPD, wait_for
from lab import MEMBERS, run_cases
from site_case import ANNA, LIST, MEMBER_LIST, OWNER, UTF8_MEMBER, Site, documented_commands

LEAKY = "leaky@lists.example.org"

__all__ = ["Chaos"]


class Intake(Site):
    """Postfix -> LMTP or pipe -> dlmanager -> channel "dlout"."""

    def test_1_documented_commands(self):
        outputs = self.outputs
        self.assertEqual(outputs["postmap -q lists.example.org hash:/etc/postfix/dlmanager_transport"],
                         "dlmanager:unix:dlmanager/lmtp\n")
        waiting = wait_for("the two test messages", lambda: len(q := self.lab.queue("dl")) >= 2 and q)
        self.assertEqual(len(waiting), 2)
        self.assertEqual({item["sender"] for item in waiting}, {"you@example.com"})
        self.lab.start_dlmanager()
        self.settle(2)
        self.assertNotIn("warning", self.lab.output("postfix").lower())

    def check_samples(self, way):
        lab = self.lab
        lab.start_dlmanager()
        before = {item["id"] for item in self.settle(0)}
        sent = {name + way: mails.essence(message).replace(name.encode(), (name + way).encode())
                for name, message in mails.samples().items()}
        for name, message in sent.items():
            lab.post(ANNA, [LIST], message, mail_options=["BODY=8BITMIME"])
        sent["utf8" + way] = mails.posting("utf8" + way)
        lab.post(UTF8_MEMBER, [LIST], sent["utf8" + way], mail_options=["SMTPUTF8", "BODY=8BITMIME"])
        new = [item for item in self.settle(len(before) + len(sent)) if item["id"] not in before]
        self.assertEqual(len(new), len(sent))
        for item in new:
            message = lab.queued_message(item["id"])
            name = mails.field(message, b"Subject")[0].decode()
            with self.subTest(name):
                self.assertEqual(item["sender"], OWNER)
                self.assertEqual(sorted(lab.queued_recipients(item["id"])), sorted(MEMBER_LIST))
                self.assertEqual(mails.field(message, b"Sender"), [LIST.encode()])
                # Not assertEqual: a difference in 10 MB is nothing to print.
                self.assertTrue(mails.essence(message) == sent.pop(name), "the text is not what was sent")
        self.assertEqual(list(sent), [])

    def test_2_samples_by_lmtp(self):
        self.check_samples("-lmtp")
        self.assertRegex(self.lab.output("dlsubmit"), r"3 DL Intake: Message [0-9A-F]{8} from <anna@members.example> for 1 ")

    def test_3_several_recipients_are_one_entry(self):
        lab = self.lab
        lab.start_dlmanager()
        before = len(self.settle(0))
        lab.stop("dlmanager")
        lab.post(ANNA, [LIST, OWNER, "nobody@lists.example.org"], mails.posting("several"))
        entry = wait_for("the entry", lambda: lab.queue("dl"))[0]
        self.assertEqual(entry["recipients"], 3)
        lab.start_dlmanager()
        # The posting, the owner's copy, and the answer that there is no such list.
        self.assertEqual(len(self.settle(before + 3)), before + 3)

    def test_4_intake_away(self):
        lab = self.lab
        lab.start_dlmanager()
        before = len(self.settle(0))
        lab.stop("dlsubmit")
        self.assertFalse((lab.dir / "pfspool/dlmanager/lmtp").exists())
        lab.post(ANNA, [LIST], mails.posting("away"))
        wait_for("the deferral", lambda: "[dlmanager/lmtp]: No such file or directory" in lab.output("postfix"))
        lab.start_intake()
        self.settle(before + 1)

    def test_5_too_big_is_bounced(self):
        lab = self.lab
        conf = lab.dir / "conf/qvms.conf"
        conf.write_text(conf.read_text() + "[Intake]\nMaxMessageBytes = 1000000\n")
        lab.stop("dlsubmit")
        lab.start_intake()
        before = len(lab.mailbox("anna"))
        lab.post(ANNA, [LIST], mails.posting("toobig", body=b"0123456789\r\n" * 100_000))
        wait_for("the bounce", lambda: len(lab.mailbox("anna")) == before + 1)
        self.assertIn(b"Status: 5.3.4", lab.mailbox("anna")[-1].read_bytes())

    def test_6_samples_by_pipe(self):
        seen = False
        for _, commands in documented_commands():
            for command in commands:
                seen = seen or "dlpipe" in command
                if seen:
                    output = self.lab.command(["/bin/sh", "-ec", self.lab.here(command)])
        self.assertEqual(output, "dlpipe:\n")
        self.lab.command(["postfix", "reload"])  # the transport map is read again a moment later otherwise
        self.lab.stop("dlsubmit")
        self.check_samples("-pipe")
        self.assertIn("relay=dlpipe", self.lab.output("postfix"))
        # A null sender comes as one.
        self.lab.stop("dlmanager")
        self.lab.post("", [OWNER], mails.posting("null"))
        entry = wait_for("the entry", lambda: self.lab.queue("dl"))[0]
        self.assertEqual(entry["sender"], "<>")
        self.lab.start_dlmanager()


class Relayed(Site):
    """The same, and through dlsend and Postfix into the members' mailboxes."""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.lab.start_dlmanager()
        cls.lab.start_dlsend()
        wait_for("the documented test messages", lambda: len(cls.lab.mailbox("anna")) == 2 and not cls.lab.queue(""))


class Relay(Relayed):
    lists = {LIST: MEMBER_LIST, LEAKY: [ANNA, f"gone1@{MEMBERS}", f"gone2@{MEMBERS}"]}

    def test_1_samples(self):
        lab = self.lab
        sent = {name: mails.essence(message) for name, message in mails.samples().items()}
        sent["utf8"] = mails.posting("utf8")
        for name, message in sent.items():
            utf8 = name == "utf8"
            lab.post(UTF8_MEMBER if utf8 else ANNA, [LIST], message,
                     mail_options=["BODY=8BITMIME"] + ["SMTPUTF8"] * utf8)
        for member in MEMBER_LIST:
            user = member.split("@")[0]
            boxes = wait_for(f"all in {user}", lambda u=user: len(b := lab.mailbox(u)) == 2 + len(sent) and b, 120)
            got = {mails.field(message, b"Subject")[0].decode(): message
                   for message in (file.read_bytes() for file in boxes) if mails.field(message, b"Subject")}
            for name, message in sent.items():
                with self.subTest(f"{name} for {user}"):
                    self.assertTrue(mails.essence(got[name]) == message, "the text is not what was sent")
                    self.assertEqual(mails.field(got[name], b"Return-Path"), [f"<{OWNER}>".encode()])
        wait_for("an empty queue", lambda: not lab.queue(""))
        self.assertEqual(lab.mailbox("owner"), [], "nothing has failed, so nobody is told")

    def test_2_unknown_members_bounce_to_the_owner(self):
        lab = self.lab
        before, known = len(lab.mailbox("owner")), len(lab.mailbox("anna"))
        lab.post(ANNA, [LEAKY], mails.posting("leaky"))
        report = wait_for("the report", lambda: len(b := lab.mailbox("owner")) == before + 1 and b[-1].read_bytes())
        for text in (b"gone1@members.example", b"gone2@members.example", b"5.1.1", b"Message-ID: <leaky@client.example>"):
            self.assertIn(text, report)
        self.assertNotIn(b"Final-Recipient: rfc822; anna", report)
        wait_for("an empty queue", lambda: not lab.queue("") and lab.postfix_is_empty())
        self.assertEqual(len(lab.mailbox("owner")), before + 1, "one report for an entry, none about it")
        self.assertEqual(len(lab.mailbox("anna")), known + 1)

    def test_3_relay_away(self):
        lab = self.lab
        before = len(lab.mailbox("anna"))
        lab.post(ANNA, [LIST], mails.posting("patience"))
        wait_for("the posting in the queue", lambda: lab.queue("") or len(lab.mailbox("anna")) > before)
        lab.stop("postfix")
        lab.command([lab.dir / "bin/dlsubmit", "-f", ANNA, "--", LIST], data=mails.posting("unseen"))
        wait_for("a try", lambda: "127.0.0.1:" in lab.output("dlsend"))
        lab.start_postfix()
        wait_for("both", lambda: len(lab.mailbox("anna")) == before + 2, 60)
        wait_for("an empty queue", lambda: not lab.queue(""))


class FullDisk(Relayed):
    """The queue's disk is full just when each of the programs needs it; then there is room again."""
    small_disk = True

    def arrives_once(self, name, body=b"text\r\n"):
        lab = self.lab

        def done():
            lab.start_dlmanager()  # a supervisor would
            return lab.postfix_is_empty() and not lab.queue("")

        wait_for(f"the end of {name}", done, 90, 0.3)
        for member in MEMBER_LIST:
            user = member.split("@")[0]
            got = [file.read_bytes() for file in lab.mailbox(user)]
            got = [message for message in got if mails.field(message, b"Subject") == [name.encode()]]
            with self.subTest(f"{name} for {user}"):
                self.assertEqual(len(got), 1)
                self.assertTrue(mails.essence(got[0]) == mails.posting(name, body=body))

    def test_1_intake(self):
        lab = self.lab
        lab.fill_disk()
        lab.post(ANNA, [LIST], mails.posting("intake"))
        wait_for("the deferral", lambda: re.search(r"status=deferred .*45[12] 4\.3\.[01] The (disk|queue)", lab.output("postfix")))
        lab.free_disk()
        self.arrives_once("intake")

    def test_2_service(self):
        lab = self.lab
        body = b"0123456789\r\n" * 25_000
        for room in (0, 100_000):  # none at all; enough for the index, too little for the message
            name = f"service{room}"
            os.kill(lab.dlmanager_pid(), signal.SIGSTOP)
            lab.post(ANNA, [LIST], mails.posting(name, body=body))
            wait_for("the posting in dl", lambda: lab.queue("dl"))
            lab.fill_disk(room)
            before = len(lab.output("dlmanager"))
            os.kill(lab.dlmanager_pid(), signal.SIGCONT)
            wait_for("the trouble", lambda b=before: re.search(r"\] 1 DL", lab.output("dlmanager")[b:]) or not lab.dlmanager_pid(), 20)
            time.sleep(3)  # some tries more
            lab.free_disk()
            self.arrives_once(name, body)

    def test_3_dlsend(self):
        lab = self.lab
        os.kill(lab.children["dlsend"].pid, signal.SIGSTOP)
        lab.post(ANNA, [LIST], mails.posting("relay"))
        wait_for("the posting in dlout", lambda: lab.queue("dlout") and not lab.queue("dl"))
        lab.fill_disk()
        os.kill(lab.children["dlsend"].pid, signal.SIGCONT)
        wait_for("the trouble", lambda: "The disk of the queue is full, nothing is handed over" in lab.output("dlsend"))
        lab.free_disk()
        self.arrives_once("relay")

    def test_4_nobody_was_bothered(self):
        self.assertEqual(self.lab.mailbox("owner"), [])


if __name__ == "__main__":
    run_cases(Site, SLAPD, "/usr/sbin/postfix", seconds=500, root=True)
