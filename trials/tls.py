#!/usr/bin/python3
"""Bad certificates and stripped or forged STARTTLS: no password leaves the machine in clear.

Real windows log in and register in front of a scripted server that keeps every byte it gets. Where
the system allows it, every packet of the loopback interface is kept as well. All that was kept is
searched for the user's name, for the password, and for the base64 form in which it would be sent.
"""

import base64
import os
import re
import select
import shutil
import socket
import ssl
import subprocess
import sys

from trial import Trial

import driver
import tls_server
from tls_server import MECHANISMS, PROCEED, REGISTER, STARTTLS, STREAM, SUCCESS, features

HOSTS = "alpha.test beta.test revoked.test stapled.test muststaple.test chain.test"
GOOD = "alpha.test"
USER = "wilhelmina"
PASSWORD = "Kupfer-Kanne-77"
NEW_PASSWORD = "Zinn-Becher-83"
REFUSAL = "Can't connect to server"
NOTHING = "none"
PAGES = ("login", "registration")
UNTRUSTED = "The certificate is NOT trusted. "

# Certificates that are refused: (what it is, host, status bits, the reason in words).
REFUSED = (
    ("has expired", "expired.test", 1026, "The certificate chain uses expired certificate."),
    (
        "is not yet valid",
        "future.test",
        514,
        "The certificate chain uses not yet valid certificate.",
    ),
    (
        "names another host",
        "wrong.test",
        16386,
        "The name in the certificate does not match the expected.",
    ),
    ("is signed by itself", "selfsigned.test", 66, "The certificate issuer is unknown."),
    (
        "is signed by an unknown authority",
        "unknown-ca.test",
        66,
        "The certificate issuer is unknown.",
    ),
    (
        "comes without its intermediate authority",
        "chain.test",
        66,
        "The certificate issuer is unknown.",
    ),
)


def needles(password):
    """What must not be found: (name, bytes). The base64 of a text depends on where the text begins
    in a group of three, so there are three forms of it, without the letters that the neighbours
    would change."""
    plain = base64.b64encode(b"\0" + USER.encode() + b"\0" + password.encode())
    found = [
        ("name", USER.encode()),
        ("password", password.encode()),
        ("password", plain),
        ("password", password.encode("utf-16-le")),
    ]
    for shift in range(3):
        text = base64.b64encode(b"\0" * shift + password.encode())
        found.append(("password", text[(0, 2, 3)[shift] : -4]))
    return found


def find_secrets(*texts):
    """The names of what was found in the texts, "none" without any."""
    found = {
        name
        for password in (PASSWORD, NEW_PASSWORD)
        for name, needle in needles(password)
        for text in texts
        if needle in text
    }
    return ", ".join(sorted(found)) or NOTHING


class Recorder:
    """All that was sent by the program, over the whole trial."""

    def __init__(self):
        self.wire = tls_server.Wire()
        self.connections = 0
        self.raw = 0

    def has_packet(self, text):
        """Whether the text was on the loopback interface, as far as that can be known."""
        return not self.wire.socket or any(text in said for said in self.wire.said())

    def look(self, server):
        """Ends the server; what was found in all that it got."""
        server.close()
        if server.errors():
            raise driver.Failure("the script failed: %s" % server.errors())
        self.connections += len(server.links)
        self.raw += len(server.all_raw())
        return find_secrets(server.all_raw(), server.all_heard())


# ---- Certificates ----


def certtool(*arguments):
    """Runs certtool and returns what it says."""
    result = subprocess.run(
        ["certtool"] + list(arguments),
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
        check=False,
    )
    if result.returncode:
        raise driver.Failure("certtool failed: " + result.stdout)
    return result.stdout


