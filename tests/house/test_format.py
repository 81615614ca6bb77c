"""C++ is formatted by the tree's own .clang-format; what else is written by hand keeps to the same width."""

import os
import subprocess
import tempfile
import unittest

import tree

# Other versions format some things differently, so the one of Debian 12 is the measure.
FORMATTER = "clang-format-14"

# Scripts, build files and the inspector's page. Data is left out: recorded and generated files, tables of approved
# values and literal log texts (.inc, .json, .txt, .svg, the corpus) have the length that they have.
HAND_WRITTEN = (".cmake", ".css", ".html", ".js", ".mjs", ".py", ".sh", ".yaml", "CMakeLists.txt")
HAND_WRITTEN_FOLDERS = (".ci", "cmake", "tools", *tree.CODE)


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


def is_hand_written(folder, name):
    """Whether it is one of the files above; a command has no ending and begins with "#!"."""
    if "." in name:
        return name.endswith(HAND_WRITTEN)
    with open(os.path.join(folder, name), "rb") as file:
        return file.read(2) == b"#!"


def hand_written(root):
    """The paths, relative to root, of all files but C++ whose width is held here, sorted."""
    places = [(root, os.listdir(root))]
    for folder in HAND_WRITTEN_FOLDERS:
        # The browser tests' driver, where it is installed, is not ours.
        for place, folders, names in os.walk(os.path.join(root, folder)):
            folders[:] = [each for each in folders if each != "node_modules"]
            places.append((place, names))
    return sorted(
        os.path.relpath(os.path.join(place, name), root)
        for place, names in places
        for name in names
        if os.path.isfile(os.path.join(place, name)) and is_hand_written(place, name)
    )


def too_wide(root):
    """Where a line is too long, as path:line."""
    return [
        f"{path}:{number}"
        for path in hand_written(root)
        for number, line in enumerate(tree.read(root, path).splitlines(), 1)
        if len(line) > tree.MOST_COLUMNS
    ]


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

    def test_every_line_of_what_else_is_written_by_hand_fits_the_width(self):
        paths = hand_written(tree.ROOT)
        for path in (
            "CMakeLists.txt",
            "apps/service/page/index.html",
            "apps/service/page/main.js",
            "apps/service/page/style.css",
            "cmake/MorvikTests.cmake",
            "examples/scenarios/shaky_network.yaml",
            "run",
            "tests/browser/stage.mjs",
            "tests/house/test_format.py",
            "tools/common.sh",
            "tools/soak",
        ):
            self.assertIn(path, paths)
        self.assertEqual(too_wide(tree.ROOT), [])

    def test_a_line_that_is_too_long_would_be_seen(self):
        with tempfile.TemporaryDirectory() as folder:
            os.mkdir(os.path.join(folder, "tools"))
            os.makedirs(os.path.join(folder, "tests", "node_modules"))
            with open(os.path.join(folder, "tests", "node_modules", "a.js"), "w", encoding="utf-8") as file:
                file.write("/" * 121)
            for name, begin in (("a.js", "//"), ("b.txt", "//"), ("c.py", "#"), ("command", "#!"), ("data", "//")):
                with open(os.path.join(folder, "tools", name), "w", encoding="utf-8") as file:
                    file.write("\n".join(begin.ljust(columns, "é") for columns in (120, 121, 120)))
            self.assertEqual(too_wide(folder), ["tools/a.js:2", "tools/c.py:2", "tools/command:2"])


if __name__ == "__main__":
    unittest.main()
