"""A disk that fails below the store, and stores that are not this program's.

The disk is full, or can no longer be written, from one system call on: first below every operation
of the store, in the order of a negotiation (store_faults.cpp), then below real windows
(store_disk.c). The program must stop by its assertion and say why on the console; the store must
hold what had come back as done, and with the disk well again the next start must find it.

Then the program is started on files that are not a store of its own, or not a whole one, or that it
may not use: it must stop with a message or go on, and must not have changed a byte where it stopped.
"""

import hashlib
import json
import os
import random
import re
import shutil
import signal
import sqlite3
import subprocess
import sys
import tempfile
import time

from trial import Trial

import driver

TITLE = "Delivery of apples"
STOPPED = -signal.SIGABRT
BROKEN_SQL = "src/db.cpp: !error"
NOT_OPENED = "src/db.cpp: open_error == SQLITE_OK"


def fast_directory():
    """A new directory, in memory where that is possible."""
    place = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
    return tempfile.mkdtemp(prefix="morvane-store-", dir=place)


def read_file(path):
    """The bytes of a file."""
    with open(path, "rb") as file:
        return file.read()


def write_file(path, data):
    """Makes a file of these bytes."""
    with open(path, "wb") as file:
        file.write(data)


# ---- A failing disk below every operation ----

KINDS = (
    ("full", "the disk is full", ("database or disk is full",)),
    ("half", "the disk is full in the middle of a write", ("database or disk is full",)),
    (
        "readonly",
        "the file system has become read-only",
        ("disk I/O error", "unable to open database file"),
    ),
)


def run_faults(trial, kind, step, directory):
    """The lines of store_faults, as numbers and as lists of (count, text)."""
    results = os.path.join(directory, "results")
    subprocess.run(
        [os.path.join(trial.programs, "store_faults"), kind, str(step), results],
        cwd=directory,
        check=True,
    )
    numbers, texts = {}, {"message": [], "stop": []}
    with open(results, encoding="utf-8") as file:
        for line in file:
            words = line.rstrip("\n").split(" ", 2)
            if words[0] in texts:
                texts[words[0]].append((int(words[1]), words[2].strip().strip('"')))
            else:
                numbers[words[0]] = int(words[1])
    return numbers, texts


def try_operations(trial):
    """Every operation of the store, in the order of a negotiation, with every fault."""
    step = 37 if trial.short else 1
    for kind, what, messages in KINDS:
        directory = fast_directory()
        try:
            numbers, texts = run_faults(trial, kind, step, directory)
        finally:
            shutil.rmtree(directory)
        if kind == "full":
            trial.figure(
                "changes of the store in a negotiation with every operation of it",
                f"{numbers['changes']:,}",
            )
            trial.figure(
                "system calls of these that change a file: a failing disk from each on",
                f"{numbers['calls']:,}" + (f", every {step}th" if step > 1 else ""),
            )
        met = numbers["met"]
        said = {text for _, text in texts["message"]}
        stops = {text for _, text in texts["stop"]}
        is_right = (
            numbers["stopped"] == met
            and met > 0
            and said <= set(messages)
            and stops <= {"db.cpp: !error", "db.cpp: open_error == SQLITE_OK"}
        )
        trial.check(
            f"{what}: the statement stops the program",
            f"{met:,} of {met:,}: "
            + stop_text(stops if is_right else {"db.cpp: !error"}, messages),
            f"{numbers['stopped']:,} of "
            f"{met:,}: "
            + stop_text(
                stops, [text for text in messages if text in said] + sorted(said - set(messages))
            ),
            ok=is_right,
        )
        faults = numbers["faults"]
        trial.check(
            f"{what}: the store is sound and holds just what had come back as done, and "
            "the next start loads it",
            f"{faults:,} of {faults:,}",
            f"{min(numbers['intact'], numbers['started']):,} of {faults:,}",
        )


