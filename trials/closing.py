#!/usr/bin/python3
"""Windows closed at every point of login, registration and session, alone and beside others.

Real windows stand in front of a scripted server that stops at the point in question: it reads on
and says no more. The window is closed as a user does it, with the keyboard. Then the program must
end with status 0, or go on with its other window, and write nothing on standard error. The long
form tries the programs with the address and the thread sanitizer, too, where a record that is used
after its window, or by two threads at once, would be told.
"""

import ctypes
import os
import random
import socket
import subprocess
import sys
import time

import hostile_wire
from trial import ROOT, Trial

import driver
import tls_server
from driver import ANNA, BERT, BUTTON_ROLES, ENTRY_ROLES, HOST
from tls_server import Gone, Server, login_script, register_script

BOUND = 2.0  # seconds from the key that closes to the end of the program
PATIENCE = 20.0  # how long a program that takes longer is waited for
ATTEMPTS = 3  # of a case that took longer: a busy machine is late once, a program that hangs always
CARLA = "carla@" + HOST

# The programs that are tried, by the folders that they are built in; only the first one is judged by
# its speed.
RELEASE = "as installed"
KINDS = {"release": RELEASE, "asan": "address sanitizer", "tsan": "thread sanitizer"}
SLOWNESS = {"release": 1, "asan": 3, "tsan": 6}
TIMES = {}  # what each program took, row by row

LOGIN_POINTS = (
    "header received",
    "header sent",
    "starttls received",
    "half of proceed",
    "proceed sent",
    "half of the handshake",
    "first TLS header received",
    "first TLS header sent",
    "auth received",
    "half of success",
    "second TLS header received",
    "second TLS header sent",
    "bind received",
    "half of bind",
    "roster received",
    "half of roster",
    "presence received",
)
REGISTER_POINTS = LOGIN_POINTS[:8] + (
    "register query received",
    "half of register query",
    "register answer received",
    "half of register answer",
)
MESSAGE = "<message from='%s/boat' to='%s' type='chat'><body>%s</body></message>"


class Tally:
    """The outcomes of the cases of one row."""

    def __init__(self, kind):
        self.kind = kind
        self.is_timed = kind == RELEASE
        self.good = 0
        self.bad = []
        self.slowest = 0.0
        self.late = 0

    def add(self, what, problem, seconds):
        """Counts one case; a problem is a text, None without one."""
        self.slowest = max(self.slowest, seconds)
        if problem:
            self.bad.append("%s: %s" % (what, problem))
        else:
            self.good += 1

    def report(self, trial, what):
        """The row; what took longest is kept for the figures."""
        count = self.good + len(self.bad)
        expected = "%d in good order" % count
        if self.is_timed:
            expected += ", each within 2 s"
        seen = "%d%s" % (self.good, expected[len(str(count)) :])
        if self.bad:
            seen += "; " + "; ".join(self.bad)
        trial.check("%s: %s" % (self.kind, what), expected, seen)
        TIMES.setdefault(self.kind, []).append((self.slowest, count, self.late, what))


def report_times(trial):
    """How long the closings of each program took."""
    for kind, rows in TIMES.items():
        trial.figure("%s: closings" % kind, sum(count for _, count, _, _ in rows))
        trial.figure(
            "%s: the slowest in each row, from the key to the end" % kind,
            ", ".join("%.2f s" % slowest for slowest, _, _, _ in rows),
        )
        late = sum(late for _, _, late, _ in rows)
        if late:
            trial.figure("%s: closings that were repeated because they took over 2 s" % kind, late)


# ---- Closing ----


class ClientMessage(ctypes.Structure):
    """Xlib's XClientMessageEvent, in the room of an XEvent."""

    _fields_ = [
        ("type", ctypes.c_int),
        ("serial", ctypes.c_ulong),
        ("send_event", ctypes.c_int),
        ("display", ctypes.c_void_p),
        ("window", ctypes.c_ulong),
        ("message_type", ctypes.c_ulong),
        ("format", ctypes.c_int),
        ("data", ctypes.c_long * 5),
        ("rest", ctypes.c_long * 12),
    ]


