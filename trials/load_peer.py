"""The contractor's side of trials/load.py: an XMPP client of the fewest possible parts, which sends
the stanzas that the contractor's program would send, at a steady pace."""

import base64
import re
import socket
import ssl
import threading
import time
from xml.sax.saxutils import escape


class Peer:
    """One logged-in stream over TLS. What comes is counted and put aside."""

    def __init__(self, jid, password, authority):
        self.jid = jid
        self.full_jid = jid + "/morvane"
        self.last_id = 0
        self.received = 0
        self.bound = ""
        user, self.host = jid.split("@")
        plain = socket.create_connection((self.host, 5222), timeout=20)
        self.stream = plain
        self.open_stream("</stream:features>")
        self.exchange("<starttls xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>", "<proceed")
        context = ssl.create_default_context(cafile=authority)
        self.stream = context.wrap_socket(plain, server_hostname=self.host)
        self.open_stream("</stream:features>")
        secret = base64.b64encode(b"\0%s\0%s" % (user.encode(), password.encode())).decode()
        self.exchange(
            "<auth xmlns='urn:ietf:params:xml:ns:xmpp-sasl' mechanism='PLAIN'>"
            + secret
            + "</auth>",
            "<success",
        )
        self.open_stream("</stream:features>")
        self.exchange(
            "<iq type='set' id='bind'><bind xmlns='urn:ietf:params:xml:ns:xmpp-bind'>"
            "<resource>morvane</resource></bind></iq>",
            "</iq>",
        )
        self.stream.settimeout(None)
        self.reader = threading.Thread(target=self.drain, daemon=True)
        self.reader.start()

    def open_stream(self, end):
        self.exchange(
            "<?xml version='1.0'?><stream:stream to='%s' version='1.0' "
            "xmlns='jabber:client' xmlns:stream='http://etherx.jabber.org/streams'>" % self.host,
            end,
        )

    def exchange(self, request, end):
        """Sends the request and reads until the end of what answers it."""
        self.stream.sendall(request.encode())
        answer = ""
        while end not in answer:
            data = self.stream.recv(65536)
            if not data or re.search("<(failure|stream:error)", answer):
                raise OSError("the server refuses: " + answer)
            answer += data.decode()

    def drain(self):
        try:
            while True:
                data = self.stream.recv(65536)
                if not data:
                    return
                self.received += len(data)
        except OSError:
            pass

    def send_revision(self, to, procedure, clause, seconds, text):
        """A committed revision; `procedure` and `clause` are written "initiator:time"."""
        self.last_id += 1
        self.stream.sendall(
            (
                "<message type='chat' id='%d' from='%s' to='%s'><body>"
                "<x-revision procedure='%s' clause='%s' revision='%s:%d'>%s</x-revision>"
                "</body></message>"
                % (
                    self.last_id,
                    self.full_jid,
                    to,
                    procedure,
                    clause,
                    self.jid,
                    seconds,
                    escape(text),
                )
            ).encode()
        )

    def close(self):
        self.stream.sendall(b"</stream:stream>")
        self.reader.join(10)
        self.stream.close()


def keep_pace(count, pace, send, watch=lambda: None):
    """Calls send (number) for each of count, pace a second by the clock; a late one is made up for
    at once. Calls watch about once a second."""
    start = time.monotonic()
    next_watch = start
    for number in range(count):
        while time.monotonic() < start + number / pace:
            if time.monotonic() >= next_watch:
                next_watch += 1
                watch()
            time.sleep(0.002)
        send(number)
    return time.monotonic() - start
