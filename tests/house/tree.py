"""What the tests about the tree itself share: its files, and C++ without comments and strings."""

import os
import re

ROOT = os.environ["MORVIK_SOURCE_DIR"]
BUILD = os.environ["MORVIK_BUILD_DIR"]
COMPILER = os.environ["MORVIK_CXX"]

# The folders that hold C++ of ours.
CODE = ("kit", "services", "MorvikCoreLib", "runtime", "host", "include", "testing", "simulation", "proofs", "apps",
        "tests", "fuzz", "bench", "examples")
# The core: what is linked into every app.
CORE = ("kit", "services", "MorvikCoreLib")

# As .clang-format says for C++.
MOST_COLUMNS = 120

# A comment, a raw string, a string or a character, in this order; a quote after a digit separates digits.
_TOKEN = re.compile(
    r"""(?P<comment>//[^\n]*|/\*.*?\*/)
      | (?P<raw>R"(?P<mark>[^(\s]*)\(.*?\)(?P=mark)")
      | (?P<string>"(?:\\.|[^"\\\n])*")
      | (?P<number>\b\d[\w']*)
      | (?P<character>'(?:\\.|[^'\\\n])+')""",
    re.DOTALL | re.VERBOSE,
)


def cpp_files(root, folders, endings=(".h", ".cpp")):
    """The paths, relative to root, of all C++ files below the folders, sorted."""
    found = []
    for folder in folders:
        for place, _, names in os.walk(os.path.join(root, folder)):
            for name in names:
                if name.endswith(endings):
                    found.append(os.path.relpath(os.path.join(place, name), root))
    return sorted(found)


def read(root, path):
    with open(os.path.join(root, path), encoding="utf-8") as file:
        return file.read()


def without_comments(text):
    """The text with every comment blanked, line numbers kept."""
    return _TOKEN.sub(lambda m: _blank(m[0]) if m["comment"] else m[0], text)


def code_only(text):
    """The text with comments, strings and characters blanked, line numbers kept."""
    return _TOKEN.sub(lambda m: m[0] if m["number"] else _blank(m[0]), text)


def _blank(text):
    return re.sub(r"[^\n]", " ", text)


def findings(text, pattern):
    """Yields (line number, match) of the pattern in the text."""
    for match in re.finditer(pattern, text):
        yield text.count("\n", 0, match.start()) + 1, match
