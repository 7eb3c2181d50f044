"""A scripted XMPP server that keeps every byte it gets, as it came and as it was decrypted.

A script is a function that gets the Link of one connection and plays the server's part from top to
bottom. Where it calls `link.point(NAME)` a trial can have it stop for good, or until it is told to
go on: what the program says meanwhile is read and kept, and nothing is answered.
"""

import os
import re
import select
import socket
import ssl
import struct
import threading
import time

PORT = 5222
STREAM = (
    "<?xml version='1.0'?><stream:stream id='1' xmlns='jabber:client' "
    "xmlns:stream='http://etherx.jabber.org/streams' version='1.0' from='%s'>"
)
STARTTLS = "<starttls xmlns='urn:ietf:params:xml:ns:xmpp-tls'><required/></starttls>"
MECHANISMS = (
    "<mechanisms xmlns='urn:ietf:params:xml:ns:xmpp-sasl'>"
    "<mechanism>PLAIN</mechanism></mechanisms>"
)
REGISTER = "<register xmlns='http://jabber.org/features/iq-register'/>"
BIND = "<bind xmlns='urn:ietf:params:xml:ns:xmpp-bind'/>"
PROCEED = "<proceed xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>"
SUCCESS = "<success xmlns='urn:ietf:params:xml:ns:xmpp-sasl'/>"


def features(*children):
    """The features of a stream."""
    return "<stream:features>" + "".join(children) + "</stream:features>"


class Gone(Exception):
    """The program has ended the connection."""


def make_context(certificate, key, version=None, ciphers=None):
    """A server's side of TLS; the certificate's file may hold the rest of its chain, too."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    if version:
        context.maximum_version = version
    if ciphers:
        context.set_ciphers(ciphers)
    if certificate:
        context.load_cert_chain(certificate, key)
    return context


def world_context(host, **options):
    """TLS with the certificate that the world made for the host."""
    stem = os.path.join(os.environ["MORVANE_WORLD"], host)
    return make_context(stem + ".crt", stem + ".key", **options)


class Link:
    """One connection of the program."""

    def __init__(self, server, peer, stop_at):
        self.server = server
        self.peer = peer
        self.raw = b""  # all that came, as it was on the wire
        self.heard = b""  # the same, decrypted where it was encrypted
        self.unread = b""  # the part of it that the script has not asked for
        self.tls = None
        self.refusal = None  # what the TLS library said of a failed handshake
        self.stop_at = stop_at
        self.reached = None
        self.go_on = threading.Event()
        self.is_over = False
        self.error = None

    # ---- Bytes ----

    def take(self, data):
        """Keeps what came, and what it says."""
        if not data:
            raise Gone
        self.raw += data
        if self.tls is None:
            self.add(data)
            return
        self.incoming.write(data)
        self.decrypt()

    def decrypt(self):
        """Keeps the text of what TLS has got."""
        while True:
            try:
                text = self.tls.read(65536)
            except ssl.SSLWantReadError:
                return
            if not text:
                raise Gone
            self.add(text)

    def add(self, text):
        """Keeps clear text."""
        self.heard += text
        self.unread += text

    def receive(self):
        """One piece of what the program sends."""
        try:
            self.take(self.peer.recv(65536))
        except (OSError, ssl.SSLError):
            raise Gone from None

    def expect(self, mark):
        """Reads until the mark has come and returns all up to its end."""
        mark = mark.encode()
        while mark not in self.unread:
            self.receive()
        end = self.unread.index(mark) + len(mark)
        taken, self.unread = self.unread[:end], self.unread[end:]
        return taken.decode(errors="replace")

    def send_bytes(self, data):
        """Sends what is on the wire already."""
        try:
            self.peer.sendall(data)
        except OSError:
            raise Gone from None

    def send(self, text):
        """Sends a text, in one TLS record where there is TLS."""
        self.send_bytes(self.encrypt(text))

    def encrypt(self, text):
        """The text as it goes over the wire."""
        data = text.encode()
        if self.tls is None:
            return data
        self.tls.write(data)
        return self.outgoing.read()

    def begin_tls(self, context):
        """Goes through the handshake; within the first answer is the point "half of the
        handshake"."""
        self.incoming, self.outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
        tls = context.wrap_bio(self.incoming, self.outgoing, server_side=True)
        self.incoming.write(self.unread)
        self.unread = b""
        while True:
            try:
                tls.do_handshake()
                self.send_bytes(self.outgoing.read())
                self.tls = tls
                self.decrypt()  # the first text may have come with the last of the handshake
                return
            except ssl.SSLWantReadError:
                data = self.outgoing.read()
                if data:
                    self.send_bytes(data[:200])
                    self.point("half of the handshake")
                    self.send_bytes(data[200:])
            except ssl.SSLError as error:
                self.refusal = error.reason or str(error)
                raise Gone from None
            try:
                data = self.peer.recv(65536)
            except OSError:
                data = b""
            if not data:
                raise Gone
            self.raw += data
            self.incoming.write(data)

    # ---- Points ----

    def point(self, name):
        """Stops here if the trial wants it; reads on meanwhile."""
        self.reached = name
        if name != self.stop_at:
            return
        while not self.go_on.is_set():
            if select.select([self.peer], [], [], 0.02)[0]:
                self.receive()

    def hold(self):
        """Reads until the program leaves."""
        while True:
            self.receive()

    def run(self, script):
        """Plays the script to its end, or to the program's."""
        try:
            script(self)
        except Gone:
            pass
        except Exception as error:  # a fault of the script is shown by the trial
            self.error = "%s: %s" % (type(error).__name__, error)
        finally:
            self.is_over = True
            self.peer.close()