def ask_to_close(window):
    """Has the window manager close the window, as a task bar does (EWMH, _NET_CLOSE_WINDOW). Unlike
    the keys, which the window manager grabs, this takes the focus from nothing beforehand."""
    xlib = ctypes.CDLL("libX11.so.6")
    xlib.XOpenDisplay.restype = ctypes.c_void_p
    xlib.XDefaultRootWindow.restype = xlib.XInternAtom.restype = ctypes.c_ulong
    display = ctypes.c_void_p(xlib.XOpenDisplay(window.desktop.environment["DISPLAY"].encode()))
    root = xlib.XDefaultRootWindow(display)
    event = ClientMessage(
        type=33,
        send_event=1,
        window=int(window.xid),
        format=32,
        message_type=xlib.XInternAtom(display, b"_NET_CLOSE_WINDOW", 0),
    )
    event.data[1] = 2  # from a pager
    substructure = 1 << 19 | 1 << 20
    xlib.XSendEvent(
        display, ctypes.c_ulong(root), 0, ctypes.c_long(substructure), ctypes.byref(event)
    )
    xlib.XCloseDisplay(display)


def close_window(party, window=None, has_keys=True):
    """Closes the window (the first one) with the keys or without, and waits for the end of the
    program, or until it goes on with its other window. Returns (what was wrong or None, the seconds
    that it took)."""
    window = window or party.windows[0]
    party.expected_end = True
    process = party.process
    remaining = len(party.windows) - 1
    window.activate()
    start = time.monotonic()
    if has_keys:
        window.desktop.key("alt+F4")
    else:
        ask_to_close(window)
    while time.monotonic() - start < PATIENCE * driver.SLOW:
        if remaining and has_other_windows(party, remaining):
            seconds = time.monotonic() - start
            party.windows.remove(window)
            party.expected_end = False
            return None, seconds
        if process.poll() is not None:
            break
        time.sleep(0.002)
    seconds = time.monotonic() - start
    if process.poll() is None:
        party.kill()
        return "still there after %.0f s" % seconds, seconds
    party.process = None
    party.windows = []
    if process.returncode or remaining:
        return "ended with status %d: %s" % (process.returncode, last_errors(party)), seconds
    try:
        party.check_errors()
    except driver.Failure:
        return "complained: " + last_errors(party), seconds
    return None, seconds


def has_other_windows(party, count):
    """Whether the program answers from its main loop that it has so many windows."""
    try:
        return len(party.frames()) == count
    except Exception:  # it may just be ending
        return False


def last_errors(party):
    """What a sanitizer or an assertion said first, or the last words on standard error."""
    with open(party.errors_path, encoding="utf-8", errors="replace") as errors:
        found = next((line for line in errors if driver.COMPLAINT.search(line)), None)
    return driver.short(" ".join((found or driver.tail(party.errors_path, 6)).split()), 300)


def try_case(tally, what, case):
    """Runs case(), which returns what close_window does; again when it was only late."""
    for _ in range(ATTEMPTS):
        problem, seconds = case()
        if problem or not tally.is_timed or seconds <= BOUND:
            break
        tally.late += 1
    if not problem and tally.is_timed and seconds > BOUND:
        problem = "took %.2f s" % seconds
    tally.add(what, problem, seconds)


def new_party(jid=ANNA, place=driver.LEFT, prefilled=True):
    return driver.Party("user", jid, place, prefilled=prefilled)


def wait_point(server, name, index=0):
    """Waits until the script of that connection is at the point."""
    driver.Desktop.current.wait(
        lambda: len(server.links) > index and server.links[index].reached == name,
        'the server is at "%s"' % name,
    )


def end(party, server):
    """Forgets both; a script that failed is a fault of the trial."""
    party.discard()
    server.close()
    if server.errors():
        raise driver.Failure("a script failed: %s" % server.errors())


# ---- One window ----


def close_at_login(point, context):
    """Closes at a point of a login."""
    server = Server(login_script(ANNA, context), stops=[point])
    party = new_party().start()
    party.press("Login")
    wait_point(server, point)
    outcome = close_window(party)
    end(party, server)
    return outcome


