"""Every library can be compiled as one source, as ./run does in parts: no name has two meanings in its files."""
# Labels: plain_only
# Timeout: 900

import json
import os
import re
import shlex
import subprocess
import tempfile
import unittest

import tree

# Helpers in nameless namespaces and macros meet only where files are compiled together.
LIBRARY = re.compile(
    r"CMakeFiles/(morvik_(?:core|runtime|testing|host|simulation|proofs|text_lib|command_line_lib|device_lib|"
    r"service_lib))\.dir/"
)


def libraries():
    """The sources of each library, and the command that compiles the first of them, without its files."""
    with open(os.path.join(tree.BUILD, "compile_commands.json"), encoding="utf-8") as file:
        commands = json.load(file)
    found = {}
    for entry in commands:
        library = LIBRARY.search(entry["command"])
        if library:
            found.setdefault(library[1], []).append(entry)
    return {name: (sorted(each["file"] for each in entries), flags(entries[0])) for name, entries in found.items()}


def flags(entry):
    words = shlex.split(entry["command"])
    words = words[words.index(tree.COMPILER) + 1 :]
    output = words.index("-o")
    del words[output : output + 2]
    return words[: words.index("-c")]


def errors_of(sources, options):
    """What the compiler says to all of the sources as one."""
    with tempfile.TemporaryDirectory() as folder:
        one = os.path.join(folder, "one.cpp")
        with open(one, "w", encoding="utf-8") as file:
            file.writelines(f'#include "{source}"\n' for source in sources)
        done = subprocess.run([tree.COMPILER, *options, "-fsyntax-only", one], cwd=tree.BUILD, capture_output=True,
                              text=True, check=False)
    return done.stderr if done.returncode != 0 else ""


class EachLibrary(unittest.TestCase):
    def test_can_be_compiled_as_one_source(self):
        found = libraries()
        self.assertEqual(len(found), 10, sorted(found))
        for name, (sources, options) in sorted(found.items()):
            with self.subTest(library=name):
                wrong = errors_of(sources, options)
                self.assertFalse(wrong, "rename one of the two, or share it:\n" + wrong)

    def test_would_show_two_helpers_of_one_name(self):
        with tempfile.TemporaryDirectory() as folder:
            sources = []
            for name in ("a", "b"):
                sources.append(os.path.join(folder, name + ".cpp"))
                with open(sources[-1], "w", encoding="utf-8") as file:
                    file.write("namespace { int helper() { return 1; } }\nint " + name + "() { return helper(); }\n")
            self.assertEqual(errors_of(sources[:1], []), "")
            self.assertIn("redefinition of", errors_of(sources, []))


if __name__ == "__main__":
    unittest.main()
