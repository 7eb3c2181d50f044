"""What the databases of two parties must hold after each of their actions.

The model is written from what the program promises, not from how it does it: a party's rows, what
is shown to it where that decides what an action is about, and the messages that wait for it. An
action is a method of Party; it changes the actor's rows at once, and the other party's as soon as
that is online. Every time is the actor's clock or, for what is stamped at receipt, the receiver's.

read_store() reads a database into the same form as Party.expected(): for each table its rows in the
order in which they were made, each the number of the row that it belongs to and then its columns.
"""

import difflib
import operator
import re
import sqlite3

# For each table: the table that its rows belong to, the column that says so, the other columns.
TABLES = {
    "accounts": (None, None, ("bare_jid",)),
    "contacts": ("accounts", "account_db_id", ("bare_jid",)),
    "contact_messages": ("contacts", "contact_db_id", ("time", "author", "body")),
    "procedures": (
        "accounts",
        "account_db_id",
        (
            "time",
            "initiator",
            "contractor",
            "title",
            "finished_time",
            "updated_time",
            "last_seen_time",
        ),
    ),
    "clauses": ("procedures", "procedure_db_id", ("time", "initiator", "position")),
    "clause_messages": ("clauses", "clause_db_id", ("time", "author", "text")),
    "clause_revisions": ("clauses", "clause_db_id", ("time", "author", "status", "text")),
    "clause_revision_decisions": (
        "clause_revisions",
        "clause_revision_db_id",
        ("time", "author", "status"),
    ),
}
APP_INFO = [(1, "Morvane", "0.1")]

# What both parties have is in the same order at both: by time, and within a second by author.
BY_INITIATOR = operator.itemgetter("time", "initiator")
BY_AUTHOR = operator.itemgetter("time", "author")


# ---- Texts ----


def sendable(text):
    """A typed text as it is kept: without what XML forbids and without blanks in front."""
    text = text.replace("\r\n", "\n").replace("\r", "\n")
    text = re.sub("[\x00-\x08\x0b-\x1f\ufffe\uffff]", "", text)
    return text.lstrip(" ")


def title_of(text):
    """A typed title as it is kept."""
    return sendable(text).replace("'", "\u2019")


def split_words(text):
    """Words with the blanks behind them; a line feed begins a word of its own."""
    words, start, after_blank = [], 0, text[:1] in (" ", "\n")
    for at, letter in enumerate(text):
        if letter == " ":
            after_blank = True
        elif letter == "\n":
            words.append(text[start:at])
            start, after_blank = at, True
        elif after_blank:
            words.append(text[start:at])
            start, after_blank = at, False
    return words + [text[start:]]


def compare_texts(older, newer):
    """The comparison of two texts: stretches of (kind, text), kind one of "=", "-" and "+"."""
    olds, news = split_words(older), split_words(newer)
    cells = [[0] * (len(olds) + 1) for _ in range(len(news) + 1)]
    for j in range(1, len(news) + 1):
        for i in range(1, len(olds) + 1):
            if olds[-i] == news[-j]:
                cells[j][i] = cells[j - 1][i - 1] + 1
            else:
                cells[j][i] = max(cells[j - 1][i], cells[j][i - 1])
    i, j, walk = len(olds), len(news), []
    while cells[j][i]:
        while cells[j][i] == cells[j][i - 1]:
            walk.append(("-", olds[-i]))
            i -= 1
        while cells[j][i] == cells[j - 1][i]:
            walk.append(("+", news[-j]))
            j -= 1
        walk.append(("=", olds[-i]))
        i, j = i - 1, j - 1
    walk += [("-", olds[-k]) for k in range(i, 0, -1)]
    walk += [("+", news[-k]) for k in range(j, 0, -1)]
    stretches = []
    for kind, word in walk:
        if stretches and stretches[-1][0] == kind:
            stretches[-1][1] += word
        elif word:
            stretches.append([kind, word])
    return [(kind, text) for kind, text in stretches]


# ---- The parties ----