def stop_text(stops, messages):
    """How a stop is told of in a row."""
    asserted = " or ".join('"%s"' % stop.split(": ", 1)[1] for stop in sorted(stops))
    return "%s, %s" % (asserted, " or ".join('"%s"' % message for message in messages))


# ---- A failing disk below real windows ----


def arm(party, kind, number):
    """From the so manieth call on, the disk below the party's store fails."""
    write_file(os.path.join(party.directory, "disk"), b"%s %d\n" % (kind.encode(), number))


def heal(party):
    """The disk is well again."""
    os.remove(os.path.join(party.directory, "disk"))


def set_logs_aside(party):
    """Later runs write new logs; what was complained of here was meant."""
    text = read_file(party.console_path), read_file(party.errors_path)
    for path in (party.console_path, party.errors_path):
        os.rename(path, "%s-%d" % (path, time.monotonic_ns()))
    return tuple(part.decode(errors="replace") for part in text)


def wait_stopped(party):
    """Waits for the end of the program: how it ended, its assertion and its message."""
    party.expected_end = True
    process = party.process
    party.desktop.wait(lambda: process.poll() is not None, "%s's program stops" % party.name)
    party.process = None
    party.windows = []
    return tell_end(process.returncode, *set_logs_aside(party))


def tell_end(status, console, errors):
    """(status, assertion, message) of an ended program."""
    stop = re.search(r"(src/\w+\.cpp):\d+:.*Assertion `(.*)' failed", errors)
    said = re.findall(r'^(?:error_msg|sqlite3_errmsg \(db\)): "(.*)" \(', console, re.MULTILINE)
    return (
        status,
        "%s: %s" % stop.groups() if stop else "no assertion",
        said[-1] if said else "no message",
    )


def press(party, name, nth=0):
    """What presses a button that is in sight."""
    node = party.wait_for(name, driver.BUTTON_ROLES, nth)
    party.scroll_to(node)
    return lambda: party.press_node(node)


def leave_text(party):
    """What moves the keyboard from one text to the other."""
    node = party.wait_for("Clause text", driver.ENTRY_ROLES, 1)
    return lambda: party.press_node(node)


def act_on_full_disk(party, action):
    """Prepares the action, and returns what does it."""
    if action == "begin":
        party.click("New procedure")
        party.enter("Procedure title", "Another")
        party.enter("Contractor", driver.BERT)
        return press(party, "Begin")
    if action == "add a clause":
        return press(party, "Add clause")
    party.write(0, "Changed with %s" % action)
    if action == "commit":
        party.focus("Clause text", 1)
        return press(party, "Commit")
    return leave_text(party)


def get_messages(kind):
    """What a disk of that kind makes the console say."""
    return next(messages for name, _, messages in KINDS if name == kind)


def try_window(trial, party, kind, action, number):
    """One action of a user with the disk failing; whether all was as it must be."""
    act = act_on_full_disk(party, action)
    before = party.everything_at_rest()
    arm(party, kind, number)
    act()
    status, stop, said = wait_stopped(party)
    heal(party)
    is_stop = (status, stop) == (STOPPED, BROKEN_SQL) and said in get_messages(kind)
    is_intact = party.everything() == before
    party.start()
    party.login()
    party.open_procedure(TITLE)
    party.wait_text("Clause text", "Ten crates a week", 0)
    party.wait_text("Clause text", "Paid on delivery", 1)
    is_shown = party.everything() == before
    if before["clause_revisions"][-1][4] == "DRAFT":
        party.choose_revision(0, "draft")
        party.wait_text("Clause text", before["clause_revisions"][-1][5])
        party.click("Cancel")
        party.wait_text("Clause text", "Ten crates a week")
    print(
        "%s, %s from call %d on: %s, %s; intact %s, shown %s"
        % (action, kind, number, stop, said, is_intact, is_shown),
        flush=True,
    )
    return is_stop, is_intact and is_shown


