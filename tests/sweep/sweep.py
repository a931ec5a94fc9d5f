#!/usr/bin/env python3
"""What every command leaves when any of its system calls fails, or when it is killed at any of them.

Runs inside the sandbox as root. One run of the command for the N-th call of each kind with each errno, by strace's fault
injection, of the program itself or of the postmap runs that it starts, until a run meets no more such call. The loader's
calls are left out. Kinds of sweeps: fail (and given again), interrupt (EINTR, which must not be seen), kill, and undo:
killed renames, taken back. Prints a table as it goes; status 1 when anything was wrong.

    sweep.py [--sweep=fail,interrupt,kill,undo] [--who=self,postmap] [--command=REGEX] [--kind=openat,...] [--every=K] [-v]
"""
import argparse
import collections
import functools
import hashlib
import itertools
import os
import re
import shutil
import sqlite3
import stat
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
    "fchmod": ["EIO"], "fchmodat": ["EIO"], "clone": ["ENOMEM"], "clone3": ["ENOMEM"], "execve": ["EACCES"],
    "pipe2": ["EMFILE"], "flock": ["EIO"], "fcntl": ["EIO"], "ftruncate": ["EIO"], "getdents64": ["EIO"],
    "mmap": ["ENOMEM"], "copy_file_range": ["ENOSPC"],
}
POSTMAP_KINDS = {kind: KINDS[kind] for kind in ("openat", "read", "pread64", "pwrite64", "write", "fsync", "ftruncate",
                                                "fcntl", "flock", "mmap")}
CHANGING = ["write", "pwrite64", "fsync", "fdatasync", "ftruncate", "openat", "rename", "renameat", "renameat2", "link",
            "unlink", "unlinkat", "mkdir", "mkdirat", "chown", "fchown", "fchownat", "chmod", "fchmod", "fchmodat",
            "clone", "clone3", "copy_file_range"]
INTERRUPTIBLE = [kind for kind in KINDS if kind not in ("clone", "clone3", "execve", "mmap", "pipe2", "getdents64")]
# Calls that cannot fail so.
IMPOSSIBLE = {("fail", "postmap"): r"read\(0,|write\([12],", ("interrupt", "self"): r"fcntl\((?!.*SETLK)"}

ALIAS = "--domain-name=d.test --domain-alias-name="
NAME = "--domain-name=d.test --mailname="

HOST = "sandbox.mail.test"
RENAME = "--rename-domain --old-domain-name={} --new-domain-name={}"
COMMANDS = [  # words, and "p" for a password, "d" for a document, "a" for all or nothing, "h" when d.test bears the
    # host's name, "b" when it did and gave it back: then the host has records of its own
    (RENAME.format("d.test", "new.test"), "a"),
    ("--rename-mailname --domain-name=d.test --old-mailname=info --new-mailname=chef", "pda"),
    (f"--add-mailname {NAME}new", "d"), ("--remove-domain --domain-name=d.test", "d"),
    ("--add-domain --domain-name=e.test", "e"),
    (f"--add-domain-alias {ALIAS}a3.test --set-catchall --email=info@d.test", "d"),
    (f"--del-domain-alias {ALIAS}a1.test", "d"),
    ("--rename-domain-alias --domain-name=d.test --old-domain-alias-name=a1.test --new-domain-alias-name=a3.test "
     "--set-bounce --phrase=gone", "d"),
    (f"--remove-mailname {NAME}info", "d"), (f"--add-mailbox {NAME}bob", "pd"), (f"--remove-mailbox {NAME}info", "d"),
    (f"--set-password {NAME}info", "pd"), (f"--add-alias {NAME}bob --alias=robert", "d"),
    (f"--remove-alias {NAME}info --alias=sales", "d"), ("--turn-on-domain --domain-name=d.test --set-reject", "d"),
    ("--turn-off-domain --domain-name=d.test", "d"), (f"--set-mailbox-disk-quota {NAME}info --disk-quota=1000000", "d"),
    ("--set-domain-disk-quota --domain-name=d.test --disk-quota=2000000", "d"), (f"--get-mailbox-size {NAME}info", ""),
    (RENAME.format("d.test", HOST), "ab"), (RENAME.format(HOST, "d.test"), "ah"),
]


@functools.cache
def document(flags):
    return shell("printf %s \"$SAMPLE\"") if "d" in flags else shell("document e.test") if "e" in flags else b""