def begin_registration(party, jid):
    """Fills in the registration page and presses its button."""
    party.press("Register")
    party.wait_for("New account", ENTRY_ROLES)
    party.put("New account", jid)
    for name in ("New password", "New password (again)"):
        party.wait_for(name, ENTRY_ROLES).call(
            "org.a11y.atspi.EditableText", "SetTextContents", "s", "new-secret"
        )
    party.press("Register")


def close_at_registration(point, context, is_cancelled=False):
    """Closes at a point of a registration, or right after it was cancelled there."""
    server = Server(register_script(HOST, context), stops=[point])
    party = new_party(CARLA, prefilled=False).start()
    begin_registration(party, CARLA)
    wait_point(server, point)
    if is_cancelled:
        party.press("Cancel")
    outcome = close_window(party)
    end(party, server)
    return outcome


def open_session(party, server):
    """Logs in; the main page is shown."""
    party.press("Login")
    party.wait_for("New procedure", BUTTON_ROLES)
    driver.Desktop.current.wait(
        lambda: server.links[0].reached == "session" or server.links[0].is_over,
        "the session has begun",
    )


def break_off(link):
    """The server is gone."""
    link.peer.close()
    raise Gone


def half_stanza(link):
    """One stanza and a half."""
    text = MESSAGE % (BERT, ANNA, "whole") + MESSAGE % (BERT, ANNA, "half")
    link.send(text[:-20])


def half_record(link):
    """One stanza, and another's record without its last bytes."""
    link.send(MESSAGE % (BERT, ANNA, "whole"))
    link.send_bytes(link.encrypt(MESSAGE % (BERT, ANNA, "cut"))[:-30])


def some_stanzas(link):
    """A few whole stanzas."""
    for number in range(20):
        link.send(MESSAGE % (BERT, ANNA, "number %d" % number))


# What a server does in the session: (in words, what it sends first, the point it stops at).
SESSIONS = (
    ("the server answers", None, None),
    ("no answer to the farewell", None, "session"),
    ("within a stanza", half_stanza, "session"),
    ("within a TLS record", half_record, "session"),
    ("between stanzas", some_stanzas, "session"),
    ("the server is gone", break_off, None),
)


def close_in_session(what, context):
    """Closes in a session."""
    _, first, point = next(entry for entry in SESSIONS if entry[0] == what)
    server = Server(login_script(ANNA, context, first), stops=[point])
    party = new_party().start()
    open_session(party, server)
    if first is break_off:
        party.wait_console("Disconnected.\n")
    outcome = close_window(party)
    end(party, server)
    return outcome


def close_at_random(randomness, context):
    """Closes at a moment of a login that goes on, or of its first second in the session."""
    server = Server(login_script(ANNA, context))
    party = new_party().start()
    party.windows[0].activate()
    party.press("Login")
    time.sleep(randomness.uniform(0, 0.25 * driver.SLOW))
    outcome = close_window(party)
    end(party, server)
    return outcome


def close_while_connecting(context, is_beside):
    """Closes while the operating system still tries to connect: nobody takes the connection, and
    the queue of those that wait is full. A window beside it logs in behind that, while the attempt
    that was left behind comes to its end."""
    listener = socket.create_server(("127.0.0.1", tls_server.PORT), backlog=0)
    waiting = [listener]
    for _ in range(4):
        peer = socket.socket()
        peer.setblocking(False)
        peer.connect_ex(("127.0.0.1", tls_server.PORT))
        waiting.append(peer)
    party = new_party().start()
    second = party.start_again(driver.RIGHT) if is_beside else None
    party.press("Login")
    driver.Desktop.current.wait(
        lambda: has_pending_connection(party.process.pid), "the program connects"
    )
    problem, seconds = close_window(party)
    for peer in waiting:
        peer.close()
    server = Server(login_script(ANNA, context))
    if second and not problem:
        second.press("Login")
        second.wait_for("New procedure", BUTTON_ROLES)
        party.desktop.wait(
            lambda: not has_pending_connection(party.process.pid),
            "the attempt that was left behind is over",
        )
        problem, more = close_window(party, second)
        seconds = max(seconds, more)
    end(party, server)
    return problem, seconds