def try_first_start(party, kind, number):
    """The first start of all with the disk failing, and the next with the disk well."""
    arm(party, kind, number)
    party.expected_end = True
    party.process = party.launch()
    status, stop, said = wait_stopped(party)
    heal(party)
    is_stop = status == STOPPED and stop in (BROKEN_SQL, NOT_OPENED) and said in get_messages(kind)
    print("first start, %s from call %d on: %s, %s" % (kind, number, stop, said), flush=True)
    party.start()
    return is_stop, party.rows("SELECT * FROM app_info") == [(1, "Morvane", "0.1")]


def try_login(party, kind):
    """The login that makes the account, then the same with the disk well."""
    act = press(party, "Login")
    arm(party, kind, 1)
    act()
    status, stop, said = wait_stopped(party)
    heal(party)
    is_intact = party.rows("SELECT * FROM accounts") == []
    party.start()
    party.login()
    return (status, stop) == (STOPPED, BROKEN_SQL) and said in get_messages(kind), is_intact


def try_commits(party, numbers):
    """Commits of a saved draft on a disk that is full from these calls on; how often all is there as
    it was before, and what stopped them."""
    text = "Saved, and then committed on a full disk"
    party.write(0, text)
    party.focus("Clause text", 1)
    party.desktop.wait(lambda: text in party.drafts(), "the draft is stored")
    before = party.everything_at_rest()
    kept, ends = 0, set()
    for number in numbers:
        act = press(party, "Commit")
        arm(party, "full", number)
        act()
        _, stop, said = wait_stopped(party)
        heal(party)
        ends.add('"%s", "%s"' % (stop.split(": ", 1)[-1], said))
        kept += party.everything() == before
        party.start()
        party.login()
        party.open_procedure(TITLE)
        party.choose_revision(0, "draft")
        party.wait_text("Clause text", text)
    return kept, " and ".join(sorted(ends))


def try_windows(trial, desktop):
    """Real windows on a failing disk."""
    party = driver.Party("anna", driver.ANNA, driver.LEFT)
    desktop.environment["STORE_DISK"] = os.path.join(party.directory, "disk")
    desktop.environment["LD_PRELOAD"] = os.path.join(trial.programs, "libstore_disk.so")
    seen = [try_first_start(party, "full", 30)]
    seen.append(try_login(party, "readonly" if trial.short else "full"))
    party.begin(TITLE, driver.BERT)
    for nth, text in enumerate(("Ten crates a week", "Paid on delivery")):
        party.commit(party.add_clause(), text)
    cases = (
        [("commit", "full", 1)]
        if trial.short
        else [
            (action, kind, number)
            for action in ("commit", "save a draft", "add a clause", "begin")
            for kind in ("full", "readonly")
            for number in (1, 6)
        ]
    )
    for action, kind, number in cases:
        seen.append(try_window(trial, party, kind, action, number))
    numbers = (8,) if trial.short else (2, 5, 8, 10)
    kept, ends = try_commits(party, numbers)
    party.close()
    party.discard()
    for name in ("STORE_DISK", "LD_PRELOAD"):
        del desktop.environment[name]
    every = "%d of %d" % (len(seen), len(seen))
    trial.check(
        "a window on a failing disk (first start, first login, drafts, commits, new clauses "
        "and procedures): it stops, and says why on the console",
        every,
        "%d of %d" % (sum(is_stop for is_stop, _ in seen), len(seen)),
    )
    trial.check(
        "with the disk well again, the window shows all that it had shown",
        every,
        "%d of %d" % (sum(is_right for _, is_right in seen), len(seen)),
    )
    trial.check(
        "the disk becomes full in a commit of a saved draft: the draft and all else is there",
        '%d of %d stop by "!error", "database or disk is full"' % (len(numbers), len(numbers)),
        "%d of %d stop by %s" % (kept, len(numbers), ends),
    )


# ---- Files that are not the program's own ----


