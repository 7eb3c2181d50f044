"""kill -9 at every system call that writes, over one whole negotiation.

Two real windows and a real server negotiate, from the first login to the last decision. Every
system call with which one of the programs writes is a place where a kill can fall; what its store
is like ahead of each, and in the middle of each write into it, is kept (kill_points.cpp). After
each thing that a window has shown as done, the number of the call that was reached is noted. Then
every state is opened and loaded the way the next start would do it (kill_states.cpp), and must hold
all that had been shown by then.

A sample of the kills is done: the program is killed there, must have left the files that were
foretold, is started again, and shows what it had shown.
"""

import json
import os
import shutil
import struct
import subprocess
import sys
import tempfile
import time

from trial import Trial

import driver

TITLE = "Delivery of apples"
OTHER_TITLE = "Delivery of pears"

# The fields of points/control, as kill_points.cpp has them.
REACHED, STORE_REACHED, KILL_AT, KILL_AT_STORE, KILL_IN_MIDDLE, MIDDLE_KILLED, STRANGE = range(7)
FIELDS_COUNT = 7


# ---- What a party's windows have shown, and when ----


class Watch:
    """A party whose program runs under kill_points, and the facts that its window has shown: the
    list that kill_states would give, and the first and the last number at which it must hold."""

    def __init__(self, party):
        self.party = party
        self.points = os.path.join(party.directory, "points")
        self.facts = {}
        self.commits = []
        self.deletions = []
        self.costs = {}
        self.prepare()

    def prepare(self):
        """An empty place for the copies of the next run. The facts go on from its start."""
        shutil.rmtree(self.points, ignore_errors=True)
        os.mkdir(self.points)
        with open(os.path.join(self.points, "control"), "wb") as control:
            control.write(bytes(8 * FIELDS_COUNT))
        self.facts = {fact: [0, None] for fact, (_, end) in self.facts.items() if end is None}
        self.commits = []
        self.deletions = []

    def field(self, index):
        """One number of the control record."""
        with open(os.path.join(self.points, "control"), "rb") as control:
            control.seek(8 * index)
            return struct.unpack("<Q", control.read(8))[0]

    def set_field(self, index, value):
        """Writes one number of the control record."""
        with open(os.path.join(self.points, "control"), "r+b") as control:
            control.seek(8 * index)
            control.write(struct.pack("<Q", value))

    def shown(self, *facts):
        """The window shows these as done: they hold ahead of the next call."""
        reached = self.field(REACHED)
        for fact in facts:
            self.facts.setdefault(tuple(fact), [reached + 1, None])

    def taking_back(self, *facts):
        """The user is about to take these back."""
        reached = self.field(REACHED)
        for fact in facts:
            self.facts[tuple(fact)][1] = reached

    def committing(self, text):
        """A saved draft is about to be committed."""
        self.commits.append([text, self.field(REACHED), None])

    def committed(self):
        """The commit is shown."""
        self.commits[-1][2] = self.field(REACHED) + 1

    def deleting(self, *facts):
        """The user is about to delete these, all in one."""
        self.taking_back(*facts)
        self.deletions.append([facts, self.field(REACHED), None])

    def deleted(self):
        """The deletion is shown."""
        self.deletions[-1][2] = self.field(REACHED) + 1

    def begins(self):
        """How many calls have changed the store so far, for `cost`. What was sent before leaves the
        outbox first, and its table goes a second later: neither belongs to the action."""
        self.party.wait_rows("sqlite_master", 0, "name = 'outbox'")
        return self.field(STORE_REACHED)

    def cost(self, action, before):
        """Notes how many calls on the store the action took, the least of all times."""
        taken = self.field(STORE_REACHED) - before
        self.costs[action] = min(taken, self.costs.get(action, taken))

    def totals(self):
        """How often each system call was seen, by its name."""
        totals = {}
        path = os.path.join(self.points, "totals")
        self.party.desktop.wait(lambda: os.path.exists(path), "the watcher has ended")
        with open(path, encoding="utf-8") as file:
            for name, _, count in map(str.split, file):
                totals[name] = totals.get(name, 0) + int(count)
        return totals

    def calls(self):
        """The lines of points/calls: (number, call, file, bytes, copies in the middle, after)."""
        with open(os.path.join(self.points, "calls"), encoding="utf-8") as calls:
            for line in calls:
                words = line.split()
                numbers = [int(word) for word in words[4:]]
                yield (
                    int(words[0]),
                    words[2],
                    words[3],
                    numbers[0],
                    tuple(numbers[1:3]),
                    tuple(numbers[3:5]),
                )

    def places(self):
        """Every state that a kill can leave: (first number, last number, copies, is in a write).

        A call changes the store between its own number and the next; the middle of a write lies
        at the call's own number."""
        calls = list(self.calls())
        ends = [call[0] for call in calls[1:]] + [self.field(REACHED)]
        places = []
        for (number, _, _, size, middle, after), end in zip(calls, ends):
            if size:
                places.append((number, number, middle, True))
            places.append((number + 1, end, after, False))
        return [place for place in places if place[0] <= place[1]]

    def count_changes(self):
        """How many changes SQLite had ended: it removes its journal."""
        return sum(
            call.startswith("unlink") and file == "journal"
            for _, call, file, _, _, _ in self.calls()
        )


