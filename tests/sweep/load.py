#!/usr/bin/env python3
"""Many commands at once: 200 of mixed kinds, 16 at a time, on 20 domains, while another process holds a database now and
then. The commands of a round commute, so the same ones given one after another must leave the same stores.

    load.py [ROUNDS]        inside the sandbox; scripts/sweep --load=ROUNDS starts it
"""
import concurrent.futures
import random
import subprocess
import sys
import threading
import time

import sweep

PASSWORD = {"ZCP_PASSWORD": "secret", "PATH": sweep.os.environ["PATH"]}


def document(domain):
    mails = " ".join(f"m{i}:a{i}" for i in range(8))
    return sweep.shell(f"document {domain} 'x{domain}' '{mails}' news")


def commands(seed):
    """Of each domain either single changes of its own names, or one change of the whole."""
    chance = random.Random(seed)
    result = []
    for number in range(20):
        domain = f"d{number}.test"
        whole = {0: f"--remove-domain --domain-name={domain}", 1: f"--turn-off-domain --domain-name={domain}",
                 2: f"--rename-domain --old-domain-name={domain} --new-domain-name=new{number}.test",
                 3: f"--del-domain-alias --domain-name={domain} --domain-alias-name=x{domain}"}
        if number % 5 == 4:
            result.append((domain, whole[number // 5]))
            continue
        name = f"--domain-name={domain} --mailname="
        for mail in range(8):
            result.append((domain, chance.choice([f"--remove-mailname {name}m{mail}", f"--set-password {name}m{mail}",
                                                  f"--remove-alias {name}m{mail} --alias=a{mail}",
                                                  f"--add-mailbox {name}m{mail}",
                                                  f"--set-mailbox-disk-quota {name}m{mail} --disk-quota={mail}000"])))
        result += [(domain, f"--add-mailname {name}n{i}") for i in range(4)]
    result += [(f"e{i}.test", f"--add-domain --domain-name=e{i}.test") for i in range(4)]
    chance.shuffle(result)
    return result


def run(command):
    domain, words = command
    start = time.monotonic()
    done = subprocess.run(["mxadmin"] + words.split(), input=DOCUMENTS[domain], env=PASSWORD, capture_output=True,
                          timeout=300, check=False)
    return done.returncode, done.stderr.decode(errors="replace"), time.monotonic() - start


def hold(database, stop):
    """Keeps writers out for a moment, again and again."""
    while not stop.is_set():
        subprocess.run(["sqlite3", database], input=b".timeout 60000\nBEGIN EXCLUSIVE;\n.shell sleep 0.1\nCOMMIT;\n",
                       check=False)
        stop.wait(0.5)


def prepare():
    sweep.shell("reset_stores")
    for number in range(20):
        domain = f"d{number}.test"
        run((domain, f"--add-domain --domain-name={domain}"))
        run((domain, f"--add-domain-alias --domain-name={domain} --domain-alias-name=x{domain} --set-reject"))
        for mail in range(8):
            run((domain, f"--add-mailname --domain-name={domain} --mailname=m{mail}"))
            run((domain, f"--add-alias --domain-name={domain} --mailname=m{mail} --alias=a{mail}"))
    sweep.save()


DOCUMENTS = {}


def main(rounds):
    DOCUMENTS.update({f"{kind}{i}.test": document(f"{kind}{i}.test") for kind in "de" for i in range(20)})
    prepare()
    wrong = 0
    for seed in range(rounds):
        given = commands(seed)
        sweep.put_back()
        start = time.monotonic()
        alone = [run(command) for command in given]
        sequential = time.monotonic() - start
        expected = sweep.state()
        sweep.put_back()
        stop = threading.Event()
        holders = [threading.Thread(target=hold, args=(path, stop))
                   for path in (sweep.TABLES + "/passwd.db", sweep.HANDLERS + "/handlers.db")]
        for holder in holders:
            holder.start()
        start = time.monotonic()
        with concurrent.futures.ThreadPoolExecutor(16) as pool:
            together = list(pool.map(run, given))
        parallel = time.monotonic() - start
        stop.set()
        for holder in holders:
            holder.join()
        failed = [result[:2] for result in alone + together if result[0] != 0]
        missing = sorted(sweep.state() ^ expected)
        wrong += bool(failed) + bool(missing)
        print(f"round {seed}: {len(given)} commands, failed {len(failed)}, differing lines {len(missing)}, one after another "
              f"{sequential:.1f} s, 16 at a time {parallel:.1f} s ({parallel / sequential:.2f}), longest "
              f"{max(result[2] for result in together):.1f} s", *failed[:2], *missing[:4], flush=True)
    print(f"wrong: {wrong}")
    return wrong != 0


if __name__ == "__main__":
    sys.exit(main(int(sys.argv[1]) if len(sys.argv) > 1 else 10))
