"""What the chain is disturbed by: one function for each case, and the table that names them."""
import signal
import time
from collections import namedtuple

import proxy
from traffic import STATIC, Mail, address

SERVICES = ("dlmanager", "dlsend", "dlsubmit")
HOUR, DAY = 3600, 86400


class Scene:
    """What a disturbance works on. It goes on while pause(shortest, longest) says so, and puts back what it changed."""

    def __init__(self, chain, traffic, chance, stop, counts):
        self.chain, self.traffic, self.chance, self.stop, self.counts = chain, traffic, chance, stop, counts

    def pause(self, shortest, longest):
        return not self.stop.wait(self.chance.uniform(shortest, longest))


def kill(it):
    while it.pause(0.3, 1.2):
        name = it.chance.choice(SERVICES)
        it.chain.kill(name, signal.SIGTERM if it.chance.random() < 0.15 else signal.SIGKILL)


def power(it):
    while it.pause(1.0, 2.5):
        it.chain.cut_power()
        it.counts["power losses"] += 1


def directory(it):
    """The server behind a bad network, in trouble, or dead."""
    chain = it.chain
    while it.pause(0.1, 1.0):
        fault = it.chance.choice((*proxy.FAULTS, "dead"))
        it.counts["outages of the directory"] += 1
        if fault == "dead":
            chain.directory.kill()
        else:
            chain.proxy.fault = fault
        it.pause(0.3, 2.5)
        chain.proxy.fault = "none"
        chain.directory.start()


def use_up(it, name, fill):
    while it.pause(0.3, 1.0):
        began = time.time()
        with it.chain.on_disk():
            fill()
        it.counts[name] += 1
        it.pause(0.8, 2.0)
        with it.chain.on_disk():
            it.chain.disk.free()
        it.chain.full.append((began, time.time()))


def full(it):
    use_up(it, "full disks", it.chain.disk.fill)


def inodes(it):
    use_up(it, "disks without inodes", it.chain.disk.fill_inodes)


def backlog(it):
    """The relay is away until what waits for it has filled the disk."""
    it.chain.relay.fault = "refuse"
    body, number, refusals, began = it.traffic.text(4000), 0, 0, time.time()
    while it.pause(0.0, 0.01) and refusals < 5:
        mail = Mail(f"{it.traffic.number}-backlog-{number}", "posting", STATIC[0], [address("open")], body=body)
        refusals += not it.traffic.post(mail)
        number += 1
    it.counts["full disks"] += refusals >= 5
    it.pause(0.5, 1.0)
    it.chain.full.append((began, time.time()))
    it.chain.relay.fault = "none"


def clock(it):
    it.pause(0.5, 1.0)
    for offset in it.chance.sample((HOUR, -DAY, 10 * DAY), 3):
        it.chain.set_clock(offset)
        it.counts["clock jumps"] += 1
        it.pause(0.7, 2.5)
        if it.chance.random() < 0.5:
            it.chain.set_clock(0)
            it.counts["clock jumps"] += 1
            it.pause(0.2, 1.0)
    it.chain.set_clock(0)


def relay(it):
    while it.pause(0.2, 1.0):
        it.chain.relay.fault = it.chance.choice(("refuse", "die", "die", "tempfail", "hang", "slow"))
        it.counts["troubles of the relay"] += 1
        it.pause(0.4, 2.5)
        it.chain.relay.fault = "none"


def files(it):
    """A service runs out of file descriptors."""
    while it.pause(0.1, 0.6):
        restore = it.chain.limit_files(it.chance.choice(SERVICES), it.chance.randint(-1, 4))
        it.counts["shortages of descriptors"] += 1
        it.pause(0.3, 1.5)
        restore()


def operator(it):
    """dlctl changes the queue, members and archives, and is killed now and then."""
    chain, number = it.chain, 0
    while it.pause(0.05, 0.4):
        kill_after = it.chance.uniform(0, 0.04) if it.chance.random() < 0.4 else None
        what = it.chance.choice(("hold", "release", "member", "archive"))
        if what == "hold":
            waiting = [item for item in chain.queue() or () if item["channel"] != "dlhold"]
            for item in waiting[:2]:
                chain.asked_to_hold[item["id"]] = item["channel"]
                chain.tool("dlctl", "queue", "hold", item["id"], kill_after=kill_after)
        elif what == "release":
            release_held(chain, kill_after)
        elif what == "member":
            number += 1
            who = f"added{number}@members.example"
            it.traffic.tried.append(who)
            status, _ = chain.tool("dlctl", "member", "add", address("club"), who, kill_after=kill_after)
            it.traffic.added += [who] if status == 0 else []
        else:
            chain.tool("dlctl", "archive", *it.chance.choice((("rebuild",), ("unreadable", "--retry"))), address("mime"),
                       kill_after=kill_after)


def release_held(chain, kill_after=None):
    """Back to its channel goes what the operator has asked for, no more."""
    for item in chain.queue("dlhold") or ():
        if channel := chain.asked_to_hold.get(item["id"]):
            chain.tool("dlctl", "queue", "release", item["id"], "--to", channel, kill_after=kill_after)


# Of each of these one at a time: they would put back what another has changed.
APART = (("full", "backlog", "inodes"), ("relay", "backlog"))
# needs: "mounts" a disk of its own, "slapd" a directory server, "small" a disk that is soon full. A case without a function
# is done by the round itself.
Case = namedtuple("Case", "run needs", defaults=((),))
CASES = {
    "kill": Case(kill),
    "power": Case(power, ("mounts",)),
    "directory": Case(directory, ("slapd",)),
    "full": Case(full, ("mounts", "small")),
    "backlog": Case(backlog, ("mounts", "small")),
    "inodes": Case(inodes, ("mounts",)),
    "clock": Case(clock, ("shim",)),
    "relay": Case(relay),
    "hostile": Case(None),
    "files": Case(files),
    "operator": Case(operator),
}