# ---- Sentences ----


def login(watch):
    """Logs in, with the account that the page holds."""
    if not watch.facts:
        watch.cost("start", 0)
    watch.party.login()
    watch.shown(("account", watch.party.jid))


def befriend(one, other):
    """One asks to see when the other is online; both become contacts."""
    for watch in (one, other):
        watch.party.show_list("Contacts")
    one.party.enter("Contractor", other.party.jid)
    one.party.click("Add contractor")
    for watch, contact in ((one, other), (other, one)):
        watch.party.wait_contact(contact.party.jid, "available")
        watch.shown(("contact", contact.party.jid))
        watch.party.show_list("Procedures")


def begin(one, other, title):
    """One begins a procedure with the other, who opens it."""
    fact = ("procedure", one.party.jid, other.party.jid, title)
    one.party.begin(title, other.party.jid)
    one.shown(fact)
    other.party.open_procedure(title)
    other.shown(fact)


def add_clause(watch, title=TITLE):
    """Adds a clause, which is stored although it is not sent yet."""
    before = watch.begins()
    nth = watch.party.add_clause()
    watch.cost("add", before)
    number = sum(fact[:3] == ("clause", title, watch.party.jid) for fact in watch.facts) + 1
    watch.shown(("clause", title, watch.party.jid, str(number)))
    return nth


def save_draft(watch, nth, text, initiator, away):
    """Types a text and leaves it for the text of another clause."""
    watch.party.write(nth, text)
    before = watch.begins()
    watch.party.focus("Clause text", away)
    watch.cost("draft", before)
    watch.shown(("draft", TITLE, initiator, text))


def commit(watch, others, nth, text, initiator, is_saved=True, title=TITLE):
    """Commits what is typed; the others see it."""
    fact = ("revision", title, initiator, watch.party.jid, text)
    if is_saved:
        watch.taking_back(("draft", title, initiator, text))
        watch.committing(text)
    before = watch.begins(), [other.begins() for other in others], watch.field(REACHED)
    watch.party.click("Commit", nth)
    watch.party.wait_sensitive("Commit", False, nth)
    watch.shown(fact)
    if is_saved:
        watch.cost("commit", before[0])
        watch.committed()
        taken = watch.field(REACHED) - before[2]
        watch.costs["any call"] = min(taken, watch.costs.get("any call", taken))
    for other, other_before in zip(others, before[1]):
        other.party.wait_text("Clause text", text, nth)
        other.cost("receive", other_before)
        number = sum(known[:3] == ("clause", title, initiator) for known in other.facts) + 1
        if (
            number <= nth + 1
            and len([1 for known in other.facts if known[0] == "clause" and known[1] == title])
            <= nth
        ):
            other.shown(("clause", title, initiator, str(number)))
        other.shown(fact)


