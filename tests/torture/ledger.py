"""What was promised against what came of it, when a round has come to rest.

Each function yields findings, (kind, text); FINDINGS says in which words the kinds are counted. Nothing is looked at through our
programs: the relay's record, the files of the data folder, the archives' indexes and the directory are read as they are.
"""
import collections
import datetime
import re
import sqlite3

from relay import KEY, LONGEST_HEADER
from traffic import ARCHIVED, BLOCKED, LEAVERS, LISTS, OWNER, STATIC, address

FINDINGS = {
    "lost": "accepted and lost", "doubled": "doubled inside the house", "repeated": "handed over twice without a cause",
    "changed": "changed on the way", "outage": "answered wrongly, or bounced for an outage", "refused": "refused for good at the intake",
    "digest": "wrong in digests", "archive": "wrong in archives", "member": "wrong in memberships",
    "hold": "in dlhold, or blamed for an attempt", "rest": "not at rest", "slow": "held up others too long", "crash": "crashes",
}
WRITE_TIME = 2  # seconds after which dlsend has surely written down what it was told
DAY = 86400


class Ledger:
    def __init__(self, chain, traffic):
        self.chain, self.traffic, self.counts = chain, traffic, collections.Counter()
        self.mails = traffic.mails
        with chain.relay.lock:
            self.taken = list(chain.relay.taken)
        self.log = "".join(file.read_text(errors="replace") for file in sorted(chain.dir.glob("*.log")))

    def check(self):
        for step in (self.deliveries, self.bodies, self.intake, self.digests, self.archives, self.memberships, self.blamed):
            yield from step()
        yield from (("crash", text) for text in self.chain.crashes)

    # Mails.

    def expected(self):
        """(kind, what it is of, from which list, to whom) -> how often it must be there: (least, most)."""
        want = {}
        for mail in self.mails.values():
            least = int(mail.accepted)
            for name in mail.lists():
                for member in [*STATIC, *([BLOCKED] if name == "closed" else [])]:  # who is blocked may read
                    want["copy", mail.key, name, member] = (least, 1)
                for member in (*LEAVERS, *self.newcomers()) if name == "club" else ():
                    want["copy", mail.key, name, member] = (0, 1)
            if mail.kind in ("unknown", "refused"):
                want["bounce", mail.key, "", mail.sender] = (least, 1)
            elif mail.kind not in ("posting", "hostile"):
                want["owner", mail.key, mail.recipients[0].split("@")[0].removesuffix("-owner").removesuffix("-request"), OWNER] = (least, 1)
            if mail.kind in ("subscription", "unsubscription"):
                want["question", f"{mail.kind} of", "club", mail.sender] = (least, 1)
            elif mail.kind.endswith("confirmation"):
                want["notice", f"Your {mail.kind.split()[0]} of", "club", mail.sender] = (least, 1)
        for mail in self.forgotten():  # the reply came too late: it is answered so
            del want["owner", mail.key, "club", OWNER]
            del want["notice", f"Your {mail.kind.split()[0]} of", "club", mail.sender]
            want["bounce", mail.key, "", mail.sender] = (int(mail.accepted), 1)
        return want

    def newcomers(self):
        return [mail.sender for mail in self.mails.values() if mail.kind == "subscription"] + self.traffic.tried

    def forgotten(self):
        """Replies to requests that had expired when the clock had jumped."""
        expired = set(re.findall(r"/(\w{8})\.cnf is expired", self.log))
        heard = set(re.findall(r"Received \w+ confirm message from (\S+) ", self.log))
        return [mail for mail in self.mails.values() if getattr(mail, "number", "") in expired and mail.sender not in heard]

    def found(self):
        """The same names -> what the relay took, in order."""
        got = collections.defaultdict(list)
        for taken in self.taken:
            for recipient in taken.recipients:
                if taken.kind == "question":
                    name = f"{taken.subject.split()[0]} of"
                elif taken.kind == "notice":
                    name = " ".join(taken.subject.split()[:3])
                else:
                    name = taken.keys[0] if taken.keys else taken.subject
                got[taken.kind, name, taken.list(), recipient].append(taken)
        return got

    def deliveries(self):
        want, got = self.expected(), self.found()
        for name, (least, _) in want.items():
            if least and not got.get(name):
                yield "lost", f"{' '.join(name)} did not come"
        for name, copies in got.items():
            if name[0] == "digest":
                continue
            if name not in want:
                yield "outage", f"{' '.join(name)} came unasked for: {copies[0].subject!r}"
            yield from self.repeated(name, copies)
        self.counts["postings accepted"] = sum(mail.accepted for mail in self.mails.values())
        self.counts["not acknowledged"] = sum(not mail.accepted for mail in self.mails.values())
        self.counts["of them through all the same"] = len({name[1] for name in got} & {mail.key for mail in self.mails.values() if not mail.accepted})

    def repeated(self, name, copies):
        by_entry = collections.defaultdict(list)
        for taken in copies:
            by_entry[taken.entry].append(taken)
        if len(by_entry) > 1:
            yield "doubled", f"{' '.join(name)} came in several entries: {', '.join(by_entry)}"
        for entry, some in by_entry.items():
            for taken, again in zip(some, some[1:]):
                if self.is_explained(taken, again):
                    self.counts["relay's doubt"] += 1
                else:
                    yield "repeated", (f"{' '.join(name)} of entry {entry} was taken at {taken.took:.3f} and {again.took:.3f}, answered at "
                                       f"{taken.replied or 0:.3f}")

    def is_explained(self, taken, again):
        """Did the relay not answer, or dlsend die, or the disk run full before the answer was written down?"""
        if taken.replied is None or taken.replied - taken.took > 2:
            return True
        chain = self.chain
        ends = [when for when, name in chain.deaths if name == "dlsend"] + [began for began, _ in chain.power_losses]
        limit = taken.took + WRITE_TIME
        for began, end in chain.full:  # on a full disk the answer cannot be written down until there is room
            limit = max(limit, end + WRITE_TIME) if began - 1 < limit and taken.took < end else limit
        return any(taken.began <= when <= min(again.took, limit) for when in ends)

    def bodies(self):
        for taken in self.taken:
            mail = self.mails.get(taken.keys[0]) if taken.kind == "copy" else None
            if mail and mail.body and taken.body != mail.body:
                yield "changed", f"{mail.key} from {taken.list()} has another text ({taken.size} bytes)"

    def intake(self):
        """What is not accepted must be worth another try."""
        for mail in self.mails.values():
            if mail.answer and not mail.answer.startswith(("4", "75")):
                yield "refused", f"{mail.key} by {mail.way}: {mail.answer}"
            elif mail.answer:
                self.counts[f"answer {mail.answer[:9] if mail.way == 'lmtp' else 'exit ' + mail.answer}"] += 1

    # Folders.

    def of_list(self, name):
        """Postings to a list: those that must be somewhere, and those that may."""
        mails = [mail for mail in self.mails.values() if name in mail.lists()]
        return {mail.key for mail in mails if mail.accepted}, {mail.key for mail in mails}

    def folder(self, path):
        """File name -> posting."""
        keys = {}
        for file in sorted(path.glob("*.msg")):
            key = KEY.search(file.read_bytes()[:LONGEST_HEADER])
            keys[file.name] = key[1].decode() if key else f"(none in {file.name})"
            mail = self.mails.get(keys[file.name])
            if mail and mail.body and not file.read_bytes().endswith(b"end\r\n"):
                keys[file.name] = f"(cut off: {mail.key} in {file.name})"
        return keys

    def compare(self, kind, where, present, must, may):
        counts = collections.Counter(present)
        yield from ((kind, f"{key} is not in {where}") for key in sorted(must - set(counts)))
        yield from ((kind, f"{key} is in {where} without right") for key in sorted(set(counts) - may))
        yield from ((kind, f"{key} is in {where} {count} times") for key, count in sorted(counts.items()) if count > 1)

    def digests(self):
        sent, got = collections.defaultdict(dict), self.found()
        for (kind, _, name, recipient), copies in got.items():
            for taken in copies if kind == "digest" else ():
                sent[name].setdefault(taken.entry, {}).setdefault(recipient, []).append(taken)
        for name, (_, readers) in LISTS.items():
            folder = self.chain.disk.top / "data" / address(name) / "digest"
            waiting, digests = self.folder(folder), sent[name]
            present = list(waiting.values())
            for entry, copies in digests.items():
                first = next(iter(copies.values()))[0]
                present += first.keys
                self.counts["digests"] += 1
                if sorted(first.topics) != sorted(first.keys) or first.parts != len(first.keys):
                    yield "digest", f"digest {entry} of {name}: {len(first.topics)} topics, {first.parts} parts, {len(first.keys)} postings"
                for reader in readers:
                    if reader not in copies:
                        yield "digest", f"digest {entry} of {name} did not come to {reader}"
                for reader, some in copies.items():
                    yield from self.repeated(("digest", entry, name, reader), some)
            must, may = self.of_list(name)  # what waits for nobody is removed at the list's date
            yield from self.compare("digest", f"the digests of {name}", present, must if readers else set(), may)
            yield from self.topics(name, folder, list(waiting.values()))
            yield from self.moment(name, folder)

    def topics(self, name, folder, waiting):
        file = folder / "subject.txt"
        lines = re.findall(r"^ *(\d+)\.  posting (\S+)$", file.read_text(errors="replace"), re.M) if file.exists() else []
        if [int(number) for number, _ in lines] != list(range(1, len(waiting) + 1)) or sorted(key for _, key in lines) != sorted(waiting):
            yield "digest", f"the {len(lines)} topics of {name} do not fit its {len(waiting)} postings"

    def moment(self, name, folder):
        """Digests are daily, at midnight UTC."""
        midnight = datetime.datetime.now(datetime.timezone.utc).replace(hour=0, minute=0, second=0, microsecond=0).timestamp()
        if folder.exists() and not midnight <= int((folder / "digest.dt").read_text()) <= midnight + DAY:
            yield "digest", f"the next digest of {name} is due at {(folder / 'digest.dt').read_text()}, the next midnight is {midnight + DAY:.0f}"

    def archives(self):
        for name in ARCHIVED:
            folder = self.chain.disk.top / "data" / address(name) / "archive"
            files = self.folder(folder)
            yield from self.compare("archive", f"the archive of {name}", files.values(), *self.of_list(name))
            index = sqlite3.connect(f"file:{folder}/index.db?mode=ro", uri=True)
            try:
                rows = [number for table in ("posting", "incoming") for number, in index.execute(f"SELECT id FROM {table}")]
                failed = {number for number, in index.execute("SELECT id FROM incoming WHERE failed > 0")}
                self.counts["archived"] += len(rows)
            except sqlite3.Error as problem:
                rows, failed = [], set()
                if files:
                    yield "archive", f"the index of {name}: {problem}"
            finally:
                index.close()
            known = {int(file[:8], 16): key for file, key in files.items()}
            yield from self.compare("archive", f"the archive's index of {name}", (known.get(n, f"(no file {n:08X})") for n in rows),
                                    set(known.values()), set(known.values()))
            for number in failed:
                if "hostile" not in known.get(number, "hostile"):
                    yield "archive", f"{known[number]} counts as unreadable in the archive of {name}"
                self.counts["unreadable in an archive"] += 1

    # Members.

    def memberships(self):
        members = {value.rpartition(";")[2] for value in self.chain.directory.members(address("club"))}
        late = self.forgotten()
        for mail in self.mails.values():
            if not mail.kind.endswith("confirmation") or not mail.accepted or mail in late:
                continue
            self.counts["memberships changed"] += 1
            if (mail.sender in members) != mail.kind.startswith("subscription"):
                yield "member", f"{mail.sender} confirmed a {mail.kind.split()[0]}, which was not carried out"
            pending = self.chain.disk.top / "data" / address("club") / f"{mail.number}.cnf"
            # A number that is free again may be given to another within the second.
            if pending.exists() and (mail.sender in pending.read_text() or not pending.stat().st_size):
                yield "member", f"the request {mail.number} of {mail.sender} is still open"
        for who in [*self.traffic.added, *STATIC]:
            if who not in members:
                yield "member", f"{who} is not in the directory"

    def blamed(self):
        for line in self.log.splitlines():
            if re.search(r"cannot be handled \(|could not be handled in \d+ attempts|is moved to channel dlhold", line):
                yield "hold", line
