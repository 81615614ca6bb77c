"""The device really crashes, and its next process reports what concerns the kit."""
# Labels: plain_only

import os
import signal
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.join(os.environ["MORVIK_SOURCE_DIR"], "tools"))

import stage  # noqa: E402

BUILD = os.environ["MORVIK_BUILD_DIR"]
SIGNALS = ("SIGSEGV", "SIGABRT", "SIGBUS", "SIGFPE", "SIGILL")
QUEUE = "MorvikCoreUserInfo_Crash"


class Crash(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.store = os.path.join(folder.name, "device")
        keys = stage.write_keys(folder.name)
        self.service = stage.Service(BUILD, folder.name, keys)
        self.addCleanup(self.service.stop)
        self.arguments = ["--store", self.store, "--service", self.service.url, "--ca", self.service.ca_file,
                          "--keys", keys, "--log-level", "0"]

    def start(self, *more):
        device = stage.Device(BUILD, self.arguments + list(more))
        self.addCleanup(lambda: device.child.poll() is None and device.kill())
        return device

    def die(self, device, line):
        device.say(line)
        status, answers = device.rest()
        self.assertEqual(answers, [], "the verb has no answer")
        return -status

    def reports(self):
        """The crash reports that arrived."""
        return [report for request in self.service.requests() if request["endpoint"] == "crash"
                for report in request["payload"]]

    def reported(self):
        """Starts the device again until it has sent everything; returns the reports that arrived."""
        before = len(self.reports())
        device = self.start()
        stored = device.store(QUEUE).get(QUEUE, [])
        for line in ("active", "settle"):
            self.assertTrue(device.do(line)["ok"])
        self.assertEqual(device.store(QUEUE).get(QUEUE, []), [], "delivered reports are removed")
        ledger = device.do("ledger")
        self.assertEqual(device.end_input()[0], 0)
        reports = self.reports()
        self.assertEqual(len(reports), before + len(stored), "each arrives once")
        self.assertTrue(ledger["sound"], ledger)
        self.assertEqual(next(each for each in ledger["accounts"] if each["kind"] == "crash reports"),
                         {"kind": "crash reports", "recorded": len(reports), "delivered": len(reports), "stored": 0,
                          "under_way": 0, "given_up": 0, "found_uncounted": 0})
        return reports

    def test_an_uncaught_exception_is_in_the_store_when_the_process_is_gone(self):
        device = self.start("--module", "FendoUpdateLog=3.2")
        device.do("active")
        self.assertEqual(self.die(device, 'crash "Kesmo fell over"'), signal.SIGABRT)
        [report] = self.reported()
        self.assertEqual(report["exception_reason"], "std::runtime_error: Kesmo fell over")
        self.assertIn("morvik_device::crash(", report["exception_log_trace"])
        self.assertTrue(report["exception_log_trace"].endswith("<br>"))
        self.assertEqual(report["fendo_sdk_version"], "3.2")
        self.assertEqual(report["quint_sdk_version"], "not installed")
        self.assertTrue(report["device_information"]["app_in_focus"])

    def test_a_crash_that_names_no_part_of_the_kit_is_dropped(self):
        self.assertEqual(self.die(self.start(), 'crash "the shop fell over"'), signal.SIGABRT)
        self.assertEqual(self.reported(), [])

    def test_each_fatal_signal_becomes_one_report_with_the_focus_of_the_crash(self):
        for number, name in enumerate(SIGNALS):
            with self.subTest(signal=name):
                device = self.start()
                device.do("active")
                if number % 2:
                    device.do("background")
                self.assertEqual(self.die(device, f"crash-signal {name}"), getattr(signal, name))
                reports = self.reported()
                self.assertEqual(len(reports), number + 1)
                self.assertEqual(reports[-1]["exception_reason"], f"mrvk {name}")
                self.assertIn("morvik::host::", reports[-1]["exception_log_trace"])
                self.assertEqual(reports[-1]["device_information"]["app_in_focus"], number % 2 == 0)

    def test_a_signals_report_describes_the_process_that_crashed(self):
        device = self.start("--module", "FendoUpdateLog=3.2")
        device.do("active")
        self.die(device, "crash-signal SIGSEGV")
        [report] = self.reported()  # by a process without the module
        self.assertEqual(report["fendo_sdk_version"], "3.2")

    def test_nothing_is_reported_after_an_orderly_end_or_a_kill(self):
        self.assertEqual(self.start().end_input()[0], 0)
        self.start().kill()
        self.assertEqual(self.reported(), [])


if __name__ == "__main__":
    unittest.main()
