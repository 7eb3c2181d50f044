#!/usr/bin/python3
"""Walks two users through a whole negotiation and leaves a picture of each step.

    tests/e2e/walk.py --binary PROGRAM --output DIRECTORY

Both windows are worked with mouse and keyboard: login, a procedure, clauses of both parties,
revisions and counter-revisions, decisions, a look back; both programs are closed and started again
and show what they showed before. DIRECTORY gets the pictures, numbered, the two stores, and the
two working directories. The walk fails when the two stores do not hold the same negotiation.
"""

import argparse
import os
import shutil
import sys
import time

import driver

TITLE = "Lease of the boat house"
CLAUSES = [
    "The tenant leases the boat house at the northern pier, with both berths.",
    "The rent is 420 euros a month, due on the first working day.",
    "The lease begins on 1 May and runs for two years.",
]
COUNTER_RENT = ("The rent is 390 euros a month, due on the third working day.\n"
                "Electricity is metered and paid apart.")
LAST_RENT = ("The rent is 400 euros a month, due on the third working day.\n"
             "Electricity is metered and paid apart.")
DRAFT = "The lease begins on 1 May and runs for three years."


class Walk:
    def __init__(self, output):
        self.output = output
        self.desktop = driver.Desktop(output, animations=True)
        self.server = driver.Server()
        self.step = 0
        self.started = time.monotonic()
        self.parties = {}
        for name, jid, place in (("anna", driver.ANNA, driver.LEFT),
                                 ("bert", driver.BERT, driver.RIGHT)):
            directory = os.path.join(output, name)
            shutil.rmtree(directory, ignore_errors=True)
            self.parties[name] = driver.Party(name, jid, place, directory=directory)
        self.anna = self.parties["anna"]
        self.bert = self.parties["bert"]

    def picture(self, name, text):
        """Takes the step's picture once nothing moves any more."""
        self.step += 1
        path = os.path.join(self.output, "%02d-%s.png" % (self.step, name))
        self.desktop.still_picture(path, (1362, 700, 10, 20))
        print("%02d  %s  (%.1f s)" % (self.step, text, time.monotonic() - self.started), flush=True)

    def negotiate(self):
        anna, bert = self.anna, self.bert
        for party in (anna, bert):
            party.start()
        self.picture("start", "Both start the program; the account is filled in")
        anna.login()
        bert.login()
        self.picture("login", "Both press Login")

        anna.click("New procedure")
        anna.enter("Procedure title", TITLE)
        anna.enter("Contractor", driver.BERT)
        self.picture("creation", "Anna names a new procedure and its contractor")
        anna.click("Begin")
        anna.wait_label(TITLE)
        bert.open_procedure(TITLE)
        self.picture("procedure", "Anna begins it; Bert opens what has arrived")

        anna.write(anna.add_clause(), CLAUSES[0])
        self.picture("draft", "Anna writes a clause: a draft, which only she sees")
        anna.commit(0)
        bert.wait_text("Clause text", CLAUSES[0])
        self.picture("commit", "Anna commits it; Bert sees it at once")

        anna.commit(anna.add_clause(), CLAUSES[1])
        bert.wait_text("Clause text", CLAUSES[1], 1)
        bert.commit(bert.add_clause(), CLAUSES[2])
        anna.wait_text("Clause text", CLAUSES[2], 2)
        self.picture("clauses", "Each adds one more clause")

        bert.decide("Agree", 0)
        anna.wait_label("contractor agrees")
        bert.decide("Disagree", 1)
        anna.wait_label("contractor disagrees")
        self.picture("decisions", "Bert agrees to the first and disagrees with the second")

        bert.write(1, COUNTER_RENT)
        self.picture("counter-draft", "Bert writes a counter-revision")
        bert.commit(1)
        anna.wait_text("Clause text", COUNTER_RENT, 1)
        self.picture("counter-revision", "Bert commits it; Anna sees it in place of her own")

        anna.commit(1, LAST_RENT)
        bert.wait_text("Clause text", LAST_RENT, 1)
        for nth in range(3):
            anna.decide("Agree", nth)
        bert.wait_labels("contractor agrees", 3)
        bert.decide("Agree", 1)
        anna.decide("Disagree", 2)
        driver.wait_same(anna, bert)
        self.picture("agreement", "Anna answers with a third text; both decide")

        rows = anna.revisions(1)
        if len(rows) != 3:
            self.desktop.fail("the second clause has %d revisions to look back on" % len(rows))
        self.picture("revisions", "Anna opens the revisions of the second clause")
        anna.close_revisions()
        anna.choose_revision(1, 0)
        anna.wait_text("Clause text", CLAUSES[1], 1)
        self.picture("look-back", "Anna looks back at the first text")
        anna.choose_revision(1, 2)
        anna.wait_text("Clause text", LAST_RENT, 1)

        bert.write(2, DRAFT)
        bert.focus("Clause text", 0)
        self.desktop.wait(lambda: bert.drafts() == [DRAFT], "Bert's draft is stored")
        self.picture("unsent", "Bert writes a draft and leaves it for later")

    def come_back(self):
        anna, bert = self.anna, self.bert
        shared = driver.wait_same(anna, bert)
        before = {party.name: party.everything() for party in (anna, bert)}
        for party in (anna, bert):
            party.close()
        self.picture("closed", "Both close the program")
        for party in (anna, bert):
            party.start()
            party.login()
        self.picture("again", "Both start it again and log in")
        for party in (anna, bert):
            party.open_procedure(TITLE)
            party.wait_text("Clause text", CLAUSES[0], 0)
            party.wait_text("Clause text", LAST_RENT, 1)
            party.wait_text("Clause text", CLAUSES[2], 2)
            if party.everything() != before[party.name]:
                self.desktop.fail("%s's store is not as it was" % party.name)
        self.picture("as-it-was", "Everything is as it was")
        bert.choose_revision(2, "draft")
        bert.wait_text("Clause text", DRAFT, 2)
        self.picture("draft-again", "Bert finds his draft among the revisions")
        bert.commit(2)
        anna.wait_text("Clause text", DRAFT, 2)
        anna.decide("Agree", 2)
        bert.decide("Agree", 2)
        self.picture("end", "Bert commits it, and both agree")
        if driver.wait_same(anna, bert) == shared:
            self.desktop.fail("the last revision is missing in the stores")

    def finish(self):
        for party in (self.anna, self.bert):
            party.close()
        shared = driver.wait_same(self.anna, self.bert)
        for party in self.parties.values():
            shutil.copyfile(party.store_path, os.path.join(self.output, party.name + ".db"))
            if party.positions(True) != ([1, 2] if party is self.anna else [3]):
                self.desktop.fail("%s's clauses have the positions %s" % (
                    party.name, party.positions(True)))
        (_, initiator, contractor, title, clauses), = shared
        print("Both stores hold \"%s\" of %s and %s: %d clauses, %d revisions, %d decisions" % (
            title, initiator, contractor, len(clauses),
            sum(len(clause[2]) for clause in clauses),
            sum(len(revision[4]) for clause in clauses for revision in clause[2])))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--binary", help="the program, by default build/release/morvane")
    parser.add_argument("--output", required=True, help="where pictures and stores are left")
    arguments = parser.parse_args()
    driver.Options.binary = driver.find_binary(arguments.binary)
    driver.enter_world()
    os.makedirs(arguments.output, exist_ok=True)
    walk = Walk(os.path.abspath(arguments.output))
    try:
        walk.server.start()
        walk.negotiate()
        walk.come_back()
        walk.finish()
    except driver.Failure as failure:
        print("FAILED: %s" % failure, flush=True)
        sys.exit(1)
    finally:
        walk.server.stop()
        walk.desktop.stop()


if __name__ == "__main__":
    main()
