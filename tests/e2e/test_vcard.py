#!/usr/bin/python3
"""Profiles: the own one is filled and published, the other party's is read."""

import driver

FIELDS = (
    "Name",
    "Occupation",
    "Organization",
    "Email",
    "Telephone",
    "URL",
    "Address",
    "Public key",
)
VALUES = {
    "Name": 'Bert "the <b>Baker</b>" O\'Connor & Söhne',
    "Occupation": "baker &amp; miller; 1 < 2 > 0",
    "Organization": "Bakery 'Three Mills' \U0001f956",
    "Email": "bert@alpha.test",
    "Telephone": "tel:+49-30-123456",
    "URL": "https://alpha.test/?a=1&b='2'&lt;",
    "Address": '12, Mill Lane; "East" Wing',
    "Public key": "mDMEY&<x>'y'\"z\"==",
}
OWN = "Your Public Profile"


class VCards(driver.Case):
    def open_own(self, party):
        """Opens the own profile and waits until it is shown."""
        party.click("Your profile")
        party.wait_label(OWN)
        party.wait_for("Name", driver.ENTRY_ROLES)

    def shown(self, party):
        return {name: party.text(name) for name in FIELDS}

    def fill(self, party, values):
        for name in FIELDS:
            party.enter(name, values[name])

    def save(self, party):
        """Saves, and waits until the server has answered what is asked for after it."""
        mark = party.console_mark()
        party.click("Save")
        party.wait_console("which doesn't correspond to any requested", mark)
        party.wait_sensitive("Save", False)

    def close_page(self, party):
        party.click("Close")
        party.wait_for("Begin", driver.BUTTON_ROLES)

    def befriend(self, anna, bert):
        anna.show_list("Contacts")
        anna.enter("Contractor", bert.jid)
        anna.click("Add contractor")
        anna.wait_contact(bert.jid, "available")

    def test_own_profile(self):
        """offered empty, filled, saved, unchanged however often it is opened and saved"""
        bert = self.bert().start()
        bert.login()
        self.open_own(bert)
        self.assertEqual(self.shown(bert), dict.fromkeys(FIELDS, ""))
        self.assertFalse(bert.is_sensitive("Save"))
        self.fill(bert, VALUES)
        self.assertTrue(bert.is_sensitive("Save"))
        self.save(bert)
        self.assertEqual(self.shown(bert), VALUES)
        for number in range(3):
            self.says("opened for the %d. time" % (number + 1))
            self.close_page(bert)
            self.open_own(bert)
            self.assertEqual(self.shown(bert), VALUES)
            self.assertFalse(bert.is_sensitive("Save"))
            bert.enter("Name", VALUES["Name"])
            self.save(bert)
        self.says("after a restart")
        bert.close()
        bert.start()
        bert.login()
        self.open_own(bert)
        self.assertEqual(self.shown(bert), VALUES)
        self.says("emptied, it stays empty")
        for name in FIELDS:
            bert.clear(name)
        self.save(bert)
        self.close_page(bert)
        self.open_own(bert)
        self.assertEqual(self.shown(bert), dict.fromkeys(FIELDS, ""))
        bert.close()

    def test_others_profile(self):
        """the other party's profile, read-only under its address; then the own one again"""
        anna, bert = self.anna().start(), self.bert().start()
        for party in (anna, bert):
            party.login()
        self.open_own(bert)
        self.fill(bert, VALUES)
        self.save(bert)
        self.befriend(anna, bert)
        anna.click("Contractor profile")
        anna.wait_labels(driver.BERT, 2)  # the contact, and the title
        anna.wait_text("Name", VALUES["Name"])
        self.assertEqual(self.shown(anna), VALUES)
        self.assertFalse(anna.is_sensitive("Save"))
        self.says("nothing can be typed")
        for name in ("Name", "Public key"):
            node = anna.wait_for(name, driver.ENTRY_ROLES)
            self.assertFalse(node.has(driver.STATE_EDITABLE))
            self.assertFalse(node.has(driver.STATE_FOCUSABLE))
            anna.press_node(node)
            self.desktop.key("x", "BackSpace", "BackSpace")
        self.assertEqual(self.shown(anna), VALUES)
        self.assertFalse(anna.is_sensitive("Save"))
        self.close_page(anna)
        self.says("Anna's own profile is still empty, and can be typed in")
        self.open_own(anna)
        anna.wait_text("Name", "")
        self.assertEqual(self.shown(anna), dict.fromkeys(FIELDS, ""))
        anna.enter("Name", "Anna")
        self.save(anna)
        self.close_page(anna)
        self.says("Bert looks at hers")
        self.close_page(bert)
        bert.enter("Contractor", driver.ANNA)
        bert.click("Contractor profile")
        bert.wait_label(driver.ANNA)
        self.assertEqual(self.shown(bert), dict(dict.fromkeys(FIELDS, ""), Name="Anna"))
        anna.close()
        bert.close()

    def test_no_profile(self):
        """the button of who has no profile, or does not show it, becomes insensitive"""
        anna, bert = self.anna().start(), self.bert().start()
        for party in (anna, bert):
            party.login()
        self.says("who is no contact shows none")
        anna.enter("Contractor", driver.BERT)
        anna.click("Contractor profile")
        anna.wait_sensitive("Contractor profile", False)
        self.assertTrue(anna.is_sensitive("Add contractor"))
        self.says("a contact that has none")
        self.befriend(anna, bert)
        anna.enter("Contractor", driver.BERT)
        anna.wait_sensitive("Contractor profile", True)
        anna.click("Contractor profile")
        anna.wait_sensitive("Contractor profile", False)
        self.says("the button comes back with another address")
        anna.enter("Contractor", "nobody@alpha.test")
        anna.wait_sensitive("Contractor profile", True)
        anna.click("Contractor profile")
        anna.wait_sensitive("Contractor profile", False)
        anna.close()
        bert.close()


if __name__ == "__main__":
    driver.main()
