"""A hostile server and a hostile peer: XMPP as raw bytes, for the trial `hostile`.

Both sides of a TLS session are one small record that never blocks the caller on the other side: a
thread takes what comes and keeps it.
"""

import base64
import os
import re
import socket
import ssl
import threading
import time

BOUND = 60
STREAM_HEADER = (
    b"<?xml version='1.0'?><stream:stream id='1' xmlns='jabber:client' "
    b"xmlns:stream='http://etherx.jabber.org/streams' version='1.0' from='%s'>"
)


class Wire:
    """One TLS session over a connected socket. `heard` is all that came; `ended` says that no more
    will. Bytes go out exactly as they are given, in records of at most 16,384 bytes."""

    def __init__(self, peer, context, server_side, hostname=None):
        self.peer = peer
        self.incoming = ssl.MemoryBIO()
        self.outgoing = ssl.MemoryBIO()
        self.session = context.wrap_bio(
            self.incoming, self.outgoing, server_side=server_side, server_hostname=hostname
        )
        self.lock = threading.Lock()
        self.sending = threading.Lock()
        self.news = threading.Condition()
        self.heard = bytearray()
        self.heard_count = 0
        self.keeps = True
        self.ended = False
        self.shake_hands()
        threading.Thread(target=self.listen, daemon=True).start()

    def flush(self):
        """Writes what TLS has ready, within the handshake."""
        data = self.outgoing.read()
        if data:
            self.peer.sendall(data)

    def shake_hands(self):
        """The handshake, in the caller's thread."""
        while True:
            try:
                self.session.do_handshake()
                self.flush()
                return
            except ssl.SSLWantReadError:
                self.flush()
                data = self.peer.recv(65536)
                if not data:
                    raise OSError("closed within the handshake") from None
                self.incoming.write(data)

    def listen(self):
        """The thread that takes what comes until the other side is gone."""
        try:
            data = b""  # what came with the end of the handshake is there already
            while True:
                with self.lock:
                    self.incoming.write(data)
                    plain = self.take()
                if plain is None:
                    break
                with self.news:
                    self.heard_count += len(plain)
                    if self.keeps:
                        self.heard += plain
                    self.news.notify_all()
                data = self.peer.recv(65536)
                if not data:
                    break
        except (OSError, ssl.SSLError):
            pass
        with self.news:
            self.ended = True
            self.news.notify_all()

    def take(self):
        """What can be decrypted now; None when the other side said goodbye."""
        plain = b""
        while True:
            try:
                data = self.session.read(65536)
                if not data:
                    return plain or None
                plain += data
            except ssl.SSLWantReadError:
                return plain
            except (ssl.SSLZeroReturnError, ssl.SSLError):
                return plain or None

    def send(self, data):
        """Sends the bytes as they are; False when the other side is gone."""
        try:
            with self.sending:
                for start in range(0, len(data), 16384):
                    with self.lock:
                        self.session.write(data[start : start + 16384])
                        encrypted = self.outgoing.read()
                    # Without the lock: whoever does not listen must still be heard.
                    self.peer.sendall(encrypted)
            return True
        except (OSError, ssl.SSLError):
            return False

    def wait(self, pattern, start=0, bound=BOUND):
        """Waits for the pattern in what came behind `start`: the match, None when it never came."""
        deadline = time.monotonic() + bound
        with self.news:
            while True:
                match = re.search(pattern, self.heard[start:], re.S)
                if match or self.ended or time.monotonic() > deadline:
                    return match
                self.news.wait(0.5)

    def wait_end(self, bound=BOUND):
        """Waits until the other side has ended the connection."""
        deadline = time.monotonic() + bound
        with self.news:
            while not self.ended and time.monotonic() < deadline:
                self.news.wait(0.5)
            return self.ended

    def close(self):
        """Ends the connection."""
        try:
            self.peer.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        self.peer.close()


def read_clear(peer, mark, count=1):
    """Reads clear text until `mark` came that often."""
    data = b""
    while data.count(mark) < count:
        more = peer.recv(4096)
        if not more:
            raise OSError("closed")
        data += more
    return data


