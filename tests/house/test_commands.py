"""./run, ./test and tools/setup on machines that we pretend: nothing installed, no right to install, a root."""

import os
import subprocess
import tempfile
import unittest

import tree

RIGHTLESS = "#!/bin/bash\n[[ $1 == -u ]] && echo 1000\n"
ROOT = "#!/bin/bash\n[[ $1 == -u ]] && echo 0\n"
REFUSING_SUDO = "#!/bin/bash\nexit 1\n"
# A package database of one package a line.
DPKG_QUERY = """#!/bin/bash
while IFS= read -r package; do printf 'installed/%s ' "$package"; done < "$FAKE/installed"
"""
# Notes each call; "install" installs.
APT_GET = """#!/bin/bash
printf '%s\\n' "apt-get $*" >> "$FAKE/calls"
installing=no
for word in "$@"; do
  [[ $word == "$APT_FAILS_AT" ]] && { echo "E: made to fail"; exit 100; }
  [[ $installing == yes && $word != -* ]] && printf '%s\\n' "$word" >> "$FAKE/installed"
  [[ $word == install ]] && installing=yes
done
exit 0
"""
SUDO = '#!/bin/bash\nshift\nprintf "sudo " >> "$FAKE/calls"\nexec "$@"\n'


class Commands(unittest.TestCase):
    def setUp(self):
        made = tempfile.TemporaryDirectory()
        self.addCleanup(made.cleanup)
        self.fake = made.name
        self.bin = os.path.join(made.name, "bin")
        os.mkdir(self.bin)
        self.install("dpkg-query", DPKG_QUERY)
        self.install("apt-get", APT_GET)
        self.install("id", RIGHTLESS)
        self.install("sudo", REFUSING_SUDO)
        self.installed([])

    def install(self, name, text):
        path = os.path.join(self.bin, name)
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)
        os.chmod(path, 0o755)

    def installed(self, packages):
        with open(os.path.join(self.fake, "installed"), "w", encoding="utf-8") as file:
            file.writelines(package + "\n" for package in packages)

    def calls(self):
        path = os.path.join(self.fake, "calls")
        if not os.path.exists(path):
            return []
        with open(path, encoding="utf-8") as file:
            return file.read().splitlines()

    def call(self, command, *arguments, **environment):
        return subprocess.run(
            [os.path.join(tree.ROOT, command), *arguments],
            env={"PATH": f"{self.bin}:/usr/bin:/bin", "FAKE": self.fake, "APT_FAILS_AT": "nothing", **environment},
            stdin=subprocess.DEVNULL,
            capture_output=True,
            text=True,
            timeout=60,
            check=False,
        )

    def packages(self, *groups):
        return self.call("tools/setup", "--list", *groups).stdout.split()

    def test_the_list_has_what_run_needs_and_more_for_the_tests(self):
        run, test = self.packages(), self.packages("test")
        self.assertIn("libcurl4-openssl-dev", run)
        self.assertNotIn("libgtest-dev", run)
        self.assertIn("libgtest-dev", test)
        self.assertLess(set(run), set(test))

    def test_with_everything_installed_nothing_is_called_or_said(self):
        self.installed(self.packages("test"))
        done = self.call("tools/setup", "test")
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "", ""))
        self.assertEqual(self.calls(), [])

    def test_without_the_right_to_install_the_one_line_is_printed(self):
        packages = self.packages()
        self.installed(set(packages) - {"cmake", "zlib1g-dev"})
        for command, arguments in (("tools/setup", []), ("run", [])):
            with self.subTest(command=command):
                done = self.call(command, *arguments)
                self.assertEqual(done.returncode, 2)
                self.assertEqual(
                    done.stderr,
                    "Debian packages are missing, and installing them needs root. This line installs them:\n"
                    "sudo apt-get update && sudo apt-get install --no-install-recommends -y cmake zlib1g-dev\n",
                )
                self.assertEqual(self.calls(), [])

    def test_an_npm_that_came_with_node_is_taken(self):
        self.install("npm", "#!/bin/bash\nexit 0\n")
        self.installed(set(self.packages("test")) - {"npm"})
        done = self.call("tools/setup", "test")
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.assertEqual(self.calls(), [])

    def test_the_driver_is_fetched_once(self):
        self.install("npm", "#!/bin/bash\nprintf '%s\\n' \"npm $*\" >> \"$FAKE/calls\"; mkdir node_modules\n")
        folder = os.path.join(self.fake, "browser")
        os.mkdir(folder)
        with open(os.path.join(folder, "package-lock.json"), "w", encoding="utf-8") as file:
            file.write("{}")
        for _ in range(2):
            done = self.call("tools/browser_driver", folder)
            self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.assertEqual(self.calls(), ["npm ci --ignore-scripts"])

    def test_a_driver_that_cannot_be_fetched_is_said(self):
        self.install("npm", "#!/bin/bash\necho 'npm: made to fail'; exit 1\n")
        folder = os.path.join(self.fake, "browser")
        os.mkdir(folder)
        with open(os.path.join(folder, "package-lock.json"), "w", encoding="utf-8") as file:
            file.write("{}")
        done = self.call("tools/browser_driver", folder)
        self.assertEqual(done.returncode, 1)
        self.assertIn("npm: made to fail\n", done.stderr)

    def test_the_tests_ask_for_their_own_packages(self):
        self.installed(set(self.packages("test")) - {"libgtest-dev"})
        done = self.call("test")
        self.assertEqual(done.returncode, 2)
        self.assertIn("-y libgtest-dev\n", done.stderr)

    def test_root_installs_only_what_is_missing(self):
        self.install("id", ROOT)
        self.installed(set(self.packages()) - {"cmake"})
        done = self.call("tools/setup")
        self.assertEqual((done.returncode, done.stderr), (0, "Installing Debian packages: cmake\n"))
        options = "apt-get -q -y -o DPkg::Lock::Timeout=600"
        self.assertEqual(self.calls(), [f"{options} update", f"{options} install --no-install-recommends cmake"])
        again = self.call("tools/setup")
        self.assertEqual((again.returncode, again.stderr), (0, ""))
        self.assertEqual(len(self.calls()), 2)

    def test_sudo_without_a_password_installs_too(self):
        self.install("sudo", SUDO)
        self.installed(set(self.packages()) - {"cmake"})
        done = self.call("tools/setup")
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertTrue(all("apt-get" in call for call in self.calls()), self.calls())
        self.assertEqual(self.call("tools/setup").stderr, "")

    def test_a_failing_installation_shows_why(self):
        self.install("id", ROOT)
        for step, text in (("update", "lists could not be updated"), ("install", "could not be installed")):
            with self.subTest(step=step):
                done = self.call("tools/setup", APT_FAILS_AT=step)
                self.assertEqual(done.returncode, 1)
                self.assertIn("E: made to fail\n", done.stderr)
                self.assertIn(text, done.stderr)

    def test_an_installation_that_installs_nothing_is_no_success(self):
        self.install("id", ROOT)
        self.install("apt-get", "#!/bin/bash\nexit 0\n")
        self.installed(set(self.packages()) - {"cmake"})
        done = self.call("tools/setup")
        self.assertEqual(done.returncode, 1)
        self.assertIn("still missing after the installation: cmake\n", done.stderr)

    def test_help_needs_nothing_installed(self):
        for command, name in (("run", "./run"), ("test", "./test"), ("tools/setup",) * 2, ("tools/fuzz",) * 2):
            with self.subTest(command=command):
                done = self.call(command, "--help")
                self.assertEqual((done.returncode, done.stderr), (0, ""))
                self.assertTrue(done.stdout.startswith(f"Usage: {name} "))

    def test_help_of_what_takes_long_to_build_builds_nothing(self):
        for tool in ("cmake", "ninja", "ccache", "c++"):
            self.install(tool, '#!/bin/bash\necho "$0 $*" >> "$FAKE/calls"\nexit 1\n')
        for command in ("tools/soak", "tools/crashpoints"):
            for arguments in (["--help"], ["-h"], ["--seed", "7", "--help"]):
                with self.subTest(command=command, arguments=arguments):
                    done = self.call(command, *arguments)
                    self.assertEqual((done.returncode, done.stderr), (0, ""))
                    self.assertTrue(done.stdout.startswith(f"Usage: {command} "))
                    self.assertEqual(self.calls(), [])

    def test_a_bad_option_is_refused_before_anything_is_installed(self):
        self.install("id", ROOT)
        for command, arguments, message in (
            ("run", ["--sped"], "./run: '--sped' is not an option of this command; ./run --help lists them.\n"),
            ("run", ["--folder"], "./run: --folder needs a value; ./run --help tells which.\n"),
            ("run", ["--seed", "x1"],
             "./run: --seed needs a whole number, one that an earlier run printed; 'x1' is none.\n"),
            ("run", ["--seed="],
             "./run: --seed needs a whole number, one that an earlier run printed; '' is none.\n"),
            ("test", ["--fast"], "./test: '--fast' is not an option of this command; ./test --help lists them.\n"),
            ("test", ["-R"], "./test: -R needs a value; ./test --help tells which.\n"),
            ("test", ["-j", "many"], "./test: -j needs a number from 1 on; 'many' is none.\n"),
            ("test", ["--asan", "--tsan"], "./test: --tsan and --asan cannot go together; run one after the other.\n"),
            ("tools/setup", ["games"],
             "tools/setup: 'games' is not a group of packages; tools/setup --help lists them.\n"),
        ):
            with self.subTest(command=command, arguments=arguments):
                done = self.call(command, *arguments)
                self.assertEqual((done.returncode, done.stdout, done.stderr), (2, "", message))
                self.assertEqual(self.calls(), [])


if __name__ == "__main__":
    unittest.main()
