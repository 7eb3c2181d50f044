"""The server's end of a connection, in hand: what is sent can be cut into TLS records of any size,
stopped inside of a stanza or of a record, and the connection ended in every way there is."""

import os
import re
import socket
import ssl
import struct
import threading

STREAMS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "streams")
RECORD_MAX = 16384
PATIENCE = 60  # seconds that anything may take

# What the program says ahead of each answer of a login and of a registration; the answer that comes
# third is to the first request within TLS.
HEADER = b"version='1.0'>"
LOGIN_REQUESTS = [HEADER, b"xmpp-tls'/>", HEADER, b"</auth>", HEADER, b"</iq>"]
REGISTRATION_REQUESTS = [HEADER, b"xmpp-tls'/>", HEADER, b"</iq>", b"</iq>"]


class Gone(Exception):
    """The program has ended the connection."""


class Link:
    """One connection to the program, in clear text until `handshake`."""

    def __init__(self, peer, context):
        self.peer = peer
        self.peer.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.peer.settimeout(PATIENCE)
        self.context = context
        self.incoming = ssl.MemoryBIO()
        self.outgoing = ssl.MemoryBIO()
        self.session = None
        self.heard = b""
        self.heard_size = 0

    # ---- What the program says ----

    def take_raw(self):
        """Waits for bytes of the socket."""
        try:
            data = self.peer.recv(65536)
        except OSError as error:
            raise Gone() from error
        if not data:
            raise Gone()
        return data

    def listen(self):
        """Waits until the program said something more, and adds it to what was heard."""
        if self.session is None:
            self.heard += self.take_raw()
            return
        while True:
            try:
                data = self.session.read(65536)
                if not data:
                    raise Gone()
                self.heard += data
                self.heard_size += len(data)
                return
            except ssl.SSLWantReadError:
                self.incoming.write(self.take_raw())
            except ssl.SSLError as error:
                raise Gone() from error

    def read_until(self, mark):
        """Waits for this text and takes it, and what stands before it."""
        while mark not in self.heard:
            self.listen()
        taken, _, self.heard = self.heard.partition(mark)
        return taken + mark

    def hear_out(self):
        """Listens until the program ends the connection."""
        try:
            while True:
                self.listen()
                self.heard = self.heard[-200:]
        except Gone:
            pass

    # ---- What it hears ----

    def send_raw(self, data):
        """Bytes of the socket."""
        try:
            self.peer.sendall(data)
        except OSError as error:
            raise Gone() from error

    def handshake(self, limit=None):
        """TLS from here on. With a limit only so many bytes of the server's part go out; tells how
        many there were, or would have been."""
        self.incoming.write(self.heard)
        self.heard = b""
        session = self.context.wrap_bio(self.incoming, self.outgoing, server_side=True)
        sent = 0
        while True:
            try:
                session.do_handshake()
                done = True
            except ssl.SSLWantReadError:
                done = False
            except ssl.SSLError as error:
                raise Gone() from error
            data = self.outgoing.read()
            if limit is not None and sent + len(data) > limit:
                self.send_raw(data[: limit - sent])
                return sent + len(data)
            self.send_raw(data)
            sent += len(data)
            if done:
                self.session = session
                return sent
            self.incoming.write(self.take_raw())

    def make_records(self, data, size=RECORD_MAX):
        """The bytes of the TLS records that carry the data, each with so much of it."""
        for at in range(0, len(data), size):
            self.session.write(data[at : at + size])
        return self.outgoing.read()

    def send(self, data, size=RECORD_MAX):
        """Sends the data, over TLS in records of that size."""
        self.send_raw(self.make_records(data, size) if self.session else data)

    # ---- How it ends ----

    def end(self, way):
        """Ends the server's side: "FIN", "RST", "close-notify" or "stream end"."""
        try:
            if way == "stream end":
                self.send(b"</stream:stream>")
            if way in ("close-notify", "stream end") and self.session:
                try:
                    self.session.unwrap()
                except ssl.SSLError:
                    pass
                self.send_raw(self.outgoing.read())
            if way == "RST":
                linger = struct.pack("ii", 1, 0)
                self.peer.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, linger)
                self.peer.close()
                return
            if way in ("FIN", "stream end") or not self.session:
                self.peer.shutdown(socket.SHUT_WR)
        except (OSError, Gone):
            pass

    def close(self):
        """Lets go of the socket."""
        self.peer.close()


class Listener:
    """Takes the program's connections, and calls `serve` with each on a thread of its own."""

    def __init__(self, serve):
        self.serve = serve
        self.accepted = 0
        self.context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        path = os.path.join(os.environ["MORVANE_WORLD"], "alpha.test")
        self.context.load_cert_chain(path + ".crt", path + ".key")
        self.listener = socket.create_server(("127.0.0.1", 5222))
        threading.Thread(target=self.take, daemon=True).start()

    def take(self):
        """Takes connections until it is stopped."""
        while True:
            try:
                peer, _ = self.listener.accept()
            except OSError:
                return
            self.accepted += 1
            threading.Thread(target=self.run, args=(peer,), daemon=True).start()

    def run(self, peer):
        """One connection, from its beginning to its end."""
        link = Link(peer, self.context)
        try:
            self.serve(link)
        except Gone:
            pass
        finally:
            link.close()

    def stop(self):
        """Takes no further connections."""
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()


def read_stream(name):
    """What a server sent to a session."""
    with open(os.path.join(STREAMS, name + ".xml"), "rb") as file:
        return file.read()


def read_answers(name):
    """What a server answered on the way to a session, an answer a line in the file."""
    return read_stream(name).splitlines()


def readdress(request, text):
    """A recorded answer with the id of the request that was made now."""
    asked = re.search(rb"<iq [^>]*id='\d+'", request)
    if not asked:
        return text
    number = re.search(rb"id='\d+'", asked[0])[0]
    return re.sub(rb"id='\d+'", number, text, count=1)


def answer(link, answers, requests, count=None, size=RECORD_MAX):
    """Plays a login or a registration as it was recorded, or its first `count` answers, the TLS
    handshake not counted."""
    for number, (request, text) in enumerate(zip(requests, answers)):
        if count is not None and number >= count:
            return
        if number == 2:
            link.handshake()
        link.send(readdress(link.read_until(request), text), size)
