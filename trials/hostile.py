#!/usr/bin/python3
"""A hostile peer, a stranger and a hostile server send all that they can think of.

Anna is logged in with a real window. What a peer sends comes through a real Prosody, from a contact,
from a stranger and from another host, as bytes of their own choice. What Prosody refuses to carry,
and all the rest once more, comes from a server that is hostile itself. hostile_cases.py holds what
is sent and works out what must come of it; after every case the lines on the console, every row of
the store and its schema are compared with that.
"""

import atexit
import os
import re
import resource
import shutil
import signal
import sqlite3
import sys
import tempfile
import threading
import time
import xml.parsers.expat
from collections import Counter

import hostile_cases as cases
import hostile_wire
from trial import Trial

import driver

EVIL_HOST, EVIL_ADDRESS = "evil.test", "127.0.0.3"
OTHER_HOST, OTHER_ADDRESS = "beta.test", "127.0.0.2"
HOSTS = f"{driver.HOST} {OTHER_HOST}={OTHER_ADDRESS} {EVIL_HOST}={EVIL_ADDRESS}"
EVIL_ANNA = "anna@" + EVIL_HOST
CAROL = "carol@" + driver.HOST
EVE = "eve@" + OTHER_HOST

LINE = re.compile(rb"(?:Warning|Error|Info): [^\n]*|Received <[^\n]*")
STOP = re.compile(r"^morvane: (src/\w+\.cpp):\d+: .*: Assertion `(.*)' failed\.$", re.M)
RAM = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None

# What makes an error iq one that a server passes on.
ERROR = (
    b"<error type='cancel'><item-not-found xmlns='urn:ietf:params:xml:ns:xmpp-stanzas'/></error>"
    b"</iq>"
)
LINE_MAX = (
    8192  # bytes of a line on the console; what is longer is cut there, and so it is laid down
)
MARK = 10**12  # ids of the iqs that mark the end of a case count on from here


class Victim:
    """Anna's program: the driver's party, how far its console was read, and its store."""

    def __init__(self, jid):
        # In memory, so that what is measured is the program and not the disk.
        directory = tempfile.mkdtemp(prefix="morvane-hostile-", dir=RAM)
        atexit.register(shutil.rmtree, directory, True)
        self.party = driver.Party(jid.split("@")[0], jid, driver.LEFT, directory=directory)
        self.full = jid.encode() + b"/morvane"
        self.books = cases.Books(self.full)
        self.read_to = 0
        self.pending = b""
        self.errors_to = 0
        self.mark = MARK
        self.store = None
        self.schema = None
        self.schemas_compared = 0
        self.console = None

    def start(self):
        """Starts the program and logs in."""
        self.party.start()
        if self.console is None:
            self.console = open(self.party.console_path, "rb")
        self.party.click("Login")

    def open_store(self):
        """Reads the store from now on; the schema that it has is the one that it must keep."""
        self.store = sqlite3.connect(f"file:{self.party.store_path}?mode=ro", uri=True, timeout=30)
        self.store.text_factory = bytes
        self.schema = self.read_schema()

    def read_schema(self):
        """All of sqlite_master but the numbers of pages."""
        return self.store.execute("SELECT type, name, tbl_name, sql FROM sqlite_master").fetchall()

    def wait_console(self, pattern, bound=120):
        """Reads on until the pattern stands on the console; returns all that was read with it."""
        deadline = time.monotonic() + bound * driver.SLOW
        while pattern not in self.pending:
            data = self.console.read()
            self.pending += data
            if not data:
                if self.party.process.poll() is not None:
                    raise driver.Failure(
                        "the program ended with %s" % self.party.process.returncode
                    )
                if time.monotonic() > deadline:
                    raise driver.Failure("the console never said %r" % pattern)
                time.sleep(0.001)
        end = self.pending.index(pattern) + len(pattern)
        text, self.pending = self.pending[:end], self.pending[end:]
        return text

    def deliver(self, data, send, head):
        """Sends the bytes and a mark behind them; returns the lines that the console has of them.
        `head` is what the mark's iq begins with."""
        self.mark += 1
        if data:
            send(data)
        send(head + b"type='error' id='%d'>" % self.mark + ERROR)
        end = b"Warning: Got an IQ an ID %d which doesn't correspond to any requested." % self.mark
        text = self.wait_console(end)[: -len(end)]
        return [
            line[:LINE_MAX] for line in LINE.findall(text) if b"GnuTLS recv error -28" not in line
        ]

    def read_rows(self, table, start):
        """The rows of the store from a number on."""
        columns = ", ".join(cases.TABLES[table])
        return [
            list(row)
            for row in self.store.execute(
                f"SELECT {columns} FROM {table} WHERE db_id > {start} ORDER BY db_id"
            )
        ]

    def adopt(self):
        """Takes what the store has for what it must have."""
        for table in cases.TABLES:
            self.books.tables[table] = self.read_rows(table, 0)

    def compare_rows(self, starts):
        """What differs between the store and the books behind these rows: a text, or none."""
        for table, start in starts.items():
            seen, expected = self.read_rows(table, start), self.books.tables[table][start:]
            if len(seen) != len(expected):
                return "%s: %d rows instead of %d" % (
                    table,
                    len(seen) + start,
                    len(expected) + start,
                )
            for one, other in zip(seen, expected):
                if not all(
                    mine == theirs or theirs == cases.NOW for mine, theirs in zip(one, other)
                ):
                    return "%s: %.300r instead of %.300r" % (table, one, other)
        return None

    def judge(self, case, send, head):
        """Sends a case and says what differs from what it must do: a text, or none."""
        lines, records = cases.read(case, self.full)
        starts = {name: len(rows) for name, rows in self.books.tables.items()}
        changes = self.books.changes
        self.books.apply(records, lines)
        changes = self.books.changes - changes
        starts["clause_revision_decisions"] = 0  # these are changed in place
        version = self.store.execute("PRAGMA data_version").fetchone()
        seen = self.deliver(b"".join(cases.encode(stanza) for stanza in case.stanzas), send, head)
        expected = [line.split(b"\n")[0][:LINE_MAX] for line in lines]
        seen, expected = cut_at_nul(seen, expected)
        if case.what.startswith("a stanza of"):
            seen, expected = set(seen), set(expected)
        self.schemas_compared += 1
        if self.read_schema() != self.schema:
            return "sqlite_master is another one"
        if sorted(seen) != sorted(expected):
            return "lines %.600r instead of %.600r" % (sorted(seen), sorted(expected))
        changed = self.store.execute("PRAGMA data_version").fetchone() != version
        if changed and not changes:
            return "the store was changed"
        return self.compare_rows(starts)

    def wait_stop(self):
        """Waits for the end of the program: (status, "file: expression" of the assertion), and
        whatever else stands on standard error."""
        self.party.expected_end = True
        status = self.party.process.wait(120 * driver.SLOW)
        self.party.process = None
        self.party.windows = []
        self.pending = b""
        self.console.seek(0, os.SEEK_END)
        errors = self.take_errors()
        stops = [": ".join(stop) for stop in STOP.findall(errors)]
        rest = [line for line in STOP.sub("", errors).splitlines() if driver.COMPLAINT.search(line)]
        return status, stops, rest

    def take_errors(self):
        """What came on standard error since the last call."""
        with open(self.party.errors_path, errors="replace") as file:
            file.seek(self.errors_to)
            errors = file.read()
            self.errors_to = file.tell()
        return errors

    def memory(self):
        """The proportional share of memory of the program, in bytes."""
        with open("/proc/%d/smaps_rollup" % self.party.process.pid) as file:
            return int(re.search(r"^Pss:\s+(\d+)", file.read(), re.M).group(1)) * 1024

    def end(self):
        """Ends the program."""
        self.party.discard()
        if self.store:
            self.store.close()


