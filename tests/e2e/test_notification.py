#!/usr/bin/python3
"""A session that dies is told once by the desktop, and what is told leads to the login page."""

import threading

import gi

gi.require_version("Gio", "2.0")
from gi.repository import Gio, GLib  # noqa: E402

import driver  # noqa: E402

TITLE = "Repair of the roof"
NAME = "org.freedesktop.Notifications"
PATH = "/org/freedesktop/Notifications"
INTERFACE = Gio.DBusNodeInfo.new_for_xml(
    """
<node>
  <interface name="org.freedesktop.Notifications">
    <method name="Notify">
      <arg type="s" direction="in"/> <arg type="u" direction="in"/> <arg type="s" direction="in"/>
      <arg type="s" direction="in"/> <arg type="s" direction="in"/> <arg type="as" direction="in"/>
      <arg type="a{sv}" direction="in"/> <arg type="i" direction="in"/>
      <arg type="u" direction="out"/>
    </method>
    <method name="CloseNotification"> <arg type="u" direction="in"/> </method>
    <method name="GetCapabilities"> <arg type="as" direction="out"/> </method>
    <method name="GetServerInformation">
      <arg type="s" direction="out"/> <arg type="s" direction="out"/>
      <arg type="s" direction="out"/> <arg type="s" direction="out"/>
    </method>
    <signal name="ActionInvoked"> <arg type="u"/> <arg type="s"/> </signal>
  </interface>
</node>"""
).interfaces[0]


class Notifications:
    """The desktop's notification service on a party's session bus, in a thread of its own.

    What comes is in shown, as (title, body, actions), what is taken back in closed."""

    def __init__(self, address):
        self.shown = []
        self.closed = []
        self.is_ready = threading.Event()
        self.context = GLib.MainContext.new()
        self.loop = GLib.MainLoop.new(self.context, False)
        self.thread = threading.Thread(target=self.serve, args=(address,), daemon=True)
        self.thread.start()
        assert self.is_ready.wait(10 * driver.SLOW)

    def serve(self, address):
        self.context.push_thread_default()
        self.connection = Gio.DBusConnection.new_for_address_sync(
            address,
            Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT
            | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION,
            None,
            None,
        )
        self.connection.register_object(PATH, INTERFACE, self.answer, None, None)
        self.connection.call_sync(
            "org.freedesktop.DBus",
            "/org/freedesktop/DBus",
            "org.freedesktop.DBus",
            "RequestName",
            GLib.Variant("(su)", (NAME, 0)),
            None,
            0,
            -1,
            None,
        )
        self.is_ready.set()
        self.loop.run()
        self.context.pop_thread_default()

    def answer(self, connection, sender, path, interface, method, parameters, invocation):
        if method == "Notify":
            _, _, _, title, body, actions, _, _ = parameters.unpack()
            self.shown.append((title, body, actions))
            invocation.return_value(GLib.Variant("(u)", (len(self.shown),)))
        elif method == "CloseNotification":
            self.closed.append(parameters.unpack()[0])
            invocation.return_value(None)
        elif method == "GetCapabilities":
            invocation.return_value(GLib.Variant("(as)", (["actions", "body"],)))
        else:
            invocation.return_value(GLib.Variant("(ssss)", ("test", "test", "1", "1.2")))

    def invoke(self, number, action):
        self.connection.emit_signal(
            None, PATH, NAME, "ActionInvoked", GLib.Variant("(us)", (number, action))
        )

    def stop(self):
        self.loop.quit()
        self.thread.join(10 * driver.SLOW)


class Notification(driver.Case):
    def begin(self):
        anna = self.anna()
        self.service = Notifications(anna.bus_address)
        self.addCleanup(self.service.stop)
        anna.start()
        anna.login()
        return anna

    def wait_told(self):
        self.desktop.wait(lambda: self.service.shown, "the desktop is told")

    def log_out(self, anna):
        anna.activate()
        self.desktop.key("ctrl+shift+l")
        anna.wait_for("Login", driver.BUTTON_ROLES)

    def test_a_session_that_dies_is_told_once(self):
        """one notification; its button leads to the login page, and the next session works"""
        anna = self.begin()
        self.server.stop()
        self.wait_told()
        self.desktop.wait(lambda: "Disconnected.\n" in anna.console(), "the session is over")
        ((title, body, actions),) = self.service.shown
        self.assertEqual(title, "Morvane is not connected")
        self.assertIn(driver.ANNA, body)
        # Pairs of a name and a label; "default" is a press on the notification itself.
        names = dict(zip(actions[1::2], actions[::2]))
        self.assertIn("Log in again", names)
        self.assertIn("default", actions[::2])
        self.says("what is done without a session is not told again")
        anna.begin(TITLE, driver.BERT)
        anna.commit(anna.add_clause(), "Tiles of slate")
        self.says("the button")
        self.server.start()
        self.service.invoke(1, names["Log in again"])
        anna.wait_for("Login", driver.BUTTON_ROLES)
        anna.wait_text("Account", driver.ANNA)
        self.desktop.wait(lambda: self.service.closed == [1], "the notification is taken back")
        anna.login(driver.ANNA)
        self.says("the second session dies, too")
        self.server.stop()
        self.desktop.wait(lambda: len(self.service.shown) == 2, "the desktop is told once more")
        anna.close()
        self.assertEqual(len(self.service.shown), 2)

    def test_who_logs_out_or_closes_is_not_told(self):
        """no notification at an end that the user asked for"""
        anna = self.begin()
        self.log_out(anna)
        anna.login(driver.ANNA)
        anna.close()
        self.assertEqual(self.service.shown, [])
        anna.start()
        anna.login()
        self.log_out(anna)
        anna.close()
        self.assertEqual(self.service.shown, [])


if __name__ == "__main__":
    driver.main()
