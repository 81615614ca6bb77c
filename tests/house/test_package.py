"""The installed package serves an app: by find_package, by pkg-config, and for the programs in the documents."""
# Timeout: 600

import os
import re
import shlex
import subprocess
import tempfile
import unittest

import tree
from test_includes import INCLUDE, NAMES_THREADS, STANDARD

# With these switched off, a find_package for any of them would fail.
NO_OTHER_LIBRARY = [f"-DCMAKE_DISABLE_FIND_PACKAGE_{name}=ON"
                    for name in ("CURL", "OpenSSL", "SQLite3", "ZLIB", "simdjson", "PkgConfig", "Threads")]
CONSUMERS = os.path.join(tree.ROOT, "tests", "package")
EXAMPLE = "examples/testing-your-app"
PLATFORM = "examples/another-platform"
FILE = re.compile(r"<!-- file: (\S+) -->\s*```\w+\n(.*?)^```$", re.DOTALL | re.MULTILINE)
PROGRAM = re.compile(r"<!-- program\b[^>]*-->\s*```cpp\n(.*?)^```$", re.DOTALL | re.MULTILINE)


def run(*command, **more):
    """Runs the command; its output is the message when it fails."""
    done = subprocess.run(command, capture_output=True, text=True, check=False, **more)
    if done.returncode != 0:
        raise AssertionError(f"{shlex.join(command)}\n{done.stdout}{done.stderr}")
    return done.stdout


# By folder, how many headers are installed: of the 231 in the tree those that an app or its tests include, and what
# these include. An app includes morvik/ alone.
INSTALLED = {"MorvikCoreLib": 3, "kit": 31, "morvik": 8, "runtime": 10, "services": 16, "simulation": 8, "testing": 22}


