"""What the trial `hostile` sends, and what must come of it.

A case is a few stanzas. What they must do is worked out here a second time, from the wire format as
it is laid down and without a look at the program's own parser: first what the session's thread makes
of a stanza (lines on the console, a stop, or records for the interface), then what the interface
does with the records (more lines, rows of the store). `Books` holds the rows that the store must
have, so that every case is judged by what all cases before it left behind.
"""

import re
import unicodedata
from collections import namedtuple
from time import time as get_seconds

# Pieces of a stanza. Attributes are (name, value, quote) with the bytes between the quotes.
Element = namedtuple("Element", "name attributes content")
Ignored = namedtuple("Ignored", "data")  # a piece of a body that nobody reads

# A stanza: its bytes come from `encode`. `body` is a list of texts, `Element` and `Ignored`; None
# means that there is no body.
Message = namedtuple("Message", "attributes body")
Presence = namedtuple("Presence", "attributes")
# Bytes whose outcome is given: lines of the console.
Given = namedtuple("Given", "data lines")
# A given stop: where and which expression.
GivenStop = namedtuple("GivenStop", "data stop")

Case = namedtuple("Case", "group what stanzas")

PAIRS = {
    "x-procedure": ["procedure"],
    "x-clause": ["procedure", "clause"],
    "x-revision": ["procedure", "clause", "revision"],
    "x-clause-message": ["procedure", "clause", "message"],
    "x-clause-decision": ["procedure", "clause", "revision", "decision"],
}
TIME_LABELS = {name: name + "_time" for pairs in PAIRS.values() for name in pairs}

TABLES = {
    "accounts": ("db_id", "bare_jid"),
    "contacts": ("db_id", "account_db_id", "bare_jid"),
    "contact_messages": ("db_id", "contact_db_id", "time", "author", "body"),
    "procedures": ("db_id", "account_db_id", "time", "initiator", "contractor", "title"),
    "clauses": ("db_id", "procedure_db_id", "time", "initiator", "position"),
    "clause_messages": ("db_id", "clause_db_id", "time", "author", "text"),
    "clause_revisions": ("db_id", "clause_db_id", "time", "author", "status", "text"),
    "clause_revision_decisions": ("db_id", "clause_revision_db_id", "time", "author", "status"),
}

NOW = "now"  # in the place of a time that the receiver takes from its own clock

CANNOT_KEEP_PAIR = b"Warning: Received a negotiation element whose author or time can't be kept."
CANNOT_KEEP_TEXT = b"Warning: Received a text which can't be kept."


class Stop(Exception):
    """The designed end of the program: the file and the expression of the assertion."""


# ---- Bytes ----


def encode_attributes(attributes):
    """The attributes as they stand in a tag."""
    return b"".join(b" " + name + b"=" + quote + value + quote for name, value, quote in attributes)


def encode_element(element):
    """The bytes of an element, or of what stands in a body beside elements."""
    if isinstance(element, bytes):
        return element
    if isinstance(element, Ignored):
        return element.data
    head = b"<" + element.name.encode() + encode_attributes(element.attributes)
    if element.content is None:
        return head + b"/>"
    return head + b">" + element.content + b"</" + element.name.encode() + b">"


def encode(stanza):
    """The bytes of a stanza."""
    if isinstance(stanza, (Given, GivenStop)):
        return stanza.data
    if isinstance(stanza, Presence):
        return b"<presence" + encode_attributes(stanza.attributes) + b"/>"
    head = b"<message" + encode_attributes(stanza.attributes)
    if stanza.body is None:
        return head + b"/>"
    pieces = b"".join(encode_element(piece) for piece in stanza.body)
    return head + b"><body>" + pieces + b"</body></message>"


# ---- What is laid down: texts and pairs ----

ENTITIES = {b"quot": b'"', b"apos": b"'", b"amp": b"&", b"lt": b"<", b"gt": b">"}


def unescape(text):
    """The text with the five entities resolved; None when there is anything else behind an "&"."""
    known = rb"&(?:(quot|apos|amp|lt|gt);)?"
    if any(not match.group(1) for match in re.finditer(known, text)):
        return None
    return re.sub(known, lambda match: ENTITIES[match.group(1)], text)


def escape(text):
    """The text as a server writes it."""
    for char, name in (
        (b"&", b"amp"),
        (b"<", b"lt"),
        (b">", b"gt"),
        (b"'", b"apos"),
        (b'"', b"quot"),
    ):
        text = text.replace(char, b"&" + name + b";")
    return text


def is_text(data):
    """Whether a store can keep it and a window show it: UTF-8 without a NUL."""
    try:
        data.decode("utf-8")
    except UnicodeDecodeError:
        return False
    return b"\0" not in data


def is_storable_jid(jid):
    """Whether an author or a contact of that name can be kept."""
    return 0 < len(jid) <= 2047 and is_text(jid) and b"'" not in jid


def first_child(content):
    """What the first child of an element is: None, "element", or its text."""
    if content is None:
        return None
    content = content.lstrip(b" ")
    if not content:
        return None
    text = content.split(b"<")[0]
    return text or "element"


def get_attribute(attributes, name):
    """The first one of that name counts; one that is missing is empty."""
    return next((value for other, value, _ in attributes if other == name), b"")


def split_pair(element, name):
    """The author and the time text of a pair, or the stop."""
    value = get_attribute(element.attributes, name.encode())
    whole = "message_attrib" if name == "message" else name
    author, colon, time = value.partition(b":")
    if not colon:
        raise Stop("src/xmpp.cpp", name + "_divider.size")
    if not author:
        raise Stop("src/xmpp.cpp", "%s_divider.size != %s.size" % (name, whole))
    if not time:
        raise Stop("src/xmpp.cpp", name + "_divider.size != 1")
    return author, time


