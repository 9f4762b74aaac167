#!/usr/bin/env python3
"""Keeps papers true: man pages, completion, the list of log lines, keys, attributes, links, units and alerts against the source.

    tests/docs/papers_test.py BUILD/bin
"""
import os
import pathlib
import re
import shutil
import subprocess
import sys
import unittest

SOURCE = pathlib.Path(__file__).resolve().parents[2]
MAN = sorted((SOURCE / "man").iterdir())
MAX_EXPOSURE = 20  # of systemd-analyze security, in tenths
LITERAL = r'"((?:[^"\\]|\\.)*)"'
SECTIONS = {"Ldap", "DlManager", "Queue", "Connection", "Gateway", "Process", "Log", "Relay", "Intake", "SpamAssassin", "MsgStore",
            "BayesianFilter", "Kestrune"}
# Lines whose text is made elsewhere: what stands for it in the document, and where it comes from.
ELSEWHERE = {
    "configuration file ...: ...": "platform/config/config.cpp",
    "process ... runs under the name \"...\" already": "platform/process/process.cpp",
    "cannot write ...: ...": "platform/process/process.cpp",
    "Cannot listen on ...": "tools/dlsubmit/lmtp_intake.cpp",
    "Cannot become user ...": "tools/dlsubmit/lmtp_intake.cpp",
    "cannot ...": "platform/archive/failure.cpp",
    "no copy of the index can be written to ...: ...": "platform/archive/migration.cpp",
    "the archive index ...": "platform/archive/index.cpp",
}
# Calls of the log at level 1 that name no text of their own, by file; each is one of ELSEWHERE or of the tables below.
WITHOUT_TEXT = {"archive/index_schedule.cpp": 1, "core/main.cpp": 1, "core/service.cpp": 1, "digest/digest.cpp": 1,
                "digest/digest_writer.cpp": 1, "dispatch/deliver.cpp": 1, "dispatch/folder_copies.cpp": 1, "dispatch/folder_filing.cpp": 2,
                "platform/queue/delivery.cpp": 1, "platform/queue/queue.cpp": 1,
                "platform/queue/sqlite_queue.cpp": 1, "requests/generated_message.cpp": 2, "tools/dlsend/main.cpp": 2,
                "tools/dlsubmit/lmtp_intake.cpp": 3}


def run(*argv, **more):
    return subprocess.run(argv, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=60, check=False, **more)


def shown(text):
    """A format as the document writes it."""
    text = text.replace('\\"', '"').replace("\\n", "").replace("%%", "%")
    return re.sub(r"%[-+ #0]*[\d.*]*(?:[hlzjt]*)[a-zA-Z]", "...", text)


def arguments(text, start):
    """What stands between the parentheses that open before `start`."""
    depth, inside, at = 1, False, start
    while depth:
        c = text[at]
        if inside:
            at += c == "\\"
            inside = c != '"'
        elif c == '"':
            inside = True
        else:
            depth += {"(": 1, ")": -1}.get(c, 0)
        at += 1
    return text[start:at - 1]


def literals(text):
    text = re.sub(r'"\s+"', "", text)
    return [one for one in re.findall(LITERAL, text)]


def texts(call):
    """The texts among the arguments of a call; one that is put together with "+" is one."""
    found = [one for one in literals(call) if not re.fullmatch(r"DL \w+|%s", one)]
    if found and re.search(r'"\s*\+|\+\s*"', call):
        call = re.sub(r'"\s+"', "", call)
        before, after = (re.search(pattern, call) for pattern in (r'\+\s*"' + re.escape(found[0]), re.escape(found[-1]) + r'"\s*\+'))
        return [("..." if before else "") + "...".join(found) + ("..." if after else "")]
    return [one for one in found if " " in one]


def level_1_lines():
    """(text as documented, file) of each line, and the number of calls without a text by file."""
    lines, without = [], {}
    for path in sorted((SOURCE / "src").rglob("*.cpp")):
        name = str(path.relative_to(SOURCE / "src"))
        text = path.read_text()
        if name.startswith("tools/dlctl/"):
            continue  # an operator sees its complaints at once
        for call in re.finditer(r"\b(\w*Log\w*)\(\s*1\s*,", text):
            found = [(shown(one), name) for one in texts(arguments(text, call.end()))]
            lines += found
            without[name] = without.get(name, 0) + (not found)
        sources = r"\bComplain\(" if name.startswith("platform/queue/") else r"\bCheck\(" if name.startswith("digest/") else None
        for call in re.finditer(sources, text) if sources else ():
            found = literals(arguments(text, call.end()))
            lines += [(shown(one), name) for one in (found[:1] if "Complain" in sources else found[-1:])]
        for kind in re.finditer(r"\.\w+_failed =\s*((?:" + LITERAL + r"\s*)+)", text):
            lines += [(shown(one), name) for one in literals(kind.group(1))]
        for line in re.finditer(r"snprintf\(line, sizeof line, " + LITERAL + r".{0,40}\);\s*LogMessage\(1,", text, re.S):
            lines.append((shown(line.group(1)), name))
    return lines, {name: count for name, count in without.items() if count}


