"""Mails that want to do harm: name -> (header lines, body), CRLF line ends. `big` is how many bytes the large ones have."""
import time

MIME = b"MIME-Version: 1.0\r\n"
DEEP = 5_000


def nested(depth, big):
    """Multiparts within multiparts, none of them ended."""
    body = b"".join(b"--b%d\r\nContent-Type: multipart/mixed; boundary=b%d\r\n\r\n" % (level, level + 1) for level in range(depth))
    return MIME + b"Content-Type: multipart/mixed; boundary=b0\r\n", body[:big] + b"end\r\n"


def forwarded(depth):
    """Messages within messages."""
    inner = b"".join(b"Content-Type: message/rfc822\r\nSubject: level %d\r\n\r\n" % level for level in range(depth))
    return MIME + b"Content-Type: message/rfc822\r\n", inner + b"Subject: innermost\r\n\r\nend\r\n"


def clashes():
    """Every boundary that our programs would take within the next minutes, opened and closed."""
    forms = (b"KVT.boundary.%08X", b"KVT.Boundary.digest.%08X", b"KVT.Boundary.%08X")
    names = [form % (int(time.time()) + second) for second in range(300) for form in forms]
    return b"", b"".join(b"--%s\r\n\r\n--%s--\r\n" % (name, name) for name in names)


def mails(big):
    return {
        "nested groups": (b"Cc: " + b"g:" * 50_000 + b";\r\n", b"text\r\n"),
        "continuations": (MIME + b"Content-Type: multipart/mixed;\r\n" + b" a=b;\r\n" * (big // 7) + b" boundary=b\r\n", b"--b--\r\n"),
        "References": (b"References:" + b"".join(b"\r\n <%d@client.example>" % i for i in range(min(100_000, big // 26))) + b"\r\n", b"text\r\n"),
        "deep MIME": nested(DEEP, big),
        "deep forwards": forwarded(DEEP),
        "boundaries": clashes(),
        "NULs": (b"X-Nul: a\0b\r\n\0: c\r\n", b"\0" * 1000 + b"\r\n\0.\r\nend\r\n"),
        "bare CR and LF": (b"X-Bare: a\rb\nX-Smuggled: c\r\n", b"a\nb\rc\n.\nd\r.\re\r\n\n.\r\n\rend\r\n"),
        "8-bit header": (b"X-Eight: " + bytes(range(128, 256)) + b"\r\nX-\xff: \xc3\x28\r\nComments: \xf0\x9f\r\n", b"\xff\xfe\r\n"),
        "long header": (b"X-Long: " + b"x" * min(5_000_000, big) + b"\r\n", b"text\r\n"),
        "dot lines": (b"", b".\r\n..\r\n.\r\n...x\r\n" * 500 + b"QUIT\r\n.\r\n"),
        "encoded words": (b"Comments: " + b"=?utf-8?Q?=C3?= =?" * min(50_000, big // 17) + b"\r\n", b"text\r\n"),
        "base64 without end": (MIME + b"Content-Transfer-Encoding: base64\r\n", b"QUJD" * (big // 8) + b"\r\n"),
        "html": (MIME + b"Content-Type: text/html\r\n", b"<div><!--" * (big // 64) + b"&" * 100_000 + b"\r\n"),
    }
