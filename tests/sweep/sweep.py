#!/usr/bin/env python3
"""What every command leaves when any of its system calls fails, or when it is killed at any of them.

Runs inside the sandbox as root. One run of the command for the N-th call of each kind with each errno, by strace's fault
injection, of the program itself or of the postmap runs that it starts, until a run meets no more such call. Kinds of
sweeps: fail, interrupt (EINTR, which must not be seen) and kill. Prints a table; status 1 when anything was wrong.

    sweep.py [--sweep=fail,interrupt,kill] [--who=self,postmap] [--command=WORDS] [--kind=openat,...] [--every=K] [-v]
"""
import argparse
import collections
import os
import re
import shutil
import sqlite3
import subprocess
import sys

TABLES = "/var/spool/postfix/kavro"
MAIL = "/var/qmail/mailnames"
HANDLERS = "/var/lib/kavro/mail/handlers"
STORES = [TABLES, MAIL, HANDLERS, "/etc/domainkeys"]
PREPARED = "/tmp/prepared"
HELPERS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../system/helpers.bash")
POSTMAP = "/usr/sbin/postmap"
LOG = "/tmp/strace"

# Calls that can fail, by what can come of them. postmap is another program: a few kinds stand for all.
KINDS = {
    "openat": ["EACCES", "EMFILE", "EIO"], "read": ["EIO"], "write": ["ENOSPC", "EIO"], "pread64": ["EIO"],
    "pwrite64": ["ENOSPC"], "fsync": ["EIO"], "fdatasync": ["EIO"], "rename": ["EIO"], "renameat": ["EIO"],
    "renameat2": ["EACCES"], "link": ["ENOSPC"], "unlink": ["EACCES"], "unlinkat": ["EACCES"], "mkdir": ["ENOSPC"],
    "mkdirat": ["ENOSPC"], "chown": ["EIO"], "fchown": ["EIO"], "fchownat": ["EIO"], "chmod": ["EIO"],
    "fchmod": ["EIO"], "fchmodat": ["EIO"], "clone": ["ENOMEM"], "vfork": ["ENOMEM"], "execve": ["EACCES"],
    "pipe2": ["EMFILE"], "flock": ["EIO"], "fcntl": ["EIO"], "ftruncate": ["EIO"], "getdents64": ["EIO"],
    "mmap": ["ENOMEM"], "copy_file_range": ["ENOSPC"],
}
POSTMAP_KINDS = {kind: KINDS[kind] for kind in ("openat", "read", "pread64", "pwrite64", "write", "fsync", "ftruncate",
                                                "fcntl", "flock", "mmap")}
CHANGING = ["write", "pwrite64", "fsync", "fdatasync", "ftruncate", "openat", "rename", "renameat", "renameat2", "link",
            "unlink", "unlinkat", "mkdir", "mkdirat", "chown", "fchown", "fchownat", "chmod", "fchmod", "fchmodat",
            "clone", "copy_file_range"]
INTERRUPTIBLE = [kind for kind in KINDS if kind not in ("clone", "vfork", "execve", "mmap", "pipe2", "getdents64")]

ALIAS = "--domain-name=d.test --domain-alias-name="
NAME = "--domain-name=d.test --mailname="
COMMANDS = [  # words, and "p" for a password, "d" for a document, "a" for all or nothing
    (f"--add-mailname {NAME}new", "d"), (f"--remove-mailname {NAME}info", "d"),
    ("--rename-mailname --domain-name=d.test --old-mailname=info --new-mailname=chef", "pda"),
    (f"--add-mailbox {NAME}bob", "pd"), (f"--remove-mailbox {NAME}info", "d"), (f"--set-password {NAME}info", "pd"),
    (f"--add-alias {NAME}bob --alias=robert", "d"), (f"--remove-alias {NAME}info --alias=sales", "d"),
    ("--add-domain --domain-name=e.test", "e"), ("--remove-domain --domain-name=d.test", "d"),
    ("--rename-domain --old-domain-name=d.test --new-domain-name=new.test", "a"),
    ("--turn-on-domain --domain-name=d.test --set-reject", "d"), ("--turn-off-domain --domain-name=d.test", "d"),
    (f"--add-domain-alias {ALIAS}a3.test --set-catchall --email=info@d.test", "d"),
    (f"--del-domain-alias {ALIAS}a1.test", "d"),
    ("--rename-domain-alias --domain-name=d.test --old-domain-alias-name=a1.test --new-domain-alias-name=a3.test "
     "--set-bounce --phrase=gone", "d"),
    (f"--get-mailbox-size {NAME}info", ""), (f"--set-mailbox-disk-quota {NAME}info --disk-quota=1000000", "d"),
    ("--set-domain-disk-quota --domain-name=d.test --disk-quota=2000000", "d"),
]


def shell(text):
    return subprocess.run(["bash", "-c", f". {HELPERS}; {text}"], check=True, stdout=subprocess.PIPE).stdout


