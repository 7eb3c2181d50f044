#!/usr/bin/python3
"""Every clause has a chat of its own beside its text."""

import driver

TITLE = "Delivery of apples"
LINES = (
    "Why ten crates?",
    "<b>Because</b> & 'why' \"not\" &amp; &lt; </body>",
    "Grüße, ½ € – Москва, 東京, \U0001f600",
    "until the end of a rather long line, which goes on and on until it does not fit the window "
    "any more and has to be wrapped somewhere",
)


class ClauseChat(driver.Case):
    def begun(self):
        anna, bert = self.anna().start(), self.bert().start()
        for party in (anna, bert):
            party.login()
        anna.begin(TITLE, driver.BERT)
        bert.open_procedure(TITLE)
        return anna, bert

    def open_chat(self, party, nth):
        party.click("Clause chat", nth)
        party.wait_for("Message", driver.ENTRY_ROLES)

    def close_chat(self, party):
        party.click("Close")
        party.wait_for("Add clause", driver.BUTTON_ROLES)

    def wait_chat(self, party, lines):
        party.wait_text("Chat", "\n".join("%s: %s" % line for line in lines))

    def messages(self, party):
        return party.rows("SELECT time, author, text FROM clause_messages ORDER BY db_id")

    def test_chat(self):
        """both ways, clause by clause, in order, literal, kept over a restart"""
        anna, bert = self.begun()
        nth = anna.add_clause()
        self.assertFalse(anna.is_sensitive("Clause chat"))
        anna.commit(nth, "Ten crates a week")
        bert.wait_text("Clause text", "Ten crates a week")
        bert.commit(bert.add_clause(), "Paid on delivery")
        anna.wait_text("Clause text", "Paid on delivery", 1)
        for party in (anna, bert):
            self.open_chat(party, 0)
            self.assertEqual(party.text("Chat"), "")
            party.wait_sensitive("Send", False)
        said = []
        for number, line in enumerate(LINES):
            party, other = ((anna, bert), (bert, anna))[number % 2]
            party.say(line)
            said.append((party.name, line))
            for reader in (party, other):
                self.wait_chat(reader, said)
        self.says("Enter sends; blanks alone are not sent")
        anna.enter("Message", "   ")
        anna.wait_sensitive("Send", False)
        self.desktop.key("Return")
        anna.enter("Message", "agreed")
        self.desktop.key("Return")
        said.append(("anna", "agreed"))
        for party in (anna, bert):
            self.wait_chat(party, said)
        self.says("the other clause has its own chat; a line comes to who is not looking")
        self.close_chat(anna)
        self.open_chat(anna, 1)
        self.assertEqual(anna.text("Chat"), "")
        anna.say("And when?")
        self.close_chat(bert)
        bert.wait_rows("clause_messages", len(said) + 1)
        self.open_chat(bert, 1)
        self.wait_chat(bert, [("anna", "And when?")])
        self.says("both restart")
        self.assertEqual(self.messages(anna), self.messages(bert))
        before = {party.name: self.messages(party) for party in (anna, bert)}
        for party in (anna, bert):
            party.check_negotiation_warnings()
            party.close()
        for party in (anna, bert):
            party.start()
            party.login()
            party.open_procedure(TITLE)
            self.open_chat(party, 0)
            self.wait_chat(party, said)
            self.close_chat(party)
            self.open_chat(party, 1)
            self.wait_chat(party, [("anna", "And when?")])
            self.assertEqual(self.messages(party), before[party.name])
        bert.say("On Monday")
        self.wait_chat(anna, [("anna", "And when?"), ("bert", "On Monday")])
        for party in (anna, bert):
            party.close()

    def test_offline(self):
        """what was said to who was away is there after the login"""
        anna, bert = self.begun()
        anna.commit(anna.add_clause(), "Ten crates a week")
        bert.wait_text("Clause text", "Ten crates a week")
        bert.check_negotiation_warnings()
        bert.close()
        self.open_chat(anna, 0)
        said = [("anna", "line number %d" % number) for number in range(12)]
        for _, line in said:
            anna.enter("Message", line)
            self.desktop.key("Return")
            anna.wait_text("Message", "")
        bert.start()
        bert.login()
        bert.wait_rows("clause_messages", len(said))
        bert.open_procedure(TITLE)
        self.open_chat(bert, 0)
        self.wait_chat(bert, said)
        self.assertEqual(self.messages(anna), self.messages(bert))
        for party in (anna, bert):
            party.close()


if __name__ == "__main__":
    driver.main()