class Server:
    """Listens at the one port that the program knows. Connections get the scripts in their order,
    the last one again and again; each script stops at its point of `stops`, if there is one."""

    def __init__(self, *scripts, stops=(), address="127.0.0.1"):
        self.scripts = list(scripts)
        self.stops = list(stops)
        self.links = []
        self.listener = socket.create_server((address, PORT), backlog=16)
        threading.Thread(target=self.serve, daemon=True).start()

    def serve(self):
        """Takes connections until it is closed."""
        while True:
            try:
                peer, _ = self.listener.accept()
            except OSError:
                return
            peer.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            script = self.scripts[min(len(self.links), len(self.scripts) - 1)]
            stop_at = self.stops[len(self.links)] if len(self.links) < len(self.stops) else None
            link = Link(self, peer, stop_at)
            self.links.append(link)
            threading.Thread(target=link.run, args=(script,), daemon=True).start()

    def last(self):
        """The newest connection; None before the first."""
        return self.links[-1] if self.links else None

    def all_raw(self):
        """Every byte that came over all connections."""
        return b"".join(link.raw for link in self.links)

    def all_heard(self):
        """The same, decrypted."""
        return b"".join(link.heard for link in self.links)

    def close(self):
        """Ends all connections and waits until their scripts have seen it."""
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()
        deadline = time.monotonic() + 10
        for link in self.links:
            try:
                link.peer.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass
            while not link.is_over and time.monotonic() < deadline:
                time.sleep(0.005)

    def errors(self):
        """What went wrong in the scripts themselves."""
        return [link.error for link in self.links if link.error]


# ---- What a good server says ----


def open_stream(link, host, *children):
    """Answers the next stream header with the features."""
    link.expect("version='1.0'>")
    link.point("header received")
    header, rest = STREAM % host, features(*children)
    if link.stop_at == "header sent":
        link.send(header)
        link.point("header sent")
        header = ""
    link.send(header + rest)
    link.point("features sent")


def ask_for_tls(link, host):
    """The clear part, up to the go-ahead."""
    open_stream(link, host, STARTTLS)
    link.expect("<starttls xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>")
    link.point("starttls received")
    if link.stop_at == "half of proceed":
        link.send(PROCEED[:20])
        link.point("half of proceed")
        link.send(PROCEED[20:])
    else:
        link.send(PROCEED)
    if link.stop_at == "proceed sent":
        link.receive()  # the first words of TLS
        link.point("proceed sent")