class Tally:
    """How many cases of each group did what they must; the first few that did not are printed."""

    def __init__(self):
        self.total = Counter()
        self.good = Counter()
        self.shown = 0

    def add(self, group, what, difference):
        """Counts one case."""
        self.total[group] += 1
        self.good[group] += difference is None
        if difference is not None and self.shown < 30:
            self.shown += 1
            print("differs: %s: %s" % (what, difference), flush=True)

    def check(self, trial, row, groups, outcome):
        """One row of the trial for these groups."""
        total = sum(self.total[group] for group in groups)
        good = sum(self.good[group] for group in groups)
        trial.check(
            row, f"{total:,} {outcome}", f"{good:,} {outcome}", ok=total == good and total > 0
        )


def cut_at_nul(seen, expected):
    """Standard output ends a line at a NUL byte, and goes on behind it without a line end."""
    fronts = [line.split(b"\0")[0] for line in expected if b"\0" in line]
    for front in fronts:
        seen = [front if line.startswith(front) else line for line in seen]
    return seen, [line.split(b"\0")[0] for line in expected]


def is_stop(case, own):
    """Whether the case ends the program."""
    try:
        cases.read(case, own)
        return False
    except cases.Stop:
        return True


def all_cases(peer):
    """Every case, in order."""
    yield from cases.attribute_cases(peer)
    yield from cases.content_cases(peer)
    yield from cases.structure_cases(peer)
    yield from cases.broken_cases(peer)
    yield from cases.forgery_cases(peer)


