#!/usr/bin/python3
"""Roads that break amid a negotiation, and what both parties hold after the next login.

    trials/cuts.py --binary PROGRAM [--short] [--seed NUMBER] [--plan NUMBER] [--run NUMBER]
                   [--cuts NUMBER | --percent NUMBER] [--results FILE] [--minutes NUMBER]

Two programs in real windows negotiate over Prosody, through a proxy that breaks the road of one of
them at a byte (cuts_proxy.py): ends it, resets it on one side or on both, swallows what is sent, or
stops reading. Or the server is stopped and started, or one of the programs is killed. Several cuts
follow one another, also during the logins between them. Then both log in undisturbed, and the two
stores are judged (cuts_judge.py): what both have must be the same, none twice.

The programs do what the parties do at the word of cuts_hand.c, which presses their buttons from
inside. Everything is drawn by a seeded generator; a run that failed is done again with its number.

The long form takes over an hour. With --results each negotiation's counts are kept in a file, a line
for each, and what is there is not done again: --minutes ends a session between two negotiations, and
the next one goes on. Begin with an empty file when the program has changed.
"""

import collections
import json
import os
import random
import select
import shutil
import signal
import sys
import tempfile
import threading
import time

import cuts_judge
from cuts_proxy import DOWN, UP, Proxy
from trial import Trial

import driver

SERVER_PORT = 5223
ANSWER_MAX = 60  # seconds until a window that does not answer is taken for hanging
ARRIVAL_MAX = 120  # seconds until what is sent has arrived
ROUNDS = 4  # judgements in a run
CUTS_MAX = 4  # before a judgement
LOGIN_BYTES = 6000  # until a cut, at most: a login has 3,000, and what waits comes then
BURST_BYTES = {UP: 5000, DOWN: 2500}
LONG = " long" * 8000  # 40 KB
FLOOD = 40  # long texts
TOLD_MAX = 12  # lines of a difference

# How a road breaks: what is done to the party's road, and whether its program can know.
CUTS = ["end", "reset", "reset_program", "reset_server", "swallow", "stall", "kill", "restart"]
ROAD_CUTS = [kind for kind in CUTS if kind != "restart"]
SILENT = {"swallow", "reset_server", "stall"}
KILL_DELAY = 0.04  # seconds from the byte to the kill, at most


class Plan:
    """What is tried: whose road is cut while who acts, and whether losses are faults."""

    def __init__(self, name, is_managed, kinds, cuts, actors="any", is_counted=False):
        self.name = name
        self.is_managed = is_managed
        self.kinds = kinds
        self.cuts = cuts  # in the long form and in the short one
        self.actors = actors  # "victim": the other is there and idle; "other": the other acts
        self.is_counted = is_counted  # one cut a run, and what is lost is no fault


