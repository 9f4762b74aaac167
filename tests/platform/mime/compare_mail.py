#!/usr/bin/env python3
"""Reads golden pairs with another mail library and checks that only what may change has changed.

Arguments: the folder, the HTML disclaimer, then NAME:TEXT-DISCLAIMER for each pair. Prints each difference; status 1
when there is one.
"""
import email
import re
import sys

CHARSETS = {"windows_quotes": "windows-1252"}  # of bodies that do not say theirs, or say it wrongly
faults = []


def leaves(part, safe=True):
    """Each leaf with whether it may carry a disclaimer; a message/rfc822 is one leaf."""
    kind = part.get_content_type()
    if part.is_multipart() and part.get_content_maintype() == "multipart":
        for child in part.get_payload():
            yield from leaves(child, safe and kind not in ("multipart/signed", "multipart/encrypted"))
        return
    body = kind in ("text/plain", "text/html") and not part.get_filename()
    yield part, safe and body and part.get_content_disposition() != "attachment"


def headers(part):
    changing = ("content-type", "content-transfer-encoding", "mime-version")
    return [(name, value) for name, value in part.items() if name.lower() not in changing]


def parameters(part):
    return {k.lower(): v for k, v in part.get_params(failobj=[])[1:] if k.lower() != "charset"}


def reading(part):
    """What must be the same of a part, its body aside."""
    return part.get_content_type(), parameters(part), headers(part), [type(defect) for defect in part.defects]


def text_of(part, fallback):
    charset = part.get_content_charset() or "utf-8"
    if fallback and charset == "iso-8859-1":
        charset = fallback
    return part.get_payload(decode=True).decode(charset).replace("\r\n", "\n")


def unstuffed(text):
    return [line.strip(" ") for line in text.strip("\n").split("\n")]


def check_text(name, before, after, text, html):
    old, new = (text_of(part, CHARSETS.get(name)) for part in (before, after))
    if after.get_content_subtype() == "html":
        if html.strip() not in new or re.sub(r"\s", "", new.replace(html, "")) != re.sub(r"\s", "", old):
            faults.append(f"{name}: html part {new!r}")
    elif not new.startswith(old) or unstuffed(new[len(old):]) != unstuffed(text):
        faults.append(f"{name}: text part {new!r}")


def check(folder, name, text, html):
    before, after = (email.message_from_bytes(open(f"{folder}/{name}.{end}.eml", "rb").read()) for end in ("in", "want"))
    for a, b in zip(before.walk(), after.walk(), strict=True):
        if reading(a) != reading(b):
            faults.append(f"{name}: {reading(a)} became {reading(b)}")
        if a.is_multipart() and (a.preamble, a.epilogue) != (b.preamble, b.epilogue):
            faults.append(f"{name}: preamble or epilogue differs")
    for (a, safe), (b, _) in zip(leaves(before), leaves(after), strict=True):
        if safe:
            check_text(name, a, b, text, html)
        elif a.as_bytes() != b.as_bytes():
            faults.append(f"{name}: {a.get_content_type()} part differs")


def main():
    folder, html_file, *pairs = sys.argv[1:]
    html = open(f"{folder}/{html_file}", encoding="utf-8").read().encode("ascii", "xmlcharrefreplace").decode()
    for pair in pairs:
        name, text_file = pair.split(":")
        check(folder, name, open(f"{folder}/{text_file}", encoding="utf-8").read(), html)
    print("\n".join(faults) or f"{len(pairs)} pairs agree")
    return 1 if faults or not pairs else 0


if __name__ == "__main__":
    sys.exit(main())
