"""Whether the stores of two parties hold the same negotiations: SQL on both files, by hand.

What must be the same is named by what goes over the wire: authors, times and texts, never by the
rows of one store. Nothing but a procedure may be there twice, and that at its contractor's only.
The order in which both parties see clauses and revisions follows from times and authors alone, so two
stores that hold the same show the same, provided that no revision shares both with another one.
"""

import collections
import os
import shutil
import sqlite3
import tempfile

QUERIES = {
    "procedure": "SELECT p.initiator, p.time, p.contractor, p.title FROM procedures p",
    # A clause that was never committed is known to its initiator alone.
    "clause": """SELECT p.initiator, p.time, c.initiator, c.time FROM clauses c
        JOIN procedures p ON p.db_id = c.procedure_db_id
        WHERE c.initiator != :own OR EXISTS (SELECT 1 FROM clause_revisions r
            WHERE r.clause_db_id = c.db_id AND r.status = 'COMMITTED')""",
    "revision": """SELECT p.initiator, p.time, c.initiator, c.time, r.author, r.time, r.text
        FROM clause_revisions r JOIN clauses c ON c.db_id = r.clause_db_id
        JOIN procedures p ON p.db_id = c.procedure_db_id WHERE r.status = 'COMMITTED'""",
    # A text more or less does not tell two revisions apart: what is last must be one of them.
    "revision's name": """SELECT p.initiator, p.time, c.initiator, c.time, r.author, r.time
        FROM clause_revisions r JOIN clauses c ON c.db_id = r.clause_db_id
        JOIN procedures p ON p.db_id = c.procedure_db_id WHERE r.status = 'COMMITTED'""",
    "message": """SELECT p.initiator, p.time, c.initiator, c.time, m.author, m.time, m.text
        FROM clause_messages m JOIN clauses c ON c.db_id = m.clause_db_id
        JOIN procedures p ON p.db_id = c.procedure_db_id""",
    # Each store stamps a decision with its own clock.
    "decision": """SELECT p.initiator, p.time, c.initiator, c.time, r.author, r.time, d.author,
            d.status
        FROM clause_revision_decisions d JOIN clause_revisions r ON r.db_id = d.clause_revision_db_id
        JOIN clauses c ON c.db_id = r.clause_db_id
        JOIN procedures p ON p.db_id = c.procedure_db_id""",
}


def open_store(path):
    """The store, only for reading. What a killed program has left is not repaired here: with a
    journal beside it, a copy is read."""
    if not os.path.exists(path + "-journal"):
        return sqlite3.connect("file:%s?mode=ro" % path, uri=True, timeout=10)
    with tempfile.TemporaryDirectory() as directory:
        copy = os.path.join(directory, "copy.db")
        for end in ("", "-journal"):
            if os.path.exists(path + end):
                shutil.copyfile(path + end, copy + end)
        connection = sqlite3.connect(copy)
        connection.execute("SELECT count(*) FROM procedures").fetchall()
        memory = sqlite3.connect(":memory:")
        connection.backup(memory)
        connection.close()
        return memory


def read(path, own):
    """All that the store of this party holds of negotiations: kind to a count of each."""
    connection = open_store(path)
    connection.text_factory = lambda data: data.decode("utf-8", "surrogateescape")
    connection.execute("BEGIN")
    held = {
        kind: collections.Counter(connection.execute(query, {"own": own}).fetchall())
        for kind, query in QUERIES.items()
    }
    connection.close()
    return held


def describe(kind, item):
    text = "%s %r" % (kind, item)
    return text if len(text) < 300 else text[:200] + "..." + text[-90:]


def twice(held, own):
    """What the store holds more often than it may."""
    return [
        (kind, item)
        for kind, items in held.items()
        for item, count in items.items()
        if count > 1 and not (kind == "procedure" and item[2] == own)
    ]


def missing(held, other):
    """What is in the other store and not in this one."""
    return [
        (kind, item) for kind, items in other.items() for item in items if item not in held[kind]
    ]


def compare(stores):
    """The faults of two stores, each (path, own JID): a list of lines, empty when all is well."""
    held = [read(*store) for store in stores]
    names = [own.split("@")[0] for _, own in stores]
    lines = []
    for at, name in enumerate(names):
        lines += [
            "%s has twice: %s" % (name, describe(*fault))
            for fault in twice(held[at], stores[at][1])
        ]
        lines += [
            "%s has not: %s" % (name, describe(*fault)) for fault in missing(held[at], held[1 - at])
        ]
    return lines


# ---- Whether the judge itself can find a fault ----

