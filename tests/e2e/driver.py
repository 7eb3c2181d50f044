"""Drives the real program the way a user does.

A Desktop is a private X display with a window manager, an accessibility bus and a clipboard. A
Server is a private Prosody for the host alpha.test. A Party is one user: a working directory, a
session bus and the program running in it. Widgets are found by their accessible names; everything
that is done to them is done with the mouse, the keyboard and the clipboard, at the place on the
screen where the widget is.

Nothing here sleeps to let something happen: every wait is for a state (the text of a widget, a row
of the store, a line of the console log) and is bounded. A wait that fails leaves a picture of the
screen and the ends of all logs.
"""

import argparse
import atexit
import ctypes
import os
import re
import shutil
import signal
import socket
import sqlite3
import ssl
import subprocess
import sys
import tempfile
import threading
import time
import unittest

import gi
from gi.repository import Gio, GLib

SLOW = float(os.environ.get("MORVANE_SLOW", "1"))
BOUND = 30 * SLOW
POLL = 0.02
PATIENCE = 0.5 * SLOW

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
HOST = "alpha.test"
ANNA = "anna@" + HOST
BERT = "bert@" + HOST
PASSWORDS = {ANNA: "anna-secret", BERT: "bert-secret"}

SCREEN_WIDTH = 1400
SCREEN_HEIGHT = 900
LEFT = (20, 30)
RIGHT = (710, 30)

# What must never stand on standard error.
COMPLAINT = re.compile(
    r"-(WARNING|CRITICAL|ERROR) \*\*|\*\* \(.*\): (WARNING|CRITICAL)|AddressSanitizer|"
    r"LeakSanitizer|ThreadSanitizer|runtime error:|Assertion `|\(EE\)"
)


class Failure(AssertionError):
    """Something that the program should have shown did not show."""


# ---- Processes ----


def die_with_parent():
    """In a child between fork and exec: end when the test ends, however it ends."""
    pr_set_pdeathsig = 1
    ctypes.CDLL(None).prctl(pr_set_pdeathsig, signal.SIGKILL)


def start_process(command, **options):
    return subprocess.Popen(command, preexec_fn=die_with_parent, **options)


def stop_process(process):
    if process is None:
        return
    if process.poll() is None:
        process.terminate()
        try:
            process.wait(5)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()
    for stream in (process.stdin, process.stdout):
        if stream:
            stream.close()


def tail(path, count=25, width=300):
    try:
        with open(path, errors="replace") as log:
            lines = log.readlines()[-count:]
        return "".join("    %s\n" % line.rstrip("\n")[:width] for line in lines)
    except OSError as error:
        return "    (%s)\n" % error


# ---- Desktop ----


