"""What the cases of the round trip share: a lab that the commands of docs/postfix.md have set up."""
import re
import unittest

from lab import Lab, MEMBERS, SOURCE, wait_for

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

    @classmethod
    def setUpClass(cls):
        cls.lab = lab = Lab(cls.binaries, cls.lists)
        cls.addClassCleanup(lab.end)
        lab.start_slapd()
        lab.start_postfix()
        cls.outputs = {}
        for keeps, commands in documented_commands():
            for command in commands:
                if "dlpipe" in command:
                    return
                if keeps:
                    assert command.split()[0] == "/usr/bin/dlsubmit", command
                    lab.start_intake()
                    assert lab.here(command).split()[1:] == [str(word) for word in lab.children["dlsubmit"].args[1:]]
                else:
                    cls.outputs[command] = lab.command(["/bin/sh", "-ec", lab.here(command)])

    def settle(self, count):
        """Waits until "dl" is empty and "dlout" has `count` entries; those."""
        def there():
            return not self.lab.queue("dl") and len(self.lab.queue("dlout")) >= count
        wait_for(f"{count} entries in dlout", there, 120, 0.3)
        return self.lab.queue("dlout")
