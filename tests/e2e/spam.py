#!/usr/bin/env python3
"""Postings that were marked as spam upstream, through dlsubmit, the running dlmanager and a real slapd.

    tests/e2e/spam.py BUILD/bin        DL_KEEP=1 leaves the folder for a look at it
"""
import unittest

from directory import SLAPD, Slapd, list_entries, wait_for
from lab import run_cases
from service import House

PLAIN, STRICT, KIND = (f"{name}@lists.example.org" for name in ("plain", "strict", "kind"))
SENDER, FRIEND = "paul@example.org", "fay@friends.example"
RECORDS = ["cn: PreProcessor", "x-kvtblaction: dialup.example,P,D,DL:I", "x-kvtblaction: open.example,X,D",
           "x-kvtblaction: proxy.example,P,I,local:D,DL:B"]
BY_SYSTEM = "because it was marked as spam message by the system"


def entries():
    members = ["mode: 0", "archive: 0", "listmember: Immediate;anna@example.com"]
    return [*list_entries(PLAIN, members), *list_entries(STRICT, [*members, "x-spamaction: discard"]),
            *list_entries(KIND, [*members, "x-spamaction: bounce,No spam please.", "x-kvtblaction: open.example,ignore",
                                 "x-kvtblaction: own.example,bounce,Listed by own.example.", "x-whitelist: *@friends.example",
                                 "x-ipwhitelist: 192.0.2.1-192.0.2.9"]),
            "dn: cn=PreProcessor,dc=lists,dc=example,dc=org\nobjectClass: qvconfig\n" + "\n".join(RECORDS) + "\n"]


class Spam(unittest.TestCase):
    binaries = ""  # the build's folder bin; set by main

    def setUp(self):
        self.house = House(self.binaries, Slapd, entries())
        self.addCleanup(self.house.end)
        self.service = self.house.services[0]
        with open(self.service.dir / "conf/qvmta.ini", "a") as configuration:
            configuration.write("[Kestrune]\nReloadInterval = 0\n[SpamAssassin]\nAction-global = ChangeSubject,[SPAM]\n")
        self.service.start()

    def outcome(self, address, header, sender):
        """What becomes of one posting, and the bounce if that is it."""
        seen = len(self.service.log())
        self.service.submit(sender, address, f"From: {sender}\r\nTo: {address}\r\n{header}\r\n\r\nX-Spam-Status: YES\r\n".encode())
        self.service.settle()
        mails = self.service.take(0 if not self.service.queue("dlout") else 1)
        verdict = "delivered" if mails and mails[0].recipients == ["anna@example.com"] else "bounced" if mails else "discarded"
        said = {"discarded": "Discarded", "bounced": "Bounced"}.get(verdict)
        done = f"to mailing list {address} {BY_SYSTEM}" if said else "has been forwarded to 1 recipient(s)"
        wait_for(done, lambda: any(done in text for _, text in self.service.log()[seen:]))
        if said:
            self.assertTrue([text for level, text in self.service.log()[seen:] if level == 5 and text.startswith(said) and done in text])
        return verdict, mails[0] if verdict == "bounced" else None

    def test_marked_postings(self):
        marked, listed = "X-Spam-Status: Yes, score=9", "X-kvtbl: {}/198.51.100.7"
        rows = [  # list, header, sender, outcome, reason of the bounce
            (PLAIN, marked, SENDER, "delivered", ""),
            (STRICT, marked, SENDER, "discarded", ""),
            (STRICT, "Subject: [SPAM] buy", SENDER, "discarded", ""),
            (KIND, marked, SENDER, "bounced", "No spam please."),
            (KIND, marked, FRIEND, "delivered", ""),
            (PLAIN, listed.format("nobody.knows.example"), SENDER, "discarded", ""),
            (STRICT, listed.format("dialup.example"), SENDER, "delivered", ""),
            (PLAIN, listed.format("proxy.example"), SENDER, "bounced", "Please stop sending spam message to me."),
            (KIND, listed.format("own.example"), SENDER, "bounced", "Listed by own.example."),
            (KIND, "X-kvtbl: own.example/192.0.2.5", SENDER, "delivered", ""),
            (KIND, marked, "<>", "delivered", "")]  # nobody is there to be told
        for address, header, sender, want, reason in rows:
            with self.subTest(f"{address} {header} from {sender}"):
                got, bounce = self.outcome(address, header, sender)
                self.assertEqual(got, want)
                if bounce:
                    self.check_bounce(bounce, address, reason)
        self.assertEqual([text for level, text in self.service.log() if level == 1], [])

    def check_bounce(self, bounce, address, reason):
        """A delivery status report (RFC 3464) as another program reads it."""
        self.assertEqual((bounce.sender, bounce.recipients), ("<>", [SENDER]))
        message = bounce.message
        self.assertEqual((message.get_content_type(), message.get_param("report-type")), ("multipart/report", "delivery-status"))
        text, status, header = message.get_payload()
        self.assertIn(reason, text.get_content())
        fields = status.get_payload()
        self.assertIn("Reporting-MTA", fields[0])
        self.assertEqual((fields[1]["Action"], fields[1]["Final-Recipient"]), ("failed", f"rfc822;{address}"))
        self.assertEqual(fields[1]["Status"].split(".")[0], "5")
        self.assertEqual(header.get_content_type(), "text/rfc822-headers")

    def test_without_the_directory_a_listed_posting_waits(self):
        """The lists are in the cache, the server's actions for blacklists are not known any more."""
        listed = "X-kvtbl: dialup.example/198.51.100.7"
        self.assertEqual(self.outcome(PLAIN, listed, SENDER)[0], "delivered")
        self.house.directory.kill()
        for header in (listed, "Subject: not marked"):
            self.service.submit(SENDER, PLAIN, f"From: {SENDER}\r\nTo: {PLAIN}\r\n{header}\r\n\r\nx\r\n".encode())
        wait_for("the one that is not marked", lambda: len(self.service.queue("dl")) == 1 and self.service.queue("dlout"))
        self.assertEqual(self.service.take(1)[0].subject, "not marked")
        self.house.directory.start()
        self.service.settle(90)
        self.service.take(1)


if __name__ == "__main__":
    run_cases(Spam, SLAPD, seconds=220)
