"""The quick start of README.md, done as it stands: its commands, its program, and the event that is seen in the end."""
# Timeout: 600

import fcntl
import json
import os
import re
import shutil
import signal
import subprocess
import tempfile
import unittest

import tree

BLOCK = re.compile(r"(?:<!-- (?P<mark>[^>]+) -->\n)?```(?P<language>\w+)\n(?P<text>.*?)^```$", re.DOTALL | re.MULTILINE)
# The commands name a fixed port: one at a time on this machine, whatever clone the test belongs to.
PORT_LOCK = os.path.join(tempfile.gettempdir(), "morvik-quick-start-8443.lock")
PATIENCE_SECONDS = 120


def blocks():
    text = tree.read(tree.ROOT, "README.md")
    section = text[text.index("## Quick start"):text.index("## The folders")]
    return [match.groupdict() for match in BLOCK.finditer(section)]


def files():
    return {block["mark"].removeprefix("file: "): block["text"] for block in blocks()
            if (block["mark"] or "").startswith("file: ")}


class TheQuickStart(unittest.TestCase):
    def setUp(self):
        made = tempfile.TemporaryDirectory()
        self.addCleanup(made.cleanup)
        self.clone = made.name
        for path, text in files().items():
            self.write(path, text)

    def write(self, path, text):
        os.makedirs(os.path.dirname(os.path.join(self.clone, path)), exist_ok=True)
        with open(os.path.join(self.clone, path), "w", encoding="utf-8") as file:
            file.write(text)

    def sh(self, commands, **more):
        """Runs a block in the clone, ends at the first that fails; what it writes."""
        done = subprocess.run(["bash", "-e", "-c", commands], cwd=self.clone, capture_output=True, text=True,
                              check=False, timeout=PATIENCE_SECONDS, env={**os.environ, "CXX": tree.COMPILER},
                              **(more or {"stdin": subprocess.DEVNULL}))
        self.assertEqual(done.returncode, 0, f"{commands}\n{done.stdout}{done.stderr}")
        return done.stdout

    def start_service(self, commands):
        lock = open(PORT_LOCK, "a", encoding="utf-8")
        self.addCleanup(lock.close)
        fcntl.flock(lock, fcntl.LOCK_EX)
        errors = open(os.path.join(self.clone, "build", "service-errors"), "w+", encoding="utf-8")
        self.addCleanup(errors.close)
        service = subprocess.Popen(["bash", "-c", commands + "\nwait"], cwd=self.clone, stdin=subprocess.DEVNULL,
                                   stdout=subprocess.PIPE, stderr=errors, text=True, start_new_session=True)
        self.addCleanup(service.stdout.close)
        self.addCleanup(service.wait)
        self.addCleanup(os.killpg, service.pid, signal.SIGTERM)
        line = service.stdout.readline()
        errors.seek(0)
        self.assertNotEqual(line, "", "the service did not start: " + errors.read())
        self.assertEqual(json.loads(line), {"listening": "https://127.0.0.1:8443/"})

    def test_its_program_delivers_its_event_to_the_service_of_the_next_section(self):
        commands = [block["text"] for block in blocks() if block["language"] == "sh"]
        self.assertEqual(len(commands), 6)
        package, keys, service, program, expectation, device = commands
        # The build that this test belongs to stands for the one that the first line makes.
        build, install = package.splitlines()
        self.assertEqual(build, "tools/setup && cmake --preset release && ninja -C build/release")
        os.makedirs(os.path.join(self.clone, "build"), exist_ok=True)
        os.symlink(tree.BUILD, os.path.join(self.clone, "build", "release"))
        self.sh(install)
        self.sh(keys)
        self.start_service(service)
        for _ in ("once", "and again within the minute"):
            self.assertEqual(self.sh(program).splitlines()[-1], "delivered")
        self.sh(expectation)
        self.sh(expectation.replace("--within", "--count 2 --within"))
        answers = self.sh(device, input="active\nevent shop purchase\npush\nsettle\n")
        self.assertEqual([json.loads(line)["ok"] for line in answers.splitlines() if '"verb"' in line], [True] * 4)
        self.assertEqual(self.not_ignored(), [".gitignore"])

    def not_ignored(self):
        """What git would offer to add of all that the commands made."""
        shutil.copy(os.path.join(tree.ROOT, ".gitignore"), self.clone)
        self.sh("git init --quiet")
        return [line.split()[-1] for line in self.sh("git status --porcelain").splitlines()]

    def test_cmake_can_take_the_sources_along_instead(self):
        fetch = [block["text"] for block in blocks() if block["mark"] == "fetch content"]
        self.assertEqual(len(fetch), 1)
        lists = files()["my-app/CMakeLists.txt"]
        found = "find_package(Morvik CONFIG REQUIRED)\n"
        self.assertIn(found, lists)
        self.write("my-app/CMakeLists.txt", lists.replace(found, fetch[0]))
        # From this tree, not from where it was cloned.
        self.sh(f"cmake -G Ninja -S my-app -B build/my-app -DFETCHCONTENT_SOURCE_DIR_MORVIK='{tree.ROOT}'")
        self.sh("ninja -C build/my-app CMakeFiles/my-app.dir/main.cpp.o")
        targets = self.sh("ninja -C build/my-app -t targets all")
        self.assertRegex(targets, r"(?m)^my-app: ")
        self.assertRegex(targets, r"(?m)libmorvik_host\.a: ")
        self.assertNotRegex(targets, r"(?m)^(test_|morvik-|bench_|replay_)")


if __name__ == "__main__":
    unittest.main()