class Desktop:
    """An X display of 1400 by 900 with a window manager, and one accessibility bus.

    There is one for the whole process, because the accessibility client keeps one connection.
    """

    current = None

    def __init__(self, output=None, animations=False):
        assert Desktop.current is None
        Desktop.current = self
        self.animations = animations
        self.parties = []
        self.processes = []
        self.failures = 0
        self.directory = tempfile.mkdtemp(prefix="morvane-e2e-")
        self.output = output or os.environ.get("MORVANE_E2E_OUTPUT") or self.directory
        os.makedirs(self.output, exist_ok=True)
        self.home = os.path.join(self.directory, "home")
        os.makedirs(os.path.join(self.home, ".config", "gtk-3.0"))
        with open(os.path.join(self.home, ".config", "gtk-3.0", "settings.ini"), "w") as settings:
            settings.write(
                "[Settings]\ngtk-enable-animations=%d\ngtk-cursor-blink=0\n" % animations
            )
        atexit.register(self.stop)
        self.environment = self.make_environment()
        self.start_display()
        self.start_accessibility()
        self.clipboard = None

    def make_environment(self):
        # What slides is pressed where it no longer is: on a busy machine a popover may stand still for
        # a while before it begins to move.
        settings = os.path.join(self.home, ".config", "gtk-3.0", "settings.ini")
        os.makedirs(os.path.dirname(settings), exist_ok=True)
        with open(settings, "w") as file:
            file.write("[Settings]\ngtk-enable-animations=0\n")
        environment = dict(os.environ)
        for name in (
            "NO_AT_BRIDGE",
            "GTK_MODULES",
            "GTK_THEME",
            "WAYLAND_DISPLAY",
            "XAUTHORITY",
            "DBUS_SESSION_BUS_ADDRESS",
            "AT_SPI_BUS_ADDRESS",
            "XDG_CONFIG_HOME",
            "XDG_DATA_HOME",
            "XDG_CACHE_HOME",
            "XDG_STATE_HOME",
        ):
            environment.pop(name, None)
        environment.update(
            HOME=self.home,
            GDK_BACKEND="x11",
            GSETTINGS_BACKEND="memory",
            GIO_USE_VFS="local",
            GTK_IM_MODULE="gtk-im-context-simple",
            LANG="C.UTF-8",
            XDG_RUNTIME_DIR=self.directory,
            G_SLICE=environment.get("G_SLICE", "always-malloc"),
        )
        return environment

    def start_display(self):
        read_end, write_end = os.pipe()
        log = open(os.path.join(self.directory, "display.log"), "w")
        self.processes.append(
            start_process(
                [
                    "Xvfb",
                    "-displayfd",
                    str(write_end),
                    "-screen",
                    "0",
                    "%dx%dx24" % (SCREEN_WIDTH, SCREEN_HEIGHT),
                    "-nolisten",
                    "tcp",
                    "-noreset",
                    "-wr",
                ],
                pass_fds=[write_end],
                stdout=log,
                stderr=log,
            )
        )
        os.close(write_end)
        with os.fdopen(read_end) as numbers:
            number = numbers.readline().strip()
        if not number:
            raise Failure("Xvfb did not start:\n" + tail(log.name))
        self.environment["DISPLAY"] = ":" + number
        managed = os.path.join(self.directory, "managed")
        self.processes.append(
            start_process(
                ["openbox", "--sm-disable", "--startup", "touch " + managed],
                env=self.environment,
                stdout=log,
                stderr=log,
            )
        )
        log.close()
        self.wait(lambda: os.path.exists(managed), "the window manager runs")

    def start_bus(self, name, kind="session"):
        """Starts a message bus that starts nothing by itself and returns (process, address)."""
        config = os.path.join(self.directory, name + ".conf")
        with open(config, "w") as file:
            file.write(
                '<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN" '
                '"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">\n'
                "<busconfig><type>%s</type><listen>unix:dir=%s</listen><auth>EXTERNAL</auth>"
                '<policy context="default"><allow user="*"/>'
                '<allow send_destination="*" eavesdrop="true"/><allow eavesdrop="true"/>'
                '<allow own="*"/></policy></busconfig>\n' % (kind, self.directory)
            )
        log = open(os.path.join(self.directory, name + ".log"), "w")
        process = start_process(
            [
                "dbus-daemon",
                "--config-file=" + config,
                "--nofork",
                "--nopidfile",
                "--print-address=1",
            ],
            stdout=subprocess.PIPE,
            stderr=log,
            text=True,
        )
        log.close()
        self.processes.append(process)
        address = process.stdout.readline().strip()
        if not address:
            raise Failure("dbus-daemon did not start:\n" + tail(log.name))
        return process, address

    def start_accessibility(self):
        _, address = self.start_bus("accessibility", "accessibility")
        self.environment["AT_SPI_BUS_ADDRESS"] = address
        registry = next(
            path
            for path in (
                "/usr/libexec/at-spi2-registryd",
                "/usr/lib/at-spi2-core/at-spi2-registryd",
            )
            if os.path.exists(path)
        )
        log = open(os.path.join(self.directory, "registry.log"), "w")
        self.processes.append(
            start_process([registry], env=self.environment, stdout=log, stderr=log)
        )
        log.close()
        self.accessibility = Gio.DBusConnection.new_for_address_sync(
            address,
            Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT
            | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION,
            None,
            None,
        )
        self.wait(
            lambda: self.call_bus("NameHasOwner", "s", REGISTRY), "the accessibility registry runs"
        )

    def call_bus(self, method, signature, *values):
        return self.accessibility.call_sync(
            "org.freedesktop.DBus",
            "/org/freedesktop/DBus",
            "org.freedesktop.DBus",
            method,
            GLib.Variant("(%s)" % signature, values),
            None,
            0,
            int(5000 * SLOW),
            None,
        ).unpack()[0]

    def stop(self):
        for party in list(self.parties):
            party.discard()
        for process in reversed(self.processes):
            stop_process(process)
        self.processes = []
        if Desktop.current is self:
            Desktop.current = None
            if not self.failures and not os.environ.get("MORVANE_E2E_KEEP"):
                shutil.rmtree(self.directory, ignore_errors=True)

    def run(self, command, **options):
        return subprocess.run(
            command,
            env=self.environment,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            timeout=BOUND,
            check=False,
            **options,
        )

    def picture(self, path, area=None):
        """Saves what the screen shows, or the area (width, height, x, y) of it."""
        crop = ["-crop", "%dx%d+%d+%d" % area, "+repage"] if area else []
        result = self.run(["import", "-window", "root"] + crop + [path])
        if result.returncode:
            print("no picture: " + result.stdout)

    def still_picture(self, path, area=None):
        """Saves a picture once two in a row are the same: pages have slid, spinners stopped."""
        other = path + ".before.png"

        def still():
            self.picture(other, area)
            self.picture(path, area)
            with open(path, "rb") as one, open(other, "rb") as two:
                return pixels(one.read()) == pixels(two.read())

        self.wait(still, "the screen is still")
        os.remove(other)

    def colours(self, places):
        """The colours that the screen shows at the places, as six hexadecimal digits each."""
        path = os.path.join(self.directory, "colours.png")
        self.still_picture(path)
        wanted = "".join("%%[hex:p{%d,%d}]\\n" % place for place in places)
        return [
            line[:6].lower()
            for line in self.run(["convert", path, "-format", wanted, "info:"]).stdout.split()
        ]

    # ---- Waiting ----

    def wait(self, condition, what, bound=None):
        """Returns the first true value of condition, asked again and again, at most bound long."""
        deadline = time.monotonic() + (bound if bound is not None else BOUND)
        doubt = ""
        while True:
            try:
                value = condition()
                if value:
                    return value
            except Failure:
                raise
            except Exception as error:  # a widget or a process that is just coming or going
                doubt = "%s: %s" % (type(error).__name__, error)
            for party in self.parties:
                party.check_alive(what)
            if time.monotonic() > deadline:
                self.fail("waited in vain until " + what + (" (%s)" % doubt if doubt else ""))
            time.sleep(POLL)

    def fail(self, what):
        """Raises a Failure that holds all there is to see."""
        self.failures += 1
        report = [what]
        path = os.path.join(self.output, "failure-%d-%d.png" % (os.getpid(), self.failures))
        if "DISPLAY" in self.environment:
            self.picture(path)
            report.append("  picture: " + path)
        for party in self.parties:
            report.append("  console of %s (%s):" % (party.name, party.console_path))
            report.append(tail(party.console_path).rstrip("\n"))
            report.append("  standard error of %s:" % party.name)
            report.append(tail(party.errors_path).rstrip("\n"))
            report.append("  shown by %s: %s" % (party.name, party.describe()))
        raise Failure("\n".join(report))

    # ---- Input ----

    def xdotool(self, *arguments):
        result = self.run(["xdotool"] + [str(argument) for argument in arguments])
        return result.stdout.strip()

    def pointer(self):
        place = self.xdotool("getmouselocation", "--shell")
        return tuple(int(re.search(r"^%s=(\d+)$" % axis, place, re.M).group(1)) for axis in "XY")

    def press_at(self, x, y, button=1, times=1):
        """Presses there. The tooltip of what the mouse leaves may cover the place, and would take the
        press: it goes when its program sees that the mouse has left."""
        self.xdotool("mousemove", x, y)
        self.wait(lambda: not self.is_below_tooltip(), "no tooltip covers what is pressed")
        self.xdotool("click", "--repeat", times, "--delay", 1, button)

    def is_below_tooltip(self):
        """Whether the mouse stands on a tooltip."""
        place = self.xdotool("getmouselocation", "--shell")
        window = re.search(r"WINDOW=(\d+)", place)[1]
        kind = self.run(["xprop", "-id", window, "_NET_WM_WINDOW_TYPE"]).stdout
        return "TOOLTIP" in kind

    def key(self, *names):
        self.xdotool("key", "--clearmodifiers", "--delay", 1, *names)

    def type_text(self, text):
        for number, line in enumerate(text.split("\n")):
            if number:
                self.key("Return")
            if line:
                self.xdotool("type", "--clearmodifiers", "--delay", 2, line)

    def copy(self, text):
        """Puts text on the clipboard, as another program in which the user copied it would."""
        if self.clipboard is None:
            self.clipboard = start_process(
                [sys.executable, os.path.abspath(__file__), "clipboard"],
                env=dict(self.environment, NO_AT_BRIDGE="1"),
                stdin=subprocess.PIPE,
                stdout=subprocess.PIPE,
            )
            self.processes.append(self.clipboard)
        data = text.encode()
        self.clipboard.stdin.write(b"%d\n" % len(data) + data)
        self.clipboard.stdin.flush()
        if self.clipboard.stdout.readline() != b"owned\n":
            raise Failure("the clipboard was not taken")