class ThePackage(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        made = tempfile.TemporaryDirectory()
        cls.addClassCleanup(made.cleanup)
        cls.work = made.name
        cls.prefix = os.path.join(made.name, "prefix")
        run("cmake", "--install", tree.BUILD, "--prefix", cls.prefix)

    def configure(self, name, source, *options):
        """Configures a project against the installed package; returns the build folder."""
        folder = os.path.join(self.work, name)
        run("cmake", "-G", "Ninja", "-S", source, "-B", folder, f"-DCMAKE_PREFIX_PATH={self.prefix}",
            f"-DCMAKE_CXX_COMPILER={tree.COMPILER}", *options)
        return folder

    def build(self, name, source, *options):
        """The same, and builds it."""
        folder = self.configure(name, source, *options)
        run("cmake", "--build", folder)
        return folder

    def test_holds_only_the_headers_that_an_app_or_its_tests_need(self):
        headers = self.headers()
        folders = [header.split("/")[0] for header in headers]
        self.assertEqual({folder: folders.count(folder) for folder in folders}, INSTALLED)

    def test_headers_need_no_other_library_and_none_that_is_not_installed(self):
        headers = self.headers()
        standard = STANDARD | NAMES_THREADS["runtime"]
        for header in headers:
            for _, match in tree.findings(tree.read(self.includes, header), INCLUDE):
                self.assertIn(match[2], headers if match[1] == '"' else standard, header)
        source = os.path.join(self.work, "all_headers.cpp")
        with open(source, "w", encoding="utf-8") as file:
            file.writelines(f'#include "{header}"\n' for header in headers if header.endswith(".h"))
        run(tree.COMPILER, "-std=c++20", "-fsyntax-only", "-I", self.includes, source)

    def test_find_package_serves_a_whole_app(self):
        folder = self.build("host", os.path.join(CONSUMERS, "host"))
        self.assertEqual(run(os.path.join(folder, "consumer"), os.path.join(folder, "store")), "the host works\n")

    def test_core_runtime_and_fakes_alone_look_for_no_other_library(self):
        for component, says in (
            ("core", "the core works\n"), ("runtime", "the runtime works\n"), ("testing", "the fakes work\n")
        ):
            with self.subTest(component=component):
                folder = self.build(component, os.path.join(CONSUMERS, component), *NO_OTHER_LIBRARY)
                self.assertEqual(run(os.path.join(folder, "consumer")), says)

    def test_pkg_config_serves_core_and_host(self):
        library_folder = os.path.dirname(self.find("morvik-core.pc"))
        environment = {**os.environ, "PKG_CONFIG_PATH": library_folder}
        store = os.path.join(self.work, "store")
        for package, source, arguments, says in (
            ("morvik-core", "core", [], "the core works\n"),
            ("morvik-host", "host", [store], "the host works\n"),
        ):
            with self.subTest(package=package):
                flags = shlex.split(run("pkg-config", "--cflags", "--libs", package, env=environment))
                program = os.path.join(self.work, package)
                run(tree.COMPILER, "-std=c++20", os.path.join(CONSUMERS, source, "main.cpp"), "-o", program, *flags)
                self.assertEqual(run(program, *arguments), says)

    def test_shells_find_the_completion_of_the_programs(self):
        for program in ("morvik-device", "morvik-service"):
            for path, begins in ((f"bash-completion/completions/{program}", f"# bash completion for {program}, "),
                                 (f"zsh/site-functions/_{program}", f"#compdef {program}\n")):
                with self.subTest(path=path):
                    self.assertTrue(tree.read(self.prefix, "share/" + path).startswith(begins))

    def test_an_apps_tests_find_the_simulation(self):
        folder = self.build("simulation", os.path.join(CONSUMERS, "simulation"))
        self.assertEqual(run(os.path.join(folder, "consumer")), "the simulation works\n")

    def test_the_example_of_a_tested_app_is_built_and_passes(self):
        folder = self.build("example", os.path.join(tree.ROOT, EXAMPLE))
        self.assertEqual(run(os.path.join(folder, "shop_test")), "the shop works\n")
        told = run("ctest", "--test-dir", folder, "--output-on-failure")
        self.assertIn("100% tests passed, 0 tests failed out of 2", told)

    def test_the_example_of_another_platform_is_built_without_any_other_library_and_works(self):
        folder = self.build("platform", os.path.join(tree.ROOT, PLATFORM), *NO_OTHER_LIBRARY)
        self.assertEqual(run(os.path.join(folder, "app")), "the platform works\n")

    def test_every_block_of_the_page_on_testing_is_what_it_says(self):
        page = tree.read(tree.ROOT, "docs/testing-your-app.md")
        programs = PROGRAM.findall(page)
        files = FILE.findall(page)
        self.assertEqual((len(programs), len(files)), (3, 2))
        self.assertEqual(len(re.findall(r"(?m)^```\w+$", page)), len(programs) + len(files),
                         "a block without a comment that says how it is tested")
        for name, text in files:
            self.assertEqual(text, tree.read(tree.ROOT, name), name)
        source = os.path.join(self.work, "programs_source")
        os.mkdir(source)
        lists = ["cmake_minimum_required(VERSION 3.22)", "project(Programs LANGUAGES CXX)",
                 "find_package(Morvik CONFIG REQUIRED COMPONENTS simulation)"]
        for number, program in enumerate(programs):
            with open(os.path.join(source, f"main{number}.cpp"), "w", encoding="utf-8") as file:
                file.write(program)
            lists += [f"add_executable(program{number} main{number}.cpp)",
                      f"target_link_libraries(program{number} PRIVATE Morvik::simulation)"]
        with open(os.path.join(source, "CMakeLists.txt"), "w", encoding="utf-8") as file:
            file.write("\n".join(lists))
        folder = self.build("programs", source, "-DCMAKE_BUILD_TYPE=Debug")  # where assert() asserts
        for number in range(len(programs)):
            with self.subTest(program=number):
                run(os.path.join(folder, f"program{number}"))

    def test_the_programs_in_the_documents_compile_and_link(self):
        for document in ("docs/deep-links.md", "docs/integration.md"):
            with self.subTest(document=document):
                found = PROGRAM.findall(tree.read(tree.ROOT, document))
                self.assertEqual(len(found), 1, "one ```cpp block behind a comment <!-- program ... -->")
                name = document.replace("/", "_")
                source = os.path.join(self.work, name + "_source")
                os.mkdir(source)
                with open(os.path.join(source, "main.cpp"), "w", encoding="utf-8") as file:
                    file.write(found[0])
                with open(os.path.join(source, "CMakeLists.txt"), "w", encoding="utf-8") as file:
                    file.write(tree.read(CONSUMERS, "host/CMakeLists.txt"))
                folder = self.build(name, source)
                self.assertTrue(os.access(os.path.join(folder, "consumer"), os.X_OK))

    def test_the_licence_is_installed(self):
        self.assertEqual(tree.read(self.prefix, "share/doc/Morvik/LICENSE"), tree.read(tree.ROOT, "LICENSE"))

    def test_a_project_that_holds_the_tree_as_a_subfolder_gets_the_libraries_and_nothing_else(self):
        folder = self.configure("subfolder", os.path.join(CONSUMERS, "subfolder"), f"-DMORVIK_SOURCE_DIR={tree.ROOT}")
        targets = run("ninja", "-C", folder, "-t", "targets", "all")
        self.assertRegex(targets, "(?m)^consumer: ")
        self.assertRegex(targets, "(?m)^morvik_host: ")
        self.assertNotRegex(targets, "(?m)^(test_|morvik-|bench_|replay_)")
        self.assertNotIn("-Wconversion", tree.read(folder, "build.ninja"))

    @property
    def includes(self):
        """The folder that consumers search for headers."""
        folders = os.listdir(os.path.join(self.prefix, "include"))
        self.assertEqual(len(folders), 1, folders)
        return os.path.join(self.prefix, "include", folders[0])

    def headers(self):
        """Those that are installed, as they are included."""
        return sorted(os.path.relpath(os.path.join(place, name), self.includes)
                      for place, _, names in os.walk(self.includes) for name in names)

    def find(self, name):
        for place, _, names in os.walk(self.prefix):
            if name in names:
                return os.path.join(place, name)
        raise AssertionError(f"{name} is not installed")


if __name__ == "__main__":
    unittest.main()
