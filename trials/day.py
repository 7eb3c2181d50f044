#!/usr/bin/python3
"""A day of two parties in fast motion, and a model that knows what each database must hold.

    trials/day.py --binary PROGRAM [--short] [--seed NUMBER] [--actions NUMBER]

Two programs in real windows and a real server, with a clock that the trial moves: it stands still
during an action and leaps between two. The actions are drawn by a seeded generator: the parties
log in, negotiate, chat, are away, come back, are killed, and the server is restarted under them.
Beside them runs a model (model.py) of what each action makes of each database. After every action
both databases are waited to hold exactly that; at a pause they are also looked at whole, with what
the server keeps, what was sent and what the consoles warned of.
"""

import collections
import mmap
import os
import random
import re
import sqlite3
import struct
import sys
import time

import model
from trial import Trial

import driver

START = 1772431200  # a Monday, 6 o'clock
SKEW = 7  # seconds by which Bert's clock is behind Anna's
AWKWARD = [
    "R&D",
    "<b>",
    "it's",
    '"so"',
    "Maß",
    "für",
    "\U0001f600",
    "&amp;",
    "]]>",
    "100%",
    "—",
    "東京",
    "a'b''c",
    "\\n",
    "%s",
    "-- ;",
]
WORDS = """the tenant owner buyer shall pay deliver keep repair return every month week year boat
house roof berth pier barrel apples rent price deposit at on by before after within two three ten
days euros notice in writing unless agreed otherwise and or not"""
CARDS = {
    "begin": 3,
    "add a clause": 8,
    "revise": 10,
    "draft": 5,
    "commit the draft": 5,
    "cancel": 4,
    "decide": 16,
    "talk about a clause": 8,
    "chat": 8,
    "ask for presence": 2,
    "compare": 4,
    "close": 4,
    "kill": 4,
    "restart the server": 1,
    "delete a procedure": 1,
    "be interrupted": 2,
    "twice in a second": 2,
    "look back": 3,
    "agree": 4,
}
AWAY_MAX = 16  # actions
PROCEDURES_MAX = 5
CLAUSES_MAX = 4

WARNING = re.compile(
    r"Warning: (A [a-z ]+ came, but we don't have the \w+ to attach it to\.|"
    r"Received a message from '.*', but that contact isn't in the contact list\.)"
)


class Difference(Exception):
    """A database does not hold what it must."""


# ---- Texts ----


class Writer:
    """Texts out of the seeded generator."""

    def __init__(self, source):
        self.source = source
        self.words = WORDS.split()
        self.titles = 0

    def sentence(self, count):
        words = [self.source.choice(self.words) for _ in range(count)]
        if self.source.random() < 0.5:
            words[self.source.randrange(count)] = self.source.choice(AWKWARD)
        return " ".join(words)

    def title(self):
        self.titles += 1
        return "%s, number %d" % (self.sentence(3), self.titles)

    def text(self):
        draw = self.source.random()
        if draw < 0.15:
            lines = [self.sentence(self.source.randrange(2, 9)) for _ in range(3)]
            return self.source.choice(["", "\n", "  "]) + "\n".join(lines) + "\n"
        if draw < 0.2:
            return " ".join(self.sentence(20) for _ in range(25))
        return self.source.choice(["", "", "   "]) + self.sentence(self.source.randrange(4, 16))

    def revised(self, text):
        """The text with a word or two changed, added or taken away, or another one."""
        if self.source.random() < 0.15:
            return self.text()
        words = text.split(" ")
        for _ in range(self.source.randrange(1, 3)):
            at = self.source.randrange(len(words))
            draw = self.source.random()
            if draw < 0.6:
                words[at] = self.source.choice(self.words)
            elif draw < 0.8 or len(words) < 3:
                words.insert(at, self.source.choice(self.words))
            else:
                del words[at]
        return " ".join(words)


# ---- One party ----


