"""The mail relay that dlsend hands over to: writes down what it takes, and fails on request."""
import hashlib
import json
import random
import re
import threading
import time

from listener import Listener

ENTRY = re.compile(rb"\AReceived: from DL manager by [^;]*? id (\w+);", re.S)
KEY = re.compile(rb"^X-Ledger: (\S+)\r$", re.M)
LONGEST_HEADER = 4096  # of what is looked at: fields that our programs write come first


class Taken:
    """A message that the relay took, whether or not it could say so."""

    def __init__(self, began, sender, recipients, data):
        self.began, self.took, self.replied = began, time.time(), None
        self.sender, self.recipients = sender, recipients
        entry = ENTRY.match(data)
        self.entry = entry[1].decode() if entry else "?"
        head, self.size = data[:LONGEST_HEADER], len(data)
        top = head.split(b"\r\n\r\n", 1)[0]
        subject = re.search(rb"^Subject: (.*)\r?$", top, re.M)
        self.subject = subject[1].decode(errors="replace").strip() if subject else ""
        self.kind, self.keys, self.topics, self.parts = self.look(data, top)
        self.body = hashlib.sha1(data.split(b"\r\n\r\n", 1)[-1]).hexdigest()

    def look(self, data, top):
        """Kind, the postings in it, and for a digest its topics and the number of its parts."""
        keys = [key.decode() for key in KEY.findall(data)]
        if b"Content-Type: message/delivery-status" in data:
            return "report", keys, [], 0
        if self.sender == "":
            return "bounce", keys[:1], [], 0
        if self.subject.endswith("(fwd)"):
            return "owner", keys[:1], [], 0
        if " Digest (#" in self.subject:
            boundary = re.search(rb'^Content-type: Multipart/digest; boundary="(.*)"', data, re.M)
            parts = len(re.findall(rb"^--" + boundary[1] + rb"\r$", data, re.M)) if boundary else len(keys)
            return "digest", keys, [key.decode() for key in re.findall(rb"^ *\d+\.  posting (\S+)\r$", data, re.M)], parts
        if "confirmation request (" in self.subject:
            return "question", keys, [], 0
        if KEY.search(top):
            return "copy", keys[:1], [], 0
        return "notice", keys, [], 0

    def list(self):
        """The list's part before "@" that it comes from."""
        return re.sub(r"-(owner|request)@.*", "", self.sender)

    def facts(self):
        return {**self.__dict__, "keys": self.keys[:200]}


class Gone(Exception):
    """The connection ends here."""


class Session:
    """One connection of dlsend."""

    def __init__(self, relay, connection):
        self.relay, self.connection, self.buffer = relay, connection, bytearray()
        self.chance = random.Random(relay.chance.random())

    def fails(self, kind, share=0.5):
        return self.relay.fault == kind and self.chance.random() < share

    def say(self, text):
        if self.fails("slow"):
            time.sleep(self.chance.uniform(0.05, 0.4))
        if self.fails("hang", 0.2):
            self.hang()
        self.connection.sendall(text.encode() + b"\r\n")

    def hang(self):
        while self.relay.fault == "hang":
            time.sleep(0.05)
        raise Gone

    def fill(self):
        block = self.connection.recv(1 << 18)
        if not block or self.relay.fault == "refuse":
            raise Gone
        self.buffer += block

    def line(self):
        while (end := self.buffer.find(b"\r\n")) < 0:
            self.fill()
        line = bytes(self.buffer[:end])
        del self.buffer[:end + 2]
        return line

    def data(self):
        dies = self.chance.randrange(20_000) if self.fails("die", 0.3) else None
        searched = 0
        while (end := self.buffer.find(b"\r\n.\r\n", max(0, searched - 5))) < 0:
            if dies is not None and len(self.buffer) > dies:
                raise Gone
            searched = len(self.buffer)
            self.fill()
        data = bytes(self.buffer[:end + 2])
        del self.buffer[:end + 5]
        return (data[1:] if data.startswith(b".") else data).replace(b"\r\n..", b"\r\n.")

    def transaction(self, sender, recipients, began):
        self.say("354 go on")
        data = self.data()
        if self.fails("tempfail", 0.3):
            self.say("451 4.3.0 not now")
            return
        taken = self.relay.take(Taken(began, sender, recipients, data), data)
        if self.fails("die"):
            raise Gone
        self.say("250 2.0.0 taken")
        taken.replied = time.time()

    def serve(self):
        self.say("220 relay.example ESMTP")
        sender, recipients, began = None, [], 0.0
        while True:
            line = self.line()
            verb = line[:4].upper()
            if verb == b"QUIT":
                self.say("221 2.0.0 bye")
                return
            if verb == b"EHLO":
                self.say("250-relay.example\r\n250-8BITMIME\r\n250-SMTPUTF8\r\n250 PIPELINING")
            elif verb in (b"MAIL", b"RCPT") and self.fails("tempfail", 0.3):
                self.say("451 4.3.0 not now")
            elif verb == b"MAIL":
                sender, recipients, began = re.search(rb"<(.*?)>", line)[1].decode(), [], time.time()
                self.say("250 2.1.0 ok")
            elif verb == b"RCPT":
                recipients.append(re.search(rb"<(.*?)>", line)[1].decode())
                self.say("250 2.1.5 ok")
            elif verb == b"DATA" and recipients:
                self.transaction(sender, recipients, began)
                sender, recipients = None, []
            elif verb == b"RSET":
                sender, recipients = None, []
                self.say("250 2.0.0 ok")
            else:
                self.say("503 5.5.1 not now")


class Relay(Listener):
    """fault: none, refuse, die, tempfail, hang or slow. `heard` is called with each Taken, on the connection's thread."""

    def __init__(self, ledger, chance):
        self.ledger, self.chance = open(ledger, "w", encoding="utf-8"), chance
        self.taken, self.lock, self.heard = [], threading.Lock(), lambda taken: None
        super().__init__(self.serve)

    def serve(self, connection):
        with connection:
            connection.settimeout(60)
            try:
                Session(self, connection).serve()
            except (Gone, OSError):
                pass  # dlsend has died, or the relay does

    def take(self, taken, data):
        with self.lock:
            self.taken.append(taken)
            self.ledger.write(json.dumps(taken.facts()) + "\n")
        self.heard(taken)
        return taken

    def end(self):
        self.open, self.fault = False, "none"
        with self.lock:
            self.ledger.close()
