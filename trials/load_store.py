"""Fills the store of trials/load.py: one account with much of everything."""

import sqlite3

OWN = "anna@alpha.test"
OTHER = "bert@alpha.test"
FIRST_TIME = 1600000000

SENTENCE = (
    "The supplier delivers number %d of the goods in the annex within fourteen days of the "
    "order, carriage paid, to the place that the order names, and bears the risk until then. "
)


def make_text(number, size):
    """A text of exactly that many bytes, paragraphs of some sentences each, another one for each
    number."""
    text = ""
    line = 0
    while len(text) < size:
        line += 1
        text += SENTENCE % (number * 1000 + line)
        if line % 4 == 0:
            text = text.rstrip() + "\n"
    return text[: size - 1].rstrip().ljust(size - 1, ".") + "."


class Filler:
    """Writes rows as the program would."""

    def __init__(self, path):
        self.db = sqlite3.connect(path)
        self.time = FIRST_TIME
        self.account = self.insert("accounts", bare_jid=OWN)
        self.number = 0

    def insert(self, table, **row):
        cursor = self.db.execute(
            "INSERT INTO %s (%s) VALUES (%s)" % (table, ", ".join(row), ", ".join("?" * len(row))),
            tuple(row.values()),
        )
        return cursor.lastrowid

    def tick(self):
        self.time += 1
        return self.time

    def add_contact(self, jid, lines):
        contact = self.insert("contacts", account_db_id=self.account, bare_jid=jid)
        for number in range(lines):
            self.insert(
                "contact_messages",
                contact_db_id=contact,
                time=self.tick(),
                author=(jid, OWN)[number % 2],
                body="Line %d of what we said: %s" % (number, "yes " * (number % 20)),
            )

    def add_procedure(self, title):
        moment = self.tick()
        procedure = self.insert(
            "procedures",
            account_db_id=self.account,
            time=moment,
            title=title,
            initiator=OWN,
            contractor=OTHER,
            finished_time=0,
            updated_time=0,
            last_seen_time=0,
        )
        return procedure, moment

    def add_clause(self, procedure, position, sizes):
        """A clause with a revision of each of these sizes, the last one decided on by both."""
        moment = self.tick()
        clause = self.insert(
            "clauses", procedure_db_id=procedure, time=moment, initiator=OWN, position=position
        )
        for index, size in enumerate(sizes):
            self.number += 1
            revision = self.insert(
                "clause_revisions",
                clause_db_id=clause,
                time=self.tick(),
                author=(OWN, OTHER)[index % 2],
                status="COMMITTED",
                text=make_text(self.number, size),
            )
        for author in (OWN, OTHER):
            self.insert(
                "clause_revision_decisions",
                clause_revision_db_id=revision,
                time=self.tick(),
                author=author,
                status="AGREE",
            )
        return clause, moment

    def end(self):
        self.db.commit()
        self.db.close()


def fill(path, contacts, lines, procedures, clauses, revisions, many, long_size):
    """Fills a store that the program has made. Returns the times that name what is looked at:
    {"big": procedure, "big clauses": [clause...], "many": (procedure, clause), "long": ...}."""
    filler = Filler(path)
    filler.add_contact(OTHER, lines)
    for number in range(contacts - 1):
        filler.add_contact("contact%03d@alpha.test" % number, 2)
    for number in range(procedures - 3):
        procedure, _ = filler.add_procedure("Supply %d" % number)
        filler.add_clause(procedure, 1, [180])
    # The newest are on top of the list.
    procedure, moment = filler.add_procedure("A long text")
    times = {"long": (moment, filler.add_clause(procedure, 1, [long_size, long_size])[1])}
    procedure, moment = filler.add_procedure("Many revisions")
    times["many"] = (moment, filler.add_clause(procedure, 1, [180] * many)[1])
    procedure, moment = filler.add_procedure("Many clauses")
    times["big"] = moment
    times["big clauses"] = [
        filler.add_clause(procedure, position + 1, [180] * revisions)[1]
        for position in range(clauses)
    ]
    filler.end()
    return times
