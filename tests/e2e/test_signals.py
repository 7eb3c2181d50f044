#!/usr/bin/python3
"""A signal ends the program as its close button does: typing that is not committed is kept."""

import signal

import driver

TITLE = "Repair of the roof"


class Signals(driver.Case):
    def clause(self):
        anna = self.anna().start()
        anna.login()
        anna.begin(TITLE, driver.BERT)
        anna.commit(anna.add_clause(), "Committed text")
        return anna

    def test_typing_is_stored_at_each_signal(self):
        """SIGTERM, SIGINT and SIGHUP keep what is being typed, and end the stream"""
        anna = self.clause()
        for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
            text = "Half a sentence before %s" % number.name
            anna.write(0, text)
            mark = anna.console_mark()
            anna.process.send_signal(number)
            anna.wait_end()
            self.assertEqual(anna.drafts(), [text])
            self.assertIn("</stream:stream>", anna.console(mark))
            anna.start()
            anna.login()
            anna.open_procedure(TITLE)
            anna.choose_revision(0, "draft")
            anna.wait_text("Clause text", text)
        anna.close()

    def test_a_signal_is_heard_behind_an_open_menu(self):
        """the menu of a text is open, and the signal comes more than once"""
        anna = self.clause()
        anna.write(0, "Typed below a menu")
        anna.desktop.key("Menu")
        for _ in range(5):
            anna.process.send_signal(signal.SIGTERM)
        anna.wait_end()
        self.assertEqual(anna.drafts(), ["Typed below a menu"])

    def test_an_ignored_signal_stays_ignored(self):
        """started as under nohup: a hangup is nothing, and SIGTERM ends the program still"""
        before = signal.signal(signal.SIGHUP, signal.SIG_IGN)
        try:
            anna = self.anna().start()
        finally:
            signal.signal(signal.SIGHUP, before)
        anna.login()
        anna.process.send_signal(signal.SIGHUP)
        anna.begin(TITLE, driver.BERT)
        anna.write(anna.add_clause(), "After the hangup")
        anna.process.send_signal(signal.SIGTERM)
        anna.wait_end()
        self.assertEqual(anna.drafts(), ["After the hangup"])


if __name__ == "__main__":
    driver.main()
