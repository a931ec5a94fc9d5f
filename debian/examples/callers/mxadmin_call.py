#!/usr/bin/python3
"""Calls mxadmin as a panel does.

    from mxadmin_call import Domain, mxadmin
    domain = Domain("example.com", aliases=["example.net"], mails={"info": ["sales"]})
    mxadmin("--add-mailname", domain=domain, domain_name="example.com", mailname="info")
    mxadmin("--set-password", domain=domain, password="secret", domain_name="example.com", mailname="info")

Run by itself it reads the same from its arguments: mxadmin_call.py DOCUMENT COMMAND [OPTION...].
"""
import json
import os
import subprocess
import sys

MXADMIN = os.environ.get("MXADMIN", "/usr/sbin/mxadmin")


class MxadminError(Exception):
    """The status and what was said; warnings of a successful command are in the result of mxadmin()."""

    def __init__(self, command, status, said):
        super().__init__(f"{command}: status {status}: {said.strip()}")
        self.status, self.said = status, said


class Domain:
    """One mail domain as the session document describes it. Quotas are bytes; None: no quota of its own."""

    def __init__(self, name, aliases=(), mails=None, lists=(), quota=None, mail_quotas=None):
        self.name, self.aliases, self.mails = name, list(aliases), dict(mails or {})
        self.lists, self.quota, self.mail_quotas = list(lists), quota, dict(mail_quotas or {})

    def document(self):
        """ASCII JSON: the reader knows neither UTF-8 nor backslash-u escapes, so names are in their ASCII form."""
        text = json.dumps({"domain": {
            "name": self.name,
            "mbox_quota": -1 if self.quota is None else self.quota,
            "dom_aliases": self.aliases,
            "maillists": self.lists,
            "mails": [{"name": name, "mbox_quota": self.mail_quotas.get(name, -1), "aliases": list(aliases)}
                      for name, aliases in self.mails.items()],
        }})
        if "\\u" in text:
            raise ValueError("names must be in their ASCII form")
        return text


def mxadmin(command, domain=None, password=None, crypted=False, **options):
    """Runs one command; answers what it printed (warnings included), raises MxadminError unless the status is 0."""
    if command == "--set-password" and not password:
        raise ValueError("without a password --set-password removes the logins")
    arguments = [MXADMIN, command]
    for name, value in options.items():
        option = "--" + name.replace("_", "-")
        arguments += [option] if value is True else [option, str(value)]
    document = domain.document() if isinstance(domain, Domain) else domain
    if document is not None and "disk_quota" in options and command == "--add-mailname":
        arguments.append("--wait-stdin")  # without it this command does not read the document
    environment = {name: value for name, value in os.environ.items() if not name.startswith("ZCP_")}
    if password:
        environment["ZCP_CRYPTED_PASSWORD" if crypted else "ZCP_PASSWORD"] = password
    done = subprocess.run(arguments, input=(document or "").encode("ascii"), env=environment, check=False,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    said = done.stderr.decode(errors="replace")
    if done.returncode != 0:
        raise MxadminError(command, done.returncode, said)
    return done.stdout.decode(errors="replace") + said


if __name__ == "__main__":
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    with open(sys.argv[1], encoding="ascii") as given:
        text = given.read()
    pairs = dict(option.lstrip("-").partition("=")[::2] for option in sys.argv[3:])
    try:
        print(mxadmin(sys.argv[2], domain=text, password=os.environ.get("ZCP_PASSWORD"),
                      **{name.replace("-", "_"): value or True for name, value in pairs.items()}), end="")
    except MxadminError as error:
        sys.stderr.write(error.said)
        sys.exit(error.status)