def read_pairs(element):
    """All pairs of an element as (author, time); None when one of them cannot be kept."""
    names = PAIRS[element.name]
    pairs = [split_pair(element, name) for name in names]
    for name, (_, time) in zip(names, pairs):
        if not re.fullmatch(rb"[0-9]+", time):
            raise Stop("src/xmpp.cpp", "string_has_only_digits (%s)" % TIME_LABELS[name])
    if all(is_storable_jid(author) and len(time) <= 12 for author, time in pairs):
        return [(author, int(time)) for author, time in pairs]
    return None


def bare(jid):
    """The part of an address before the first slash."""
    return jid.split(b"/")[0]


# ---- The session's thread ----

CONTENT_WARNINGS = {
    "x-procedure": (
        b"Warning: Received a void procedure.",
        b"Warning: Received a procedure without a title.",
    ),
    "x-revision": (
        b"Warning: Received a void clause revision.",
        b"Warning: Received a clause revision with no text.",
    ),
    "x-clause-message": (
        b"Warning: Received a void clause message.",
        b"Warning: Received a clause message with no text.",
    ),
    "x-clause-decision": (
        b"Warning: Received a void clause decision.",
        b"Warning: Received a clause decision not text.",
    ),
}


def read_element(element, lines):
    """The record that a negotiation element gives, or none. Lines are added; a stop is raised."""
    text = b""
    if element.name in CONTENT_WARNINGS:
        child = first_child(element.content)
        if child in (None, "element"):
            lines.append(CONTENT_WARNINGS[element.name][child == "element"])
            if element.name in ("x-procedure", "x-clause-decision"):
                return None
        else:
            text = child
    if element.name == "x-clause-decision" and text not in (b"AGREE", b"DISAGREE"):
        lines.append(b"Warning: Received an invalid clause decision '" + text + b"'")
        return None
    pairs = read_pairs(element)
    if pairs is None:
        lines.append(CANNOT_KEEP_PAIR)
        return None
    resolved = unescape(text)
    if resolved is None or not is_text(text):
        lines.append(CANNOT_KEEP_TEXT)
        return None
    return (element.name, pairs, resolved)


def speaks_for_another(element, sender):
    """Whether an element names an author who is not the sender of its message. Procedures are not
    asked, and a malformed pair is the parser's to stop at."""
    if element.name == "x-procedure":
        return False
    pairs = [get_attribute(element.attributes, name.encode()) for name in PAIRS[element.name]]
    if not all(re.fullmatch(rb"[^:]+:[0-9]+", pair) for pair in pairs):
        return False
    names = [bare(sender)]
    if element.name == "x-clause-message" and b"@" in bare(sender):
        names.append(bare(sender).split(b"@")[0])
    return pairs[-1].split(b":")[0] not in names


def read_message(message, lines):
    """The records that a message gives."""
    sender = get_attribute(message.attributes, b"from")
    if not sender:
        lines.append(b"Warning: Received a <message> without a FROM attribute.")
        return []
    if message.body is None:
        lines.append(b"Warning: Received a <message> without a BODY.")
        return []
    records = []
    pieces = [piece.lstrip(b" ") if isinstance(piece, bytes) else piece for piece in message.body]
    pieces = [piece for piece in pieces if piece != b""]
    for piece in pieces or [b""]:
        if isinstance(piece, bytes):
            resolved = unescape(piece)
            if resolved is None or not is_text(piece):
                lines.append(CANNOT_KEEP_TEXT)
            else:
                records.append(("chat", sender, resolved))
        elif isinstance(piece, Element) and piece.name in PAIRS:
            if speaks_for_another(piece, sender):
                lines.append(
                    b"Warning: Received a negotiation element from '%s' in someone else's "
                    b"name." % sender
                )
            else:
                records.append(read_element(piece, lines))
    return [record for record in records if record]


def read_presence(presence, lines, own):
    """The record that a presence gives. `own` is the account's full address."""
    kind, sender, to = (
        get_attribute(presence.attributes, name) for name in (b"type", b"from", b"to")
    )
    name = b"Warning: Got <presence type='%s'> " % kind
    if kind == b"subscribe":
        if sender:
            return [(kind, sender, None)]
        lines.append(name + b"without a FROM attribute.")
    elif kind not in (b"", b"unavailable", b"subscribed"):
        lines.append(b"Warning: Got unhandled a <presence> of TYPE '%s'" % kind)
    elif not kind and not to:
        if sender == own:
            return [(b"confirm", sender, None)]
        # An attribute that is not there is printed as a null pointer is.
        is_there = any(name == b"from" for name, _, _ in presence.attributes)
        lines.append(
            b"Warning: Got a <presence> without a TO attribute and with FROM attribute '"
            b"%s', but we are '%s'." % (sender if is_there else b"(null)", own)
        )
    elif not sender:
        lines.append(
            name + b"without a FROM attribute."
            if kind
            else b"Warning: Got a <presence> without a FROM attribute."
        )
    elif not to:
        lines.append(name + b"without a TO attribute.")
    elif bare(to) != bare(own):
        lines.append(
            b"Warning: Got <presence type='%s'> with a TO attribute '%s', but we are '%s'."
            % (kind or b"subscribed", to, bare(own))
        )
    else:
        return [(kind or b"available", sender, None)]
    return []


def read(case, own):
    """Lines and records of a whole case; raises the stop that it means."""
    lines, records = [], []
    for stanza in case.stanzas:
        if isinstance(stanza, GivenStop):
            raise Stop(*stanza.stop)
        if isinstance(stanza, Given):
            lines.extend(stanza.lines)
        elif isinstance(stanza, Presence):
            records.extend(read_presence(stanza, lines, own))
        else:
            records.extend(read_message(stanza, lines))
    return lines, records


# ---- The interface: what is kept ----


