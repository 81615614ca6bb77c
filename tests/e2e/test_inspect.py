"""The pending content of a store is shown, whoever holds it, without touching its files."""

import hashlib
import json
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.join(os.environ["MORVIK_SOURCE_DIR"], "tools"))

import stage  # noqa: E402

BUILD = os.environ["MORVIK_BUILD_DIR"]


def state_of(folder):
    """Names, contents and times of all files in the folder, and the time of the folder itself."""
    states = {".": os.stat(folder).st_mtime_ns}
    for entry in os.scandir(folder):
        with open(entry.path, "rb") as file:
            states[entry.name] = (hashlib.sha256(file.read()).hexdigest(), entry.stat().st_mtime_ns, entry.inode())
    return states


class Inspect(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.store = os.path.join(self.folder, "device")
        keys = stage.write_keys(self.folder)
        # Nobody listens there, so that everything stays pending.
        self.arguments = ["--store", self.store, "--service", "http://127.0.0.1:1/", "--keys", keys, "--log-level", "0"]

    def device(self):
        device = stage.Device(BUILD, self.arguments)
        self.addCleanup(lambda: device.child.poll() is None and device.kill())
        return device

    def inspect(self, *arguments):
        """A complete run: status, standard output, standard error."""
        done = subprocess.run([stage.program(BUILD, "morvik-device"), "inspect", *arguments], capture_output=True,
                              text=True, timeout=stage.PATIENCE_SECONDS, check=False)
        return done.returncode, done.stdout, done.stderr

    def inspected(self, store=None, *arguments):
        """What is in the store, as JSON."""
        status, output, errors = self.inspect(store or self.store, "--json", *arguments)
        self.assertEqual((status, errors), (0, ""))
        return json.loads(output)

    def names_of_waiting_events(self, store=None):
        waiting = self.inspected(store, "--all")["activities"]["fendoActivityInfos"]
        self.assertEqual(waiting["count"], len(waiting["newest"]))
        return [event["activityName"] for event in waiting["newest"] if event["activityGroupName"] == "shop"]

    def live(self, device):
        for line in ("active", "event shop first", "age 30", "user-id somebody", "event shop second", "settle"):
            self.assertTrue(device.do(line)["ok"], line)

    def test_a_store_whose_app_was_killed_is_shown_and_stays_byte_for_byte(self):
        device = self.device()
        self.live(device)
        device.kill()
        before = state_of(self.store)
        self.assertGreater(os.path.getsize(os.path.join(self.store, "morvik.store-wal")), 0)
        self.assertEqual(self.names_of_waiting_events(), ["first", "second"])
        status, text, errors = self.inspect(self.store)
        self.assertEqual((status, errors), (0, ""))
        for line in ("  age to be sent      30\n", "  user id to be sent  somebody\n"):
            self.assertIn(line, text)
        self.assertNotIn("\x1b", text)
        self.assertEqual(state_of(self.store), before)
        self.assertEqual(len(self.device().stored_events()), 4, "the next process finds everything")

    def test_a_store_that_a_process_holds_is_shown_and_stays_byte_for_byte(self):
        device = self.device()
        self.live(device)
        # Stopped in the middle of its work, so that any change is not its own.
        os.kill(device.child.pid, signal.SIGSTOP)
        try:
            self.assertTrue(os.WIFSTOPPED(os.waitpid(device.child.pid, os.WUNTRACED)[1]))
            before = state_of(self.store)
            self.assertEqual(self.names_of_waiting_events(), ["first", "second"])
            self.assertEqual(state_of(self.store), before)
        finally:
            os.kill(device.child.pid, signal.SIGCONT)
        self.assertTrue(device.do("event shop third")["ok"])
        self.assertEqual(self.names_of_waiting_events(), ["first", "second", "third"])

    def test_while_a_process_writes_each_look_finds_what_was_answered_for_and_no_gap(self):
        device = self.device()
        self.live(device)
        names = [f"event-{number}" for number in range(3000)]
        device.say(*(f"event shop {name}" for name in names), "background")
        answered = 0
        looks = 0
        while answered < len(names):
            for _ in range(150):
                self.assertTrue(device.answer()["ok"])
                answered += 1
            found = self.names_of_waiting_events()[2:]
            self.assertEqual(found, names[:len(found)])
            self.assertGreaterEqual(len(found), answered)
            looks += 1
        self.assertEqual(looks, 20)

    def test_a_copy_without_log_and_lock_gets_neither(self):
        device = self.device()
        self.live(device)
        device.do("quit")
        device.rest()
        copy = os.path.join(self.folder, "copy")
        os.mkdir(copy)
        shutil.copy(os.path.join(self.store, "morvik.store"), copy)
        before = state_of(copy)
        self.assertEqual(self.names_of_waiting_events(copy), ["first", "second"])
        self.assertEqual(state_of(copy), before)

    def test_no_key_is_in_any_file_or_in_what_is_shown(self):
        device = self.device()
        self.live(device)
        device.kill()
        shown = "".join(self.inspect(self.store, *more)[1] for more in ((), ("--all",), ("--json",)))
        files = [os.path.join(place, name) for place, _, names in os.walk(self.store) for name in names]
        self.assertGreaterEqual(len(files), 3)
        for key in (stage.HASH_KEY, stage.TRACKING_KEY):
            self.assertNotIn(key, shown)
            for path in files:
                with open(path, "rb") as file:
                    self.assertNotIn(key.encode(), file.read(), path)
        self.assertIn("somebody", shown, "the search finds what is there")

    def test_what_cannot_be_read_is_said_in_one_line(self):
        empty = os.path.join(self.folder, "empty")
        os.mkdir(empty)
        for folder, says in ((os.path.join(self.folder, "missing"), "there is no folder"),
                             (empty, "there is no store in")):
            with self.subTest(folder=folder):
                status, output, errors = self.inspect(folder)
                self.assertEqual((status, output), (2, ""))
                self.assertEqual(errors.count("\n"), 1)
                self.assertIn(f"morvik-device: {says}", errors)
        self.assertEqual(os.listdir(empty), [])


if __name__ == "__main__":
    unittest.main()