PLANS = [
    Plan("with stream management", True, CUTS, (500, 8)),
    Plan("without stream management, on the sender's side", False, ROAD_CUTS, (150, 3), "victim"),
    Plan(
        "without stream management, on the receiver's side",
        False,
        ROAD_CUTS,
        (100, 0),
        "other",
        True,
    ),
    Plan(
        "without stream management, the server stopped", False, ["restart"], (40, 0), "both", True
    ),
    Plan("with stream management, the server killed", True, ["kill_server"], (60, 0), "both", True),
    Plan(
        "without stream management, the server killed",
        False,
        ["kill_server"],
        (60, 0),
        "both",
        True,
    ),
]


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
        self.has_session = False  # shows one, dead or alive; else the login page
        self.answers = None
        self.unread = b""
        self.ended = None
        self.environment.update(
            LD_PRELOAD=os.path.join(cuts.trial.programs, "libcuts_hand.so"), NO_AT_BRIDGE="1"
        )

    # ---- The program ----

    def launch(self):
        read_end, write_end = os.pipe()
        environment = dict(
            self.desktop.environment,
            **self.environment,
            MORVANE_HAND=str(write_end),
            DBUS_SESSION_BUS_ADDRESS=self.bus_address,
        )
        with open(self.console_path, "ab") as console, open(self.errors_path, "ab") as errors:
            process = driver.start_process(
                [driver.Options.binary],
                cwd=self.directory,
                env=environment,
                stdin=driver.subprocess.PIPE,
                stdout=console,
                stderr=errors,
                pass_fds=[write_end],
                bufsize=0,
            )
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
        self.is_online = self.has_session = False
        return status

    def discard(self):
        if self.process is not None:
            self.process.kill()
            self.take_leave()
        super().discard()

    # ---- The hand ----

    def act(self, *commands):
        """Does the commands without anything in between; returns the answers."""
        data = ("\n".join(commands) + "\n\n").encode()
        try:
            while data:
                data = data[self.process.stdin.write(data) :]
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
        return (
            self.act(
                "press 0 New procedure",
                "write 0 Procedure title|" + title,
                "write 0 Contractor|" + contractor,
                "press 0 Begin",
            )[-1]
            == "ok"
        )

    def open(self, title):
        return self.act("row " + title)[0] == "ok"

    def commit(self, nth, text):
        return (
            self.act("write %d Clause text|%s" % (nth, text), "press %d Commit" % nth)[-1] == "ok"
        )

    def add_clause(self, text):
        nth = self.clauses()
        if self.act("press 0 Add clause")[0] != "ok":
            return False
        return self.commit(nth, text)

    def clauses(self):
        return int(self.act("count Clause text")[0])

    def say(self, nth, text):
        done = self.act(
            "press %d Clause chat" % nth, "write 0 Message|" + text, "press 0 Send", "press 0 Close"
        )
        return done[2] == "ok"


# ---- The trial ----