class Books:
    """The rows that the store must hold, as lists of values in the order of `TABLES`."""

    def __init__(self, own):
        self.own = own  # the account's full address
        self.tables = {name: [] for name in TABLES}
        self.changes = 0  # rows added or changed so far
        self.sent = []  # what must have been sent, as patterns

    def insert(self, table, *values):
        """One row more, with the next number."""
        rows = self.tables[table]
        self.changes += 1
        rows.append([len(rows) + 1] + list(values))

    def apply(self, records, lines):
        """Applies the records in turn and adds their lines."""
        for record in records:
            if record[0] in PAIRS:
                self.apply_element(record, lines)
            elif record[0] == "chat":
                self.apply_chat(record, lines)
            else:
                self.apply_presence(record, lines)

    def apply_chat(self, record, lines):
        """A chat line is kept when its author is a contact."""
        _, sender, text = record
        lines.append(b"Received <message from='%s'>" % sender)
        if bare(sender) == bare(self.own):
            return
        contact = next((row for row in self.tables["contacts"] if row[2] == bare(sender)), None)
        if contact:
            self.insert("contact_messages", contact[0], NOW, bare(sender), text)
        else:
            lines.append(
                b"Warning: Received a message from '%s', but that contact isn't in the "
                b"contact list." % sender
            )

    def apply_presence(self, record, lines):
        """Who is there, or not, becomes a contact; every subscription is accepted."""
        kind, sender, _ = record
        shown = b" type='%s'" % kind if kind not in (b"available", b"confirm") else b""
        lines.append(b"Received <presence%s from='%s'>" % (shown, sender))
        if kind == b"subscribe":
            if b"'" in sender:
                lines.append(
                    b"Warning: Received a <presence> from an account that can't be answered."
                )
                return
            for answer, own in ((b"subscribed", self.own), (b"subscribe", bare(self.own))):
                self.sent.append(
                    rb"<presence type='%s' id='\d+' from='%s' to='%s'/>"
                    % (answer, re.escape(own), re.escape(sender))
                )
        elif kind in (b"available", b"unavailable") and bare(sender) != bare(self.own):
            if any(row[2] == bare(sender) for row in self.tables["contacts"]):
                return
            if is_storable_jid(bare(sender)):
                self.insert("contacts", 1, bare(sender))
            else:
                lines.append(
                    b"Warning: Received a <presence> from an account that can't be a " b"contact."
                )

    def apply_element(self, record, lines):
        """A negotiation element finds what it belongs to, or is dropped with a line."""
        name, pairs, text = record
        author, seconds = pairs[-1]
        if name == "x-procedure":
            if fold(author) == fold(bare(self.own)):
                lines.append(b"Warning: A procedure came in this account's own name.")
                return
            title = text.replace(b"'", "\u2019".encode())
            statement = (
                b"INSERT INTO procedures (account_db_id, time, initiator, contractor, title) "
                b"VALUES (1, %d, '%s', '%s', '%s');" % (seconds, author, bare(self.own), title)
            )
            if len(statement) > 4000:
                lines.append(b"Warning: Received a procedure whose title is too long to be kept.")
            else:
                self.insert("procedures", 1, seconds, author, bare(self.own), title)
                lines.extend(warn_of_time(b"procedure", seconds))
            return
        event = {
            "x-clause": b"clause",
            "x-revision": b"clause revision",
            "x-clause-message": b"clause message",
            "x-clause-decision": b"clause revision decision",
        }[name]
        parent = 1
        procedure = None
        for kind, pair in zip(("procedure", "clause", "revision"), pairs[:-1]):
            table = {
                "procedure": "procedures",
                "clause": "clauses",
                "revision": "clause_revisions",
            }[kind]
            row = next(
                (
                    row
                    for row in self.tables[table]
                    if row[1] == parent and (row[2], row[3]) == (pair[1], pair[0])
                ),
                None,
            )
            if not row:
                lines.append(
                    b"Warning: A %s came, but we don't have the %s to attach it to."
                    % (event, kind.encode())
                )
                return
            parent = row[0]
            procedure = procedure or row
        refusal = self.refuse(name, procedure, parent, author, seconds, text)
        if refusal:
            lines.append(b"Warning: A %s came %s." % (event, refusal))
            return
        if name == "x-clause":
            self.insert("clauses", parent, seconds, author, 1)
        elif name == "x-revision":
            self.insert("clause_revisions", parent, seconds, author, b"COMMITTED", text)
        elif name == "x-clause-message":
            self.insert("clause_messages", parent, seconds, author, text)
        if name != "x-clause-decision":
            lines.extend(warn_of_time(event, seconds))
        else:
            decision = next(
                (
                    row
                    for row in self.tables["clause_revision_decisions"]
                    if row[1] == parent and row[3] == author
                ),
                None,
            )
            if decision:
                decision[2:] = [NOW, author, text]
                self.changes += 1
            else:
                self.insert("clause_revision_decisions", parent, NOW, author, text)

    def refuse(self, name, procedure, parent, author, seconds, text):
        """Why an element that has a place is dropped; None where it is not."""
        parties = [fold(party) for party in procedure[3:5]]
        if name == "x-clause-message":
            parties += [fold(party.split(b"@")[0]) for party in procedure[3:5]]
        elif fold(author) == fold(bare(self.own)):
            return b"in this account's own name"
        if fold(author) not in parties:
            return b"from someone who is no party of its procedure"
        table, wanted = {
            "x-clause": ("clauses", (seconds, author)),
            "x-revision": ("clause_revisions", (seconds, author)),
            "x-clause-message": ("clause_messages", (seconds, author, text)),
        }.get(name, (None, None))
        if table and any(
            row[1] == parent and tuple(row[2 : 2 + len(wanted)]) == wanted
            for row in self.tables[table]
        ):
            return b"that is here already"
        return None


def fold(name):
    """A name as people read it."""
    try:
        text = unicodedata.normalize("NFKC", name.decode())
    except UnicodeDecodeError:
        return name
    return unicodedata.normalize("NFKC", text.casefold())


