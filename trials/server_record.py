#!/usr/bin/python3
"""Records what real servers send to real windows: the streams that trials/server.py delivers again.

    tests/run -- /usr/bin/python3 trials/server_record.py --binary PROGRAM --output DIRECTORY

A relay stands between the windows and the server, in a private world. It has the server's
certificate, so that it sees what the server says within TLS, and passes everything on as it is.
Two users walk through the whole program in front of Prosody and in front of ejabberd; then one of
them finds at Prosody what was kept for him: many revisions, and one of 60 KB. Of each connection
DIRECTORY gets two files: what the server answered on the way to the session, an answer a line, and
what it sent from there on.
"""

import argparse
import os
import re
import select
import socket
import ssl
import sys
import threading

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "tests", "e2e"))
sys.dont_write_bytecode = True

import driver  # noqa: E402
import walk  # noqa: E402
from test_offline import make_big_text  # noqa: E402

PORT = "5322"
LOGIN_ANSWERS = 6  # clear header, proceed, header, success, header, bind


class Relay:
    """Takes the windows' connections on port 5222 and passes them on to the server."""

    def __init__(self, output):
        self.output = output
        self.name = ""
        self.count = 0
        self.threads = []
        self.listener = socket.create_server(("127.0.0.1", 5222))
        threading.Thread(target=self.serve, daemon=True).start()

    def serve(self):
        """Takes connections until the listener is closed."""
        while True:
            try:
                window, _ = self.listener.accept()
            except OSError:
                return
            self.count += 1
            thread = threading.Thread(target=self.relay, args=(window, self.count), daemon=True)
            thread.start()
            self.threads.append(thread)

    def relay(self, window, number):
        """One connection, from the clear stream on."""
        answers = []
        name = f"{self.name}-{number:02d}"
        try:
            server = socket.create_connection(("127.0.0.1", int(PORT)))
            for end in (b"</stream:features>", b"/>"):
                server.sendall(window.recv(4096))
                answer = b""
                while not answer.endswith(end):
                    answer += server.recv(4096)
                answers.append(answer)
                window.sendall(answer)
            inner = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
            path = os.path.join(os.environ["MORVANE_WORLD"], driver.HOST)
            inner.load_cert_chain(path + ".crt", path + ".key")
            outer = ssl.create_default_context()
            window = inner.wrap_socket(window, server_side=True)
            server = outer.wrap_socket(server, server_hostname=driver.HOST)
            self.pump(window, server, answers)
        except (OSError, ssl.SSLError) as error:
            print(f"{name}: {error}", flush=True)
        self.write(name, answers)

    @staticmethod
    def take(peer):
        """What the next record holds: nothing at the end, None when it is not for us."""
        peer.setblocking(False)
        try:
            return peer.recv(16384)
        except ssl.SSLWantReadError:
            return None
        finally:
            peer.setblocking(True)

    def pump(self, window, server, answers):
        """Passes on what both say; one thread, so that no session is used by two."""
        asked = True
        while True:
            select.select([window, server], [], [])
            while (data := self.take(window)) is not None:
                if not data:
                    return
                server.sendall(data)
                asked = True
            while (data := self.take(server)) is not None:
                if not data:
                    window.unwrap()
                    return
                if asked and len(answers) <= LOGIN_ANSWERS:
                    answers.append(b"")
                    asked = False
                answers[-1] += data
                window.sendall(data)

    def write(self, name, answers):
        """The two files of a connection."""
        jid = re.search(rb"<jid>([a-z]+)@", b"".join(answers[:LOGIN_ANSWERS]))
        name += "-" + (jid[1].decode() if jid else "registration")
        login = answers[:LOGIN_ANSWERS] if jid else answers
        if any(b"\n" in answer for answer in login):
            print(f"{name}: an answer of several lines", flush=True)
        with open(os.path.join(self.output, name + "-login.xml"), "wb") as file:
            file.write(b"".join(answer + b"\n" for answer in login))
        if jid:
            with open(os.path.join(self.output, name + "-session.xml"), "wb") as file:
                file.write(b"".join(answers[LOGIN_ANSWERS:]))