def make_signed(directory, name, authority, *lines):
    """A key and a certificate signed by the authority (the stem of its files, and the suffix)."""
    stem = os.path.join(directory, name)
    with open(stem + ".template", "w", encoding="utf-8") as file:
        file.write("\n".join(('cn = "%s"' % name, "expiration_days = 7") + lines) + "\n")
    certtool(
        "--generate-privkey",
        "--key-type",
        "ecdsa",
        "--curve",
        "secp256r1",
        "--no-text",
        "--outfile",
        stem + ".key",
    )
    certtool(
        "--generate-certificate",
        "--load-privkey",
        stem + ".key",
        "--load-ca-privkey",
        authority[0],
        "--load-ca-certificate",
        authority[1],
        "--template",
        stem + ".template",
        "--no-text",
        "--outfile",
        stem + ".crt",
    )
    return stem


def make_certificates(directory):
    """What the world has not got: a leaf below an intermediate authority, alone and with it, one
    that must come with a statement about its revocation, and two that are revoked."""
    world = os.environ["MORVANE_WORLD"]
    authority = (os.path.join(world, "ca.key"), os.path.join(world, "ca.pem"))
    middle = make_signed(directory, "middle", authority, "ca", "cert_signing_key")
    leaf = make_signed(
        directory,
        "chain.test",
        (middle + ".key", middle + ".crt"),
        'dns_name = "chain.test"',
        "signing_key",
        "tls_www_server",
    )
    with open(os.path.join(directory, "whole-chain.crt"), "w", encoding="utf-8") as file:
        for part in (leaf, middle):
            with open(part + ".crt", encoding="utf-8") as one:
                file.write(one.read())
    # RFC 7633: status_request is 5.
    make_signed(
        directory,
        "muststaple.test",
        authority,
        'dns_name = "muststaple.test"',
        "signing_key",
        "tls_www_server",
        "tls_feature = 5",
    )


def revoke(directory, host):
    """Revokes the world's certificate for the host in a list of its authority, and has the
    authority say so; returns whether the list, where it is consulted, refuses the certificate."""
    world = os.environ["MORVANE_WORLD"]
    certificate = os.path.join(world, host + ".crt")
    authority = os.path.join(world, "ca.pem")
    template = os.path.join(directory, "crl.template")
    with open(template, "w", encoding="utf-8") as file:
        file.write("crl_next_update = 7\ncrl_number = 1\n")
    stem = os.path.join(directory, host)
    certtool(
        "--generate-crl",
        "--load-ca-privkey",
        os.path.join(world, "ca.key"),
        "--load-ca-certificate",
        authority,
        "--load-certificate",
        certificate,
        "--template",
        template,
        "--outfile",
        stem + ".crl",
    )

    def run(*command):
        return subprocess.run(
            command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False
        )

    verdict = run(
        "openssl",
        "verify",
        "-CAfile",
        authority,
        "-crl_check",
        "-CRLfile",
        stem + ".crl",
        certificate,
    )
    serial = run("openssl", "x509", "-in", certificate, "-noout", "-serial").stdout.split("=")[1]
    with open(stem + ".index", "w", encoding="utf-8") as file:
        file.write(
            "R\t991231235959Z\t260101000000Z\t%s\tunknown\t/CN=%s\n" % (serial.strip(), host)
        )
    signed = run(
        "openssl",
        "ocsp",
        "-index",
        stem + ".index",
        "-CA",
        authority,
        "-rsigner",
        authority,
        "-rkey",
        os.path.join(world, "ca.key"),
        "-ndays",
        "7",
        "-issuer",
        authority,
        "-cert",
        certificate,
        "-no_nonce",
        "-respout",
        stem + ".ocsp",
    )
    if not os.path.exists(stem + ".ocsp"):
        raise driver.Failure("no statement was signed: " + signed.stdout)
    return "certificate revoked" in verdict.stdout


# ---- What the user does ----