def serve_clipboard():
    """The clipboard's owner: takes texts from standard input and keeps the last one."""
    gi.require_version("Gtk", "3.0")
    gi.require_version("Gdk", "3.0")
    from gi.repository import Gdk, Gtk

    clipboard = Gtk.Clipboard.get(Gdk.SELECTION_CLIPBOARD)

    def take(text):
        clipboard.set_text(text, -1)
        Gdk.Display.get_default().sync()
        sys.stdout.write("owned\n")
        sys.stdout.flush()

    def read():
        for line in iter(sys.stdin.buffer.readline, b""):
            text = sys.stdin.buffer.read(int(line)).decode()
            GLib.idle_add(take, text)
        GLib.idle_add(Gtk.main_quit)

    threading.Thread(target=read, daemon=True).start()
    Gtk.main()


def pixels(png):
    """A picture file without the chunks that hold dates."""
    at, kept = 8, b""
    while at < len(png):
        size = int.from_bytes(png[at : at + 4], "big")
        if png[at + 4 : at + 8] in (b"IHDR", b"PLTE", b"IDAT"):
            kept += png[at + 8 : at + 8 + size]
        at += size + 12
    return kept


# ---- Widgets ----

ENTRY_ROLES = ("text", "password text", "entry")
BUTTON_ROLES = ("push button", "toggle button")
LABEL_ROLES = ("label",)
ROW_ROLES = ("list item",)


REGISTRY = "org.a11y.atspi.Registry"
TREE = "/org/a11y/atspi/accessible/root"

# Numbers of the accessibility states that are asked for.
STATE_EDITABLE = 7
STATE_FOCUSABLE = 11
STATE_FOCUSED = 12
STATE_SENSITIVE = 24
STATE_SHOWING = 25
STATE_VISIBLE = 30

# The coordinate that the toolkit gives of a widget that is scrolled out of sight.
OUT_OF_SIGHT = -0x80000000


class Node:
    """A widget as the accessibility bus knows it; every question goes to the program itself, save
    for what never changes: its role."""

    roles = {}

    def __init__(self, owner, path):
        self.owner = owner
        self.path = path

    def __eq__(self, other):
        return (self.owner, self.path) == (other.owner, other.path)

    def __hash__(self):
        return hash((self.owner, self.path))

    def call(self, interface, method, signature="", *values):
        arguments = GLib.Variant("(%s)" % signature, values) if signature else None
        return Desktop.current.accessibility.call_sync(
            self.owner,
            self.path,
            interface,
            method,
            arguments,
            None,
            Gio.DBusCallFlags.NONE,
            int(10000 * SLOW),
            None,
        ).unpack()

    def property(self, name):
        return self.call(
            "org.freedesktop.DBus.Properties", "Get", "ss", "org.a11y.atspi.Accessible", name
        )[0]

    def children(self):
        return [Node(*child) for child in self.call("org.a11y.atspi.Accessible", "GetChildren")[0]]

    def parent(self):
        return Node(*self.property("Parent"))

    def name(self):
        return self.property("Name")

    def role(self):
        role = self.roles.get(self)
        if role is None:
            role = self.roles[self] = self.call("org.a11y.atspi.Accessible", "GetRoleName")[0]
        return role

    def states(self):
        low, high = self.call("org.a11y.atspi.Accessible", "GetState")[0]
        return low | high << 32

    def has(self, state):
        return bool(self.states() >> state & 1)

    def extents(self):
        """Where it is on the screen: (x, y, width, height).

        The toolkit tells nothing but OUT_OF_SIGHT of what is scrolled out of sight, and takes a
        text in a pane of its own for that as soon as anything around the pane is scrolled."""
        extents = tuple(self.call("org.a11y.atspi.Component", "GetExtents", "u", 0)[0])
        if extents[1] == OUT_OF_SIGHT:
            parent = self.parent()
            if parent.role() == "scroll pane":
                return parent.extents()
        return extents

    def text(self):
        return self.call("org.a11y.atspi.Text", "GetText", "ii", 0, -1)[0]

    def character_place(self, offset):
        """Where the character of the text is on the screen, in sight or not."""
        x, y, width, height = self.call(
            "org.a11y.atspi.Text", "GetCharacterExtents", "iu", offset, 0
        )
        return x, y, width, height

    def runs(self):
        """The stretches of a text that have a background of their own: (start, end). The toolkit
        does not tell which."""
        runs, offset = [], 0
        size = self.call(
            "org.freedesktop.DBus.Properties", "Get", "ss", "org.a11y.atspi.Text", "CharacterCount"
        )[0]
        while offset < size:
            attributes, _, end = self.call(
                "org.a11y.atspi.Text", "GetAttributeRun", "ib", offset, False
            )
            if "bg-color" in attributes:
                runs.append((offset, end))
            offset = max(end, offset + 1)
        return runs

    def caret(self):
        return self.call(
            "org.freedesktop.DBus.Properties", "Get", "ss", "org.a11y.atspi.Text", "CaretOffset"
        )[0]

    def process(self):
        return Desktop.current.call_bus("GetConnectionUnixProcessID", "s", self.owner)


def walk(node, in_pane=False):
    """Yields (widget, role) for what is shown below node, also what can be scrolled into sight."""
    for child in node.children():
        states = child.states()
        if not states >> STATE_VISIBLE & 1 or not (in_pane or states >> STATE_SHOWING & 1):
            continue
        role = child.role()
        yield child, role
        yield from walk(child, in_pane or role in ("scroll pane", "viewport"))