def decide(watch, other, nth, text, button, word):
    """Presses a decision button; the other sees it."""
    jid = watch.party.jid
    for party in (watch, other):
        for status in ("AGREE", "DISAGREE"):
            fact = ("decision", TITLE, text, jid, status)
            if fact in party.facts and party.facts[fact][1] is None:
                party.taking_back(fact)
    before = other.party.labels().count("contractor " + word)
    store_before = watch.begins()
    watch.party.decide(button, nth)
    watch.cost("decide", store_before)
    fact = ("decision", TITLE, text, jid, button.upper())
    watch.shown(fact)
    other.party.wait_labels("contractor " + word, before + 1)
    other.shown(fact)


def talk(one, other, lines, fact, shown):
    """Both stand before a chat; they say lines in turns."""
    said = []
    for number, line in enumerate(lines):
        speaker = (one, other)[number % 2]
        speaker.party.say(line)
        said.append(shown(speaker.party, line))
        for watch in (one, other):
            watch.party.wait_text("Chat", "\n".join(said))
            watch.shown(fact(watch, speaker, line))


def chat_about_clause(anna, bert, lines):
    """The chat of the first clause."""
    for watch in (anna, bert):
        watch.party.click("Clause chat", 0)
        watch.party.wait_for("Message", driver.ENTRY_ROLES)
    talk(
        anna,
        bert,
        lines,
        lambda watch, speaker, line: ("clause message", TITLE, speaker.party.name, line),
        lambda party, line: "%s: %s" % (party.name, line),
    )
    for watch in (anna, bert):
        watch.party.click("Close")
        watch.party.wait_for("Add clause", driver.BUTTON_ROLES)


def chat_with_contact(anna, bert, lines):
    """The chat of the two as contacts."""
    for watch, other in ((anna, bert), (bert, anna)):
        watch.party.open_contact(other.party.jid)
    talk(
        anna,
        bert,
        lines,
        lambda watch, speaker, line: (
            "contact message",
            (bert if watch is anna else anna).party.jid,
            speaker.party.jid,
            line,
        ),
        lambda party, line: "%s: %s" % (party.jid, line),
    )
    for watch in (anna, bert):
        watch.party.click("Close")
        watch.party.show_list("Procedures")
        watch.party.open_procedure(TITLE)


def cancel_draft(watch, nth, text, initiator, back_to):
    """Takes back a draft that is saved."""
    watch.taking_back(("draft", TITLE, initiator, text))
    watch.party.click("Cancel", nth)
    watch.party.wait_text("Clause text", back_to, nth)


def cancel_clause(watch, nth):
    """Takes away the last clause, which was never committed."""
    count = watch.party.count("Clause text")
    number = max(
        fact[3]
        for fact, (_, end) in watch.facts.items()
        if fact[:3] == ("clause", TITLE, watch.party.jid) and end is None
    )
    watch.deleting(
        ("clause", TITLE, watch.party.jid, number),
        *[fact for fact, (_, end) in watch.facts.items() if fact[0] == "draft" and end is None],
    )
    watch.party.click("Cancel", nth)
    watch.party.desktop.wait(
        lambda: watch.party.count("Clause text") == count - 1, "the clause is gone"
    )
    watch.deleted()


# ---- The negotiation ----


