#!/usr/bin/python3
"""Two revisions are compared, and each change is decided on by mouse and by keyboard."""

import driver

TITLE = "Delivery of apples"
OLDER = "Ten crates of red apples a week\npaid on delivery\nby the buyer"
NEWER = "Twelve crates of apples a week paid\non Monday morning\n\nby the buyer or his clerk"
ADDED = "008855"
DELETED = "cc5555"
RETURN = "\u23ce"


def drop_return(text):
    """The text of a run as it stands once it is kept."""
    return text.replace(RETURN + "\n", "\n")


class Comparison(driver.Case):
    def begun(self, *texts):
        """Both look at a clause of those revisions, the first of Anna's and then by turns."""
        anna, bert = self.anna().start(), self.bert().start()
        for party in (anna, bert):
            party.login()
        anna.begin(TITLE, driver.BERT)
        bert.open_procedure(TITLE)
        anna.add_clause()
        for number, text in enumerate(texts):
            party, other = ((anna, bert), (bert, anna))[number % 2]
            party.commit(0, text)
            other.wait_text("Clause text", text)
        return anna, bert

    def finish(self, anna, bert, text):
        """Commits what Anna has before her and checks that both hold it, and nothing besides."""
        anna.wait_text("Clause text", text)
        anna.commit(0)
        bert.wait_text("Clause text", text)
        shared = driver.wait_same(anna, bert)
        texts = [revision[3] for clause in shared[0][4] for revision in clause[2]]
        self.assertIn(text, texts)
        for party in (anna, bert):
            party.check_negotiation_warnings()
            party.close()
        return texts

    def node(self, party):
        return party.wait_for("Clause text", driver.ENTRY_ROLES)

    def wait_runs(self, party, count=None):
        """The changes that are shown, once there are as many, or any: (start, end)."""
        node = self.node(party)

        def find():
            runs = node.runs()
            return (runs,) if runs and count is None or len(runs) == count else None

        return self.desktop.wait(
            find, "%s sees %s changes" % (party.name, "some" if count is None else count)
        )[0]

    def point_away(self, party):
        """Points at a word without a change, so that no tools show."""
        node = self.node(party)
        text, runs = node.text(), node.runs()
        offset = next(
            (
                at
                for at, letter in enumerate(text)
                if letter.isalpha() and not any(start <= at < end for start, end in runs)
            ),
            None,
        )
        if offset is not None:
            x, y, width, height = node.character_place(offset)
            for step in (0, 1):
                self.desktop.xdotool("mousemove", x + width // 2 + step, y + height // 2)
        self.desktop.wait(lambda: party.find_tool(True) is None, "the tools are gone")
        self.desktop.xdotool("mousemove", 1, 1)

    def changes(self, party):
        """The text that is shown and its changes: (start, end, ADDED or DELETED)."""
        self.wait_runs(party)
        self.point_away(party)
        node = self.node(party)
        runs = node.runs()
        places = [node.character_place(start) for start, _ in runs]
        kinds = self.desktop.colours([(x + 1, y + 1) for x, y, _, _ in places])
        return node.text(), [run + (kind,) for run, kind in zip(runs, kinds)]

    def check_display(self, party, older, newer):
        """Each text is what is left without what only the other one has."""
        text, changes = self.changes(party)
        for kind, expected in ((ADDED, older), (DELETED, newer)):
            left, at = "", 0
            for start, end, seen in changes:
                self.assertIn(seen, (ADDED, DELETED))
                left += text[at:start]
                if seen != kind:
                    left += drop_return(text[start:end])
                at = end
            self.assertEqual(left + text[at:], expected)

    def result(self, party, decide):
        """What the text becomes when decide says of each change whether it is kept, and these
        decisions, the first change first."""
        text, changes = self.changes(party)
        left, at, kept = "", 0, []
        for number, (start, end, kind) in enumerate(changes):
            kept.append(decide(number, kind))
            left += text[at:start] + (drop_return(text[start:end]) if kept[-1] else "")
            at = end
        return left + text[at:], kept

    def wait_comparing(self, party):
        self.desktop.wait(
            lambda: any(" > " in label for label in party.labels()),
            "%s sees a comparison" % party.name,
        )

    # ---- Ways to a comparison ----

    def compare_by_mouse(self, party, which):
        _, row = party.revisions()[which]
        party.open_menu(row, "Compare with the revision shown")
        party.press_menu_item("Compare with the revision shown")
        self.wait_comparing(party)

    def compare_by_keyboard(self, party, which, key):
        party.revisions()
        self.desktop.key("Home")
        self.desktop.key(*(["Down"] * which))
        row = party.popover_rows()[which][1]
        self.desktop.wait(lambda: row.has(driver.STATE_FOCUSED), "the row has the keyboard")
        self.desktop.key(key)
        party.wait_menu("Compare with the revision shown")
        self.desktop.key("Return")
        self.wait_comparing(party)

    def choose(self, party, name):
        """Chooses from the text's menu."""
        party.open_menu(self.node(party), name)
        party.press_menu_item(name)

    # ---- Ways to decide ----

    def decide_by_mouse(self, party, run, is_kept):
        party.decide_change(run, is_kept)

    def decide_by_keyboard(self, party, run, is_kept):
        """Goes to the change, from there to the tools with Tab, and presses one."""
        node = self.node(party)
        self.desktop.key("ctrl+Home")
        if is_kept:
            self.desktop.key(*(["Right"] * run[0]))
        elif node.caret() == run[0]:
            self.desktop.key("F8", "shift+F8")
        else:
            self.desktop.key("F8")
        self.desktop.wait(lambda: node.caret() == run[0], "the cursor stands at the change")
        # The tools come next after the text, what keeps the words first.
        for keeps in (True, False)[: 1 if is_kept else 2]:
            self.desktop.key("Tab")
            tool = self.desktop.wait(lambda: party.find_tool(keeps), "the tools are there")
            self.desktop.wait(
                lambda: tool.has(driver.STATE_FOCUSED), 'Tab leads to "%s"' % tool.name()
            )
        self.desktop.key("space")

    def decide_all(self, party, decide, kept):
        """Decides on all changes, always the first that is left."""
        for number, is_kept in enumerate(kept):
            runs = self.wait_runs(party, len(kept) - number)
            decide(party, runs[0], is_kept)
        self.wait_runs(party, 0)

    # ---- Tests ----

    def test_mouse(self):
        """compared from the row's menu, accepted and rejected with the tools under the pointer"""
        anna, bert = self.begun(OLDER, NEWER)
        anna.choose_revision(0, 0)
        anna.wait_text("Clause text", OLDER)
        self.compare_by_mouse(anna, 1)
        self.check_display(anna, OLDER, NEWER)
        for name in ("Commit", "Cancel"):
            self.assertFalse(anna.is_sensitive(name))
        label = next(label for label in anna.labels() if " > " in label)
        self.assertRegex(label, r"^anna@alpha\.test:\d+ > bert@alpha\.test:\d+$")
        self.desktop.still_picture(self.desktop.output + "/comparison.png")
        # Every third change is dropped, the last one too.
        count = len(self.wait_runs(anna))
        text, kept = self.result(anna, lambda number, _: (count - number) % 3 != 1)
        self.assertNotIn(RETURN, text)
        self.decide_all(anna, self.decide_by_mouse, kept)
        self.says("the last rejection makes a draft of it, stored at once")
        anna.wait_label("draft")
        self.assertEqual(anna.drafts(), [text])
        self.finish(anna, bert, text)
        self.assertEqual(anna.drafts(), [])

    def test_keyboard(self):
        """compared with the Menu key, decided with arrows, Tab and space"""
        anna, bert = self.begun(OLDER, NEWER)
        self.compare_by_keyboard(anna, 0, "Menu")
        self.check_display(anna, OLDER, NEWER)
        anna.focus("Clause text")
        count = len(self.wait_runs(anna))
        text, kept = self.result(anna, lambda number, _: (count - number) % 3 != 2)
        self.assertTrue(kept[-1])
        self.decide_all(anna, self.decide_by_keyboard, kept)
        self.says("after a last acceptance the text can be edited, or used as it is")
        anna.wait_text("Clause text", text)
        self.assertFalse(anna.is_sensitive("Commit"))
        self.assertEqual(anna.drafts(), [])
        self.desktop.key("shift+F10")
        anna.wait_menu("Use this text as draft")
        self.desktop.key("Up", "Up", "Return")
        anna.wait_label("draft")
        self.assertEqual(anna.drafts(), [text])
        self.finish(anna, bert, text)

    def test_take_all(self):
        """\"Take all of the newer text\" gives the newer text; typing goes on from there"""
        anna, bert = self.begun(OLDER, NEWER)
        anna.compare_with_previous()
        self.check_display(anna, OLDER, NEWER)
        _, changes = self.changes(anna)
        self.assertEqual(changes[0][2], DELETED)
        self.decide_by_mouse(anna, changes[0], False)
        self.choose(anna, "Take all of the newer text")
        self.wait_runs(anna, 0)
        anna.wait_text("Clause text", NEWER)
        anna.focus("Clause text")
        self.desktop.key("ctrl+End")
        self.desktop.type_text(".")
        anna.wait_label("draft")
        self.finish(anna, bert, NEWER + ".")

    def test_return_symbol(self):
        """a return symbol that is part of the contract stays where it is"""
        older = "Press %s to sign\n%s\nend %s" % (RETURN, RETURN, RETURN)
        newer = "Press %s%s\nto sign\nthe end" % (RETURN, RETURN)
        anna, bert = self.begun(older, newer)
        anna.compare_with_previous()
        self.choose(anna, "Take all of the newer text")
        anna.wait_text("Clause text", newer)
        self.choose(anna, "Use this text as draft")
        anna.wait_label("draft")
        self.assertEqual(anna.drafts(), [newer])
        self.says("and the other way round, with every change dropped")
        self.compare_by_mouse(anna, 0)
        text, kept = self.result(anna, lambda _, kind: kind == DELETED)
        self.assertEqual(text, older)
        self.decide_all(anna, self.decide_by_mouse, kept)
        if kept[-1]:
            self.choose(anna, "Use this text as draft")
        anna.wait_label("draft")
        self.assertEqual(set(self.finish(anna, bert, older)), {older, newer})

    def test_leaving(self):
        """Escape, the menu, a row and a revision that arrives leave it; nothing is changed by it"""
        anna, bert = self.begun(OLDER, NEWER)
        before = anna.everything_at_rest()
        for way in ("Escape", "Escape from the list", "menu", "row"):
            self.says(way)
            if way == "Escape from the list":
                self.compare_by_mouse(anna, 0)
            else:
                anna.compare_with_previous()
            self.wait_runs(anna)
            shown = self.node(anna).text()
            self.desktop.key("x", "BackSpace", "Delete", "Return")
            self.assertEqual(self.node(anna).text(), shown)
            if way.startswith("Escape"):
                self.desktop.key("Escape")
            elif way == "menu":
                self.choose(anna, "Leave the comparison")
            else:
                anna.choose_revision(0, 1)
            anna.wait_text("Clause text", NEWER)
            self.assertEqual(self.node(anna).runs(), [])
            self.assertEqual(anna.everything(), before)
        self.says("a revision arrives")
        anna.compare_with_previous()
        bert.commit(0, "Something else")
        anna.wait_text("Clause text", "Something else")
        self.assertEqual(self.node(anna).runs(), [])
        anna.focus("Clause text")
        self.desktop.key("ctrl+End")
        self.desktop.type_text("!")
        self.finish(anna, bert, "Something else!")

    def test_pointing(self):
        """the tools go when the pointer leaves text and tools, whichever it leaves last"""
        anna, _ = self.begun(OLDER, NEWER)
        anna.compare_with_previous()
        for number in (0, -1):
            anna.point_at_change(self.wait_runs(anna)[number])
            self.desktop.xdotool("mousemove", 1, 1)
            self.desktop.wait(lambda: anna.find_tool(True) is None, "the tools are gone")
            tool = anna.point_at_change(self.wait_runs(anna)[number])[1]
            left, top, width, height = tool.extents()
            for step in (0, 1):
                self.desktop.xdotool("mousemove", left + width // 2 + step, top + height // 2)
            anna.settled(tool)
            self.assertIsNotNone(anna.find_tool(True))
            self.desktop.xdotool("mousemove", 1, 1)
            self.desktop.wait(lambda: anna.find_tool(True) is None, "the tools are gone")

    def test_agreeing(self):
        """a press on a decision button first shows the revision that it decides on"""
        anna, bert = self.begun("900 EUR", "950 EUR")
        anna.compare_with_previous()
        self.decide_by_keyboard(anna, self.wait_runs(anna)[0], True)
        self.decide_by_keyboard(anna, self.wait_runs(anna, 1)[0], False)
        anna.wait_text("Clause text", "900 EUR")
        self.says("what was left is a draft; from another comparison Anna agrees")
        anna.choose_revision(0, 1)
        anna.compare_with_previous()
        self.decide_by_keyboard(anna, self.wait_runs(anna)[0], True)
        self.wait_runs(anna, 1)
        anna.decide("Agree", 0)
        anna.wait_text("Clause text", "950 EUR")
        self.assertEqual(self.node(anna).runs(), [])
        bert.wait_label("contractor agrees")

    def test_refused(self):
        """with itself it is not compared, and says so; the draft is compared as the newest"""
        anna, bert = self.begun(OLDER, NEWER)
        _, row = anna.revisions()[1]
        anna.open_menu(row, "Compare with the revision shown")
        anna.press_menu_item("Compare with the revision shown")
        anna.wait_label("A revision can't be compared with itself.")
        self.says("a few seconds later the label names the revision again")
        self.desktop.wait(
            lambda: "A revision can't be compared with itself." not in anna.labels(),
            "the refusal is gone",
        )
        self.assertEqual(self.node(anna).runs(), [])
        self.says("what was typed is saved and compared")
        anna.write(0, NEWER + " and son")
        self.compare_by_keyboard(anna, 0, "shift+F10")
        self.assertEqual(anna.drafts(), [NEWER + " and son"])
        self.check_display(anna, OLDER, NEWER + " and son")
        self.choose(anna, "Take all of the newer text")
        self.choose(anna, "Use this text as draft")
        self.finish(anna, bert, NEWER + " and son")


if __name__ == "__main__":
    driver.main()
