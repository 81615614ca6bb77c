"""tools/figures and ./test print what the proofs counted; ./test runs in a copy of the tree, with a ctest of ours."""

import os
import shutil
import subprocess
import tempfile
import unittest

import tree

CRASH_POINTS = "CrashPoints.NothingIsLostAtAnyOfThem"
SOAK = "Soak.OfAFixedSetOfSeedsGivesNobodyReasonToComplain"
HEADING = "\nWhat the proofs counted (docs/testing.md):\n"

# Logs what it was given, and says that it ran.
CTEST = """#!/bin/bash
printf 'ctest %s\\n' "$*"
[[ -z $LOGGED ]] || printf '%s' "$LOGGED" > build/dev/Testing/Temporary/LastTest.log
exit "$CTEST_STATUS"
"""
NOTHING = "#!/bin/bash\n"


def logged(test, printed, outcome="[       OK ]"):
    """As ctest logs a test of GoogleTest."""
    return (
        f'1/9 Testing: {test}\n1/9 Test: {test}\nCommand: "/build/tests/test_of_it" "--gtest_filter={test}"\n'
        f'"{test}" start time: Nov 21 13:04 UTC\nOutput:\n----------\nNote: Google Test filter = {test}\n'
        f"[ RUN      ] {test}\n{printed}{outcome} {test} (247496 ms)\n"
        "  said after the test 1\n<end of output>\nTest time = 247.53 sec\n  said between tests 2\n----------\n"
    )


class Figures(unittest.TestCase):
    def setUp(self):
        made = tempfile.TemporaryDirectory()
        self.addCleanup(made.cleanup)
        self.root = made.name
        for path in ("tools", "bin", "build/dev/Testing/Temporary"):
            os.makedirs(os.path.join(self.root, path))
        for path in ("test", "tools/common.sh", "tools/figures"):
            shutil.copy(os.path.join(tree.ROOT, path), os.path.join(self.root, path))
        for path in ("tools/setup", "tools/browser_driver", "tools/build"):
            self.program(path, NOTHING)
        self.program("bin/ctest", CTEST)

    def program(self, path, text):
        path = os.path.join(self.root, path)
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)
        os.chmod(path, 0o755)

    def path_of_log(self):
        return os.path.join(self.root, "build/dev/Testing/Temporary/LastTest.log")

    def call(self, command, *arguments, log="", status=0):
        return subprocess.run(
            [os.path.join(self.root, command), *arguments],
            env={"PATH": f"{self.root}/bin:/usr/bin:/bin", "LOGGED": log, "CTEST_STATUS": str(status)},
            stdin=subprocess.DEVNULL,
            capture_output=True,
            text=True,
            timeout=60,
            check=False,
        )

    def test_of_both_proofs_are_printed_after_the_tests(self):
        log = (
            logged("Value.IsAbsent", "  counted 7\n")
            + logged(CRASH_POINTS, "  points tried in all        4042\n  lost at a kill   0\n")
            + logged(SOAK, "  device-days lived      9710\n  disk: disk full      63582\n")
        )
        done = self.call("test", log=log)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.assertEqual(
            done.stdout,
            f"ctest --preset dev\n{HEADING}"
            f"\n{CRASH_POINTS}\n  points tried in all        4042\n  lost at a kill   0\n"
            f"\n{SOAK}\n  device-days lived      9710\n  disk: disk full      63582\n",
        )

    def test_of_a_proof_that_did_not_run_are_not_printed(self):
        done = self.call("test", log=logged(SOAK, "  device-days lived      9710\n"))
        self.assertEqual(done.stdout, f"ctest --preset dev\n{HEADING}\n{SOAK}\n  device-days lived      9710\n")
        done = self.call("test", "-R", "Value", log=logged("Value.IsAbsent", "  counted 7\n"))
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "ctest --preset dev -R Value\n", ""))

    def test_of_an_earlier_run_are_not_printed(self):
        self.call("test", log=logged(SOAK, "  device-days lived      9710\n"))
        done = self.call("test", "-R", "Value")
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "ctest --preset dev -R Value\n", ""))

    def test_are_left_alone_where_tests_are_only_listed(self):
        self.call("test", log=logged(SOAK, "  device-days lived      9710\n"))
        done = self.call("test", "-N")
        self.assertEqual((done.returncode, done.stdout), (0, "ctest --preset dev -N\n"))
        self.assertTrue(os.path.exists(self.path_of_log()))

    def test_of_a_run_that_failed_are_printed_and_it_still_fails(self):
        printed = "  runs with a complaint      1\n  ! seed 7: lost\nsoak_test.cpp:19: Failure\n  Actual: { 0, 182 }\n"
        done = self.call("test", log=logged(SOAK, printed, "[  FAILED  ]"), status=8)
        self.assertEqual(done.returncode, 1)
        self.assertEqual(
            done.stdout,
            f"ctest --preset dev\n{HEADING}\n{SOAK}\n  runs with a complaint      1\n  ! seed 7: lost\n",
        )

    def test_the_tool_says_what_is_wrong(self):
        log = self.path_of_log()
        for arguments, status, message in (
            (
                ["--all"],
                2,
                "tools/figures: '--all' is not an option of this command; tools/figures --help lists them.\n",
            ),
            (["a", "b"], 2, "tools/figures: one log at a time; 'b' is one too many.\n"),
            ([], 1, f"tools/figures: {log} cannot be read; run the tests first, or name the log of another run.\n"),
        ):
            with self.subTest(arguments=arguments):
                done = self.call("tools/figures", *arguments)
                self.assertEqual((done.returncode, done.stdout, done.stderr), (status, "", message))

    def test_the_proofs_are_tests_of_the_tree(self):
        with open(os.path.join(tree.ROOT, "tools/figures"), encoding="utf-8") as file:
            tool = file.read()
        for name, source in (
            (CRASH_POINTS, "tests/crashpoints/crash_points_test.cpp"),
            (SOAK, "tests/soak/soak_test.cpp"),
        ):
            suite, test = name.split(".")
            with open(os.path.join(tree.ROOT, source), encoding="utf-8") as file:
                self.assertIn(f"TEST({suite}, {test}) {{", file.read())
            self.assertIn(f'is_proof["{name}"]', tool)


if __name__ == "__main__":
    unittest.main()
