#!/usr/bin/python3
"""Servers that cut, stop, leave and come back: what reaches the store, the window and the user.

    tests/run -- /usr/bin/python3 trials/server.py --binary PROGRAM [--short] [--output FILE.json]

The streams that are delivered again were sent by Prosody and ejabberd to real windows over a
negotiation (trials/server_record.py recorded them). The program's worker takes them alone, in
server_client, where every byte counts, and the real program takes them in its window. What the
tests prove already is not repeated: every exchange of a login cut at every offset, and every
designed stop by its text (tests/test_xmpp_connection.cpp), closing the window at every step
(tests/test_wire.cpp).
"""

import os
import re
import subprocess
import sys
import threading
import time
import xml.etree.ElementTree
from collections import Counter

os.environ.setdefault("MORVANE_SLOW", "4")  # what is waited for comes, on a busy machine late

from trial import Trial  # it knows where the driver is

import driver
import server_peer
from server_peer import LOGIN_REQUESTS, REGISTRATION_REQUESTS, Gone, Listener

JID = driver.BERT
TITLE = "Lease of the boat house"
SIZES = [1, 10, 100, 1400, 8192, 16384]
# Streams of a session, in the order in which one store can take them.
NEGOTIATION = ["prosody-contractor", "prosody-offline", "prosody-long-revision"]
STREAMS = NEGOTIATION + [
    "prosody-initiator",
    "prosody-shutdown",
    "ejabberd-chat",
    "ejabberd-offline",
]
WAYS = ["FIN", "RST", "close-notify", "stream end"]
ROUND = b"<iq type='error' id='4000000001'/>"
STREAM = b"<iq type='error' id='4000000002'/>"
# What the window's console says once everything before ROUND has been applied.
APPLIED = "Got an IQ an ID 4000000001 which"
INPUT_HALF = 0x7FFFFF // 2


def login_answers(jid, server="prosody"):
    """What the server answered to a login, as that account's."""
    name = jid.split("@")[0].encode()
    return [
        answer.replace(b"anna@", name + b"@")
        for answer in server_peer.read_answers(server + "-login")
    ]


def owner(name):
    """The account whose session the stream was sent to."""
    session = server_peer.read_stream(name)
    return driver.ANNA if b"to='anna@" in session else driver.BERT


def log_in(link, jid, size=server_peer.RECORD_MAX):
    """Plays a whole login."""
    server_peer.answer(link, login_answers(jid), LOGIN_REQUESTS, size=size)


# ---- Streams, cut ----


def escape(text):
    """A text as server_client writes it."""
    return (text or "").replace("\\", "\\\\").replace("\n", "\\n")


def local(element):
    """An element's name without its name space."""
    return element.tag.rpartition("}")[2]


def describe_body(sender, body):
    """The records that the body of a message gives."""
    lines = []
    if body.text or not len(body):
        lines.append(f"message '{sender}' '{escape(body.text)}'")
    kinds = {
        "x-procedure": ("procedure", ["procedure"]),
        "x-clause": ("clause", ["procedure", "clause"]),
        "x-revision": ("revision", ["procedure", "clause", "revision"]),
        "x-clause-message": ("clause-message", ["procedure", "clause", "message"]),
        "x-clause-decision": ("decision", ["procedure", "clause", "revision", "decision"]),
    }
    for child in body:
        kind, names = kinds[local(child)]
        line = " ".join([kind] + [child.get(name) for name in names])
        if kind == "decision":
            line += " " + child.text
        elif kind != "clause":
            line += f" '{escape(child.text)}'"
        lines.append(line)
    return lines


def describe_vcard(stanza, card):
    """The record that an answer with a profile gives; its texts stay escaped until shown."""
    line = f"vcard {stanza.get('id')} '{stanza.get('from') or ''}'"
    for name, field in (
        ("fn", "text"),
        ("role", "text"),
        ("email", "text"),
        ("tel", "uri"),
        ("url", "uri"),
        ("org", "text"),
        ("adr", "street"),
        ("key", "text"),
    ):
        found = [
            child.text
            for element in card
            if local(element) == name
            for child in element
            if local(child) == field
        ]
        text = found[0] if found else None
        if text is None:
            line += " -"
        else:
            for plain, entity in (("&", "&amp;"), ("<", "&lt;"), (">", "&gt;")):
                text = text.replace(plain, entity)
            line += f" '{escape(text)}'"
    return line


def describe(data):
    """What an independent parser of XML finds in a stream for the interface, a line a record."""
    data = data.replace(b"</stream:stream>", b"")
    root = xml.etree.ElementTree.fromstring(
        b"<stream:stream xmlns='jabber:client' xmlns:stream='http://etherx.jabber.org/streams'>"
        + data
        + b"</stream:stream>"
    )
    lines = []
    for stanza in root:
        name, kind, sender = local(stanza), stanza.get("type"), stanza.get("from")
        children = {local(child): child for child in stanza}
        if name == "message" and "body" in children:
            lines += describe_body(sender, children["body"])
        elif name == "presence":
            if not kind:
                kind = "available" if stanza.get("to") else "confirm"
                if kind == "available" and sender.partition("/")[0] == "":
                    continue
            lines.append(f"{kind} '{sender}'")
        elif name == "iq" and kind == "error":
            lines.append("error " + stanza.get("id"))
        elif name == "iq" and "vcard" in children:
            lines.append(describe_vcard(stanza, children["vcard"]))
    return lines


