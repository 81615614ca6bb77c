"""Core and runtime drag nothing into an app: linked whole, they need the C++ standard library and no more.

Nor do they call the system, which is in the same library as the C functions that the standard library is made of."""

import os
import re
import subprocess
import tempfile
import unittest

import tree

# The functions in C that the code of the standard library, or what the compiler makes of ours, calls. Names with an
# underscore in front are the compiler's own, such as those of a sanitizer.
ALLOWED_IN_C = re.compile(
    r"^(_\w+|mem\w+|str\w+|wcs\w+|wmem\w+|pthread_(mutex|cond|rwlock)_\w+|pthread_(once|self)"
    r"|malloc|free|abort|atexit|l?l?(round|rint)f?|(trunc|floor|ceil|round|fmod|pow|log|exp)[fl]?)$")
# And those in C++ by which the standard library reads the time of day, starts a thread, opens, prints or takes chance.
OUTWARD_IN_CPP = re.compile(
    r"std::(chrono::(_V2::)?system_clock::now|thread::_M_start_thread|random_device|basic_filebuf|cout|cerr|clog|"
    r"filesystem)\b")

ALLOWED = re.compile(r"^(libstdc\+\+|libgcc_s|libm|libc|ld-linux[-\w]*)\.so\.\d+$")


def link_whole(archive, output, *more):
    """Links every object of the archive into a shared library, undefined symbols forbidden."""
    return subprocess.run(
        [tree.COMPILER, "-shared", "-o", output, "-Wl,--no-undefined", "-Wl,--no-as-needed"]
        + ["-Wl,--whole-archive", archive, "-Wl,--no-whole-archive", *more],
        capture_output=True,
        text=True,
        check=False,
    )


def calls_of_the_system(archive):
    """What the archive's objects call that neither they nor the standard library's own code should."""
    called = subprocess.run(["nm", "--undefined-only", "--format=just-symbols", archive],
                            capture_output=True, text=True, check=True).stdout
    names = {line.split("@")[0] for line in called.splitlines() if line and not line.endswith(":")}
    assert names, "nm shows no undefined symbol at all, so this check reads it wrongly"
    in_cpp = subprocess.run(["c++filt"], input="\n".join(name for name in names if name.startswith("_Z")),
                            capture_output=True, text=True, check=True).stdout.splitlines()
    return sorted(name for name in names if not ALLOWED_IN_C.match(name)) + sorted(
        name for name in in_cpp if OUTWARD_IN_CPP.search(name))


def foreign_libraries(library):
    """The needed libraries that are not the standard library's."""
    command = ["readelf", "--dynamic", "--wide", library]
    text = subprocess.run(command, capture_output=True, text=True, check=True).stdout
    needed = re.findall(r"\(NEEDED\)\s+Shared library: \[([^\]]+)\]", text)
    assert needed, "readelf shows no needed library at all, so this check reads it wrongly:\n" + text
    return [name for name in needed if not ALLOWED.match(name)]


class TheCore(unittest.TestCase):
    def setUp(self):
        made = tempfile.TemporaryDirectory()
        self.addCleanup(made.cleanup)
        self.output = os.path.join(made.name, "libalone.so")
        self.folder = made.name

    def archive_of(self, code):
        """An archive of one object, compiled from the code."""
        source = os.path.join(self.folder, "a.cpp")
        with open(source, "w", encoding="utf-8") as file:
            file.write(code)
        made = os.path.join(self.folder, "a.o")
        subprocess.run([tree.COMPILER, "-fPIC", "-c", source, "-o", made], check=True)
        archive = os.path.join(self.folder, "liba.a")
        subprocess.run(["ar", "qc", archive, made], check=True)
        return archive

    def test_the_core_links_without_any_other_library(self):
        linked = link_whole(os.path.join(tree.BUILD, "libmorvik_core.a"), self.output)
        self.assertEqual(linked.returncode, 0, linked.stderr)
        self.assertEqual(foreign_libraries(self.output), [])

    def test_the_runtime_needs_the_core_and_no_other_library(self):
        core = os.path.join(tree.BUILD, "libmorvik_core.a")
        linked = link_whole(os.path.join(tree.BUILD, "libmorvik_runtime.a"), self.output, core)
        self.assertEqual(linked.returncode, 0, linked.stderr)
        self.assertEqual(foreign_libraries(self.output), [])

    def test_neither_calls_the_system(self):
        for library in ("core", "runtime"):
            with self.subTest(library=library):
                self.assertEqual(calls_of_the_system(os.path.join(tree.BUILD, f"libmorvik_{library}.a")), [])

    def test_a_call_of_the_system_would_be_seen(self):
        archive = self.archive_of('extern "C" int getpid(); int f() { return getpid(); }\n#include <chrono>\n'
                                  "auto g() { return std::chrono::system_clock::now(); }")
        self.assertEqual(calls_of_the_system(archive), ["getpid", "std::chrono::_V2::system_clock::now()"])

    def test_a_call_out_of_the_core_would_not_link(self):
        linked = link_whole(self.archive_of('extern "C" int uv_now(); int f() { return uv_now(); }'), self.output)
        self.assertNotEqual(linked.returncode, 0)
        self.assertIn("uv_now", linked.stderr)

    def test_a_library_other_than_the_standard_one_would_be_seen(self):
        linked = link_whole(self.archive_of('extern "C" int zlibVersion(); int f() { return zlibVersion(); }'),
                            self.output, "-lz")
        self.assertEqual(linked.returncode, 0, linked.stderr)
        self.assertEqual(foreign_libraries(self.output), ["libz.so.1"])


if __name__ == "__main__":
    unittest.main()
