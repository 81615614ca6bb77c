"""morvik-device on a terminal: a prompt, help, and a typo that does not end it; unchanged from a pipe."""

import os
import pty
import select
import subprocess
import sys
import tempfile
import termios
import unittest

sys.path.insert(0, os.path.join(os.environ["MORVIK_SOURCE_DIR"], "tools"))

import stage  # noqa: E402

PROMPT = "morvik> "


class OnATerminal(unittest.TestCase):
    def setUp(self):
        made = tempfile.TemporaryDirectory()
        self.addCleanup(made.cleanup)
        self.command = [stage.program(os.environ["MORVIK_BUILD_DIR"], "morvik-device"),
                        "--store", os.path.join(made.name, "store"), "--service", "https://127.0.0.1:1/",
                        "--app-key", "app", "--hash-key", "hash", "--tracking-key", "", "--search-ads", "absent"]
        self.terminal, self.side_of_child = pty.openpty()
        self.addCleanup(os.close, self.terminal)
        # Input is not echoed, so that only the program's output is read.
        attributes = termios.tcgetattr(self.side_of_child)
        attributes[3] &= ~termios.ECHO
        termios.tcsetattr(self.side_of_child, termios.TCSANOW, attributes)
        self.read = ""

    def start(self, **streams):
        child = subprocess.Popen(self.command, **streams)
        self.addCleanup(child.wait)
        self.addCleanup(child.kill)
        os.close(self.side_of_child)
        return child

    def until(self, text):
        """The program's output up to and including the text."""
        while text not in self.read:
            self.assertTrue(select.select([self.terminal], [], [], stage.PATIENCE_SECONDS)[0], self.read)
            self.read += os.read(self.terminal, 65536).decode().replace("\r\n", "\n")
        before, _, self.read = self.read.partition(text)
        return before + text

    def answer(self, line):
        os.write(self.terminal, line.encode() + b"\n")
        return self.until(PROMPT)[:-len(PROMPT)]

    def test_a_typo_is_told_and_the_next_line_asked_for(self):
        child = self.start(stdin=self.side_of_child, stdout=self.side_of_child, stderr=self.side_of_child)
        self.assertEqual(self.until(PROMPT), PROMPT)
        self.assertTrue(self.answer("evnt shop look").startswith('morvik-device: "evnt" is not a verb; use one of: '))
        self.assertEqual(self.answer("event shop"),
                         "morvik-device: event: an argument is missing; write: event GROUP NAME [PARAM]\n")
        self.assertEqual(self.answer("event shop look"), '{"verb":"event","ok":true}\n')
        self.assertEqual(self.answer("help event"),
                         "  event GROUP NAME [PARAM]  records an activity; a PARAM that begins with "
                         "'{' takes the rest of the line\n")
        self.assertIn("\n  settle [SECONDS] ", self.answer("help"))
        os.write(self.terminal, b"\x04")
        self.assertEqual(child.wait(stage.PATIENCE_SECONDS), 0)

    def test_quit_ends_it(self):
        child = self.start(stdin=self.side_of_child, stdout=self.side_of_child, stderr=self.side_of_child)
        self.until(PROMPT)
        os.write(self.terminal, b"quit\n")
        self.assertEqual(self.until("\n"), '{"verb":"quit","ok":true}\n')
        self.assertEqual(child.wait(stage.PATIENCE_SECONDS), 0)

    def test_from_a_pipe_there_is_no_prompt_and_a_typo_ends_it(self):
        child = self.start(stdin=subprocess.PIPE, stdout=self.side_of_child, stderr=self.side_of_child)
        child.stdin.write(b"event shop look\nevnt shop look\nevent shop look\n")
        child.stdin.close()
        self.assertEqual(self.until("\n"), '{"verb":"event","ok":true}\n')
        self.assertTrue(self.until("\n").startswith(
            'morvik-device: standard input, line 2: "evnt" is not a verb; use one of: '))
        self.assertEqual(child.wait(stage.PATIENCE_SECONDS), 2)


if __name__ == "__main__":
    unittest.main()