def has_pending_connection(pid):
    """Whether a socket of the process waits for its connection: 02 is SYN-SENT."""
    own = set()
    for number in os.listdir("/proc/%d/fd" % pid):
        try:
            target = os.readlink("/proc/%d/fd/%s" % (pid, number))
        except FileNotFoundError:  # just closed
            continue
        if target.startswith("socket:["):
            own.add(target[8:-1])
    with open("/proc/%d/net/tcp" % pid, encoding="ascii") as table:
        rows = [line.split() for line in table.readlines()[1:]]
    return any(row[3] == "02" and row[9] in own for row in rows)


def try_one_window(trial, kind, context):
    """The rows of a single window."""
    step = 3 if trial.short else 1
    tally = Tally(kind)
    for point in LOGIN_POINTS[::step]:
        try_case(tally, point, lambda point=point: close_at_login(point, context))
    tally.report(trial, "closed at %d points of a login" % len(LOGIN_POINTS[::step]))

    tally = Tally(kind)
    points = REGISTER_POINTS[step // 2 :: step]
    for point in points:
        try_case(tally, point, lambda point=point: close_at_registration(point, context))
    for point in points[::4]:
        try_case(
            tally,
            point + ", cancelled",
            lambda point=point: close_at_registration(point, context, True),
        )
    tally.report(trial, "closed at %d points of a registration, and after its cancel" % len(points))

    tally = Tally(kind)
    for entry in SESSIONS:
        try_case(tally, entry[0], lambda entry=entry: close_in_session(entry[0], context))
    tally.report(trial, "closed in a session: " + ", ".join(entry[0] for entry in SESSIONS))

    tally = Tally(kind)
    try_case(tally, "alone", lambda: close_while_connecting(context, False))
    try_case(tally, "beside another", lambda: close_while_connecting(context, True))
    tally.report(
        trial,
        "closed while nobody takes the connection, alone and beside a window that " "logs in then",
    )

    randomness = random.Random(4)
    tally = Tally(kind)
    count = 6 if trial.short else 60 if kind == RELEASE else 20
    for number in range(count):
        try_case(tally, "login %d" % number, lambda: close_at_random(randomness, context))
    tally.report(trial, "closed at %d random moments of a login that goes on" % count)


def choose(points, kind):
    """Fewer points for the slower programs where what they could find lies in two windows, not in
    the point."""
    return points[: -1 : 1 if kind == RELEASE else 3] + points[-1:]


# ---- A burst ----


def flood(link):
    """Bert comes, and talks as fast as the network takes it, for as long as anyone listens."""
    link.send("<presence from='%s/boat' to='%s'/>" % (BERT, ANNA))
    number = 0
    while True:
        link.send(
            "".join(MESSAGE % (BERT, ANNA, "number %d" % (number + index)) for index in range(20))
        )
        number += 20


def close_in_burst(context, sizes):
    """Closes while messages come in faster than they can be stored."""
    server = Server(login_script(ANNA, context, flood))
    party = new_party().start()
    party.press("Login")
    party.desktop.wait(
        lambda: os.path.exists(party.store_path) and party.count_rows("contact_messages") >= 100,
        "the burst is being stored",
    )
    outcome = close_window(party)
    rows = party.rows("SELECT body FROM contact_messages ORDER BY db_id")
    whole = [("number %d" % number,) for number in range(len(rows))]
    state = party.rows("PRAGMA integrity_check")
    sizes.append(len(rows))
    end(party, server)
    if outcome[0] is None and (rows != whole or state != [("ok",)]):
        return "what was stored is not the front of what was sent", outcome[1]
    return outcome


def try_burst(trial, kind, context):
    """Closing in the middle of a burst."""
    tally, sizes = Tally(kind), []
    count = 1 if trial.short else 5
    for number in range(count):
        try_case(tally, "burst %d" % number, lambda: close_in_burst(context, sizes))
    tally.report(
        trial, "closed %d times in a burst without an end; the store holds its front" % count
    )
    if kind == RELEASE:
        trial.figure(
            "%s: messages stored of each burst when it was closed" % kind,
            ", ".join(str(size) for size in sizes),
        )


# ---- What waits at the server ----

PROCEDURE = (
    "<message to='%s' type='chat'><body><x-procedure procedure='%s:%d'>Waiting %d"
    "</x-procedure></body></message>"
)


def count_waiting(server):
    """How many stanzas Prosody keeps for Anna."""
    path = os.path.join(server.directory, "data", HOST.replace(".", "%2e"), "offline", "anna.list")
    if not os.path.exists(path):
        return 0
    with open(path, encoding="utf-8") as file:
        return sum(line.startswith("item(") for line in file)


def close_with_backlog(count, lost, options=()):
    """Closes as soon as the main page is there, while what came in the meantime still comes in. Each
    of it is afterwards either in the store or still at the server."""
    server = driver.Server(options=options)
    server.start()
    wire = hostile_wire.login_peer(HOST, "bert", driver.PASSWORDS[BERT])
    wire.send(
        "".join(PROCEDURE % (ANNA, BERT, 1000 + number, number) for number in range(count)).encode()
    )
    driver.Desktop.current.wait(lambda: count_waiting(server) == count, "all of it waits")
    party = new_party().start()
    party.press("Login")
    party.wait_for("New procedure", BUTTON_ROLES)
    outcome = close_window(party)
    stored = party.rows("SELECT title FROM procedures")
    # The server takes back what was not acknowledged when it sees that the connection has ended.
    deadline = time.monotonic() + driver.BOUND
    while len(stored) + count_waiting(server) < count and time.monotonic() < deadline:
        time.sleep(0.01)
    waiting = count_waiting(server)
    lost.append((len(stored), waiting))
    wire.close()
    party.discard()
    server.stop()
    if outcome[0] is None and len(set(stored)) != len(stored):
        return "stored twice", outcome[1]
    if outcome[0] is None and len(stored) + waiting != count:
        return (
            "%d stored and %d still at the server, of %d" % (len(stored), waiting, count),
            outcome[1],
        )
    return outcome


def try_backlog(trial, kind):
    """Closing right after a login that brings much. What is here is stored however long it takes."""
    count = 1 if trial.short else 5
    for options in ([], ["--stream-management"]):
        tally, lost = Tally(kind), []
        tally.is_timed = False
        for number in range(count):
            try_case(tally, "backlog %d" % number, lambda: close_with_backlog(300, lost, options))
        management = "with stream management" if options else "without stream management"
        tally.report(
            trial,
            "%s, closed %d times at once with 300 stanzas waiting; none is lost"
            % (management, count),
        )
        if kind == RELEASE:
            trial.figure(
                "%s: %s, stored, and still at the server, of each 300" % (kind, management),
                ", ".join("%d and %d" % pair for pair in lost),
            )


# ---- Two windows ----


def close_beside_another(point, context):
    """The first window is closed at a point of its login, while the second one does the same; then
    the second is let go on, gets a message, and is closed."""

    def talk(link):
        link.send("<presence from='%s/boat' to='%s'/>" % (CARLA, BERT))
        link.send(MESSAGE % (CARLA, BERT, "still there"))

    server = Server(
        login_script(ANNA, context), login_script(BERT, context, talk), stops=[point, point]
    )
    party = new_party().start()
    second = party.start_again(driver.RIGHT)
    party.press("Login")
    wait_point(server, point)
    second.put("Account", BERT)
    second.press("Login")
    wait_point(server, point, 1)
    problem, seconds = close_window(party)
    if not problem:
        server.links[1].go_on.set()
        second.wait_for("New procedure", BUTTON_ROLES)
        party.wait_rows("contact_messages", 1, "body = 'still there'")
        problem, more = close_window(party, second)
        seconds = max(seconds, more)
    end(party, server)
    return problem, seconds


def close_while_other_negotiates(context):
    """The first window is closed while the second one's session is fed all the time; the second one
    then holds all that was sent to it."""
    count = 200

    def talk(link):
        link.send("<presence from='%s/boat' to='%s'/>" % (CARLA, BERT))
        for number in range(count):
            link.send(MESSAGE % (CARLA, BERT, "number %d" % number))

    server = Server(login_script(ANNA, context), login_script(BERT, context, talk))
    party = new_party().start()
    second = party.start_again(driver.RIGHT)
    party.press("Login")
    party.wait_for("New procedure", BUTTON_ROLES)
    second.put("Account", BERT)
    second.press("Login")
    party.desktop.wait(lambda: party.count_rows("contact_messages"), "the second is being fed")
    problem, seconds = close_window(party)
    if not problem:
        party.wait_rows("contact_messages", count)
        problem, more = close_window(party, second)
        seconds = max(seconds, more)
    rows = party.rows("SELECT body FROM contact_messages ORDER BY db_id")
    end(party, server)
    if not problem and rows != [("number %d" % number,) for number in range(count)]:
        problem = "the other window's messages are not all there, in order"
    return problem, seconds


def try_two_windows(trial, kind, context):
    """The rows of two windows in one program."""
    tally = Tally(kind)
    points = LOGIN_POINTS[5::6] if trial.short else choose(LOGIN_POINTS, kind)
    for point in points:
        try_case(tally, point, lambda point=point: close_beside_another(point, context))
    tally.report(
        trial,
        "two windows at each of %d points of a login: one closed, the other goes on, "
        "then closed" % len(points),
    )
    tally = Tally(kind)
    for number in range(1 if trial.short else 5):
        try_case(tally, "time %d" % number, lambda: close_while_other_negotiates(context))
    tally.report(
        trial, "one of two windows closed while the other gets 200 messages; it has them all"
    )


# ---- Register during login, and the reverse ----

ANOTHER = "Another attempt is still running"


def register_during_login(point, context):
    """Registration is tried while a login waits; then the login goes on, from either page."""
    server = Server(login_script(ANNA, context), stops=[point])
    party = new_party().start()
    party.press("Login")
    wait_point(server, point)
    begin_registration(party, CARLA)
    party.wait_label(ANOTHER)
    connections = len(server.links)
    server.links[0].go_on.set()
    party.wait_for("New procedure", BUTTON_ROLES)
    accounts = party.rows("SELECT bare_jid FROM accounts")
    problem, seconds = close_window(party)
    end(party, server)
    if not problem and (connections != 1 or accounts != [(ANNA,)]):
        problem = "%d connections, accounts %s" % (connections, accounts)
    return problem, seconds


def register_after_refused_login(context):
    """The login is refused while the registration page is shown; the registration works then."""

    def refuse(link):
        tls_server.ask_for_tls(link, HOST)
        link.begin_tls(context)
        tls_server.open_stream_over_tls(link, HOST, "first", tls_server.MECHANISMS)
        link.expect("</auth>")
        link.point("auth received")
        link.send("<failure xmlns='urn:ietf:params:xml:ns:xmpp-sasl'/>")
        link.hold()

    server = Server(refuse, register_script(HOST, context), stops=["auth received"])
    party = new_party().start()
    party.press("Login")
    wait_point(server, "auth received")
    begin_registration(party, CARLA)
    party.wait_label(ANOTHER)
    server.links[0].go_on.set()
    party.desktop.wait(lambda: server.links[0].is_over, "the login has ended")
    party.press("Register")
    party.wait_for("Account", ENTRY_ROLES)
    party.wait_text("Account", CARLA)
    outcome = close_window(party)
    end(party, server)
    return outcome


def login_during_registration(point, context):
    """The registration is cancelled at a point, and a login begun at once; then closed."""
    server = Server(register_script(HOST, context), login_script(ANNA, context), stops=[point])
    party = new_party().start()
    begin_registration(party, CARLA)
    wait_point(server, point)
    party.press("Cancel")
    party.wait_for("Account", ENTRY_ROLES)
    start = time.monotonic()

    def logged_in():
        if party.find("New procedure", BUTTON_ROLES):
            return True
        if ANOTHER in party.labels():  # the worker has not left yet
            party.press("Login")
        return False

    party.press("Login")
    party.desktop.wait(logged_in, "the login works")
    waited = time.monotonic() - start
    accounts = party.rows("SELECT bare_jid FROM accounts")
    problem, seconds = close_window(party)
    end(party, server)
    if not problem and accounts != [(ANNA,)]:
        problem = "accounts %s" % accounts
    return problem, max(seconds, waited)


def try_crossed(trial, kind, context):
    """Register during login, and login during registration."""
    tally = Tally(kind)
    points = LOGIN_POINTS[2::9] if trial.short else choose(LOGIN_POINTS[:13], kind)
    for point in points:
        try_case(tally, point, lambda point=point: register_during_login(point, context))
    tally.report(
        trial,
        "register pressed at %d points of a login: refused with a text, the login "
        "goes on" % len(points),
    )
    tally = Tally(kind)
    points = REGISTER_POINTS[2::9] if trial.short else choose(REGISTER_POINTS, kind)
    try_case(tally, "refused login", lambda: register_after_refused_login(context))
    for point in points:
        try_case(tally, point, lambda point=point: login_during_registration(point, context))
    tally.report(
        trial,
        "login right after a cancel at %d points of a registration, and a "
        "registration right after a refused login" % len(points),
    )


# ---- Unsent typing ----


def close_while_typing(context, what, has_keys):
    """Closes with the keyboard in a clause's text that was never saved; it must be kept."""
    _, first, point = next(entry for entry in SESSIONS if entry[0] == what)

    def later(link):
        if first is break_off:
            link.expect("x-revision")
            break_off(link)

    server = Server(login_script(ANNA, context, later), stops=[point])
    party = new_party().start()
    party.press("Login")
    party.begin("A title", BERT)
    party.commit(party.add_clause(), "Committed")
    party.add_clause()
    party.write(1, "Put aside")
    party.write(0, "Half a sent")
    party.desktop.wait(lambda: party.drafts() == ["Put aside"], "the other draft is stored")
    if first is break_off:
        party.wait_console("Disconnected.\n")
    before = party.drafts()
    problem, seconds = close_window(party, has_keys=has_keys)
    drafts = sorted(party.drafts())
    committed = party.rows("SELECT text FROM clause_revisions WHERE status = 'COMMITTED'")
    end(party, server)
    expected = (["Put aside"], ["Half a sent", "Put aside"], [("Committed",)])
    if not problem and (before, drafts, committed) != expected:
        problem = "kept %s, then %s and %s" % (before, drafts, committed)
    return problem, seconds


def close_while_chatting(context):
    """Closes with unsent lines in a chat and in a title; nothing is said of these, and they go."""

    def come(link):
        link.send("<presence from='%s/boat' to='%s'/>" % (BERT, ANNA))

    server = Server(login_script(ANNA, context, come))
    party = new_party().start()
    open_session(party, server)
    party.press("New procedure")
    party.put("Procedure title", "Never begun")
    party.open_contact(BERT)
    party.enter("Message", "Never sent")
    problem, seconds = close_window(party)
    kept = party.count_rows("procedures") + party.count_rows("contact_messages")
    sent = b"Never" in server.all_heard()
    end(party, server)
    if not problem and (kept or sent):
        problem = "%d rows kept, sent: %s" % (kept, sent)
    return problem, seconds


def try_typing(trial, kind, context):
    """Quitting with unsent typing."""
    tally = Tally(kind)
    names = [SESSIONS[0][0]] if trial.short else [SESSIONS[index][0] for index in (0, 1, 5)]
    for name in names:
        for has_keys in (True, False):
            try_case(
                tally,
                name,
                lambda name=name, keys=has_keys: close_while_typing(context, name, keys),
            )
    tally.report(
        trial,
        "closed with unsaved typing in a clause, by keys and by a task bar: kept "
        "as its draft, and so is another clause's (%s)" % ", ".join(names),
    )
    tally = Tally(kind)
    try_case(tally, "chat and title", lambda: close_while_chatting(context))
    tally.report(
        trial, "closed with an unsent chat line and an unused title: neither sent nor kept"
    )


# ---- Memory ----


def measure_anonymous(process):
    """The program's own memory, in KiB: pages that no file stands behind (smaps_rollup)."""
    with open("/proc/%d/smaps_rollup" % process.pid, encoding="ascii") as rollup:
        return next(int(line.split()[1]) for line in rollup if line.startswith("Anonymous:"))


def try_many_windows(trial, context):
    """One program opens a window beside its first one, and closes it, again and again: half of them
    after a login."""
    count = 30 if trial.short else 200
    warm_up = count // 5
    server = Server(login_script(ANNA, context))
    party = new_party()
    party.environment = {"NO_AT_BRIDGE": "1"}
    party.process = party.launch()
    desktop = party.desktop
    known = {party.wait_new_window()}
    sizes, start = [], time.monotonic()
    for number in range(count):
        subprocess.run(
            [driver.Options.binary],
            cwd=party.directory,
            check=True,
            env=dict(
                desktop.environment, NO_AT_BRIDGE="1", DBUS_SESSION_BUS_ADDRESS=party.bus_address
            ),
            stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
        )

        def find():
            found = desktop.xdotool(
                "search", "--all", "--onlyvisible", "--pid", party.process.pid, "--name", "^Morvane"
            ).split()
            return next((xid for xid in found if xid not in known), None)

        xid = desktop.wait(find, "window %d opens" % number)
        desktop.xdotool("windowactivate", "--sync", xid)
        if number % 2:
            desktop.wait(
                lambda: press_until_connected(desktop, server, number // 2 + 1),
                "window %d logs in" % number,
            )
            desktop.wait(
                lambda: server.links[-1].reached == "session",
                "window %d is in its session" % number,
            )
        desktop.wait(lambda: close_until_gone(desktop, xid), "window %d is gone" % number)
        if number + 1 >= warm_up:
            sizes.append(measure_anonymous(party.process))
    seconds = time.monotonic() - start
    growth = sizes[-1] - sizes[0]
    each = growth / (len(sizes) - 1)
    bound = 64
    trial.check(
        RELEASE + ": %d windows opened and closed beside one that stays, every other one logged "
        "in: growth a window, after the first %d" % (count, warm_up),
        "at most %d KiB" % bound,
        "%s %d KiB" % ("at most" if each <= bound else "more than", bound),
    )
    trial.figure(
        RELEASE + ": growth of the program's memory for each of these windows",
        "%.1f KiB (%d to %d KiB in all)" % (each, sizes[0], sizes[-1]),
    )
    trial.figure(
        RELEASE + ": opening, using and closing one of these windows", "%.2f s" % (seconds / count)
    )
    party.kill()
    party.discard()
    server.close()


def press_until_connected(desktop, server, count):
    """The Enter key in a fresh window logs in; a window that has just come may not have it yet."""
    if len(server.links) < count:
        desktop.key("Return")
        desktop.wait(lambda: len(server.links) >= count or None, "a connection", 1)
    return True


def close_until_gone(desktop, xid):
    """Closes the window, which has the keyboard."""
    desktop.key("alt+F4")
    deadline = time.monotonic() + 5
    while time.monotonic() < deadline:
        if (
            xid
            not in desktop.xdotool("search", "--all", "--onlyvisible", "--name", "^Morvane").split()
        ):
            return True
        time.sleep(0.01)
    return False


# ---- All ----


def main():
    """The short form has fewer points and the given program only."""
    trial = Trial("closing", __doc__)
    driver.Options.binary = trial.binary
    driver.enter_world()
    desktop = driver.Desktop()
    context = tls_server.world_context(HOST)
    slow = driver.SLOW
    for folder in ["release"] if trial.short else KINDS:
        kind = KINDS[folder]
        if kind != RELEASE:
            driver.Options.binary = os.path.join(ROOT, "build", folder, "morvane")
            if not os.access(driver.Options.binary, os.X_OK):
                trial.check(
                    "%s: the program is there (cmake --build --preset %s)" % (kind, folder),
                    True,
                    False,
                )
                continue
        driver.SLOW = slow * SLOWNESS[folder]
        driver.BOUND = 30 * driver.SLOW
        try_one_window(trial, kind, context)
        try_burst(trial, kind, context)
        try_backlog(trial, kind)
        try_two_windows(trial, kind, context)
        try_crossed(trial, kind, context)
        try_typing(trial, kind, context)
        if kind == RELEASE:
            try_many_windows(trial, context)
    report_times(trial)
    desktop.stop()
    sys.exit(trial.end())


if __name__ == "__main__":
    main()
