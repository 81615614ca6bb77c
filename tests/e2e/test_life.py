"""The demonstration, and the account that it balances at the end."""

import io
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

TOOLS = os.path.join(os.environ["MORVIK_SOURCE_DIR"], "tools")
sys.path.insert(0, TOOLS)

import life  # noqa: E402

BUILD = os.environ["MORVIK_BUILD_DIR"]


def record(event_id, name, param="", group="shop"):
    return {"activityEventID": event_id, "activityGroupName": group, "activityName": name, "activityParam": param}


def event(event_id, name, param="", group="shop", requests=(1,)):
    return {"event_id": event_id, "group": group, "activity": name, "param": param, "requests": list(requests)}


def request(number, status=200, sent=True):
    return {"id": number, "refusal": None, "answer": {"sent": sent, "status": status}}


class Account(unittest.TestCase):
    """Two events delivered, one stored, one end left out: balances unless something is wrong."""

    def setUp(self):
        self.account = life.Account()
        self.account.answered = ["1", "2", "3"]
        self.account.starts = 1
        self.account.ends = 1
        self.account.ends_left_out = 1
        self.account.saw([record("e", "end", "5", "session"), record("a", "look", "1")])
        self.events = [event("s", "start", group="session"), event("r", "retention", group="session"),
                       event("a", "look", "1"), event("b", "buy", "2")]
        self.stored = [record("c", "look", "3")]
        self.requests = [request(1)]
        self.activities = {"kind": "activities", "recorded": 6, "delivered": 4, "stored": 1, "under_way": 0,
                           "given_up": 1, "found_uncounted": 0}
        self.ledger = {"balances": True, "sound": True, "accounts": [self.activities],
                       "given_up": [{"kind": "activities", "count": 1, "reason": "a rule", "by_rule": True}]}

    def settle(self):
        self.text = io.StringIO()
        return self.account.settle(self.requests, self.events, self.stored, self.ledger, life.Screen(self.text))

    def refuses(self, problem):
        self.assertFalse(self.settle())
        self.assertIn(problem, self.text.getvalue())
        self.assertNotIn("balances", self.text.getvalue())

    def test_balances(self):
        self.assertTrue(self.settle(), self.text.getvalue())
        self.assertIn("The account balances: 6 recorded = 4 delivered + 1 still stored + 1 left out by rule.",
                      self.text.getvalue())

    def test_shows_what_the_device_says_itself(self):
        self.assertTrue(self.settle(), self.text.getvalue())
        self.assertRegex(self.text.getvalue(), r"\n    activities +6 +4 +1 +0 +1\n")
        self.assertIn("given up: 1 of activities, a rule\n", self.text.getvalue())

    def test_notices_a_ledger_that_is_not_sound(self):
        self.ledger["sound"] = False
        self.refuses("the device's ledger is not sound: something went against the rules")
        self.ledger["balances"] = False
        self.refuses("the device's ledger does not balance")

    def test_notices_a_ledger_that_contradicts_what_is_known_here(self):
        for member, name in (("recorded", "recorded"), ("delivered", "delivered"), ("stored", "stored"),
                             ("given_up", "left out")):
            with self.subTest(member=member):
                self.activities[member] += 1
                self.refuses(f"the device's ledger says that {self.activities[member]} activities were {name}, and ")
                self.activities[member] -= 1
        self.assertTrue(self.settle(), self.text.getvalue())

    def test_misses_an_event_that_was_recorded_and_is_nowhere(self):
        self.stored = []
        self.refuses("event 3 was recorded once and is known under 0 ids")

    def test_misses_an_event_that_was_stored_and_is_gone(self):
        self.account.saw([record("d", "buy", "4")])
        self.account.attempted = ["4"]
        self.refuses("shop/buy/4 was stored as d and is gone, and never arrived")

    def test_notices_an_event_under_two_ids(self):
        self.events.append(event("b2", "buy", "2"))
        self.refuses("event 2 was recorded once and is known under 2 ids")

    def test_notices_an_event_that_nobody_recorded(self):
        self.events.append(event("x", "buy", "9"))
        self.refuses("event 9 was never recorded and is there")

    def test_takes_an_event_whose_recording_was_not_answered_either_way(self):
        self.account.attempted = ["4", "5"]
        self.events.append(event("d", "buy", "4"))
        self.activities.update(recorded=7, delivered=5)
        self.assertTrue(self.settle(), self.text.getvalue())

    def test_misses_a_session_start(self):
        self.account.starts = 2
        self.refuses("2 sessions had to record their start, 1 did")

    def test_notices_an_end_that_was_left_out_against_the_rule(self):
        self.account.ends_left_out = 0
        self.refuses("0 ends had to be left out, 1 were")

    def test_tells_the_cause_of_each_repetition(self):
        self.requests = [request(1, status=500), request(2, sent=False), request(3), request(4)]
        self.account.killed.add(3)
        self.events[2:] = [event("a", "look", "1", requests=(1, 2)), event("b", "buy", "2", requests=(1, 2, 3, 4))]
        self.assertTrue(self.settle(), self.text.getvalue())
        for line in ("2 events; #1 was answered 500", "1 event; the answer to #2 was lost",
                     "1 event; the process was killed before the answer to #3 arrived"):
            self.assertIn("arrived twice, counted once: " + line, self.text.getvalue())

    def test_notices_a_repetition_without_a_cause(self):
        self.requests.append(request(2))
        self.events[2]["requests"] = [1, 2]
        self.refuses("a arrived again after #1, which was answered well")


class Program(unittest.TestCase):
    def run_life(self, *arguments):
        return subprocess.run([sys.executable, os.path.join(TOOLS, "life.py"), *arguments], capture_output=True,
                              text=True, timeout=250, check=False)

    def test_the_life_is_played_to_a_balanced_account_and_leaves_its_files_where_asked(self):
        folder = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, folder)
        begun = time.time()
        done = self.run_life("--build-dir", BUILD, "--folder", folder, "--seed", "7", "--started", str(begun - 60))
        self.assertEqual((done.returncode, done.stderr), (0, ""), done.stdout)
        self.assertIn("seed 7", done.stdout.splitlines()[0])
        self.assertRegex(done.stdout.splitlines()[-1],
                         r"^The account balances: \d+ recorded = \d+ delivered \+ 2 still stored "
                         r"\+ 2 left out by rule\.$")
        self.assertNotIn("\x1b", done.stdout)
        told = re.findall(r"the first event is seen, (\d+\.\d) s after the start", done.stdout)
        self.assertEqual(len(told), 1)
        # It leaves with the second request for the attribution; the command started a minute before this program.
        self.assertGreater(float(told[0]), 60 + life.CONVERSION_RETRY_SECONDS)
        self.assertLess(float(told[0]), 60 + time.time() - begun)
        self.assertIn("device", os.listdir(folder))
        again = self.run_life("--build-dir", BUILD, "--folder", folder)
        self.assertEqual(again.returncode, 2)
        self.assertIn("holds an earlier life; remove it, or name another with --folder", again.stderr)

    def test_programs_that_are_not_built_are_named(self):
        done = self.run_life("--build-dir", "/nowhere")
        self.assertEqual((done.returncode, done.stdout), (2, ""))
        self.assertEqual(done.stderr, "life.py: there is no program /nowhere/bin/morvik-device; build it, or name "
                                      "another folder with --build-dir\n")


if __name__ == "__main__":
    unittest.main()
