"""Every part of the mail host is killed, again and again, while postings run through it.

Nothing may be missing at the end, and each duplicate must have a cause: an answer that was not given any more. The trace
fields of the copies tell where the ways of two copies part, and so who has repeated what.
"""
import collections
import functools
import itertools
import random
import re
import signal
import smtplib
import threading
import time

import mails
from directory import wait_for
from lab import MEMBERS
from site_case import Site

CROWD = "crowd@lists.example.org"
MEMBER_COUNT = 20
POSTINGS = 500
CLIENTS = 4
VICTIMS = ("dlsubmit", "dlmanager", "dlsend", "slapd", "postfix")
ROUNDS = 3  # at least

# Who has repeated, and whose deaths explain it: one death repeats at most so many things.
CAUSES = {
    "the client, whose posting Postfix had not answered": (("postfix",), CLIENTS),
    "Postfix, whose hand-over the intake had not answered or Postfix had not noted": (("dlsubmit", "postfix"), 20),
    "dlmanager, which had not noted that the posting was done": (("dlmanager",), 1),
    "dlsend, whose transaction Postfix had not answered or dlsend had not noted": (("dlsend", "postfix"), 4),
    "Postfix, which had not noted that a mailbox was written": (("postfix",), 100),
}
CLIENT, HANDOVER, SERVICE, RELAY, MAILBOX = CAUSES


def text_of(number):
    chance = random.Random(number)
    body = b"".join(b"%d %d\r\n" % (number, chance.randrange(10**30)) for _ in range(chance.randrange(5, 100)))
    return mails.posting(f"p{number}", body=body)


class Copy:
    """What the trace fields of one message in a mailbox say."""

    def __init__(self, message):
        self.number = int(re.fullmatch(rb"p(\d+)", mails.field(message, b"Subject")[0])[1])
        self.exact = mails.essence(message) == text_of(self.number)

        def identifier(pattern, fields):
            return next(found[1] for value in fields if (found := re.search(pattern, value)))

        received = mails.field(message, b"Received")
        self.relay = identifier(rb"\(Postfix\) with E?SMTP\w* id (\w+)", received)
        self.entry = identifier(rb"from DL manager .* id (\w+)", received)
        self.arrival = identifier(rb"\(Postfix\) with E?SMTP\w* id (\w+)", mails.field(message, b"X-orig-received"))


class Clients:
    """Post all postings over some connections, each again until it is answered."""

    def __init__(self, lab):
        self.lab = lab
        self.numbers = iter(range(POSTINGS))
        self.lock = threading.Lock()
        self.threads = [threading.Thread(target=self.run, daemon=True) for _ in range(CLIENTS)]
        self.stop = False
        self.posted = 0
        for thread in self.threads:
            thread.start()

    def run(self):
        while not self.stop:
            with self.lock:
                number = next(self.numbers, None)
            if number is None:
                return
            while not self.stop:
                try:
                    self.lab.post(f"p{number}@{MEMBERS}", [CROWD], text_of(number))
                    break
                except (OSError, smtplib.SMTPException):
                    time.sleep(0.1)
            with self.lock:
                self.posted += 1
            time.sleep(0.1)

    def running(self):
        return any(thread.is_alive() for thread in self.threads)