class Party:
    """One party: its clock, its rows, what it is shown, and what waits for it at the server.

    A row is a dictionary of its columns, with the row that it belongs to as "parent". Procedures,
    clauses and revisions also hold what the program has of them in memory, in its order."""

    def __init__(self, jid):
        self.jid = jid
        self.user = jid.split("@")[0]
        self.other = None
        self.clock = 0
        self.is_online = False
        self.rows = {table: [] for table in TABLES}
        self.procedures = []  # in memory, in order
        self.waiting = []  # messages at the server
        self.subscribed_to = set()  # whose presence it gets
        self.requests = set()  # who asked for its presence while it was away
        self.warnings = {}  # what the console must have said of messages out of place
        self.sent = 0

    # ---- Rows ----

    def insert(self, table, parent, **columns):
        row = dict(columns, parent=parent)
        self.rows[table].append(row)
        return row

    def delete(self, table, row):
        self.rows[table] = [other for other in self.rows[table] if other is not row]

    def delete_all(self, table, parent):
        self.rows[table] = [row for row in self.rows[table] if row["parent"] is not parent]

    def children(self, table, parent):
        return [row for row in self.rows[table] if row["parent"] is parent]

    def account(self):
        return self.rows["accounts"][0]

    def contact(self, jid):
        return next((row for row in self.rows["contacts"] if row["bare_jid"] == jid), None)

    def expected(self):
        """All that the database must hold."""
        numbers = {
            id(row): number for table in TABLES for number, row in enumerate(self.rows[table])
        }
        tables = {"app_info": APP_INFO}
        for table, (parent, _, columns) in TABLES.items():
            tables[table] = [
                ((numbers[id(row["parent"])],) if parent else ())
                + tuple(row[column] for column in columns)
                for row in self.rows[table]
            ]
        return tables

    # ---- Coming and going ----

    def log_in(self):
        """The program starts and logs in; then comes what has waited."""
        self.is_online = True
        if not self.rows["accounts"]:
            self.insert("accounts", None, bare_jid=self.jid)
        self.load()
        self.meet()
        waiting, self.waiting = self.waiting, []
        for message in waiting:
            self.receive(message)

    def load(self):
        """What is in memory follows the times, whatever the order in which it came."""
        by_time = operator.itemgetter("time")
        self.procedures = sorted(self.rows["procedures"], key=by_time)
        for procedure in self.procedures:
            procedure["clauses"] = sorted(self.children("clauses", procedure), key=BY_INITIATOR)
            for clause in procedure["clauses"]:
                revisions = sorted(self.children("clause_revisions", clause), key=BY_AUTHOR)
                clause["revisions"] = [row for row in revisions if row["status"] == "COMMITTED"]
                clause["draft"] = next((row for row in revisions if row["status"] == "DRAFT"), None)
                clause["shown"] = clause["base"] = (clause["revisions"] or [None])[-1]
                clause["typed"] = None

    def meet(self):
        """What presence does: whoever is heard of becomes a contact."""
        other = self.other
        if other.jid in self.subscribed_to:
            self.hear_of(other.jid)
        if self.jid in other.subscribed_to and other.is_online:
            other.hear_of(self.jid)
        if self.requests:
            self.requests.clear()
            self.accept()

    def hear_of(self, jid):
        if not self.contact(jid):
            self.insert("contacts", self.account(), bare_jid=jid)

    def ask(self):
        """Asks for the other party's presence. The server says at once that there is none yet."""
        other = self.other
        if other.jid in self.subscribed_to:
            return
        self.hear_of(other.jid)
        if other.is_online:
            other.accept()
        else:
            other.requests.add(self.jid)

    def accept(self):
        """Every request is accepted, and answered with one of the own."""
        other = self.other
        other.subscribed_to.add(self.jid)
        if other.is_online:
            other.hear_of(self.jid)
        self.ask()

    def leave(self, is_killed):
        """The program ends: closed, it keeps what was typed; killed, it does not."""
        for procedure in self.procedures:
            for clause in procedure["clauses"]:
                if not is_killed:
                    self.keep_typing(clause)
        self.is_online = False

    # ---- Procedures and clauses ----

    def free_time(self, siblings, maker):
        """Two of a kind by the same maker never share a second."""
        taken = {row["time"] for row in siblings if row[maker] == self.jid}
        time = self.clock
        while time in taken:
            time += 1
        return time

    def insert_procedure(self, time, initiator, contractor, title):
        procedure = self.insert(
            "procedures",
            self.account(),
            time=time,
            initiator=initiator,
            contractor=contractor,
            title=title,
            finished_time=None,
            updated_time=None,
            last_seen_time=None,
        )
        procedure["clauses"] = []
        self.procedures.append(procedure)
        return procedure

    def insert_clause(self, procedure, time, initiator, position):
        clause = self.insert(
            "clauses", procedure, time=time, initiator=initiator, position=position
        )
        clause.update(revisions=[], draft=None, shown=None, base=None, typed=None)
        procedure["clauses"].append(clause)
        procedure["clauses"].sort(key=BY_INITIATOR)
        return clause

    def begin(self, title):
        time = self.free_time(self.procedures, "initiator")
        procedure = self.insert_procedure(time, self.jid, self.other.jid, title_of(title))
        self.send("procedure", self.jid, time, procedure["title"])
        return procedure

    def delete_procedure(self, procedure):
        """Only here: the other party is told nothing."""
        for clause in procedure["clauses"]:
            self.delete_clause(clause)
        self.delete("procedures", procedure)
        self.procedures.remove(procedure)

    def add_clause(self, procedure):
        """The other party learns of it with the first revision."""
        return self.insert_clause(
            procedure,
            self.free_time(procedure["clauses"], "initiator"),
            self.jid,
            len(procedure["clauses"]) + 1,
        )

    def delete_clause(self, clause):
        for revision in self.children("clause_revisions", clause):
            self.delete_all("clause_revision_decisions", revision)
        self.delete_all("clause_revisions", clause)
        self.delete_all("clause_messages", clause)
        self.delete("clauses", clause)

    # ---- Texts ----

    def insert_revision(self, clause, time, author, text):
        revision = self.insert(
            "clause_revisions", clause, time=time, author=author, status="COMMITTED", text=text
        )
        clause["revisions"].append(revision)
        clause["revisions"].sort(key=BY_AUTHOR)
        return revision

    def type(self, clause, text):
        """Typed, but not yet kept."""
        clause["typed"] = text
        clause["shown"] = None

    def keep_typing(self, clause):
        """What is typed becomes the draft, of which there is one, here only."""
        if clause["typed"] is None:
            return
        text, clause["typed"] = sendable(clause["typed"]), None
        if clause["draft"]:
            clause["draft"].update(time=self.clock, text=text)
        else:
            clause["draft"] = self.insert(
                "clause_revisions",
                clause,
                time=self.clock,
                author=self.jid,
                status="DRAFT",
                text=text,
            )

    def drop_draft(self, clause):
        clause["typed"] = None
        if clause["draft"]:
            self.delete("clause_revisions", clause["draft"])
            clause["draft"] = None

    def show(self, clause, revision):
        """Shows a committed revision, or the draft (None); unsaved typing is kept."""
        self.keep_typing(clause)
        clause["shown"] = revision
        if revision:
            clause["base"] = revision

    def commit(self, clause, text):
        """The draft goes, the revision comes, and travels; a new clause travels ahead of it."""
        procedure = clause["parent"]
        self.drop_draft(clause)
        time = self.clock
        if clause["revisions"]:
            time = max(time, clause["revisions"][-1]["time"] + 1)
        revision = self.insert_revision(clause, time, self.jid, sendable(text))
        clause["shown"] = clause["base"] = revision
        if len(clause["revisions"]) == 1 and clause["initiator"] == self.jid:
            self.send("clause", *identity(procedure), *identity(clause))
        self.send(
            "revision", *identity(procedure), *identity(clause), self.jid, time, revision["text"]
        )
        return revision

    def cancel(self, clause):
        """Back to what was shown before; an own clause that nobody else knows is gone."""
        if not clause["revisions"]:
            self.delete_clause(clause)
            clause["parent"]["clauses"].remove(clause)
            return
        self.drop_draft(clause)
        clause["shown"] = clause["base"] = clause["base"] or clause["revisions"][-1]

    # ---- Decisions and talk ----

    def decision(self, revision, author):
        return next(
            (
                row
                for row in self.children("clause_revision_decisions", revision)
                if row["author"] == author
            ),
            None,
        )

    def set_decision(self, revision, author, status):
        """One decision an author, stamped by the clock of who stores it."""
        decision = self.decision(revision, author)
        if decision:
            decision.update(time=self.clock, status=status)
        else:
            self.insert(
                "clause_revision_decisions", revision, time=self.clock, author=author, status=status
            )

    def decide(self, clause, status):
        """About the revision that is shown."""
        revision = clause["shown"]
        self.set_decision(revision, self.jid, status)
        self.send(
            "decision",
            *identity(clause["parent"]),
            *identity(clause),
            revision["author"],
            revision["time"],
            self.jid,
            status,
        )

    def say_of(self, clause, text):
        """A line about a clause: signed with the user's name alone."""
        text, time = sendable(text), self.clock
        taken = {
            row["time"]
            for row in self.children("clause_messages", clause)
            if row["author"] == self.user
        }
        while time in taken:
            time += 1
        self.insert("clause_messages", clause, time=time, author=self.user, text=text)
        self.send("message", *identity(clause["parent"]), *identity(clause), self.user, time, text)

    def say(self, text):
        """A line to the contact; the other side stamps it when it comes."""
        text = sendable(text)
        self.insert(
            "contact_messages",
            self.contact(self.other.jid),
            time=self.clock,
            author=self.jid,
            body=text,
        )
        self.send("chat", self.jid, text)

    # ---- Messages ----

    def send(self, *message):
        self.sent += 1
        if self.other.is_online:
            self.other.receive(message)
        else:
            self.other.waiting.append(message)

    def warn(self, text):
        self.warnings[text] = self.warnings.get(text, 0) + 1

    def receive(self, message):
        kind, *rest = message
        getattr(self, "receive_" + kind)(*rest)

    def receive_procedure(self, initiator, time, title):
        self.insert_procedure(time, initiator, self.jid, title)

    def find(self, event, procedure_identity, clause_identity=None):
        """What a message is about; what is not here is only warned of."""
        procedure = find(self.procedures, procedure_identity)
        if not procedure:
            self.warn("A %s came, but we don't have the procedure to attach it to." % event)
            return None
        if clause_identity is None:
            return procedure
        clause = find(procedure["clauses"], clause_identity)
        if not clause:
            self.warn("A %s came, but we don't have the clause to attach it to." % event)
        return clause

    def receive_clause(self, initiator, time, clause_initiator, clause_time):
        procedure = self.find("clause", (initiator, time))
        if procedure:
            self.insert_clause(procedure, clause_time, clause_initiator, 1)

    def receive_revision(
        self, initiator, time, clause_initiator, clause_time, author, revision_time, text
    ):
        clause = self.find("clause revision", (initiator, time), (clause_initiator, clause_time))
        if clause:
            revision = self.insert_revision(clause, revision_time, author, text)
            self.show(clause, revision)

    def receive_decision(
        self,
        initiator,
        time,
        clause_initiator,
        clause_time,
        revision_author,
        revision_time,
        author,
        status,
    ):
        event = "clause revision decision"
        clause = self.find(event, (initiator, time), (clause_initiator, clause_time))
        if not clause:
            return
        revision = next(
            (
                row
                for row in clause["revisions"]
                if (row["author"], row["time"]) == (revision_author, revision_time)
            ),
            None,
        )
        if revision:
            self.set_decision(revision, author, status)
        else:
            self.warn("A %s came, but we don't have the revision to attach it to." % event)

    def receive_message(
        self, initiator, time, clause_initiator, clause_time, author, message_time, text
    ):
        clause = self.find("clause message", (initiator, time), (clause_initiator, clause_time))
        if clause:
            self.insert("clause_messages", clause, time=message_time, author=author, text=text)

    def receive_chat(self, sender, text):
        self.insert(
            "contact_messages", self.contact(sender), time=self.clock, author=sender, body=text
        )


