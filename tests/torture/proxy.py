"""A TCP proxy before slapd that understands enough of LDAP to answer in its place, or only half."""
import random
import socket
import threading
import time

from listener import Listener

ANSWERS = {0x60: 0x61, 0x63: 0x65, 0x66: 0x67, 0x68: 0x69, 0x4A: 0x6B}  # bind, search, modify, add, delete
SEARCH, ENTRY, SEARCH_DONE = 0x63, 0x64, 0x65
CODES = {"timeLimit": 3, "adminLimit": 11, "busy": 51, "unavailable": 52, "other": 80}
FAULTS = ("refuse", "hang", "cut", *CODES)


def message_length(data):
    """Of the LDAPMessage that begins here; 0 when more is needed to know it."""
    if len(data) < 2:
        return 0
    if data[1] < 0x80:
        return 2 + data[1]
    digits = data[1] & 0x7F
    return 2 + digits + int.from_bytes(data[2:2 + digits], "big") if len(data) >= 2 + digits else 0


def parts(message):
    """The message's number, encoded, and the tag of what it asks or answers."""
    at = 2 + (message[1] & 0x7F if message[1] >= 0x80 else 0)
    number = message[at:at + 2 + message[at + 1]]
    return number, message[at + len(number)]


def answer(number, tag, code):
    result = bytes([tag, 7, 0x0A, 1, code, 4, 0, 4, 0])
    return bytes([0x30, len(number) + len(result)]) + number + result


class Proxy(Listener):
    def __init__(self, port, chance):
        self.server, self.chance = port, chance
        super().__init__(self.connect)

    def connect(self, client):
        client.settimeout(60)
        try:
            server = socket.create_connection(("127.0.0.1", self.server), 5)
        except OSError:
            client.close()
            return
        chance = random.Random(self.chance.random())
        ways = ((client, server, lambda message: self.ask(message, client, chance)),
                (server, client, lambda message: self.reply(message, chance)))
        for way in ways:
            threading.Thread(target=self.pump, args=way, daemon=True).start()

    def ask(self, message, client, chance):
        """What of a request goes to the server. Some are answered here and never get there; a search may also be begun."""
        number, tag = parts(message)
        code = CODES.get(self.fault)
        if code is None or tag not in ANSWERS or (tag == SEARCH and chance.random() < 0.5):
            return message
        client.sendall(answer(number, ANSWERS[tag], code))
        return b""

    def reply(self, message, chance):
        """What of an answer comes back: under a fault half of the entries, and another end."""
        number, tag = parts(message)
        code = CODES.get(self.fault)
        if code is None or tag not in (ENTRY, SEARCH_DONE):
            return message
        if tag == SEARCH_DONE:
            return answer(number, tag, code)
        return message if chance.random() < 0.5 else b""

    def pump(self, source, target, edit):
        pending = b""
        try:
            while block := source.recv(65536):
                pending += block
                while self.open and (length := message_length(pending)) and len(pending) >= length:
                    while self.fault == "hang":
                        time.sleep(0.02)
                    message, pending = edit(pending[:length]), pending[length:]
                    if self.fault == "cut" and source.getpeername()[1] == self.server and self.chance.random() < 0.3:
                        target.sendall(message[:len(message) // 2])
                        raise OSError("cut")
                    target.sendall(message)
        except OSError:
            pass
        for end in (source, target):
            try:
                end.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass
            end.close()

    def end(self):
        self.open, self.fault = False, "none"
