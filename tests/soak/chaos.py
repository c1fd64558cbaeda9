#!/usr/bin/env python3
"""Plays sessions in which faults of all kinds are drawn, one for each seed.

    chaos.py [--seeds N] CONFSIM USERS ROUTES TIMER

A supervised plugin must come through all of them without a finding, and have the configuration of
its daemon in the end. One that makes its requests from a timer, by the plain calls, must be found out
within ten. Sessions wait most of their time, so many go on at once.
"""
import argparse
import collections
import concurrent.futures
import re
import subprocess
import tempfile

AT_ONCE = 20
ODD_SEEDS = 10  # of which one must show what is wrong with the plugin with a timer

# What is played again and again while things go wrong, what holds when they do no more, and the
# percentage of frames, requests and commands that a fault meets.
USERS = (15, """
try set /demo-users:users/user[name="u$N"]/password $6$$salt$$hash
try commit
try status /demo-users:accounts
try delete /demo-users:users/user[name="u$N"]
try commit
""", """
set /demo-users:users/user[name="end"]/password $6$$salt$$hash
commit
status /demo-users:accounts
expect-xpath /demo-users:accounts/account[name="end"]/role guest
expect-not <name>x
""")
ROUTES = (15, """
try set /routes:routing/gateway[name="g$N"]/active true
try commit
try call probe <gateway>east</gateway>
try delete /routes:routing/gateway[name="g$N"]
try commit
""", """
set /routes:routing/gateway[name="end"]/active true
commit
call probe <gateway>east</gateway>
expect <alive>true</alive>
""")
TIMER = (5, """
try call echo <x/>
sleep 0.04
""" * 5, "")


def script(name, seed, play):
    rate, disturbed, quiet = play
    rounds = "".join(disturbed.replace("$N", str(n)) for n in range(4))
    return f"wait {name} 20\nchaos {seed} {rate}\n{rounds}chaos off\ndiscard\nfaults\n" + (
        f"restart\nwait {name} 40\n{quiet}kickoff {name}\n" if quiet else f"try kill {name}\n")


def session(confsim, command, name, play, seed):
    """Returns the seed, the exit status, and all that was printed."""
    with tempfile.NamedTemporaryFile("w", suffix=".confsim") as file:
        file.write(script(name, seed, play))
        file.flush()
        done = subprocess.run(
            [confsim, "run", "--script", file.name, "--strict", "--timeout", "0.2", "--",
             *command], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
            check=False)
    return seed, done.returncode, done.stdout.decode(errors="replace")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--seeds", type=int, default=1000)
    parser.add_argument("--first", type=int, default=1)
    parser.add_argument("programs", nargs=4)
    given = parser.parse_args()
    confsim, users, routes, timer = given.programs
    failed = False
    seeds = range(given.first, given.first + given.seeds)
    with concurrent.futures.ThreadPoolExecutor(AT_ONCE) as pool:
        of_timer = pool.map(lambda seed: session(confsim, [timer, "timer"], "odd", TIMER, seed),
                            range(1, ODD_SEEDS + 1))
        for name, command, play in (("users", [users, "/var/tmp/accounts"], USERS),
                                    ("routes", [routes], ROUTES)):
            kinds = collections.Counter()
            played = [pool.submit(session, confsim, command, name, play, seed) for seed in seeds]
            bad = 0
            for each in played:
                seed, status, printed = each.result()
                for times, kind in re.findall(r"(?m)^(?:\w+: )?(\w[\w-]*).*, (\d+) times?$", printed):
                    kinds[times] += int(kind)
                if status != 0:
                    bad += 1
                    print(f"{printed}\n{name} does not come through chaos with the seed {seed}")
            failed = failed or bad > 0
            print(f"{name}: {given.seeds} seeds, {bad} found, faults:", dict(kinds))
        found = [seed for seed, status, printed in of_timer
                 if status != 0 and re.search("error: plugin odd drops .* it made the request pull",
                                              printed)]
        print("a plugin with a timer is found by the seeds", found)
        failed = failed or not found
    return failed


if __name__ == "__main__":
    raise SystemExit(main())