def answer_iq(link, name, inner=""):
    """Answers the next iq; the point `half of NAME` lies within the answer."""
    request = link.expect("</iq>")
    number = re.search(r"id='(\d+)'", request).group(1)
    link.point(name + " received")
    answer = "<iq type='result' id='%s'>%s</iq>" % (number, inner)
    if link.stop_at == "half of " + name:
        link.send(answer[: len(answer) // 2])
        link.point("half of " + name)
        answer = answer[len(answer) // 2 :]
    link.send(answer)
    return request


def log_in(link, jid):
    """From the open TLS connection to the presence."""
    host = jid.split("@")[1]
    open_stream_over_tls(link, host, "first", MECHANISMS)
    link.expect("</auth>")
    link.point("auth received")
    if link.stop_at == "half of success":
        link.send(SUCCESS[:10])
        link.point("half of success")
        link.send(SUCCESS[10:])
    else:
        link.send(SUCCESS)
    open_stream_over_tls(link, host, "second", BIND)
    answer_iq(
        link,
        "bind",
        "<bind xmlns='urn:ietf:params:xml:ns:xmpp-bind'><jid>%s/morvane</jid></bind>" % jid,
    )
    answer_iq(link, "roster", "<query xmlns='jabber:iq:roster'/>")
    link.expect("</presence>")
    link.point("presence received")
    link.send("<presence from='%s/morvane' to='%s'/>" % (jid, jid))


def open_stream_over_tls(link, host, which, *children):
    """Answers a stream header over TLS; which stream it is shows in the points' names."""
    link.expect("version='1.0'>")
    link.point("%s TLS header received" % which)
    header, rest = STREAM % host, features(*children)
    if link.stop_at == "%s TLS header sent" % which:
        link.send(header)
        link.point("%s TLS header sent" % which)
        header = ""
    link.send(header + rest)


def register(link, host):
    """From the open TLS connection to the new account."""
    open_stream_over_tls(link, host, "first", MECHANISMS, REGISTER)
    answer_iq(
        link, "register query", "<query xmlns='jabber:iq:register'><username/><password/></query>"
    )
    answer_iq(link, "register answer")


def login_script(jid, context, then=None):
    """A whole good login; then(link) goes on in the session."""

    def script(link):
        ask_for_tls(link, jid.split("@")[1])
        link.begin_tls(context)
        log_in(link, jid)
        if then:
            then(link)
        link.point("session")
        link.expect("</stream:stream>")
        link.point("farewell received")
        link.send("</stream:stream>")

    return script


def register_script(host, context):
    """A whole good registration."""

    def script(link):
        ask_for_tls(link, host)
        link.begin_tls(context)
        register(link, host)
        link.hold()

    return script


# ---- What is on the wire ----


def tls_records(data):
    """The (type, size) of each TLS record; the type of what is none is None."""
    records, at = [], 0
    while at < len(data):
        if len(data) - at < 5 or data[at] not in (20, 21, 22, 23) or data[at + 1] != 3:
            records.append((None, len(data) - at))
            break
        kind, _, size = struct.unpack_from(">BHH", data, at)
        records.append((kind, size))
        at += 5 + size
    return records


class Wire:
    """A recorder of every packet on the loopback interface, where the system allows one. What two
    processes say to each other in it is kept in order, each direction for itself."""

    def __init__(self):
        self.flows = {}
        self.packets = 0
        try:
            self.socket = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(3))
        except OSError:
            self.socket = None
            return
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 23)
        self.socket.bind(("lo", 0))
        threading.Thread(target=self.listen, daemon=True).start()

    def listen(self):
        """Reads for ever."""
        while True:
            data, address = self.socket.recvfrom(1 << 17)
            if address[2] == 4:  # each packet is seen going out, and again coming in
                continue
            self.packets += 1
            self.keep(data[14:])

    def keep(self, packet):
        """Adds an IP packet's payload to its flow."""
        if packet[0] >> 4 == 4:
            protocol, head = packet[9], (packet[0] & 15) * 4
            ends = packet[12:20]
            packet = packet[: struct.unpack_from(">H", packet, 2)[0] or len(packet)]
        else:
            protocol, head, ends = packet[6], 40, packet[8:40]
        segment = packet[head:]
        ports = struct.unpack_from(">HH", segment)
        skip = (segment[12] >> 4) * 4 if protocol == 6 else 8
        flow = self.flows.setdefault((protocol, ends, ports), {})
        key = struct.unpack_from(">I", segment, 4)[0] if protocol == 6 else len(flow)
        if len(segment) > skip:
            flow[key] = segment[skip:]

    def said(self):
        """All that was said, flow by flow."""
        return [b"".join(flow.values()) for flow in list(self.flows.values())]