def negotiate(anna, bert, is_short):
    """From the first login to the last decision."""
    a, b = anna.party.jid, bert.party.jid
    for watch in (anna, bert):
        login(watch)
    if not is_short:
        befriend(anna, bert)
    begin(anna, bert, TITLE)

    # A clause of each, with a draft that was saved before it is committed.
    add_clause(anna)
    add_clause(anna)
    save_draft(anna, 0, "Ten crates a week", a, 1)
    commit(anna, [bert], 0, "Ten crates a week", a)
    save_draft(anna, 1, "What is not committed", a, 0)
    cancel_clause(anna, 1)
    add_clause(bert)
    bert.party.write(1, "Paid on delivery")
    commit(bert, [anna], 1, "Paid on delivery", b, False)

    # Counter-revisions, one of them out of a draft.
    save_draft(bert, 0, "It's eight crates", a, 1)
    commit(bert, [anna], 0, "It's eight crates", a)
    save_draft(anna, 1, "Paid a week before", b, 0)
    cancel_draft(anna, 1, "Paid a week before", b, "Paid on delivery")
    decide(bert, anna, 1, "Paid on delivery", "Agree", "agrees")
    if not is_short:
        chat_about_clause(anna, bert, ["Why eight?", "The 'van' is small", "Take two turns"])
        chat_with_contact(anna, bert, ["Good morning", "'Morning", "Let us end this today"])
        decide(anna, bert, 1, "Paid on delivery", "Disagree", "disagrees")
        decide(anna, bert, 1, "Paid on delivery", "Agree", "agrees")
    save_draft(anna, 0, 'Nine crates\nand "not" one more', a, 1)
    commit(anna, [bert], 0, 'Nine crates\nand "not" one more', a)
    decide(bert, anna, 0, 'Nine crates\nand "not" one more', "Agree", "agrees")
    decide(anna, bert, 0, 'Nine crates\nand "not" one more', "Disagree", "disagrees")
    if not is_short:
        delete_procedure(anna, bert)


def delete_procedure(anna, bert):
    """A second procedure, which Anna deletes again, with all that is in it."""
    begin(anna, bert, OTHER_TITLE)
    add_clause(anna, OTHER_TITLE)
    anna.party.write(0, "Five crates")
    commit(anna, [bert], 0, "Five crates", anna.party.jid, False, OTHER_TITLE)
    anna.deleting(*[fact for fact in anna.facts if OTHER_TITLE in fact])
    anna.party.click("Delete procedure")
    anna.party.wait_no_label(OTHER_TITLE)
    anna.deleted()
    anna.party.open_procedure(TITLE)


# ---- The states ----


def look_at(programs, watch, pairs):
    """What kill_states says of each pair of copies."""
    place = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
    directory = tempfile.mkdtemp(prefix="morvane-states-", dir=place)
    try:
        results = os.path.join(directory, "results")
        subprocess.run(
            [os.path.join(programs, "kill_states"), watch.points, watch.party.jid, results],
            input="".join("%d %d\n" % pair for pair in pairs),
            text=True,
            cwd=directory,
            check=True,
            env=dict(os.environ, G_SLICE="always-malloc"),
        )
        with open(results, encoding="utf-8") as file:
            answers = [json.loads(line) for line in file]
    finally:
        shutil.rmtree(directory)
    states = {}
    for answer in answers:
        answer["model"] = {tuple(item) for item in answer.get("model", ())}
        states[tuple(answer["copies"])] = answer
    return states


def missing_facts(watch, places, states):
    """What had been shown and is not there: (fact, number)."""
    missing = []
    for first, last, copies, _ in places:
        model = states[copies]["model"]
        for fact, (begin_at, end_at) in watch.facts.items():
            if begin_at <= last and (end_at is None or first <= end_at) and fact not in model:
                missing.append((fact, first))
    return missing


def find_states(begin_at, end_at, places, states):
    """What the kills between two numbers leave: (how many kills, model)."""
    for first, last, copies, _ in places:
        count = min(last, end_at) - max(first, begin_at) + 1
        if count > 0:
            yield count, states[copies]["model"]


