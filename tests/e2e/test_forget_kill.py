"""The device is killed around a wish to be forgotten, and around its withdrawal: whatever the service received, the
next process knows of it."""
# Labels: plain_only
# Timeout: 180

import collections
import os
import queue
import random
import shutil
import sys
import tempfile
import time
import unittest
import uuid

sys.path.insert(0, os.path.join(os.environ["MORVIK_SOURCE_DIR"], "tools"))

import stage  # noqa: E402

BUILD = os.environ["MORVIK_BUILD_DIR"]
FLAGS = ("MorvikCoreUserInfo_isGDPRForgetMe", "MorvikCoreUserInfo_isGDPRForgetMeServerSynced")
# (wish, synced) at first, with a request under way, and once the service has accepted one, whichever it was.
NEVER_ASKED = (False, False)
ACCEPTED = (True, True)
# Killed between the two writes of the wish, of which the one that says forgotten counts: the store has the withdrawal
# and the file not yet, or the file has that the withdrawal was accepted, which marks the user again, and the store not
# yet.
CUT_OFF_IN_BETWEEN = (True, False)
# Runs of each kind that end at a random moment, up to this long after the verb was written.
RANDOM_KILLS = 100
MOST_DELAY_SECONDS = 0.02
# A late answer also accepts; the long one comes after the kill.
SHORT_DELAY = {"kind": "delay", "milliseconds": 5}
LONG_DELAY = {"kind": "delay", "milliseconds": 60_000}
MISBEHAVIOUR = (None, None, SHORT_DELAY, LONG_DELAY, {"kind": "status", "status": 500}, {"kind": "close_before"},
                {"kind": "close_after"}, {"kind": "garbage"})


class Life:
    """One device that makes one wish and is killed; its advertising identifier identifies its requests."""

    def __init__(self, name, wish, store, idfa):
        self.name = name
        self.wish = wish
        self.store = store
        self.idfa = idfa
        self.state = None

    def __str__(self):
        return f"{self.name}, forget-me {self.verb_argument()}, is {self.state} afterwards"

    def verb_argument(self):
        return "true" if self.wish else "false"