class User:
    """A program with one window at one of the two pages."""

    def __init__(self, page, store=None):
        self.page = page
        self.party = driver.Party("user", USER + "@" + GOOD, prefilled=False)
        if store:
            shutil.copyfile(store, self.party.store_path)
        self.party.start()
        self.mark = 0
        if page == "registration":
            self.party.click("Register")
            self.party.wait_for("New account", driver.ENTRY_ROLES)
            self.fill("New password", NEW_PASSWORD)
            self.fill("New password (again)", NEW_PASSWORD)
        else:
            self.fill("Password", PASSWORD)

    def fill(self, name, text):
        self.party.enter(name, text)

    def begin(self, host):
        """Presses the page's button for the account on that host."""
        self.fill("New account" if self.page == "registration" else "Account", USER + "@" + host)
        self.mark = self.party.console_mark()
        self.party.click("Register" if self.page == "registration" else "Login")

    def button(self):
        return "Register" if self.page == "registration" else "Login"

    def wait_refused(self):
        """What the page says in the end, and what the console said of it."""
        self.party.wait_console("ing...\n", self.mark)

        def text():
            if not self.party.is_sensitive(self.button()):
                return None
            return next((text for text in self.party.labels() if text.strip()), None)

        seen = self.party.desktop.wait(text, "the page says why")
        return seen, self.party.console(self.mark)

    def wait_stop(self):
        """The assertion that the program stopped at."""
        self.party.expected_end = True
        process = self.party.process
        self.party.desktop.wait(lambda: process.poll() is not None, "the program has stopped")
        with open(self.party.errors_path, encoding="utf-8", errors="replace") as errors:
            found = re.findall(r"(src/\w+\.cpp):\d+: .*Assertion `(.*)' failed", errors.read())
        if process.returncode != -6 or len(found) != 1:
            return "ended with %s, %s" % (process.returncode, found)
        return "%s: %s" % found[0]

    def end(self):
        """Ends the program; its next start is another's."""
        if self.party.process and self.party.process.poll() is None:
            self.party.close()
        self.party.discard()


# ---- Refused certificates ----


def refuse_script(host, context):
    """Asks for TLS and shows a certificate; would play on if it were taken."""

    def script(link):
        tls_server.ask_for_tls(link, host)
        link.clear_size = len(link.raw)
        link.begin_tls(context)
        # A client of TLS 1.3 may refuse behind the server's last word; whatever it says is kept.
        link.point("handshake done")
        link.hold()

    return script


def describe_refusal(seen, console):
    """The page's text and the console's lines about the certificate, in short."""
    lines = re.search(
        r"Warning: GnuTLS handshake error -348: Error in the certificate verification\.\n"
        r"cert_type: X\.509\ncert_verify_status: (\d+) \(u32\)\nstatus: (.*?) *\n",
        console,
    )
    if not lines:
        return "%s, but no detail lines: %s" % (seen, driver.short(console[-500:]))
    return '"%s"; -348, status %s, %s' % (seen, lines.group(1), lines.group(2))


def try_refused(trial, recorder, users, contexts):
    """One row for each certificate that must be refused, on both pages and in two versions."""
    records = set()
    for what, host, bits, reason in REFUSED:
        seen = []
        for user in users:
            for context in contexts(host):
                server = tls_server.Server(refuse_script(host, context))
                user.begin(host)
                text, console = user.wait_refused()
                link = server.last()
                found = recorder.look(server)
                seen.append("%s; secrets sent: %s" % (describe_refusal(text, console), found))
                records |= set(tls_server.tls_records(link.raw[link.clear_size :]))
        trial.check(
            "the certificate %s; login and registration, TLS 1.3 and 1.2" % what,
            '"%s"; -348, status %d, %s%s; secrets sent: none' % (REFUSAL, bits, UNTRUSTED, reason),
            merge(seen),
        )
    # 20 and 22 are the handshake, 21 an alert; a record of 19 bytes of type 23 holds no more than an
    # alert's two bytes.
    strange = sorted(
        record for record in records if record[0] not in (20, 21, 22) and record != (23, 19)
    )
    trial.check(
        "these connections: records behind STARTTLS that are no handshake and no alert",
        NOTHING,
        strange or NOTHING,
    )


def merge(seen):
    """What was seen every time, in one text."""
    return " / ".join(sorted(set(seen)))