class Chaos(Site):
    lists = {CROWD: [f"m{i}@{MEMBERS}" for i in range(MEMBER_COUNT)]}

    def setUp(self):
        self.deaths = collections.Counter()

    def starter(self, name):
        return getattr(self.lab, f"start_{'intake' if name == 'dlsubmit' else name}")

    def revive(self):
        """What ended by itself is started again, as a supervisor would."""
        if not self.lab.dlmanager_pid():
            self.deaths["dlmanager"] += 1
            self.lab.start_dlmanager()
        for name in ("dlsubmit", "dlsend"):
            child = self.lab.children.get(name)
            self.assertTrue(not child or child.poll() is None, f"{name} has ended: {self.lab.output(name)[-2000:]}")

    def kill_all_in_turn(self, clients):
        for turn, name in enumerate(itertools.cycle(VICTIMS)):
            if not clients.running() and turn >= ROUNDS * len(VICTIMS):
                return
            time.sleep(0.7)
            self.revive()
            self.lab.stop(name, signal.SIGKILL)
            self.deaths[name] += 1
            time.sleep(0.2)
            self.starter(name)()

    def run_postings(self):
        lab = self.lab
        lab.start_dlmanager()
        lab.start_dlsend()
        clients = Clients(lab)
        try:
            self.kill_all_in_turn(clients)
        finally:
            clients.stop = True
        self.assertEqual(clients.posted, POSTINGS)
        # No part is waited for that had to wait itself: the rest goes by the retry times, which are short here.
        wait_for("the end of the postings in channel dl", self.intake_is_done, 180, 0.5)

    def intake_is_done(self):
        self.revive()
        return self.lab.postfix_is_empty() and not self.lab.queue("dl")

    def test_1_nothing_is_missing(self):
        self.run_postings()
        self.assertEqual(self.lab.queue("dlhold"), [])
        self.check_mailboxes()

    def check_mailboxes(self):
        def emptied():
            self.revive()
            return not self.lab.queue("") and self.lab.postfix_is_empty()

        wait_for("the last mail in a mailbox", emptied, 300, 0.5)
        repeated = collections.defaultdict(set)
        copies_in_all = 0
        for member in range(MEMBER_COUNT):
            copies = collections.defaultdict(list)
            for file in self.lab.mailbox(f"m{member}"):
                message = file.read_bytes()
                if b"\nMessage-ID: <p" not in message:
                    continue  # of the documented commands
                copy = Copy(message)
                self.assertTrue(copy.exact, f"{file} is not what was posted")
                copies[copy.number].append(copy)
            missing = set(range(POSTINGS)) - set(copies)
            self.assertFalse(missing, f"m{member} lacks {len(missing)} postings: {sorted(missing)[:10]}")
            copies_in_all += sum(len(some) for some in copies.values())
            for number, some in copies.items():
                self.explain(number, some, member, repeated)
        self.check_causes(repeated, copies_in_all - POSTINGS * MEMBER_COUNT)

    def explain(self, number, copies, member, repeated):
        """Where do the ways of two copies part? Notes what was repeated there."""
        for one, two in itertools.combinations(copies, 2):
            if one.arrival != two.arrival:
                repeated[CLIENT].add((number, max(one.arrival, two.arrival)))
            elif one.entry != two.entry:
                twice = self.taken_in()[number] > 1 or one.arrival in self.unanswered()
                repeated[HANDOVER if twice else SERVICE].add((number, max(one.entry, two.entry)))
            elif one.relay != two.relay:
                repeated[RELAY].add((one.entry, max(one.relay, two.relay)))
            else:
                repeated[MAILBOX].add((one.relay, member))

    @functools.lru_cache(maxsize=1)
    def taken_in(self):
        """How often the intake has stored each posting."""
        return collections.Counter(int(number) for number in re.findall(
            rf"DL Intake: Message .* from <p(\d+)@{re.escape(MEMBERS)}>", self.lab.output("dlsubmit")))

    @functools.lru_cache(maxsize=1)
    def unanswered(self):
        """What Postfix has handed over without an answer, by its identifier."""
        return {name.encode() for name in re.findall(r"(\w+): to=<crowd@.* status=deferred \((?:lost connection|.*timed out)",
                                                     self.lab.output("postfix"))}

    def check_causes(self, repeated, extra):
        print(f"\nkilled and started again: {dict(self.deaths)}")
        print(f"{POSTINGS} postings to {MEMBER_COUNT} members: none missing, {extra} mails more than once")
        for cause, (culprits, most) in CAUSES.items():
            deaths = sum(self.deaths[name] for name in culprits)
            if repeated[cause]:
                print(f"  repeated {len(repeated[cause])} x by {cause} ({deaths} deaths of {' and '.join(culprits)})")
            self.assertLessEqual(len(repeated[cause]), deaths * most, cause)
        self.assertEqual(extra > 0, any(repeated.values()))