class ForgetKill(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        seed = int(os.environ.get("MORVIK_SEED", random.SystemRandom().randrange(1_000_000)))
        print(f"MORVIK_SEED={seed} makes the same choices again", flush=True)
        self.random = random.Random(seed)
        self.keys = stage.write_keys(self.folder)
        self.received = queue.Queue()
        self.service = stage.Service(BUILD, self.folder, self.keys, on_line=self.received.put)
        self.addCleanup(self.service.stop)
        self.lives = []
        self.forgotten_store = os.path.join(self.folder, "forgotten")
        self.forget_for_good(self.forgotten_store)

    # --- devices

    def device(self, store, idfa):
        device = stage.Device(BUILD, ["--store", store, "--service", self.service.url, "--ca", self.service.ca_file,
                                      "--keys", self.keys, "--idfa", idfa, "--log-level", "0"])
        self.addCleanup(lambda: device.child.poll() is None and device.kill())
        return device

    def identifier(self):
        return str(uuid.UUID(int=self.random.getrandbits(128), version=4))

    def forget_for_good(self, store):
        device = self.device(store, self.identifier())
        for line in ("forget-me true", "settle"):
            self.assertTrue(device.do(line)["ok"], line)
        self.assertEqual(self.flags(device), ACCEPTED)
        self.assertEqual(device.end_input()[0], 0)

    @staticmethod
    def flags(device):
        stored = device.store(*FLAGS)
        return tuple(stored.get(flag, False) for flag in FLAGS)

    # --- one run

    def begin(self, name, wish, behaviour=None):
        """A device that has started: never asked for the wish, forgotten for the withdrawal."""
        store = os.path.join(self.folder, f"device-{len(self.lives)}")
        if not wish:
            shutil.copytree(self.forgotten_store, store)
        life = Life(name, wish, store, self.identifier())
        self.lives.append(life)
        self.service.call("DELETE", "/inspect/behaviour")
        if behaviour:
            self.service.call("POST", "/inspect/behaviour", {"endpoint": "erasure", "count": 1, **behaviour})
        device = self.device(store, life.idfa)
        self.assertEqual(device.do("is-forgotten")["value"], not wish)
        return life, device

    def end(self, life, device):
        """Kills it, and takes down what the next process knows."""
        status, _ = device.kill()
        self.assertEqual(status, -9, f"{life.name}: {device.log}")
        device = self.device(life.store, life.idfa)
        life.state = self.flags(device)
        self.assertEqual(device.do("is-forgotten")["value"], life.state[0], f"the gate follows what is stored: {life}")
        ledger = device.do("ledger")
        self.assertTrue(ledger["sound"], ledger)
        self.assertEqual(device.end_input(), (0, []))
        self.check(life)

    def requests_of(self, life):
        return [request for request in self.service.requests() if request["endpoint"] == "erasure" and
                request["payload"]["subject_identities"][0]["identity_value"].lower() == life.idfa]

    def check(self, life):
        before = NEVER_ASKED if life.wish else ACCEPTED
        self.assertIn(life.state, (before, (life.wish, False), ACCEPTED, CUT_OFF_IN_BETWEEN), str(life))
        requests = self.requests_of(life)
        self.assertLessEqual(len(requests), 1, f"the kit does not repeat a request: {life}")
        answered_well = [request for request in requests if self.accepts(request["behaviour"])]
        if requests and life.state != (life.wish, False):
            self.assertIn(life.state, (ACCEPTED, CUT_OFF_IN_BETWEEN),
                          f"the service has a wish that the device forgot: {life}")
            self.assertTrue(answered_well, f"the device counts a failure as an answer: {life}")
        return requests

    @staticmethod
    def accepts(behaviour):
        return behaviour is None or behaviour.get("milliseconds") == SHORT_DELAY["milliseconds"]

    # --- where it is killed

    def both_wishes(self):
        for wish in (True, False):
            with self.subTest(wish=wish):
                yield wish

    def test_before_the_verb_is_answered(self):
        for wish in self.both_wishes():
            life, device = self.begin("killed at once", wish)
            device.say(f"forget-me {life.verb_argument()}")
            self.end(life, device)

    def test_right_after_the_verb_is_answered(self):
        for wish in self.both_wishes():
            life, device = self.begin("killed after the verb", wish, LONG_DELAY)
            self.assertTrue(device.do(f"forget-me {life.verb_argument()}")["ok"])
            self.end(life, device)
            self.assertEqual(life.state, (wish, False), str(life))

    def wait_until_received(self):
        while "POST /v1/erasure" not in self.received.get(timeout=stage.PATIENCE_SECONDS):
            pass

    def test_when_the_service_has_it_and_has_not_answered(self):
        for wish in self.both_wishes():
            life, device = self.begin("killed before the answer", wish, LONG_DELAY)
            while not self.received.empty():
                self.received.get()
            device.say(f"forget-me {life.verb_argument()}")
            self.wait_until_received()
            self.end(life, device)
            self.assertEqual(life.state, (wish, False), str(life))
            self.assertEqual(len(self.check(life)), 1)
            self.check_that_it_can_be_asked_again(life)

    def check_that_it_can_be_asked_again(self, life):
        device = self.device(life.store, self.identifier())
        for line in (f"forget-me {life.verb_argument()}", "settle"):
            self.assertTrue(device.do(line)["ok"], line)
        self.assertEqual(self.flags(device), ACCEPTED)
        self.assertEqual(device.end_input(), (0, []))

    def test_after_the_answer(self):
        for wish in self.both_wishes():
            life, device = self.begin("killed after the answer", wish)
            for line in (f"forget-me {life.verb_argument()}", "settle"):
                self.assertTrue(device.do(line)["ok"], line)
            self.end(life, device)
            self.assertEqual(life.state, ACCEPTED, str(life))
            self.check_that_nothing_else_leaves(life)

    def check_that_nothing_else_leaves(self, life):
        known = len(self.service.requests())
        device = self.device(life.store, life.idfa)
        for line in ("active", "push", "settle", "background", "settle"):
            self.assertTrue(device.do(line)["ok"], line)
        self.assertEqual(device.end_input(), (0, []))
        self.assertEqual(len(self.service.requests()), known, str(life))

    def test_at_any_moment(self):
        for number in range(2 * RANDOM_KILLS):
            life, device = self.begin(f"life {number}", number % 2 == 0, self.random.choice(MISBEHAVIOUR))
            device.say(f"forget-me {life.verb_argument()}", "settle")
            self.read_for(device, self.random.uniform(0, MOST_DELAY_SECONDS))
            self.end(life, device)
        # A request under way when a device died may have been accepted after its check.
        for life in self.lives:
            self.check(life)
        print(dict(collections.Counter(f"{life.verb_argument()}: {life.state}, {len(self.requests_of(life))} received"
                                       for life in self.lives)), flush=True)

    @staticmethod
    def read_for(device, seconds):
        deadline = time.monotonic() + seconds
        try:
            while (left := deadline - time.monotonic()) > 0:
                device.answer(left)
        except queue.Empty:
            pass


if __name__ == "__main__":
    unittest.main()