def both_versions(directory):
    """TLS 1.3 and 1.2 with the certificate for a host, those of our own first."""

    def contexts(host):
        stem = os.path.join(directory, host)
        if not os.path.exists(stem + ".crt"):
            stem = os.path.join(os.environ["MORVANE_WORLD"], host)
        return [
            tls_server.make_context(stem + ".crt", stem + ".key", version)
            for version in (ssl.TLSVersion.TLSv1_3, ssl.TLSVersion.TLSv1_2)
        ]

    return contexts


def try_chain(trial, directory):
    """What was refused without the intermediate authority is taken with it."""
    jid = USER + "@chain.test"
    context = tls_server.make_context(
        os.path.join(directory, "whole-chain.crt"), os.path.join(directory, "chain.test.key")
    )
    server = tls_server.Server(tls_server.login_script(jid, context))
    user = User("login")
    user.begin("chain.test")
    user.party.wait_for("New procedure", driver.BUTTON_ROLES)
    user.end()
    server.close()
    check_inside(
        trial,
        "control: the last of these certificates, with its intermediate authority",
        server,
        "name, password",
        "taken",
        "taken",
    )


# ---- Revocation ----


class Stapler:
    """GnuTLS's own server with a statement of the authority about the certificate, or without."""

    port = 15222

    def __init__(self, stem, statement):
        command = [
            "gnutls-serv",
            "--quiet",
            "--port",
            str(self.port),
            "--x509certfile",
            stem + ".crt",
            "--x509keyfile",
            stem + ".key",
            "--echo",
        ]
        if statement:
            # The server would not offer what speaks against itself.
            command += ["--ignore-ocsp-response-errors", "--ocsp-response", statement]
        self.process = driver.start_process(
            command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL
        )

    def relay(self, link):
        """Carries TLS between the program and that server, and keeps what the program sends."""
        peer = None
        while peer is None:
            try:
                peer = socket.create_connection(("127.0.0.1", self.port))
            except ConnectionRefusedError:
                if self.process.poll() is not None:
                    raise
        try:
            peer.sendall(link.unread)
            while True:
                for ready in select.select([peer, link.peer], [], [])[0]:
                    data = ready.recv(65536)
                    if not data:
                        return
                    if ready is peer:
                        link.send_bytes(data)
                    else:
                        link.raw += data
                        peer.sendall(data)
        except OSError:
            pass  # one of the two has left
        finally:
            peer.close()


def try_revoked(trial, recorder, user, directory):
    """Revoked certificates: what is seen, said as it is."""
    consulted = revoke(directory, "revoked.test")
    revoke(directory, "stapled.test")
    trial.check(
        "control: a list that is consulted refuses the revoked certificate", True, consulted
    )
    jid = USER + "@revoked.test"
    server = tls_server.Server(
        tls_server.login_script(jid, tls_server.world_context("revoked.test"))
    )
    user.begin("revoked.test")
    user.party.wait_for("New procedure", driver.BUTTON_ROLES)
    raw = server.all_raw()
    recorder.look(server)
    trial.check(
        "login; the certificate is revoked by its authority's list",
        "accepted, for no revocation list is consulted; secrets outside of TLS: none",
        "accepted, for no revocation list is consulted; secrets outside of TLS: "
        + find_secrets(raw),
    )
    user.end()

    user = User("login")
    world = os.environ["MORVANE_WORLD"]
    rows = (
        (
            "is revoked, and the server staples the authority's word on it (OCSP)",
            "stapled.test",
            os.path.join(world, "stapled.test"),
            os.path.join(directory, "stapled.test.ocsp"),
            "The certificate chain is revoked.",
        ),
        (
            "must come with the authority's word (OCSP), and comes without",
            "muststaple.test",
            os.path.join(directory, "muststaple.test"),
            None,
            "The certificate requires the server to include an OCSP status in its response, but the "
            "OCSP status is missing.",
        ),
    )
    for what, host, stem, statement, reason in rows:
        stapler = Stapler(stem, statement)

        def script(link, host=host, stapler=stapler):
            tls_server.ask_for_tls(link, host)
            stapler.relay(link)

        server = tls_server.Server(script)
        user.begin(host)
        text, console = user.wait_refused()
        found = recorder.look(server)
        driver.stop_process(stapler.process)
        seen = re.sub(r"status \d+", "status N", describe_refusal(text, console))
        trial.check(
            "login; the certificate " + what,
            '"%s"; -348, status N, %s%s; secrets sent: none' % (REFUSAL, UNTRUSTED, reason),
            "%s; secrets sent: %s" % (seen, found),
        )
    user.end()


