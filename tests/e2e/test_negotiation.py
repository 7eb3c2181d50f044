#!/usr/bin/python3
"""Two users negotiate; both stores are compared row by row."""

import os
import signal
import time

import driver

# All that could break on the way through store, wire and widgets.
AWKWARD = (
    "\"Double\" and 'single' quotes, ''two'' of them; R&D & S&P; 3 < 4 > 2; </x-revision></body>\n"
    "&amp; &lt; &#39; &unknown; <!-- no comment --> <![CDATA[ no data ]]> %s %d %n \\n \\' ; -- \n"
    "\n"
    "Grüße aus Köln, naïve façade, ½ € – “quoted”, ŁÓDŹ, Ελλάδα, Москва, 東京, שלום\n"
    "\ttab, two  blanks, emoji \U0001f600\U0001f44d\U0001f3fd\U0001f9d1\u200d\U0001f33e, e\u0301\n"
    "last line"
)


class Negotiation(driver.Case):
    def both(self):
        anna, bert = self.anna().start(), self.bert().start()
        for party in (anna, bert):
            party.login()
        return anna, bert

    def begun(self, title="Delivery of apples"):
        anna, bert = self.both()
        anna.begin(title, driver.BERT)
        bert.open_procedure(title)
        return anna, bert

    def finish(self, *parties):
        for party in parties:
            party.check_negotiation_warnings()
            party.close()

    def check_rows(self, anna, bert):
        """Both hold the same; what one does not learn from the other is as it is made locally."""
        shared = driver.wait_same(anna, bert)
        for party in (anna, bert):
            self.assertEqual(set(party.positions(False)) - {1}, set())
            for table, parent, who in (
                ("procedures", "account_db_id", "initiator"),
                ("clauses", "procedure_db_id", "initiator"),
                ("clause_revisions", "clause_db_id", "author"),
            ):
                self.assertEqual(
                    party.rows(
                        "SELECT count(*) FROM %s GROUP BY %s, %s, time HAVING count(*) > 1"
                        % (table, parent, who)
                    ),
                    [],
                    "two of %s share a second" % table,
                )
        return shared

    def test_full_negotiation(self):
        """procedure, clauses of both, counter-revisions, decisions changed and on older texts"""
        anna, bert = self.begun()
        self.says("each adds clauses")
        anna.commit(anna.add_clause(), "Ten crates a week")
        bert.wait_text("Clause text", "Ten crates a week")
        bert.commit(bert.add_clause(), "Paid on delivery")
        anna.wait_text("Clause text", "Paid on delivery", 1)
        anna.commit(anna.add_clause(), "For one year")
        bert.wait_text("Clause text", "For one year", 2)
        self.check_rows(anna, bert)
        self.assertEqual(anna.positions(True), [1, 3])
        self.assertEqual(bert.positions(True), [2])

        self.says("revisions and counter-revisions")
        for party, other, text in (
            (bert, anna, "Eight crates a week"),
            (anna, bert, "Nine crates a week"),
            (bert, anna, "Nine crates a week, ten in May"),
            (bert, anna, "Nine crates a week, ten in June"),
        ):
            party.commit(0, text)
            other.wait_text("Clause text", text)
        self.check_rows(anna, bert)

        self.says("decisions, taken back and repeated")
        anna.decide("Agree", 0)
        bert.wait_labels("contractor agrees", 1)
        anna.decide("Disagree", 0)
        bert.wait_labels("contractor disagrees", 1)
        bert.decide("Agree", 0)
        anna.wait_labels("contractor agrees", 1)
        bert.decide("Disagree", 2)
        anna.wait_labels("contractor disagrees", 1)
        self.check_rows(anna, bert)

        self.says("a decision on an older revision, seen by who looks back at it")
        shown = anna.choose_revision(0, 1)
        self.assertRegex(shown, r"^bert@alpha\.test:\d+$")
        anna.wait_text("Clause text", "Eight crates a week")
        anna.decide("Agree", 0)
        self.check_rows(anna, bert)
        bert.wait_labels("contractor agrees", 0)
        bert.choose_revision(0, 1)
        bert.wait_labels("contractor agrees", 1)

        self.says("the older revision is answered with a new one")
        anna.commit(0, "Seven crates a week")
        bert.wait_text("Clause text", "Seven crates a week")
        (procedure,) = self.check_rows(anna, bert)
        self.assertEqual(procedure[1:4], (driver.ANNA, driver.BERT, "Delivery of apples"))
        self.assertEqual(sorted(len(clause[2]) for clause in procedure[4]), [1, 1, 6])
        decisions = sorted(
            (author, status)
            for clause in procedure[4]
            for revision in clause[2]
            for author, status in revision[4]
        )
        self.assertEqual(
            decisions,
            [
                (driver.ANNA, "AGREE"),
                (driver.ANNA, "DISAGREE"),
                (driver.BERT, "AGREE"),
                (driver.BERT, "DISAGREE"),
            ],
        )
        self.finish(anna, bert)

    def test_awkward_text(self):
        """every awkward character, in the title and in clauses, arrives as it was written"""
        title = "It's \"R&D\" <Ltd.> & Söhne \U0001f600 50 % 'off' &amp; ]]>"
        stored = title.replace("'", "\u2019")
        anna, bert = self.both()
        anna.begin(title, driver.BERT, stored)
        bert.open_procedure(stored)
        self.assertEqual(driver.wait_same(anna, bert)[0][3], stored)
        for number, (party, other) in enumerate(((anna, bert), (bert, anna))):
            nth = party.add_clause()
            party.commit(nth, AWKWARD)
            other.wait_text("Clause text", AWKWARD, number)
        self.desktop.still_picture(os.path.join(self.desktop.output, "awkward.png"))
        self.check_rows(anna, bert)
        self.says("texts with blanks and line breaks at their ends, texts of one character")
        for text in (
            "trailing blanks  ",
            "\nline breaks around\n\n",
            "'",
            "&",
            "<",
            "&lt;",
            '"',
            "\U0001f600",
            "]]>",
        ):
            bert.commit(0, text)
            anna.wait_text("Clause text", text)
        self.says("control characters are taken out, line ends are line feeds")
        clean = "one\ntwo\nthree [1mfour\x7f"
        anna.paste("Clause text", "one\r\ntwo\rthree\x01\x02 \x1b[1mfour\x7f")
        anna.commit(0)
        for party in (anna, bert):
            party.wait_text("Clause text", clean)
        texts = [
            revision[3] for clause in self.check_rows(anna, bert)[0][4] for revision in clause[2]
        ]
        self.assertEqual(texts.count(AWKWARD), 2)
        self.finish(anna, bert)

    def test_crossing(self):
        """both commit to one clause, and begin procedures with each other, at the same time"""
        anna, bert = self.begun()
        anna.commit(anna.add_clause(), "One price")
        bert.wait_text("Clause text", "One price")
        anna.write(0, "A high price")
        bert.write(0, "A low price")
        self.says("both press Commit before either can see what the other commits")
        self.server.process.send_signal(signal.SIGSTOP)
        try:
            for party in (anna, bert):
                party.commit(0)
        finally:
            self.server.process.send_signal(signal.SIGCONT)
        for party in (anna, bert):
            party.wait_rows("clause_revisions", 3, "status = 'COMMITTED'")
        self.check_rows(anna, bert)
        for party in (anna, bert):
            self.assertEqual(len(party.revisions()), 3)
            party.close_revisions()
        bert.begin("The other way round", driver.ANNA)
        anna.open_procedure("The other way round")
        self.assertEqual(len(self.check_rows(anna, bert)), 2)
        self.finish(anna, bert)

    def add_clauses_together(self, *parties):
        """Each adds a clause in the same second: the presses wait in the X server for both."""
        buttons = [party.wait_for("Add clause", driver.BUTTON_ROLES).extents() for party in parties]
        for party in parties:
            party.process.send_signal(signal.SIGSTOP)
        try:
            for left, top, width, height in buttons:
                self.desktop.press_at(left + width // 2, top + height // 2)
            self.desktop.wait(lambda: time.time() % 1 < 0.3, "a second begins")
        finally:
            for party in parties:
                party.process.send_signal(signal.SIGCONT)
        for party in parties:
            party.wait_for("Clause text", driver.ENTRY_ROLES)
        return [party.rows("SELECT time FROM clauses") for party in parties]

    def test_tie(self):
        """clauses of one second stand in the order of their authors on both sides, also later"""
        anna, bert = self.begun()
        for _ in range(5):
            times = self.add_clauses_together(bert, anna)
            if times[0] == times[1]:
                break
            for party in (bert, anna):
                party.click("Cancel")
                self.desktop.wait(lambda: not party.count("Clause text"), "the clause is gone")
        self.assertEqual(times[0], times[1])
        bert.commit(0, "Bert's clause")
        anna.wait_text("Clause text", "Bert's clause", 1)
        anna.commit(0, "Anna's clause")
        for party in (anna, bert):
            party.wait_text("Clause text", "Anna's clause")
            party.wait_text("Clause text", "Bert's clause", 1)
        driver.wait_same(anna, bert)
        self.finish(anna, bert)
        anna.start()
        anna.login()
        anna.open_procedure("Delivery of apples")
        anna.wait_text("Clause text", "Anna's clause")
        anna.wait_text("Clause text", "Bert's clause", 1)
        anna.close()

    def test_draft_and_received_revision(self):
        """a revision that arrives while the other types is shown; the typing becomes the draft"""
        anna, bert = self.begun()
        anna.commit(anna.add_clause(), "First")
        bert.wait_text("Clause text", "First")
        bert.write(0, "Bert was typing this")
        anna.commit(0, "Second")
        bert.wait_text("Clause text", "Second")
        self.assertEqual(bert.drafts(), ["Bert was typing this"])
        self.assertEqual([text for text, _ in bert.revisions()].count("draft"), 1)
        bert.close_revisions()
        bert.choose_revision(0, "draft")
        bert.wait_text("Clause text", "Bert was typing this")
        bert.wait_labels("draft", 1)
        bert.commit(0)
        anna.wait_text("Clause text", "Bert was typing this")
        self.assertEqual(bert.drafts(), [])
        self.check_rows(anna, bert)
        self.finish(anna, bert)

    def test_cancel(self):
        """Cancel goes back to the revision, and takes a never committed clause away"""
        anna, bert = self.begun()
        anna.commit(anna.add_clause(), "Kept")
        bert.wait_text("Clause text", "Kept")
        bert.write(0, "Thought better of it")
        bert.click("Cancel")
        bert.wait_text("Clause text", "Kept")
        bert.wait_sensitive("Agree")
        self.assertEqual(bert.drafts(), [])
        self.says("a new clause")
        nth = anna.add_clause()
        self.assertEqual(anna.count_rows("clauses"), 2)
        anna.wait_sensitive("Commit", False, nth)
        anna.write(nth, "Never sent")
        anna.wait_sensitive("Commit", True, nth)
        anna.click("Cancel", nth)
        self.desktop.wait(lambda: anna.count("Clause text") == 1, "the clause is gone")
        self.assertEqual(anna.count_rows("clauses"), 1)
        self.assertEqual(anna.drafts(), [])
        self.says("Commit needs a text")
        anna.write(0, "")
        anna.wait_sensitive("Commit", False)
        anna.wait_sensitive("Cancel", True)
        anna.click("Cancel")
        anna.wait_text("Clause text", "Kept")
        self.check_rows(anna, bert)
        self.finish(anna, bert)

    def test_delete_is_local(self):
        """a deleted procedure is gone here and stays there"""
        anna, bert = self.begun()
        anna.commit(anna.add_clause(), "Text")
        bert.wait_text("Clause text", "Text")
        before = bert.everything()
        anna.decide("Agree", 0)
        bert.wait_labels("contractor agrees", 1)
        anna.click("Delete procedure")
        anna.wait_no_label("Delivery of apples")
        for table in ("procedures", "clauses", "clause_revisions", "clause_revision_decisions"):
            self.assertEqual(anna.count_rows(table), 0)
        bert.write(0, "Who reads this?")
        bert.commit(0)
        anna.wait_console("Warning: A clause revision came, but we don't have the procedure")
        self.assertEqual(bert.everything()["clauses"], before["clauses"])
        anna.close()
        bert.close()

    def test_creation_page(self):
        """what keeps Begin insensitive, and what is refused with a text"""
        anna = self.anna().start()
        anna.login()
        anna.wait_sensitive("Begin", False)
        anna.enter("Procedure title", "Title")
        for contractor in ("bert", "bert@", "@alpha.test", "bert@alpha.test/x", driver.ANNA):
            anna.enter("Contractor", contractor)
            anna.wait_sensitive("Begin", False)
        anna.enter("Contractor", driver.BERT)
        anna.wait_sensitive("Begin", True)
        anna.enter("Procedure title", "   ")
        anna.wait_sensitive("Begin", False)
        anna.enter("Procedure title", "x" * 5000)
        anna.wait_sensitive("Begin", True)
        labels = anna.labels()
        anna.click("Begin")
        self.desktop.wait(lambda: anna.labels() != labels, "a text tells what is wrong")
        self.says("; ".join(text for text in anna.labels() if text not in labels))
        self.assertEqual(anna.count_rows("procedures"), 0)
        anna.close()


if __name__ == "__main__":
    driver.main()