SCHEMA = """
CREATE TABLE procedures (db_id INTEGER PRIMARY KEY, time, initiator, contractor, title);
CREATE TABLE clauses (db_id INTEGER PRIMARY KEY, procedure_db_id, time, initiator, position);
CREATE TABLE clause_revisions (db_id INTEGER PRIMARY KEY, clause_db_id, time, author, status, text);
CREATE TABLE clause_messages (db_id INTEGER PRIMARY KEY, clause_db_id, time, author, text);
CREATE TABLE clause_revision_decisions
    (db_id INTEGER PRIMARY KEY, clause_revision_db_id, time, author, status);
INSERT INTO procedures VALUES (1, 100, 'a@h', 'b@h', 'Apples'), (2, 101, 'b@h', 'a@h', 'Pears');
INSERT INTO clauses VALUES (1, 1, 200, 'a@h', 1), (2, 1, 200, 'b@h', 2), (3, 2, 200, 'b@h', 1);
INSERT INTO clause_revisions VALUES (1, 1, 300, 'a@h', 'COMMITTED', 'Ten'),
    (2, 1, 300, 'b@h', 'COMMITTED', 'Nine'), (3, 2, 301, 'b@h', 'COMMITTED', 'Eight'),
    (4, 3, 302, 'b@h', 'COMMITTED', 'Seven');
INSERT INTO clause_messages VALUES (1, 1, 400, 'a', 'Why?'), (2, 1, 401, 'b', 'Why not?');
INSERT INTO clause_revision_decisions VALUES (1, 1, 500, 'b@h', 'DISAGREE'),
    (2, 2, 501, 'a@h', 'AGREE');
"""

# Told by the judge, when one of the stores (0 is that of a@h) is changed so.
FAULTS = [
    (1, "DELETE FROM procedures WHERE db_id = 1"),
    (0, "DELETE FROM procedures WHERE db_id = 1"),
    (1, "UPDATE procedures SET title = 'Plums' WHERE db_id = 1"),
    (
        0,
        "INSERT INTO procedures SELECT 9, time, initiator, contractor, title FROM procedures"
        " WHERE db_id = 1",
    ),
    (
        0,
        "INSERT INTO procedures SELECT 9, time + 1, initiator, contractor, title FROM procedures"
        " WHERE db_id = 2",
    ),
    (1, "DELETE FROM clauses WHERE db_id = 1"),
    (1, "DELETE FROM clause_revisions WHERE clause_db_id = 2"),
    (1, "UPDATE clauses SET procedure_db_id = 2 WHERE db_id = 1"),
    (
        1,
        "INSERT INTO clauses SELECT 9, procedure_db_id, time, initiator, position FROM clauses"
        " WHERE db_id = 1",
    ),
    (0, "INSERT INTO clauses VALUES (9, 1, 209, 'b@h', 3)"),
    (0, "DELETE FROM clause_revisions WHERE db_id = 3"),
    (1, "UPDATE clause_revisions SET text = 'ten' WHERE db_id = 1"),
    (1, "UPDATE clause_revisions SET time = 309 WHERE db_id = 1"),
    (1, "UPDATE clause_revisions SET status = 'DRAFT' WHERE db_id = 2"),
    (
        1,
        "INSERT INTO clause_revisions SELECT 9, clause_db_id, time, author, status, text"
        " FROM clause_revisions WHERE db_id = 4",
    ),
    (0, "DELETE FROM clause_messages WHERE db_id = 2"),
    (
        0,
        "INSERT INTO clause_messages SELECT 9, clause_db_id, time, author, text"
        " FROM clause_messages WHERE db_id = 2",
    ),
    (0, "DELETE FROM clause_revision_decisions WHERE db_id = 2"),
    (0, "UPDATE clause_revision_decisions SET status = 'AGREE' WHERE db_id = 1"),
    (1, "UPDATE clause_revision_decisions SET clause_revision_db_id = 3 WHERE db_id = 1"),
    (
        1,
        "INSERT INTO clause_revision_decisions SELECT 9, clause_revision_db_id, time, author, status"
        " FROM clause_revision_decisions WHERE db_id = 1",
    ),
]

# No faults: a procedure twice at the contractor's, what is not sent, rows and clocks of one's own.
DIFFERENCES = [
    (
        1,
        "INSERT INTO procedures SELECT 9, time, initiator, contractor, title FROM procedures"
        " WHERE db_id = 1",
    ),
    (0, "INSERT INTO clauses VALUES (9, 1, 209, 'a@h', 3)"),
    (0, "INSERT INTO clause_revisions VALUES (9, 1, 309, 'a@h', 'DRAFT', 'Eleven')"),
    (1, "UPDATE clause_revision_decisions SET time = time + 9"),
    (1, "UPDATE clauses SET position = 1"),
    (1, "UPDATE clause_messages SET db_id = db_id + 9"),
]


def judge_change(at, statement):
    """What the judge says of two stores that were the same until one was changed."""
    with tempfile.TemporaryDirectory() as directory:
        paths = [os.path.join(directory, name) for name in ("a", "b")]
        for number, path in enumerate(paths):
            connection = sqlite3.connect(path)
            connection.executescript(
                "PRAGMA synchronous = OFF; BEGIN;"
                + SCHEMA
                + (statement if number == at else "")
                + "; COMMIT"
            )
            connection.close()
        return compare(list(zip(paths, ("a@h", "b@h"))))


def try_out(trial):
    """Two rows of the trial: the judge finds each fault, and nothing else."""
    found = sum(bool(judge_change(*fault)) for fault in FAULTS)
    trial.check(
        "two stores that differ in one row, hold one twice or miss one are told apart",
        "%d of %d" % (len(FAULTS), len(FAULTS)),
        "%d of %d" % (found, len(FAULTS)),
    )
    passed = sum(not judge_change(*difference) for difference in DIFFERENCES)
    trial.check(
        "and two that differ in what each keeps to itself are not",
        "%d of %d" % (len(DIFFERENCES), len(DIFFERENCES)),
        "%d of %d" % (passed, len(DIFFERENCES)),
    )