def count_torn_commits(commit_record, places, states):
    """How many kills between pressing Commit and seeing it done leave the text, which had been
    saved as a draft, in neither form or in both: (neither, both)."""
    text, begin_at, end_at = commit_record
    neither = both = 0
    for count, model in find_states(begin_at, end_at, places, states):
        forms = {item[0] for item in model if item[0] in ("draft", "revision") and item[-1] == text}
        neither += count * (len(forms) == 0)
        both += count * (len(forms) == 2)
    return neither, both


def count_torn_deletions(deletion, places, states):
    """How many kills during a deletion leave only a part of what is being deleted."""
    facts, begin_at, end_at = deletion
    return sum(
        count
        for count, model in find_states(begin_at, end_at, places, states)
        if 0 < sum(fact in model for fact in facts) < len(facts)
    )


def judge(trial, watches):
    """The rows about all states of both stores."""
    kills = middles = places_count = changes = 0
    states_count = integrity = orphans = ended = fact_count = 0
    missing, strange, commits, deletions = [], 0, 0, 0
    neither = both = torn = committing = deleting = 0
    totals = {}
    for watch in watches:
        places = watch.places()
        states = look_at(trial.programs, watch, sorted({place[2] for place in places}))
        kills += watch.field(REACHED)
        for name, count in watch.totals().items():
            totals[name] = totals.get(name, 0) + count
        middles += sum(place[3] for place in places)
        changes += watch.count_changes()
        places_count += len(places)
        states_count += len(states)
        strange += watch.field(STRANGE)
        integrity += sum(state.get("integrity") == "ok" for state in states.values())
        orphans += sum(
            state.get("orphans") == "0" or int(state.get("tables", "9")) < 9
            for state in states.values()
        )
        ended += sum(state["ended"] != 0 for state in states.values())
        fact_count += len(watch.facts)
        missing += missing_facts(watch, places, states)
        for record in watch.commits:
            lost, doubled = count_torn_commits(record, places, states)
            neither += lost
            both += doubled
            commits += 1
            committing += record[2] - record[1]
        for record in watch.deletions:
            torn += count_torn_deletions(record, places, states)
            deletions += 1
            deleting += record[2] - record[1]
    for fact, number in missing[:10]:
        print("missing at %d: %r" % (number, fact))
    trial.figure("system calls that write, of both programs: a kill ahead of each", f"{kills:,}")
    trial.figure(
        "of these",
        ", ".join(
            f"{count:,} {name}" for name, count in sorted(totals.items(), key=lambda item: -item[1])
        ),
    )
    trial.figure("writes into the store's files: a kill in the middle of each", f"{middles:,}")
    trial.figure("committed changes of the two stores", f"{changes:,}")
    trial.figure(
        "different states of the store's files that these kills leave", f"{states_count:,}"
    )
    every = f"all {states_count:,} states"

    def some(count):
        return every if count == states_count else f"{count:,} states"

    trial.check("SQLite opens the store, and its integrity_check is ok", every, some(integrity))
    trial.check("no row has lost the row that it belongs to", every, some(orphans))
    trial.check(
        "the program opens the store and loads the account without a stop",
        every,
        some(states_count - ended),
    )
    trial.check(
        f"each of {fact_count} changes that a window had shown as done is there after "
        "every later kill, word for word",
        "nothing missing",
        f"{len(missing)} missing" if missing else "nothing missing",
    )
    trial.check(
        f"a saved draft is being committed ({commits} times, {committing:,} kill points): "
        "the text is stored as the draft or as the revision, as one of them",
        "0 in neither form, 0 in both",
        f"{neither:,} in neither form, {both:,} in both",
        ok=commits > 0 and not neither and not both,
    )
    trial.check(
        f"a procedure or a new clause is being deleted ({deletions} times, {deleting:,} kill "
        "points): all that it holds is there, or nothing",
        "0 with a part of it",
        f"{torn:,} with a part of it",
        ok=deletions > 0 and not torn,
    )
    trial.figure(
        "kill points that lose a text that was saved as a draft", f"{neither:,} of {kills:,}"
    )
    trial.check("files that SQLite reads back beside store and journal", "none", strange or "none")