def make_store(trial):
    """The bytes of a store late in a negotiation, without free pages."""
    directory = fast_directory()
    try:
        subprocess.run(
            [
                os.path.join(trial.programs, "store_faults"),
                "full",
                "100000",
                os.path.join(directory, "results"),
            ],
            cwd=directory,
            check=True,
        )
        names = sorted(
            (name for name in os.listdir(directory) if name.startswith("reference-")),
            key=lambda name: int(name.split("-")[1]),
        )
        for name in reversed(names):
            connection = sqlite3.connect(os.path.join(directory, name))
            free = connection.execute("PRAGMA freelist_count").fetchone()[0]
            connection.close()
            if not free:
                return read_file(os.path.join(directory, name))
        raise driver.Failure("no store without free pages")
    finally:
        shutil.rmtree(directory)


def list_directory(directory):
    """Every file of the directory, with the sum of its bytes where this user may read it."""
    found = {}
    if os.access(directory, os.R_OK | os.X_OK):
        for name in sorted(os.listdir(directory)):
            path = os.path.join(directory, name)
            is_text = os.path.isfile(path) and os.access(path, os.R_OK)
            found[name] = hashlib.sha256(read_file(path)).hexdigest() if is_text else "closed"
    return found


def start_on(trial, prepare, wrap=(), during=None):
    """Starts the program where there is no display, in a directory that `prepare` has filled: it
    stops at its store, or comes as far as to look for a display. Returns how it ended, and whether
    the directory is as it was. `during` is called while it runs."""
    directory = fast_directory()
    environment = {
        name: value
        for name, value in os.environ.items()
        if name not in ("DISPLAY", "WAYLAND_DISPLAY")
    }
    try:
        prepare(directory)
        before = list_directory(directory)
        process = subprocess.Popen(
            [*wrap, trial.binary],
            cwd=directory,
            env=environment,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
        )
        if during:
            during(process, directory)
        console, errors = process.communicate(timeout=60 * driver.SLOW)
        is_same = list_directory(directory) == before
    finally:
        os.chmod(directory, 0o700)
        shutil.rmtree(directory, ignore_errors=True)
    errors = errors.decode(errors="replace")
    end = tell_end(process.returncode, console.decode(errors="replace"), errors)
    if "cannot open display" in errors and process.returncode == 1:
        end = (0, "started", end[2])
    return end, is_same


def told(end, is_same):
    """How an end on a file is told of in a row."""
    _, stop, said = end
    text = (
        "starts" if stop == "started" else 'stops by "%s", "%s"' % (stop.split(": ", 1)[-1], said)
    )
    return text + (", nothing changed" if is_same else ", changed")


def database(statements):
    """Makes a database by these statements in the place of the store."""

    def prepare(directory):
        connection = sqlite3.connect(os.path.join(directory, ".morvane.db"))
        connection.executescript(statements)
        connection.close()

    return prepare


def content(data):
    """Puts these bytes in the place of the store."""
    return lambda directory: write_file(os.path.join(directory, ".morvane.db"), data)


def with_modes(data, file_mode, directory_mode):
    """The same, with these modes."""

    def prepare(directory):
        if data is not None:
            content(data)(directory)
            os.chmod(os.path.join(directory, ".morvane.db"), file_mode)
        os.chmod(directory, directory_mode)

    return prepare


def without_privileges():
    """What makes the permissions of files count for root too."""
    if os.geteuid():
        return []
    return ["setpriv", "--bounding-set", "-dac_override,-dac_read_search"]


def same_end(ends):
    """What all of these ends are, or all the ends there are."""
    return " or ".join(sorted(set(ends)))