def shell(text):
    return subprocess.run(["bash", "-c", f". {HELPERS}; {text}"], check=True, stdout=subprocess.PIPE).stdout


def prepare():
    """The sample of the system tests, saved to be put back before each run."""
    shell("reset_stores; make_sample; mxrepair --fix >/dev/null || true")
    save()


SAVED = {}  # path: what stood there


def standing():
    """Everything in the stores, with what tells a change: what is put back keeps its time, as postmap's maps do not."""
    found = {}
    for top in STORES:
        for folder, folders, files in os.walk(top):
            for path in [folder] * (folder == top) + [os.path.join(folder, name) for name in folders + files]:
                now = os.lstat(path)
                content = () if stat.S_ISDIR(now.st_mode) else (now.st_size, now.st_mtime_ns)
                found[path] = (now.st_mode, now.st_uid, now.st_gid) + content
    return found


def save():
    shutil.rmtree(PREPARED, ignore_errors=True)
    for store in STORES:
        os.makedirs(os.path.dirname(PREPARED + store), exist_ok=True)
        subprocess.run(["cp", "-a", store, PREPARED + store], check=True)
    SAVED.clear()
    SAVED.update(standing())


def put_back():
    now = standing()
    for path in sorted(now, reverse=True):
        if path not in SAVED or (stat.S_IFMT(SAVED[path][0]) != stat.S_IFMT(now[path][0])):
            (os.rmdir if stat.S_ISDIR(now.pop(path)[0]) else os.unlink)(path)
    for path in sorted(path for path in SAVED if now.get(path) != SAVED[path]):
        mode, owner, group = SAVED[path][:3]
        if stat.S_ISDIR(mode):
            os.makedirs(path, exist_ok=True)
        else:
            shutil.copy2(PREPARED + path, path, follow_symlinks=False)
        os.chown(path, owner, group, follow_symlinks=False)
        if not stat.S_ISLNK(mode):
            os.chmod(path, stat.S_IMODE(mode))
    if standing() != SAVED:
        sys.exit("the stores cannot be put back")


def rows(path, query):
    database = sqlite3.connect(f"file:{path}?mode=rw", uri=True)
    try:
        if database.execute("PRAGMA integrity_check").fetchone()[0] != "ok":
            return {"damaged " + path}
        return {" ".join(map(str, row)) for row in database.execute(query)}
    finally:
        database.close()


DUMPS = {}


def records(table):
    dump = subprocess.run([POSTMAP, "-s", f"hash:{TABLES}/{table}"], capture_output=True, text=True, check=False)
    lines = {f"{table}: {line}" for line in dump.stdout.splitlines()} or {f"{table}: empty"}
    return lines | ({f"{table}: unreadable {dump.stderr.strip()}"} if dump.returncode != 0 else set())


def state():
    """Every store as a set of lines, each beginning with the store's name."""
    lines = set()
    for table in ("virtual_domains", "vmailbox", "virtual", "aliases"):
        try:
            with open(f"{TABLES}/{table}.db", "rb") as file:
                content = file.read()
        except FileNotFoundError:
            content = b""
        # The same bytes give the same dump. A map has its own number, new with each rebuild.
        digest = (table, hashlib.sha256(content[:52] + content[72:]).digest())
        if digest not in DUMPS:
            DUMPS[digest] = records(table)
        lines |= DUMPS[digest]
    lines |= {"auth: " + row for row in rows(TABLES + "/passwd.db", """SELECT name, status, '', '' FROM domains UNION ALL
        SELECT u.name || '@' || d.name, CASE WHEN userPassword LIKE '$AES%' THEN 'encrypted' ELSE userPassword END,
        cmusaslsecretPLAIN, u.status FROM users u LEFT JOIN domains d ON u.dom_id = d.id""")}
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
    environment = dict(os.environ, **({"ZCP_PASSWORD": "secret"} if "p" in flags else {}))
    command = ["mxadmin"] + words.split()
    tool = ["strace", "-q", "-o", LOG, "-e", "signal=none"] + (strace or [])
    with open(LOG, "w", encoding="ascii"):
        pass
    if strace and who == "self":
        command = tool + command
    elif strace:
        shutil.move(POSTMAP, POSTMAP + ".real")
        with open(POSTMAP, "w", encoding="ascii") as script:
            script.write(f"#!/bin/sh\nexec {' '.join(tool)} -A {POSTMAP}.real \"$@\"\n")
        os.chmod(POSTMAP, 0o755)
    try:
        done = subprocess.run(command, input=document(flags), env=environment, capture_output=True, timeout=60, check=False)
        return done.returncode, done.stderr.decode(errors="replace")
    except subprocess.TimeoutExpired:
        return "hang", ""
    finally:
        if strace and who != "self":
            shutil.move(POSTMAP + ".real", POSTMAP)