class Player:
    """A party's window, its model, and what the window shows."""

    def __init__(self, day, party, rows):
        self.day = day
        self.party = party
        self.model = rows
        self.page = None  # the procedure that is shown
        self.list = "Procedures"
        self.is_connected = False
        self.away = 0  # actions until it comes back
        self.console_end = 0
        self.sent = 0
        self.warnings = collections.Counter()
        clock = os.path.join(party.directory, "clock")
        with open(clock, "wb") as file:
            file.write(bytes(8))
        with open(clock, "r+b") as file:
            self.clock = mmap.mmap(file.fileno(), 8)
        party.environment.update(
            LD_PRELOAD=os.path.join(day.trial.programs, "libday_clock.so"), MORVANE_DAY_CLOCK=clock
        )

    def set_clock(self, seconds):
        self.model.clock = seconds
        self.clock[:] = struct.pack("=q", seconds)

    # ---- Coming and going ----

    def start(self):
        self.party.start()
        self.party.press("Login")
        self.party.wait_for("New procedure", driver.BUTTON_ROLES)
        self.page, self.list, self.is_connected = None, "Procedures", True
        self.model.log_in()

    def leave(self, is_killed):
        gone = self.day.count_disconnected()
        if is_killed:
            self.party.kill()
        else:
            self.party.close()
        self.model.leave(is_killed)
        if self.is_connected:
            self.day.desktop.wait(
                lambda: self.day.count_disconnected() > gone,
                "the server knows that %s is away" % self.party.name,
            )
        self.is_connected = False
        self.read_console()

    # ---- Reading ----

    def owes(self):
        """Whether something waits to be sent or acknowledged. Nobody knows which part of that a kill
        leaves, and what is in doubt is sent once more."""
        try:
            return self.party.count_rows("outbox") > 0
        except sqlite3.OperationalError as error:
            if "no such table" in str(error):
                return False
            raise

    def differences(self):
        return model.differences(self.model.expected(), model.read_store(self.party.store_path))

    def read_console(self):
        """Counts what was sent and what was out of place since the last time."""
        if not os.path.exists(self.party.console_path):
            return
        with open(self.party.console_path, "rb") as console:
            console.seek(self.console_end)
            data = console.read()
        end = data.rfind(b"\n") + 1
        self.console_end += end
        for line in data[:end].decode(errors="replace").splitlines():
            if re.search(r"\brequest\b.*<message type='chat' id='", line):
                self.sent += 1
            # What the worker dumps meanwhile may stand ahead of it.
            warning = WARNING.search(line)
            if warning:
                self.warnings[warning[1]] += 1

    # ---- Acting ----

    def press(self, name, nth=0):
        """With the mouse now and then, as an assistive program does otherwise. The mouse does not stay:
        when a revision comes, a button below the mouse decides nothing for half a second."""
        if self.day.source.random() < 0.1:
            self.party.click(name, nth)
            self.day.desktop.xdotool("mousemove", 0, 0)
        else:
            self.party.press(name, nth)

    def show_list(self, name):
        if self.list != name:
            self.party.press(name)
            self.list = name

    def press_row(self, title):
        """Presses the procedure's row in the list; whether the procedure is shown then. A press at
        the place of a row that went a moment ago may be lost."""
        for row in self.party.find_all(None, driver.ROW_ROLES):
            if any(
                label.name() == title
                for label in self.party.find_all(None, driver.LABEL_ROLES, row)
            ):
                self.party.press_node(row)
                return self.day.wait_quietly(
                    lambda: self.party.labels().count(title) == 2
                    and self.party.find("Add clause", driver.BUTTON_ROLES),
                    3,
                )
        return False

    def open(self, procedure):
        if self.page is not procedure:
            self.show_list("Procedures")
            self.day.desktop.wait(
                lambda: self.press_row(procedure["title"]),
                '%s opens "%s"' % (self.party.name, procedure["title"]),
            )
            self.page = procedure
        self.day.desktop.wait(
            lambda: self.party.count("Clause text") == len(procedure["clauses"]),
            "%s sees %d clauses" % (self.party.name, len(procedure["clauses"])),
        )

    def find(self, clause):
        """Shows the clause's procedure; returns the clause's number in it."""
        self.open(clause["parent"])
        return [other is clause for other in clause["parent"]["clauses"]].index(True)

    def type(self, clause, text, is_focused=False):
        """Types into the clause, with the keyboard now and then."""
        nth = self.find(clause)
        plain = all(" " <= letter <= "~" for letter in text) and len(text) < 80
        if plain and self.day.source.random() < 0.3:
            self.party.enter("Clause text", text, nth)
        else:
            node = self.party.wait_for("Clause text", driver.ENTRY_ROLES, nth)
            if is_focused:
                self.party.give_keyboard(node)
            self.party.put("Clause text", text, nth)
        self.model.type(clause, text)
        return nth

    def draft(self, clause, text):
        """Types, and leaves the text."""
        nth = self.type(clause, text, is_focused=True)
        self.party.give_keyboard(self.party.wait_for("Revisions", driver.BUTTON_ROLES, nth))
        self.model.keep_typing(clause)

    def commit(self, clause, text=None):
        """Commits what is typed, or what the clause shows."""
        nth = self.type(clause, text) if text is not None else self.find(clause)
        self.press("Commit", nth)
        self.model.commit(clause, text if text is not None else clause["draft"]["text"])

    def choose(self, clause, revision):
        """Shows a revision, or the draft (None), from the list of them."""
        nth = self.find(clause)
        name = "%s:%d" % (revision["author"], revision["time"]) if revision else "draft"
        text = (revision or clause["draft"])["text"]

        def choose():
            if not self.party.popover_rows():
                # With the keyboard it comes into sight, without which its list would not.
                button = self.party.wait_for("Revisions", driver.BUTTON_ROLES, nth)
                self.party.give_keyboard(button)
                self.party.settled(button)
                self.party.press("Revisions", nth)
            if not self.day.wait_quietly(self.party.popover_rows, 2):
                return False
            row = dict(self.party.popover_rows()).get(name)
            if row is None:
                return False
            self.party.give_keyboard(row)
            self.day.desktop.key("Return")
            return self.day.wait_quietly(
                lambda: not self.party.popover_rows()
                and name in self.party.labels()
                and self.party.text("Clause text", nth) == text,
                2,
            )

        self.day.desktop.wait(choose, "%s chose the revision %s" % (self.party.name, name))
        self.model.show(clause, revision)

    def say(self, text):
        self.party.put("Message", text)
        self.press("Send")

    # ---- What there is ----

    def clauses(self):
        return [clause for procedure in self.model.procedures for clause in procedure["clauses"]]

    def counterpart(self, clause):
        """The other party's row of the clause, if it has one."""
        procedure = model.find(self.model.other.procedures, model.identity(clause["parent"]))
        return procedure and model.find(procedure["clauses"], model.identity(clause))