def warn_of_time(event, seconds):
    """The line about a clock that is far ahead, or none."""
    if seconds - get_seconds() > 24 * 60 * 60:
        return [b"Warning: A %s came with a time more than a day ahead." % event]
    return []


# ---- The peer's world ----


class Peer:
    """Who speaks: the addresses, the procedure that the cases are about, and fresh times."""

    def __init__(self, own, user=b"bert", host=None, resource=b"evil"):
        self.own = own
        self.host = host or bare(own).split(b"@")[1]
        self.bare = user + b"@" + self.host
        self.full = self.bare + b"/" + resource
        self.times = {"procedure": 1700000001, "clause": 1700000002, "revision": 1700000003}
        self.next_time = 1700100000

    def fresh(self):
        """A second that nothing else has."""
        self.next_time += 1
        return self.next_time

    def attributes(self, name):
        """Good attributes of an element: the parents are known, the last one is new."""
        names = PAIRS[name]
        times = [self.times.get(pair) for pair in names[:-1]] + [self.fresh()]
        return [
            (pair.encode(), b"%s:%d" % (self.bare, time), b"'") for pair, time in zip(names, times)
        ]

    def element(self, name, content=None):
        """A good element."""
        contents = {
            "x-procedure": b"Title",
            "x-revision": b"Text",
            "x-clause-message": b"Line",
            "x-clause": b"",
            "x-clause-decision": b"AGREE",
        }
        return Element(name, self.attributes(name), contents[name] if content is None else content)

    def message(self, *body):
        """A message from this peer."""
        return Message(
            [(b"type", b"chat", b"'"), (b"from", self.full, b"'"), (b"to", self.own, b"'")],
            list(body),
        )

    def opening(self):
        """The procedure, the clause and the revision that the cases are about."""
        pairs = [(kind, b"%s:%d" % (self.bare, time)) for kind, time in self.times.items()]
        attributes = [(kind.encode(), pair, b"'") for kind, pair in pairs]
        return Case(
            "opening",
            "a procedure, a clause and a revision",
            [
                self.message(
                    Element("x-procedure", attributes[:1], b"Hostile procedure"),
                    Element("x-clause", attributes[:2], b""),
                    Element("x-revision", attributes, b"The first text"),
                )
            ],
        )


# ---- The cases ----

SQL = b"x'); DROP TABLE clauses; DELETE FROM procedures; --"
QUIET_SQL = b'x"); DROP TABLE clauses; DELETE FROM procedures; --'
MARKUP = b"<span foreground='red'><b>x</i></span> &amp; <a href=\"x\">"
BAD_UTF8 = {
    "a byte that is never UTF-8": b"\xff",
    "an overlong slash": b"\xc0\xaf",
    "a surrogate": b"\xed\xa0\x80",
    "half a character": b"\xe2\x82",
}


def pair_values(author, time):
    """What can stand in the place of "author:time": (what, value, quote). None is no attribute."""
    good = b"%s:%s" % (author, time)
    plain = [
        ("missing", None),
        ("empty", b""),
        ("a lone colon", b":"),
        ("no colon", author),
        ("no author", b":" + time),
        ("no time", author + b":"),
        ("a letter in the time", good + b"x"),
        ("a negative time", author + b":-" + time),
        ("a plus sign", author + b":+" + time),
        ("a space before the time", author + b": " + time),
        ("a space behind the time", good + b" "),
        ("a fraction", good + b".5"),
        ("a hexadecimal time", author + b":0x10"),
        ("Arabic digits", author + ":١٢".encode()),
        ("two colons", author + b":1:" + time),
        ("time and author exchanged", time + b":" + author),
        ("a NUL in the time", good + b"\0"),
        ("a line feed behind the time", good + b"\n"),
        ("spaces only", b"   "),
        ("an entity in the time", good + b"&amp;"),
        ("12 digits", author + b":999999999999"),
        ("13 digits", author + b":9999999999999"),
        ("20 digits", author + b":18446744073709551616"),
        ("1,000 digits", author + b":" + b"9" * 1000),
        ("100,000 digits", author + b":" + b"1" * 100000),
        ("leading zeros", author + b":" + time.rjust(12, b"0")),
        ("the time 0", author + b":0"),
        ("a quote", b'be"rt@x:' + time),
        ("an escaped apostrophe", b"o&apos;brien@x:" + time),
        ("an unknown entity", b"o&nbsp;x@x:" + time),
        ("a lone ampersand", b"o & x:" + time),
        ("a NUL", b"be\0rt@x:" + time),
        ("a control character", b"be\x01rt@x:" + time),
        ("a terminal's escape", b"\x1b[31mbert@x:" + time),
        ("a line feed", b"be\nrt@x:" + time),
        ("U+FFFE", "be\ufffert@x:".encode() + time),
        ("a turn to the left", "be\u202ert@x:".encode() + time),
        ("2,047 bytes", b"b" * 2047 + b":" + time),
        ("2,048 bytes", b"b" * 2048 + b":" + time),
        ("100,000 bytes", b"b" * 100000 + b":" + time),
        ("SQL", QUIET_SQL.replace(b":", b"") + b":" + time),
        ("markup", b"<b>bert</b>:" + time),
        ("escaped markup", b"&lt;b&gt;bert&lt;/b&gt;:" + time),
        ("formats", b"%s%n%.*s:" + time),
        ("a full address", author + b"/home:" + time),
        ("capitals", author.upper() + b":" + time),
        ("an unknown time", b"%s:12345" % author),
        ("an unknown author", b"mallory@x:" + time),
        ("no user", b"@x:" + time),
        ("a slash first", b"/x:" + time),
    ]
    for what, data in BAD_UTF8.items():
        plain.append((what, b"be" + data + b"rt@x:" + time))
    for what, value in plain:
        yield what, value, b"'"
    yield "double quotes", good, b'"'
    yield "an apostrophe", b"o'brien@x:" + time, b'"'
    yield "SQL with apostrophes", SQL + b":" + time, b'"'
    yield "markup with apostrophes", MARKUP.replace(b'"', b"") + b":" + time, b'"'