def reached():
    """The call that was to fail, if it came. strace ends with what it traced, and has written the call that never came
    back."""
    with open(LOG, encoding="utf-8", errors="replace") as log:
        return re.search(r"^.*\(INJECTED\)$|^(?!exit).* = \?$", log.read(), re.MULTILINE)


def calls(words, flags, who):
    """How often each call comes, and how often it does before the program itself begins: the loader's failures are told
    by the loader, and nothing was touched."""
    run(words, flags, ["-e", "trace=all"], who)
    with open(LOG, encoding="utf-8", errors="replace") as log:
        trace = log.read()
    begin = trace.find("PR_GET_DUMPABLE" if who == "self" else '"/etc/postfix/main.cf"')
    count = [collections.Counter(re.findall(r"^(\w+)\(", part, re.MULTILINE)) for part in (trace, trace[:begin])]
    return count if begin > 0 else [{}, {}]


LEFT_OVER = re.compile(r"\.(tmp|before|draft|new)\b|-journal|maildirsize\.|/(virtual|vmailbox|virtual_domains|aliases) ")


def left_over(now, before, after):
    return ["left over: " + line for line in now - before - after if line.startswith("file:") and LEFT_OVER.search(line)]


def judge_failed(before, after, words, flags, status, said):
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
    # A map that cannot be read postmap makes anew by itself: what it held is in the backup.
    made_anew = status != 0 and "BDB0134 read" in said
    if stable - now and not made_anew:
        wrong.append("lost: " + sorted(stable - now)[0])
    # A quota file counted anew, a directory of a step that was done, and the domains of a failed --turn-off-domain whose
    # logins are switched off already, before any table is touched, lie between the two states.
    between = re.compile(r"file:|auth: \S+ 1  $" if status != 0 else "file:")
    surplus = {line for line in now - before - after if not between.match(line)}
    if surplus and not told:
        wrong.append("stray: " + sorted(surplus)[0])
    wrong += left_over(now, before, after)
    if status == 0 and now != after:
        gap = {line.split(":")[0] for line in now ^ after}
        # A key that cannot be removed is told by its own line alone.
        warned = "WARNING" in said or said.strip() and all("/etc/domainkeys" in line for line in now ^ after)
        if not warned or gap - {"handlers", "file"}:
            wrong.append("status 0 without its effect: " + sorted(now ^ after)[0])
    if status != 0 and "a" in flags and now not in (before, after) and not told:
        wrong.append("half done: " + sorted(now ^ before)[0])
    # What is not all or nothing arrives when it is given again.
    if status != 0 and "a" not in flags and not wrong and not made_anew:
        again = run(words, flags)
        wrong += [] if state() == after else [f"given again: {again}, {sorted(state() ^ after)[:2]}"]
    return wrong


