#!/usr/bin/python3
"""The two users have accounts on two servers, which speak to each other over TLS."""

import os

import driver

OTHER_HOST = "beta.test"
BERT = "bert@" + OTHER_HOST
HOSTS = "%s %s=127.0.0.2" % (driver.HOST, OTHER_HOST)
TITLE = 'Lease of the "boat house" & pier'
VALUES = {"Name": "Bert & Söhne", "Occupation": "baker"}

driver.PASSWORDS[BERT] = "bert-of-beta"


class Federation(driver.Case):
    with_server = False

    def setUp(self):
        super().setUp()
        self.servers = [
            driver.Server("prosody", ["--federation"], driver.HOST, [driver.ANNA]),
            driver.Server(
                "prosody", ["--federation", "--interface", "127.0.0.2"], OTHER_HOST, [BERT]
            ),
        ]
        for server in self.servers:
            server.start()

    def tearDown(self):
        try:
            super().tearDown()
        finally:
            for server in self.servers:
                server.stop()

    def both(self):
        anna, bert = self.anna().start(), driver.Party("bert", BERT, driver.RIGHT).start()
        for party in (anna, bert):
            party.login()
        return anna, bert

    def check_authenticated(self):
        """Each server knew the other one by its certificate."""
        for server, other in zip(self.servers, reversed(self.servers)):
            with open(os.path.join(server.directory, "prosody.log")) as log:
                lines = log.read()
            for line in (
                "Accepting SASL EXTERNAL identity from " + other.host,
                "Incoming s2s connection %s->%s complete" % (other.host, server.host),
                "Outgoing s2s connection %s->%s complete" % (server.host, other.host),
            ):
                self.assertIn(line, lines)

    def test_negotiation(self):
        """procedure, clauses, counter-revision, decisions and chat between two servers"""
        anna, bert = self.both()
        anna.begin(TITLE, BERT)
        bert.open_procedure(TITLE)
        anna.commit(anna.add_clause(), "Ten crates a week\n<and> & 'so' on")
        bert.wait_text("Clause text", "Ten crates a week\n<and> & 'so' on")
        bert.commit(0, "Eight crates a week")
        anna.wait_text("Clause text", "Eight crates a week")
        bert.commit(bert.add_clause(), "Paid on delivery")
        anna.wait_text("Clause text", "Paid on delivery", 1)
        anna.decide("Agree", 0)
        anna.decide("Disagree", 1)
        bert.wait_labels("contractor agrees", 1)
        bert.wait_labels("contractor disagrees", 1)
        shared = driver.wait_same(anna, bert)
        self.assertEqual(shared[0][1:3], (driver.ANNA, BERT))
        self.says("a clause's chat")
        for party in (anna, bert):
            party.click("Clause chat")
        anna.say("Why eight?")
        bert.wait_text("Chat", "anna: Why eight?")
        bert.say("There are no more.")
        anna.wait_text("Chat", "anna: Why eight?\nbert: There are no more.")
        self.check_authenticated()
        for party in (anna, bert):
            party.check_negotiation_warnings()
            party.close()

    def test_contacts(self):
        """subscription, presence, chat, profile, and what comes to who was away"""
        anna, bert = self.both()
        for party in (anna, bert):
            party.show_list("Contacts")
        anna.enter("Contractor", BERT)
        anna.click("Add contractor")
        anna.wait_contact(BERT, "available")
        bert.wait_contact(driver.ANNA, "available")
        self.says("profile")
        bert.click("Your profile")
        bert.wait_label("Your Public Profile")
        for name, value in VALUES.items():
            bert.enter(name, value)
        bert.click("Save")
        bert.wait_console("which doesn't correspond to any requested")
        anna.click("Contractor profile")
        for name, value in VALUES.items():
            anna.wait_text(name, value)
        self.says("chat")
        anna.open_contact(BERT)
        bert.open_contact(driver.ANNA)
        anna.say("Are you there?")
        bert.wait_text("Chat", "%s: Are you there?" % driver.ANNA)
        bert.say("Yes & no")
        anna.wait_text("Chat", "%s: Are you there?\n%s: Yes & no" % (driver.ANNA, BERT))
        self.says("Bert goes; a line and a procedure wait for him")
        bert.close()
        anna.wait_contact(BERT, "unavailable")
        anna.say("Still there?")
        anna.begin(TITLE, BERT)
        anna.commit(anna.add_clause(), "While you were out")
        bert.start()
        bert.login()
        bert.open_procedure(TITLE)
        bert.wait_text("Clause text", "While you were out")
        driver.wait_same(anna, bert)
        bert.open_contact(driver.ANNA)
        self.desktop.wait(lambda: bert.text("Chat").endswith("Still there?"), "Bert reads it")
        anna.show_list("Contacts")
        anna.wait_contact(BERT, "available")
        anna.close()
        bert.close()


if __name__ == "__main__":
    driver.main(HOSTS)
