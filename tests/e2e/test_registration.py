#!/usr/bin/python3
"""New accounts are registered with the server, and used at once."""

import signal

import driver

CARLA = "carla@" + driver.HOST


class Registration(driver.Case):
    """What every server does; its words differ."""

    def begin(self):
        """A program without a configuration file that shows the registration page."""
        party = driver.Party("carla", CARLA, prefilled=False).start()
        party.click("Register")
        party.wait_for("New account", driver.ENTRY_ROLES)
        return party

    def fill(self, party, jid, password="new-secret"):
        party.enter("New account", jid)
        party.enter("New password", password)
        party.enter("New password (again)", password)

    def wait_refused(self, party):
        """Waits until the page tells why it did not work, and returns the text."""
        party.wait_sensitive("Register")
        return self.desktop.wait(
            lambda: next((text for text in party.labels() if text.strip()), None),
            "the page says why",
        )

    def wait_login_page(self, party, jid):
        party.wait_for("Account", driver.ENTRY_ROLES)
        party.wait_text("Account", jid)

    def check_login(self, party, jid, password):
        """What the page needs for a login right away is the password."""
        self.wait_login_page(party, jid)
        party.enter("Password", password)
        party.click("Login")
        party.wait_for("New procedure", driver.BUTTON_ROLES)
        self.assertEqual(party.rows("SELECT bare_jid FROM accounts"), [(jid,)])


class Prosody(Registration):
    taken = "The requested username already exists."

    def test_new_name(self):
        """a new name is registered, and logs in right away"""
        party = self.begin()
        party.wait_sensitive("Register", False)
        party.enter("New account", CARLA)
        party.enter("New password", "one")
        party.enter("New password (again)", "two")
        party.wait_sensitive("Register", False)
        self.fill(party, CARLA)
        party.click("Register")
        self.check_login(party, CARLA, "new-secret")
        party.close()
        self.says("and again after a restart, from the login page")
        party.start()
        self.assertEqual(party.text("Account"), "")
        party.enter("Account", CARLA)
        self.check_login(party, CARLA, "new-secret")
        party.close()

    def test_taken_name(self):
        """a taken name is refused in the server's words; another name works then"""
        party = self.begin()
        self.fill(party, driver.ANNA)
        party.click("Register")
        text = self.wait_refused(party)
        self.says("the server says: " + text)
        self.assertEqual(text, self.taken)
        party.enter("New account", CARLA)
        party.desktop.key("Return")
        self.check_login(party, CARLA, "new-secret")
        party.close()

    def test_cancel(self):
        """Cancel and Escape end a registration that hangs; a login works right after"""
        party = self.begin()
        for way in ("Cancel", "Escape", "Escape once more"):
            self.says(way)
            self.fill(party, CARLA)
            self.server.process.send_signal(signal.SIGSTOP)
            mark = party.console_mark()
            try:
                party.click("Register")
                party.wait_console("Registering...", mark)
                party.wait_sensitive("Register", False)
                if way == "Cancel":
                    party.click("Cancel")
                else:
                    self.desktop.key("Escape")
                party.wait_for("Account", driver.ENTRY_ROLES)
            finally:
                self.server.process.send_signal(signal.SIGCONT)
            if way == "Escape once more":
                break
            party.click("Register")
            party.wait_for("New account", driver.ENTRY_ROLES)
            party.wait_sensitive("Register")
            self.assertEqual([text for text in party.labels() if text.strip()], [])
        party.enter("Account", driver.ANNA)
        self.check_login(party, driver.ANNA, driver.PASSWORDS[driver.ANNA])
        party.close()

    def test_unreachable(self):
        """without a server the page says so, and works once there is one"""
        self.server.stop()
        party = self.begin()
        self.fill(party, CARLA)
        party.click("Register")
        self.assertEqual(self.wait_refused(party), "Can't connect to server")
        self.says("a host that has no address")
        party.enter("New account", "carla@nowhere.test")
        party.click("Register")
        self.assertEqual(self.wait_refused(party), "Can't connect to server")
        self.server.start()
        party.enter("New account", CARLA)
        party.click("Register")
        self.check_login(party, CARLA, "new-secret")
        party.close()

    def test_wrong_certificate(self):
        """a server without a good certificate learns nothing"""
        self.server.stop()
        stranger = driver.Stranger("selfsigned.test")
        try:
            party = self.begin()
            self.fill(party, CARLA)
            party.click("Register")
            self.assertEqual(self.wait_refused(party), "Can't connect to server")
            self.assertEqual(stranger.heard, b"")
            self.desktop.key("Escape")
            party.wait_for("Account", driver.ENTRY_ROLES)
            party.close()
        finally:
            stranger.stop()


class ProsodyForbidden(Registration):
    server_options = ("--no-registration",)

    def test_forbidden(self):
        """a server that registers nobody; a login right after works"""
        party = self.begin()
        self.fill(party, CARLA)
        party.click("Register")
        self.assertEqual(self.wait_refused(party), "Registration unavailable")
        party.click("Cancel")
        party.enter("Account", driver.ANNA)
        self.check_login(party, driver.ANNA, driver.PASSWORDS[driver.ANNA])
        party.close()


class Ejabberd(Registration):
    server_name = "ejabberd"
    taken = "User already exists"

    test_new_name = Prosody.test_new_name
    test_taken_name = Prosody.test_taken_name
    test_cancel = Prosody.test_cancel


class EjabberdForbidden(Registration):
    """This server's ways to forbid are answers that end the program, on purpose."""

    server_name = "ejabberd"

    def check_stop(self, option, expression, text):
        self.server.stop()
        self.server.options = [option]
        self.server.start()
        party = self.begin()
        self.fill(party, CARLA)
        party.expected_end = True
        party.click("Register")
        self.desktop.wait(lambda: party.process.poll() is not None, "the program has ended")
        self.assertEqual(party.process.returncode, -signal.SIGABRT)
        with open(party.errors_path) as errors:
            self.assertIn("Assertion `%s' failed" % expression, errors.read())
        self.assertIn(text, party.console())
        party.discard()

    def test_unknown(self):
        """a server that has never heard of registering closes the stream"""
        self.check_stop("--no-registration", 'xml_element->name == "iq"', "not-authorized")

    def test_denied(self):
        """a server that offers it and denies it answers with an error other than cancel"""
        self.check_stop(
            "--deny-registration",
            'get_xml_attribute (xml_error, "type") == "cancel"',
            "Access denied by service policy",
        )


if __name__ == "__main__":
    driver.main()
