"""Runs the whole chain under faults, round after round, and compares what was promised with what came of it.

usage: torture.py BINARIES [MINUTES] [--case NAME...] [--seed N] [--shim LIBRARY] [--mounts]
What a round does is drawn from its seed, and the next has the next seed; when exactly, the machine decides. What is disturbed:
disturb.CASES. Exit status 1 when anything is wrong; the folders of such rounds are kept (of all rounds with DL_KEEP set).
"""
import argparse
import collections
import ctypes
import os
import pathlib
import random
import shutil
import signal
import subprocess
import sys
import tempfile
import textwrap
import threading
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "e2e"))
import disturb
import hostile
from chain import Chain
from ledger import FINDINGS, Ledger
from traffic import LEAVERS, LISTS, STATIC, Mail, Traffic, address, entries

PR_SET_CHILD_SUBREAPER = 36
DISTURBED = (6.0, 9.0)  # seconds of a round
REST_TIME = 40  # after which a round must be at rest
HELD_UP = 1.0  # seconds that a hostile mail may take from the others
LARGE, SMALL = 900, 40  # megabytes of a disk
BIG, LITTLE = 16_000_000, 500_000  # bytes of a large hostile mail, by the disk
COLUMNS = 100
SHOWN = 5  # findings of each kind
TABLE = ("kills of", "power losses", "outages of the directory", "full disks", "disks without inodes", "clock jumps", "troubles of the relay",
         "shortages of descriptors", "hostile mails", "digests", "archived", "unreadable in an archive", "memberships changed", "postings accepted",
         "not acknowledged", "of them through all the same", "relay's doubt", "answer")


def possible(name, means):
    return means >= set(disturb.CASES[name].needs) & {"mounts", "shim"}


def draw(seed, wanted, means):
    """The cases of a round: in turn each of the table, and up to two others that go with it."""
    chance = random.Random(seed)
    can = [name for name in disturb.CASES if possible(name, means)]
    if wanted:
        return [name for name in can if name in wanted], chance
    names = [can[seed % len(can)], "kill"]
    names += chance.sample([name for name in can if name not in names], chance.randint(0, 2))
    for group in disturb.APART:
        for extra in [name for name in names if name in group][1:]:
            names.remove(extra)
    return list(dict.fromkeys(names)), chance


