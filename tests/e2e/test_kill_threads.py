"""Eight threads of an app record, the process is killed, and the record of every returned call is found."""
# Labels: plain_only
# Timeout: 300

import json
import os
import random
import struct
import subprocess
import tempfile
import time
import unittest

BUILD = os.environ["MORVIK_BUILD_DIR"]
THREADS = 8
KILLS_IN_EACH_MODE = 100
# The kill comes up to this long after the first call has returned.
MOST_DELAY_SECONDS = 0.02
START_SECONDS = 30


class KillThreads(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        seed = int(os.environ.get("MORVIK_SEED", random.SystemRandom().randrange(1_000_000)))
        print(f"MORVIK_SEED={seed} kills after the same delays again", flush=True)
        self.random = random.Random(seed)
        self.calls = 0

    def counts(self, path):
        try:
            with open(path, "rb") as file:
                data = file.read()
        except FileNotFoundError:
            return [0] * THREADS
        return list(struct.unpack(f"{THREADS}Q", data)) if len(data) == 8 * THREADS else [0] * THREADS

    def await_the_first_call(self, process, path):
        end = time.monotonic() + START_SECONDS
        while not any(self.counts(path)):
            self.assertIsNone(process.poll(), "it ended by itself")
            self.assertLess(time.monotonic(), end, "it records nothing")

    def live_and_die(self, mode, number):
        """The calls that had returned when the process died, and its store."""
        store = os.path.join(self.folder, f"{mode}-{number}")
        counts = store + ".counts"
        process = subprocess.Popen([os.path.join(BUILD, "bin", "recording_threads"), store, counts, mode])
        try:
            self.await_the_first_call(process, counts)
            end = time.monotonic() + self.random.uniform(0, MOST_DELAY_SECONDS)
            while time.monotonic() < end:
                pass
        finally:
            process.kill()
            process.wait()
        return self.counts(counts), store

    def stored(self, store):
        """The stored numbers, in order, by thread."""
        shown = subprocess.run([os.path.join(BUILD, "bin", "morvik-device"), "inspect", "--json", "--all", store],
                               check=True, capture_output=True, text=True)
        numbers = [[] for _ in range(THREADS)]
        for activity in json.loads(shown.stdout)["activities"]["fendoActivityInfos"]["newest"]:
            group = activity["activityGroupName"]
            if group.startswith("thread-"):
                numbers[int(group[len("thread-"):])].append(int(activity["activityName"]))
        return numbers

    def kill_again_and_again(self, mode):
        for number in range(KILLS_IN_EACH_MODE):
            returned, store = self.live_and_die(mode, number)
            self.calls += sum(returned)
            for thread, numbers in enumerate(self.stored(store)):
                # The record of the running call may be there or not.
                self.assertEqual(numbers, list(range(len(numbers))), f"kill {number}: thread {thread} is out of order")
                self.assertGreaterEqual(len(numbers), returned[thread], f"kill {number}: thread {thread} lost a call")
                self.assertLessEqual(len(numbers), returned[thread] + 1, f"kill {number}: thread {thread} has a double")
        print(f"{KILLS_IN_EACH_MODE} kills, {self.calls} calls had returned, 0 lost", flush=True)
        self.assertGreater(self.calls, KILLS_IN_EACH_MODE * THREADS)

    def test_of_a_kit_with_a_thread_of_its_own_loses_nothing_that_had_returned(self):
        self.kill_again_and_again("own")

    def test_of_a_kit_that_is_pumped_loses_nothing_that_had_returned(self):
        self.kill_again_and_again("pumped")


if __name__ == "__main__":
    unittest.main()
