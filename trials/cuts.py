#!/usr/bin/python3
"""Roads that break amid a negotiation, and what both parties hold after the next login.

    trials/cuts.py --binary PROGRAM [--short] [--seed NUMBER] [--run NUMBER] [--cuts NUMBER]

Two programs in real windows negotiate over Prosody, through a proxy that breaks the road of one of
them at a byte (cuts_proxy.py): ends it, resets it on one side or on both, swallows what is sent, or
stops reading. Or the server is stopped and started, or one of the programs is killed. Several cuts
follow one another, also during the logins between them. Then both log in undisturbed, and the two
stores are judged (cuts_judge.py): what both have must be the same, none twice.

The programs do what the parties do at the word of cuts_hand.c, which presses their buttons from
inside. Everything is drawn by a seeded generator; a run that failed is done again with its number.
"""

import collections
import os
import random
import select
import signal
import sys
import threading
import time

import cuts_judge
from cuts_proxy import DOWN, UP, Proxy
from trial import Trial

import driver

SERVER_PORT = 5223
ANSWER_MAX = 60          # seconds until a window that does not answer is taken for hanging
ARRIVAL_MAX = 30         # seconds until what is sent has arrived
ROUNDS = 4               # judgements in a run
CUTS_MAX = 4             # before a judgement
UP_MAX, DOWN_MAX = 20000, 8000   # bytes that pass until a cut, at most
LONG_SIZE = 40000        # letters of a long text
TOLD_MAX = 12            # lines of a difference

# How a road breaks: what is done to the party's road, and whether its program can know.
CUTS = ["end", "reset", "reset_program", "reset_server", "swallow", "stall", "kill", "restart"]
SILENT = {"swallow", "reset_server", "stall"}


class Gone(Exception):
    """The program has ended by itself."""


class Fault(Exception):
    """What the trial looks for."""


# ---- A party ----


class Player(driver.Party):
    """A party whose program is led by the hand."""

    def __init__(self, cuts, name, jid):
        super().__init__(name, jid)
        self.cuts = cuts
        self.is_online = False
        self.answers = None
        self.unread = b""
        self.ended = None
        self.environment.update(
            LD_PRELOAD=os.path.join(cuts.trial.programs, "libcuts_hand.so"), NO_AT_BRIDGE="1")

    # ---- The program ----

    def launch(self):
        read_end, write_end = os.pipe()
        environment = dict(self.desktop.environment, **self.environment, MORVANE_HAND=str(write_end),
                           DBUS_SESSION_BUS_ADDRESS=self.bus_address)
        with open(self.console_path, "ab") as console, open(self.errors_path, "ab") as errors:
            process = driver.start_process(
                [driver.Options.binary], cwd=self.directory, env=environment,
                stdin=driver.subprocess.PIPE, stdout=console, stderr=errors, pass_fds=[write_end])
        os.close(write_end)
        self.answers, self.unread = read_end, b""
        return process

    def start(self):
        assert self.process is None
        self.expected_end = True
        self.process = self.launch()
        self.wait(lambda: self.act("count Login") == ["1"], "its window opens")

    def take_leave(self):
        """Collects the program that has ended, or is about to."""
        try:
            status = self.process.wait(ANSWER_MAX)
        except driver.subprocess.TimeoutExpired:
            raise Fault("%s's program does not end" % self.name) from None
        self.process.stdin.close()
        os.close(self.answers)
        self.process = self.answers = None
        self.is_online = False
        return status

    def discard(self):
        if self.process is not None:
            self.process.kill()
            self.take_leave()
        super().discard()

    # ---- The hand ----

    def act(self, *commands):
        """Does the commands without anything in between; returns the answers."""
        try:
            self.process.stdin.write(("\n".join(commands) + "\n\n").encode())
            self.process.stdin.flush()
        except BrokenPipeError:
            raise Gone(self.name) from None
        began = time.monotonic()
        while self.unread.count(b"\n") < len(commands):
            readable, _, _ = select.select([self.answers], [], [], ANSWER_MAX)
            data = os.read(self.answers, 1 << 20) if readable else None
            if data is None:
                raise Fault("%s's window does not answer any more" % self.name)
            if not data:
                raise Gone(self.name)
            self.unread += data
        self.cuts.slowest = max(self.cuts.slowest, time.monotonic() - began)
        lines = self.unread.split(b"\n", len(commands))
        self.unread = lines[-1]
        return [line.decode() for line in lines[:-1]]

    def wait(self, condition, what, bound=ARRIVAL_MAX):
        deadline = time.monotonic() + bound * driver.SLOW
        while not condition():
            if time.monotonic() > deadline:
                raise Fault("%s waited in vain until %s" % (self.name, what))
            time.sleep(0.004)

    def holds(self, table, column, text):
        """Whether a text is stored."""
        return bool(self.rows("SELECT 1 FROM %s WHERE %s = ? LIMIT 1" % (table, column), text))

    # ---- What a user does ----

    def begin(self, title):
        contractor = self.cuts.other(self).jid
        return self.act("press 0 New procedure", "write 0 Procedure title|" + title,
                        "write 0 Contractor|" + contractor, "press 0 Begin")[-1] == "ok"

    def open(self, title):
        return self.act("row " + title)[0] == "ok"

    def commit(self, nth, text):
        return self.act("write %d Clause text|%s" % (nth, text), "press %d Commit" % nth)[-1] == "ok"

    def add_clause(self, text):
        nth = self.clauses()
        if self.act("press 0 Add clause")[0] != "ok":
            return False
        return self.commit(nth, text)

    def clauses(self):
        return int(self.act("count Clause text")[0])

    def say(self, nth, text):
        done = self.act("press %d Clause chat" % nth, "write 0 Message|" + text, "press 0 Send",
                        "press 0 Close")
        return done[2] == "ok"


