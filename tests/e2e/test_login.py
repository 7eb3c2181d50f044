#!/usr/bin/python3
"""The login page in front of real and of failing servers."""

import driver


class Login(driver.Case):
    def test_right_password(self):
        """typed account and password, and a press on Login, lead to the main page"""
        anna = self.anna(prefilled=False).start()
        self.says("nothing is filled in, and Login is insensitive")
        anna.wait_text("Account", "")
        anna.wait_text("Password", "")
        anna.wait_sensitive("Login", False)
        anna.login(driver.ANNA)
        self.says("the account is in the store")
        self.assertEqual(anna.rows("SELECT bare_jid FROM accounts"), [(driver.ANNA,)])
        anna.wait_console("Connecting...\n")
        anna.close()

    def test_prefilled(self):
        """what .morvanerc says is filled in; one press logs in"""
        anna = self.anna().start()
        anna.wait_text("Account", driver.ANNA)
        anna.wait_sensitive("Login")
        anna.login()
        anna.close()

    def test_enter_key(self):
        """the enter key in the password entry, and in the account entry, logs in"""
        anna = self.anna(prefilled=False).start()
        anna.enter("Account", driver.ANNA)
        anna.enter("Password", driver.PASSWORDS[driver.ANNA])
        anna.wait_sensitive("Login")
        self.desktop.key("Return")
        anna.wait_for("New procedure", driver.BUTTON_ROLES)
        anna.close()
        anna.configure(driver.ANNA, driver.PASSWORDS[driver.ANNA])
        anna.start()
        anna.focus("Account")
        self.desktop.key("Return")
        anna.wait_for("New procedure", driver.BUTTON_ROLES)
        anna.close()

    def test_upper_case(self):
        """an account typed with capitals is the same account"""
        anna = self.anna(prefilled=False).start()
        anna.enter("Account", "Anna@Alpha.TEST")
        anna.enter("Password", driver.PASSWORDS[driver.ANNA])
        anna.click("Login")
        anna.wait_for("New procedure", driver.BUTTON_ROLES)
        self.assertEqual(anna.rows("SELECT bare_jid FROM accounts"), [(driver.ANNA,)])
        anna.close()

    def test_wrong_password(self):
        """a wrong password is refused; the right one is taken in the same window"""
        anna = self.anna(prefilled=False).start()
        anna.enter("Account", driver.ANNA)
        anna.enter("Password", "not-the-secret")
        anna.click("Login")
        anna.wait_label("Unable to authorize")
        self.says("the password is kept, and Login has the keyboard")
        self.assertEqual(len(anna.text("Password")), len("not-the-secret"))
        self.desktop.wait(
            lambda: anna.find("Login", driver.BUTTON_ROLES).has(driver.STATE_FOCUSED),
            "Login has the keyboard",
        )
        anna.enter("Password", driver.PASSWORDS[driver.ANNA])
        anna.click("Login")
        anna.wait_for("New procedure", driver.BUTTON_ROLES)
        anna.close()

    def test_unknown_account(self):
        """an account that the server does not have is refused like a wrong password"""
        anna = self.anna(prefilled=False).start()
        anna.enter("Account", "nobody@alpha.test")
        anna.enter("Password", "anything")
        anna.click("Login")
        anna.wait_label("Unable to authorize")
        self.assertEqual(anna.rows("SELECT bare_jid FROM accounts"), [])
        anna.close()

    def test_invalid_accounts(self):
        """what is no bare JID keeps Login insensitive"""
        anna = self.anna(prefilled=False).start()
        anna.enter("Password", "anything")
        for text in ("anna", "anna@", "@alpha.test", "anna@alpha.test/boat", "an@na@alpha.test"):
            self.says("insensitive with " + text)
            anna.enter("Account", text)
            anna.wait_sensitive("Login", False)
            self.desktop.key("Return")
        anna.enter("Account", driver.ANNA)
        anna.wait_sensitive("Login")
        self.says("and without a password")
        anna.enter("Password", "")
        anna.wait_sensitive("Login", False)
        self.assertNotIn("Connecting...", anna.console())
        anna.close()


class NoLogin(driver.Case):
    with_server = False

    def refused(self, account, text="Can't connect to server"):
        anna = self.anna(prefilled=False).start()
        anna.enter("Account", account)
        anna.enter("Password", "anna-secret")
        anna.click("Login")
        anna.wait_label(text)
        self.says("the page can be used again")
        anna.wait_sensitive("Login")
        anna.wait_sensitive("Register")
        anna.wait_text("Account", account)
        self.assertNotIn("anna-secret", anna.console())
        anna.close()

    def test_unreachable(self):
        """nobody listens at the server's port"""
        self.refused(driver.ANNA)

    def test_unknown_host(self):
        """the server's name does not exist"""
        self.refused("anna@nowhere.invalid")

    def test_untrusted_certificates(self):
        """servers whose certificates are signed by nobody known, too old or another's"""
        for name in (
            "selfsigned.test",
            "unknown-ca.test",
            "expired.test",
            "future.test",
            "wrong.test",
        ):
            self.says(name)
            stranger = driver.Stranger(name)
            try:
                self.refused("anna@" + name)
                self.assertEqual((stranger.accepted, stranger.heard), (1, b""))
            finally:
                stranger.stop()

    def test_certificate_of_another(self):
        """a trusted server's certificate in the place of another's; its own is taken"""
        stranger = driver.Stranger("beta.test")
        try:
            self.refused(driver.ANNA)
            self.assertEqual((stranger.accepted, stranger.heard), (1, b""))
        finally:
            stranger.stop()
        stranger = driver.Stranger(driver.HOST)
        try:
            anna = self.anna().start()
            anna.click("Login")
            self.desktop.wait(lambda: b"<stream:stream" in stranger.heard, "TLS is taken into use")
            anna.close()
        finally:
            stranger.stop()

    def test_no_server_then_server(self):
        """after a failed login the same window logs in once the server is there"""
        anna = self.anna().start()
        anna.click("Login")
        anna.wait_label("Can't connect to server")
        server = driver.Server()
        server.start()
        try:
            anna.click("Login")
            anna.wait_for("New procedure", driver.BUTTON_ROLES)
            anna.close()
        finally:
            server.stop()


if __name__ == "__main__":
    driver.main()
