"""The device is killed at random moments of a busy run, and nothing that it confirmed is lost."""
# Labels: plain_only
# Timeout: 300

import os
import queue
import random
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.join(os.environ["MORVIK_SOURCE_DIR"], "tools"))

import stage  # noqa: E402

BUILD = os.environ["MORVIK_BUILD_DIR"]
KILLS = 200
# The kill comes at the latest after this many answers of a run.
MOST_VERBS = 40
# The kill comes up to this long after an answer, unless the next answer comes before.
MOST_DELAY_SECONDS = 0.02
# Runs in which the half second of a session end passes.
SHARE_OF_SESSION_ENDS = 0.1
SHARE_OF_NEW_SESSIONS = 0.5
SHARE_OF_MISBEHAVIOUR = 0.3
# The only rule by which these runs give up activities.
KEPT_SESSION = 'the "end" of a session that went on within a minute'


class Kill(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        seed = int(os.environ.get("MORVIK_SEED", random.SystemRandom().randrange(1_000_000)))
        print(f"MORVIK_SEED={seed} plays these lives again", flush=True)
        self.random = random.Random(seed)
        keys = stage.write_keys(folder.name)
        self.service = stage.Service(BUILD, folder.name, keys)
        self.addCleanup(self.service.stop)
        self.arguments = ["--store", os.path.join(folder.name, "device"), "--service", self.service.url, "--ca",
                          self.service.ca_file, "--keys", keys, "--log-level", "0"]
        self.attempted = set()  # parameters of events that were asked for
        self.answered = set()  # those of which the device said that they are recorded
        self.delivered = {}  # by id, what the service counted
        self.ids = {}  # by parameter, the one id under which the event is known
        self.seen_events = 0

    def lines_of_a_life(self, number):
        """The verbs of one run, each with the parameter of the event that it records."""
        lines = [("active", None)]
        while len(lines) < MOST_VERBS:
            choice = self.random.random()
            if choice < 0.85:
                lines.append(self.event(f"{number}-{len(lines)}"))
            elif choice < 0.94:
                lines.append(("push", None))
            else:
                lines.append(('impression {"campaignKey":1,"createdAt":"2024-05-01T12:00:00Z"}', None))
        if self.random.random() < SHARE_OF_NEW_SESSIONS:
            at = self.random.randrange(1, MOST_VERBS)
            lines[at:at] = self.new_session()
        if self.random.random() < SHARE_OF_SESSION_ENDS:
            lines[1:1] = [self.event(f"{number}-early"), ("background", None), ("wait 0.5", None)]
        return lines

    @staticmethod
    def event(param):
        return f"event life look {param}", param

    def new_session(self):
        # A session start while a batch is under way lets a second batch leave, and the answer to the first then trims
        # what the second carries; if the second is lost, its events may be removed by rule. So nothing is under way
        # here when a session starts, and no loss is excused.
        away = [("background", None), (f"clock {self.random.choice((20, 90))}", None)]
        return [("settle", None), *away, ("active", None)]

    def misbehave(self):
        """Answers that fail, get lost or come late, for runs that are killed."""
        if self.random.random() >= SHARE_OF_MISBEHAVIOUR:
            return
        kind, more = self.random.choice((("status", {"status": 500}), ("close_before", {}), ("close_after", {}),
                                         ("garbage", {}), ("delay", {"milliseconds": 30})))
        self.service.behave("tracking", kind, **more)

    def live_and_be_killed(self, number):
        lines = self.lines_of_a_life(number)
        device = stage.Device(BUILD, self.arguments)
        try:
            self.check_nothing_was_lost(device)
            until = self.random.randrange(len(lines))
            self.attempted.update(param for _, param in lines if param)
            device.say(*(line for line, _ in lines))
            answers = [device.answer() for _ in range(until)]
            self.assertNotIn(None, answers, f"run {number}: the device ended on its own: {device.log}")
            try:
                answers.append(device.answer(self.random.uniform(0, MOST_DELAY_SECONDS)))
            except queue.Empty:
                pass
        finally:
            status, late = device.kill()
        self.assertEqual(status, -9, f"run {number}: {device.log}")
        self.take_answers(lines, answers + late)

    def take_answers(self, lines, answers):
        for (line, param), answer in zip(lines, answers):
            self.assertEqual((answer["verb"], answer["ok"]), (line.split()[0], True), answer)
            if param:
                self.answered.add(param)

    def take_delivered(self):
        for event in self.service.events(self.seen_events):
            self.seen_events = event["number"]
            self.delivered[event["event_id"]] = event
            self.know(event["event_id"], event["group"], event["param"])

    def know(self, event_id, group, param):
        """Each event of the app was attempted once and has one id."""
        if group != "session":
            self.assertIn(param, self.attempted)
            self.assertEqual(self.ids.setdefault(param, event_id), event_id, f"event {param} has two ids")

    def check_nothing_was_lost(self, device):
        stored = {event["activityEventID"]: event for event in device.stored_events()}
        self.take_delivered()
        for event_id, event in stored.items():
            self.know(event_id, event["activityGroupName"], event["activityParam"])
        there = {event["activityParam"] for event in stored.values() if event["activityGroupName"] != "session"}
        there.update(event["param"] for event in self.delivered.values() if event["group"] != "session")
        self.assertEqual(self.answered - there, set(), "these were answered and are neither stored nor delivered")
        self.check_ledger(device.do("ledger"), stored)
        return stored

    def check_ledger(self, ledger, stored):
        """The device's own account, of a process that has not sent anything yet or has nothing under way."""
        self.assertTrue(ledger["sound"], ledger)
        account = next(each for each in ledger["accounts"] if each["kind"] == "activities")
        self.assertEqual((account["stored"], account["under_way"]), (len(stored), 0), ledger)
        reasons = {each["reason"] for each in ledger["given_up"] if each["kind"] == "activities"}
        self.assertLessEqual(reasons, {KEPT_SESSION}, ledger)
        # What arrived and is still stored has lost its answer: it is not delivered yet. The "end" of a kept session may
        # also have arrived that way before it was removed; otherwise it is the only event that neither arrived nor is
        # stored.
        arrived = self.delivered.keys()
        self.assertIn(len(arrived - stored.keys()) - account["delivered"], range(account["given_up"] + 1), ledger)
        self.assertIn(account["recorded"] - len(arrived | stored.keys()), range(account["given_up"] + 1), ledger)
        self.account = account

    def test_whatever_was_answered_is_stored_or_delivered_after_each_kill(self):
        for number in range(KILLS):
            self.misbehave()
            self.live_and_be_killed(number)
        self.service.call("DELETE", "/inspect/behaviour")
        device = stage.Device(BUILD, self.arguments)
        self.addCleanup(lambda: device.child.poll() is None and device.kill())
        self.check_nothing_was_lost(device)
        for verb in ("active", "settle", "push", "settle", "background", "settle"):
            self.assertTrue(device.do(verb)["ok"], verb)
        stored = self.check_nothing_was_lost(device)
        self.assertEqual([event["activityName"] for event in stored.values()], ["end"], "everything else was delivered")
        self.assertEqual(device.end_input(), (0, []))
        self.assertGreater(len(self.answered), KILLS, "the runs recorded enough events")
        print(f"{KILLS} kills: {len(self.answered)} events answered, {len(self.attempted)} attempted, "
              f"{len(self.delivered)} delivered; the ledger's last word: {self.account}", flush=True)


if __name__ == "__main__":
    unittest.main()