def prepare():
    """The sample of the system tests, saved to be put back before each run."""
    shell("reset_stores; make_sample; mxrepair --fix >/dev/null || true")
    save()


def save():
    shutil.rmtree(PREPARED, ignore_errors=True)
    for store in STORES:
        os.makedirs(os.path.dirname(PREPARED + store), exist_ok=True)
        subprocess.run(["cp", "-a", store, PREPARED + store], check=True)


def put_back():
    for store in STORES:
        shutil.rmtree(store, ignore_errors=True)
    subprocess.run(["cp", "-a"] + [PREPARED + "/" + top for top in os.listdir(PREPARED)] + ["/"], check=True)


def rows(path, query):
    database = sqlite3.connect(f"file:{path}?mode=rw", uri=True)
    try:
        if database.execute("PRAGMA integrity_check").fetchone()[0] != "ok":
            return {"damaged " + path}
        return {" ".join(map(str, row)) for row in database.execute(query)}
    finally:
        database.close()


def state():
    """Every store as a set of lines, each beginning with the store's name."""
    lines = set()
    for table in ("virtual_domains", "vmailbox", "virtual", "aliases"):
        dump = subprocess.run([POSTMAP, "-s", f"hash:{TABLES}/{table}"], capture_output=True, text=True, check=False)
        lines |= {f"{table}: {line}" for line in dump.stdout.splitlines()} or {f"{table}: empty"}
        if dump.returncode != 0:
            lines.add(f"{table}: unreadable {dump.stderr.strip()}")
    lines |= {"auth: " + row for row in rows(TABLES + "/passwd.db", """SELECT u.name || '@' || d.name,
        CASE WHEN userPassword LIKE '$AES%' THEN 'encrypted' ELSE userPassword END, cmusaslsecretPLAIN, u.status, d.status
        FROM domains d LEFT JOIN users u ON u.dom_id = d.id""")}
    lines |= {"handlers: " + row for row in rows(HANDLERS + "/handlers.db", "SELECT address, name, enabled FROM handlers")}
    for top in STORES:
        for folder, folders, files in os.walk(top):
            for name in folders + files:
                path = os.path.join(folder, name)
                found = os.lstat(path)
                text = ""
                if name in (".qmail", "maildirsize"):
                    with open(path, encoding="ascii") as file:
                        text = file.read()
                lines.add(f"file: {path} {found.st_mode:o} {found.st_uid}:{found.st_gid} {text!r}")
    return lines


def run(words, flags, strace=None, who="self"):
    """Runs the command, with strace's options for the program itself or for each of its postmap runs."""
    document = shell("printf %s \"$SAMPLE\"") if "d" in flags else shell("document e.test") if "e" in flags else b""
    environment = dict(os.environ, **({"ZCP_PASSWORD": "secret"} if "p" in flags else {}))
    command = ["mxadmin"] + words.split()
    tool = ["strace", "-q", "-o", LOG, "-e", "signal=none"] + (strace or [])
    if os.path.exists(LOG):
        os.remove(LOG)
    if strace and who == "self":
        command = tool + command
    elif strace:
        shutil.move(POSTMAP, POSTMAP + ".real")
        with open(POSTMAP, "w", encoding="ascii") as script:
            script.write(f"#!/bin/sh\nexec {' '.join(tool)} -A {POSTMAP}.real \"$@\"\n")
        os.chmod(POSTMAP, 0o755)
    try:
        done = subprocess.run(command, input=document, env=environment, capture_output=True, timeout=60, check=False)
        return done.returncode, done.stderr.decode(errors="replace")
    except subprocess.TimeoutExpired:
        return "hang", ""
    finally:
        if strace and who != "self":
            shutil.move(POSTMAP + ".real", POSTMAP)


def reached():
    """Whether the call that was to fail came."""
    try:
        with open(LOG, encoding="utf-8", errors="replace") as log:
            text = log.read()
            # strace ends with what it traced, and has written the call that never came back.
            return "(INJECTED)" in text or re.search(r"^(?!exit).* = \?$", text.rstrip().rsplit("\n", 1)[-1]) is not None
    except FileNotFoundError:
        return False


def before_main():
    """Whether the program had not begun: the loader's own failures are told by the loader, and nothing was touched."""
    with open(LOG, encoding="utf-8", errors="replace") as log:
        return "PR_GET_DUMPABLE" not in log.read()


LEFT_OVER = re.compile(r"\.(tmp|before|draft|new)\b|-journal|maildirsize\.|/(virtual|vmailbox|virtual_domains|aliases) ")


