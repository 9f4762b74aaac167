"""The directories of the labs: a real slapd with the shipped schema, or one LDIF file."""
import pathlib
import re
import socket
import subprocess
import time

SLAPD = "/usr/sbin/slapd"
SERVICE_DN = "cn=dlmanager,dc=example,dc=org"
SOURCE = pathlib.Path(__file__).resolve().parents[2]
BASE_ENTRIES = ("dn: dc=org\nobjectClass: dcObject\nobjectClass: organization\ndc: org\no: org\n",
                "dn: dc=example,dc=org\nobjectClass: dcObject\nobjectClass: organization\ndc: example\no: example\n",
                f"dn: {SERVICE_DN}\nobjectClass: organizationalRole\nobjectClass: simpleSecurityObject\ncn: dlmanager\n"
                "userPassword: secret\n")
DOMAIN_ENTRY = "dn: dc=lists,dc=example,dc=org\nobjectClass: dcObject\nobjectClass: organization\ndc: lists\no: lists\n"


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def wait_for(what, condition, seconds=60, pause=0.05):
    end = time.monotonic() + seconds
    while not (value := condition()):
        if time.monotonic() > end:
            raise TimeoutError(f"{what} did not come within {seconds} s")
        time.sleep(pause)
    return value


def listens(port):
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", port)) == 0


def slapd_configuration(folder):
    """Of a server with the shipped schema and its data in folder/db."""
    return f"""include /etc/ldap/schema/core.schema
include {SOURCE}/deploy/ldap/dlmanager.schema
pidfile {folder}/slapd.pid
modulepath /usr/lib/ldap
moduleload back_mdb
database mdb
suffix ""
rootdn cn=admin
directory {folder}/db
dbnosync
index objectClass,mail,listmember eq
limits dn.exact="{SERVICE_DN}" size=unlimited time=unlimited
access to attrs=userPassword by anonymous auth
access to * by dn.exact="{SERVICE_DN}" write by * read
"""


def list_entries(address, lines, above="dc=lists,dc=example,dc=org"):
    """A list and its owner alias, as LDIF; the owner is owner@members.example."""
    def entry(mail, text):
        return f"dn: mail={mail},{above}\nmail: {mail}\n{text}\n"

    owner = address.replace("@", "-owner@")
    return [entry(address, "objectClass: qvlist\n" + "\n".join(lines)),
            entry(owner, "objectClass: qvlistowner\nlistowner: owner@members.example")]


class Slapd:
    """A real server."""

    def __init__(self, folder, entries):
        self.folder, self.port, self.child = folder, free_port(), None
        (folder / "db").mkdir(parents=True)
        (folder / "slapd.conf").write_text(slapd_configuration(folder))
        (folder / "entries.ldif").write_text("\n".join([*BASE_ENTRIES, DOMAIN_ENTRY, *entries]), encoding="utf-8")
        subprocess.run(["/usr/sbin/slapadd", "-q", "-f", folder / "slapd.conf", "-l", folder / "entries.ldif"], check=True, timeout=60)
        self.start()

    def settings(self):
        return f"HostName = 127.0.0.1\nPort = {self.port}\nUsername = {SERVICE_DN}\nPassword = secret\nBaseDN = dc=org\n"

    def start(self):
        """Unless it runs."""
        if self.child and self.child.poll() is None:
            return
        with open(self.folder / "slapd.out", "ab") as out:
            self.child = subprocess.Popen([SLAPD, "-h", f"ldap://127.0.0.1:{self.port}/", "-f", self.folder / "slapd.conf", "-d", "0"],
                                          stdin=subprocess.DEVNULL, stdout=out, stderr=out)
        wait_for("slapd", lambda: listens(self.port) or self.child.poll() is not None)
        assert self.child.poll() is None, (self.folder / "slapd.out").read_text()

    def kill(self):
        if self.child:
            self.child.kill()
            self.child.wait(30)
        self.child = None

    def members(self, address):
        """The values of listmember, as another program reads them."""
        found = subprocess.run(["ldapsearch", "-x", "-H", f"ldap://127.0.0.1:{self.port}/", "-LLL", "-o", "ldif-wrap=no", "-b", "dc=org",
                                f"(mail={address})", "listmember"], check=True, capture_output=True, text=True, timeout=60).stdout
        return sorted(re.findall(r"^listmember: (.*)$", found, re.M))


class LdifFile:
    """One file instead of a server."""

    def __init__(self, folder, entries):
        folder.mkdir()
        self.path = folder / "directory.ldif"
        self.path.write_text("# The lists of the house.\n\n" + "\n".join([*BASE_ENTRIES, DOMAIN_ENTRY, *entries]))

    def settings(self):
        return f"File = {self.path}\n"

    def kill(self):
        pass

    def members(self, address):
        block = self.path.read_text().split(f"mail={address},", 1)[1].split("\n\n", 1)[0]
        return sorted(re.findall(r"^listmember: (.*)$", block, re.M))
