#!/usr/bin/python3
"""Walks two users through all of the program and leaves a picture of each step.

    tests/e2e/walk.py --binary PROGRAM --output DIRECTORY

All windows are worked with mouse and keyboard: a third user registers and logs in; then the two
log in, negotiate a procedure with clauses of both parties, revisions and counter-revisions,
decisions and a look back; they subscribe to each other, chat, publish and read profiles, talk about
a clause and compare two of its revisions; both programs are closed and started again and show what
they showed before. DIRECTORY gets the pictures, numbered, the two stores, and the
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
COUNTER_RENT = (
    "The rent is 390 euros a month, due on the third working day.\n"
    "Electricity is metered and paid apart."
)
LAST_RENT = (
    "The rent is 400 euros a month, due on the third working day.\n"
    "Electricity is metered and paid apart."
)
COMPARED = (
    "The rent is 390 euros a month, due on the third working day.\n"
    "Electricity is metered and paid apart."
)
CARLA = "carla@" + driver.HOST
PROFILE = {
    "Name": "Bert Boatman",
    "Occupation": "Keeper of the piers",
    "Organization": "Boatman & Sons",
    "Email": "bert@alpha.test",
    "Telephone": "tel:+49-40-123456",
    "URL": "https://alpha.test/~bert",
    "Address": "Northern pier 1",
    "Public key": "mDMEZ0dZxhYJKwYBBAHaRw8B",
}
DRAFT = "The lease begins on 1 May and runs for three years."


class Walk:
    def __init__(self, output):
        self.output = output
        self.desktop = driver.Desktop(output, animations=True)
        self.server = driver.Server()
        self.step = 0
        self.started = time.monotonic()
        self.parties = {}
        for name, jid, place in (
            ("anna", driver.ANNA, driver.LEFT),
            ("bert", driver.BERT, driver.RIGHT),
        ):
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

    def register(self):
        """A third user makes an account and uses it."""
        directory = os.path.join(self.output, "carla")
        shutil.rmtree(directory, ignore_errors=True)
        carla = driver.Party("carla", CARLA, driver.LEFT, prefilled=False, directory=directory)
        carla.start()
        carla.click("Register")
        carla.enter("New account", driver.ANNA)
        for name in ("New password", "New password (again)"):
            carla.enter(name, "carla-secret")
        carla.click("Register")
        self.desktop.wait(
            lambda: any(text.strip() for text in carla.labels()),
            "the server refuses a name that is taken",
        )
        self.picture("name-taken", "Carla wants an account under a name that is taken")
        carla.enter("New account", CARLA)
        carla.click("Register")
        carla.wait_text("Account", CARLA)
        self.picture("registered", "She takes another name, and is registered")
        carla.enter("Password", "carla-secret")
        carla.click("Login")
        carla.wait_for("New procedure", driver.BUTTON_ROLES)
        self.picture("first-login", "She logs in for the first time")
        carla.close()

    def meet(self):
        """Subscription, presence, chat and profiles."""
        anna, bert = self.anna, self.bert
        for party in (anna, bert):
            party.click("New procedure")
            party.wait_for("Contractor", driver.ENTRY_ROLES)
            party.show_list("Contacts")
        anna.enter("Contractor", driver.BERT)
        anna.click("Add contractor")
        anna.wait_contact(driver.BERT, "available")
        bert.wait_contact(driver.ANNA, "available")
        self.picture("contacts", "Anna asks to see when Bert is online; each sees the other now")

        anna.open_contact(driver.BERT)
        anna.say("Good morning! Have you seen the second clause?")
        bert.open_contact(driver.ANNA)
        bert.say("I have; 400 euros & not a cent more.")
        anna.say("Let us talk about it there.")
        for party in (anna, bert):
            self.desktop.wait(
                lambda: party.text("Chat").endswith("about it there."),
                "%s reads the last line" % party.name,
            )
        self.picture("chat", "They chat")
        for party in (anna, bert):
            party.click("Close")

        bert.click("Your profile")
        bert.wait_label("Your Public Profile")
        for name, value in PROFILE.items():
            bert.enter(name, value)
        self.picture("own-profile", "Bert fills in his profile")
        mark = bert.console_mark()
        bert.click("Save")
        bert.wait_console("which doesn't correspond to any requested", mark)
        bert.click("Close")
        bert.click("Your profile")
        for name, value in PROFILE.items():
            bert.wait_text(name, value)
        anna.wait_for("Contractor profile", driver.BUTTON_ROLES)
        anna.click("Contractor profile")
        for name, value in PROFILE.items():
            anna.wait_text(name, value)
        self.picture("profiles", "He has saved it, and Anna reads it")
        for party in (anna, bert):
            party.click("Close")

    def discuss(self):
        """A clause's chat, and a comparison of its revisions."""
        anna, bert = self.anna, self.bert
        for party in (anna, bert):
            party.show_list("Procedures")
            party.open_procedure(TITLE)
            party.click("Clause chat", 1)
        anna.say("Is the boat house heated?")
        bert.say("It is, so electricity is <not> included.")
        anna.wait_text(
            "Chat",
            "anna: Is the boat house heated?\n" "bert: It is, so electricity is <not> included.",
        )
        self.picture("clause-chat", "They talk about the second clause")
        for party in (anna, bert):
            party.click("Close")

        bert.compare_with_previous(1)
        text = bert.wait_for("Clause text", driver.ENTRY_ROLES, 1)
        runs = self.desktop.wait(text.runs, "Bert sees the changes")
        bert.point_at_change(runs[0], 1)
        self.picture("comparison", "Bert compares Anna's text with his own and points at a change")
        # His own 390 stays, her 400 goes.
        bert.decide_change(runs[0], True, 1)
        self.desktop.wait(lambda: len(text.runs()) == len(runs) - 1, "one change is decided on")
        bert.decide_change(text.runs()[0], False, 1)
        bert.wait_text("Clause text", COMPARED, 1)
        bert.wait_label("draft")
        self.picture("compared", "He keeps the one and drops the other: a draft")
        bert.commit(1)
        anna.wait_text("Clause text", COMPARED, 1)
        anna.commit(1, LAST_RENT)
        bert.wait_text("Clause text", LAST_RENT, 1)
        bert.decide("Agree", 1)
        anna.decide("Agree", 1)
        driver.wait_same(anna, bert)
        self.picture("insisted", "He commits it; Anna insists, and both agree")

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
        before = {party.name: party.everything_at_rest() for party in (anna, bert)}
        for party in (anna, bert):
            party.show_list("Contacts")
        bert.close()
        anna.wait_contact(driver.BERT, "unavailable")
        self.picture("gone", "Bert closes the program; Anna sees him go")
        anna.close()
        self.picture("closed", "Anna closes it too")
        for party in (anna, bert):
            party.start()
            party.login()
        self.picture("again", "Both start it again and log in")
        anna.show_list("Contacts")
        anna.wait_contact(driver.BERT, "available")
        anna.open_contact(driver.BERT)
        self.desktop.wait(
            lambda: anna.text("Chat").endswith("about it there."), "the chat is as it was"
        )
        self.picture("chat-again", "Anna finds Bert online, and their chat as it was")
        anna.show_list("Procedures")
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
                self.desktop.fail(
                    "%s's clauses have the positions %s" % (party.name, party.positions(True))
                )
        ((_, initiator, contractor, title, clauses),) = shared
        print(
            'Both stores hold "%s" of %s and %s: %d clauses, %d revisions, %d decisions'
            % (
                title,
                initiator,
                contractor,
                len(clauses),
                sum(len(clause[2]) for clause in clauses),
                sum(len(revision[4]) for clause in clauses for revision in clause[2]),
            )
        )


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
        walk.register()
        walk.negotiate()
        walk.meet()
        walk.discuss()
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