def judge_failed(before, after, flags, status, said):
    """What is wrong after a failed call; empty: nothing."""
    now = state()
    told = re.search(r"CRITICAL ERROR|Unable to properly restore", said)
    stable = {line for line in before & after}
    wrong = []
    if status == "hang":
        return ["hang"]
    if status not in (0, 1, 255) or (status != 0 and not said.strip()):
        wrong.append(f"status {status} with {said.strip()[:60]!r}")
    if any("unreadable" in line or "damaged" in line for line in now):
        wrong.append("store unreadable")
    if stable - now:
        wrong.append("lost: " + sorted(stable - now)[0])
    # A quota file counted anew, or a directory of a step that was done, lies between the two states.
    surplus = {line for line in now - before - after if not line.startswith("file:")}
    if surplus and not told:
        wrong.append("stray: " + sorted(surplus)[0])
    if left := [line for line in now - before - after if line.startswith("file:") and LEFT_OVER.search(line)]:
        wrong.append("left over: " + left[0])
    if status == 0 and now != after:
        gap = {line.split(":")[0] for line in now ^ after}
        if "WARNING" not in said or gap - {"handlers", "file"}:
            wrong.append("status 0 without its effect: " + sorted(now ^ after)[0])
    if status != 0 and "a" in flags and now not in (before, after) and not told:
        wrong.append("half done: " + sorted(now ^ before)[0])
    return wrong


def judge_killed(before, after, words, flags):
    """Check names it, fix mends it, the command given again arrives; nothing that stood before is lost."""
    wrong = []
    findings = subprocess.run(["mxrepair", "--check"], capture_output=True, text=True, check=False)
    choice = ["--finish-rename=" + ":".join(re.findall(r"domain-name=(\S+)", words))] if "--rename-domain " in words else []
    # The first pass mends what has one right answer, the second what the caller chose.
    for options in [choice, []] if choice else [[]]:
        fixed = subprocess.run(["mxrepair", "--fix"] + options, capture_output=True, text=True, check=False)
    lost = (before & after) - state()
    if lost:
        wrong.append("lost: " + sorted(lost)[0])
    status, said = run(words, flags)
    now = state()
    # A rename that was finished cannot be given again: its old name is gone.
    if now != after and not (re.search(r"rename-(domain|mailname) ", words) and now in (before, after)):
        wrong.append(f"given again: status {status}, {sorted(now ^ after)[:2]} {said.strip()[-100:]} {fixed.stdout[-200:]}")
    return len(findings.stdout.splitlines()), wrong


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--sweep", default="fail,interrupt,kill")
    parser.add_argument("--who", default="self,postmap")
    parser.add_argument("--command", default="")
    parser.add_argument("--kind", default="")
    parser.add_argument("--every", type=int, default=1, help="only every K-th call")
    parser.add_argument("-v", action="store_true", dest="verbose")
    chosen = parser.parse_args()
    prepare()
    all_wrong = 0
    for words, flags in COMMANDS:
        if chosen.command not in words:
            continue
        put_back()
        before = state()
        status, said = run(words, flags)
        after = state()
        if status != 0:
            sys.exit(f"{words}: {said}")
        for sweep in chosen.sweep.split(","):
            for who in chosen.who.split(","):
                count = collections.Counter()
                kinds = KINDS if who == "self" else POSTMAP_KINDS
                cases = {"fail": [(kind, f"error={errno}") for kind in kinds for errno in kinds[kind]],
                         "interrupt": [(kind, "error=EINTR") for kind in INTERRUPTIBLE if who == "self"],
                         "kill": [(kind, "signal=KILL") for kind in (CHANGING if who == "self" else POSTMAP_KINDS)]}
                for kind, fault in cases[sweep]:
                    if chosen.kind and kind not in chosen.kind.split(","):
                        continue
                    number = 1
                    while True:
                        put_back()
                        status, said = run(words, flags, ["-e", f"inject={kind}:{fault}:when={number}"], who)
                        if not reached():
                            break
                        if who == "self" and before_main():
                            count["loader"] += 1
                            number += 1
                            if state() != before:
                                sys.exit("changed before main")
                            continue
                        count["runs"] += 1
                        findings = 0
                        if sweep == "kill":
                            findings, wrong = judge_killed(before, after, words, flags)
                        elif sweep == "interrupt":
                            wrong = [] if status == 0 and state() == after else [f"EINTR seen: {said.strip()[:80]}"]
                        else:
                            wrong = judge_failed(before, after, flags, status, said)
                        count["findings"] += findings
                        count["succeeded" if status == 0 else "reported"] += 1
                        count["wrong"] += bool(wrong)
                        if wrong and (chosen.verbose or count["wrong"] <= 5):
                            print(f"  {words.split()[0]} {sweep} {who} {kind}:{fault} call {number}: {'; '.join(wrong)[:500]}")
                        number += chosen.every
                if count["runs"]:
                    print(f"{words.split()[0][2:]:24} {sweep:9} {who:7} runs {count['runs']:4} succeeded "
                          f"{count['succeeded']:4} reported {count['reported']:4} findings {count['findings']:4} "
                          f"wrong {count['wrong']:3}", flush=True)
                all_wrong += count["wrong"]
    print(f"wrong: {all_wrong}")
    sys.exit(all_wrong != 0)


if __name__ == "__main__":
    if not os.path.exists("/run/mxadmin-sandbox"):
        sys.exit("This changes system files. Run it as: scripts/sweep")
    main()