class Papers(unittest.TestCase):
    maxDiff = None

    def test_man_pages_render_without_warnings(self):
        for page in MAN:
            with self.subTest(page.name):
                self.assertEqual(run("groff", "-ww", "-mdoc", "-Tutf8", "-z", page).stdout, "")
                if shutil.which("man"):
                    done = subprocess.run(["man", "--warnings", "-E", "UTF-8", "-l", "-Tutf8", page], capture_output=True, text=True,
                                          timeout=60, check=True, env={**os.environ, "LC_ALL": "C.UTF-8"})
                    self.assertEqual(done.stderr, "")
                    self.assertIn("NAME", re.sub(".\b", "", done.stdout))
                if shutil.which("mandoc"):
                    # The pages name each other, and are not installed here.
                    lint = [line for line in run("mandoc", "-Tlint", page).stdout.splitlines()
                            if "referenced manual not found" not in line]
                    self.assertEqual(lint, [])

    def test_man_pages_name_every_option(self):
        for program in ("dlsubmit", "dlsend"):
            page = (SOURCE / f"man/{program}.8").read_text()
            for option in re.findall(r"--(\w+)", run(self.binaries / program, "--help").stdout):
                self.assertRegex(page, rf"Fl Fl {option}\b", program)
        page = (SOURCE / "man/dlctl.8").read_text()
        for command, options in self.commands().items():
            with self.subTest(command):
                entry = re.search(rf"^\.It Cm {command}\b[^\n]*\n(.*?)(?=^\.It|^\.El)", page, re.M | re.S)
                self.assertIsNotNone(entry)
                for option in set(options) - {"--help", "--json", "--version"}:
                    self.assertIn(f"Fl Fl {option[2:]}", entry.group(0))

    def help_of(self, *command):
        return run(self.binaries / "dlctl", *command, "--help").stdout

    def commands(self):
        """Every command of dlctl that does something: its words and its options."""
        found = {}

        def look(words):
            text = self.help_of(*words)
            below = re.findall(r"^  ([a-z-]+)  ", text.partition("\nSubcommands:\n")[2], re.M)
            if words and (not below or words == ["list"]):
                found[" ".join(words)] = re.findall(r"^  (?:-\w,)?(--[a-z-]+)", text, re.M)
            for word in below:
                look(words + [word])

        look([])
        self.assertGreater(len(found), 15)
        return found

    def complete(self, *words):
        script = f"""PATH={self.binaries}:$PATH; . {SOURCE}/deploy/completion/dlctl
COMP_WORDS=({" ".join(f"'{word}'" for word in words)}); COMP_CWORD={len(words) - 1}; _dlctl; printf '%s\\n' "${{COMPREPLY[@]}}" """
        return run("bash", "-c", script, env={**os.environ, "DLMANAGER_CONF": "/nonexistent"}).stdout.split()

    def test_completion_offers_commands_and_options(self):
        commands = self.commands()
        top = {name.split()[0] for name in commands}
        self.assertEqual(set(self.complete("dlctl", "")), top)
        for group in top:
            below = {name.split()[1] for name in commands if name.startswith(group + " ")}
            if below:
                self.assertEqual(set(self.complete("dlctl", group, "")) - {"dl", "dlout", "dlhold"}, below, group)
        for name, options in commands.items():
            self.assertEqual(set(self.complete("dlctl", *name.split(), "--")), set(options), name)
        self.assertEqual(self.complete("dlctl", "--conf", "/x", "que"), ["queue"])

    def test_every_level_1_line_is_explained(self):
        text = (SOURCE / "docs/operations.md").read_text().partition("## Every line of level 1")[2]
        rows = re.findall(r"^\| `(.*?)` \|", text, re.M)
        patterns = [re.compile(re.escape(row).replace(r"\.\.\.", ".*")) for row in rows if row.strip(". :,")]
        lines, without = level_1_lines()
        self.assertGreater(len(lines), 80)
        exact = set(rows)
        missing = sorted({(line, name) for line, name in lines
                          if line not in exact and not any(one.fullmatch(line) for one in patterns)})
        self.assertEqual(missing, [], "not in docs/operations.md")
        self.assertEqual(without, WITHOUT_TEXT, "a call without a text of its own: add the text to ELSEWHERE and the document")
        for line, name in ELSEWHERE.items():
            self.assertIn(line, exact)
            words = max(re.split(r"\.\.\.|[\"']", line), key=len).strip(" :")
            self.assertIn(words, (SOURCE / "src" / name).read_text())
        # And no row for a line that is gone.
        known = [line for line, _ in lines] + list(ELSEWHERE)
        gone = [row for row, pattern in zip([row for row in rows if row.strip(". :,")], patterns)
                if not any(pattern.fullmatch(line) for line in known)]
        self.assertEqual(gone, [], "no such line in src")

    def test_every_attribute_is_described(self):
        text = (SOURCE / "docs/directory.md").read_text()
        schema = (SOURCE / "deploy/ldap/dlmanager.schema").read_text()
        names = set(re.findall(r"^attributetype \( \S+ NAME '([^']+)'", schema, re.M))
        loader = (SOURCE / "src/lists/load_mailing_list.cpp").read_text()
        names |= set(re.findall(r'^    \{"([\w-]+)", ', loader, re.M))
        self.assertGreater(len(names), 20)
        self.assertEqual([name for name in sorted(names) if f"`{name}`" not in text], [])

    def test_every_key_is_described(self):
        text = (SOURCE / "docs/configuration.md").read_text()
        page = (SOURCE / "man/qvms.conf.5").read_text()
        main = text.partition("## qvms.conf")[2].partition("## qvmta.ini")[0]
        keys = re.findall(r"^\| `(\w+)`", main, re.M)
        self.assertGreater(len(keys), 40)
        self.assertEqual(keys, re.findall(r"^\.It Cm (\w+)", page, re.M), "man/qvms.conf.5")
        used = set()
        for path in (SOURCE / "src").rglob("*.cpp"):
            source = path.read_text()
            if "GetPrivateProfile" in source:  # by itself, or through a function of the file's own
                used |= set(re.findall(r'GetPrivateProfile(?:String|Int)\(\s*"\w+",\s*"(\w+)"', source))
                used |= set(re.findall(r'\b[A-Za-z]\w*\(\s*"([A-Z][A-Za-z]+)"[,)]', source)) - SECTIONS
        self.assertGreater(len(used), 10)
        self.assertEqual(sorted(key for key in used if f"`{key}`".lower() not in text.lower()), [])
        shipped = re.findall(r"^#?(\w+) =", (SOURCE / "deploy/package/qvms.conf").read_text(), re.M)
        self.assertEqual([key for key in shipped if key not in keys], [])

    def test_links_lead_somewhere(self):
        for page in [*SOURCE.glob("*.md"), *SOURCE.glob("docs/*.md")]:
            for target in re.findall(r"\]\(([^)#]+)\)", page.read_text()):
                self.assertTrue((page.parent / target).exists(), f"{page.name}: {target}")

    def test_units_are_confined(self):
        if not shutil.which("systemd-analyze"):
            self.skipTest("no systemd-analyze")
        for unit in (SOURCE / "deploy/systemd").glob("*.service"):
            done = run("systemd-analyze", "security", "--offline=true", "--no-pager", f"--threshold={MAX_EXPOSURE}", unit)
            self.assertEqual(done.returncode, 0, done.stdout[-300:])

    def test_alerts_name_figures_that_there_are(self):
        rules = (SOURCE / "deploy/monitoring/dlmanager.rules.yml").read_text()
        names = set(re.findall(r"dlmanager_(\w+)", "".join(re.findall(r"expr: (.*)", rules))))
        self.assertGreater(len(names), 5)
        source = SOURCE / "src/tools/dlctl/metrics_commands.cpp"
        self.assertEqual([name for name in sorted(names) if f'"{name}"' not in source.read_text()], [])
        if shutil.which("promtool"):
            self.assertIn("SUCCESS", run("promtool", "check", "rules", SOURCE / "deploy/monitoring/dlmanager.rules.yml").stdout)


if __name__ == "__main__":
    Papers.binaries = pathlib.Path(sys.argv.pop(1)).resolve()
    unittest.main(verbosity=2)