def try_others(trial, store):
    """Files of other kinds."""
    ends = [
        told(*start_on(trial, prepare))
        for prepare in (lambda directory: None, content(b""), content(b"x"))
    ]
    trial.check(
        "no file, an empty one, and one of a single byte, which SQLite takes for empty",
        "starts, changed",
        same_end(ends),
    )

    numbers = random.Random(4)
    sizes = [2, 15, 16, 99, 100, 511, 512, 1024, 4096, 40960] + [
        numbers.randrange(2, 100000) for _ in range(10 if trial.short else 190)
    ]
    ends = [
        told(*start_on(trial, content(data)))
        for data in [bytes(8192)] + [numbers.randbytes(size) for size in sizes]
    ]
    trial.check(
        f"a file of zeros, and {len(sizes)} files of 2 bytes to 100 KB at random",
        'stops by "!error", "file is not a database", nothing changed',
        same_end(ends),
    )

    locked_out = without_privileges()
    prepares = [
        lambda directory: os.mkdir(os.path.join(directory, ".morvane.db")),
        with_modes(store, 0, 0o700),
        with_modes(None, 0, 0o500),
        with_modes(store, 0o600, 0),
    ]
    trial.check(
        "a directory in the store's place; a store that may not be read; none, where none "
        "may be made; one in a directory that may not be searched",
        'stops by "open_error == SQLITE_OK", "unable to open database file", ' "nothing changed",
        same_end(told(*start_on(trial, prepare, locked_out)) for prepare in prepares),
    )


OTHER_PROGRAM = """
CREATE TABLE songs (title TEXT, length INTEGER);
INSERT INTO songs VALUES ('One', 100), ('Two', 200);
"""


def try_databases(trial):
    """Databases that are not this program's."""
    for what, statements, expected in (
        (
            "another program's database: it starts, with its own tables beside the others",
            "",
            "starts, changed; their rows are all there",
        ),
        (
            'another program\'s database with a table "app_info": it stops, when its other '
            "tables are made already",
            "CREATE TABLE app_info (name TEXT);",
            'stops by "!error", "no such column: db_version", changed; their rows are all ' "there",
        ),
    ):
        keeper = fast_directory()
        kept = os.path.join(keeper, "kept.db")
        try:
            # A second name of the same file outlives its directory.
            text = told(
                *start_on(
                    trial,
                    database(OTHER_PROGRAM + statements),
                    during=lambda _, directory, to=kept: os.link(
                        os.path.join(directory, ".morvane.db"), to
                    ),
                )
            )
            trial.check(what, expected, text + "; " + find_songs(kept))
        finally:
            shutil.rmtree(keeper)


def find_songs(path):
    """Whether the other program's rows are all there."""
    connection = sqlite3.connect(path)
    songs = connection.execute("SELECT * FROM songs").fetchall()
    connection.close()
    return "their rows are all there" if songs == [("One", 100), ("Two", 200)] else repr(songs)


LOCKER = """
import sqlite3, sys
connection = sqlite3.connect(sys.argv[1], isolation_level=None)
connection.execute(sys.argv[2])
connection.execute("SELECT count(*) FROM sqlite_master").fetchone()
print("locked", flush=True)
sys.stdin.read()
"""


def lock(path, statement):
    """Another process that locks the store by the statement, until its input is closed."""
    process = driver.start_process(
        [sys.executable, "-c", LOCKER, path, statement],
        stdin=subprocess.PIPE,
        stdout=subprocess.PIPE,
    )
    if process.stdout.readline() != b"locked\n":
        raise driver.Failure("the store could not be locked")
    return process


def unlock(process):
    """Ends the lock."""
    process.stdin.close()
    process.wait()
    process.stdout.close()


