"""What people send: postings by LMTP and by pipe, membership dialogues, and due dates for digests and archives."""
import contextlib
import hashlib
import os
import queue
import re
import socket
import subprocess
import threading
import time

import hostile
from directory import SERVICE_DN, list_entries

DOMAIN = "lists.example.org"
OWNER = "owner@members.example"
STATIC = [f"m{i}@members.example" for i in range(5)]
READERS = [f"d{i}@members.example" for i in range(3)]  # of digests
LEAVERS = [f"leave{i}@members.example" for i in range(3)]
BLOCKED, STRANGER = "blocked@members.example", "stranger@other.example"

# name -> (attributes, digest members)
LISTS = {
    "open": (["mode: 0", "archive: 0", "InvalidPosting: bounce"], []),
    "closed": (["mode: 1", "archive: 1", "InvalidPosting: bounce"], READERS),
    "mime": (["mode: 0", "archive: 1", "UseMimeDigest: YES"], READERS),
    "club": (["mode: 0", "archive: 1", "AutoSubscription: YES"], []),
    "late": (["mode: 0", "archive: 0"], []),  # made while the traffic runs
}
ARCHIVED = [name for name, (lines, _) in LISTS.items() if "archive: 1" in lines]


def address(name, suffix=""):
    return f"{name}{suffix}@{DOMAIN}"


def entries(name):
    lines, readers = LISTS[name]
    members = [*(f"Immediate;{member}" for member in STATIC), *(f"Digest;{reader}" for reader in readers)]
    members += [f"Immediate;Blocked;{BLOCKED}"] if name == "closed" else []
    members += [f"Immediate;{leaver}" for leaver in LEAVERS] if name == "club" else []
    return list_entries(address(name), [*lines, *(f"listmember: {member}" for member in members)])


class Mail:
    """One message of a client: what was sent to whom, and whether it was taken."""

    def __init__(self, key, kind, sender, recipients, header=b"", body=b"text\r\n", subject=None):
        self.key, self.kind, self.sender, self.recipients = key, kind, sender, recipients
        # Of a hostile mail CRs and LFs change on the way; any other comes out as it went in.
        self.body = hashlib.sha1(body).hexdigest() if kind != "hostile" else None
        self.data = (f"X-Ledger: {key}\r\nFrom: <{sender}>\r\nTo: {', '.join(recipients)}\r\nSubject: {subject or 'posting ' + key}\r\n"
                     f"Message-ID: <{key}@client.example>\r\nDate: Tue, 09 Nov 2004 11:33:20 +0000\r\n").encode() + header + b"\r\n" + body
        self.accepted, self.answer, self.way = False, "", ""

    def lists(self):
        """Whose members get it."""
        if self.kind not in ("posting", "hostile"):
            return []
        return [name for name in LISTS if address(name) in self.recipients]


