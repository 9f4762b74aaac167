"""The commands of the documents, in order, on a clean Debian: README.md's and docs/*.md's sh blocks, as they are written."""
import re
import unittest

from sandbox import SOURCE, Sandbox

# The newcomer's page first: the others begin where it ends.
ORDER = ["docs/install.md", "docs/directory.md", "docs/archives.md", "docs/antispam.md", "docs/security.md", "docs/operations.md",
         "docs/monitoring.md"]
# Commands that are not run here, and where or why not.
ELSEWHERE = {
    "docs/postfix.md": "tests/e2e runs them against a private Postfix, scripts/test --e2e",
    "README.md: scripts/run": ".ci/run runs it",
    "README.md: scripts/test": ".ci/run runs it",
    "README.md: scripts/package": "made what is installed here",
    "docs/archives.md: dlctl archive remove": "needs a posting of that number; tests/platform/archive removes such",
    "docs/monitoring.md: dlctl explain": "asks for messages that are not here; tests/tools/monitoring_test asks for some",
}


def blocks(page):
    """The sh blocks of a page: (line number, text)."""
    text = (SOURCE / page).read_text()
    for found in re.finditer(r"^```sh[^\n]*\n(.*?)^```$", text, re.M | re.S):
        yield text.count("\n", 0, found.start()) + 2, found.group(1)


def as_one_script(page):
    """All blocks in one shell, as somebody who copies them has it; each announces itself."""
    script = "set -e\n"
    for line, text in blocks(page):
        commands = "".join(command + "\n" for command in text.splitlines()
                           if not any(f"{page}: {command}".startswith(name) for name in ELSEWHERE))
        script += f"echo '=== {page}:{line}'\n{commands}"
    return script


class Documents(unittest.TestCase):
    """The pages stand on each other; they run in the order of their names."""

    @classmethod
    def setUpClass(cls):
        cls.box = Sandbox(cls.root, cls.packages)
        cls.addClassCleanup(cls.box.end)
        cls.box.run("apt-get update -q", network=True)
        cls.fetch(cls.box)

    @classmethod
    def fetch(cls, box):
        """What install.md fetches, so that its own commands need no network but the one in here."""
        box.run("apt-get install -y -q --no-install-recommends --download-only -o APT::Keep-Downloaded-Packages=true "
                f"/package/{cls.package} postfix slapd ldap-utils", network=True, timeout=600)
        box.run(f"cp /package/{cls.package} /root/")

    def run_page(self, page):
        output = self.box.run(as_one_script(page), timeout=400)
        return dict(zip(*[iter(re.split(r"^=== (\S+)\n", output, flags=re.M)[1:])] * 2))

    def test_0_every_command_is_run_or_listed(self):
        with_commands = {str(page.relative_to(SOURCE)) for page in [*SOURCE.glob("*.md"), *SOURCE.glob("docs/*.md")]
                         if any(blocks(str(page.relative_to(SOURCE))))}
        listed = {"README.md"} | {name for name in ELSEWHERE if ":" not in name}
        self.assertEqual(with_commands - listed, set(ORDER))
        for name in ELSEWHERE:
            page, _, command = name.partition(": ")
            self.assertIn(command, "".join(text for _, text in blocks(page)), "a command that is gone")
        for page in [*SOURCE.glob("*.md"), *SOURCE.glob("docs/*.md")]:
            self.assertNotRegex(page.read_text(), r"(?m)^    (dl\w* |scripts/|systemctl )", f"{page.name}: a command outside of a sh block")
        readme = [line.split()[0] for _, text in blocks("README.md") for line in text.splitlines()]
        self.assertEqual([word for word in readme if f"README.md: {word}" not in ELSEWHERE], [])

    def test_1_install(self):
        said = self.run_page("docs/install.md")
        self.assertGreaterEqual(len(said), 7)
        last = list(said.values())[-1]
        for text in ("Subject: The first posting", "Return-Path: <talk-owner@lists.example.org>", "Sender: talk@lists.example.org",
                     "Hello, list.", "0 message(s)"):
            self.assertIn(text, last)
        for problem in ("warning", "fatal", "error"):
            self.assertNotIn(problem, self.box.run("postfix check 2>&1; grep -h ' 1 ' /var/log/dlmanager/*.log || true"))

    def test_2_directory(self):
        said = "".join(self.run_page("docs/directory.md").values())
        self.assertIn("garden@lists.example.org is in order", said)
        self.assertIn("weekly", self.box.run("dlctl list show garden@lists.example.org"))
        self.assertEqual(self.box.run("dlctl member export garden@lists.example.org"),
                         "Immediate;anna@example.com\nImmediate;bert@example.net\nDigest;dora@example.com\n")

    def test_3_archives_and_spam(self):
        self.run_page("docs/archives.md")
        self.assertIn("verdict", "".join(self.run_page("docs/antispam.md").values()))

    def test_4_security(self):
        said = "".join(self.run_page("docs/security.md").values())
        # What its table says of modes and owners.
        self.assertEqual(said, "640 root:dlmanager /etc/dlmanager/qvms.conf\n700 dlmanager:dlmanager /var/spool/dlmanager/queue\n"
                         "750 dlmanager:dlmanager /var/lib/dlmanager\n660 dlmanager:postfix /var/spool/postfix/dlmanager/lmtp\n")

    def test_5_operations(self):
        collector = "/var/lib/prometheus/node-exporter"
        self.box.run(f"mkdir -p {collector}")  # as the node exporter's package makes it
        self.run_page("docs/operations.md")
        self.assertEqual(self.box.run(f"stat -c '%a %U' {collector}/*; ls {collector}; grep -c '^# HELP dlmanager_' {collector}/dlmanager.prom "
                                      "| sed 's/[1-9][0-9]/many/'"), "644 root\ndlmanager.prom\nmany\n")
        # After the backup and the restore of everything: lists, members, and mail that flows.
        self.assertIn("garden@lists.example.org", self.box.run("dlctl list"))
        self.box.run("printf 'Subject: after all\\n\\nagain\\n' | sendmail -f root@localhost talk@lists.example.org")
        self.box.wait_for("grep -q 'after all' /var/mail/root")

    def test_6_monitoring(self):
        said = "".join(self.run_page("docs/monitoring.md").values())
        self.assertIn("dlmanager", said)
        self.assertIn("# TYPE dlmanager_up gauge", said)

    def test_7_a_host_that_boots_before_its_directory(self):
        self.box.run("systemctl stop dlmanager slapd")
        self.box.run("(systemctl start dlmanager; echo $? > /run/started) > /dev/null 2>&1 &")
        self.box.run("sleep 4; [ ! -e /run/started ] && ! pgrep -x dlmanager")
        self.box.run("systemctl start slapd")
        self.box.wait_for("[ -e /run/started ]", 20)
        self.assertEqual(self.box.run("cat /run/started; systemctl is-active dlmanager"), "0\nactive\n")
        self.box.run("printf 'Subject: after the boot\\n\\nagain\\n' | sendmail -f root@localhost talk@lists.example.org")
        self.box.wait_for("grep -q 'after the boot' /var/mail/root")