def attribute_cases(peer):
    """Every attribute of every element with every value, doubled both ways and renamed."""
    for name, names in PAIRS.items():
        for index, pair in enumerate(names):
            author, time = peer.attributes(name)[index][1].split(b":")
            for what, value, quote in pair_values(author, time):
                attributes = peer.attributes(name)
                attributes[index] = (pair.encode(), value, quote)
                yield pair_case(
                    peer, name, pair, what, [other for other in attributes if other[1] is not None]
                )
                if pair == names[-1] and re.fullmatch(rb"[^:]+:[0-9]+", value or b""):
                    yield own_words_case(peer, name, what, attributes)
            good = peer.attributes(name)
            for what, value in (("broken", b"nothing"), ("unknown", b"mallory@x:1")):
                other = (pair.encode(), value, b"'")
                yield pair_case(
                    peer,
                    name,
                    pair,
                    "doubled, a%s %s one last" % ("n" * (what == "unknown"), what),
                    peer_fresh(peer, name) + [other],
                )
                yield pair_case(
                    peer,
                    name,
                    pair,
                    "doubled, a%s %s one first" % ("n" * (what == "unknown"), what),
                    [other] + peer_fresh(peer, name),
                )
            good = peer.attributes(name)
            good[index] = (pair.upper().encode(),) + good[index][1:]
            yield pair_case(peer, name, pair, "named in capitals", good)
        yield Case(
            "attributes",
            name + ": attributes in reverse order",
            [peer.message(Element(name, peer_fresh(peer, name)[::-1], peer.element(name).content))],
        )
        yield Case(
            "attributes",
            name + ": 300 other attributes",
            [
                peer.message(
                    Element(
                        name,
                        [(b"a%d" % number, b"x", b"'") for number in range(300)]
                        + peer_fresh(peer, name),
                        peer.element(name).content,
                    )
                )
            ],
        )
        yield Case(
            "attributes",
            name + ": a namespace of its own",
            [
                peer.message(
                    Element(
                        name,
                        [(b"xmlns", b"urn:x", b"'")] + peer_fresh(peer, name),
                        peer.element(name).content,
                    )
                )
            ],
        )


def peer_fresh(peer, name):
    """Good attributes with a new time."""
    return peer.attributes(name)


def pair_case(peer, name, pair, what, attributes):
    """A case of one element with these attributes."""
    return Case(
        "attributes",
        "%s: %s: %s" % (name, pair, what),
        [peer.message(Element(name, attributes, peer.element(name).content))],
    )


def own_words_case(peer, name, what, attributes):
    """A case of one element that is sent by the author whom its last pair names. No server passes
    such an address on."""
    _, value, quote = attributes[-1]
    return Case(
        "attributes",
        "%s: sent by its author: %s" % (name, what),
        [
            Message(
                [(b"from", value.split(b":")[0], quote)],
                [Element(name, attributes, peer.element(name).content)],
            )
        ],
    )


def texts():
    """What can stand in an element: (what, content). None is a void element."""
    found = [
        ("void", None),
        ("empty", b""),
        ("spaces only", b"    "),
        ("an element only", b"<b/>"),
        ("an element first", b"<b>x</b>text"),
        ("an element last", b"AGREE<b/>"),
        ("spaces first", b"   AGREE"),
        ("spaces last", b"DISAGREE  "),
        ("small letters", b"agree"),
        ("apostrophes", b"it's 'so' ''"),
        ("quotes", b'say "so"'),
        ("backslashes", b"\\' \\0 \\"),
        ("all five entities", b"&quot;&apos;&amp;&lt;&gt;"),
        ("escaped twice", b"&amp;amp;&amp;lt;"),
        ("an unknown entity", b"a&nbsp;b"),
        ("a decimal entity", b"a&#39;b"),
        ("a hexadecimal entity", b"a&#x27;b"),
        ("a lone ampersand", b"a & b"),
        ("&;", b"a&;b"),
        ("an entity in capitals", b"&AMP;"),
        ("an entity within one", b"&am&amp;p;"),
        ("an entity without its end", b"a&amp"),
        ("a long entity", b"&" + b"a" * 5000 + b";"),
        ("a NUL", b"a\0b"),
        ("control characters", bytes(range(1, 9)) + b"\x0b\x0c\x0e\x1f\x7f"),
        ("a terminal's escape", b"\x1b[2J\x1b]0;x\x07"),
        ("line ends", b"a\rb\r\nc\nd\tf"),
        ("U+FFFE", "a\ufffeb\uffff".encode()),
        ("turns of direction", "a\u202eb\u2066c".encode()),
        ("2,000 accents", ("a" + "\u0301" * 2000).encode()),
        ("an emoji", "\U0001f600".encode()),
        ("SQL", SQL),
        ("SQL in quotes", QUIET_SQL),
        ("SQL of one letter", b"'"),
        ("escaped SQL", escape(SQL)),
        ("escaped markup", escape(MARKUP)),
        ("]]>", b"x]]>y"),
        ("formats", b"%s%n%d%.*s%lu%"),
        ("8 KB", b"0123456789abcdef" * 512),
        ("60 KB", b"line of a long text\n" * 3000),
        ("INVALID", b"INVALID"),
        ("1 MB", b"0123456789abcde\n" * 65536),
        ("1 MB of apostrophes", b"'" * 1000000),
        ("200 KB of entities", b"&amp;" * 40000),
    ]
    return found + [(what, b"a" + data + b"b") for what, data in BAD_UTF8.items()]