def identity(row):
    """What a procedure or a clause is known by on both sides."""
    return row["initiator"], row["time"]


def find(rows, wanted):
    return next((row for row in rows if identity(row) == wanted), None)


def make_parties(one_jid, other_jid):
    one, other = Party(one_jid), Party(other_jid)
    one.other, other.other = other, one
    return one, other


# ---- Databases ----


def read_store(path):
    """All rows of a database, as Party.expected() has them, and what SQLite says of the file."""
    connection = sqlite3.connect("file:%s?mode=ro" % path, uri=True, timeout=5)
    try:
        connection.execute("BEGIN")
        names = sorted(
            name
            for (name,) in connection.execute(
                # What waits to be sent has a table of its own while there is something.
                "SELECT name FROM sqlite_master WHERE type = 'table' AND name != 'outbox'"
            )
        )
        if names != sorted(["app_info"] + list(TABLES)):
            raise ValueError("the tables are %s" % names)
        tables = {"app_info": connection.execute("SELECT * FROM app_info").fetchall()}
        numbers = {}
        for table, (parent, link, columns) in TABLES.items():
            wanted = ("db_id",) + ((link,) if link else ()) + columns
            cursor = connection.execute("SELECT * FROM %s ORDER BY db_id" % table)
            seen = [description[0] for description in cursor.description]
            if sorted(seen) != sorted(wanted):
                raise ValueError("%s has the columns %s" % (table, seen))
            places = [seen.index(column) for column in wanted]
            rows = [tuple(row[place] for place in places) for row in cursor]
            numbers[table] = {row[0]: number for number, row in enumerate(rows)}
            if parent:
                rows = [
                    (0, numbers[parent].get(row[1], "row %s, which is missing" % row[1])) + row[2:]
                    for row in rows
                ]
            tables[table] = [row[1:] for row in rows]
        return tables
    finally:
        connection.close()