class Cuts:
    """The runs of one plan."""

    def __init__(self, trial, plan):
        self.trial = trial
        self.plan = plan
        self.desktop = driver.Desktop.current
        self.counts = collections.Counter()
        self.faults = []
        self.slowest = 0.0
        self.server = self.proxy = None
        self.players = []
        self.source = None
        self.number = 0
        self.done = []
        self.turn = None
        self.runs = 0

    # ---- What was counted ----

    def copy(self):
        return {"counts": collections.Counter(self.counts), "faults": len(self.faults)}

    def subtract(self, before):
        """What was counted since the copy was taken."""
        return {
            "counts": self.counts - before["counts"],
            "slowest": self.slowest,
            "faults": self.faults[before["faults"] :],
        }

    def add(self, row):
        """A negotiation of an earlier session."""
        self.counts.update(row["counts"])
        self.slowest = max(self.slowest, row["slowest"])
        self.faults += row["faults"]
        self.runs += 1

    # ---- A run ----

    def other(self, player):
        return self.players[1 - self.players.index(player)]

    def tell(self, text):
        print("  " + text, flush=True)

    def run(self, seed, run, cuts_max):
        """One negotiation with several judgements; returns how many cuts it had."""
        self.source = random.Random("%d %d %s" % (seed, run, self.plan.name))
        options = ["--port", str(SERVER_PORT)]
        self.server = driver.Server(
            options=options + ["--stream-management"] * self.plan.is_managed
        )
        self.server.start()
        self.proxy = Proxy(("127.0.0.1", 5222), ("127.0.0.1", SERVER_PORT))
        self.players = [Player(self, "anna", driver.ANNA), Player(self, "bert", driver.BERT)]
        self.number = 0
        self.done = []
        self.twice = 0
        before = self.counts["cuts"]
        self.runs += 1
        print("run %d of seed %d, %s" % (run, seed, self.plan.name), flush=True)
        try:
            self.begin_run()
            self.count_losses() if self.plan.is_counted else self.cut_and_judge(before + cuts_max)
        except Fault as fault:
            self.faults.append("run %d: %s" % (run, fault))
            print("FAULT in run %d: %s" % (run, fault), flush=True)
            self.keep_traces(run)
        finally:
            self.end_run()
        return self.counts["cuts"] - before

    def begin_run(self):
        for player in self.players:
            player.start()
            self.come_back(player)
        if self.source.random() < 0.5:
            self.befriend()
        for player in self.players:
            self.do(player, "begin")
            self.do(player, "add")
        self.burst(self.players)
        self.judge()

    def keep_traces(self, run):
        """What the consoles, the stores and the server's log say about a fault."""
        folder = os.path.join(
            os.path.dirname(self.trial.programs),
            "..",
            "trials",
            "cuts-faults",
            "%d-%d-%s" % (PLANS.index(self.plan), run, time.strftime("%H%M%S")),
        )
        os.makedirs(folder)
        for player in self.players:
            shutil.copy(player.console_path, os.path.join(folder, player.name + ".console"))
            shutil.copy(player.store_path, os.path.join(folder, player.name + ".db"))
        shutil.copy(os.path.join(self.server.directory, "prosody.log"), folder)
        self.tell("see " + os.path.normpath(folder))

    def end_run(self):
        complaints = []
        for player in self.players:
            with open(player.errors_path, errors="replace") as errors:
                complaints += [
                    line
                    for line in errors
                    if driver.COMPLAINT.search(line) and "Assertion `" not in line
                ]
            player.discard()
        if complaints:
            self.faults.append("on standard error: " + complaints[0])
        self.proxy.stop()
        self.server.stop()

    def befriend(self):
        """Each sees from then on when the other comes and goes, which travels beside the rest."""
        one, other = self.players
        one.act(
            "press 0 New procedure", "write 0 Contractor|" + other.jid, "press 0 Add contractor"
        )
        for player in self.players:
            player.wait(
                lambda player=player: player.holds("contacts", "bare_jid", self.other(player).jid),
                "the other is a contact",
            )

    def cut_and_judge(self, cuts_end):
        for number in range(ROUNDS):
            self.turn = self.players[number % 2]
            for _ in range(self.source.randrange(1, CUTS_MAX + 1)):
                if self.counts["cuts"] < cuts_end:
                    self.cut()
            self.judge()

    def count_losses(self):
        """One cut, and how much of what was done around it never arrives."""
        before = self.count_objects()
        self.cut()
        missing = self.judge(False)
        self.counts["objects"] += self.count_objects() - before
        self.counts["lost"] += missing
        self.counts["cuts that lost"] += missing > 0

    def count_objects(self):
        """Different objects in both stores."""
        held = [cuts_judge.read(player.store_path, player.jid) for player in self.players]
        return sum(len(set(held[0][kind]) | set(held[1][kind])) for kind in held[0])

    # ---- Actions ----

    def next_text(self, player):
        self.number += 1
        size = self.source.randrange(2, 9)
        text = "%s %d %s" % (
            player.name,
            self.number,
            " ".join(
                self.source.choice(["pays", "delivers", "apples", "weekly", "<by>", "cart", "it's"])
                for _ in range(size)
            ),
        )
        if self.source.random() < 0.03:
            text += LONG
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
                self.collect(player)

    def flood(self, player):
        """More than the system takes for a server that does not read."""
        self.counts["floods"] += 1
        try:
            if not player.clauses():
                return
            for _ in range(FLOOD):
                text = self.next_text(player) + LONG
                if player.commit(0, text):
                    self.done.append((player, "clause_revisions", "text", text))
        except Gone:
            self.collect(player)

    # ---- Cuts ----

    def cut(self):
        """One cut of one party's road: while it logs in, or while one or both act."""
        victim = self.players[self.counts["cuts"] % 2]
        if self.plan.actors == "victim":
            victim = self.turn
        other = self.other(victim)
        kind = self.source.choice(self.plan.kinds)
        actors = {"victim": [victim], "other": [other], "both": [victim, other]}.get(
            self.plan.actors
        ) or self.source.choice([[victim], [victim, other], [other]])
        direction, point = self.draw_point(victim, actors)
        away = [player.name for player in self.players if not player.is_online]
        self.counts["cuts"] += 1
        self.counts[kind] += 1
        # The other comes back undisturbed, or stays away for once.
        if not other.is_online and (self.plan.actors != "any" or self.source.random() < 0.7):
            self.come_back(other)
            if self.plan.actors == "victim":
                self.settle(victim, other)
        self.hit = threading.Event()
        self.delay = self.source.choice([0, 0, KILL_DELAY * self.source.random()])
        if kind == "kill_server" and self.source.random() < 0.5:
            # What the server has for the other stays with it.
            self.counts["held"] += 1
            self.proxy.stall(other.name, (UP, DOWN))
        self.proxy.arm(victim.name, direction, point, lambda: self.strike(victim, kind))
        if not victim.is_online:
            self.come_back(victim, kind)
        self.burst(actors)
        where = "in the midst" if self.hit.is_set() else "at the end"
        self.proxy.fire()
        self.tell(
            "%s of %s %s %s, byte %d; acting: %s; had been away: %s"
            % (kind, victim.name, where, direction, point, [actor.name for actor in actors], away)
        )
        self.burst(actors)
        if kind == "stall" and not self.plan.is_counted and not self.trial.short:
            if self.source.random() < 0.1:
                self.flood(victim)
        self.suffer(victim, kind)

    def draw_point(self, victim, actors):
        """Where bytes will pass: a login, and a burst of the one who acts and of who hears it."""
        if not victim.is_online:
            return self.source.choice([UP, DOWN]), self.source.randrange(LOGIN_BYTES)
        chances = {True: 0.9 if len(actors) == 1 else 0.5, False: 0.1}
        direction = UP if self.source.random() < chances[victim in actors] else DOWN
        return direction, self.source.randrange(BURST_BYTES[direction])

    def strike(self, victim, kind):
        """The cut itself, on the proxy's thread."""
        self.hit.set()
        if kind == "kill":
            if victim.process is not None:
                threading.Timer(self.delay, victim.process.kill).start()
        elif kind == "restart":
            self.server.process.terminate()
        elif kind == "kill_server":
            self.server.process.kill()
        elif kind == "stall":
            self.proxy.stall(victim.name, (UP,))
        else:
            getattr(self.proxy, kind)(victim.name)

    def suffer(self, victim, kind):
        """What the cut leaves behind."""
        if kind in ("restart", "kill_server"):
            driver.stop_process(self.server.process)
            self.server.start()
            for player in self.players:
                self.proxy.reset(player.name)
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

    def collect(self, player):
        """Takes leave of a program that has ended by itself: by the cut, or in a designed stop."""
        when = "in a session" if player.has_session else "during a login"
        self.judge_end(player, player.take_leave(), when)

    def judge_end(self, player, status, when):
        with open(player.errors_path, errors="replace") as errors:
            stops = [line for line in errors if "Assertion `" in line]
        if status in (0, -signal.SIGKILL):
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
            is_login = player.act("count Login", "close")[0] != "0"
        except Gone:
            # It had ended by itself before.
            self.collect(player)
            return
        when = "during a login" if is_login else "when it was closed"
        self.judge_end(player, player.take_leave(), when)

    def come_back(self, player, kind=None):
        """A login, in a new program where the old one is no use. Under a cut it may fail."""
        self.proxy.owner = player.name
        # A dead session is of no use, and a login that a cut holds up is given up.
        if player.process is not None and self.is_stuck(player):
            self.give_up(player)
        if player.process is None:
            player.start()
        try:
            player.is_online = self.log_in(player, kind)
        except Gone:
            self.collect(player)
            if not kind:
                raise Fault("%s's program ended in an undisturbed login" % player.name) from None

    def give_up(self, player):
        """The user logs in again in the same window, or closes it."""
        if self.source.random() < 0.5:
            try:
                if self.look(player) == "none":
                    player.act("do log-in-again")
                    self.counts["again"] += 1
                    player.wait(lambda: self.look(player) != "none", "the login page shows")
                else:
                    player.act("key Escape")
                    self.counts["given up"] += 1
                    player.wait(lambda: self.look(player) != "off", "the login ends")
                # A login that succeeds at that moment shows its session.
                if not player.has_session:
                    return
            except Gone:
                self.collect(player)
                return
        self.leave(player)

    def look(self, player):
        """The state of the login button; without one there is a session."""
        state = player.act("ready 0 Login")[0]
        player.has_session = state == "none"
        return state

    def is_stuck(self, player):
        try:
            return self.look(player) != "ok"
        except Gone:
            self.collect(player)
            return False

    def log_in(self, player, kind):
        """Whether the login succeeded; without a cut it must."""
        password = driver.PASSWORDS[player.jid]
        player.act("write 0 Password|" + password, "press 0 Login")
        deadline = time.monotonic() + ARRIVAL_MAX
        while True:
            page, ready = player.act("count New procedure", "ready 0 Login")
            if page != "0":
                player.has_session = True
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

    def judge(self, is_loss_fault=True):
        """Both log in undisturbed; what each begins then arrives behind all that was on its way.
        Returns how many objects are missing, where that is no fault."""
        self.proxy.disarm()
        self.settle(*self.players)
        self.counts["judgements"] += 1
        self.count_twice()
        lines = cuts_judge.compare([(player.store_path, player.jid) for player in self.players])
        for player, table, column, text in self.done:
            if not player.holds(table, column, text):
                lines.append("%s has lost what the window had shown: %s" % (player.name, text[:80]))
        lost = [line for line in lines if " has not: " in line and not is_loss_fault]
        lines = [line for line in lines if line not in lost]
        for line in lines[:TOLD_MAX]:
            self.tell("DIFFERENCE: " + line)
        if lines:
            raise Fault("%d differences: %s" % (len(lines), lines[0]))
        return len(lost)

    def settle(self, *players):
        """All are there, undisturbed, and what was on its way has arrived."""
        for player in players:
            if not player.is_online:
                self.come_back(player)
        for player in players:
            self.number += 1
            title = "Fence %d of %s" % (self.number, player.name)
            if not player.begin(title):
                raise Fault("%s cannot begin a procedure" % player.name)
            other = self.other(player)
            try:
                other.wait(
                    lambda other=other, title=title: other.holds("procedures", "title", title),
                    "%s arrives" % title,
                )
            except Gone:
                self.collect(other)
            player.open(title)
            self.done.append((player, "procedures", "title", title))

    def count_twice(self):
        """Procedures that are there twice at their contractor's, the most of a run counted."""
        twice = sum(
            player.rows(
                "SELECT count(*) - count(DISTINCT time) FROM procedures" " WHERE contractor = ?",
                player.jid,
            )[0][0]
            for player in self.players
        )
        self.counts["twice"] += twice - self.twice
        self.twice = twice