def content_cases(peer):
    """Every element with every text in it."""
    for name in PAIRS:
        for what, content in texts():
            # A text that is cut on the console would hide the lines behind it.
            if (
                name == "x-clause-decision"
                and content
                and len(content) > 8000
                and b"\n" not in content
            ):
                content = content[:7000]
            yield Case(
                "texts",
                "%s: %s" % (name, what),
                [peer.message(Element(name, peer.attributes(name), content))],
            )
    frame = (
        b"INSERT INTO procedures (account_db_id, time, initiator, contractor, title) VALUES ("
        b"1, 1700100000, '%s', '%s', '');" % (peer.bare, bare(peer.own))
    )
    for size in (4000, 4001):
        yield Case(
            "texts",
            "x-procedure: a title for a statement of %d bytes" % size,
            [peer.message(peer.element("x-procedure", b"t" * (size - len(frame))))],
        )
        left = size - len(frame)
        yield Case(
            "texts",
            "x-procedure: the same with apostrophes, %d bytes" % size,
            [peer.message(peer.element("x-procedure", b"t" * (left % 3) + b"'" * (left // 3)))],
        )


def structure_cases(peer):
    """Elements in the wrong place, repeated, in the wrong order, and deep."""
    for name in PAIRS:
        good = peer.element(name)
        yield Case(
            "structure", name + ": three times in one body", [peer.message(good, good, good)]
        )
        yield Case(
            "structure",
            name + ": twice, each in a message of its own",
            [peer.message(good), peer.message(good)],
        )
        yield Case(
            "structure",
            name + ": in capitals",
            [peer.message(Ignored(encode_element(good._replace(name=name.upper()))))],
        )
        yield Case(
            "structure",
            name + ": with a prefix",
            [peer.message(Ignored(encode_element(good._replace(name="a:" + name))))],
        )
        yield Case(
            "structure",
            name + ": within another element",
            [peer.message(Ignored(b"<x>" + encode_element(good) + b"</x>"))],
        )
        yield Case(
            "structure",
            name + ": within itself",
            [peer.message(good._replace(content=b"a" + encode_element(good)))],
        )
        yield Case(
            "structure",
            name + ": with text around it",
            [peer.message(b" before ", good, b"behind")],
        )
        yield Case(
            "structure",
            name + ": outside of a body",
            [
                Given(
                    encode(peer.message())[: -len(b"<body></body></message>")]
                    + encode_element(good)
                    + b"</message>",
                    [b"Warning: Received a <message> without a BODY."],
                )
            ],
        )
        yield Case(
            "structure",
            name + ": in a second body",
            [
                Message(
                    peer.message().attributes,
                    [Ignored(b"<y/></body><body>" + encode_element(good))],
                )
            ],
        )
        yield Case(
            "structure",
            name + ": in a body within the body",
            [peer.message(Ignored(b"<body>" + encode_element(good) + b"</body>"))],
        )
        for depth in (100, 1000):
            yield Case(
                "structure",
                "%s: %d elements deep" % (name, depth),
                [peer.message(good._replace(content=b"AGREE" + deep(depth)))],
            )
        for kind in (b"headline", b"error", b"groupchat", b"nonsense", b""):
            message = peer.message(peer.element(name))
            yield Case(
                "structure",
                "%s: in a message of type '%s'" % (name, kind.decode()),
                [message._replace(attributes=[(b"type", kind, b"'")] + message.attributes[1:])],
            )
    times = [peer.fresh() for _ in range(3)]
    pairs = [
        (kind.encode(), b"%s:%d" % (peer.bare, time), b"'")
        for kind, time in zip(("procedure", "clause", "revision"), times)
    ]
    late = [
        Element("x-clause-decision", pairs + [(b"decision", pairs[0][1], b"'")], b"AGREE"),
        Element("x-revision", pairs, b"late"),
        Element("x-clause", pairs[:2], b""),
        Element("x-procedure", pairs[:1], b"late"),
    ]
    for number in range(4):
        yield Case("structure", "all in the wrong order, %d" % (number + 1), [peer.message(*late)])
    yield Case("structure", "all in the right order", [peer.message(*late[::-1])])
    yield Case(
        "structure",
        "100 clauses in one body",
        [peer.message(*[peer.element("x-clause") for _ in range(100)])],
    )
    yield Case(
        "structure",
        "1,000 elements that nobody knows",
        [peer.message(*[Ignored(b"<z%d/>" % number) for number in range(1000)])],
    )
    yield Case(
        "structure",
        "20 messages at once",
        [peer.message(peer.element("x-clause-message")) for _ in range(20)],
    )


def deep(count):
    """Elements within each other, in a message."""
    return b"<a>" * count + b"</a>" * count


NO_TREE = b"Warning: Received non-XML data."


def broken_cases(peer):
    """What no XML parser takes, and what is no stanza. Only a server can send it."""
    start = b"<message from='%s'><body>" % peer.full
    end = b"</body></message>"
    unknown = b"Warning: Received unknown XML data."
    given = [
        (b"&", b"Unknown XML token '&'."),
        (b"<_x/>", b"Unknown XML token '_'."),
        (b"<1/>", b"Unknown XML token '1'."),
        (b"<message\x01/>", b"Unknown XML token '\x01'."),
        (b"<message\0/>", b"Unknown XML token '\0'."),
        (b"<message\xff/>", b"Unknown XML token '\xff'."),
        (b"<message\t/>", b"Unknown XML token '\t'."),
        (start + b"<![CDATA[x]]>" + end, b"Unknown XML token '!'."),
        (start + b"<!-- x -->" + end, b"Unknown XML token '!'."),
        (b"<!DOCTYPE a [<!ENTITY b 'c'>]><a/>", b"Unknown XML token '!'."),
        (b"hello", b"Unexpected token IDENTIFIER."),
        (b"=", b"Unexpected token EQUALS."),
        (b">", b"Unexpected token TAG_END."),
        (b"'a'", b"Unexpected token STRING."),
        (b"/>", b"Unexpected token VOID_TAG_END."),
        (b"?>", b"Unexpected token DOCTYPE_TAG_END."),
        (b"<></a>", b"Expected tag name, but got TAG_END instead."),
        (b"<'a'/>", b"Expected tag name, but got STRING instead."),
        (b"<a b></a>", b"Expected '=' after an attribute name, but got TAG_END instead."),
        (b"<a b=c></a>", b"Expected attribute value, but got IDENTIFIER instead."),
        (b"<a b=></a>", b"Expected attribute value, but got TAG_END instead."),
        (b"<a 'b'></a>", b"Expected attribute name or end of tag, but got STRING instead."),
        (b"<a <b/>></a>", b"Expected attribute name or end of tag, but got TAG_START instead."),
        (b"<a?></a>", b"Unexpected '?>' in a tag which didn't began with '<?'."),
        (b"<?a>", b"Unexpected normal tag end '>' in a tag which began with '<?'."),
        (b"<?a/>", b"Unexpected '/>' in a tag which began with '<?'."),
        (b"</>", b"Expected indentifier after beginning of closing tag, but got TAG_END instead."),
        (b"<a></a b>", b"Expected the '>' of a closing tag, but got IDENTIFIER instead."),
        (
            start + b"</message></body>",
            b'Trying to close XML element "message", but "body" should close now.',
        ),
        (start + deep(150000) + end, b"No memory in buffer for parsing XML."),
        (b"<message " + b"a='' " * 100000 + b"/>", b"No memory in buffer for parsing XML."),
        (b"</a>", b"Close XML elements which have never opened: </a>"),
    ]
    for data, line in given:
        yield Case("broken", repr(data[:60]), [Given(data, [b"Warning: " + line, NO_TREE])])
    for data in (
        b"<a/>",
        b"<?xml version='1.0'?>",
        b"<Message/>",
        b"<x-procedure>x</x-procedure>",
        b"<stream:error><conflict/></stream:error>",
        b"<stream:features/>",
        b"<proceed/>",
        b"<success/>",
        b"<failure/>",
        b"<jabber:message/>",
    ):
        yield Case("broken", repr(data), [Given(data, [unknown])])
    yield Case("broken", "three unknown ones at once", [Given(b"<a/><b/><c/>", [unknown] * 3)])
    yield Case("broken", "20,000 elements deep", [Given(start + deep(20000) + end, [])])
    yield Case(
        "broken",
        "a stanza of 5 MB",
        [
            Given(
                start + b"x" * 5000000 + end,
                [
                    b"Warning: Unclosed XML elements: </body></message>",
                    b"Warning: Unexpected token IDENTIFIER.",
                    NO_TREE,
                ],
            )
        ],
    )


def presence(kind, sender, to, quote=b"'"):
    """A presence with what is not None of these."""
    return Presence(
        [
            (name, value, quote)
            for name, value in ((b"type", kind), (b"from", sender), (b"to", to))
            if value is not None
        ]
    )


def forgery_cases(peer):
    """Who one is not: presences, messages, iqs, and negotiation in somebody else's name."""
    own, own_bare = peer.own, bare(peer.own)
    senders = {
        "nobody": None,
        "an empty address": b"",
        "the own account": own_bare,
        "the own address": own,
        "the peer's account": peer.bare,
        "the peer": peer.full,
        "a resource only": b"/x",
        "a name without a host": b"mallory",
        "2,047 bytes": b"p" * 2047,
        "2,048 bytes": b"q" * 2048,
        "bad UTF-8": b"m\xff@x",
        "a NUL": b"m\0@x",
        "markup": b"<b>m</b>@x",
        "SQL": QUIET_SQL,
        "the server": peer.host,
        "a control character": b"m\x02@x",
    }
    for kind in (
        None,
        b"",
        b"unavailable",
        b"subscribed",
        b"subscribe",
        b"unsubscribe",
        b"unsubscribed",
        b"probe",
        b"error",
        b"Subscribe",
        b"<b>",
    ):
        for who, sender in senders.items():
            for to in (own, own_bare, None):
                yield Case(
                    "presences",
                    "presence %s from %s to %s" % (kind, who, to),
                    [presence(kind, sender, to)],
                )
        for to in (b"mallory@x", own_bare + b"x", b"/" + own_bare, peer.full):
            yield Case(
                "presences", "presence %s to %s" % (kind, to), [presence(kind, peer.full, to)]
            )
        yield Case(
            "presences",
            "presence %s from o'brien" % kind,
            [presence(kind, b"o'brien@x", own, b'"')],
        )
    for who, sender in list(senders.items()) + [("a stranger", b"mallory@x/y")]:
        attributes = [(b"from", sender, b"'")] if sender is not None else []
        yield Case("messages", "a chat line from " + who, [Message(attributes, [b"hello"])])
        yield Case("messages", "no body from " + who, [Message(attributes, None)])
        yield Case("messages", "an empty body from " + who, [Message(attributes, [])])
    yield Case(
        "messages",
        "a chat line from o'brien",
        [Message([(b"from", b"o'brien@x", b'"')], [b"hello"])],
    )
    for what, content in texts():
        if content is not None and b"<" not in content and len(content) < 100000:
            yield Case("messages", "a chat line of the peer: " + what, [peer.message(content)])
    for who, sender in (("the peer", peer.full), ("a stranger", b"mallory@x/y"), ("us", own)):
        for what, words, why in (
            ("a condition", b"<error type='cancel'><gone/></error>", b"gone"),
            ("nothing", b"<error/>", b"no reason given"),
        ):
            body = b"".join(encode_element(peer.element(name)) for name in PAIRS)
            yield Case(
                "messages",
                "a message that came back from %s with %s" % (who, what),
                [
                    Given(
                        b"<message from='%s' id='1'><body>said %s</body>%s</message>"
                        % (sender, body, words),
                        [
                            b"Warning: A message to '%s' couldn't be delivered: %s."
                            % (bare(sender), why)
                        ],
                    )
                ],
            )
    yield from iq_cases(peer)
    yield from impostor_cases(peer)


VCARD = b"<vcard xmlns='urn:ietf:params:xml:ns:vcard-4.0'><fn><text>Mallory</text></fn></vcard>"


def iq_cases(peer):
    """Answers that nobody asked for, and pushes that nobody may send."""
    head = b"<iq from='%s' to='%s' " % (peer.full, peer.own)
    roster = b"<query xmlns='jabber:iq:roster'><item jid='mallory@x' subscription='both'/></query>"
    error = b"<error type='cancel'><item-not-found/></error>"
    unasked = b"Warning: Got a VCard with an ID %d which doesn't correspond to any requested."
    refused = b"Warning: Got an IQ an ID %d which doesn't correspond to any requested."
    for sender in (
        head,
        b"<iq ",
        b"<iq from='%s' " % bare(peer.own),
        b"<iq from='%s' " % peer.host,
    ):
        for kind in (b"set", b"result", b"get", b"nonsense"):
            for number in (b"1", b"2", b"x", b""):
                yield Case(
                    "iqs",
                    "a roster with %s" % kind,
                    [Given(sender + b"type='%s' id='%s'>%s</iq>" % (kind, number, roster), [])],
                )
        for number in (1, 2, 0, 77, 2**64 - 1):
            yield Case(
                "iqs",
                "a vCard with the id %d" % number,
                [
                    Given(
                        sender + b"type='result' id='%d'>%s</iq>" % (number, VCARD),
                        [unasked % number],
                    )
                ],
            )
            yield Case(
                "iqs",
                "an error with the id %d" % number,
                [
                    Given(
                        sender + b"type='error' id='%d'>%s</iq>" % (number, error),
                        [refused % number],
                    )
                ],
            )
    given = [
        (b"type='result' id='8'/>", []),
        (b"type='error'/>", []),
        (b"type='error' id=''/>", []),
        (b"id='8'>%s</iq>" % roster, []),
        (b"type='set' id='8'>%s</iq>" % VCARD, [unasked % 8]),
        (b"type='result'>%s</iq>" % VCARD, [b"Warning: Received a <iq> without and ID attribute."]),
        (
            b"type='result' id='x8'>%s</iq>" % VCARD,
            [b"Warning: Received a <iq> with an ID attribute 'x8' which contains non-digits."],
        ),
        (
            b"type='result' id='-8'>%s</iq>" % VCARD,
            [b"Warning: Received a <iq> with an ID attribute '-8' which contains non-digits."],
        ),
        (
            b"type='result' id='8'><vcard/></iq>",
            [b"Warning: Received a vcard which doesn't have an xmlns attribute value."],
        ),
        (
            b"type='result' id='8'><vcard xmlns='vcard-temp'/></iq>",
            [b"Warning: Received a vcard which has an unexpected xmlns attribute: vcard-temp"],
        ),
        (b"type='result' id='8'><vCard xmlns='vcard-temp'/></iq>", []),
        (b"type='result' id='%d'>%s</iq>" % (2**64 + 9, VCARD), [unasked % 9]),
        (
            b"type='result' id='10'><vcard xmlns='urn:ietf:params:xml:ns:vcard-4.0'><fn/><fn>x</fn>"
            b"<fn><text/></fn><tel><text>5</text></tel><fn><text>a&nbsp;b\0\xff</text></fn></vcard>"
            b"</iq>",
            [unasked % 10],
        ),
        (
            b"type='result' id='11'><vcard xmlns='urn:ietf:params:xml:ns:vcard-4.0'><key><text>"
            + b"k" * 1000000
            + b"</text></key></vcard></iq>",
            [unasked % 11],
        ),
        (b"type='get' id='12'><query xmlns='jabber:iq:version'/></iq>", []),
        (b"type='get' id='13'><ping xmlns='urn:xmpp:ping'/></iq>", []),
        (b"type='set' id='14'><query xmlns='jabber:iq:register'><remove/></query></iq>", []),
    ]
    for data, lines in given:
        yield Case("iqs", repr(data[:70]), [Given(head + data, lines)])
    stops = [
        (b"type='error' id='abc'/>", "string_has_only_digits (id_attrib)"),
        (b"type='error' id='-1'>%s</iq>" % error, "string_has_only_digits (id_attrib)"),
        (b"type='result' id='8'><a/><b/></iq>", "xml->next == NULL"),
        (b"type='set' id='8'>%s%s</iq>" % (roster, roster), "xml->next == NULL"),
        (b"type='result' id='8'>text</iq>", "name.size"),
    ]
    for data, expression in stops:
        yield Case(
            "stops of iqs",
            repr(data[:70]),
            [GivenStop(head + data, ("src/xmpp_connection.cpp", expression))],
        )
    yield Case(
        "stops of iqs",
        "a vCard with text between its properties",
        [
            GivenStop(
                head
                + b"type='result' id='8'><vcard xmlns='urn:ietf:params:xml:ns:vcard-4.0'>x</vcard>"
                b"</iq>",
                ("src/xmpp.cpp", "field_name.size"),
            )
        ],
    )


def impostor_cases(peer):
    """Negotiation in the name of others."""
    own = bare(peer.own)
    for name, names in PAIRS.items():
        for who, author in (("the other party", own), ("a third", b"mallory@x")):
            attributes = peer.attributes(name)
            attributes[-1] = (names[-1].encode(), b"%s:%d" % (author, peer.fresh()), b"'")
            yield Case(
                "impostors",
                "%s in the name of %s" % (name, who),
                [peer.message(Element(name, attributes, peer.element(name).content))],
            )
    for who, sender in (("a stranger", b"mallory@x/y"), ("the own account", peer.own)):
        for name in PAIRS:
            yield Case(
                "impostors",
                "%s, sent by %s" % (name, who),
                [Message([(b"from", sender, b"'")], [peer.element(name)])],
            )
        yield Case(
            "impostors",
            "another's decision changed by " + who,
            [Message([(b"from", sender, b"'")], [peer.element("x-clause-decision", b"DISAGREE")])],
        )