# ---- The day ----


class Day:
    def __init__(self, trial):
        self.trial = trial
        self.seed = trial.arguments.seed
        self.actions_max = trial.arguments.actions or (70 if trial.short else 500)
        self.hours = 4 if trial.short else 24
        self.source = random.Random(self.seed)
        self.writer = Writer(self.source)
        self.now = START
        self.used_seconds = set()
        self.deck = []
        self.actions = collections.Counter()
        self.counts = collections.Counter()
        self.agreed = set()  # what both agreed on at some time
        self.differing = 0
        self.began = time.monotonic()
        self.desktop = driver.Desktop()
        self.server = driver.Server()
        self.players = []
        parties = (
            driver.Party("anna", driver.ANNA, driver.LEFT),
            driver.Party("bert", driver.BERT, driver.RIGHT),
        )
        for party, rows in zip(parties, model.make_parties(driver.ANNA, driver.BERT)):
            self.players.append(Player(self, party, rows))
        self.move_clock(0)

    # ---- Time ----

    def move_clock(self, seconds):
        """Moves both clocks, to seconds that neither of them has shown yet."""
        self.now += seconds
        while True:
            clocks = [self.now, self.now - SKEW]
            ahead = {clock + more for clock in clocks for more in range(3)}
            if not ahead & self.used_seconds:
                break
            self.now += 1
        self.used_seconds |= ahead
        for player, clock in zip(self.players, clocks):
            player.set_clock(clock)

    def wait_quietly(self, condition, bound):
        """Waits for the condition, at most bound seconds long; whether it came."""
        deadline = time.monotonic() + bound * driver.SLOW
        while not condition():
            if time.monotonic() > deadline:
                return False
            time.sleep(driver.POLL)
        return True

    # ---- The server ----

    def server_file(self, *names):
        try:
            with open(os.path.join(self.server.directory, *names), errors="replace") as file:
                return file.read()
        except FileNotFoundError:
            return ""

    def count_disconnected(self):
        return self.server_file("prosody.log").count("Client disconnected")

    def count_kept(self, player):
        """How many messages the server keeps for a party that is away."""
        return self.server_file(
            "data", "alpha%2etest", "offline", player.model.user + ".list"
        ).count("item(")

    # ---- Comparing ----

    def settle(self):
        """Waits until both databases hold what they must, what has no place there has been warned
        of, the server keeps the rest, and has acknowledged it."""

        def is_settled(player):
            if player.differences():
                return False
            if not player.model.is_online:
                return self.count_kept(player) == len(player.model.waiting)
            player.read_console()
            if player.is_connected and player.owes():
                return False
            return player.model.warnings == player.warnings

        def settled():
            return all(
                is_settled(player) for player in self.players if player.model.rows["accounts"]
            )

        self.counts["comparisons"] += 1
        if self.wait_quietly(settled, driver.BOUND):
            return
        lines = []
        for player in self.players:
            if not player.model.rows["accounts"]:
                continue
            lines += ["%s: %s" % (player.party.name, line) for line in player.differences()]
            kept, waiting = self.count_kept(player), len(player.model.waiting)
            if not player.model.is_online and kept != waiting:
                lines.append(
                    "the server keeps %d messages for %s, not %d"
                    % (kept, player.party.name, waiting)
                )
            if player.model.warnings != player.warnings:
                lines.append(
                    "%s warns: %s, not %s"
                    % (player.party.name, dict(player.warnings), player.model.warnings)
                )
        self.differing += max(1, sum(line.lstrip()[:1] in "+-" for line in lines))
        raise Difference("\n".join(lines))

    def expect(self, what, expected, seen):
        if expected != seen:
            self.differing += 1
            raise Difference("%s: expected %r, seen %r" % (what, expected, seen))

    def pause(self):
        """Looks at everything, with nothing left to happen."""
        self.counts["pauses"] += 1
        self.settle()
        stores = [self.look_at(player) for player in self.players]
        under_way = sum(len(player.model.waiting) for player in self.players)
        if not under_way:
            self.compare_agreements(stores)
        self.counts["pauses with %d online" % len(self.online())] += 1
        self.counts["pauses under way"] += bool(under_way)
        self.counts["kept"] = max(self.counts["kept"], under_way)
        self.counts["pauses passed"] += 1

    def look_at(self, player):
        """Compares all that one party has; returns what its database holds."""
        name, rows = player.party.name, player.model
        seen = model.read_store(player.party.store_path)
        lines = model.differences(rows.expected(), seen)
        self.differing += len(lines)
        if lines:
            raise Difference("%s:\n%s" % (name, "\n".join(lines)))
        self.counts["rows"] += model.count_rows(seen)
        self.expect(name + "'s file", "ok", model.check_integrity(player.party.store_path))
        self.counts["files"] += 1
        player.read_console()
        self.expect("sent by " + name, rows.sent, player.sent)
        self.expect("warnings of " + name, rows.warnings, dict(player.warnings))
        other = next(one for one in self.players if one is not player)
        if player.list == "Contacts" and player.is_connected and rows.contact(rows.other.jid):
            player.party.wait_contact(
                rows.other.jid, "available" if other.is_connected else "unavailable"
            )
            self.counts["presence"] += 1
        return seen

    def compare_agreements(self, stores):
        """What both agreed on, in procedures that both still have, is the same on both sides."""
        known = [{(row[2], row[1], row[4]) for row in store["procedures"]} for store in stores]
        agreed = [
            {
                agreement
                for agreement in model.agreements(store)
                if agreement[0] in known[0] & known[1]
            }
            for store in stores
        ]
        self.expect("agreed", agreed[0], agreed[1])
        self.agreed |= agreed[0]

    # ---- Drawing ----

    def online(self):
        return [player for player in self.players if player.is_connected]

    def draw_player(self):
        return self.source.choice(self.online())

    def draw_clause(self, player, condition):
        """A clause that the condition holds for, of the procedure that is shown where it can be."""
        clauses = [clause for clause in player.clauses() if condition(clause)]
        shown = [clause for clause in clauses if clause["parent"] is player.page]
        if shown and self.source.random() < 0.7:
            clauses = shown
        return self.source.choice(clauses) if clauses else None

    def draw(self):
        """Does the next action: who was away long enough comes back, or else the first card of a
        shuffled deck that can be played is."""
        away = [player for player in self.players if not player.is_connected]
        for player in away:
            player.away -= 1
            if player.away <= 0 or len(away) == 2:
                self.come_back(player)
                return "come back"
        for _ in range(2):
            for number, kind in enumerate(self.deck):
                if getattr(self, "do_" + kind.replace(" ", "_"))():
                    del self.deck[number]
                    return kind
            # A short day has fewer of each, so that it has some of all.
            more = [
                kind
                for kind, count in CARDS.items()
                for _ in range(-(-count // 3) if self.trial.short else count)
            ]
            self.source.shuffle(more)
            self.deck += more
        raise driver.Failure("no action can be drawn")

    # ---- Actions: each says whether it could be done ----

    def do_begin(self):
        player = self.draw_player()
        if len(player.model.procedures) >= PROCEDURES_MAX:
            return False
        self.begin(player)
        return True

    def begin(self, player):
        title = self.writer.title()
        player.press("New procedure")
        player.party.put("Procedure title", title)
        player.party.put("Contractor", player.model.other.jid)
        player.press("Begin")
        player.page = player.model.begin(title)
        player.party.wait_for("Add clause", driver.BUTTON_ROLES)

    def do_add_a_clause(self):
        player = self.draw_player()
        procedures = [
            procedure
            for procedure in player.model.procedures
            if len(procedure["clauses"]) < CLAUSES_MAX
        ]
        if not procedures:
            return False
        procedure = player.page if player.page in procedures else self.source.choice(procedures)
        clause = self.add_clause(player, procedure)
        draw = self.source.random()
        if draw < 0.2:
            player.draft(clause, self.writer.text())
        elif draw < 0.9:
            player.commit(clause, self.writer.text())
        return True

    def add_clause(self, player, procedure):
        player.open(procedure)
        player.press("Add clause")
        clause = player.model.add_clause(procedure)
        player.open(procedure)
        return clause

    def do_revise(self):
        player = self.draw_player()
        clause = self.draw_clause(player, lambda clause: clause["revisions"])
        if clause is None:
            return False
        player.commit(clause, self.writer.revised(clause["revisions"][-1]["text"]))
        return True

    def do_draft(self):
        player = self.draw_player()
        clause = self.draw_clause(player, lambda clause: True)
        if clause is None:
            return False
        player.draft(clause, self.writer.text())
        return True

    def do_commit_the_draft(self):
        player = self.draw_player()
        clause = self.draw_clause(player, lambda clause: clause["draft"])
        if clause is None:
            return False
        player.choose(clause, None)
        player.commit(clause)
        return True

    def do_cancel(self):
        player = self.draw_player()
        clause = self.draw_clause(player, lambda clause: not clause["shown"])
        if clause is None:
            return False
        player.press("Cancel", player.find(clause))
        player.model.cancel(clause)
        player.open(clause["parent"])
        return True

    def do_decide(self):
        player = self.draw_player()
        rows = player.model
        clause = self.draw_clause(
            player,
            lambda clause: clause["shown"]
            and not (rows.decision(clause["shown"], rows.jid))
            and rows.decision(clause["shown"], rows.other.jid),
        )
        if clause is None or self.source.random() < 0.2:
            clause = self.draw_clause(player, lambda clause: clause["revisions"])
        if clause is None:
            return False
        if not clause["shown"] or self.source.random() < 0.1:
            player.choose(clause, self.source.choice(clause["revisions"]))
        nth = player.find(clause)
        before = rows.decision(clause["shown"], rows.jid)
        status = self.source.choice(["AGREE", "AGREE", "DISAGREE"])
        if before is None and rows.decision(clause["shown"], rows.other.jid):
            status = "AGREE"
        if before:
            status = "DISAGREE" if before["status"] == "AGREE" else "AGREE"
            self.counts["changes of mind"] += 1
        player.press(status.capitalize(), nth)
        rows.decide(clause, status)
        return True

    def draw_shared_clause(self):
        """One of two who are there, the other, and a clause with revisions that both have."""
        player = self.draw_player()
        other = next(one for one in self.players if one is not player)
        clause = self.draw_clause(
            player, lambda clause: clause["revisions"] and player.counterpart(clause)
        )
        return player, other, clause

    def do_agree(self):
        """Both agree to a clause's last revision."""
        if len(self.online()) < 2:
            return False
        player, other, clause = self.draw_shared_clause()
        if clause is None:
            return False
        for one, same in ((player, clause), (other, player.counterpart(clause))):
            # The last of both, whatever came in which order.
            revision = same["revisions"][-1]
            if same["shown"] is not revision:
                one.choose(same, revision)
            before = one.model.decision(revision, one.model.jid)
            if not before or before["status"] != "AGREE":
                one.press("Agree", one.find(same))
                one.model.decide(same, "AGREE")
                self.settle()
        return True

    def do_talk_about_a_clause(self):
        player = self.draw_player()
        clause = self.draw_clause(player, lambda clause: clause["revisions"])
        if clause is None:
            return False
        player.party.press("Clause chat", player.find(clause))
        for _ in range(self.source.randrange(1, 3)):
            text = self.writer.sentence(6)
            player.say(text)
            player.model.say_of(clause, text)
            player.party.wait_text("Message", "")
        player.press("Close")
        player.party.wait_for("Add clause", driver.BUTTON_ROLES)
        return True

    def do_chat(self):
        if not all(player.model.contact(player.model.other.jid) for player in self.players):
            return False
        player = self.draw_player()
        player.show_list("Contacts")
        player.party.open_contact(player.model.other.jid)
        player.page = None
        for _ in range(self.source.randrange(1, 4)):
            text = self.source.choice(["", "  "]) + self.writer.sentence(5)
            player.say(text)
            player.model.say(text)
            player.party.wait_text("Message", "")
        return True

    def do_ask_for_presence(self):
        player = self.draw_player()
        player.press("New procedure")
        player.page = None
        player.party.put("Contractor", player.model.other.jid)
        player.press("Add contractor")
        player.model.ask()
        return True

    def do_look_back(self):
        player = self.draw_player()
        clause = self.draw_clause(player, lambda clause: len(clause["revisions"]) > 1)
        if clause is None:
            return False
        player.choose(clause, self.source.choice(clause["revisions"]))
        return True

    def do_compare(self):
        """Compares the shown revision with the one before, decides on each change, commits."""

        def texts(clause):
            return [revision["text"] for revision in clause["revisions"][-2:]]

        player = self.draw_player()
        clause = self.draw_clause(
            player,
            lambda clause: len(set(texts(clause))) == 2
            and all(
                text.strip() and "\n" not in text and len(text) < 150 for text in texts(clause)
            ),
        )
        if clause is None:
            return False
        if clause["shown"] is not clause["revisions"][-1]:
            player.choose(clause, clause["revisions"][-1])
        self.compare(player, clause, *texts(clause))
        return True

    def compare(self, player, clause, older, newer):
        party, nth = player.party, player.find(clause)
        stretches = model.compare_texts(older, newer)
        kept = [kind == "=" or self.source.random() < 0.5 for kind, _ in stretches]
        if not any(text.strip() and keep for (_, text), keep in zip(stretches, kept)):
            kept = [True] * len(kept)
        party.compare_with_previous(nth)
        node = party.wait_for("Clause text", driver.ENTRY_ROLES, nth)
        self.expect("compared text", "".join(text for _, text in stretches), node.text())
        done = ""
        is_last_kept = True
        for number, (kind, text) in enumerate(stretches):
            if kind != "=":
                self.decide_change(player, node, len(done), kept[number])
                is_last_kept = kept[number]
            if kept[number]:
                done += text
            rest = "".join(text for _, text in stretches[number + 1 :])
            party.wait_text("Clause text", done + rest, nth)
        if is_last_kept:
            party.open_menu(node, "Use this text as draft")
            party.press_menu_item("Use this text as draft")
        player.model.type(clause, done)
        player.model.keep_typing(clause)
        self.settle()
        player.commit(clause)

    def decide_change(self, player, node, offset, is_kept):
        """Moves the cursor into the change and presses one of its tools."""
        party = player.party
        changes = len(node.runs())
        party.give_keyboard(node)

        def find():
            node.call("org.a11y.atspi.Text", "SetCaretOffset", "i", offset)
            return party.find_tool(is_kept)

        tool = self.desktop.wait(find, "%s sees the tools of a change" % party.name)
        party.press(tool.name())
        self.desktop.wait(lambda: len(node.runs()) == changes - 1, "a change is decided on")
        self.counts["changes decided on"] += 1

    def do_be_interrupted(self):
        """One types, and the other's revision of the same clause comes."""
        if len(self.online()) < 2:
            return False
        player, other, clause = self.draw_shared_clause()
        if clause is None:
            return False
        counterpart = player.counterpart(clause)
        nth = other.find(counterpart)
        if other.party.is_sensitive("Cancel", nth):
            other.party.press("Cancel", nth)
            other.model.cancel(counterpart)
        if self.source.random() < 0.5:
            # The keyboard goes to the other window, and the typing is kept.
            player.type(clause, self.writer.text(), is_focused=True)
            other.party.activate()
            player.model.keep_typing(clause)
            self.settle()
        else:
            # It is kept by what comes in its place.
            nth = player.find(clause)
            player.party.give_keyboard(player.party.wait_for("Revisions", driver.BUTTON_ROLES, nth))
            text = self.writer.text()
            player.party.put("Clause text", text, nth)
            player.model.type(clause, text)
        other.commit(counterpart, self.writer.revised(counterpart["revisions"][-1]["text"]))
        return True

    def do_twice_in_a_second(self):
        """Two things of a kind in one second of the clock."""
        player = self.draw_player()
        kind = self.source.choice(["clauses", "revisions", "procedures"])
        if kind == "procedures":
            if len(player.model.procedures) + 2 > PROCEDURES_MAX:
                return False
            self.begin(player)
            self.begin(player)
        elif kind == "clauses":
            procedures = [
                procedure
                for procedure in player.model.procedures
                if len(procedure["clauses"]) + 2 <= CLAUSES_MAX
            ]
            if not procedures:
                return False
            procedure = self.source.choice(procedures)
            for clause in [self.add_clause(player, procedure) for _ in range(2)]:
                player.commit(clause, self.writer.text())
        else:
            clause = self.draw_clause(player, lambda clause: clause["revisions"])
            if clause is None:
                return False
            for _ in range(2):
                player.commit(clause, self.writer.text())
        return True

    def do_delete_a_procedure(self):
        player = self.draw_player()
        if len(player.model.procedures) < (3 if self.trial.short else PROCEDURES_MAX - 1):
            return False
        procedure = self.source.choice(player.model.procedures)
        player.open(procedure)
        player.press("Delete procedure")
        player.model.delete_procedure(procedure)
        player.page = None
        player.party.wait_for("Begin", driver.BUTTON_ROLES)
        return True

    # ---- Actions: coming and going ----

    def do_close(self):
        return self.leave(False)

    def do_kill(self):
        return self.leave(True)

    def leave(self, is_killed):
        player = self.draw_player()
        if len(self.online()) < 2 and self.source.random() < 0.8:
            return False
        clause = self.draw_clause(player, lambda clause: True)
        if clause is not None and self.source.random() < 0.5:
            nth = player.find(clause)
            text = self.writer.text()
            player.party.put("Clause text", text, nth)
            player.model.type(clause, text)
            self.counts["left with unsaved typing"] += 1
        player.leave(is_killed)
        player.away = self.source.randrange(1, AWAY_MAX)
        self.counts["kills"] += is_killed
        return True

    def come_back(self, player):
        self.counts["restarts"] += 1
        self.counts["came"] += len(player.model.waiting)
        player.start()

    def do_restart_the_server(self):
        """The sessions end; one types on, and then the windows are closed or killed."""
        players = self.online()
        marks = [player.party.console_mark() for player in players]
        self.server.stop()
        for player, mark in zip(players, marks):
            player.party.wait_console("Disconnected.", mark)
            player.is_connected = False
        clause = self.draw_clause(players[0], lambda clause: True)
        if clause is not None:
            players[0].draft(clause, self.writer.text())
            self.settle()
        self.server.start()
        for player in players:
            player.leave(self.source.random() < 0.5)
        self.settle()
        for player in players:
            self.come_back(player)
        return True

    # ---- The whole ----

    def run(self):
        self.server.start()
        for player in self.players:
            player.start()
            self.settle()
        step = self.hours * 3600 // self.actions_max
        while sum(self.actions.values()) < self.actions_max:
            self.move_clock(self.source.randrange(5, 2 * step - 5))
            began = time.monotonic()
            kind = self.draw()
            self.settle()
            self.actions[kind] += 1
            print(
                "%s  %-20s %4.1f s"
                % (
                    time.strftime("%H:%M:%S", time.gmtime(self.now)),
                    kind,
                    time.monotonic() - began,
                ),
                flush=True,
            )
            if sum(self.actions.values()) % 5 == 0:
                self.pause()
        self.end()

    def end(self):
        """Both come back, everything arrives; then both close, start again and close."""
        self.now = max(self.now, START + self.hours * 3600)
        self.move_clock(0)
        for player in self.players:
            if not player.is_connected:
                self.come_back(player)
                self.settle()
        self.pause()
        for _ in range(2):
            for player in self.players:
                player.leave(False)
            self.pause()
            for player in self.players:
                self.come_back(player)
            self.pause()
        for player in self.players:
            player.leave(False)
        self.pause()

    def stop(self):
        for player in list(self.players):
            player.party.discard()
        self.server.stop()
        self.desktop.stop()

    # ---- Telling ----

    def tell(self, fault):
        trial, counts = self.trial, self.counts
        models = [player.model for player in self.players]
        for player in self.players:
            player.read_console()
        hours = "%.1f" % ((self.now - START) / 3600)
        trial.check(
            "Hours that went by without a fault, at least",
            "%d.0" % self.hours,
            hours if fault is None else "%s, then: %s" % (hours, fault),
            fault is None and self.now >= START + self.hours * 3600,
        )
        trial.check(
            "Pauses at which both databases held exactly the model's rows, and the server "
            "exactly the messages that waited",
            counts["pauses"],
            counts["pauses passed"],
        )
        trial.check("Rows too many, too few, or with another column or link", 0, self.differing)
        trial.check(
            "Database files that SQLite finds whole at the pauses",
            2 * counts["pauses"],
            counts["files"],
        )
        trial.check(
            "Messages sent, by the model and by the consoles",
            sum(party.sent for party in models),
            sum(player.sent for player in self.players),
        )
        trial.check(
            "Messages about a procedure that the receiver had deleted: warned of, and "
            "nothing else",
            sum(sum(party.warnings.values()) for party in models),
            sum(sum(player.warnings.values()) for player in self.players),
        )
        trial.check(
            "Texts that both agreed on, whenever nothing was under way",
            "same",
            "same" if fault is None and self.agreed else "not known",
        )
        trial.figure("Seed", self.seed)
        trial.figure("Real time", "%d s" % (time.monotonic() - self.began))
        trial.figure(
            "Actions",
            "%d: %s"
            % (
                sum(self.actions.values()),
                ", ".join("%s %d" % item for item in sorted(self.actions.items())),
            ),
        )
        trial.figure(
            "Changes decided on in the comparisons; decisions changed later; ends with "
            "unsaved typing",
            "%d; %d; %d"
            % (
                counts["changes decided on"],
                counts["changes of mind"],
                counts["left with unsaved typing"],
            ),
        )
        trial.figure(
            "Messages that the server kept for who was away, all delivered later", counts["came"]
        )
        trial.figure(
            "Starts of a program after its first; of these after a kill -9",
            "%d; %d" % (counts["restarts"], counts["kills"]),
        )
        trial.figure(
            "Pauses",
            "%d: %d with both there, %d with one, %d with none; at %d messages "
            "were under way, up to %d"
            % (
                counts["pauses"],
                counts["pauses with 2 online"],
                counts["pauses with 1 online"],
                counts["pauses with 0 online"],
                counts["pauses under way"],
                counts["kept"],
            ),
        )
        trial.figure(
            "Rows compared at the pauses; comparisons beside them, one after each step",
            "%d; %d" % (counts["rows"], counts["comparisons"] - counts["pauses"]),
        )
        trial.figure(
            "Pauses at which the other party's presence was on the screen, as it was",
            counts["presence"],
        )
        trial.figure("Texts that both agreed on", len(self.agreed))


def add_arguments(parser):
    parser.add_argument("--seed", type=int, default=9, help="what the actions are drawn with")
    parser.add_argument("--actions", type=int, help="how many, by default by the form")


def main():
    trial = Trial("day", __doc__, add_arguments)
    driver.Options.binary = trial.binary
    driver.enter_world()
    print("seed %d" % trial.arguments.seed, flush=True)
    day = Day(trial)
    fault = "an error of the trial itself"
    try:
        day.run()
        fault = None
    except Difference as difference:
        print("DIFFERENCE\n%s" % difference, flush=True)
        fault = "a difference"
    except driver.Failure as failure:
        print("FAILED: %s" % failure, flush=True)
        fault = str(failure).split("\n", maxsplit=1)[0]
    finally:
        day.tell(fault)
        day.stop()
    sys.exit(trial.end())


if __name__ == "__main__":
    main()
