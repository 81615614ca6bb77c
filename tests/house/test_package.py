"""The installed package serves an app: by find_package and by pkg-config."""

import os
import shlex
import subprocess
import tempfile
import unittest

import tree

CONSUMERS = os.path.join(tree.ROOT, "tests", "package")


def run(*command, **more):
    """Runs the command; its output is the message when it fails."""
    done = subprocess.run(command, capture_output=True, text=True, check=False, **more)
    if done.returncode != 0:
        raise AssertionError(f"{shlex.join(command)}\n{done.stdout}{done.stderr}")
    return done.stdout


class ThePackage(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        made = tempfile.TemporaryDirectory()
        cls.addClassCleanup(made.cleanup)
        cls.work = made.name
        cls.prefix = os.path.join(made.name, "prefix")
        run("cmake", "--install", tree.BUILD, "--prefix", cls.prefix)

    def build(self, name, source, *options, targets=("all",)):
        """Configures and builds a project beside the installed package; returns the build folder."""
        folder = os.path.join(self.work, name)
        run("cmake", "-G", "Ninja", "-S", source, "-B", folder, f"-DCMAKE_PREFIX_PATH={self.prefix}",
            f"-DCMAKE_CXX_COMPILER={tree.COMPILER}", *options)
        run("cmake", "--build", folder, "--target", *targets)
        return folder

    def test_the_core_alone_looks_for_no_other_library(self):
        # With these switched off, a find_package for any of them would fail.
        off = [f"-DCMAKE_DISABLE_FIND_PACKAGE_{name}=ON"
               for name in ("CURL", "OpenSSL", "SQLite3", "ZLIB", "simdjson", "PkgConfig", "Threads")]
        folder = self.build("alone", os.path.join(CONSUMERS, "core"), *off)
        self.assertEqual(run(os.path.join(folder, "consumer")), "the core works\n")

    def test_pkg_config_serves_the_core(self):
        library_folder = os.path.dirname(self.find("morvik-core.pc"))
        environment = {**os.environ, "PKG_CONFIG_PATH": library_folder}
        for package, source, says in (
            ("morvik-core", "core", "the core works\n"),
        ):
            with self.subTest(package=package):
                flags = shlex.split(run("pkg-config", "--cflags", "--libs", package, env=environment))
                program = os.path.join(self.work, package)
                run(tree.COMPILER, "-std=c++20", os.path.join(CONSUMERS, source, "main.cpp"), "-o", program, *flags)
                self.assertEqual(run(program), says)

    def test_a_project_that_holds_the_tree_as_a_subfolder_builds_nothing_but_what_it_links(self):
        folder = self.build("subfolder", os.path.join(CONSUMERS, "subfolder"), f"-DMORVIK_SOURCE_DIR={tree.ROOT}",
                            "-DMORVIK_BUILD_HOST=OFF", targets=["consumer"])
        self.assertEqual(run(os.path.join(folder, "consumer")), "the core works\n")
        targets = run("ninja", "-C", folder, "-t", "targets", "all")
        self.assertRegex(targets, "(?m)^morvik_core: ")
        self.assertNotRegex(targets, "(?m)^(test_|morvik-|bench_|replay_)")
        self.assertNotIn("-Wconversion", tree.read(folder, "build.ninja"))

    def find(self, name):
        for place, _, names in os.walk(self.prefix):
            if name in names:
                return os.path.join(place, name)
        raise AssertionError(f"{name} is not installed")


if __name__ == "__main__":
    unittest.main()
