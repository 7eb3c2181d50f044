#!/usr/bin/python3
"""Several windows of one program, and windows that are closed at any time."""

import os
import signal

import driver


class TwoWindows(driver.Case):
    def test_second_start(self):
        """a second start on the same bus opens a second window of the first program"""
        anna = self.anna().start()
        anna.login()
        second = anna.start_again(driver.RIGHT)
        self.desktop.wait(lambda: anna.others[0].poll() is not None, "the second start has ended")
        self.assertEqual(anna.others[0].returncode, 0)
        second.wait_text("Account", driver.ANNA)

        self.says("the account of the first window is refused")
        second.click("Login")
        second.wait_label("This account is open in another window")
        second.wait_sensitive("Login")

        self.says("another account is taken, and both negotiate")
        second.login(driver.BERT)
        anna.begin("With myself", driver.BERT)
        second.open_procedure("With myself")
        anna.commit(anna.add_clause(), "A clause")
        second.wait_text("Clause text", "A clause")
        second.decide("Agree", 0)
        anna.wait_label("contractor agrees")
        accounts = anna.rows("SELECT bare_jid FROM accounts ORDER BY db_id")
        self.assertEqual(accounts, [(driver.ANNA,), (driver.BERT,)])
        self.assertEqual(
            anna.rows(
                "SELECT count(*), count(DISTINCT account_db_id), "
                "count(DISTINCT time) FROM procedures"
            ),
            [(2, 2, 1)],
        )

        self.says("the second window is closed; the first goes on")
        second.close()
        self.desktop.wait(lambda: len(anna.frames()) == 1, "one window is left")
        anna.windows.remove(second)
        anna.commit(0, "Another text")
        self.says("a third window can have the account that the second had")
        third = anna.start_again(driver.RIGHT)
        third.login(driver.BERT)
        third.open_procedure("With myself")
        third.wait_text("Clause text", "Another text")

        self.says("the first window is closed; the third can still be used")
        anna.windows[0].close()
        self.desktop.wait(lambda: len(anna.frames()) == 1, "one window is left")
        anna.windows.remove(anna.windows[0])
        third.decide("Disagree", 0)
        third.close()
        anna.wait_end()

    def test_close_while_connected(self):
        """the stream is ended in good order"""
        anna = self.anna().start()
        anna.login()
        mark = anna.console_mark()
        anna.close()
        self.assertIn("</stream:stream>", anna.console(mark))

    def test_close_when_server_hangs(self):
        """a server that no longer answers does not keep the window from closing"""
        anna = self.anna().start()
        anna.login()
        self.server.process.send_signal(signal.SIGSTOP)
        try:
            anna.close()
        finally:
            self.server.process.send_signal(signal.SIGCONT)

    def test_server_gone(self):
        """the server ends in the middle: what is done goes on locally and is kept"""
        anna = self.anna().start()
        anna.login()
        anna.begin("Alone", driver.BERT)
        mark = anna.console_mark()
        self.server.stop()
        anna.wait_console("Disconnected.\n", mark)
        anna.commit(anna.add_clause(), "Nobody hears this")
        anna.decide("Agree", 0)
        anna.write(0, "Nor this")
        anna.close()
        self.assertEqual(anna.drafts(), ["Nor this"])
        self.server.start()
        anna.start()
        anna.login()
        anna.open_procedure("Alone")
        anna.wait_text("Clause text", "Nobody hears this")
        anna.close()