# ---- The trial ----


class Cuts:
    """Runs with one server, with or without stream management."""

    def __init__(self, trial, is_managed):
        self.trial = trial
        self.is_managed = is_managed
        self.desktop = driver.Desktop.current
        self.counts = collections.Counter()
        self.faults = []
        self.slowest = 0.0
        self.server = self.proxy = None
        self.players = []
        self.source = None
        self.number = 0
        self.done = []
        self.runs = self.undisturbed = 0

    def other(self, player):
        return self.players[1 - self.players.index(player)]

    def tell(self, text):
        print("  " + text, flush=True)

    # ---- A run ----

    def run(self, seed, run, cuts_max):
        """One negotiation with several judgements; returns how many cuts it had."""
        self.source = random.Random("%d %d %d" % (seed, run, self.is_managed))
        options = ["--port", str(SERVER_PORT)]
        self.server = driver.Server(options=options + ["--stream-management"] * self.is_managed)
        self.server.start()
        self.proxy = Proxy(("127.0.0.1", 5222), ("127.0.0.1", SERVER_PORT))
        self.players = [Player(self, "anna", driver.ANNA), Player(self, "bert", driver.BERT)]
        self.number = 0
        self.done = []
        before = self.counts["cuts"]
        self.runs += 1
        print("run %d of seed %d, %s stream management" % (
            run, seed, "with" if self.is_managed else "without"), flush=True)
        try:
            self.begin_run()
            self.undisturbed += 1
            for _ in range(ROUNDS):
                for _ in range(self.source.randrange(1, CUTS_MAX + 1)):
                    if self.counts["cuts"] - before < cuts_max:
                        self.cut()
                self.judge()
        except Fault as fault:
            self.faults.append("run %d: %s" % (run, fault))
            print("FAULT in run %d: %s" % (run, fault), flush=True)
        finally:
            self.end_run()
        return self.counts["cuts"] - before

    def begin_run(self):
        for player in self.players:
            player.start()
            self.come_back(player)
        for player in self.players:
            self.do(player, "begin")
            self.do(player, "add")
        self.burst(self.players)
        self.judge()

    def end_run(self):
        complaints = []
        for player in self.players:
            with open(player.errors_path, errors="replace") as errors:
                complaints += [line for line in errors if driver.COMPLAINT.search(line) and
                               "Assertion `" not in line]
            player.discard()
        if complaints:
            self.faults.append("on standard error: " + complaints[0])
        self.proxy.stop()
        self.server.stop()

    # ---- Actions ----

    def next_text(self, player):
        self.number += 1
        size = self.source.randrange(2, 9)
        text = "%s %d %s" % (player.name, self.number, " ".join(
            self.source.choice(["pays", "delivers", "apples", "weekly", "<by>", "cart", "it's"])
            for _ in range(size)))
        if self.source.random() < 0.03:
            text += " " + "long " * (LONG_SIZE // 5)
        return text

    def do(self, player, kind):
        """One action; what the window took is noted."""
        text = self.next_text(player)
        if kind == "begin":
            title = "Order %d of %s" % (self.number, player.name)
            if player.begin(title):
                self.done.append((player, "procedures", "title", title))
            return
        clauses = player.clauses()
        if kind == "add" or not clauses:
            if player.add_clause(text):
                self.done.append((player, "clause_revisions", "text", text))
            return
        nth = self.source.randrange(clauses)
        if kind == "revise":
            if player.commit(nth, text):
                self.done.append((player, "clause_revisions", "text", text))
        elif kind == "decide":
            names = self.source.sample(["Agree", "Disagree"], 2)
            for name in names:
                if player.act("press %d %s" % (nth, name))[0] == "ok":
                    break
        elif kind == "say":
            if player.say(nth, text):
                self.done.append((player, "clause_messages", "text", text))
        elif kind == "turn":
            titles = [title for (title,) in player.rows("SELECT title FROM procedures")]
            player.open(self.source.choice(titles))

    def burst(self, players):
        """Some actions of these, as fast as they go."""
        kinds = ["begin"] + ["add"] * 3 + ["revise"] * 6 + ["decide"] * 4 + ["say"] * 4 + ["turn"]
        for _ in range(self.source.randrange(2, 9)):
            player = self.source.choice(players)
            kind = self.source.choice(kinds)
            if player.process is None:
                continue
            try:
                self.do(player, kind)
            except Gone:
                self.collect(player, "in a session")

    # ---- Cuts ----

    def cut(self):
        """One cut of one party's road: while it logs in, or while one or both act."""
        victim = self.players[self.counts["cuts"] % 2]
        kind = self.source.choice(CUTS)
        actors = self.source.choice([[victim], [victim, self.other(victim)], [self.other(victim)]])
        direction = self.source.choice([UP, DOWN])
        # Early points are hit more often than late ones.
        point = int((UP_MAX if direction == UP else DOWN_MAX) * self.source.random() ** 2)
        away = [player.name for player in self.players if not player.is_online]
        self.counts["cuts"] += 1
        self.counts[kind] += 1
        # The other comes back undisturbed, or stays away for once.
        other = self.other(victim)
        if not other.is_online and self.source.random() < 0.7:
            self.come_back(other)
        self.hit = threading.Event()
        self.proxy.arm(victim.name, direction, point, lambda: self.strike(victim, kind))
        if not victim.is_online:
            self.come_back(victim, kind)
        self.burst(actors)
        where = "in the midst" if self.hit.is_set() else "at the end"
        self.proxy.fire()
        self.tell("%s of %s %s %s, byte %d; acting: %s; had been away: %s" % (
            kind, victim.name, where, direction, point, [actor.name for actor in actors],
            away))
        self.burst(actors)
        self.suffer(victim, kind)

    def strike(self, victim, kind):
        """The cut itself, on the proxy's thread."""
        self.hit.set()
        if kind == "kill":
            if victim.process is not None:
                victim.process.kill()
        elif kind == "restart":
            self.server.process.terminate()
        elif kind == "stall":
            self.proxy.stall(victim.name, (UP,))
        else:
            getattr(self.proxy, kind)(victim.name)

    def suffer(self, victim, kind):
        """What the cut leaves behind."""
        if kind == "restart":
            driver.stop_process(self.server.process)
            self.server.start()
            for player in self.players:
                player.is_online = False
        elif kind == "stall" and self.source.random() < 0.5:
            self.proxy.resume(victim.name)
            return
        elif kind == "kill" and victim.process is not None:
            victim.take_leave()
        if kind == "stall":
            self.proxy.reset(victim.name)
        victim.is_online = False

    # ---- Coming back ----

    def collect(self, player, when):
        """Takes leave of a program that has ended by itself: by the cut, or in a designed stop."""
        status = player.take_leave()
        with open(player.errors_path, errors="replace") as errors:
            stops = [line for line in errors if "Assertion `" in line]
        if status == -signal.SIGKILL:
            return
        expression = stops[-1].split("`")[1].split("'")[0] if stops else "status %d" % status
        self.counts["stop %s: %s" % (when, expression)] += 1
        if when != "during a login" or status != -signal.SIGABRT:
            raise Fault("%s's program ended %s: %s" % (player.name, when, expression))

    def leave(self, player):
        """The user closes the window and waits for the end."""
        if player.process is None:
            return
        try:
            player.act("close")
        except Gone:
            pass
        status = player.take_leave()
        if status != 0:
            raise Fault("%s's program ended with %d when it was closed" % (player.name, status))

    def come_back(self, player, kind=None):
        """A login, in a new program where the old one is no use. Under a cut it may fail."""
        self.proxy.owner = player.name
        if player.process is not None and player.act("count Login")[0] == "0":
            self.leave(player)
        if player.process is None:
            player.start()
        try:
            player.is_online = self.log_in(player, kind)
        except Gone:
            self.collect(player, "during a login")

    def log_in(self, player, kind):
        """Whether the login succeeded; without a cut it must."""
        player.act("press 0 Login")
        deadline = time.monotonic() + ARRIVAL_MAX
        while True:
            page, ready = player.act("count New procedure", "ready 0 Login")
            if page != "0":
                titles = player.rows("SELECT title FROM procedures ORDER BY db_id DESC LIMIT 1")
                for (title,) in titles:
                    player.open(title)
                self.counts["logins"] += 1
                return True
            if kind and self.hit.is_set() and (kind in SILENT or ready == "ok"):
                return False
            if not kind and (ready == "ok" or time.monotonic() > deadline):
                raise Fault("%s cannot log in: %s" % (player.name, player.act("labels")[0]))
            if time.monotonic() > deadline:
                raise Fault("%s's login does not end" % player.name)
            time.sleep(0.004)

    # ---- Judging ----

    def judge(self):
        """Both log in undisturbed; what each begins then arrives behind all that was on its way."""
        self.proxy.disarm()
        for player in self.players:
            if not player.is_online:
                self.come_back(player)
        for player in self.players:
            self.number += 1
            title = "Fence %d of %s" % (self.number, player.name)
            if not player.begin(title):
                raise Fault("%s cannot begin a procedure" % player.name)
            other = self.other(player)
            try:
                other.wait(lambda other=other, title=title: other.holds(
                    "procedures", "title", title), "%s arrives" % title)
            except Gone:
                self.collect(other, "in a session")
            player.open(title)
            self.done.append((player, "procedures", "title", title))
        self.counts["judgements"] += 1
        lines = cuts_judge.compare([(player.store_path, player.jid) for player in self.players])
        for player, table, column, text in self.done:
            if not player.holds(table, column, text):
                lines.append("%s has lost what the window had shown: %s" % (player.name, text[:80]))
        for line in lines[:TOLD_MAX]:
            self.tell("DIFFERENCE: " + line)
        if lines:
            raise Fault("%d differences: %s" % (len(lines), lines[0]))


def add_arguments(parser):
    parser.add_argument("--seed", type=int, default=11, help="what everything is drawn with")
    parser.add_argument("--run", type=int, help="only this run")
    parser.add_argument("--cuts", type=int, help="how many, by default by the form")


def try_out(trial, is_managed, cuts_max):
    """Runs until there were so many cuts; tells the rows."""
    cuts = Cuts(trial, is_managed)
    arguments = trial.arguments
    if arguments.run is not None:
        cuts.run(arguments.seed, arguments.run, 1000)
    else:
        run = 0
        while run == 0 or cuts.counts["cuts"] < cuts_max:
            cuts.run(arguments.seed, run, cuts_max - cuts.counts["cuts"])
            run += 1
    name = "with" if is_managed else "without"
    trial.check("judgements before the first cut, %s stream management: both hold the same" % name,
                "%d of %d" % (cuts.runs, cuts.runs), "%d of %d" % (cuts.undisturbed, cuts.runs))
    if not cuts.counts["cuts"]:
        return
    trial.check("%d cuts %s stream management, several to a run: judgements with a fault" % (
        cuts.counts["cuts"], name), 0, len(cuts.faults))
    for fault in cuts.faults:
        print("  " + fault)
    trial.figure("%s: judgements; logins" % name, "%d; %d" % (
        cuts.counts["judgements"], cuts.counts["logins"]))
    trial.figure("%s: cuts" % name, ", ".join(
        "%s %d" % (kind, cuts.counts[kind]) for kind in CUTS))
    trial.figure("%s: programs that a cut stopped by design" % name, ", ".join(
        "%s %d" % (key, count) for key, count in sorted(cuts.counts.items())
        if key.startswith("stop")) or "none")
    trial.figure("%s: longest time until a window answered" % name, "%.1f s" % cuts.slowest)


def main():
    trial = Trial("cuts", __doc__, add_arguments)
    driver.Options.binary = trial.binary
    driver.enter_world()
    cuts_judge.try_out(trial)
    desktop = driver.Desktop()
    began = time.monotonic()
    wanted = trial.arguments.cuts
    if wanted is None:
        wanted = 0 if trial.short else 500
    for is_managed in (True, False):
        try_out(trial, is_managed, wanted if is_managed else 0)
    trial.figure("time", "%d s" % (time.monotonic() - began))
    desktop.stop()
    sys.exit(trial.end())


if __name__ == "__main__":
    main()
