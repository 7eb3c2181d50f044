#!/usr/bin/python3
"""Typing that is not committed yet survives the end of the program, and so does a fresh commit."""

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
        self.desktop.wait(lambda: anna.drafts() == ["Second draft, 'quoted'"],
                          "the draft is replaced")
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


if __name__ == "__main__":
    driver.main()