def try_locks(trial, store):
    """A store that another process is using when the program starts."""
    lockers = []

    def locked_by(statement):
        def prepare(directory):
            content(store)(directory)
            lockers.append(lock(os.path.join(directory, ".morvane.db"), statement))

        return prepare

    def let_go(process, directory):
        # As soon as the program has opened the store; it then waits for it.
        path = os.path.join(directory, ".morvane.db")
        descriptors = "/proc/%d/fd" % process.pid
        deadline = time.monotonic() + driver.BOUND
        while time.monotonic() < deadline and process.poll() is None:
            try:
                if path in [
                    os.readlink(os.path.join(descriptors, name)) for name in os.listdir(descriptors)
                ]:
                    break
            except OSError:
                continue
        unlock(lockers.pop())

    started = time.monotonic()
    text = told(*start_on(trial, locked_by("BEGIN EXCLUSIVE")))
    waited = time.monotonic() - started
    unlock(lockers.pop())
    trial.check(
        "a store that another process has locked: it waits 5 s for it",
        'stops by "!error", "database is locked", nothing changed, after 5 s or more',
        text + (", after 5 s or more" if waited >= 5 else ", at once"),
    )
    trial.check(
        "the same, and the lock ends while it waits",
        "starts, nothing changed",
        told(*start_on(trial, locked_by("BEGIN EXCLUSIVE"), during=let_go)),
    )
    trial.check(
        "a store from which another process reads, or into which it is about to write",
        "starts, nothing changed; starts, nothing changed",
        "; ".join(
            told(*start_on(trial, locked_by(statement)))
            for statement in ("BEGIN", "BEGIN IMMEDIATE")
        ),
    )
    while lockers:
        unlock(lockers.pop())


def load_state(trial, data):
    """What the program loads from a store of these bytes, as kill_states tells it."""
    directory = fast_directory()
    try:
        write_file(os.path.join(directory, "db-1"), data)
        subprocess.run(
            [
                os.path.join(trial.programs, "kill_states"),
                directory,
                driver.ANNA,
                os.path.join(directory, "results"),
            ],
            input="1 0\n",
            text=True,
            cwd=directory,
            check=True,
            stderr=subprocess.DEVNULL,
        )
        return json.loads(read_file(os.path.join(directory, "results")))
    finally:
        shutil.rmtree(directory)


def try_cuts(trial, store):
    """The first so many bytes of a store."""
    page = 4096
    last = len(store) - page
    lengths = {at + shift for at in range(page, last + 1, page) for shift in (-1, 0, 1)}
    lengths |= {15, 16, 99, 100, 101, 511, 512, 513}
    lengths |= set(range(2, last, 4001 if trial.short else 151))
    lengths = sorted(length for length in lengths if length <= last)
    expected = (
        'stops by "!error", "database disk image is malformed", nothing changed',
        'stops by "!error", "file is not a database", nothing changed',
    )
    ends = [told(*start_on(trial, content(store[:length]))) for length in lengths]
    others = [end for end in ends if end not in expected]
    trial.check(
        f"a store of {len(store):,} bytes that has lost its last page or more, "
        f"{len(lengths):,} lengths",
        " or ".join(expected),
        others[0] if others else " or ".join(sorted(set(ends))),
        ok=not others,
    )

    lengths = range(last + 1, len(store), 512 if trial.short else 16)
    ends = {told(*start_on(trial, content(store[:length]))) for length in lengths}
    trial.check(
        f"a store that has lost a part of its last page, {len(lengths)} lengths: SQLite "
        "does not see it at the start",
        "starts, nothing changed",
        " or ".join(ends),
    )
    whole = load_state(trial, store)["model"]
    states = [load_state(trial, store[:length]) for length in lengths]
    stopped = sum(state["ended"] != 0 for state in states)
    same = sum(state.get("model") == whole for state in states)
    trial.figure(
        "of these, the login stops the program / all is there / rows or text are missing "
        "and nobody is told",
        f"{stopped} / {same} / {len(states) - stopped - same}",
    )


# ---- The same files below real windows ----


