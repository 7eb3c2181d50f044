#!/usr/bin/python3
"""What is committed while the server cannot be reached arrives after the next login of both."""

import os
import signal

import driver

TITLE = "Lease of a barge"
SECOND = "Mooring of the barge"
LIMIT = ["--stanza-limit", "20000"]
LARGE = " ".join("word%06d" % number for number in range(3000))


class Outbox(driver.Case):
    server_options = LIMIT

    def begin(self):
        """Both hold a procedure with one clause."""
        anna, bert = self.anna().start(), self.bert().start()
        for party in (anna, bert):
            party.login()
        anna.begin(TITLE, driver.BERT)
        anna.add_clause()
        anna.commit(0, "The barge is green.")
        bert.open_procedure(TITLE)
        bert.wait_text("Clause text", "The barge is green.")
        driver.wait_same(anna, bert)
        return anna, bert

    def tables(self, party):
        return [
            row[0]
            for row in party.rows(
                "SELECT name FROM sqlite_master WHERE type = 'table' ORDER BY name"
            )
        ]

    def owed(self, party):
        if "outbox" not in self.tables(party):
            return []
        return [row[0] for row in party.rows("SELECT kind FROM outbox ORDER BY sequence")]

    def wait_left(self, party):
        self.desktop.wait(lambda: "Disconnected.\n" in party.console(), "the session is over")

    def act_without_server(self, anna, with_procedure=True):
        """A revision, a decision, a clause with its text, and a procedure."""
        self.desktop.wait(lambda: not self.owed(anna), "nothing is owed yet")
        anna.commit(0, "The barge is blue.")
        anna.decide("Agree", 0)
        nth = anna.add_clause()
        anna.commit(nth, "The rent is 400 EUR.")
        expected = ["revision", "decision", "clause", "revision"]
        if with_procedure:
            anna.begin(SECOND, driver.BERT)
            expected.append("procedure")
        self.desktop.wait(lambda: self.owed(anna) == expected, "the outbox holds %s" % expected)

    def both_again(self, anna, bert):
        for party in (anna, bert):
            party.start()
            party.login()
        driver.wait_same(anna, bert)
        for party in (anna, bert):
            self.desktop.wait(
                lambda: len(self.tables(party)) == 9, "%s's store has its nine tables" % party.name
            )
        bert.open_procedure(TITLE)
        bert.wait_text("Clause text", "The barge is blue.", 0)
        bert.wait_text("Clause text", "The rent is 400 EUR.", 1)
        for party in (anna, bert):
            party.close()

    def stop_and_start(self, how):
        anna, bert = self.begin()
        self.says("the server stops")
        self.server.stop()
        for party in (anna, bert):
            self.wait_left(party)
        self.act_without_server(anna)
        self.says("it starts, and both come back after a " + how)
        for party in (anna, bert):
            getattr(party, how)()
        self.server.start()
        self.both_again(anna, bert)

    def held(self, party):
        return [row[0] for row in party.rows("SELECT kind FROM outbox WHERE sequence = 0")]

    def wait_told(self, party):
        def told():
            return [
                text
                for text in party.labels()
                if text.startswith(
                    "Not delivered to %s (the server takes no text as long as" % driver.BERT
                )
            ]

        self.desktop.wait(told, "%s is told" % party.name)

    def descriptions(self, party, nth):
        """What assistive programs are told about the revisions of a clause."""
        found = [row.property("Description") for _, row in party.revisions(nth)]
        party.close_revisions()
        return found

    def test_too_large(self):
        """a text that is over the server's limit costs one session, and nothing behind it"""
        anna, bert = self.begin()
        anna.commit(0, LARGE)
        self.wait_left(anna)
        self.wait_told(anna)
        self.assertEqual(self.held(anna), ["revision"])
        self.says("she comes back after a kill, and commits short texts")
        anna.kill()
        anna.start()
        anna.login()
        anna.open_procedure(TITLE)
        self.wait_told(anna)
        anna.commit(0, "The barge is blue.")
        bert.wait_text("Clause text", "The barge is blue.", 0)
        anna.commit(anna.add_clause(), "The rent is 400 EUR.")
        bert.wait_text("Clause text", "The rent is 400 EUR.", 1)
        self.says("she logs in again, and the mark is still there")
        anna.activate()
        self.desktop.key("ctrl+shift+l")
        anna.wait_for("Login", driver.BUTTON_ROLES)
        anna.login(driver.ANNA)
        anna.open_procedure(TITLE)
        self.assertEqual(sorted(self.descriptions(anna, 0)), ["", "", "not sent yet"])
        anna.decide("Agree", 0)
        bert.wait_rows("clause_revision_decisions", 1)
        self.assertEqual(self.held(anna), ["revision"])
        self.assertEqual(bert.count_rows("clause_revisions"), 3)
        for party in (anna, bert):
            party.close()

    def test_closed(self):
        """committed while the server is away, then closed"""
        self.stop_and_start("close")

    def test_killed(self):
        """committed while the server is away, then killed"""
        self.stop_and_start("kill")


class OutboxWithManagement(Outbox):
    server_options = LIMIT + ["--stream-management"]

    def test_nothing_left(self):
        """an undisturbed negotiation leaves nine tables and no debts"""
        anna, bert = self.begin()
        for party in (anna, bert):
            self.desktop.wait(lambda: len(self.tables(party)) == 9, "nine tables are left")
        console = anna.console()
        self.assertIn("<enable xmlns='urn:xmpp:sm:3'/>", console)
        self.assertIn("<r xmlns='urn:xmpp:sm:3'/>", console)
        for party in (anna, bert):
            party.close()

    def test_notice(self):
        """what comes back undelivered leaves the window its size"""
        anna = self.anna().start()
        anna.login()

        def size():
            return self.desktop.xdotool("getwindowgeometry", anna.windows[0].xid).split()[-1]

        def told():
            return [text for text in anna.labels() if text.startswith("Not delivered to nobody@")]

        before = size()
        anna.begin(TITLE, "nobody@" + driver.HOST)
        anna.add_clause()
        anna.commit(0, "Nobody reads this.")
        self.desktop.wait(told, "the notice is there")
        self.assertEqual(size(), before)
        anna.press("Dismiss")
        self.desktop.wait(lambda: not told(), "the notice is gone")
        self.assertEqual(size(), before)
        anna.close()

    def test_frozen_server(self):
        """a server that takes everything and answers nothing any more"""
        anna, bert = self.begin()
        self.says("the server freezes")
        self.desktop.wait(lambda: not self.owed(anna), "nothing is owed yet")
        os.kill(self.server.process.pid, signal.SIGSTOP)
        # A procedure would come twice, as it should: the server has got it, and did not say so.
        self.act_without_server(anna, with_procedure=False)
        for party in (anna, bert):
            party.kill()
        os.kill(self.server.process.pid, signal.SIGCONT)
        self.both_again(anna, bert)


if __name__ == "__main__":
    driver.main()
