#!/usr/bin/python3
"""What the server keeps for a party that is offline arrives byte for byte when it logs in."""

import random

import driver

TITLE = "Supply of stationery"
BIG = 60 * 1024
BURST = 60


def make_big_text(seed):
    """A text of exactly BIG bytes: lines of words with awkward characters among them."""
    source = random.Random(seed)
    words = [
        "clause",
        "party",
        "the",
        "of",
        "shall",
        "not",
        "R&D",
        "<b>",
        "it's",
        '"so"',
        "Maß",
        "für",
        "\U0001f600",
        "&amp;",
        "]]>",
        "%",
        "—",
        "東京",
    ]
    text = ""
    size = 0
    while size < BIG - 400:
        line = "%d " % size + " ".join(source.choice(words) for _ in range(12)) + "\n"
        text += line
        size += len(line.encode())
    return text + "." * (BIG - size)


class Offline(driver.Case):
    def begin(self):
        """Anna has begun a procedure; Bert is not there yet."""
        anna = self.anna().start()
        anna.login()
        anna.begin(TITLE, driver.BERT)
        return anna

    def arrive(self, clauses=1):
        bert = self.bert().start()
        bert.login()
        bert.open_procedure(TITLE)
        self.desktop.wait(lambda: bert.count("Clause text") == clauses, "Bert has all clauses")
        return bert

    def test_big_clause(self):
        """a clause of 60 KB, first to a party that is offline, then to one that is there"""
        text = make_big_text(1)
        self.assertEqual(len(text.encode()), BIG)
        anna = self.begin()
        nth = anna.add_clause()
        anna.commit(nth, text)
        self.says("sent; Bert comes")
        bert = self.arrive()
        bert.wait_text("Clause text", text)
        ((procedure,),) = (driver.wait_same(anna, bert)[0][4][0][2],)
        self.assertEqual(procedure[3], text)
        self.says("Bert answers with 60 KB while Anna is there")
        answer = make_big_text(2)
        bert.commit(0, answer)
        anna.wait_text("Clause text", answer)
        driver.wait_same(anna, bert)
        anna.decide("Agree", 0)
        bert.wait_labels("contractor agrees", 1)
        driver.wait_same(anna, bert)
        for party in (anna, bert):
            party.check_negotiation_warnings()
            party.close()

    def test_burst(self):
        """60 revisions and decisions that wait at the server, which is restarted meanwhile"""
        anna = self.begin()
        nth = anna.add_clause()
        for number in range(BURST // 2):
            anna.commit(nth, 'Number %d: "%s" & <%d>' % (number, "it's " * (number % 7), number))
            anna.decide("Agree" if number % 3 else "Disagree", nth)
        sent = anna.negotiation()
        self.assertEqual(len(sent[0][4][0][2]), BURST // 2)
        self.assertEqual(anna.console().count("<x-revision"), BURST // 2)
        self.assertEqual(anna.console().count("<x-clause-decision"), BURST // 2)
        anna.close()
        self.says("the server stops and starts again")
        self.server.stop()
        self.server.start()
        self.says("Bert comes")
        bert = self.arrive()
        driver.wait_same(anna, bert)
        self.assertEqual(bert.negotiation(), sent)
        self.assertEqual(len(bert.revisions()), BURST // 2)
        bert.close_revisions()
        bert.check_negotiation_warnings()
        bert.close()

    def test_burst_while_there(self):
        """the other party's quick decisions while one types into the same clause"""
        anna = self.begin()
        anna.commit(anna.add_clause(), "Pencils")
        bert = self.arrive()
        for number in range(20):
            bert.decide("Disagree" if number % 2 else "Agree", 0)
        driver.wait_same(anna, bert)
        anna.wait_labels("contractor disagrees", 1)
        anna.close()
        bert.close()


if __name__ == "__main__":
    driver.main()