class Rounds:
    """Streams for one session of server_client, each in many rounds, and what became of them."""

    def __init__(self, trial, names):
        self.trial = trial
        self.names = names
        self.bytes = 0
        self.cuts = 0
        self.rounds = 0
        self.same = 0
        self.expected = 0
        self.found = 0
        self.different = []

    def serve(self, link):
        """The session: every stream whole, in records of every size, and cut at the offsets."""
        log_in(link, self.jid)
        for name in self.batch:
            data = server_peer.read_stream(name)
            link.send(data)
            link.send(ROUND)
            for size in SIZES:
                link.send(data, size)
                link.send(ROUND)
            for offset in self.offsets(data):
                link.send_raw(
                    link.make_records(data[:offset])
                    + link.make_records(data[offset:])
                    + link.make_records(ROUND)
                )
            if len(data) < 8192:
                for byte in link.make_records(data) + link.make_records(ROUND):
                    link.send_raw(bytes([byte]))
            link.send(STREAM)
        link.end("FIN")
        link.hear_out()

    def offsets(self, data):
        """Where the stream is cut in two: everywhere, or in the short form at each of the first
        bytes and then here and there."""
        if not self.trial.short:
            return range(1, len(data))
        return [at for at in range(1, len(data)) if at < 2000 or at % (1 + len(data) // 200) == 0]

    def run(self):
        """Delivers all streams, each to a session of the account that it was sent to."""
        for self.jid in (driver.ANNA, driver.BERT):
            self.batch = [name for name in self.names if owner(name) == self.jid]
            listener = Listener(self.serve)
            client = subprocess.run(
                [os.path.join(self.trial.programs, "server_client"), "session", self.jid],
                stdout=subprocess.PIPE,
                stderr=subprocess.DEVNULL,
                check=False,
                timeout=3600,
            )
            listener.stop()
            self.read(client.stdout)

    def read(self, report):
        """What server_client told of the streams of one session."""
        for name in self.batch:
            data = server_peer.read_stream(name)
            self.bytes += len(data)
            self.cuts += len(self.offsets(data))
            while True:
                line, _, report = report.partition(b"\n")
                words = line.split()
                if not words:
                    self.different.append(f"{name}: ended early")
                    return
                size = int(words[-1])
                lines, report = report[:size].decode().splitlines(), report[size:]
                if words[0] == b"different":
                    self.different.append(f"{name}: round {words[1].decode()}")
                    continue
                self.rounds += int(words[1])
                self.same += int(words[2])
                break
            expected = describe(data)
            self.expected += len(expected)
            self.found += sum(one == other for one, other in zip(expected, lines))
            if expected != lines:
                self.different.append(f"{name}: not as it was sent")
                for one, other in zip(expected, lines):
                    if one != other:
                        print(f"{name}: expected {one[:200]}\n  got {other[:200]}")
                        break


def try_cuts(trial):
    """The records that the worker hands over, however a stream came."""
    rounds = Rounds(trial, STREAMS)
    rounds.run()
    stanzas = [
        len(match[0])
        for name in STREAMS
        for match in re.finditer(
            rb"<(message|iq|presence)[ />].*?</\1>", server_peer.read_stream(name), re.DOTALL
        )
    ]
    trial.check(
        "recorded streams of Prosody and ejabberd, delivered whole: records for the window",
        f"the {rounds.expected} that another XML parser finds",
        f"the {rounds.expected} that another XML parser finds"
        if rounds.found == rounds.expected
        else f"{rounds.found} of them",
    )
    trial.check(
        f"each stream in TLS records of {', '.join(map(str, SIZES))} bytes, and cut in two "
        f"at {rounds.cuts:,} offsets: the same records",
        "every time",
        "every time"
        if not rounds.different and rounds.same == rounds.rounds
        else "; ".join(rounds.different[:5]) or f"{rounds.same} of {rounds.rounds}",
    )
    trial.figure("recorded streams, their bytes", f"{len(STREAMS)}, {rounds.bytes:,}")
    trial.figure("deliveries of a stream", f"{rounds.rounds:,}")
    trial.figure(
        "the longest stanza recorded, and the longest that the input buffer takes (bytes)",
        f"{max(stanzas):,}, {INPUT_HALF:,}",
    )


# ---- Servers that leave, byte by byte ----

CONNECT = "text Can't connect to server"
AUTHORIZE = "text Unable to authorize"
SILENT = "stop response.size"
NO_XML = "stop xml_element"
SOCKET_CLOSED = "text Server disconnected for unknown reason by closing the socket"
STREAM_CLOSED = "text Server disconnected for unknown reason by closing the XMPP stream"

# The answers of a login and of a registration, in words, with every outcome that is meant when the
# server leaves within them. What comes after the whole of an answer is the next one's beginning.
LOGIN_STEPS = [
    ("the clear header and its features", {CONNECT, SILENT}),
    (
        "the go-ahead for TLS",
        {
            CONNECT,
            SILENT,
            NO_XML,
            "stop xml_element->is_void",
            'stop xml_element->name == "proceed"',
            "stop !xml_element->next",
        },
    ),
    ("a header within TLS", {SILENT, NO_XML}),
    ("the answer to the password", {SILENT, NO_XML, AUTHORIZE}),
    ("a header within TLS", {SILENT, NO_XML}),
    (
        "the address that is bound",
        {
            SILENT,
            NO_XML,
            "session",
            'stop xml_element->name == "iq"',
            "stop response_id.size",
            "stop string_to_u64 (response_id) == id",
            'stop get_xml_attribute (xml_element, "type") == "result"',
            "stop !xml_element->next",
            "stop xml_element->children",
            'stop xml_element->name == "bind"',
            'stop xml_element->name == "jid"',
            'stop get_xml_attribute (xml_element, "xmlns") == "urn:ietf:params:xml:ns:xmpp-bind"',
            "stop xml_element->text.size",
            "stop !xml_element->children",
            "stop bare_jid.size",
            "stop bare_jid == window->account.bare_jid",
            "stop resource.size",
        },
    ),
]
REGISTRATION_STEPS = LOGIN_STEPS[:3] + [
    (
        "the offer of a registration",
        {
            SILENT,
            NO_XML,
            SOCKET_CLOSED,
            STREAM_CLOSED,
            "text Registration unavailable",
            'stop xml_element->name == "iq"',
            "stop response_id.size",
            "stop string_to_u64 (response_id) == id",
            "stop iq_type.size",
        },
    ),
    (
        "the answer to the registration",
        {
            SOCKET_CLOSED,
            STREAM_CLOSED,
            "text Unhandled error",
            "text result",
            "text The requested username already exists.",
            "stop xml",
            "stop response_id.size",
            "stop string_to_u64 (response_id) == set_register_iq_id",
            "stop iq_type.size",
            "stop !xml->next",
            "stop xml_error",
            "stop xml_text",
            "stop text.size",
            'stop get_xml_attribute (xml_error, "type") == "cancel"',
            'stop unopened_elements->name == "stream:stream"',
            "stop unopened_elements->parent == NULL",
            'stop !"Unhandled error"',
        },
    ),
]


class Attempts:
    """Attempts of server_client, one after the other, each with an end of its own."""

    def __init__(self, trial, mode):
        self.answers = (
            login_answers(driver.ANNA)
            if mode == "login"
            else server_peer.read_answers("prosody-registration")
        )
        self.requests = LOGIN_REQUESTS if mode == "login" else REGISTRATION_REQUESTS
        self.listener = Listener(self.serve)
        self.client = subprocess.Popen(
            [os.path.join(trial.programs, "server_client"), mode],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL,
            text=True,
        )
        self.play = None

    def serve(self, link):
        """One attempt's server."""
        self.play(link)
        link.hear_out()

    def run(self, play):
        """Makes an attempt in front of a server that does `play`; returns the outcome."""
        self.play = play
        self.client.stdin.write("\n")
        self.client.stdin.flush()
        return self.client.stdout.readline().rstrip("\n")

    def leave_within(self, step, count, way, whole_record=True):
        """A server that leaves after `count` bytes of the answer, or of the TLS record with it."""

        def play(link):
            server_peer.answer(link, self.answers, self.requests, step)
            if step == 2:
                link.handshake()
            link.read_until(self.requests[step])
            if whole_record or link.session is None:
                link.send(self.answers[step][:count])
            else:
                link.send_raw(link.make_records(self.answers[step])[:count])
            link.end(way)

        return self.run(play)

    def leave_handshake(self, count, way):
        """A server that leaves after `count` bytes of its part of the handshake."""

        def play(link):
            server_peer.answer(link, self.answers, self.requests, 2)
            link.handshake(count)
            link.end(way)

        return self.run(play)

    def stop(self):
        """Ends the client."""
        self.client.stdin.close()
        self.client.wait()
        self.listener.stop()


def tell(outcomes):
    """How often each outcome came, in words."""
    words = {"session": "logged in"}
    return ", ".join(
        f"{count:,} x {words.get(outcome, outcome.removeprefix('text '))}"
        for outcome, count in outcomes.most_common()
    )


def check_outcomes(trial, what, outcomes, allowed):
    """A row for the outcomes of one step."""
    strange = {outcome: count for outcome, count in outcomes.items() if outcome not in allowed}
    trial.check(
        f"{what} ({sum(outcomes.values()):,} attempts)",
        "a page's text or a designed stop",
        tell(outcomes),
        ok=not strange,
    )
    for outcome, count in strange.items():
        print(f"  not meant: {count} x {outcome}", flush=True)


def leave_after_bytes(trial, attempts, step):
    """The outcomes of a server that leaves after each byte of an answer, now in this way, now in
    that, and at every eighth in all of them."""
    outcomes = Counter()
    size = len(attempts.answers[step])
    stride = 1 + size // 6 if trial.short else 1
    for count in sorted({*range(0, size + 1, stride), size}):
        ways = WAYS if count in (0, size) or count % 8 == 0 else [WAYS[count % 4]]
        for way in ways:
            if step >= 2 or way != "close-notify":
                outcomes[attempts.leave_within(step, count, way)] += 1
    return outcomes


def leave_in_record(trial, attempts, step):
    """The outcomes of a server that leaves within the TLS record that carries an answer."""
    outcomes = Counter()
    size = len(attempts.answers[step])
    for count in range(1, size + 22, 1 + size // 2 if trial.short else 3):
        outcomes[attempts.leave_within(step, count, WAYS[count % 2], False)] += 1
    return outcomes


def try_bytes(trial):
    """The worker alone, in front of servers that leave after every byte of a login."""
    rows, amid, handshake = {}, Counter(), Counter()
    for mode, steps, first in (("login", LOGIN_STEPS, 0), ("registration", REGISTRATION_STEPS, 3)):
        attempts = Attempts(trial, mode)
        for step, (words, allowed) in list(enumerate(steps))[first:]:
            later = steps[step + 1][1] if step + 1 < len(steps) else set()
            row = rows.setdefault((mode, words), (Counter(), set()))
            row[0].update(leave_after_bytes(trial, attempts, step))
            row[1].update(allowed, later)
            if step >= 2:
                amid.update(leave_in_record(trial, attempts, step))
        if mode == "login":
            for count in range(0, 700, 150 if trial.short else 1):
                handshake[attempts.leave_handshake(count, WAYS[count % 2])] += 1
        attempts.stop()
    for (mode, words), (outcomes, allowed) in rows.items():
        check_outcomes(
            trial, f"{mode}: the server leaves after each byte of {words}", outcomes, allowed
        )
    check_outcomes(trial, "amid the TLS record of any of these", amid, {SILENT, SOCKET_CLOSED})
    check_outcomes(trial, "after each byte of its TLS handshake", handshake, {CONNECT})


# ---- The window ----


class Scene:
    """Bert's program in front of a server that does what is asked of it."""

    def __init__(self, trial):
        self.trial = trial
        driver.Options.binary = trial.binary
        self.desktop = driver.Desktop.current or driver.Desktop()
        self.bert = driver.Party("bert", JID, driver.LEFT)
        self.answers = login_answers(JID)
        self.play = self.welcome
        self.reached = threading.Event()
        self.listener = Listener(self.serve)

    def serve(self, link):
        """A connection: the play of the moment, and then nothing until the program leaves."""
        self.play(link)
        link.hear_out()

    def welcome(self, link):
        """A login that goes well."""
        log_in(link, JID)

    def deliver(self, *names, size=server_peer.RECORD_MAX, cut=None):
        """A play that logs in and delivers streams, in records of that size or cut in two."""

        def play(link):
            log_in(link, JID, size)
            for name in names:
                data = server_peer.read_stream(name).replace(b"</stream:stream>", b"")
                if cut:
                    link.send(data[: int(len(data) * cut)])
                    link.send(data[int(len(data) * cut) :])
                else:
                    link.send(data, size)
            link.send(ROUND, size)

        return play

    def enter(self, play=None):
        """Starts the program if it does not run, and logs in; waits until all was applied."""
        bert = self.bert
        self.play = play or self.welcome
        mark = bert.console_mark() if os.path.exists(bert.console_path) else 0
        if bert.process is None:
            bert.start()
        bert.login()
        if play:
            bert.wait_console(APPLIED, mark)

    def attempt(self, play):
        """Presses Login in front of a server that does `play`, and tells how that ended."""
        bert = self.bert
        self.play = play
        if bert.process is None:
            bert.start()
        bert.click("Login")
        return self.await_outcome()

    def await_outcome(self):
        """Waits for the end of an attempt: as server_client tells it."""
        bert = self.bert
        bert.expected_end = True

        def outcome():
            if bert.process.poll() is not None:
                return self.read_stop()
            labels = [label for label in bert.labels() if label.strip()]
            if labels and bert.find("Login", driver.BUTTON_ROLES):
                return "text " + labels[0]
            if labels and bert.find("Register", driver.BUTTON_ROLES):
                return "text " + labels[0]
            if bert.find("New procedure", driver.BUTTON_ROLES):
                return "session"
            return None

        found = self.desktop.wait(outcome, "the attempt ends")
        bert.expected_end = False
        return found

    def read_stop(self):
        """The assertion that ended the program, taken out of its standard error."""
        bert = self.bert
        with open(bert.errors_path, encoding="utf-8", errors="replace") as errors:
            lines = errors.read()
        stop = re.search(r"src/\w+\.cpp.*Assertion `(.*)' failed", lines)
        if not stop or bert.process.returncode != -6:
            return f"ended with {bert.process.returncode}"
        os.truncate(bert.errors_path, 0)
        bert.process = None
        bert.windows = []
        return "stop " + stop[1]

    def is_stored(self, stored):
        """Whether the program, started again if need be, logs in and holds what was stored."""
        bert = self.bert
        self.enter()
        bert.wait_label(TITLE)
        held = bert.everything()
        # What waited to be sent leaves with the login.
        for rows in (held, stored):
            rows.pop("outbox", None)
        return held == stored

    def shown(self):
        """What the window shows of the first procedure: its clauses' texts and decisions."""
        bert = self.bert
        bert.open_procedure(TITLE)
        texts = [node.text() for node in bert.find_all("Clause text", driver.ENTRY_ROLES)]
        return texts + sorted(label for label in bert.labels() if "agrees" in label)

    def kept(self):
        """The store without the moments at which things came."""
        rows = self.bert.everything()
        drop = {"contact_messages": "time", "clause_revision_decisions": "time"}
        for table, column in drop.items():
            names = [name for _, name, *_ in self.bert.rows(f"PRAGMA table_info({table})")]
            at = names.index(column)
            rows[table] = [row[:at] + row[at + 1 :] for row in rows[table]]
        return rows

    def stop(self):
        """Ends the program and the server."""
        self.bert.discard()
        self.listener.stop()


def prepare(scene):
    """Bert's store after a negotiation; returns all its rows."""
    scene.enter(scene.deliver("prosody-contractor"))
    scene.bert.close()
    return scene.bert.everything()


def forget(scene):
    """An empty store."""
    os.remove(scene.bert.store_path)


def try_window_cuts(trial):
    """Store and window, whatever the size of the records, from the first answer to the last."""
    scene = Scene(trial)
    names = NEGOTIATION[:1] if trial.short else NEGOTIATION
    sizes = [1, 1400] if trial.short else SIZES
    plays = [scene.deliver(*names, size=size) for size in sizes]
    if not trial.short:
        plays += [scene.deliver(*names, cut=cut) for cut in (0.1, 0.3, 0.5, 0.7, 0.9)]
    scene.enter(scene.deliver(*names))
    whole = scene.kept()
    shown = scene.shown()
    scene.bert.close()
    same = 0
    for play in plays:
        forget(scene)
        scene.enter(play)
        same += scene.kept() == whole and scene.shown() == shown
        scene.bert.close()
    rows = sum(len(rows) for rows in whole.values())
    scene.stop()
    trial.check(
        "a whole login and session in records of "
        f"{', '.join(map(str, sizes))} bytes{'' if trial.short else ', and cut in two'}: "
        "rows of the store, clauses and decisions in the window",
        f"{rows} rows, the same each of {len(plays)} times",
        f"{rows} rows, the same each of {same} times",
    )


# ---- Servers that leave, in front of the window ----


def leave_at(scene, step, place, way):
    """A play that logs in up to a step and leaves there: before the answer, within it, within the
    TLS record that carries it, or behind it."""

    def play(link):
        answers = scene.answers
        server_peer.answer(link, answers, LOGIN_REQUESTS, step)
        if step == 2:
            link.handshake()
        link.read_until(LOGIN_REQUESTS[step])
        answer = answers[step]
        if place == "amid":
            link.send(answer[: len(answer) // 2])
        elif place == "amid the record":
            link.send_raw(link.make_records(answer)[: len(answer) // 2])
        elif place == "after":
            link.send(answer)
        link.end(way)

    return play


def leave_handshake_at(scene, count, way):
    """A play that leaves within the TLS handshake."""

    def play(link):
        server_peer.answer(link, scene.answers, LOGIN_REQUESTS, 2)
        link.handshake(count)
        link.end(way)

    return play


def list_login_points(scene):
    """Every place of a login at which the server leaves, with the outcomes that are meant there."""
    points = []
    for step, (_, allowed) in enumerate(LOGIN_STEPS):
        later = LOGIN_STEPS[step + 1][1] if step + 1 < len(LOGIN_STEPS) else {"session"}
        places = ["before", "amid", "after"] + (["amid the record"] if step >= 2 else [])
        for number, place in enumerate(places):
            way = WAYS[(step + number) % 4]
            if step < 2 and way == "close-notify" or place == "amid the record":
                way = WAYS[step % 2]
            points.append((leave_at(scene, step, place, way), allowed | later))
    for count, way in ((0, "FIN"), (300, "RST"), (300, "FIN")):
        points.append((leave_handshake_at(scene, count, way), {CONNECT}))
    return points


def try_window_login_ends(trial):
    """A server that leaves at every step of a login."""
    scene = Scene(trial)
    stored = prepare(scene)
    outcomes, strange, found = Counter(), [], 0
    points = list_login_points(scene)
    if trial.short:
        points = [points[1], points[8], points[-1]]
    for number, (play, allowed) in enumerate(points):
        outcome = scene.attempt(play)
        outcomes[outcome] += 1
        if outcome not in allowed:
            strange.append(f"{outcome} at point {number}")
        if outcome == "session":
            scene.bert.wait_console("Disconnected.")
            scene.bert.close()
        found += scene.is_stored(stored)
        scene.bert.close()
    scene.stop()
    trial.check(
        f"login in the window: the server leaves before, amid and after each answer, amid "
        f"its TLS record and in the handshake ({len(points)} places)",
        "the page's text or a designed stop",
        "; ".join(strange) or tell(outcomes),
        ok=not strange,
    )
    trial.check(
        "and then a login, in the same window or after a new start, finds all that is " "stored",
        f"{len(points)} of {len(points)}",
        f"{found} of {len(points)}",
    )


def try_window_registration_ends(trial):
    """A server that leaves at the two steps of a registration that a login does not have."""
    scene = Scene(trial)
    stored = prepare(scene)
    answers = server_peer.read_answers("prosody-registration")
    outcomes, strange, found, count = Counter(), [], 0, 0
    for step, place, way in [
        (3, "before", "FIN"),
        (3, "amid", "RST"),
        (3, "after", "stream end"),
        (3, "amid", "FIN"),
        (4, "before", "close-notify"),
        (4, "before", "stream end"),
        (4, "amid", "FIN"),
        (4, "amid", "stream end"),
        (4, "after", "FIN"),
    ]:
        if trial.short and (step, place) != (4, "before"):
            continue
        count += 1

        def play(link, step=step, place=place, way=way):
            server_peer.answer(link, answers, REGISTRATION_REQUESTS, step)
            request = link.read_until(REGISTRATION_REQUESTS[step])
            answer = server_peer.readdress(request, answers[step])
            size = {"before": 0, "amid": len(answer) // 2, "after": len(answer)}
            link.send(answer[: size[place]])
            link.end(way)

        scene.play = play
        bert = scene.bert.start()
        bert.click("Register")
        bert.enter("New account", "carla@alpha.test")
        for name in ("New password", "New password (again)"):
            bert.enter(name, "carla-secret")
        bert.click("Register")
        outcome = scene.await_outcome()
        outcomes[outcome] += 1
        allowed = REGISTRATION_STEPS[step][1] | (
            REGISTRATION_STEPS[4][1] if place == "after" else set()
        )
        if outcome not in allowed:
            strange.append(f"{outcome}: {place} answer {step}, {way}")
        if bert.process:
            bert.click("Cancel")
        found += scene.is_stored(stored)
        scene.bert.close()
    scene.stop()
    trial.check(
        f"registration in the window: the server leaves before, amid and after its answers "
        f"({count} places)",
        "the page's text or a designed stop",
        "; ".join(strange) or tell(outcomes),
        ok=not strange,
    )
    trial.check(
        "and then a login finds all that is stored", f"{count} of {count}", f"{found} of {count}"
    )


def try_window_session_ends(trial):
    """A server that leaves a session: between two stanzas, within one, and within a record."""
    scene = Scene(trial)
    bert = scene.bert
    stored = prepare(scene)
    template = os.path.join(bert.directory, "prepared.db")
    os.rename(bert.store_path, template)
    data = server_peer.read_stream("prosody-offline")
    revision = data.index(b"<x-revision")
    begin = data.rindex(b"<message", 0, revision)
    end = data.index(b"</message>", revision) + len(b"</message>")
    text = re.search(rb"<x-revision[^>]*>([^&<]*)", data[revision:])[1].decode()
    points = [(place, way) for place in ("between", "amid") for way in WAYS]
    points += [("amid the record", "FIN"), ("amid the record", "RST")]
    if trial.short:
        points = [("amid", "RST"), ("between", "stream end")]
    kept, whole, usable, found = 0, 0, 0, 0
    for place, way in points:
        driver.shutil.copyfile(template, bert.store_path)
        leave = threading.Event()

        def play(link, place=place, way=way, leave=leave):
            log_in(link, JID)
            link.send(data[:begin] + ROUND)
            if place == "between":
                link.send(data[begin:end])
            elif place == "amid":
                link.send(data[begin : revision + 120])
            else:
                link.send_raw(link.make_records(data[begin:end])[:-9])
            leave.wait(server_peer.PATIENCE)
            link.end(way)

        mark = bert.console_mark()
        scene.enter(play)
        before = bert.everything()
        leave.set()
        bert.wait_console("Disconnected.", mark)
        kept += all(
            set(rows) <= set(before[table]) for table, rows in stored.items() if table != "contacts"
        )
        texts = [row for (row,) in bert.rows("SELECT text FROM clause_revisions")]
        # A stanza that the end cut is lost, the half of it is never taken for the whole.
        whole += sum(row.startswith(text) for row in texts) == (place == "between")
        bert.begin("Made without a server", driver.ANNA)
        usable += bert.count_rows("procedures", "title = 'Made without a server'") == 1
        after = bert.everything()
        bert.close()
        found += scene.is_stored(after)
        bert.close()
    scene.stop()
    count = len(points)
    trial.check(
        f"session: the server leaves between two stanzas, amid one and amid a TLS record "
        f"({count} ends): all rows from before are there, and a stanza is applied if all "
        "of it had come, else not at all",
        f"{count} and {count}",
        f"{kept} and {whole}",
    )
    trial.check(
        "and the window takes a new procedure and stores it, and the next start logs in "
        "and finds every row",
        f"{count} and {count}",
        f"{usable} and {found}",
    )


# ---- Servers that say nothing ----

CLICK_MS = 2000
CLOSE_MS = 2000


def milliseconds(since):
    """How long ago a moment of the clock was."""
    return int(1000 * (time.monotonic() - since))


def silent_at(scene, step, amid_record):
    """A play that logs in up to a step and is silent there, before the answer or within its TLS
    record."""

    def play(link):
        server_peer.answer(link, scene.answers, LOGIN_REQUESTS, min(step, 6))
        if step == 2:
            link.handshake()
        if step < 6:
            link.read_until(LOGIN_REQUESTS[step])
        if amid_record:
            link.send_raw(link.make_records(scene.answers[step])[:-20])
        scene.reached.set()

    return play


def silent_handshake(scene, count):
    """A play that is silent after so many bytes of the TLS handshake."""

    def play(link):
        server_peer.answer(link, scene.answers, LOGIN_REQUESTS, 2)
        link.handshake(count)
        scene.reached.set()

    return play


def close_timed(party):
    """Closes the window with the keyboard; how long the program took to end, in milliseconds."""
    party.expected_end = True
    party.activate()
    party.desktop.key("alt+F4")
    start = time.monotonic()
    party.wait_end(60)
    return milliseconds(start)


def try_window_silence(trial):
    """A server that takes a connection and then says nothing, at every step."""
    scene = Scene(trial)
    stored = prepare(scene)
    plays = [silent_at(scene, step, False) for step in range(7)]
    plays += [silent_at(scene, step, True) for step in range(2, 6)]
    plays += [silent_handshake(scene, 0), silent_handshake(scene, 300)]
    if trial.short:
        plays = [plays[0], plays[6], plays[8]]
    clicks, closes, bert = [], [], scene.bert
    for play in plays:
        scene.reached.clear()
        scene.play = play
        bert.start()
        bert.click("Login")
        scene.desktop.wait(scene.reached.is_set, "the server is silent")
        if play is plays[6 if not trial.short else 1]:
            bert.wait_for("New procedure", driver.BUTTON_ROLES)
            button, sign = "New procedure", "Contractor"
        else:
            button, sign = "Register", "New account"
        node = bert.wait_for(button, driver.BUTTON_ROLES)
        bert.activate()
        x, y = bert.scroll_to(node)
        scene.desktop.press_at(x, y)
        start = time.monotonic()
        bert.wait_for(sign, driver.ENTRY_ROLES)
        clicks.append(milliseconds(start))
        closes.append(close_timed(bert))
    same = bert.everything() == stored
    scene.stop()
    slack = 5 if trial.short else 1
    trial.check(
        f"a server that says nothing from a step of the login on ({len(plays)} places: "
        "before an answer, amid a TLS record, in the handshake, behind the login): a click "
        "is answered",
        f"within {CLICK_MS * slack} ms",
        f"within {max(clicks)} ms",
        ok=max(clicks) <= CLICK_MS * slack,
    )
    trial.check(
        "closing the window then ends the program, and the store is as it was",
        f"within {CLOSE_MS * slack} ms, every row",
        f"within {max(closes)} ms, {'every row' if same else 'other rows'}",
        ok=max(closes) <= CLOSE_MS * slack and same,
    )


def try_window_pause(trial):
    """A server that pauses within a stanza of the session, and goes on."""
    scene = Scene(trial)
    bert = scene.bert
    go_on = threading.Event()
    data = server_peer.read_stream("prosody-contractor").replace(b"</stream:stream>", b"")
    half = data.index(b"<x-revision") + 150

    def play(link):
        log_in(link, JID)
        link.send(data[:half])
        scene.reached.set()
        go_on.wait(server_peer.PATIENCE)
        link.send(data[half:] + ROUND)

    scene.play = play
    bert.start()
    bert.login()
    scene.desktop.wait(scene.reached.is_set, "the server pauses")
    bert.begin("Made meanwhile", driver.ANNA)
    before = bert.count_rows("clause_revisions")
    mark = bert.console_mark()
    go_on.set()
    bert.wait_console(APPLIED, mark)
    after = bert.count_rows("clause_revisions")
    bert.close()
    scene.stop()
    expected = sum(
        line.startswith("revision anna") and " anna@alpha.test:" in line[9:]
        for line in describe(data)
    )
    trial.check(
        "a pause within a stanza: the window makes a procedure meanwhile; then the rest " "comes",
        "no revision, then some",
        f"{'no' if not before else before} revision, "
        f"then {'some' if 0 < after <= expected else after}",
    )


# ---- A server that stops reading ----

# Twice what the system takes for a connection that nobody reads.
DEAF_TEXTS = 40
DEAF_SIZE = 60000


class DeafServer:
    """A play that logs in, then does not read until it is told to, and keeps what it reads; or
    breaks the connection off."""

    def __init__(self, scene, is_leaving):
        self.scene = scene
        self.is_leaving = is_leaving
        self.go_on = threading.Event()
        self.done = threading.Event()
        self.text = bytearray()

    def __call__(self, link):
        log_in(link, JID)
        link.read_until(b"</presence>")
        self.scene.reached.set()
        self.go_on.wait(600)
        if self.is_leaving:
            link.end("RST")
        else:
            self.hear_all(link)
        self.done.set()

    def hear_all(self, link):
        """Keeps all that the program says until it ends the connection."""
        try:
            while True:
                link.listen()
                self.text += link.heard
                link.heard = b""
        except Gone:
            pass

    def revisions(self):
        """The texts of the revisions that came, in their order, as another XML parser reads them."""
        bodies = re.findall(rb"<x-revision.*?</x-revision>", self.text, re.DOTALL)
        return [xml.etree.ElementTree.fromstring(body.decode()).text for body in bodies]


def answer_time(party):
    """How long the window's main loop takes to answer a question now, in milliseconds."""
    start = time.monotonic()
    node = party.windows[0].frame
    party.desktop.accessibility.call_sync(
        node.owner,
        node.path,
        "org.a11y.atspi.Accessible",
        "GetState",
        None,
        None,
        driver.Gio.DBusCallFlags.NONE,
        60000,
        None,
    )
    return milliseconds(start)


def commit_for_deaf(scene, deaf):
    """Commits DEAF_TEXTS texts that the server does not read; returns them, and the latest answer of
    the window meanwhile, in milliseconds."""
    bert = scene.bert
    scene.reached.clear()
    scene.play = deaf
    bert.start()
    bert.login()
    scene.desktop.wait(scene.reached.is_set, "the server does not read")
    bert.begin("For a deaf server", driver.ANNA)
    nth = bert.add_clause()
    # By keyboard: the button is pages above the end of such a text.
    texts, latest = [], 0
    for number in range(DEAF_TEXTS):
        texts.append(
            f"{number}\n" + "a line of forty bytes, and of all commits\n" * (DEAF_SIZE // 42)
        )
        bert.write(nth, texts[-1])
        scene.desktop.key("ctrl+Return")
        latest = max(latest, answer_time(bert))
        bert.wait_rows(
            "clause_revisions", number + 1, "status = 'COMMITTED' AND text LIKE '%forty%'"
        )
    return texts, latest


def count_same(seen, expected):
    """How many there are, when they are those that are expected."""
    return len(expected) if seen == expected else "others"


def try_window_deaf(trial):
    """A server that stops reading while commits go out, and reads again, or goes."""
    scene = Scene(trial)
    bert = scene.bert
    texts_query = "SELECT text FROM clause_revisions WHERE status = 'COMMITTED' ORDER BY db_id"
    for is_leaving in (False, True):
        deaf = DeafServer(scene, is_leaving)
        texts, latest = commit_for_deaf(scene, deaf)
        kept = count_same([text for (text,) in bert.rows(texts_query)], texts)
        trial.check(
            f"a server that does not read while {DEAF_TEXTS} commits of {DEAF_SIZE:,} bytes go "
            f"out{', and then leaves' if is_leaving else ''}: commits stored, and the window's "
            "latest answer after one",
            f"{DEAF_TEXTS}, within {CLICK_MS} ms",
            f"{kept}, within {latest} ms",
            ok=kept == DEAF_TEXTS and latest <= CLICK_MS,
        )
        mark = bert.console_mark()
        deaf.go_on.set()
        if is_leaving:
            bert.wait_console("Disconnected.", mark)
            scene.reached.clear()
            later = DeafServer(scene, False)
            later.go_on.set()
            scene.play = later
            bert.close()
            bert.start()
            bert.login()
            what = "and to the next login goes all that the one that left had not confirmed"
        else:
            later = deaf
            what = "and once it reads, all comes whole and in order"
        scene.desktop.wait(
            lambda later=later: later.text.count(b"</x-revision>") >= DEAF_TEXTS, what
        )
        bert.close()
        later.done.wait(server_peer.PATIENCE)
        trial.check(
            what,
            f"{DEAF_TEXTS} of {DEAF_TEXTS}",
            f"{count_same(later.revisions(), texts)} of {DEAF_TEXTS}",
        )
        forget(scene)
    scene.stop()


# ---- A server that is started again ----


def try_prosody_restart(trial):
    """Prosody stops and starts while both windows are open."""
    driver.Options.binary = trial.binary
    desktop = driver.Desktop.current or driver.Desktop()
    server = driver.Server()
    server.start()
    anna = driver.Party("anna", driver.ANNA, driver.LEFT)
    bert = driver.Party("bert2", driver.BERT, driver.RIGHT)
    for party in (anna, bert):
        party.start()
        party.login()
    anna.begin(TITLE, driver.BERT)
    anna.commit(anna.add_clause(), "First")
    bert.open_procedure(TITLE)
    bert.wait_text("Clause text", "First")
    driver.wait_same(anna, bert)
    before = anna.labels()
    mark = anna.console_mark()
    server.stop()
    for party in (anna, bert):
        party.wait_console("Disconnected.")
    desktop.wait(lambda: "not connected" in anna.windows[0].frame.name(), "the title says so")
    trial.check(
        "Prosody stops while the window is open: the title says so, and the window stays",
        "the same labels",
        "the same labels" if anna.labels() == before else anna.labels(),
    )
    anna.commit(0, "Made without a server")
    server.start()
    anna.commit(0, "Made after its return")
    again = anna.console(mark).count("Connecting...")
    texts = "SELECT text FROM clause_revisions ORDER BY db_id"
    mine = [text for (text,) in anna.rows(texts)]
    owed = anna.count_rows("outbox")
    trial.check(
        "commits made meanwhile and after its return, in the same window",
        "3 stored, 2 of them not sent; no new connection",
        f"{len(mine)} stored, {owed} of them not sent; {again or 'no'} new connection",
    )
    stored = anna.negotiation()
    for party in (anna, bert):
        party.close()
    anna.start()
    anna.login()
    anna.open_procedure(TITLE)
    anna.wait_text("Clause text", mine[-1])
    trial.check(
        "a new start of the program logs in and finds",
        "every row",
        "every row" if anna.negotiation() == stored else "other rows",
    )
    anna.commit(0, "For one who is away")
    mine.append("For one who is away")
    bert.start()
    bert.login()
    bert.open_procedure(TITLE)
    bert.wait_text("Clause text", mine[-1])
    theirs = [text for (text,) in bert.rows(texts)]
    trial.check(
        "all of it, and what is then sent, arrives at the other party, who logs in later",
        mine,
        theirs,
    )
    for party in (anna, bert):
        party.close()
        party.discard()
    server.stop()


def main():
    """All of it; enters a world of its own first."""
    driver.enter_world()
    trial = Trial("server", __doc__)
    try:
        try_cuts(trial)
        try_window_cuts(trial)
        try_bytes(trial)
        try_window_login_ends(trial)
        try_window_session_ends(trial)
        try_window_silence(trial)
        if not trial.short:
            try_window_registration_ends(trial)
            try_window_pause(trial)
            try_window_deaf(trial)
            try_prosody_restart(trial)
    except driver.Failure as failure:
        trial.check("the windows do what is waited for", "always", str(failure).split("\n", 1)[0])
        print(failure, flush=True)
    if driver.Desktop.current:
        driver.Desktop.current.stop()
    sys.exit(trial.end())


if __name__ == "__main__":
    main()