# ---- STARTTLS that is stripped, refused or forged ----


def clear_script(*answers):
    """Answers the header and then each further request with the next text, all in clear."""

    def script(link):
        link.expect("version='1.0'>")
        link.send(answers[0])
        for answer in answers[1:]:
            link.receive()
            link.send(answer)
        link.hold()

    return script


HEADER = STREAM % GOOD
FORGED = features(MECHANISMS, REGISTER) + SUCCESS
OFFER = HEADER + features(STARTTLS, MECHANISMS)

# What is refused with a text on the page: (what the server does, the console's line, its answers).
STRIPPED = (
    (
        "offers PLAIN and registration in clear, without STARTTLS",
        "Warning: Stream features doesn't have <starttls>.",
        (HEADER + features(MECHANISMS, REGISTER),),
    ),
    (
        "sends an empty list of features",
        "Warning: Stream features doesn't have <starttls>.",
        (HEADER + features(),),
    ),
    ("sends no list of features", "Warning: Stream doesn't have <stream:features>.", (HEADER,)),
    (
        "sends a list of features without a stream",
        "Warning: No XMPP <stream:stream> found.",
        ("<?xml version='1.0'?>" + features(STARTTLS, MECHANISMS),),
    ),
    (
        "goes on in clear where TLS should begin",
        "Warning: GnuTLS handshake error -15: An unexpected " "TLS packet was received.",
        (OFFER, PROCEED, HEADER + FORGED),
    ),
)

# What stops the program, as it is meant to: (what the server does, the assertion, its answers).
STOPS = (
    (
        "answers STARTTLS with a failure",
        'xml_element->name == "proceed"',
        (OFFER, "<failure xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>"),
    ),
    (
        "puts forged features and a success behind the go-ahead, in its packet",
        "!xml_element->next",
        (OFFER, PROCEED + FORGED),
    ),
    ("answers STARTTLS with a success", 'xml_element->name == "proceed"', (OFFER, SUCCESS)),
)


def try_stripped(trial, recorder, users):
    """Servers that keep the program from TLS: refused."""
    for what, line, answers in STRIPPED:
        seen = []
        for user in users:
            server = tls_server.Server(clear_script(*answers))
            user.begin(GOOD)
            text, console = user.wait_refused()
            seen.append(
                '"%s"; %s; secrets sent: %s'
                % (
                    text,
                    line if line in console else driver.short(console[-300:]),
                    recorder.look(server),
                )
            )
        trial.check(
            "the server %s; login and registration" % what,
            '"%s"; %s; secrets sent: none' % (REFUSAL, line),
            merge(seen),
        )


def try_no_certificate(trial, recorder, users):
    """A server that offers encryption with nobody, which needs no certificate."""
    context = tls_server.make_context(None, None, ssl.TLSVersion.TLSv1_2, "aNULL:@SECLEVEL=0")
    seen = []
    for user in users:
        server = tls_server.Server(refuse_script(GOOD, context))
        user.begin(GOOD)
        text, console = user.wait_refused()
        is_refused = "GnuTLS handshake error" in console and server.last().refusal is not None
        seen.append(
            '"%s"; no handshake: %s; secrets sent: %s' % (text, is_refused, recorder.look(server))
        )
    trial.check(
        "the server can only do TLS without a certificate; login and registration",
        '"%s"; no handshake: True; secrets sent: none' % REFUSAL,
        merge(seen),
    )