class Window:
    """One window of a party's program, at a place of its own on the screen."""

    def __init__(self, party, xid, place):
        self.party = party
        self.desktop = party.desktop
        self.xid = xid
        self.place = place
        self.desktop.xdotool("windowmove", xid, place[0], place[1])
        self.frame = self.desktop.wait(
            self.find_placed_frame, "%s's window is accessible" % party.name
        )

    def find_frame(self):
        """The accessible frame that lies where this window was put."""
        for frame in self.party.frames():
            x, y, _, _ = frame.extents()
            if (x, y) == tuple(self.place):
                return frame
        return None

    def find_placed_frame(self):
        """The same, once the window is there: a window manager that is late puts it elsewhere."""
        frame = self.find_frame()
        if frame is None:
            self.desktop.xdotool("windowmove", self.xid, self.place[0], self.place[1])
        return frame

    # ---- Finding ----

    def find_all(self, name, roles, below=None):
        found = []
        for node, role in walk(below or self.frame, below is not None):
            if role in roles and (name is None or node.name() == name):
                found.append(node)
        return found

    def find(self, name, roles, nth=0):
        found = self.find_all(name, roles)
        return found[nth] if len(found) > nth or (nth < 0 and found) else None

    def wait_for(self, name, roles, nth=0):
        what = '%s sees %s "%s" number %d' % (self.party.name, roles[0], name, nth)
        return self.desktop.wait(lambda: self.find(name, roles, nth), what)

    def count(self, name, roles=ENTRY_ROLES):
        return len(self.find_all(name, roles))

    def labels(self):
        return [node.name() for node in self.find_all(None, LABEL_ROLES)]

    def buttons(self):
        return [node.name() for node in self.find_all(None, BUTTON_ROLES)]

    def scrolled_areas(self, node):
        """The scrolled areas that the widget lies in, the innermost first, and the window."""
        areas = []
        ancestor = node.parent()
        while ancestor.role() != "application":
            if ancestor.role() in ("scroll pane", "frame"):
                areas.append(ancestor)
            ancestor = ancestor.parent()
        return areas

    def visible_part(self, node):
        """What of the widget is in sight: (x, y, width, height)."""
        left, top, width, height = node.extents()
        right, bottom = left + width, top + height
        for area in self.scrolled_areas(node):
            x, y, width, height = area.extents()
            left, top = max(left, x), max(top, y)
            right, bottom = min(right, x + width), min(bottom, y + height)
        return left, top, right - left, bottom - top

    def settled(self, node):
        """The visible part and the whole of the widget, once it stopped moving: pages slide, and a
        long text that was pasted is laid out later. Something else may go on and on in the window,
        so that after a while it is enough that the widget lies still."""
        last = [None, None]
        patience = time.monotonic() + PATIENCE

        def settle():
            is_idle = self.party.main_thread() == last[1]
            parts = self.visible_part(node), node.extents()
            is_still = parts == last[0] and parts[1][2] > 0
            if is_still and (is_idle or time.monotonic() > patience):
                return parts
            last[:] = parts, self.party.main_thread()
            return None

        return self.desktop.wait(settle, '"%s" of %s lies still' % (node.name(), self.party.name))

    def is_below_sight(self, node, area):
        """Whether the widget comes after all that the area shows; rows are stacked vertically."""
        nodes = list(walk(area, True))
        shown = [
            index
            for index, (other, role) in enumerate(nodes)
            if role in ENTRY_ROLES + BUTTON_ROLES + LABEL_ROLES and other.has(STATE_SHOWING)
        ]
        return [other for other, _ in nodes].index(node) > max(shown, default=-1)

    def scroll_to(self, node):
        """Turns the mouse wheel until the widget is in sight; returns a place to press it at."""
        deadline = time.monotonic() + BOUND
        below = None  # of a widget out of sight: where it is looked for
        while True:
            found = self.settled(node)
            (x, y, width, height), whole = found
            if width >= min(whole[2], 16) and height >= min(whole[3], 24):
                return x + width // 2, y + height // 2
            areas = self.scrolled_areas(node)[:-1]
            if not areas or time.monotonic() > deadline:
                self.desktop.fail(
                    '"%s" of %s cannot be brought into sight: %s of %s'
                    % (node.name(), self.party.name, (x, y, width, height), whole)
                )
            left, top, area_width, area_height = areas[-1].extents()
            content = areas[-1].children()[0].children()[0]
            before = content.extents()
            if whole[1] == OUT_OF_SIGHT:
                # Buttons stand beside the top of their text, which may be all that is in sight.
                if below is None:
                    below = self.is_below_sight(node, areas[-1])
                # The display counts places with 16 bits.
                start = before[1] if before[1] < 1 << 14 else before[1] - (1 << 16)
                if below and start + before[3] <= top + area_height:
                    below = False
                elif not below and start >= top:
                    below = True
                turns = 5  # less than a page
            else:
                below = whole[1] + whole[3] // 2 > top + area_height // 2
                turns = 1
            self.desktop.press_at(
                left + area_width // 2, top + area_height // 2, 5 if below else 4, turns
            )
            # A page that had not begun to slide brings the widget into sight by itself.
            self.desktop.wait(
                lambda: content.extents() != before
                or (self.visible_part(node), node.extents()) != found,
                'the wheel moves "%s" of %s' % (node.name(), self.party.name),
            )

    # ---- Acting ----

    def activate(self):
        """Brings the window to the front and gives it the keyboard."""
        if self.desktop.xdotool("getactivewindow") == self.xid:
            return
        self.desktop.xdotool("windowactivate", self.xid)
        self.desktop.wait(
            lambda: self.desktop.xdotool("getactivewindow") == self.xid,
            "%s's window is active" % self.party.name,
        )

    def press_node(self, node, button=1):
        self.activate()
        x, y = self.scroll_to(node)
        self.desktop.press_at(x, y, button)

    def click(self, name, nth=0):
        """Presses the button of that name, once it can be pressed."""

        def ready():
            node = self.find(name, BUTTON_ROLES, nth)
            if node is None or not node.has(STATE_SENSITIVE):
                return None
            return node

        node = self.desktop.wait(
            ready, '%s can press "%s" number %d' % (self.party.name, name, nth)
        )
        self.press_node(node)

    def focus(self, name, nth=0):
        """Clicks into the entry or text of that name and returns it."""
        node = self.wait_for(name, ENTRY_ROLES, nth)
        self.press_node(node)
        self.desktop.wait(
            lambda: node.has(STATE_FOCUSED),
            '"%s" number %d of %s has the keyboard' % (name, nth, self.party.name),
        )
        return node

    def clear(self, name, nth=0):
        node = self.focus(name, nth)
        self.desktop.key("ctrl+a", "BackSpace")
        self.desktop.wait(lambda: node.text() == "", '"%s" is empty' % name)
        return node

    def paste(self, name, text, nth=0):
        """Pastes text in the place of what the entry holds, whatever becomes of it."""
        node = self.clear(name, nth)
        self.desktop.copy(text)
        self.desktop.key("ctrl+v")
        self.desktop.wait(lambda: node.text() != "", '"%s" is no longer empty' % name)

    def enter(self, name, text, nth=0):
        """Puts text in the place of what the entry holds; pastes what has no key of its own."""
        node = self.clear(name, nth)
        if all(" " <= letter <= "~" or letter == "\n" for letter in text) and len(text) < 500:
            self.desktop.type_text(text)
        else:
            self.desktop.copy(text)
            self.desktop.key("ctrl+v")
        if node.role() == "password text":
            self.desktop.wait(
                lambda: len(node.text()) == len(text), "%s typed the password" % self.party.name
            )
        else:
            self.wait_text(name, text, nth)

    def text(self, name, nth=0):
        return self.wait_for(name, ENTRY_ROLES, nth).text()

    def wait_text(self, name, expected, nth=0):
        seen = [None]

        def same():
            node = self.find(name, ENTRY_ROLES, nth)
            seen[0] = node.text() if node else None
            return seen[0] == expected

        try:
            self.desktop.wait(
                same,
                '"%s" number %d of %s shows %r' % (name, nth, self.party.name, short(expected)),
            )
        except Failure as failure:
            raise Failure("%s\n  it shows: %r" % (failure, short(seen[0] or ""))) from None

    def is_sensitive(self, name, nth=0, roles=BUTTON_ROLES):
        node = self.wait_for(name, roles, nth)
        return node.has(STATE_SENSITIVE)

    def wait_sensitive(self, name, expected=True, nth=0):
        self.desktop.wait(
            lambda: self.is_sensitive(name, nth) == expected,
            '"%s" number %d of %s is %s'
            % (name, nth, self.party.name, "sensitive" if expected else "insensitive"),
        )

    def wait_label(self, text):
        self.desktop.wait(lambda: text in self.labels(), '%s reads "%s"' % (self.party.name, text))

    def wait_labels(self, text, count):
        self.desktop.wait(
            lambda: self.labels().count(text) == count,
            '%s reads "%s" %d times' % (self.party.name, text, count),
        )

    def wait_no_label(self, text):
        self.desktop.wait(
            lambda: text not in self.labels(), '%s no longer reads "%s"' % (self.party.name, text)
        )

    # ---- Acting without the mouse ----

    def press(self, name, nth=0):
        """Presses the button of that name, once it can be pressed, the way an assistive program
        does it: wherever the button is, and without giving it or its window the keyboard."""

        def ready():
            node = self.find(name, BUTTON_ROLES + ("radio button",), nth)
            return node if node is not None and node.has(STATE_SENSITIVE) else None

        node = self.desktop.wait(
            ready, '%s can press "%s" number %d' % (self.party.name, name, nth)
        )
        node.call("org.a11y.atspi.Action", "DoAction", "i", 0)

    def put(self, name, text, nth=0):
        """Puts text in the place of what the entry holds, likewise; returns the entry."""
        node = self.wait_for(name, ENTRY_ROLES, nth)
        node.call("org.a11y.atspi.EditableText", "SetTextContents", "s", text)
        self.desktop.wait(
            lambda: node.text() == text,
            '"%s" number %d of %s holds the text' % (name, nth, self.party.name),
        )
        return node

    def give_keyboard(self, node):
        """Gives the widget the keyboard, likewise, in the window that is made active."""
        self.activate()
        node.call("org.a11y.atspi.Component", "GrabFocus")
        self.desktop.wait(
            lambda: node.has(STATE_FOCUSED),
            '"%s" of %s has the keyboard' % (node.name(), self.party.name),
        )

    # ---- The revisions popover ----

    def popover_rows(self):
        """The rows of the open revisions popover: (text, widget)."""
        rows = []
        for row in self.find_all(None, ROW_ROLES):
            labels = self.find_all(None, LABEL_ROLES, row)
            if len(labels) == 1 and (labels[0].name() == "draft" or ":" in labels[0].name()):
                rows.append((labels[0].name(), row))
        return rows

    def revisions(self, nth=0):
        """Opens the nth clause's revisions popover and returns its rows."""
        self.click("Revisions", nth)
        return self.desktop.wait(self.popover_rows, "%s sees the revisions" % self.party.name)

    def close_revisions(self):
        self.desktop.key("Escape")
        self.desktop.wait(
            lambda: not self.popover_rows(), "%s's revisions popover is closed" % self.party.name
        )

    def choose_revision(self, nth, which):
        """Opens the popover, activates the row of that number, or "draft", and closes it if it is
        still open; returns what the row says."""
        rows = self.revisions(nth)
        if which == "draft":
            rows = [row for row in rows if row[0] == "draft"]
            which = 0
        text, row = rows[which]
        self.press_node(row)
        if self.popover_rows():
            self.close_revisions()
        return text

    def open_procedure(self, title):
        """Activates the procedure's row in the list at the left."""

        def find():
            for row in self.find_all(None, ROW_ROLES):
                if any(label.name() == title for label in self.find_all(None, LABEL_ROLES, row)):
                    return row
            return None

        row = self.desktop.wait(find, '%s\'s list shows "%s"' % (self.party.name, title))
        self.press_node(row)
        self.wait_for("Add clause", BUTTON_ROLES)

    # ---- Menus ----

    def menu_items(self):
        """The items of the open context menu, which is a window of its own: name to widget."""
        items = {}
        for frame in self.party.frames():
            if frame.role() != "frame":
                items.update(
                    (node.name(), node) for node, role in walk(frame) if role == "menu item"
                )
        return items

    def wait_menu(self, name):
        """Waits for the context menu with that item and returns all items."""

        def find():
            items = self.menu_items()
            return items if name in items and items[name].extents()[2] > 0 else None

        return self.desktop.wait(find, '%s sees the menu with "%s"' % (self.party.name, name))

    def open_menu(self, node, name):
        """Presses the widget with the secondary button, the way a hand does: it holds the button
        until the menu with that item is there. A press that comes while the last menu's grab of
        the pointer ends is lost, and repeated."""
        for _ in range(5):
            self.activate()
            x, y = self.scroll_to(node)
            self.desktop.xdotool("mousemove", x, y, "mousedown", 3)
            deadline = time.monotonic() + 2 * SLOW
            while name not in self.menu_items() and time.monotonic() < deadline:
                time.sleep(POLL)
            self.desktop.xdotool("mouseup", 3)
            if name in self.menu_items():
                return
        self.desktop.fail('%s sees no menu with "%s"' % (self.party.name, name))

    def press_menu_item(self, name):
        """Presses the item of the context menu that is open, or about to open."""
        x, y, width, height = self.wait_menu(name)[name].extents()
        self.desktop.press_at(x + width // 2, y + height // 2)
        self.desktop.wait(
            lambda: not self.menu_items(), "%s's context menu is closed" % self.party.name
        )

    # ---- Comparison ----

    def compare_with_previous(self, nth=0):
        """Compares the shown revision of the nth clause with the one before, from its menu."""
        name = "Compare with the previous revision"
        self.open_menu(self.wait_for("Clause text", ENTRY_ROLES, nth), name)
        self.press_menu_item(name)
        self.desktop.wait(
            lambda: any(" > " in label for label in self.labels()),
            "%s sees a comparison" % self.party.name,
        )

    def find_tool(self, is_kept):
        """The tool that keeps the words of a change, or removes them; None while there is none."""
        begin = "Keep these words" if is_kept else "Remove these words"
        for node in self.find_all(None, BUTTON_ROLES):
            if node.name().startswith(begin):
                return node
        return None

    def point_at_change(self, run, nth=0):
        """Points at the change of the nth clause, which is compared; returns the tools, what keeps
        the words first, once they lie still just under the line."""
        node = self.wait_for("Clause text", ENTRY_ROLES, nth)
        text = node.text()
        # Somewhere in the run where there is something to point at.
        offset = next(at for at in range(run[0], run[1]) if text[at] != "\n")
        x, y, width, height = node.character_place(offset)
        x, middle, edge = x + width // 2, y + height // 2, node.extents()[0]
        self.activate()
        step = [0]

        def find():
            # When they are shown for the first time they come to their place with the next motion.
            step[0] = 1 - step[0]
            self.desktop.xdotool("mousemove", x + step[0], middle)
            time.sleep(POLL)
            tools = [self.find_tool(True), self.find_tool(False)]
            if not all(tools):
                return None
            left, top = tools[0].extents()[:2]
            right = sum(tools[1].extents()[::2])
            is_centred = left <= x + 2 < right - 20 or left <= edge + 1
            return tools if abs(top - y - height) <= 1 and is_centred and not step[0] else None

        tools = self.desktop.wait(find, "the tools stand just under the line")
        self.settled(tools[0])
        return tools

    def decide_change(self, run, is_kept, nth=0):
        """Points at the change, moves down to the tools as a hand does, and presses one."""
        tool = self.point_at_change(run, nth)[0 if is_kept else 1]
        left, top, width, height = tool.extents()
        x, y = self.desktop.pointer()
        for below in range(y, top + 4, 3):
            self.desktop.xdotool("mousemove", x, below)
        if self.settled(tool)[1] != (left, top, width, height):
            self.desktop.fail("the tools run away from the pointer")
        self.desktop.press_at(left + width // 2, top + height // 3)

    # ---- Contacts ----

    def show_list(self, name):
        """Shows "Procedures" or "Contacts" at the left."""

        def find():
            return next(iter(self.find_all(name, ("radio button",))), None)

        self.press_node(self.desktop.wait(find, "%s can show %s" % (self.party.name, name)))

    def contact_row(self, jid):
        """The row of the contact and what it says, None without one: (row, status)."""
        for row in self.find_all(None, ROW_ROLES):
            labels = [label.name() for label in self.find_all(None, LABEL_ROLES, row)]
            if jid in labels and len(labels) == 2:
                return row, labels[1 - labels.index(jid)]
        return None

    def wait_contact(self, jid, status):
        """Waits until the list of contacts, which is shown, says so; returns the row."""

        def find():
            row, seen = self.contact_row(jid)
            return row if seen == status else None

        return self.desktop.wait(find, "%s sees %s %s" % (self.party.name, jid, status))

    def open_contact(self, jid):
        """Shows the chat with the contact."""
        self.show_list("Contacts")
        row, _ = self.desktop.wait(
            lambda: self.contact_row(jid), "%s has the contact %s" % (self.party.name, jid)
        )
        self.press_node(row)
        self.wait_for("Message", ENTRY_ROLES)

    def say(self, text):
        """Sends a line from the chat page that is shown."""
        self.enter("Message", text)
        self.click("Send")
        self.wait_text("Message", "")

    # ---- Sentences ----

    def login(self, jid=None, password=None):
        """Logs in; without a JID with what the page holds already."""
        if jid is not None:
            self.enter("Account", jid)
            self.enter("Password", password if password is not None else PASSWORDS[jid])
        self.click("Login")
        self.wait_for("New procedure", BUTTON_ROLES)

    def begin(self, title, contractor, expected=None):
        self.click("New procedure")
        self.enter("Procedure title", title)
        self.enter("Contractor", contractor)
        self.click("Begin")
        self.wait_for("Add clause", BUTTON_ROLES)
        self.wait_label(expected or title)

    def add_clause(self):
        """Adds a clause behind all others and returns its number in the view.

        Clauses of one second are in the order of their authors, so that second goes by first."""
        ((latest,),) = self.party.rows("SELECT max(time) FROM clauses")
        self.desktop.wait(
            lambda: time.time() >= (latest or 0) + 1,
            "the second of %s's last clause is over" % self.party.name,
        )
        nth = self.count("Clause text")
        self.click("Add clause")
        self.wait_for("Clause text", ENTRY_ROLES, nth)
        return nth

    def write(self, nth, text):
        self.enter("Clause text", text, nth)

    def commit(self, nth, text=None):
        if text is not None:
            self.write(nth, text)
        before = self.party.count_rows("clause_revisions", "status = 'COMMITTED'")
        self.click("Commit", nth)
        self.desktop.wait(
            lambda: self.party.count_rows("clause_revisions", "status = 'COMMITTED'") > before,
            "%s's revision is stored" % self.party.name,
        )
        self.wait_sensitive("Commit", False, nth)

    def decide(self, name, nth):
        """Presses "Agree" or "Disagree" of the nth clause."""
        self.click(name, nth)
        self.wait_sensitive(name, False, nth)

    def close(self):
        self.activate()
        self.desktop.key("alt+F4")


def short(text, limit=200):
    return text if len(text) <= limit else "%s... (%d characters)" % (text[:limit], len(text))


# ---- Parties ----


class Party:
    """One user: a working directory, a session bus and, between start and end, the program.

    The actions of Window can be called on the party itself: they go to its first window.
    """

    def __init__(self, name, jid=None, place=LEFT, prefilled=True, directory=None):
        self.desktop = Desktop.current
        self.name = name
        self.jid = jid
        self.place = place
        self.directory = directory or tempfile.mkdtemp(
            prefix=name + "-", dir=self.desktop.directory
        )
        os.makedirs(self.directory, exist_ok=True)
        self.store_path = os.path.join(self.directory, ".morvane.db")
        self.console_path = os.path.join(self.directory, "console.log")
        self.errors_path = os.path.join(self.directory, "errors.log")
        self.process = None
        self.others = []
        self.windows = []
        self.bus, self.bus_address = self.desktop.start_bus(
            "session-%s-%d" % (name, len(self.desktop.processes))
        )
        self.expected_end = False
        self.environment = {}  # of the program, beside the desktop's
        self.desktop.parties.append(self)
        if jid and prefilled:
            self.configure(jid, PASSWORDS[jid])

    def __getattr__(self, name):
        if name.startswith("_") or "windows" not in self.__dict__ or not self.windows:
            raise AttributeError(name)
        return getattr(self.windows[0], name)

    def configure(self, jid, password):
        with open(os.path.join(self.directory, ".morvanerc"), "w") as file:
            file.write("bare_jid = %s\npassword = %s\n" % (jid, password))

    # ---- The program ----

    def launch(self):
        environment = dict(self.desktop.environment, **self.environment)
        environment["DBUS_SESSION_BUS_ADDRESS"] = self.bus_address
        with open(self.console_path, "ab") as console, open(self.errors_path, "ab") as errors:
            return start_process(
                [Options.binary],
                cwd=self.directory,
                env=environment,
                stdin=subprocess.DEVNULL,
                stdout=console,
                stderr=errors,
            )

    def start(self):
        """Starts the program and waits for its window."""
        assert self.process is None
        self.expected_end = False
        self.process = self.launch()
        self.windows = []
        self.windows.append(Window(self, self.wait_new_window(), self.place))
        return self

    def start_again(self, place):
        """Starts the program once more on the same bus; returns the new window."""
        self.others.append(self.launch())
        window = Window(self, self.wait_new_window(), place)
        self.windows.append(window)
        return window

    def wait_new_window(self):
        known = {window.xid for window in self.windows}

        def new():
            found = self.desktop.xdotool(
                "search", "--all", "--onlyvisible", "--pid", self.process.pid, "--name", "^Morvane"
            ).split()
            return next((xid for xid in found if xid not in known), None)

        return self.desktop.wait(new, "%s's window opens" % self.name)

    def frames(self):
        for application in Node(REGISTRY, TREE).children():
            if application.process() == self.process.pid:
                return application.children()
        return []

    def main_thread(self):
        """What stays the same as long as the main thread of the program sleeps."""
        with open("/proc/%d/status" % self.process.pid) as file:
            return [line for line in file if line.startswith(("State:", "voluntary", "nonvol"))]

    def check_alive(self, what):
        if self.process is None or self.expected_end or self.process.poll() is None:
            return
        status = self.process.returncode
        self.expected_end = True
        self.desktop.fail(
            "%s's program ended by itself with %d while waiting until %s"
            % (self.name, status, what)
        )

    def wait_end(self, bound=10):
        """Waits until the program has ended in good order and checks what it left behind."""
        self.expected_end = True
        self.desktop.wait(
            lambda: self.process.poll() is not None,
            "%s's program has ended" % self.name,
            bound * SLOW,
        )
        status = self.process.returncode
        self.process = None
        self.windows = []
        if status != 0:
            self.desktop.fail("%s's program ended with %d" % (self.name, status))
        for other in self.others:
            stop_process(other)
        self.others = []
        self.check_errors()

    def close(self):
        """Closes the (only) window with the keyboard and waits for the end of the program."""
        self.expected_end = True
        self.windows[0].close()
        self.wait_end()

    def kill(self):
        """Ends the program with the signal that cannot be caught."""
        self.expected_end = True
        self.process.kill()
        self.process.wait()
        self.process = None
        self.windows = []
        self.check_errors()

    def discard(self):
        """Ends the program without any check."""
        self.expected_end = True
        for process in [self.process] + self.others:
            if process is not None and process.poll() is None:
                process.kill()
                process.wait()
        self.process = None
        self.others = []
        stop_process(self.bus)
        if self in self.desktop.parties:
            self.desktop.parties.remove(self)

    def check_errors(self):
        with open(self.errors_path, errors="replace") as errors:
            found = [line for line in errors if COMPLAINT.search(line)]
        if found:
            self.desktop.fail(
                "%s's program complained on standard error:\n    %s"
                % (self.name, "    ".join(found[:20]))
            )

    def describe(self):
        """What the first window shows, in one line, for a failure's report."""
        try:
            window = self.windows[0]
            return "labels %r, buttons %r" % (window.labels(), window.buttons())
        except Exception as error:
            return "nothing (%s)" % error

    # ---- Console ----

    def console(self, start=0):
        with open(self.console_path, "rb") as console:
            console.seek(start)
            return console.read().decode(errors="replace")

    def console_mark(self):
        return os.path.getsize(self.console_path)

    def check_negotiation_warnings(self):
        """Fails when something of the other party's, or of the program's own, was out of place."""
        warnings = [
            line
            for line in self.console().splitlines()
            if re.match("Warning: (A clause|Received|Trying|Got|Expected)", line)
        ]
        if warnings:
            self.desktop.fail("%s's console warns: %s" % (self.name, warnings))

    def wait_console(self, text, start=0):
        self.desktop.wait(
            lambda: text in self.console(start), "%s's console says %r" % (self.name, text)
        )

    # ---- Store ----

    def rows(self, statement, *values):
        """The rows of a query on the store, read only. A store in use by a dead program (a hot
        journal) is read from a copy, so that nothing here repairs it before the program does."""
        path = self.store_path
        if self.process is None and os.path.exists(path + "-journal"):
            copy = os.path.join(self.directory, "copy.db")
            shutil.copyfile(path, copy)
            shutil.copyfile(path + "-journal", copy + "-journal")
            connection = sqlite3.connect(copy)
        else:
            connection = sqlite3.connect("file:%s?mode=ro" % path, uri=True, timeout=5)
        try:
            connection.text_factory = lambda data: data.decode("utf-8", "surrogateescape")
            return connection.execute(statement, values).fetchall()
        finally:
            connection.close()

    def count_rows(self, table, condition="1"):
        return self.rows("SELECT count(*) FROM %s WHERE %s" % (table, condition))[0][0]

    def wait_rows(self, table, count, condition="1"):
        seen = [None]

        def enough():
            seen[0] = self.count_rows(table, condition)
            return seen[0] == count

        try:
            self.desktop.wait(
                enough,
                "%s's store has %d rows of %s where %s" % (self.name, count, table, condition),
            )
        except Failure as failure:
            raise Failure("%s\n  it has %s" % (failure, seen[0])) from None

    def drafts(self):
        return [
            text
            for (text,) in self.rows(
                "SELECT text FROM clause_revisions WHERE status = 'DRAFT' ORDER BY db_id"
            )
        ]

    def negotiation(self):
        """What both parties must share, free of row ids, of positions and of decision times.

        A clause without a committed revision is known to its initiator alone and left out, and so
        are drafts."""
        procedures = []
        for procedure in self.rows(
            "SELECT db_id, time, initiator, contractor, title" " FROM procedures"
        ):
            clauses = []
            for clause in self.rows(
                "SELECT db_id, time, initiator FROM clauses" " WHERE procedure_db_id = ?",
                procedure[0],
            ):
                revisions = []
                for revision in self.rows(
                    "SELECT db_id, time, author, status, text FROM clause_revisions"
                    " WHERE clause_db_id = ? AND status = 'COMMITTED'",
                    clause[0],
                ):
                    decisions = sorted(
                        self.rows(
                            "SELECT author, status FROM clause_revision_decisions"
                            " WHERE clause_revision_db_id = ?",
                            revision[0],
                        )
                    )
                    revisions.append(revision[1:] + (tuple(decisions),))
                if revisions:
                    clauses.append(clause[1:] + (tuple(sorted(revisions)),))
            procedures.append(procedure[1:] + (tuple(sorted(clauses)),))
        return tuple(sorted(procedures))

    def everything(self):
        """Every row of every table, to compare a store with itself."""
        tables = [
            name
            for (name,) in self.rows(
                "SELECT name FROM sqlite_master WHERE type = 'table' ORDER BY name"
            )
        ]
        return {table: self.rows("SELECT * FROM %s ORDER BY 1" % table) for table in tables}

    def everything_at_rest(self):
        """The same once all is delivered: the outbox's table goes a second after its last row."""
        self.desktop.wait(lambda: "outbox" not in self.everything(), "all is delivered")
        return self.everything()

    def positions(self, mine):
        """The positions of the clauses that this party opened, or that it received."""
        return [
            position
            for (position,) in self.rows(
                "SELECT position FROM clauses WHERE (initiator = ?) = ? ORDER BY db_id",
                self.jid,
                int(mine),
            )
        ]


def wait_same(one, other):
    """Waits until both parties hold the same negotiation and returns it."""
    desktop = Desktop.current
    try:
        desktop.wait(
            lambda: one.negotiation() == other.negotiation(),
            "%s and %s hold the same" % (one.name, other.name),
        )
    except Failure as failure:
        raise Failure(
            "%s\n  %s: %s\n  %s: %s"
            % (
                failure,
                one.name,
                short(repr(one.negotiation()), 3000),
                other.name,
                short(repr(other.negotiation()), 3000),
            )
        ) from None
    return one.negotiation()


# ---- Servers ----


class Server:
    """A private server for alpha.test with the accounts of anna and bert: Prosody, or another kind
    that scripts/server knows, which gets the options.

    Stopped and started again it still has what it keeps for those who are offline."""

    def __init__(self, name="prosody", options=(), host=HOST, jids=(ANNA, BERT)):
        self.desktop = Desktop.current
        self.directory = tempfile.mkdtemp(prefix="server-", dir=self.desktop.directory)
        self.process = None
        self.name = name
        self.options = list(options)
        self.host = host
        self.accounts = ["%s:%s" % (jid.split("@")[0], PASSWORDS[jid]) for jid in jids]

    def start(self):
        script = os.path.join(ROOT, "scripts", "server")
        self.process = start_process(
            [script, self.name] + self.options + [self.directory, self.host] + self.accounts,
            stdout=subprocess.PIPE,
            text=True,
        )
        line = self.process.stdout.readline()
        if not line.startswith("ready"):
            raise Failure("the server did not start: " + line)

    def stop(self):
        stop_process(self.process)
        self.process = None


class Stranger:
    """A server in Prosody's place that takes connections and lets them wait, or, when it is given
    the name of a certificate of the world, upgrades them to TLS with it and then lets them wait.
    What comes over TLS is kept in heard."""

    def __init__(self, certificate=None):
        self.certificate = certificate
        self.accepted = 0
        self.heard = b""
        self.peers = []
        self.context = self.make_context() if certificate else None
        self.listener = socket.create_server(("127.0.0.1", 5222))
        threading.Thread(target=self.serve, daemon=True).start()

    def make_context(self):
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        path = os.path.join(os.environ["MORVANE_WORLD"], self.certificate)
        context.load_cert_chain(path + ".crt", path + ".key")
        return context

    def serve(self):
        while True:
            try:
                peer, _ = self.listener.accept()
            except OSError:
                return
            self.accepted += 1
            self.peers.append(peer)
            if self.context:
                threading.Thread(target=self.upgrade, args=(peer,), daemon=True).start()

    def upgrade(self, peer):
        try:
            self.read_until(peer, b">", 2)
            peer.sendall(
                b"<?xml version='1.0'?><stream:stream id='1' xmlns='jabber:client' "
                b"xmlns:stream='http://etherx.jabber.org/streams' version='1.0' from='%s'>"
                b"<stream:features><starttls xmlns='urn:ietf:params:xml:ns:xmpp-tls'><required/>"
                b"</starttls></stream:features>" % HOST.encode()
            )
            self.read_until(peer, b"starttls", 1)
            peer.sendall(b"<proceed xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>")
            secure = self.context.wrap_socket(peer, server_side=True)
            self.peers.append(secure)
            while True:
                data = secure.recv(4096)
                if not data:
                    return
                self.heard += data
        except OSError:
            pass

    @staticmethod
    def read_until(peer, mark, count):
        data = b""
        while data.count(mark) < count:
            more = peer.recv(4096)
            if not more:
                raise OSError("closed")
            data += more

    def stop(self):
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()
        for peer in self.peers:
            peer.close()


# ---- Test programs ----


class Options:
    binary = None


class Case(unittest.TestCase):
    """A test with a fresh server; its parties are ended with it, and their errors looked at."""

    with_server = True
    server_name = "prosody"
    server_options = ()

    def setUp(self):
        print("\n%s: %s" % (self.id().split(".")[-1], self.shortDescription() or ""), flush=True)
        self.desktop = Desktop.current
        self.server = None
        if self.with_server:
            self.server = Server(self.server_name, self.server_options)
        if self.server:
            self.server.start()

    def tearDown(self):
        complaint = None
        for party in list(self.desktop.parties):
            try:
                party.check_errors()
            except Failure as failure:
                complaint = failure
            party.discard()
        if self.server:
            self.server.stop()
        if complaint:
            raise complaint

    def says(self, text):
        print("  " + text, flush=True)

    def anna(self, **options):
        return Party("anna", ANNA, LEFT, **options)

    def bert(self, **options):
        return Party("bert", BERT, RIGHT, **options)


def find_binary(given):
    binary = (
        given
        or os.environ.get("MORVANE_BINARY")
        or os.path.join(ROOT, "build", "release", "morvane")
    )
    if not os.access(binary, os.X_OK):
        sys.exit("There is no program at " + binary)
    return os.path.abspath(binary)


def main(hosts=None):
    """Runs the calling script's tests in a desktop of their own, and in a world of these hosts."""
    parser = argparse.ArgumentParser()
    parser.add_argument("--binary", help="the program, by default build/release/morvane")
    parser.add_argument("tests", nargs="*", help="names of single tests")
    arguments = parser.parse_args()
    Options.binary = find_binary(arguments.binary)
    enter_world(hosts)
    Desktop()
    program = unittest.main(argv=[sys.argv[0]] + arguments.tests, exit=False, verbosity=1)
    Desktop.current.stop()
    sys.exit(0 if program.result.wasSuccessful() else 1)


def enter_world(hosts=None):
    """Goes on in a network of its own, where alpha.test is this machine, if it is not there yet."""
    if "MORVANE_WORLD" in os.environ:
        return
    world = os.path.join(ROOT, "scripts", "world")
    sys.stdout.flush()
    environment = {name: value for name, value in os.environ.items() if name != "DISPLAY"}
    options = ["--hosts", hosts] if hosts else []
    os.execve(world, [world] + options + ["--", sys.executable] + sys.argv, environment)


if __name__ == "__main__" and sys.argv[1:] == ["clipboard"]:
    serve_clipboard()