def thin(found, step):
    """A small part of the cases in which every value, text and structure occurs once, each in
    another element, and every so many of the others."""
    kinds, kept = {}, []
    for index, case in enumerate(found):
        kind = (case.group, case.what.split(": ")[-1])
        if case.group not in ("attributes", "texts", "structure"):
            kind = (case.group, index // (1 if case.group == "impostors" else step))
        kinds.setdefault(kind, []).append(index)
    for number, indices in enumerate(kinds.values()):
        kept.append(indices[number % len(indices)])
    return [found[index] for index in sorted(kept)]


# ---- The hostile server ----

HEAD = b"<iq "


class Evil:
    """The hostile server, with the session that Anna has there now."""

    def __init__(self):
        self.server = hostile_wire.HostileServer(EVIL_HOST, EVIL_ADDRESS)
        self.count = 0
        self.wire = None

    def login(self, victim):
        """Starts Anna's program and lets her in."""
        victim.start()
        self.wire = self.server.wait_session(self.count)
        if self.wire is None:
            raise driver.Failure("Anna did not log in: %s" % self.server.faults)
        self.count += 1
        if victim.store:
            victim.wait_console(b"SELECT * FROM procedures")

    def send(self, data):
        """Sends to her."""
        self.wire.send(data)


def try_all(trial, victim, evil, peer, tally):
    """All cases that do not stop the program, one after the other in one window."""
    found = [case for case in all_cases(peer) if not is_stop(case, victim.full)]
    if trial.short:
        found = thin(found, 20)
    answered = re.compile(rb"<presence type='subscribed?' id='\d+' from='[^']*' to='[^']*'/>")
    with evil.wire.news:
        start = len(evil.wire.heard)
    for case in found:
        difference = victim.judge(case, evil.send, HEAD)
        if difference:
            victim.adopt()
        tally.add(case.group, case.what, difference)
    expected = victim.books.sent
    deadline = time.monotonic() + 60 * driver.SLOW
    while True:
        with evil.wire.news:
            sent = answered.findall(bytes(evil.wire.heard[start:]))
        if len(sent) >= len(expected) or time.monotonic() > deadline:
            break
        time.sleep(driver.POLL)
    same = len(sent) == len(expected) and all(
        re.fullmatch(pattern, stanza, re.S) for pattern, stanza in zip(expected, sent)
    )
    trial.check(
        "answers to requests for subscription, in bytes that reached the server",
        f"{len(expected)} stanzas as laid down",
        f"{len(sent)} stanzas {'as laid down' if same else 'with others among them'}",
    )


def check_store(victim):
    """What is wrong with the whole store: a text, or none."""
    if victim.store.execute("PRAGMA integrity_check").fetchall() != [(b"ok",)]:
        return "integrity_check"
    if victim.read_schema() != victim.schema:
        return "schema"
    return victim.compare_rows({table: 0 for table in cases.TABLES})


def look_back(victim, tally, what):
    """Reads the whole store, unless `what` is none, and what came on standard error."""
    if what:
        tally.add("whole stores", "the store after all cases " + what, check_store(victim))
    errors = [line for line in victim.take_errors().splitlines() if driver.COMPLAINT.search(line)]
    tally.add("warnings", "standard error", "\n".join(errors[:10]) or None)


def try_stops(trial, victim, evil, peer, tally):
    """Each case that ends the program, each in a program of its own over the same store."""
    found = [case for case in all_cases(peer) if is_stop(case, victim.full)]
    if trial.short:
        found = found[::45]
    for case in found:
        try:
            cases.read(case, victim.full)
        except cases.Stop as stop:
            expected = ": ".join(stop.args)
        if victim.party.process is None:
            evil.login(victim)
        evil.send(b"".join(cases.encode(stanza) for stanza in case.stanzas))
        status, stops, rest = victim.wait_stop()
        difference = None
        if (status, stops, rest) != (-signal.SIGABRT, [expected], []):
            difference = "%r instead of %r" % ((status, stops, rest), expected)
        tally.add("stops", case.what, difference)
        tally.add("stores after stops", case.what, check_store(victim))
    evil.login(victim)
    tally.add(
        "stores after stops",
        "the last start",
        victim.judge(
            cases.Case("last", "a clause", [peer.message(peer.element("x-clause"))]),
            evil.send,
            HEAD,
        ),
    )


# ---- What the window shows ----


def try_shown(trial, victim, evil, peer):
    """Markup and SQL in every field, looked at in the window."""
    markup, text = cases.MARKUP, cases.MARKUP.decode() + " " + cases.SQL.decode()
    content = cases.escape(markup + b" " + cases.SQL)
    title = text.replace("'", "\u2019")
    author = b"&lt;b&gt;<i>bert<i>&amp;%s"
    times = [peer.fresh() for _ in range(4)]
    pairs = [
        (kind, b"%s:%d" % (author, time), b"'")
        for kind, time in zip((b"procedure", b"clause", b"revision", b"message"), times)
    ]
    one = cases.Message(
        [(b"from", author, b"'")],
        [
            cases.Element("x-procedure", pairs[:1], content),
            cases.Element("x-clause", pairs[:2], b""),
            cases.Element("x-revision", pairs[:3], content),
            cases.Element("x-clause-message", pairs[:2] + pairs[3:], content),
        ],
    )
    difference = victim.judge(cases.Case("shown", "markup", [one]), evil.send, HEAD)
    party = victim.party
    party.open_procedure(title)
    party.wait_label(title)
    seen = [difference or "stored as sent", "title"]
    if party.text("Clause text") == text:
        seen.append("text")
    name = author.decode()
    if any(name in label for label in party.labels()):
        seen.append("author")
    party.click("Clause chat")
    party.wait_for("Chat", driver.ENTRY_ROLES)
    if party.text("Chat") == "%s: %s" % (name, text):
        seen.append("chat line")
    trial.check(
        "markup, SQL and formats in title, author, text and chat line: what the window shows",
        "stored as sent, title, author, text, chat line as text",
        "%s as text"
        % ", ".join(
            sorted(seen[:1]) + sorted(seen[1:], key=["title", "author", "text", "chat line"].index)
        ),
    )


def vcard_answer(sender, number, name):
    """The answer to a request for a vCard."""
    return (
        b"<iq type='result' id='%s' from='%s'><vcard xmlns='urn:ietf:params:xml:ns:vcard-4.0'>"
        b"<fn><text>%s</text></fn><role><text>%s</text></role></vcard></iq>"
        % (number, sender, name, b"r" * 100000)
    )


def try_vcard(trial, victim, evil, peer):
    """Somebody answers in the place of the server when Anna asks for her own vCard."""
    own = cases.bare(victim.full)
    start = len(evil.wire.heard)
    victim.party.click("Your profile")
    number = evil.wire.wait(rb"<iq type='get' id='(\d+)'[^>]*><vcard", start).group(1)
    seen = []
    for sender in (peer.full, peer.bare, b"mallory@x", victim.full):
        seen += victim.deliver(vcard_answer(sender, number, b"Mallory"), evil.send, HEAD)
    warning = b"Warning: Expected a VCard from own account, but got a VCard from someone else."
    refused = seen == [warning] * 4 and not victim.party.find("Name", driver.ENTRY_ROLES)
    name = b"&lt;b&gt;An\xffna\x01&lt;/b&gt; 'x' \xe2\x82"
    victim.deliver(vcard_answer(own, number, name), evil.send, HEAD)
    shown = victim.party.text("Name")
    victim.party.click("Close")
    is_text = shown.startswith("<b>An") and "</b> 'x'" in shown
    trial.check(
        "answers to a request for the own vCard: from others; from the server with markup "
        "and bad UTF-8",
        "4 refused, the server's shown as text",
        "%s, the server's shown %s"
        % ("4 refused" if refused else "%r" % seen, "as text" if is_text else "as %r" % shown),
    )


# ---- Over a real server ----


class Relay:
    """What a server makes of bytes before it passes them on, or that it refuses them."""

    def __init__(self):
        self.stack = []
        self.top = []

    def parse(self, data):
        """The stanzas as (name, attributes, children) trees; raises ExpatError."""
        parser = xml.parsers.expat.ParserCreate("UTF-8", "\x1f")
        parser.namespace_prefixes = False
        parser.buffer_text = True
        parser.StartElementHandler = self.start
        parser.EndElementHandler = lambda name: self.stack.pop()
        parser.CharacterDataHandler = self.text
        parser.StartDoctypeDeclHandler = self.refuse
        parser.CommentHandler = self.refuse
        parser.ProcessingInstructionHandler = self.refuse
        parser.Parse(b"<s xmlns='jabber:client'>", False)
        parser.Parse(data, False)
        parser.Parse(b"</s>", True)
        return self.top

    def refuse(self, *_):
        """A server takes no comments, no declarations and no instructions."""
        raise xml.parsers.expat.ExpatError("restricted XML")

    def start(self, name, attributes):
        """An element opens."""
        node = (name.split("\x1f")[-1].encode(), attributes, [])
        (self.stack[-1][2] if self.stack else []).append(node)
        if len(self.stack) == 1:
            self.top.append(node)
        self.stack.append(node)

    def text(self, data):
        """Text within an element, which may come in several pieces."""
        children = self.stack[-1][2]
        if children and isinstance(children[-1], bytes):
            children[-1] += data.encode()
        else:
            children.append(data.encode())


def write_tree(node):
    """The tree's bytes as the server writes them."""
    if isinstance(node, bytes):
        return cases.escape(node)
    name, attributes, children = node
    data = (
        b"<"
        + name
        + b"".join(
            b" %s='%s'" % (key.split("\x1f")[-1].encode(), cases.escape(value.encode()))
            for key, value in attributes.items()
        )
    )
    if not children:
        return data + b"/>"
    return data + b">" + b"".join(write_tree(child) for child in children) + b"</" + name + b">"


def relay(case, peer):
    """The case as it arrives behind the server, None when the server refuses it."""
    data = b"".join(cases.encode(stanza) for stanza in case.stanzas)
    if any(len(cases.encode(stanza)) >= 256 * 1024 for stanza in case.stanzas):
        return None
    try:
        trees = Relay().parse(data)
    except (xml.parsers.expat.ExpatError, ValueError):
        return None
    stanzas = []
    for _, _, children in trees:
        bodies = [
            child for child in children if not isinstance(child, bytes) and child[0] == b"body"
        ]
        body = None
        if bodies:
            body = []
            for child in bodies[0][2]:
                name = None if isinstance(child, bytes) else child[0].decode()
                if name in cases.PAIRS:
                    content = b"".join(write_tree(piece) for piece in child[2])
                    body.append(
                        cases.Element(
                            name,
                            [
                                (key.split("\x1f")[-1].encode(), cases.escape(value.encode()), b"'")
                                for key, value in child[1].items()
                            ],
                            content,
                        )
                    )
                elif name is None:
                    body.append(cases.escape(child))
                else:
                    body.append(cases.Ignored(write_tree(child)))
        stanzas.append(cases.Message([(b"from", peer.full, b"'")], body))
    return case._replace(stanzas=stanzas)


class RealPeer:
    """Somebody with an account at a real server, who is let in again whenever he is thrown out."""

    def __init__(self, jid, address, own):
        self.user, self.host = jid.split("@")
        self.password = driver.PASSWORDS[jid]
        self.address = address
        self.peer = cases.Peer(own, self.user.encode(), self.host.encode())
        self.head = b"<iq to='%s' " % own
        self.wire = None
        self.login()

    def login(self):
        """Logs in, without a presence."""
        self.wire = hostile_wire.login_peer(self.host, self.user, self.password, self.address)

    def send(self, data):
        """Sends as this peer."""
        self.wire.send(data)

    def is_refused(self, data):
        """Sends the bytes: whether the server answers with the end of the stream."""
        self.send(data)
        ended = self.wire.wait(rb"<stream:error>") is not None and self.wire.wait_end(20)
        self.wire.close()
        self.login()
        return ended


def can_be_relayed(case):
    """Cases that a server passes on without a judgement of its own: messages."""
    return all(
        isinstance(stanza, cases.Message)
        and dict((name, value) for name, value, _ in stanza.attributes).get(b"type") == b"chat"
        for stanza in case.stanzas
    )


def relay_cases(trial, victim, real, tally, who, step):
    """A peer's cases through the real server: passed on and judged, or refused."""
    found = [
        case for case in all_cases(real.peer) if can_be_relayed(case) and case.group != "impostors"
    ]
    found = found[::step] + [
        case for case in all_cases(real.peer) if case.group == "impostors" and can_be_relayed(case)
    ]
    for case in found:
        data = b"".join(cases.encode(stanza) for stanza in case.stanzas)
        arrived = relay(case, real.peer)
        if arrived is None:
            version = victim.store.execute("PRAGMA data_version").fetchone()
            refused = real.is_refused(data)
            lines = victim.deliver(b"", real.send, real.head)
            unchanged = victim.store.execute("PRAGMA data_version").fetchone() == version
            tally.add(
                "refused",
                case.what,
                None
                if refused and not lines and unchanged
                else "refused %s, lines %r, unchanged %s" % (refused, lines, unchanged),
            )
        elif not is_stop(arrived, victim.full):
            # The bytes are the peer's own; what is judged is what arrives.
            difference = judge_arrived(victim, real, arrived, data)
            if difference:
                victim.adopt()
            tally.add(who, case.what, difference)


def judge_arrived(victim, real, arrived, data):
    """Judges a case by what arrives, while the peer's own bytes are sent."""
    sent = [data]
    return victim.judge(
        arrived, lambda bytes_: real.send(sent.pop() if sent else bytes_), real.head
    )


def try_real_server(trial, tally):
    """Bert, who is a contact, Carol, who is none, and in the long form Eve of another host."""
    for jid in (CAROL, EVE):
        driver.PASSWORDS[jid] = "let-me-in"
    options = [] if trial.short else ["--federation"]
    servers = [driver.Server("prosody", options, driver.HOST, [driver.ANNA, driver.BERT, CAROL])]
    if not trial.short:
        servers.append(
            driver.Server("prosody", options + ["--interface", OTHER_ADDRESS], OTHER_HOST, [EVE])
        )
    for server in servers:
        server.start()
    victim = Victim(driver.ANNA)
    victim.start()
    victim.wait_console(b"SELECT * FROM procedures")
    victim.open_store()
    victim.adopt()
    bert = RealPeer(driver.BERT, "127.0.0.1", victim.full)
    befriend(victim, bert)
    carol = RealPeer(CAROL, "127.0.0.1", victim.full)
    carol.peer.next_time += 100000
    peers = [
        (bert, "contact", 12 if trial.short else 1),
        (carol, "stranger", 80 if trial.short else 4),
    ]
    if not trial.short:
        eve = RealPeer(EVE, OTHER_ADDRESS, victim.full)
        peers.append((eve, "other host", 10))
    for real, who, step in peers:
        tally.add(who, "opening", victim.judge(real.peer.opening(), real.send, real.head))
        relay_cases(trial, victim, real, tally, who, step)
    try_nested(victim, bert, carol, tally)
    try_offline(victim, bert, carol, tally)
    look_back(victim, tally, "over the real server")
    try_real_stops(trial, victim, [real for real, _, _ in peers], tally)
    victim.end()
    for server in servers:
        server.stop()


def befriend(victim, bert):
    """Bert and Anna subscribe to each other, and he comes online."""
    bert.send(b"<presence/><presence type='subscribe' to='%s'/>" % cases.bare(victim.full))
    bert.wire.wait(rb"<presence [^>]*type='subscribe'")
    bert.send(b"<presence type='subscribed' to='%s'/>" % cases.bare(victim.full))
    victim.party.wait_rows("contacts", 1)
    # What follows is not to be mixed with his comings and goings.
    bert.send(b"<presence type='unavailable'/>")
    victim.deliver(b"", bert.send, bert.head)
    victim.adopt()


def try_nested(victim, bert, carol, tally):
    """A stranger's stanza holds another one in a contact's name, behind an element with a name that
    is rare and enough blanks to fill a record."""
    own = victim.full
    for what, body in (
        ("a revision", [bert.peer.element("x-revision", b"Forged")]),
        ("a procedure", [bert.peer.element("x-procedure", b"Forged")]),
        ("a line of the chat", [b"Forged"]),
    ):
        inner = cases.encode(bert.peer.message(*body))
        outer = b"<message to='%s' type='chat'><_x>t</_x>%s%s</message>" % (
            own,
            b" " * 20000,
            inner,
        )
        lines = victim.deliver(outer, carol.send, carol.head)
        speaks = [line for line in lines if line.startswith(b"Received") and b"bert" in line]
        difference = check_store(victim) or ("lines %r" % speaks if speaks else None)
        if difference:
            victim.adopt()
        tally.add("nested", "nested: " + what, difference)


def settle(real, number):
    """Waits until the server has taken all that this peer sent."""
    real.send(
        b"<iq type='get' id='settle%d' to='%s'><ping xmlns='urn:xmpp:ping'/></iq>"
        % (number, real.host.encode())
    )
    real.wire.wait(b"<iq [^>]*id=.settle%d" % number)


def try_offline(victim, bert, carol, tally):
    """Procedures that wait at the server come in one go with a stranger's stanza that gives no
    tree."""
    victim.party.close()
    victim.pending = b""
    victim.console.seek(0, os.SEEK_END)
    stanzas = [bert.peer.message(bert.peer.element("x-procedure")) for _ in range(20)]
    for number, stanza in enumerate(stanzas):
        bert.send(cases.encode(stanza))
        if number == 9:
            settle(bert, 1)
            carol.send(b"<message to='%s' type='chat'><a_b/></message>" % cases.bare(victim.full))
            settle(carol, 1)
    settle(bert, 2)
    lines, records = cases.read(cases.Case("offline", "procedures", stanzas), victim.full)
    start = len(victim.books.tables["procedures"])
    victim.books.apply(records, lines)
    victim.start()
    victim.wait_console(b"SELECT * FROM procedures")
    deadline = time.monotonic() + 20 * driver.SLOW
    while len(victim.read_rows("procedures", start)) < 20 and time.monotonic() < deadline:
        time.sleep(driver.POLL)
    stored = victim.read_rows("procedures", start)
    for number, row in enumerate(victim.books.tables["procedures"][start:]):
        tally.add(
            "offline",
            "offline: procedure %d" % number,
            None if row in stored else "not among %d rows" % len(stored),
        )
    if len(stored) < 20:
        victim.adopt()
    settle(carol, 2)


def try_real_stops(trial, victim, reals, tally):
    """Designed stops that a peer, a stranger and another host can cause through a real server."""
    for number, real in enumerate(reals):
        found = [
            case
            for case in all_cases(real.peer)
            if is_stop(case, victim.full) and case.group == "attributes" and relay(case, real.peer)
        ]
        for case in found[number :: 127 if trial.short else 11 if number == 0 else 31]:
            arrived = relay(case, real.peer)
            try:
                cases.read(arrived, victim.full)
                continue
            except cases.Stop as stop:
                expected = ": ".join(stop.args)
            real_stop(
                victim, real, b"".join(map(cases.encode, case.stanzas)), expected, tally, case.what
            )
        real_stop(
            victim,
            real,
            real.head + b"type='error' id='x'>" + ERROR,
            "src/xmpp_connection.cpp: string_has_only_digits (id_attrib)",
            tally,
            "error id",
        )


def real_stop(victim, real, data, expected, tally, what):
    """Sends what stops the program and judges how it ended; starts it again where it is down."""
    if victim.party.process is None:
        victim.start()
        victim.wait_console(b"SELECT * FROM procedures")
    real.send(data)
    status, stops, rest = victim.wait_stop()
    good = (status, stops, rest) == (-signal.SIGABRT, [expected], [])
    tally.add(
        "real stops", what, None if good else "%r instead of %r" % ((status, stops, rest), expected)
    )
    tally.add("real stores after stops", what, check_store(victim))


# ---- Trial ----


def main():
    """Runs the parts that were asked for, all by default."""
    trial = Trial(
        "hostile",
        __doc__,
        lambda parser: parser.add_argument(
            "--part", action="append", help="only this part: server, real, memory, floods"
        ),
    )
    driver.enter_world(HOSTS)
    driver.Options.binary = trial.binary
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    sys.setrecursionlimit(20000)
    driver.PASSWORDS[EVIL_ANNA] = "no-secret"
    desktop = driver.Desktop()
    evil = Evil()
    tally = Tally()
    parts = {"server": try_server, "real": try_real, "memory": try_memory, "floods": try_floods}
    for name in trial.arguments.part or parts:
        start = time.monotonic()
        parts[name](trial, evil, tally)
        print("%s took %.1f s" % (name, time.monotonic() - start), flush=True)
    if tally.total["whole stores"]:
        tally.check(
            trial,
            "the stores read as a whole at the end",
            ["whole stores"],
            "with every row as computed, and no other",
        )
    tally.check(trial, "standard error of the windows", ["warnings"], "without a warning of GTK")
    evil.server.stop()
    desktop.stop()
    sys.exit(trial.end())


def begin_session(evil):
    """A window that logged in to the hostile server, and the peer whose stanzas it will get."""
    victim = Victim(EVIL_ANNA)
    evil.login(victim)
    victim.wait_console(b"SELECT * FROM procedures")
    victim.open_store()
    victim.adopt()
    return victim, cases.Peer(victim.full)


def try_server(trial, evil, tally):
    """The hostile server: everything."""
    victim, peer = begin_session(evil)
    tally.add("opening", "opening", victim.judge(peer.opening(), evil.send, HEAD))
    tally.add(
        "opening",
        "a contact",
        victim.judge(
            cases.Case("opening", "a contact", [cases.presence(None, peer.full, victim.full)]),
            evil.send,
            HEAD,
        ),
    )
    try_shown(trial, victim, evil, peer)
    try_vcard(trial, victim, evil, peer)
    try_all(trial, victim, evil, peer, tally)
    rows = (
        (
            "attributes of the five elements: doubled, huge, renamed, unknown, with quotes, NUL, bad "
            "UTF-8, SQL, markup",
            ["attributes"],
        ),
        (
            "texts in the five elements: void, 1 MB, SQL, markup, entities, NUL, bad UTF-8",
            ["texts"],
        ),
        (
            "elements repeated, reordered, nested, out of place, without their parents",
            ["structure"],
        ),
        ("what is no XML, no stanza, or too much of either", ["broken"]),
        ("presences of every type from and to every address", ["presences"]),
        ("chat lines with every sender and text", ["messages"]),
        ("iqs: roster pushes, answers and vCards that nobody asked for", ["iqs"]),
        (
            "negotiation in the name of the other party, of a third, from a stranger: "
            "dropped, but for new procedures",
            ["impostors"],
        ),
    )
    for row, groups in rows:
        tally.check(
            trial, "from a hostile server: " + row, groups, "with the lines and rows laid down"
        )
    look_back(victim, tally, "from the hostile server")
    victim.party.kill()
    victim.pending = b""
    victim.console.seek(0, os.SEEK_END)
    try_stops(trial, victim, evil, peer, tally)
    tally.check(
        trial,
        "pairs missing, empty or malformed, iqs that may not be: each ends a program",
        ["stops"],
        "with exactly their assertion",
    )
    tally.check(
        trial,
        "the store after each of these, and the start after it",
        ["stores after stops"],
        "with every row and integrity_check ok",
    )
    trial.figure("comparisons of sqlite_master, all equal", f"{victim.schemas_compared:,}")
    trial.figure(
        "rows that the hostile server's cases left, as they had to",
        sum(len(rows) for rows in victim.books.tables.values()),
    )
    victim.end()


def try_real(trial, _, tally):
    """The real server; the hostile one is not needed."""
    try_real_server(trial, tally)
    names = [
        ("contact", "a contact's cases that Prosody passes on"),
        ("stranger", "a stranger's"),
        ("other host", "those of an account at another host"),
    ]
    for group, row in names:
        if tally.total[group]:
            tally.check(
                trial, "through Prosody: " + row, [group], "with the lines and rows laid down"
            )
    tally.check(
        trial,
        "through Prosody: NUL, control characters, bad UTF-8, doubled attributes, " "over 256 KB",
        ["refused"],
        "refused by the server, nothing seen by the window",
    )
    tally.check(
        trial,
        "through Prosody: a stranger's stanza around one in a contact's name",
        ["nested"],
        "of which nothing is stored",
    )
    tally.check(
        trial,
        "through Prosody: procedures that waited beside a stranger's stanza that gives " "no tree",
        ["offline"],
        "stored",
    )
    tally.check(
        trial,
        "through Prosody: cases that end the program",
        ["real stops"],
        "with exactly their assertion",
    )
    tally.check(
        trial,
        "the store after each of these",
        ["real stores after stops"],
        "with every row and integrity_check ok",
    )


# ---- Memory ----


# What the allocator and GTK may keep for later use, in bytes; each refused case that is kept once
# takes more.
KEPT_SIZE = 5_000_000


def try_memory(trial, evil, tally):
    """What leaves nothing in the store leaves nothing in memory but its text on the console."""
    victim, peer = begin_session(evil)
    victim.judge(peer.opening(), evil.send, HEAD)
    refused = [case for case in all_cases(peer) if leaves_nothing(case, victim)]
    if trial.short:
        refused = refused[::10]
    rounds = 4 if trial.short else 40
    figures = {}
    sent = [b"".join(map(cases.encode, case.stanzas)) for case in refused]
    # Fonts for strange letters and the like are loaded once.
    grow(victim, evil, sent, 2)
    for what, stanzas in (("harmless", [make_harmless(data) for data in sent]), ("refused", sent)):
        figures[what] = grow(victim, evil, stanzas, rounds)
    memory, console = figures["refused"]
    per_byte = memory / console
    expected = f"no more a byte of text than harmless stanzas take, and {KEPT_SIZE // 1_000_000} MB"
    harmless = figures["harmless"][0] / figures["harmless"][1]
    trial.check(
        f"{len(refused):,} refused cases, {rounds} times: memory beside the console's text",
        expected,
        expected
        if memory < max(harmless, 1) * console + KEPT_SIZE
        else f"{per_byte:.1f} bytes a byte of text instead of {harmless:.1f}",
    )
    trial.figure(
        "refused cases: growth of memory, console text",
        f"+{memory / 1e6:.1f} MB, {console / 1e6:.1f} MB: {per_byte:.1f} bytes a byte; "
        f"harmless stanzas {harmless:.1f}",
    )
    look_back(victim, tally, "of refused cases")
    victim.end()


def make_harmless(data):
    """The same text in stanzas and elements that nobody reads."""
    for name in (b"presence", b"iq"):
        data = data.replace(b"<" + name, b"<h" + name).replace(b"</" + name, b"</h" + name)
    return data.replace(b"<x-", b"<y-").replace(b"</x-", b"</y-")


def leaves_nothing(case, victim):
    """Whether a case is small and stores nothing."""
    try:
        lines, records = cases.read(case, victim.full)
    except cases.Stop:
        return False
    size = sum(len(cases.encode(stanza)) for stanza in case.stanzas)
    return not records and size < 5000 and (lines or case.group == "iqs")


def grow(victim, evil, stanzas, rounds):
    """Sends the stanzas again and again: by how much memory and console text grew behind the first
    round, which fills what is kept for later use."""
    for number in range(rounds + 1):
        for stanza in stanzas:
            evil.send(stanza)
        victim.deliver(b"", evil.send, HEAD)
        if number == 0:
            memory, console = victim.memory(), victim.party.console_mark()
    return victim.memory() - memory, victim.party.console_mark() - console


# ---- Floods ----


class Clicks:
    """A hand that clicks into one of two entries and looks how long it takes to get the keyboard."""

    def __init__(self, party):
        party.click("New procedure")
        self.party = party
        self.nodes = [
            party.wait_for(name, driver.ENTRY_ROLES) for name in ("Procedure title", "Contractor")
        ]
        self.places = [party.scroll_to(node) for node in self.nodes]
        self.turn = 0
        self.times = []

    def click(self):
        """Clicks once and keeps the seconds until it was answered."""
        self.turn = 1 - self.turn
        start = time.monotonic()
        self.party.desktop.press_at(*self.places[self.turn])
        deadline = start + 120 * driver.SLOW
        while not self.is_answered():
            if time.monotonic() > deadline:
                break
        self.times.append(time.monotonic() - start)

    def is_answered(self):
        """Whether the entry has the keyboard; a program that does not even say so has not."""
        try:
            return self.nodes[self.turn].has(driver.STATE_FOCUSED)
        except driver.GLib.Error:
            return False

    def take_worst(self):
        """The longest of the times since the last call."""
        worst, self.times = max(self.times), []
        return worst


CLICK_MAX = 5.0 * driver.SLOW  # seconds, on a machine that does other things too


def send_all(evil, stanzas):
    """Sends as fast as the other side takes it, as many whole stanzas at once as 8 KB hold."""
    data = b""
    for stanza in stanzas:
        if len(data) + len(stanza) > 8192:
            evil.send(data)
            data = b""
        data += stanza
    evil.send(data)


def try_flood(trial, victim, evil, clicks, tally, what, stanzas, rows):
    """Sends all the stanzas at once, clicks all the while, and looks at what is left behind."""
    memory, console = victim.memory(), victim.party.console_mark()
    rows_before = victim.party.count_rows("contacts")
    stored = os.path.getsize(victim.party.store_path)
    start = time.monotonic()
    victim.mark += 1
    mark = b"%d" % victim.mark
    stanzas = stanzas + [HEAD + b"type='error' id='" + mark + b"'/>"]
    sender = threading.Thread(target=send_all, args=(evil, stanzas), daemon=True)
    sender.start()
    console_file = open(victim.party.console_path, "rb")
    console_file.seek(console)
    text, end = b"", b"Warning: Got an IQ an ID " + mark
    count = 0
    while end not in text:
        clicks.click()
        count += 1
        text = text[-200:] + console_file.read()
        if victim.party.process.poll() is not None:
            raise driver.Failure("the program ended")
        if time.monotonic() - start > 900 * driver.SLOW:
            raise driver.Failure("the flood never ended")
    seconds = time.monotonic() - start
    during = clicks.take_worst()
    for _ in range(5):
        clicks.click()
    after = clicks.take_worst()
    console = victim.party.console_mark() - console
    memory = victim.memory() - memory
    stored = os.path.getsize(victim.party.store_path) - stored
    slow = max(during, after)
    tally.add("clicks", what, None if slow < CLICK_MAX else "after %.1f s" % slow)
    new = rows - rows_before
    within = memory < 15 * console + 200_000 * new + 10_000_000
    tally.add(
        "memory",
        what,
        None
        if within
        else "%.1f MB for %.1f MB of text and %d contacts" % (memory / 1e6, console / 1e6, new),
    )
    seen = victim.party.count_rows("contacts")
    tally.add("contacts", what, None if seen == rows else "%d instead of %d" % (seen, rows))
    trial.figure(
        what,
        "%.1f s; slowest of %d clicks meanwhile %.0f ms, of 5 after it %.0f ms; memory "
        "+%.1f MB, console text %.1f MB, store +%.2f MB"
        % (seconds, count, during * 1000, after * 1000, memory / 1e6, console / 1e6, stored / 1e6),
    )


def try_floods(trial, evil, tally):
    """Thousands of requests and presences at once, from as many addresses."""
    victim = Victim(EVIL_ANNA)
    evil.login(victim)
    victim.wait_console(b"SELECT * FROM procedures")
    clicks = Clicks(victim.party)
    victim.party.show_list("Contacts")
    evil.wire.keeps = False
    count, many = (200, 100) if trial.short else (10000, 1000)
    own = victim.full
    people = [b"person%05d@flood.test/home" % number for number in range(count)]
    alone = [people[0]] * count
    # Each new contact is a page and a row more for GTK to place, whenever one more comes.
    newcomers = people[:many]
    floods = (
        ("requests for subscription from as many addresses", people, b"subscribe", 0),
        ("presences from as many addresses", newcomers, None, many),
        ("presences from one address", alone, None, many),
        ("requests for subscription from one address", alone, b"subscribe", many),
    )
    for what, senders, kind, rows in floods:
        stanzas = [cases.encode(cases.presence(kind, sender, own)) for sender in senders]
        heard = evil.wire.heard_count
        name = f"{len(senders):,} {what}"
        try_flood(trial, victim, evil, clicks, tally, name, stanzas, rows)
        if kind:
            wait_heard(evil.wire, heard, len(answers(own, senders)))
    tally.check(
        trial,
        "floods: clicks into the window meanwhile and after",
        ["clicks"],
        "answered within %.0f s" % CLICK_MAX,
    )
    tally.check(
        trial,
        "floods: memory",
        ["memory"],
        "grown by at most 15 bytes a byte of console text, 200 KB a new contact and 10 MB",
    )
    tally.check(trial, "floods: rows of contacts", ["contacts"], "with one a new address")
    look_back(victim, tally, None)
    victim.end()


def answers(own, senders):
    """What the program sends when it is asked for subscriptions, without the ids."""
    return b"".join(
        b"<presence type='subscribed' id='' from='%s' to='%s'/>"
        b"<presence type='subscribe' id='' from='%s' to='%s'/>"
        % (own, sender, cases.bare(own), sender)
        for sender in senders
    )


def wait_heard(wire, start, size):
    """Waits until all answers have come."""
    driver.Desktop.current.wait(lambda: wire.heard_count - start >= size, "all answers have come")


if __name__ == "__main__":
    main()