def stop_once(recorder, page, store, answers):
    """What one answer that stops the program left behind."""
    user = User(page, store)
    before = user.party.everything()
    server = tls_server.Server(clear_script(*answers))
    user.begin(GOOD)
    stop = user.wait_stop()
    found = recorder.look(server)
    same = user.party.everything() == before
    user.party.process = None
    with open(user.party.errors_path, "w", encoding="utf-8"):
        pass  # the stop was expected
    user.party.start()
    user.party.wait_for("Account", driver.ENTRY_ROLES)
    user.end()
    return "stops at %s; store as before: %s; secrets sent: %s" % (stop, same, found)


def try_stops(trial, recorder, store):
    """Answers that stop the program; it starts again, and finds its store as it was."""
    for what, assertion, answers in STOPS:
        trial.check(
            "the server %s; login and registration" % what,
            "stops at src/xmpp_connection.cpp: %s; store as before: True; secrets sent: none"
            % assertion,
            merge([stop_once(recorder, page, store, answers) for page in PAGES]),
        )


# ---- Controls ----


def try_good(trial, recorder, directory):
    """A good server gets the passwords within TLS, where only the decrypted text shows them; and so
    does one that says before TLS that all is done, or offers nothing over TLS. Returns a store."""
    jid = USER + "@" + GOOD
    context = tls_server.world_context(GOOD)

    def stripped_script(link):
        tls_server.ask_for_tls(link, GOOD)
        link.begin_tls(context)
        link.expect("version='1.0'>")
        link.send(HEADER + features())
        link.expect("</auth>")
        link.send("<failure xmlns='urn:ietf:params:xml:ns:xmpp-sasl'/>")
        link.hold()

    user = User("login")
    server = tls_server.Server(stripped_script)
    user.begin(GOOD)
    text, _ = user.wait_refused()
    server.close()
    check_inside(
        trial,
        "login: a trusted server strips the list of features within TLS, and refuses",
        server,
        "password",
        '"%s"' % text,
        '"Unable to authorize"',
    )

    def early_script(link):
        link.expect("version='1.0'>")
        link.send(OFFER + SUCCESS)
        link.expect("<starttls xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>")
        link.send(PROCEED)
        link.begin_tls(context)
        tls_server.log_in(link, jid)
        link.hold()

    server = tls_server.Server(early_script)
    user.begin(GOOD)
    user.party.wait_for("New procedure", driver.BUTTON_ROLES)
    server.close()
    check_inside(
        trial,
        "login: a forged success comes in clear with the first features",
        server,
        "name, password",
        "TLS and login all the same",
        "TLS and login all the same",
    )
    store = os.path.join(directory, "store.db")
    user.party.wait_console("Disconnected.\n")
    user.end()
    shutil.copyfile(user.party.store_path, store)

    user = User("registration")
    server = tls_server.Server(tls_server.register_script(GOOD, context))
    user.begin(GOOD)
    user.party.wait_for("Account", driver.ENTRY_ROLES)
    server.close()
    check_inside(
        trial, "registration at a good server", server, "name, password", "registered", "registered"
    )
    user.end()
    return store


def check_inside(trial, what, server, secret, seen, expected):
    """The secrets are in what was decrypted, and not in what was on the wire."""
    raw, heard = find_secrets(server.all_raw()), find_secrets(server.all_heard())
    trial.check(
        what,
        "%s; decrypted: %s; on the wire: none" % (expected, secret),
        "%s; decrypted: %s; on the wire: %s" % (seen, heard, raw),
    )


def send_clear(recorder, text):
    """Sends a text in clear, as a bad program would, and waits until both recorders have it."""
    server = tls_server.Server(lambda link: link.hold())
    with socket.create_connection(("127.0.0.1", tls_server.PORT)) as peer:
        peer.sendall(text)
        driver.Desktop.current.wait(lambda: text in server.all_raw(), "the text arrives")
    server.close()
    driver.Desktop.current.wait(lambda: recorder.has_packet(text), "it was seen on its way")
    return server.all_raw()