# ---- Real kills ----

# What is killed, at which part of its way through the store, and whether in the middle of a write;
# None counts all writing calls of a commit, most of which go to console, server and screen.
SHORT_KILLS = [
    ("start", 0.4, True),
    ("commit", 0.3, False),
    ("commit", 0.75, True),
    ("commit", 0.03, None),
    ("receive", 0.6, False),
]
LONG_KILLS = (
    [("start", part, part > 0.3) for part in (0.05, 0.5, 0.9)]
    + [("commit", part / 20, part % 2 == 0) for part in range(1, 20, 2)]
    + [("commit", part / 20, True) for part in range(4, 20, 4)]
    + [("commit", part, None) for part in (0.01, 0.03, 0.08, 0.2, 0.4)]
    + [("draft", part, 0.5 < part < 0.8) for part in (0.2, 0.4, 0.6, 0.7, 0.9)]
    + [("decide", part, 0.4 < part < 0.8) for part in (0.1, 0.3, 0.6, 0.9)]
    + [("add", part, part < 0.8) for part in (0.3, 0.6, 0.9)]
    + [("receive", part, part < 0.5) for part in (0.2, 0.4, 0.7, 0.9)]
)


def read_file(path):
    """The bytes of a file, None without it."""
    try:
        with open(path, "rb") as file:
            return file.read()
    except FileNotFoundError:
        return None


def wait_killed(party):
    """Waits until the program is dead; whether it was the signal that cannot be caught."""
    party.expected_end = True
    process = party.process

    asked = time.monotonic()

    def is_over():
        nonlocal asked
        # Asked what it shows, a program that is done with its work goes on making calls. One that is
        # not done, and stops at each call, would get to nothing else when it is asked all the time.
        if process.poll() is None and party.windows and time.monotonic() > asked + 0.5:
            party.windows[0].labels()
            asked = time.monotonic()
        return process.poll() is not None

    party.desktop.wait(is_over, "%s's program is killed" % party.name)
    party.process = None
    party.windows = []
    party.check_errors()
    return process.returncode == -9


def compare_files(watch):
    """Whether the kill left exactly what was foretold: (same, copies, in the middle). A kill at a
    call on the store has a line of its own; at another it leaves what the last such call left."""
    _, call, _, _, middle, after = list(watch.calls())[-1]
    is_in_middle = bool(watch.field(MIDDLE_KILLED))
    copies = middle if is_in_middle else after
    is_same = call == "killed" or watch.field(KILL_AT) > 0
    for name, kind, copy in (
        (".morvane.db", "db", copies[0]),
        (".morvane.db-journal", "journal", copies[1]),
    ):
        told = read_file(os.path.join(watch.points, "%s-%d" % (kind, copy))) if copy else None
        is_same = is_same and read_file(os.path.join(watch.party.directory, name)) == told
    return is_same, copies, is_in_middle


