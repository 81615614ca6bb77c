"""What the documents say about the build is what the build does."""

import json
import os
import re
import subprocess
import unittest

import tree


def documents():
    """The paths of all documents."""
    inside = [os.path.join("docs", name) for name in os.listdir(os.path.join(tree.ROOT, "docs"))]
    return sorted(name for name in inside + os.listdir(tree.ROOT) if name.endswith(".md"))


class TheDocuments(unittest.TestCase):
    def test_every_line_of_a_document_but_a_row_of_a_table_fits_the_width(self):
        self.assertIn("docs/building.md", documents())
        for document in documents():
            for number, line in enumerate(tree.read(tree.ROOT, document).splitlines(), 1):
                # A row of a table cannot be broken.
                if not line.startswith("|"):
                    self.assertLessEqual(len(line), tree.MOST_COLUMNS, f"{document}:{number}")

    def test_every_package_that_is_installed_is_explained(self):
        groups = ("test", "coverage", "bench", "fuzz", "tidy")
        listed = subprocess.run([os.path.join(tree.ROOT, "tools/setup"), "--list", *groups],
                                capture_output=True, text=True, check=True).stdout.split()
        explained = set(re.findall(r"`([^`]+)`", tree.read(tree.ROOT, "docs/third-party.md")))
        self.assertGreater(len(listed), 20)
        self.assertEqual([package for package in listed if package not in explained], [])

    def test_every_preset_is_explained(self):
        presets = json.loads(tree.read(tree.ROOT, "CMakePresets.json"))["configurePresets"]
        names = {preset["name"] for preset in presets if not preset.get("hidden")}
        self.assertEqual(set(re.findall(r"(?m)^\| `(\w+)` \|", tree.read(tree.ROOT, "docs/building.md"))), names)

    def test_every_file_that_a_document_links_to_is_there(self):
        for document in documents():
            prose = re.sub(r"(?s)```.*?```|`[^`\n]*`", "", tree.read(tree.ROOT, document))
            for target in re.findall(r"\]\((?!\w+:|#)([^)#\s]+)", prose):
                with self.subTest(document=document, target=target):
                    path = os.path.normpath(os.path.join(tree.ROOT, os.path.dirname(document), target))
                    self.assertTrue(os.path.exists(path))

    def test_every_test_that_the_guarantees_name_is_there(self):
        there = set()
        for folder, _, names in os.walk(os.path.join(tree.ROOT, "tests")):
            for name in names:
                if name.endswith(".cpp"):
                    text = tree.read(folder, name)
                    there |= {".".join(test) for test in re.findall(r"(?m)^TEST(?:_F|_P)?\((\w+),\s*(\w+)\)", text)}
        for document in ("docs/guarantees.md", "docs/testing.md"):
            named = set(re.findall(r"`([A-Z]\w*\.[A-Z]\w*)`", tree.read(tree.ROOT, document)))
            self.assertGreater(len(named), 2)
            self.assertEqual(sorted(named - there), [], document)


if __name__ == "__main__":
    unittest.main()