class RecordedWalk(walk.Walk):
    """The walk without its pictures."""

    def picture(self, name, text):
        self.step += 1
        print(f"{self.step:02d}  {text}", flush=True)


def record_prosody(relay, scene):
    """The whole walk, and then a burst for one who was away."""
    relay.name = "prosody"
    scene.server = driver.Server(options=["--port", PORT])
    scene.server.start()
    scene.register()
    scene.negotiate()
    scene.meet()
    scene.discuss()
    scene.come_back()
    scene.finish()
    anna, bert = scene.anna, scene.bert
    anna.start()
    anna.login()
    anna.begin("Supply of stationery", driver.BERT)
    nth = anna.add_clause()
    for number in range(30):
        anna.commit(nth, f"Number {number}: \"{'very ' * (number % 7)}\" & <{number}>\nline two")
        anna.decide("Agree" if number % 3 else "Disagree", nth)
    anna.commit(anna.add_clause(), make_big_text(1))
    bert.start()
    bert.login()
    bert.open_procedure("Supply of stationery")
    driver.wait_same(anna, bert)
    bert.close()
    # What a server says when it goes.
    scene.server.stop()
    anna.wait_console("Disconnected.")
    anna.close()


def record_ejabberd(relay, scene):
    """Contacts, chat and profiles: it lets no negotiation pass."""
    relay.name = "ejabberd"
    scene.server = driver.Server("ejabberd", options=["--port", PORT])
    scene.server.start()
    scene.register()
    anna, bert = scene.anna, scene.bert
    for party in (anna, bert):
        party.start()
        party.login()
    anna.click("New procedure")
    anna.enter("Contractor", driver.BERT)
    anna.click("Add contractor")
    for party in (anna, bert):
        party.wait_rows("contacts", 1)
        party.close()
    for party in (anna, bert):
        party.start()
        party.login()
    for party in (anna, bert):
        party.open_contact(driver.BERT if party is anna else driver.ANNA)
    anna.say("Good morning! Have you seen the second clause?")
    anna.say('It\'s "400 euros" & no more.')
    bert.say("I have; <400> it is.")
    bert.wait_rows("contact_messages", 3)
    # It knows nothing of such profiles, and says so.
    bert.click("Your profile")
    bert.wait_label("Your Public Profile")
    bert.close()
    for number in range(30):
        anna.say(f"Line {number} for later: \"{'so ' * (number % 5)}\" & <{number}>")
    bert.start()
    bert.login()
    bert.wait_rows("contact_messages", 33)
    bert.close()
    scene.server.stop()
    anna.wait_console("Disconnected.")
    anna.close()


def main():
    """Records both servers."""
    parser = argparse.ArgumentParser()
    parser.add_argument("--binary", help="the program, by default build/release/morvane")
    parser.add_argument("--output", required=True, help="where the streams are left")
    parser.add_argument("servers", nargs="*", default=["prosody", "ejabberd"])
    arguments = parser.parse_args()
    driver.Options.binary = driver.find_binary(arguments.binary)
    driver.enter_world()
    os.makedirs(arguments.output, exist_ok=True)
    walk.PROFILE["Public key"] = "a key would stand here"
    relay = Relay(os.path.abspath(arguments.output))
    scenes = {"prosody": record_prosody, "ejabberd": record_ejabberd}
    for name in arguments.servers:
        scene = RecordedWalk(os.path.join(os.path.abspath(arguments.output), name))
        try:
            scenes[name](relay, scene)
        finally:
            scene.server.stop()
            scene.desktop.stop()
        for thread in relay.threads:
            thread.join(5)


if __name__ == "__main__":
    main()