def add_arguments(parser):
    parser.add_argument("--seed", type=int, default=11, help="what everything is drawn with")
    parser.add_argument("--plan", type=int, help="only this plan, from 0")
    parser.add_argument("--run", type=int, help="only this run")
    parser.add_argument("--cuts", type=int, help="how many, by default by the form")
    parser.add_argument("--percent", type=int, default=100, help="so much of that")
    parser.add_argument("--results", help="the file that keeps what each negotiation counted")
    parser.add_argument(
        "--minutes", type=float, default=float("inf"), help="begins no negotiation after so many"
    )


def read_results(path):
    """What each negotiation counted, by its plan, seed and number."""
    if path is None or not os.path.exists(path):
        return {}
    with open(path, encoding="utf-8") as file:
        rows = [json.loads(line) for line in file]
    return {(row["plan"], row["seed"], row["run"]): row for row in rows}


def run_all(cuts, cuts_max, deadline):
    """Runs the plan's negotiations, or takes their counts from the results, until there were so many
    cuts or the deadline has passed."""
    arguments = cuts.trial.arguments
    results = read_results(arguments.results)
    while cuts.runs == 0 or cuts.counts["cuts"] < cuts_max:
        key = (cuts.plan.name, arguments.seed, cuts.runs)
        if key in results:
            cuts.add(results[key])
            continue
        if time.monotonic() > deadline:
            return
        before = cuts.copy()
        cuts.run(arguments.seed, cuts.runs, cuts_max - cuts.counts["cuts"])
        if arguments.results:
            with open(arguments.results, "a", encoding="utf-8") as file:
                row = dict(zip(("plan", "seed", "run"), key), **cuts.subtract(before))
                file.write(json.dumps(row) + "\n")