class Round:
    def __init__(self, options, seed, means, folder):
        self.seed, self.folder, self.counts = seed, folder, collections.Counter()
        self.names, self.chance = draw(seed, options.case, means)
        needs = {need for name in self.names for need in disturb.CASES[name].needs}
        self.ldif, self.small = "slapd" not in needs and self.chance.random() < 0.4, "small" in needs
        self.findings = []
        lists = [name for name in LISTS if name != "late"]
        self.chain = Chain(options.binaries, folder, self.chance, [entry for name in lists for entry in entries(name)], ldif=self.ldif,
                           megabytes=SMALL if self.small else LARGE, mounts="mounts" in means, shim=options.shim)
        try:
            self.chain.start(address(name) for name in lists)
            self.traffic = Traffic(self.chain, self.chance, f"r{seed}")
            self.disturb()
            self.come_to_rest()
            if "hostile" in self.names:
                self.measure_hostile()
            self.check()
        except Exception as problem:  # a round that cannot be ended counts as failed, and the next goes on
            self.findings.append(("rest", f"{type(problem).__name__}: {problem}"))
        finally:
            self.counts.update(f"kills of {name}" for _, name in self.chain.kills)
            if self.findings or os.environ.get("DL_KEEP"):
                self.keep()
            self.chain.end()

    def disturb(self):
        seconds = self.chance.uniform(*DISTURBED)
        stop = threading.Event()
        scene = disturb.Scene(self.chain, self.traffic, self.chance, stop, self.counts)
        jobs = [(disturb.CASES[name].run, scene) for name in self.names if disturb.CASES[name].run]
        jobs += [(self.dialogues, stop), (self.dates, stop), (self.make_late_list, stop)]
        jobs += [(self.post_hostile, stop)] if "hostile" in self.names else []
        threads = [threading.Thread(target=self.guard, args=job, daemon=True) for job in jobs]
        for thread in threads:
            thread.start()
        threads += self.traffic.run(self.chance.randint(30, 200), seconds, "kill" in self.names)
        time.sleep(seconds)
        stop.set()
        for thread in threads:
            thread.join(120)
            if thread.is_alive():
                self.findings.append(("rest", f"{thread} did not end"))

    def guard(self, job, argument):
        """A fault of the torture itself is not to pass for one of the house, but must be seen."""
        try:
            job(argument)
        except Exception as problem:
            self.findings.append(("rest", f"{job.__name__}: {type(problem).__name__}: {problem}"))

    def make_late_list(self, _):
        self.traffic.make_late_list()

    def dialogues(self, stop):
        who = [(f"s{number}@members.example", "subscribe") for number in range(3)]
        who += [(leaver, "unsubscribe") for leaver in LEAVERS]
        self.chance.shuffle(who)
        for member, command in who:
            if stop.wait(self.chance.uniform(0.2, 1.0)):
                return
            self.traffic.request(member, command)

    def dates(self, stop):
        while not stop.wait(self.chance.uniform(0.5, 2.0)):
            self.traffic.make_due()

    def hostile_names(self, count):
        return self.chance.sample(list(hostile.mails(10)), count)

    def post_hostile(self, stop):
        for name in self.hostile_names(6):
            if stop.wait(self.chance.uniform(0.1, 1.0)):
                return
            self.traffic.post(self.traffic.hostile(name, LITTLE if self.small else BIG))
            self.counts["hostile mails"] += 1

    def measure_hostile(self):
        """How long a posting waits behind each, when nothing else goes on."""
        for name in self.hostile_names(6):
            waits = []
            while not waits or (waits[-1] > HELD_UP and len(waits) < 2):  # once more, should the machine have been busy
                waits.append(self.wait_behind(name, len(waits)))
                self.counts["hostile mails"] += 1
            if min(waits) > HELD_UP:
                self.findings.append(("slow", f"a posting waited {min(waits):.1f} s behind {name!r}"))

    def wait_behind(self, name, number):
        mail = self.traffic.hostile(name, LITTLE if self.small else BIG, f"-alone{number}")
        probe = Mail(f"{mail.key}-probe", "posting", STATIC[0], [address("open")], body=self.traffic.text(1))
        self.traffic.post(mail, "lmtp")
        began = time.time()
        if not self.traffic.post(probe, "lmtp"):  # the disk is full, with what was kept
            return 0.0
        while not (took := [taken.took for taken in list(self.chain.relay.taken) if taken.kind == "copy" and taken.keys == [probe.key]]):
            if time.time() > began + REST_TIME:
                return float(REST_TIME)
            time.sleep(0.01)
        self.come_to_rest()
        return took[0] - began

    def come_to_rest(self):
        """Undisturbed, until nothing waits in any channel and nobody has an answer to write."""
        end, calm, waiting, blamed = time.monotonic() + REST_TIME, 0, [], set()
        while calm < 2:
            disturb.release_held(self.chain)
            waiting = self.chain.queue()
            if not {"kill", "power"} & set(self.names):  # who is killed again and again may be blamed on what it was at
                blamed |= {f"{item['id']} counts {item['attempts']} attempts" for item in waiting or () if item["attempts"]}
            idle = waiting == [] or (waiting and all(item["channel"] == "dlhold" for item in waiting))
            calm = calm + 1 if idle and self.traffic.questions.empty() and not self.traffic.answering else 0
            if time.monotonic() > end:
                wait = f"{len(waiting)} messages wait, first {waiting[0]}" if waiting else "a dialogue goes on, or the queue cannot be read"
                raise TimeoutError(f"after {REST_TIME} s: {wait}")
            time.sleep(0.3)
        held = [f"{item['id']} from {item['sender']} is in dlhold" for item in waiting or () if item["channel"] == "dlhold"]
        self.findings += [("hold", text) for text in (*held, *sorted(blamed))]

    def check(self):
        self.chain.stop()
        ledger = Ledger(self.chain, self.traffic)
        self.findings += ledger.check()
        self.counts += ledger.counts

    def keep(self):
        with open(self.folder / "findings", "w", encoding="utf-8") as file:
            file.writelines(f"{kind}: {text}\n" for kind, text in self.findings)
        self.chain.stop()
        self.chain.disk.keep(self.folder)

    def line(self):
        doubt = self.counts["relay's doubt"]
        kills = sum(count for name, count in self.counts.items() if name.startswith("kills"))
        directory = "file" if self.ldif else "slapd"
        return (f"seed {self.seed} {'+'.join(self.names)} ({directory}): {kills} kills, {self.counts['postings accepted']} accepted, "
                f"{self.counts['not acknowledged']} not, {self.counts['digests']} digests, {doubt} in doubt"
                f"{'' if not self.findings else f'; WRONG: {len(self.findings)}'}")