class Kills:
    """Kills for real, and counts what came of it."""

    def __init__(self, trial, anna, bert):
        self.trial = trial
        self.anna = anna
        self.bert = bert
        self.texts = {}
        self.count = self.killed = self.foretold = self.kept = self.shown = 0
        self.in_middle = self.with_journal = self.elsewhere = 0

    def kill(self, watch, action, part, is_in_middle, act):
        """Kills at a part of the calls that the action takes; returns what a start then loads."""
        self.count += 1
        whole = watch.costs["any call" if is_in_middle is None else action]
        at = max(1, round(part * whole))
        if is_in_middle is None:
            watch.set_field(KILL_AT, watch.field(REACHED) + at)
        else:
            watch.set_field(KILL_IN_MIDDLE, int(is_in_middle))
            watch.set_field(KILL_AT_STORE, watch.field(STORE_REACHED) + at)
        watch.party.expected_end = True
        act()
        self.killed += wait_killed(watch.party)
        is_same, copies, was_in_middle = compare_files(watch)
        self.foretold += is_same
        self.in_middle += was_in_middle
        self.with_journal += copies[1] != 0
        self.elsewhere += is_in_middle is None
        state = look_at(self.trial.programs, watch, [copies])[copies]
        lost = [
            fact
            for fact, (_, end) in watch.facts.items()
            if end is None and fact not in state["model"]
        ]
        is_kept = not lost and not state["ended"] and state.get("integrity") == "ok"
        self.kept += is_kept
        print(
            "%s at %d of %d%s: %s"
            % (
                action,
                at,
                whole,
                ", in the middle" if was_in_middle else "",
                "kept" if is_kept else "LOST %r %r" % (lost, state),
            ),
            flush=True,
        )
        return state["model"]

    def start_again(self, watch):
        """Starts the program on what is left; its window shows the texts that it had shown."""
        watch.prepare()
        watch.party.start()
        login(watch)
        watch.party.open_procedure(TITLE)
        for nth, text in self.texts.items():
            watch.party.wait_text("Clause text", text, nth)
        self.shown += 1

    def press(self, watch, name, nth=0, roles=driver.BUTTON_ROLES):
        """What presses the button: nothing is left to be done but the press itself."""
        watch.party.activate()
        x, y = watch.party.scroll_to(watch.party.wait_for(name, roles, nth))
        return lambda: driver.Desktop.current.press_at(x, y)

    # ---- What is killed ----

    def start(self, part, is_in_middle):
        """The first start of all, in a directory of its own."""
        party = driver.Party("first", driver.ANNA, driver.LEFT)
        watch = Watch(party)
        watch.costs = self.anna.costs

        def launch():
            party.process = party.launch()

        party.expected_end = True
        self.kill(watch, "start", part, is_in_middle, launch)
        watch.prepare()
        party.start()
        self.shown += 1
        party.close()
        party.discard()

    def draft(self, part, is_in_middle):
        """Leaving a text that is being typed."""
        anna, text = self.anna, "A draft, number %d" % self.count
        anna.party.write(0, text)
        model = self.kill(
            anna,
            "draft",
            part,
            is_in_middle,
            self.press(anna, "Clause text", 1, driver.ENTRY_ROLES),
        )
        self.start_again(anna)
        self.drop_draft(model, text)

    def drop_draft(self, model, text):
        """Takes a draft back that the kill has left."""
        if any(item[0] == "draft" and item[-1] == text for item in model):
            self.anna.party.choose_revision(0, "draft")
            self.anna.party.wait_text("Clause text", text)
            self.anna.party.click("Cancel")
            self.anna.party.wait_text("Clause text", self.texts[0])

    def commit(self, part, is_in_middle):
        """Committing a draft that is saved."""
        anna, text = self.anna, "A text, number %d" % self.count
        save_draft(anna, 0, text, anna.party.jid, 1)
        act = self.press(anna, "Commit")
        anna.taking_back(("draft", TITLE, anna.party.jid, text))
        model = self.kill(anna, "commit", part, is_in_middle, act)
        if any(item[0] == "revision" and item[-1] == text for item in model):
            self.texts[0] = text
        self.start_again(anna)
        self.drop_draft(model, text)

    def decide(self, part, is_in_middle):
        """Agreeing with the second clause, or no longer."""
        anna, jid = self.anna, self.anna.party.jid
        name = "Agree" if anna.party.is_sensitive("Agree", 1) else "Disagree"
        for fact in list(anna.facts):
            if fact[:4] == ("decision", TITLE, self.texts[1], jid):
                anna.taking_back(fact)
        self.kill(anna, "decide", part, is_in_middle, self.press(anna, name, 1))
        self.start_again(anna)

    def add(self, part, is_in_middle):
        """Adding a clause."""
        anna = self.anna
        model = self.kill(anna, "add", part, is_in_middle, self.press(anna, "Add clause"))
        self.start_again(anna)
        count = sum(item[0] == "clause" and item[1] == TITLE for item in model)
        driver.Desktop.current.wait(
            lambda: anna.party.count("Clause text") == count, "all clauses are shown"
        )
        if count > len(self.texts):
            anna.party.click("Cancel", count - 1)
            driver.Desktop.current.wait(
                lambda: anna.party.count("Clause text") == len(self.texts), "the clause is gone"
            )

    def receive(self, part, is_in_middle):
        """A revision of the other party's is coming in."""
        anna, bert, text = self.anna, self.bert, "A new text, number %d" % self.count
        before = dict(self.texts)
        bert.party.start()
        login(bert)
        bert.party.open_procedure(TITLE)
        anna.party.write(0, text)
        model = self.kill(bert, "receive", part, is_in_middle, self.press(anna, "Commit"))
        anna.party.wait_sensitive("Commit", False)
        # What was not stored was not shown either.
        anna.shown(("revision", TITLE, anna.party.jid, anna.party.jid, text))
        is_stored = any(item[0] == "revision" and item[-1] == text for item in model)
        self.texts = {1: before[1]}
        if is_stored:
            self.texts[0] = text
        self.start_again(bert)
        self.texts = {0: text, 1: before[1]}
        bert.party.close()
        bert.prepare()

    def run(self, kills):
        """Kills all of these, one after the other."""
        for watch in (self.anna, self.bert):
            watch.prepare()
        self.anna.party.start()
        login(self.anna)
        self.anna.party.open_procedure(TITLE)
        self.texts = {nth: self.anna.party.text("Clause text", nth) for nth in (0, 1)}
        for action, part, is_in_middle in kills:
            if action == "start":
                self.anna.party.close()
                self.start(part, is_in_middle)
                self.anna.prepare()
                self.anna.party.start()
                login(self.anna)
                self.anna.party.open_procedure(TITLE)
            else:
                getattr(self, action)(part, is_in_middle)
        self.anna.party.close()

    def rows(self):
        """The rows of the table."""
        every = "%d of %d" % (self.count, self.count)

        def seen(count):
            return "%d of %d" % (count, self.count)

        where = (
            "%d in the middle of a write into the store, %d at calls of all kinds, %d with an "
            "unfinished journal" % (self.in_middle, self.elsewhere, self.with_journal)
        )
        self.trial.check(
            "a program is really killed, at first starts, drafts, commits, decisions, "
            "new clauses and received texts (%s): the files are those foretold" % where,
            every,
            seen(min(self.killed, self.foretold)),
        )
        self.trial.check(
            "what had been shown is in the store that the kill has left", every, seen(self.kept)
        )
        self.trial.check(
            "started again, the window shows the texts that it had shown", every, seen(self.shown)
        )


# ---- The trial ----


def main():
    """Runs the negotiation, judges its states, then kills for real."""
    driver.enter_world()
    trial = Trial("kills", __doc__)
    desktop = driver.Desktop()
    driver.Options.binary = os.path.join(trial.programs, "kill_points")
    desktop.environment["KILL_POINTS_PROGRAM"] = trial.binary
    server = driver.Server()
    server.start()
    started = time.monotonic()
    watches = [
        Watch(driver.Party("anna", driver.ANNA, driver.LEFT)),
        Watch(driver.Party("bert", driver.BERT, driver.RIGHT)),
    ]
    for watch in watches:
        watch.party.start()
    negotiate(*watches, trial.short)
    for watch in watches:
        watch.party.check_negotiation_warnings()
        watch.party.close()
    print("negotiated after %.0f s" % (time.monotonic() - started), flush=True)
    judge(trial, watches)
    print("judged after %.0f s" % (time.monotonic() - started), flush=True)
    kills = Kills(trial, *watches)
    kills.run(SHORT_KILLS if trial.short else LONG_KILLS)
    kills.rows()
    print("killed after %.0f s" % (time.monotonic() - started), flush=True)
    server.stop()
    desktop.stop()
    sys.exit(trial.end())


main()