def try_out(trial, plan, cuts_max, deadline):
    """Runs the plan; tells its rows."""
    cuts = Cuts(trial, plan)
    if trial.arguments.run is not None:
        cuts.run(trial.arguments.seed, trial.arguments.run, 1000)
    else:
        run_all(cuts, cuts_max, deadline)
    if cuts.runs == 0:
        return
    counts = cuts.counts
    trial.check(
        "%s: faults after %d cuts in %d negotiations" % (plan.name, counts["cuts"], cuts.runs),
        0,
        len(cuts.faults),
    )
    for fault in cuts.faults:
        print("  " + fault)
    trial.figure(
        "%s: judgements; logins, again in the same window; logins given up; procedures "
        "that came twice" % plan.name,
        "%d; %d, %d; %d; %d"
        % (
            counts["judgements"],
            counts["logins"],
            counts["again"],
            counts["given up"],
            counts["twice"],
        ),
    )
    trial.figure(
        "%s: cuts" % plan.name,
        ", ".join("%s %d" % (kind.replace("_", " of the "), counts[kind]) for kind in plan.kinds),
    )
    if plan.is_counted:
        held = ", %d of them while nothing went to the other" % counts["held"]
        trial.figure(
            "%s: lost" % plan.name,
            "%d of %d objects, in %d of %d cuts%s"
            % (
                counts["lost"],
                counts["objects"],
                counts["cuts that lost"],
                counts["cuts"],
                held if "kill_server" in plan.kinds else "",
            ),
        )
    trial.figure(
        "%s: logins that the cut ended in a designed stop" % plan.name,
        ", ".join(
            "%d x %s" % (count, key.split(": ", 1)[1])
            for key, count in sorted(counts.items())
            if key.startswith("stop")
        )
        or "none",
    )
    trial.figure("%s: servers that did not read 1.6 MB of texts" % plan.name, counts["floods"])
    trial.figure("%s: longest time until a window answered" % plan.name, "%.1f s" % cuts.slowest)


def main():
    trial = Trial("cuts", __doc__, add_arguments)
    arguments = trial.arguments
    driver.Options.binary = trial.binary
    driver.enter_world()
    cuts_judge.try_out(trial)
    # A kill loses what the system keeps of a file no more than a disk does, and memory is faster.
    if os.access("/dev/shm", os.W_OK):
        tempfile.tempdir = "/dev/shm"
    desktop = driver.Desktop()
    began = time.monotonic()
    deadline = began + 60 * arguments.minutes
    for plan in PLANS if arguments.plan is None else [PLANS[arguments.plan]]:
        wanted = arguments.cuts
        if wanted is None:
            wanted = plan.cuts[trial.short] * arguments.percent // 100
        if wanted:
            try_out(trial, plan, wanted, deadline)
    if arguments.results is None:
        trial.figure("time", "%d s" % (time.monotonic() - began))
    desktop.stop()
    sys.exit(trial.end())


if __name__ == "__main__":
    main()