def check_integrity(path):
    """What SQLite finds wrong with the file: "ok", or what it is."""
    connection = sqlite3.connect("file:%s?mode=ro" % path, uri=True, timeout=5)
    try:
        return connection.execute("PRAGMA integrity_check").fetchone()[0]
    finally:
        connection.close()


def differences(expected, seen):
    """The lines in which a database differs from what it must hold: none, or a diff."""
    lines = []
    for table, rows in expected.items():
        if rows == seen[table]:
            continue
        one, other = [repr(row) for row in rows], [repr(row) for row in seen[table]]
        lines += [table + ":"] + [
            line[:400]
            for line in difflib.unified_diff(one, other, "expected", "seen", "", "", 1, "")
        ]
    return lines


def count_rows(tables):
    return sum(len(rows) for rows in tables.values())


def agreements(tables):
    """What both have agreed on, free of row numbers: (procedure, clause, revision, text)."""
    agreed = set()
    for number, (clause, time, author, status, text) in enumerate(tables["clause_revisions"]):
        yes = {
            row[2]
            for row in tables["clause_revision_decisions"]
            if row[0] == number and row[3] == "AGREE"
        }
        procedure, clause_time, clause_initiator, _ = tables["clauses"][clause]
        _, procedure_time, initiator, contractor, title = tables["procedures"][procedure][:5]
        if status == "COMMITTED" and yes >= {initiator, contractor}:
            agreed.add(
                (
                    (initiator, procedure_time, title),
                    (clause_initiator, clause_time),
                    (author, time),
                    text,
                )
            )
    return agreed
