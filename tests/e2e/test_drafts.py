#!/usr/bin/python3
"""Typing that is not committed yet survives the end of the program, and so does a fresh commit."""

import os

import driver

TITLE = "Repair of the roof"


class Drafts(driver.Case):
    def clause(self):
        anna = self.anna().start()
        anna.login()
        anna.begin(TITLE, driver.BERT)
        anna.commit(anna.add_clause(), "Committed text")
        return anna

    def after(self, anna):
        anna.start()
        anna.login()
        anna.open_procedure(TITLE)

    def test_unsaved_typing_is_stored_at_close(self):
        """closing the window in the middle of typing keeps the text as the draft"""
        anna = self.clause()
        anna.write(0, "Half a sent")
        self.assertEqual(anna.drafts(), [])
        anna.close()
        self.assertEqual(anna.drafts(), ["Half a sent"])
        self.after(anna)
        anna.wait_text("Clause text", "Committed text")
        anna.choose_revision(0, "draft")
        anna.wait_text("Clause text", "Half a sent")
        self.says("the draft goes with its commit")
        anna.commit(0)
        self.assertEqual(anna.drafts(), [])
        anna.close()

    def test_saved_draft_is_replaced(self):
        """a second focus-out replaces the draft; a kill after it loses nothing of it"""
        anna = self.clause()
        other = anna.add_clause()
        anna.write(0, "First draft")
        anna.focus("Clause text", other)
        self.desktop.wait(lambda: anna.drafts() == ["First draft"], "the draft is stored")
        anna.write(0, "Second draft, 'quoted'")
        anna.focus("Clause text", other)
        self.desktop.wait(
            lambda: anna.drafts() == ["Second draft, 'quoted'"], "the draft is replaced"
        )
        anna.kill()
        self.after(anna)
        anna.choose_revision(0, "draft")
        anna.wait_text("Clause text", "Second draft, 'quoted'")
        anna.click("Cancel")
        anna.wait_text("Clause text", "Committed text")
        self.assertEqual(anna.drafts(), [])
        anna.close()

    def test_kill_at_once(self):
        """a kill right after the window shows a commit: the other party has got it"""
        anna, bert = self.clause(), self.bert().start()
        bert.login()
        bert.open_procedure(TITLE)
        bert.wait_text("Clause text", "Committed text")
        for number in range(5):
            text = "Text number %d" % number
            anna.write(0, text)
            anna.click("Commit")
            anna.wait_sensitive("Commit", False)
            anna.kill()
            bert.wait_text("Clause text", text)
            self.after(anna)
            anna.wait_text("Clause text", text)
            driver.wait_same(anna, bert)
        anna.close()
        bert.close()

    def bring_back(self, anna):
        node = anna.wait_for("Clause text", driver.ENTRY_ROLES)
        anna.open_menu(node, "Bring back the replaced draft")
        anna.press_menu_item("Bring back the replaced draft")

    def log_in_again(self, anna):
        anna.activate()
        self.desktop.key("ctrl+shift+l")
        anna.wait_for("Login", driver.BUTTON_ROLES)
        anna.login(driver.ANNA)
        anna.open_procedure(TITLE)

    def test_second_login_and_undo(self):
        """a replaced draft is at hand after a second login, what is typed after the undo of a deletion"""
        anna = self.clause()
        anna.write(0, "First words")
        self.log_in_again(anna)
        self.assertEqual(anna.drafts(), ["First words"])
        anna.wait_text("Clause text", "Committed text")
        anna.write(0, "Other words")
        self.log_in_again(anna)
        self.assertEqual(anna.drafts(), ["Other words"])
        self.bring_back(anna)
        anna.wait_text("Clause text", "First words")
        self.assertEqual(anna.drafts(), ["First words"])
        self.says("the procedure is deleted while there is typing in it")
        anna.write(0, "Words that nobody has stored")
        anna.click("Delete procedure")
        anna.wait_no_label(TITLE)
        self.assertEqual(anna.drafts(), [])
        self.picture("deleted")
        anna.click("Undo")
        anna.wait_text("Clause text", "Words that nobody has stored")
        self.assertEqual(anna.drafts(), ["Words that nobody has stored"])
        self.picture("undone")
        self.says("and deleted for good")
        anna.click("Delete procedure")
        anna.wait_no_label(TITLE)
        anna.close()
        self.assertEqual(anna.drafts(), [])

    def two(self):
        """Both look at a clause of anna's; bert is about to commit, without the keyboard."""
        anna, bert = self.clause(), self.bert().start()
        bert.login()
        bert.open_procedure(TITLE)
        bert.wait_text("Clause text", "Committed text")
        bert.put("Clause text", "Words of bert")
        anna.activate()
        return anna, bert

    def test_key_behind_an_arrival(self):
        """a saved draft is not replaced by the other party's text and one key"""
        anna, bert = self.two()
        anna.write(0, "Words of anna")
        anna.focus("Clause text")
        bert.activate()
        self.desktop.wait(lambda: anna.drafts() == ["Words of anna"], "the draft is stored")
        bert.click("Commit")
        anna.wait_text("Clause text", "Words of bert")
        anna.focus("Clause text")
        self.desktop.key("ctrl+End", "x")
        anna.wait_text("Clause text", "Words of bertx")
        bert.activate()
        self.desktop.wait(lambda: anna.drafts() == ["Words of bertx"], "the new draft is stored")
        self.says("the replaced draft is brought back, and changes places")
        node = anna.wait_for("Clause text", driver.ENTRY_ROLES)
        anna.open_menu(node, "Bring back the replaced draft")
        self.picture("menu")
        anna.press_menu_item("Bring back the replaced draft")
        anna.wait_text("Clause text", "Words of anna")
        self.assertEqual(anna.drafts(), ["Words of anna"])
        self.bring_back(anna)
        anna.wait_text("Clause text", "Words of bertx")
        anna.close()
        bert.close()

    def test_typing_on_into_an_arrival(self):
        """who types on while a revision arrives changes nothing in it and loses nothing"""
        anna, bert = self.two()
        sentence = "This is what anna types while bert commits a text"
        anna.clear("Clause text")
        typing = driver.start_process(
            ["xdotool", "type", "--delay", "120", sentence], env=self.desktop.environment
        )
        self.desktop.wait(lambda: len(anna.text("Clause text")) > 10, "anna types")
        bert.press("Commit")
        anna.wait_text("Clause text", "Words of bert")
        anna.wait_label("Your text is kept: Escape goes back to it.")
        self.desktop.wait(lambda: typing.poll() is not None, "anna has typed to the end")
        self.assertEqual(typing.returncode, 0)
        self.assertEqual(anna.text("Clause text"), "Words of bert")
        (kept,) = anna.drafts()
        self.assertTrue(kept and sentence.startswith(kept), kept)
        self.picture("kept")
        self.says("one key leads back")
        self.desktop.key("Escape")
        anna.wait_text("Clause text", kept)
        self.desktop.type_text(sentence[len(kept) :])
        anna.wait_text("Clause text", sentence)
        self.desktop.key("ctrl+Return")
        bert.wait_text("Clause text", sentence)
        anna.close()
        bert.close()

    def picture(self, name):
        """Kept when a place for it is given."""
        if os.environ.get("MORVANE_E2E_OUTPUT"):
            self.desktop.picture(os.path.join(self.desktop.output, "drafts-%s.png" % name))


if __name__ == "__main__":
    driver.main()
