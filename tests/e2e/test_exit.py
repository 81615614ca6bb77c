"""However a process ends, everything that a call confirmed is there, and nothing crashes or hangs.

MORVIK_EXIT_RUNS sets how many processes end; MORVIK_SEED plays the same ones again.
"""
# Timeout: 600

import json
import os
import random
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.insert(0, os.path.join(os.environ["MORVIK_SOURCE_DIR"], "tools"))

import stage  # noqa: E402

BUILD = os.environ["MORVIK_BUILD_DIR"]
RUNS = int(os.environ.get("MORVIK_EXIT_RUNS", 102))
RUNS_MEANWHILE = RUNS // 3
LIVES_OF_AN_INSTALL = 5
STATUS = 7
# Only a hanging process takes longer, even with a sanitizer on a busy machine.
PATIENCE_SECONDS = 60
# Most processes end during a TLS handshake or a request.
MOST_DELAY_MICROSECONDS = 25_000

HOLDERS = ("local", "global", "static")
PLACES = ("main", "thread", "callback", "background")
WAYS = [("return", "main")] + [(way, place) for way in ("exit", "quick_exit", "abort", "_exit") for place in PLACES]
STATUS_OF = {"abort": -6}
# For instances that nothing destroys: a thread within a call then only meets the end itself.
WAYS_MEANWHILE = [(way, place) for way in ("exit", "quick_exit") for place in ("main", "thread", "callback")]
MEANWHILE = (["wait-meanwhile"], ["stop-meanwhile"], ["wait-meanwhile", "stop-meanwhile"])


class Exit(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        seed = int(os.environ.get("MORVIK_SEED", random.SystemRandom().randrange(1_000_000)))
        print(f"MORVIK_SEED={seed} plays these processes again", flush=True)
        self.random = random.Random(seed)
        self.keys = stage.write_keys(folder.name)
        self.service = stage.Service(BUILD, folder.name, self.keys)
        self.addCleanup(self.service.stop)
        self.seen_events = 0
        self.delivered = set()
        self.answered, self.longest = 0, 0.0

    def live_and_end(self, holder, way, place, number, meanwhile=()):
        delay = self.random.randrange(MOST_DELAY_MICROSECONDS)
        arguments = [stage.program(BUILD, "exit_paths"), self.store, self.keys, self.service.url, self.service.ca_file,
                     holder, way, place, str(delay), f"run{number}", *meanwhile]
        if self.random.random() < 0.5:
            arguments.append("openssl-first")
        begin = time.monotonic()
        ended = subprocess.run(arguments, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                               timeout=PATIENCE_SECONDS, check=False)
        self.longest = max(self.longest, time.monotonic() - begin)
        told = f"{' '.join(arguments[5:])}: {ended.stderr.decode()}"
        self.assertEqual(ended.returncode, STATUS_OF.get(way, STATUS), told)
        answered = set(ended.stdout.decode().split())
        self.assertGreater(len(answered), 0, told)
        self.answered += len(answered)
        self.assertEqual(answered - self.stored() - self.arrived(), set(), told)

    def stored(self):
        shown = subprocess.run([stage.program(BUILD, "morvik-device"), "inspect", self.store, "--json", "--all"],
                               stdout=subprocess.PIPE, timeout=PATIENCE_SECONDS, check=True)
        activities = json.loads(shown.stdout)["activities"].get("fendoActivityInfos", {"newest": []})
        return {activity["activityName"] for activity in activities["newest"]}

    def arrived(self):
        for event in self.service.events(self.seen_events):
            self.seen_events = event["number"]
            self.delivered.add(event["activity"])
        return self.delivered

    def test_what_a_call_answered_for_is_there_after_every_end(self):
        kinds = [(holder, way, place) for holder in HOLDERS for way, place in WAYS]
        for number in range(RUNS):
            # New installs now and then; the others have something to send.
            self.store = os.path.join(self.folder, f"app-{number // LIVES_OF_AN_INSTALL}")
            self.live_and_end(*kinds[number % len(kinds)], number)
        print(f"{RUNS} processes ended in {min(RUNS, len(kinds))} ways: {self.answered} events answered for, "
              f"all there; the longest life took {self.longest:.2f} s", flush=True)

    def test_a_thread_that_waits_or_stops_during_the_end_neither_hangs_nor_crashes(self):
        kinds = [(way, place, meanwhile) for meanwhile in MEANWHILE for way, place in WAYS_MEANWHILE]
        for number in range(RUNS_MEANWHILE):
            self.store = os.path.join(self.folder, f"app-{number // LIVES_OF_AN_INSTALL}")
            way, place, meanwhile = kinds[number % len(kinds)]
            self.live_and_end("local", way, place, number, meanwhile)
        print(f"{RUNS_MEANWHILE} processes ended while threads that wait or stop: {self.answered} events answered for, "
              f"all there; the longest life took {self.longest:.2f} s", flush=True)


if __name__ == "__main__":
    unittest.main()