class HostileServer:
    """Takes the place of a server: logs everyone in, and then says only what it is told to."""

    def __init__(self, host, address):
        self.host = host.encode()
        self.context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        path = os.path.join(os.environ["MORVANE_WORLD"], host)
        self.context.load_cert_chain(path + ".crt", path + ".key")
        self.listener = socket.create_server((address, 5222))
        self.sessions = []
        self.faults = []
        self.news = threading.Condition()
        threading.Thread(target=self.serve, daemon=True).start()

    def serve(self):
        """Logs in one after the other."""
        while True:
            try:
                peer, _ = self.listener.accept()
            except OSError:
                return
            try:
                wire = self.login(peer)
            except (OSError, ssl.SSLError, AttributeError) as error:
                self.faults.append(repr(error))
                peer.close()
                continue
            with self.news:
                self.sessions.append(wire)
                self.news.notify_all()

    def login(self, peer):
        """The whole road to a session; returns it when the client has said its presence."""
        header = STREAM_HEADER % self.host
        read_clear(peer, b">", 2)
        peer.sendall(
            header + b"<stream:features><starttls xmlns='urn:ietf:params:xml:ns:xmpp-tls'>"
            b"<required/></starttls></stream:features>"
        )
        read_clear(peer, b"/>")
        peer.sendall(b"<proceed xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>")
        wire = Wire(peer, self.context, True)
        wire.wait(rb"<stream:stream [^>]*>")
        wire.send(
            header + b"<stream:features><mechanisms xmlns='urn:ietf:params:xml:ns:xmpp-sasl'>"
            b"<mechanism>PLAIN</mechanism></mechanisms></stream:features>"
        )
        credentials = base64.b64decode(wire.wait(rb"<auth [^>]*>([^<]*)</auth>").group(1))
        user = credentials.split(b"\0")[1]
        start = len(wire.heard)
        wire.send(b"<success xmlns='urn:ietf:params:xml:ns:xmpp-sasl'/>")
        wire.wait(rb"<stream:stream [^>]*>", start)
        wire.send(
            header + b"<stream:features><bind xmlns='urn:ietf:params:xml:ns:xmpp-bind'/>"
            b"</stream:features>"
        )
        bind = wire.wait(rb"<iq type='set' id='(\d+)'><bind .*<resource>([^<]*)</resource>")
        wire.send(
            b"<iq type='result' id='%s'><bind xmlns='urn:ietf:params:xml:ns:xmpp-bind'>"
            b"<jid>%s@%s/%s</jid></bind></iq>" % (bind.group(1), user, self.host, bind.group(2))
        )
        wire.wait(rb"<presence [^>]*><priority>1</priority></presence>")
        return wire

    def wait_session(self, number, bound=BOUND):
        """The session of that number, counted from 0; None when it never came."""
        deadline = time.monotonic() + bound
        with self.news:
            while len(self.sessions) <= number and time.monotonic() < deadline:
                self.news.wait(0.5)
            return self.sessions[number] if len(self.sessions) > number else None

    def stop(self):
        """Ends all sessions."""
        self.listener.close()
        for wire in self.sessions:
            wire.close()


def login_peer(host, user, password, address="127.0.0.1"):
    """Logs in at a real server, without a word that is not needed; returns the session."""
    context = ssl.create_default_context(cafile=os.path.join(os.environ["MORVANE_WORLD"], "ca.pem"))
    peer = socket.create_connection((address, 5222), timeout=BOUND)
    name = host.encode()
    header = (
        b"<?xml version='1.0'?><stream:stream xmlns='jabber:client' "
        b"xmlns:stream='http://etherx.jabber.org/streams' to='%s' version='1.0'>" % name
    )
    peer.sendall(header)
    read_clear(peer, b"</stream:features>")
    peer.sendall(b"<starttls xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>")
    read_clear(peer, b"<proceed")
    peer.settimeout(None)
    wire = Wire(peer, context, False, host)
    wire.send(header)
    wire.wait(rb"</stream:features>")
    plain = base64.b64encode(b"\0" + user.encode() + b"\0" + password.encode())
    wire.send(
        b"<auth xmlns='urn:ietf:params:xml:ns:xmpp-sasl' mechanism='PLAIN'>" + plain + b"</auth>"
    )
    if not wire.wait(rb"<success"):
        raise OSError("the server did not log %s in" % user)
    start = len(wire.heard)
    wire.send(header)
    wire.wait(rb"</stream:features>", start)
    wire.send(
        b"<iq type='set' id='b'><bind xmlns='urn:ietf:params:xml:ns:xmpp-bind'>"
        b"<resource>evil</resource></bind></iq>"
    )
    wire.wait(rb"<iq [^>]*id=.b.[^>]*>.*</iq>", start)
    return wire