def report(totals, wrong, rounds, seconds):
    print(f"\n{rounds} rounds in {seconds:.0f} s")
    for start in TABLE:
        for name in sorted(name for name in totals if name.startswith(start)) or ([start] if start not in ("kills of", "answer") else []):
            print(f"  {name:<52}{totals[name]:>8}")
    print()
    for kind, words in FINDINGS.items():
        print(f"  {words:<52}{wrong[kind]:>8}")


def options():
    parser = argparse.ArgumentParser(prog="scripts/torture", description="Runs the whole chain under faults.")
    parser.add_argument("binaries", type=pathlib.Path)
    parser.add_argument("minutes", type=float, nargs="?", default=2)
    parser.add_argument("--case", nargs="+", choices=disturb.CASES, help="only these, together")
    parser.add_argument("--seed", type=int, default=random.SystemRandom().randrange(1_000_000))
    parser.add_argument("--shim", type=pathlib.Path, help="the library that sets our programs' clock")
    parser.add_argument("--mounts", action="store_true", help="disks may be mounted")
    return parser.parse_intermixed_args()


def main():
    chosen = options()
    chosen.binaries = chosen.binaries.resolve()
    ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)  # dlmanager goes on in a child, which is ours to wait for
    means = ({"mounts"} if chosen.mounts else set()) | ({"shim"} if chosen.shim else set())
    for name in disturb.CASES:
        if not possible(name, means):
            print(f"skipped: {name}, which needs {' and '.join(set(disturb.CASES[name].needs) & {'mounts', 'shim'} - means)}")
    if chosen.case and not any(possible(name, means) for name in chosen.case):
        return
    top = pathlib.Path(tempfile.mkdtemp(prefix="dl-torture.", dir="/tmp"))
    totals, wrong, kept = collections.Counter(), collections.Counter(), []
    began, seed = time.monotonic(), chosen.seed
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    while seed == chosen.seed or time.monotonic() < began + 60 * chosen.minutes - 10:
        done = Round(chosen, seed, means, top / str(seed))
        print(textwrap.fill(done.line(), COLUMNS, subsequent_indent="  "), flush=True)
        totals += done.counts
        shown = collections.Counter(kind for kind, _ in done.findings)
        wrong += shown
        for kind in shown:
            for text in [text for one, text in done.findings if one == kind][:SHOWN]:
                print(textwrap.fill(f"{FINDINGS[kind]}: {text[:300]}", COLUMNS, initial_indent="    ", subsequent_indent="      "), flush=True)
        if done.findings:
            kept.append(done.folder)
        elif not os.environ.get("DL_KEEP"):
            shutil.rmtree(done.folder)
        seed += 1
    report(totals, wrong, seed - chosen.seed, time.monotonic() - began)
    for folder in kept:
        print(f"kept: {folder}; again: scripts/torture 0 --seed {folder.name}")
    if not kept and not os.environ.get("DL_KEEP"):
        shutil.rmtree(top)
    sys.exit(1 if kept else 0)


if __name__ == "__main__":
    main()
