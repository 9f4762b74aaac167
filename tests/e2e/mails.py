"""The postings of the round trip, and what of a message must come out again byte by byte."""
import base64
import random
import re


def posting(name, header=b"", body=b"text\r\n"):
    return (b"From: Anna <anna@members.example>\r\nTo: garden@lists.example.org\r\nSubject: " + name.encode() + b"\r\nMessage-ID: <" +
            name.encode() + b"@client.example>\r\nDate: Tue, 09 Nov 2004 11:33:20 +0000\r\n" + header + b"\r\n" + body)


def samples():
    """Name -> message, CRLF line ends."""
    chance = random.Random(4711)
    attachment = b"\r\n".join(base64.encodebytes(chance.randbytes(50_000)).split(b"\n"))
    big = b"".join(b"%07d " % i + b"0123456789abcdef" * 4 + b"\r\n" for i in range(145_000))  # 10.7 MB
    mime = (b"--b1\r\nContent-Type: text/plain; charset=utf-8\r\nContent-Transfer-Encoding: 8bit\r\n\r\nGr\xc3\xbc\xc3\x9fe\r\n"
            b"--b1\r\nContent-Type: application/octet-stream; name=a.bin\r\nContent-Transfer-Encoding: base64\r\n\r\n" +
            attachment + b"\r\n--b1--\r\nepilogue\r\n")
    mime_header = b"MIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=b1\r\n"
    eight = b"MIME-Version: 1.0\r\nContent-Type: text/plain; charset=iso-8859-1\r\nContent-Transfer-Encoding: 8bit\r\n"
    long_lines = b"\r\n".join([b"x" * 997, b"y" * 998, b"z" * 999, b"w" * 2050, b"v " * 40_000, b"end", b""])
    return {
        "plain": posting("plain", body=b"Hello\r\n\r\n  all  \r\n\ttabs \t\r\n"),
        "empty": posting("empty", body=b""),
        "mime": posting("mime", mime_header, mime),
        "eight": posting("eight", eight, b"\xe4\xf6\xfc\xdf " * 20 + b"\r\n\xff\xfe\r\n"),
        "dots": posting("dots", body=b".\r\n..\r\n.x\r\n\r\n.\r\n. \r\nend\r\n.\r\n"),
        "long": posting("long", body=long_lines),
        "folded": posting("folded", b"X-Long: " + b"a" * 900 + b"\r\n " + b"b" * 900 + b"\r\nX-Empty:\r\n"),
        "big": posting("big", body=big),
    }


# Header fields that the way adds or, like Received, renames.
WAY = re.compile(rb"(received|x-orig-received|sender|return-path|delivered-to|x-original-to):", re.I)


def fields(message):
    """Header fields with their line ends, and the rest from the empty line on."""
    end = message.index(b"\r\n\r\n") + 2 if b"\r\n\r\n" in message else len(message)
    return re.split(rb"(?<=\r\n)(?![ \t])", message[:end])[:-1], message[end:]


def essence(message):
    """The message without what the way has done to it; line ends as CRLF."""
    if b"\r\n" not in message:
        message = message.replace(b"\n", b"\r\n")
    header, body = fields(message)
    return b"".join(field for field in header if not WAY.match(field)) + body


def field(message, name):
    """All fields of that name, unfolded."""
    header, _ = fields(message if b"\r\n" in message else message.replace(b"\n", b"\r\n"))
    prefix = name.lower() + b":"
    return [re.sub(rb"\r\n\s*", b" ", one[len(prefix):]).strip() for one in header if one.lower().startswith(prefix)]