def judge_killed(before, after, words, flags, undo):
    """Check names it, fix mends it, the command given again arrives; nothing that stood before is lost."""
    wrong = []
    findings = subprocess.run(["mxrepair", "--check"], capture_output=True, text=True, check=False)
    choice = []
    if "--rename-" in words and "alias" not in words:
        names = re.findall(r"(?:old|new)-\S+?=(\S+)", words)
        ending = "@d.test" if "mailname" in words else ""
        choice = [f"--{'undo' if undo else 'finish'}-rename={names[0]}{ending}:{names[1]}{ending}"]
    # The first pass mends what has one right answer, the second what the caller chose.
    for options in [choice, []] if choice else [[]]:
        fixed = subprocess.run(["mxrepair", "--fix"] + options, capture_output=True, text=True, check=False)
    now = state()
    if lost := (before & after) - now:
        wrong.append("lost: " + sorted(lost)[0])
    wrong += left_over(now, before, after)
    if choice and now != (before if undo else after):
        wrong.append(f"not {choice[0][2:6]}: {sorted(now ^ (before if undo else after))[:2]} {fixed.stdout[-200:]}")
    # A rename that was finished cannot be given again: its old name is gone.
    if undo or not choice:
        status, said = run(words, flags)
        # A removed domain's tree was moved aside before: it is told, and nobody's but the administrator's to remove.
        now = {line for line in state() if not ("KavroSaved" in line and "KavroSaved" in findings.stdout)}
        if now != after:
            wrong.append(f"given again: status {status}, {sorted(now ^ after)[:2]} {said.strip()[-100:]} {fixed.stdout[-200:]}")
    return len(findings.stdout.splitlines()), wrong


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--sweep", default="fail,interrupt,kill,undo")
    parser.add_argument("--who", default="self,postmap")
    parser.add_argument("--command", default="")
    parser.add_argument("--kind", default="")
    parser.add_argument("--every", type=int, default=1, help="only every K-th call")
    parser.add_argument("-v", action="store_true", dest="verbose")
    chosen = parser.parse_args()
    prepare()
    all_wrong = 0
    for words, flags in COMMANDS:
        if not re.search(chosen.command, words):
            continue
        put_back()
        if "h" in flags or "b" in flags:
            run(RENAME.format("d.test", HOST), "")
            run(RENAME.format(HOST, "d.test") if "b" in flags else "--help", "")
            save()
        before = state()
        status, said = run(words, flags)
        after = state()
        if status != 0:
            sys.exit(f"{words}: {said}")
        for sweep, who in itertools.product(chosen.sweep.split(","), chosen.who.split(",")):
            if sweep == "undo" and "--rename-domain " not in words:
                continue
            count = collections.Counter()
            kinds = KINDS if who == "self" else POSTMAP_KINDS
            killed = [(kind, "signal=KILL") for kind in (CHANGING if who == "self" else POSTMAP_KINDS)]
            cases = {"fail": [(kind, f"error={errno}") for kind in kinds for errno in kinds[kind]],
                     "interrupt": [(kind, "error=EINTR") for kind in INTERRUPTIBLE if who == "self"],
                     "kill": killed, "undo": killed}
            put_back()
            total, loader = calls(words, flags, who)
            for kind, fault in cases[sweep]:
                if (chosen.kind and kind not in chosen.kind.split(",")) or total.get(kind, 0) == loader.get(kind, 0):
                    continue
                count["kinds"] += 1
                # A postmap that its loader ends is tried as well.
                number = max(1, loader[kind] + (who == "self"))
                while True:
                    put_back()
                    status, said = run(words, flags, ["-e", f"trace={kind}", "-e", f"inject={kind}:{fault}:when={number}"], who)
                    call = reached()
                    if not call:
                        break
                    # postmap's standard streams are pipes of ours, with no disk behind that could fail. Only a lock makes
                    # fcntl wait.
                    if re.match(IMPOSSIBLE.get((sweep, who), "$"), call.group()):
                        number += 1
                        continue
                    count["runs"] += 1
                    count["succeeded" if status == 0 else "reported"] += 1
                    findings = 0
                    if sweep in ("kill", "undo"):
                        findings, wrong = judge_killed(before, after, words, flags, sweep == "undo")
                    elif sweep == "interrupt":
                        wrong = [] if status == 0 and state() == after else [f"EINTR seen: {said.strip()[:80]}"]
                    else:
                        wrong = judge_failed(before, after, words, flags, status, said)
                    count["findings"] += findings
                    count["wrong"] += bool(wrong)
                    if wrong and (chosen.verbose or count["wrong"] <= 5):
                        print(f"  {words.split()[0]} {sweep} {who} {kind}:{fault} call {number}: {'; '.join(wrong)[:500]}",
                              flush=True)
                    number += chosen.every
            if count["runs"]:
                print(f"{words.split()[0][2:]:22} {sweep:9} {who:7} kinds {count['kinds']:2} runs {count['runs']:4} succeeded "
                      f"{count['succeeded']:4} reported {count['reported']:4} findings {count['findings']:4} "
                      f"wrong {count['wrong']:3}", flush=True)
            all_wrong += count["wrong"]
    print(f"wrong: {all_wrong}")
    sys.exit(all_wrong != 0)


if __name__ == "__main__":
    if not os.path.exists("/run/mxadmin-sandbox"):
        sys.exit("This changes system files. Run it as: scripts/sweep")
    main()