def try_wire(trial, recorder):
    """What was on the loopback interface over the whole trial. Packets are kept in their order, so
    that with the last one all are there."""
    send_clear(recorder, b"<end-of-the-trial/>")
    if recorder.wire.socket:
        seen = "secrets sent: " + find_secrets(*recorder.wire.said())
    elif trial.short:
        return
    else:
        seen = "no right to see them here"
    trial.check(
        "every packet of the loopback interface, searched at the end", "secrets sent: none", seen
    )


def try_controls(trial, recorder):
    """What is sent in clear is found, in every form."""
    seen = [
        find_secrets(send_clear(recorder, b"<control>" + needle + b"</control>"))
        for password in (PASSWORD, NEW_PASSWORD)
        for _, needle in needles(password)
    ]
    trial.check(
        "control: of %d forms of the secrets, each sent in clear, are found" % len(seen),
        len(seen),
        len(seen) - seen.count(NOTHING),
    )


def try_no_trust(trial, recorder, directory):
    """A machine that trusts nobody."""
    nobody = os.path.join(directory, "nobody")
    os.mkdir(nobody)
    with open(os.path.join(nobody, "ca-certificates.crt"), "w", encoding="utf-8"):
        pass
    wrapper = os.path.join(directory, "without-trust")
    with open(wrapper, "w", encoding="utf-8") as file:
        file.write(
            "#!/bin/sh\nexec unshare --user --map-current-user --keep-caps --mount sh -c "
            '\'mount --bind "$0" /etc/ssl/certs && exec "$1"\' %s %s\n'
            % (nobody, driver.Options.binary)
        )
    os.chmod(wrapper, 0o755)
    binary, driver.Options.binary = driver.Options.binary, wrapper
    try:
        seen = []
        for page in PAGES:
            user = User(page)
            warned = (
                "tls_certs_count: 0 (s32)\nWarning: GnuTLS didn't find any certificates\n"
                in user.party.console()
            )
            server = tls_server.Server(refuse_script(GOOD, tls_server.world_context(GOOD)))
            user.begin(GOOD)
            text, console = user.wait_refused()
            found = recorder.look(server)
            seen.append(
                "warned at the start: %s; %s; secrets sent: %s"
                % (warned, describe_refusal(text, console), found)
            )
            user.end()
    finally:
        driver.Options.binary = binary
    trial.check(
        "no trusted certificate at all, a good server, login and registration",
        'warned at the start: True; "%s"; -348, status 66, %sThe certificate issuer is '
        "unknown.; secrets sent: none" % (REFUSAL, UNTRUSTED),
        " / ".join(sorted(set(seen))),
    )


def main():
    """All rows; there is no shorter form."""
    trial = Trial("tls", __doc__)
    driver.Options.binary = trial.binary
    driver.enter_world(HOSTS)
    desktop = driver.Desktop()
    directory = os.path.join(desktop.directory, "certificates")
    os.mkdir(directory)
    make_certificates(directory)
    recorder = Recorder()
    store = try_good(trial, recorder, directory)
    users = [User(page) for page in PAGES]
    try_refused(trial, recorder, users, both_versions(directory))
    try_stripped(trial, recorder, users)
    try_no_certificate(trial, recorder, users)
    for user in users:
        user.end()
    try_stops(trial, recorder, store)
    try_chain(trial, directory)
    try_revoked(trial, recorder, User("login"), directory)
    try_no_trust(trial, recorder, directory)
    try_wire(trial, recorder)
    try_controls(trial, recorder)
    trial.figure("connections kept byte by byte", recorder.connections)
    trial.figure("bytes that the program sent over them", recorder.raw)
    trial.figure(
        "packets of the loopback interface kept beside them",
        recorder.wire.packets if recorder.wire.socket else "none; not allowed here",
    )
    desktop.stop()
    sys.exit(trial.end())


if __name__ == "__main__":
    main()
