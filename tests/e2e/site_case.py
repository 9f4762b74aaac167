"""What the cases of the round trip share: a lab that the commands of docs/postfix.md have set up."""
import re
import unittest

from directory import SOURCE, wait_for
from lab import Lab, MEMBERS

LIST = "garden@lists.example.org"
OWNER = LIST.replace("@", "-owner@")
ANNA = f"anna@{MEMBERS}"
UTF8_MEMBER = f"gr\u00fcn@{MEMBERS}"
MEMBER_LIST = [ANNA, f"bert@{MEMBERS}", UTF8_MEMBER]


def documented_commands():
    """The sh blocks of docs/postfix.md: (keeps running, commands)."""
    text = (SOURCE / "docs/postfix.md").read_text()
    blocks = re.findall(r"^```sh( keeps running)?\n(.*?)^```$", text, re.M | re.S)
    return [(bool(keeps), commands.splitlines()) for keeps, commands in blocks]


class Site(unittest.TestCase):
    """A lab that was set up by the documented commands, up to the pipe."""
    binaries = ""  # the build's folder bin; set by main
    lists = {LIST: MEMBER_LIST}
    small_disk = False  # for the queue, of its own

    @classmethod
    def setUpClass(cls):
        cls.lab = lab = Lab(cls.binaries, cls.lists)
        cls.addClassCleanup(lab.end)
        if cls.small_disk:
            lab.mount_small_disk()
            cls.addClassCleanup(lab.command, ["umount", "--lazy", lab.spool])
        lab.start_postfix()
        cls.outputs = {}
        for keeps, commands in documented_commands():
            for command in commands:
                if "dlpipe" in command:
                    return
                if keeps:
                    cls.keep_running(lab.here(command).split())
                else:
                    cls.outputs[command] = lab.command(["/bin/sh", "-ec", lab.here(command)])

    @classmethod
    def keep_running(cls, words):
        """What a supervisor would run; dlsend only where the case says so (start_dlsend), in the same words."""
        if words[0].endswith("/dlsubmit"):
            cls.lab.start_intake()
            assert words == [str(word) for word in cls.lab.children["dlsubmit"].args], words
        else:
            assert words == [str(word) for word in cls.lab.dlsend_command], words

    def settle(self, count):
        """Waits until "dl" is empty and "dlout" has `count` entries; those."""
        def there():
            return not self.lab.queue("dl") and len(self.lab.queue("dlout")) >= count
        wait_for(f"{count} entries in dlout", there, 120, 0.3)
        return self.lab.queue("dlout")