class TwoPrograms(driver.Case):
    def start_beside(self, party, name):
        """Starts a program of its own, on a bus of its own, on the same store."""
        other = driver.Party(name, driver.ANNA, driver.RIGHT, directory=party.directory)
        other.console_path = os.path.join(party.directory, name + "-console.log")
        other.errors_path = os.path.join(party.directory, name + "-errors.log")
        return other.start()

    def refuse(self, party):
        """Presses Login for an account that another program has."""
        mark = party.console_mark()
        party.click("Login")
        party.wait_label("This account is open in another window")
        self.assertNotIn("Connecting...", party.console(mark))

    def test_one_account(self):
        """a program of its own on the same store keeps away from an account until it is free"""
        anna = self.anna().start()
        anna.login()
        anna.begin("With Bert", driver.BERT)
        anna.commit(anna.add_clause(), "A clause")
        other = self.start_beside(anna, "other")
        self.refuse(other)

        self.says("the first program's session ends; the account is still loaded there")
        mark = anna.console_mark()
        self.server.stop()
        anna.wait_console("Disconnected.\n", mark)
        self.refuse(other)
        self.server.start()

        self.says("the first program is killed; the account is free at once")
        anna.kill()
        other.login()
        other.open_procedure("With Bert")
        other.wait_text("Clause text", "A clause")

        self.says("and so it is when the user logs out, or closes the window")
        anna.start()
        self.refuse(anna)
        other.windows[0].activate()
        self.desktop.key("ctrl+shift+L")
        other.wait_for("Login", driver.BUTTON_ROLES)
        anna.login()
        self.refuse_again(other)
        anna.close()
        other.login()
        other.close()

    def refuse_again(self, party):
        party.enter("Password", driver.PASSWORDS[driver.ANNA])
        self.refuse(party)
        # What is refused is not lost.
        self.assertEqual(party.text("Account"), driver.ANNA)

    def test_two_accounts(self):
        """two programs with two accounts of one store negotiate with each other"""
        anna = self.anna().start()
        anna.login()
        bert = self.start_beside(anna, "bert")
        bert.login(driver.BERT)
        anna.begin("One store", driver.BERT)
        bert.open_procedure("One store")
        anna.commit(anna.add_clause(), "A clause")
        bert.wait_text("Clause text", "A clause")
        bert.decide("Agree", 0)
        anna.wait_label("contractor agrees")
        anna.close()
        bert.close()
        self.assertEqual(
            anna.rows("SELECT count(*), count(DISTINCT account_db_id) FROM procedures"), [(2, 2)]
        )
        self.assertEqual(
            sorted(os.listdir(anna.directory)),
            [
                ".morvane.db",
                ".morvanerc",
                "bert-console.log",
                "bert-errors.log",
                "console.log",
                "errors.log",
            ],
        )


class CloseDuringLogin(driver.Case):
    with_server = False

    def close_at(self, stranger):
        anna = self.anna().start()
        try:
            anna.click("Login")
            self.desktop.wait(lambda: stranger.accepted == 1, "the program has connected")
            anna.close()
        finally:
            stranger.stop()
        self.assertEqual(anna.rows("SELECT * FROM accounts"), [])

    def test_silent_server(self):
        """closed while the server has not said a word"""
        self.close_at(driver.Stranger())

    def test_silent_after_tls(self):
        """closed while the server is silent after the upgrade to TLS"""
        stranger = driver.Stranger(driver.HOST)
        anna = self.anna().start()
        try:
            anna.click("Login")
            self.desktop.wait(lambda: stranger.heard, "the program speaks over TLS")
            anna.close()
        finally:
            stranger.stop()

    def test_second_window_goes_on(self):
        """one window is closed during its login, the other logs in afterwards"""
        anna = self.anna().start()
        second = anna.start_again(driver.RIGHT)
        stranger = driver.Stranger()
        try:
            second.click("Login")
            self.desktop.wait(lambda: stranger.accepted == 1, "the program has connected")
            second.close()
            self.desktop.wait(lambda: len(anna.frames()) == 1, "one window is left")
            anna.windows.remove(second)
        finally:
            stranger.stop()
        server = driver.Server()
        server.start()
        try:
            anna.login()
            anna.close()
        finally:
            server.stop()

    def test_close_right_after_the_press(self):
        """closed in the very moment of the press on Login, again and again"""
        server = driver.Server()
        server.start()
        try:
            for _ in range(6):
                anna = self.anna().start()
                anna.click("Login")
                anna.close()
                anna.discard()
        finally:
            server.stop()


if __name__ == "__main__":
    driver.main()
