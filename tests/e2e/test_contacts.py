#!/usr/bin/python3
"""Contacts: who is there, and what is said between two of them."""

import os

import driver

LINES = (
    "Are you there?",
    "<b>Yes</b> & 'no' \"maybe\" &amp; &lt;",
    "Grüße, ½ € – Москва, 東京, \U0001f600",
    "  three blanks   inside   ",
)


class Contacts(driver.Case):
    def both(self):
        anna, bert = self.anna().start(), self.bert().start()
        for party in (anna, bert):
            party.login()
            party.show_list("Contacts")
        return anna, bert

    def befriend(self, anna, bert):
        """Anna asks with the creation page's button; Bert's program answers and asks back."""
        anna.enter("Contractor", bert.jid)
        anna.click("Add contractor")
        anna.wait_contact(bert.jid, "available")
        bert.wait_contact(anna.jid, "available")

    def icon(self, party, status):
        """A picture of the icon that the contact's row shows with the status."""
        other = driver.BERT if party.jid == driver.ANNA else driver.ANNA
        x, y, _, height = party.wait_contact(other, status).extents()
        path = os.path.join(party.directory, "icon.png")
        self.desktop.still_picture(path, (24, height, x, y))
        with open(path, "rb") as picture:
            return driver.pixels(picture.read())

    def wait_chat(self, party, lines):
        """Waits until the chat page shows exactly the lines of (author, text)."""
        party.wait_text("Chat", "\n".join("%s: %s" % line for line in lines))


class Prosody(Contacts):
    def test_presence(self):
        """both become contacts with one press; presence comes and goes with the program"""
        anna, bert = self.both()
        self.assertEqual((anna.contact_row(bert.jid), bert.contact_row(anna.jid)), (None, None))
        self.befriend(anna, bert)
        # The creation page's own button is not needed by the one who was asked.
        self.assertEqual(anna.count_rows("contacts"), 1)
        self.assertEqual(bert.count_rows("contacts"), 1)
        online = self.icon(anna, "available")
        self.says("Bert leaves")
        bert.close()
        offline = self.icon(anna, "unavailable")
        self.assertNotEqual(online, offline)
        self.says("and comes back")
        bert.start()
        bert.login()
        self.assertEqual(self.icon(anna, "available"), online)
        bert.show_list("Contacts")
        bert.wait_contact(anna.jid, "available")
        self.says("his program dies")
        bert.kill()
        self.assertEqual(self.icon(anna, "unavailable"), offline)
        self.says("both leave, Anna comes back alone")
        anna.close()
        anna.start()
        anna.login()
        anna.show_list("Contacts")
        anna.wait_contact(bert.jid, "unavailable")
        bert.start()
        bert.login()
        anna.wait_contact(bert.jid, "available")
        self.assertEqual(anna.count_rows("contacts"), 1)
        anna.close()
        bert.close()

    def test_chat(self):
        """a chat both ways, in order, kept over a restart, literal where it looks like markup"""
        anna, bert = self.both()
        self.befriend(anna, bert)
        anna.open_contact(bert.jid)
        bert.open_contact(anna.jid)
        said = []
        for number, line in enumerate(LINES):
            party, other = ((anna, bert), (bert, anna))[number % 2]
            party.wait_sensitive("Send", False)
            party.say(line)
            # Blanks in front of a text do not travel, so they are not said either.
            said.append((party.jid, line.lstrip(" ")))
            self.wait_chat(party, said)
            self.wait_chat(other, said)
        self.says("Enter sends; blanks alone cannot be sent")
        anna.enter("Message", "   ")
        anna.wait_sensitive("Send", False)
        self.desktop.key("Return")
        anna.enter("Message", "the last one")
        self.desktop.key("Return")
        anna.wait_text("Message", "")
        bert.desktop.wait(
            lambda: bert.text("Chat").endswith(driver.ANNA + ": the last one"),
            "Bert reads the last line",
        )
        self.says("the page is left and opened again")
        for party in (anna, bert):
            shown = party.text("Chat")
            party.click("Close")
            party.wait_for("Begin", driver.BUTTON_ROLES)
            party.open_contact(driver.BERT if party is anna else driver.ANNA)
            party.wait_text("Chat", shown)
        self.says("both restart")
        before = {
            party.name: (party.text("Chat"), party.everything()["contact_messages"])
            for party in (anna, bert)
        }
        for party in (anna, bert):
            party.close()
        for party, other in ((anna, bert), (bert, anna)):
            party.start()
            party.login()
            party.open_contact(other.jid)
            party.wait_text("Chat", before[party.name][0])
            self.assertEqual(party.everything()["contact_messages"], before[party.name][1])
            self.assertEqual(len(before[party.name][1]), len(said) + 1)
        bert.say("and on it goes")
        self.desktop.wait(
            lambda: anna.text("Chat").endswith(driver.BERT + ": and on it goes"), "Anna reads it"
        )
        anna.close()
        bert.close()

    def test_offline_chat(self):
        """what is said to who is away comes with the next login; the page opens at its end"""
        anna, bert = self.both()
        self.befriend(anna, bert)
        bert.close()
        anna.wait_contact(bert.jid, "unavailable")
        anna.open_contact(bert.jid)
        said = ["line number %d" % number + ", which wraps" * 12 for number in range(14)]
        for line in said:
            anna.enter("Message", line)
            self.desktop.key("Return")
            anna.wait_text("Message", "")
        bert.start()
        bert.login()
        bert.wait_rows("contact_messages", len(said))
        bert.open_contact(anna.jid)
        self.wait_chat(bert, [(anna.jid, line) for line in said])
        chat = bert.wait_for("Chat", driver.ENTRY_ROLES)
        x, y, width, height = chat.extents()

        def is_in_sight(offset):
            _, top, _, line_height = chat.character_place(offset)
            return y <= top and top + line_height <= y + height

        last = len(chat.text()) - 1
        self.desktop.wait(lambda: is_in_sight(last), "the end of the chat is in sight")
        self.assertFalse(is_in_sight(0))
        anna.close()
        bert.close()


class Ejabberd(Contacts):
    server_name = "ejabberd"

    test_presence = Prosody.test_presence
    test_chat = Prosody.test_chat


if __name__ == "__main__":
    driver.main()
