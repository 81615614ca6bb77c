"""The whole tree is formatted by its own .clang-format."""

import os
import subprocess
import tempfile
import unittest

import tree

# Other versions format some things differently, so the one of Debian 12 is the measure.
FORMATTER = "clang-format-14"


def unformatted(paths):
    """What the formatter would change, as its own messages; empty when nothing."""
    checked = subprocess.run(
        [FORMATTER, "--dry-run", "--Werror", f"--style=file:{tree.ROOT}/.clang-format", *paths],
        cwd=tree.ROOT,
        capture_output=True,
        text=True,
        check=False,
    )
    return checked.stderr if checked.returncode != 0 else ""


class TheFormat(unittest.TestCase):
    maxDiff = 4000

    def test_every_file_is_formatted(self):
        paths = tree.cpp_files(tree.ROOT, tree.CODE)
        self.assertTrue(paths)
        self.assertEqual(unformatted(paths), "")

    def test_a_file_that_is_not_formatted_would_be_seen(self):
        with tempfile.TemporaryDirectory() as folder:
            path = os.path.join(folder, "a.cpp")
            with open(path, "w", encoding="utf-8") as file:
                file.write("int  f( ){return 1 ;}\n")
            self.assertIn("a.cpp:1", unformatted([path]))


if __name__ == "__main__":
    unittest.main()
