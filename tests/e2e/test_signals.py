#!/usr/bin/python3
"""What the system does to the program: a signal ends it as its close button does, with all typing kept;
a closed pipe does not; and a shell's mask opens nothing."""

import os
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

    def test_a_closed_pipe_ends_nothing(self):
        """standard output is a pipe that nobody reads any more: what follows works and is stored"""
        anna = self.anna()
        launch = anna.launch

        def launch_into_closed_pipe():
            file_path = anna.console_path
            reader, writer = os.pipe()
            os.close(reader)
            anna.console_path = "/proc/self/fd/%d" % writer
            try:
                return launch()
            finally:
                os.close(writer)
                anna.console_path = file_path

        with open(anna.console_path, "wb"):
            pass
        anna.launch = launch_into_closed_pipe
        anna.start()
        anna.login()
        anna.begin(TITLE, driver.BERT)
        anna.commit(anna.add_clause(), "Said to nobody")
        anna.close()
        self.assertEqual(anna.rows("SELECT text FROM clause_revisions"), [("Said to nobody",)])

    def test_the_store_is_for_its_owner_alone(self):
        """whatever the mask of the shell that started the program"""
        before = os.umask(0)
        try:
            anna = self.anna().start()
        finally:
            os.umask(before)
        anna.login()
        anna.begin(TITLE, driver.BERT)
        anna.close()
        self.assertEqual(os.stat(anna.store_path).st_mode & 0o777, 0o600)


if __name__ == "__main__":
    driver.main()