class Traffic:
    def __init__(self, chain, chance, number):
        self.chain, self.chance, self.number, self.mails, self.lock = chain, chance, number, {}, threading.Lock()
        self.questions, self.answering, self.tried, self.added = queue.Queue(), 0, [], []
        self.has_late = False
        chain.relay.heard = self.hear
        threading.Thread(target=self.answer, daemon=True).start()

    # Handing in.

    def post(self, mail, way=None, kill_after=None):
        """Once; what is not taken is not tried again."""
        mail.way = way or self.chance.choice(("lmtp", "lmtp", "pipe"))
        with self.lock:
            self.mails[mail.key] = mail
        if mail.way == "pipe":
            text = mail.data if self.chance.random() < 0.5 or mail.kind == "hostile" else mail.data.replace(b"\r\n", b"\n")
            status, _ = self.chain.tool("dlsubmit", "-f", mail.sender, "--", *mail.recipients, data=text, kill_after=kill_after)
            mail.accepted, mail.answer = status == 0, str(status) if status > 0 else ""
        else:
            with contextlib.suppress(OSError, EOFError):
                self.lmtp(mail)
        mail.data = None
        return mail.accepted

    def lmtp(self, mail):
        with socket.socket(socket.AF_UNIX) as client:
            client.settimeout(60)
            client.connect(str(self.chain.socket))
            answers = client.makefile("rb")

            def say(line, want):
                if line:
                    client.sendall(line + b"\r\n")
                while (answer := answers.readline()) and answer[3:4] == b"-":
                    pass
                if not answer:
                    raise EOFError
                if not answer.startswith(want):
                    mail.answer = answer.decode(errors="replace").strip()
                    raise EOFError

            say(b"", b"220")
            say(b"LHLO client.example", b"250")
            say(f"MAIL FROM:<{mail.sender}> BODY=8BITMIME".encode(), b"250")
            for recipient in mail.recipients:
                say(f"RCPT TO:<{recipient}>".encode(), b"250")
            say(b"DATA", b"354")
            client.sendall((b"." if mail.data.startswith(b".") else b"") + mail.data.replace(b"\r\n.", b"\r\n..") + b".\r\n")
            for _ in mail.recipients:
                say(b"", b"250")
            mail.accepted = True

    # Postings.

    def text(self, lines):
        return b"".join(b"%d %s\r\n" % (line, os.urandom(20).hex().encode()) for line in range(lines)) + b"end\r\n"

    def ordinary(self, key):
        """A posting, or now and then something else that has one right answer."""
        chance, draw = self.chance, self.chance.random()
        body = self.text(chance.choice((1, 10, 60, 60, 300, 3000)))
        if draw < 0.04:
            return Mail(key, "unknown", chance.choice(STATIC), [address("nobody" + key)], body=body)
        if draw < 0.07:
            return Mail(key, "refused", chance.choice((STRANGER, BLOCKED)), [address("closed")], body=body)
        if draw < 0.10:
            return Mail(key, "owner", STRANGER, [address(chance.choice(list(LISTS)[:4]), "-owner")], body=body)
        names = [name for name in LISTS if name != "late" or self.has_late]
        chosen = chance.sample(names, 2 if draw < 0.25 else 1)
        return Mail(key, "posting", chance.choice(STATIC), [address(name) for name in chosen], body=body)

    def run(self, count, seconds, kills):
        """`count` postings over about so many seconds by three clients; some pipes are killed when `kills`."""
        numbers = iter(range(count))
        began = time.time()

        def client():
            while True:
                with self.lock:
                    number = next(numbers, None)
                if number is None:
                    return
                time.sleep(max(0.0, began + seconds * number / count - time.time()))
                kill_after = self.chance.uniform(0, 0.03) if kills and self.chance.random() < 0.3 else None
                self.post(self.ordinary(f"{self.number}-{number}"), kill_after=kill_after)

        threads = [threading.Thread(target=client, daemon=True) for _ in range(3)]
        for thread in threads:
            thread.start()
        return threads

    def hostile(self, name, big, suffix=""):
        header, body = hostile.mails(big)[name]
        key = f"{self.number}-hostile-{name.replace(' ', '-')}{suffix}"
        return Mail(key, "hostile", STATIC[0], [address("mime"), address("closed")], header, body)

    def make_late_list(self):
        """While the directory may be away for all others."""
        if self.chain.proxy:
            slapd = f"ldap://127.0.0.1:{self.chain.directory.port}/"
            subprocess.run(["ldapadd", "-x", "-H", slapd, "-D", SERVICE_DN, "-w", "secret"], input="\n".join(entries("late")),
                           text=True, check=True, capture_output=True, timeout=60)
        else:
            while self.chain.tool("dlctl", "list", "create", address("late"), "--owner", OWNER, "--no-archive")[0] != 0:
                time.sleep(0.1)
            while self.chain.tool("dlctl", "member", "add", address("late"), *STATIC)[0] != 0:
                time.sleep(0.1)
        while self.chain.tool("dlctl", "list", "check", "--fix", address("late"))[0] == 1:
            time.sleep(0.1)
        self.has_late = True

    # Dialogues.

    def request(self, who, command):
        word = command.replace("scribe", "scription")
        self.post(Mail(f"{self.number}-{who.split('@')[0]}", word, who, [address("club", "-request")], body=command.encode() + b"\r\n",
                       subject="please"))

    def hear(self, taken):
        if taken.kind == "question":
            self.questions.put(taken)

    def answer(self):
        """OK to each confirmation request, once."""
        seen = set()
        while True:
            taken = self.questions.get()
            if (taken.subject, taken.recipients[0]) in seen:
                continue
            seen.add((taken.subject, taken.recipients[0]))
            self.answering += 1
            word, who = taken.subject.split()[0], taken.recipients[0]
            key = f"{self.number}-{who.split('@')[0]}-ok"
            mail = Mail(key, f"{word} confirmation", who, [address("club", "-request")], body=b"OK\r\n", subject="Re: " + taken.subject)
            mail.number = re.search(r"\((\w+)\)", taken.subject)[1]
            self.post(mail)
            self.answering -= 1

    # What time brings.

    def make_due(self):
        """The archives' pages, or the digest of a list that has one."""
        names = [address(name) + "/digest/digest.dt" for name in ("closed", "mime")] + ["index.dt"]
        path = self.chain.disk.top / "data" / self.chance.choice(names)
        with self.chain.on_disk(), contextlib.suppress(OSError), open(path, "r+b") as file:
            file.write(str(self.chain.now()).encode())
            file.flush()
            os.fsync(file.fileno())
