""".ci/run in a copy of the tree whose tests and builds are ours: every step runs, and what failed is repeated."""

import os
import shutil
import subprocess
import tempfile
import unittest

import tree

# Fails where its arguments hold what is to fail; prints as ctest does.
TEST = """#!/bin/bash
printf 'test %s\\n' "$*"
[[ -n $FAILS && " $* " == *" $FAILS "* ]] || exit 0
cat <<'OUTPUT'
      Start 1: A.Passes
1/3 Test #1: A.Passes ........   Passed    0.01 sec
      Start 2: B.Fails
2/3 Test #2: B.Fails .........***Failed    0.02 sec
b_test.cpp:7: Failure
      Start 3: C.Passes
3/3 Test #3: C.Passes ........   Passed    0.01 sec
the end
OUTPUT
exit 1
"""
BUILD = """#!/bin/bash
printf 'build %s\\n' "$*"
[[ $FAILS == build ]] || exit 0
printf '%s\\n' '[1/2] a.cpp.o' 'FAILED: b.cpp.o' 'b.cpp:3:1: error: no' '[2/2] c.cpp.o'
exit 1
"""


class ContinuousIntegration(unittest.TestCase):
    def setUp(self):
        made = tempfile.TemporaryDirectory()
        self.addCleanup(made.cleanup)
        self.root = made.name
        for path in (".ci", "tools"):
            os.mkdir(os.path.join(self.root, path))
        shutil.copy(os.path.join(tree.ROOT, ".ci", "run"), os.path.join(self.root, ".ci", "run"))
        for path, text in (("test", TEST), ("tools/build", BUILD)):
            with open(os.path.join(self.root, path), "w", encoding="utf-8") as file:
                file.write(text)
            os.chmod(os.path.join(self.root, path), 0o755)

    def call(self, fails):
        done = subprocess.run(
            [os.path.join(self.root, ".ci", "run")],
            env={**os.environ, "FAILS": fails},
            stdin=subprocess.DEVNULL,
            capture_output=True,
            text=True,
            timeout=60,
            check=False,
        )
        self.assertEqual(done.stderr, "")
        return done.returncode, done.stdout

    def test_passes_where_every_step_does(self):
        status, printed = self.call("")
        self.assertEqual(status, 0)
        for step in ("test \n", "build release", "test --asan", "test --tsan", "== all passed after"):
            self.assertIn(step, printed)

    def test_goes_on_after_a_step_that_failed_and_repeats_what_its_failed_test_printed(self):
        status, printed = self.call("--asan")
        self.assertEqual(status, 1)
        self.assertIn("== threads: passed after", printed)
        end = printed[printed.index("== what failed: address and undefined behaviour") :]
        self.assertIn("Test #2: B.Fails", end)
        self.assertIn("b_test.cpp:7: Failure", end)
        self.assertNotIn("Test #1: A.Passes", end)
        self.assertTrue(end.endswith("\n== failed: address and undefined behaviour\n"), end)

    def test_repeats_the_error_of_a_build(self):
        status, printed = self.call("build")
        self.assertEqual(status, 1)
        end = printed[printed.index("== what failed: what ./run builds") :]
        self.assertIn("FAILED: b.cpp.o\nb.cpp:3:1: error: no\n", end)
        self.assertTrue(end.endswith("\n== failed: what ./run builds\n"), end)


if __name__ == "__main__":
    unittest.main()
