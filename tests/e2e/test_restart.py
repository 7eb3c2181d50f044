#!/usr/bin/python3
"""The programs are closed or killed between any two steps; nothing that was shown is lost."""

import driver

TITLE = "Repair of the roof"


class Restart(driver.Case):
    def again(self, party, how):
        """Ends and starts the party's program, logs in and opens the procedure."""
        shown = party.labels()
        before = party.everything_at_rest()
        if how == "kill":
            party.kill()
        else:
            party.close()
        self.assertEqual(party.everything(), before, "after the end")
        party.start()
        party.login()
        if TITLE in shown:
            party.open_procedure(TITLE)
        self.assertEqual(party.everything(), before, "after the next start")

    def walk(self, how):
        """One negotiation in which each party is restarted after each step, in turns."""
        anna, bert = self.anna().start(), self.bert().start()
        for party in (anna, bert):
            party.login()
            self.again(party, how)
        self.says("procedure")
        anna.begin(TITLE, driver.BERT)
        self.again(anna, how)
        bert.open_procedure(TITLE)
        self.again(bert, how)
        self.says("clause, without a text yet")
        anna.add_clause()
        self.again(anna, how)
        anna.wait_text("Clause text", "")
        anna.wait_sensitive("Commit", False)
        self.says("draft of a new clause")
        anna.write(0, "Tiles of slate")
        anna.focus("Clause text", anna.add_clause())
        self.desktop.wait(lambda: anna.drafts() == ["Tiles of slate"], "the draft is stored")
        self.again(anna, how)
        anna.choose_revision(0, "draft")
        anna.wait_text("Clause text", "Tiles of slate")
        anna.click("Cancel", 1)
        self.desktop.wait(lambda: anna.count("Clause text") == 1, "the second clause is gone")
        self.again(anna, how)
        anna.choose_revision(0, "draft")
        self.says("first revision")
        anna.commit(0)
        self.again(anna, how)
        bert.wait_text("Clause text", "Tiles of slate")
        self.again(bert, how)
        driver.wait_same(anna, bert)
        self.says("decision")
        bert.decide("Disagree", 0)
        self.again(bert, how)
        bert.wait_sensitive("Disagree", False)
        anna.wait_labels("contractor disagrees", 1)
        self.again(anna, how)
        anna.wait_labels("contractor disagrees", 1)
        self.says("counter-revision: draft, then commit")
        bert.write(0, "Tiles of clay")
        bert.focus("Clause text", bert.add_clause())
        self.desktop.wait(lambda: bert.drafts() == ["Tiles of clay"], "the draft is stored")
        self.again(bert, how)
        bert.wait_text("Clause text", "Tiles of slate")
        self.assertEqual([text for text, _ in bert.revisions()].count("draft"), 1)
        bert.close_revisions()
        bert.choose_revision(0, "draft")
        bert.wait_text("Clause text", "Tiles of clay")
        bert.click("Cancel", 1)
        bert.commit(0)
        self.again(bert, how)
        anna.wait_text("Clause text", "Tiles of clay")
        self.says("agreement")
        anna.decide("Agree", 0)
        self.again(anna, how)
        bert.wait_labels("contractor agrees", 1)
        bert.decide("Agree", 0)
        anna.wait_labels("contractor agrees", 1)
        for party in (bert, anna):
            self.again(party, how)
            party.wait_text("Clause text", "Tiles of clay")
            party.wait_labels("contractor agrees", 1)
            party.wait_sensitive("Agree", False)
        driver.wait_same(anna, bert)
        for party in (anna, bert):
            party.close()

    def test_closed_between_steps(self):
        """closing and starting again between any two steps"""
        self.walk("close")

    def test_killed_between_steps(self):
        """kill -9 and starting again between any two steps"""
        self.walk("kill")


if __name__ == "__main__":
    driver.main()