def try_window_files(trial, desktop, store):
    """What shows only after the login."""
    party = driver.Party("newer", driver.ANNA, driver.LEFT)
    content(store)(party.directory)
    database("UPDATE app_info SET db_version = 7, app_version = '0.7';")(party.directory)
    before = read_file(party.store_path)
    party.start()
    party.login()
    party.open_procedure(TITLE)
    party.wait_text("Clause text", "It's another text", 1)
    party.close()
    is_same = read_file(party.store_path) == before
    trial.check(
        "a store of a newer version, in a window: started, logged in, looked at, closed",
        "all is shown, nothing changed",
        "all is shown, " + ("nothing changed" if is_same else "changed"),
    )

    # Another process holds the store while the window is open.
    party.start()
    party.login()
    party.open_procedure(TITLE)
    party.write(1, "Written while locked")
    act = press(party, "Commit", 1)
    party.focus("Clause text", 0)
    desktop.wait(lambda: "Written while locked" in party.drafts(), "the draft is stored")
    mark = party.console_mark()
    locker = lock(party.store_path, "BEGIN IMMEDIATE")
    act()
    party.wait_console("DELETE FROM clause_revisions", mark)
    unlock(locker)
    party.wait_sensitive("Commit", False, 1)
    is_stored = ("Written while locked", "COMMITTED") in party.rows(
        "SELECT text, status FROM clause_revisions"
    )
    trial.check(
        "another process writes for a while as the window commits",
        "the commit is done",
        "the commit is done" if is_stored else "the commit is lost",
    )
    party.write(1, "Written while locked for good")
    act = press(party, "Add clause")
    party.focus("Clause text", 0)
    before = party.everything_at_rest()
    locker = lock(party.store_path, "BEGIN IMMEDIATE")
    act()
    _, stop, said = wait_stopped(party)
    unlock(locker)
    is_same = party.everything() == before
    trial.check(
        "another process writes for more than 5 s as the window adds a clause",
        'stops by "!error", "database is locked", nothing changed',
        told((0, stop, said), is_same),
    )
    party.discard()

    # Only the first change meets it that the store may not be written.
    party = driver.Party("reader", driver.ANNA, driver.LEFT)
    content(store)(party.directory)
    os.chmod(party.store_path, 0o400)
    before = read_file(party.store_path)
    driver.Options.binary = os.path.join(party.directory, "start")
    with open(driver.Options.binary, "w", encoding="utf-8") as script:
        script.write("#!/bin/sh\nexec %s\n" % " ".join(without_privileges() + [trial.binary]))
    os.chmod(driver.Options.binary, 0o700)
    party.start()
    party.login()
    party.open_procedure(TITLE)
    press(party, "Add clause")()
    _, stop, said = wait_stopped(party)
    driver.Options.binary = trial.binary
    trial.check(
        "a store that may only be read, in a window: the first change stops it",
        'stops by "!error", "attempt to write a readonly database", nothing changed',
        told((0, stop, said), read_file(party.store_path) == before),
    )
    party.discard()

    party = driver.Party("songs", driver.ANNA, driver.LEFT)
    database(OTHER_PROGRAM + "CREATE TABLE accounts (owner TEXT);")(party.directory)
    party.start()
    act = press(party, "Login")
    act()
    _, stop, said = wait_stopped(party)
    trial.check(
        'another program\'s database with a table "accounts": the login stops',
        'stops by "!error", "no such column: db_id"; their rows are all there',
        'stops by "%s", "%s"; %s' % (stop.split(": ", 1)[-1], said, find_songs(party.store_path)),
    )
    party.discard()


# ---- The trial ----


def main():
    """Runs all of it."""
    driver.enter_world()
    trial = Trial("store", __doc__)
    driver.Options.binary = trial.binary
    started = time.monotonic()
    try_operations(trial)
    print("operations after %.0f s" % (time.monotonic() - started), flush=True)
    store = make_store(trial)
    try_others(trial, store)
    try_databases(trial)
    try_locks(trial, store)
    try_cuts(trial, store)
    print("files after %.0f s" % (time.monotonic() - started), flush=True)
    desktop = driver.Desktop()
    server = driver.Server()
    server.start()
    try_windows(trial, desktop)
    try_window_files(trial, desktop, store)
    print("windows after %.0f s" % (time.monotonic() - started), flush=True)
    server.stop()
    desktop.stop()
    sys.exit(trial.end())


main()
