"""The completion scripts in real shells: subcommands, every option of the help, listed values, file names."""

import os
import re
import shlex
import shutil
import subprocess
import tempfile
import unittest

BUILD = os.environ["MORVIK_BUILD_DIR"]
SUBCOMMANDS = {
    "morvik-device": ["run", "simulate", "fleet", "inspect", "verbs", "completion"],
    "morvik-service": ["serve", "expect", "completion"],
}


def program(name):
    return os.path.join(BUILD, "bin", name)


def ask(*command):
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout


class Completion(unittest.TestCase):
    def setUp(self):
        made = tempfile.TemporaryDirectory()
        self.addCleanup(made.cleanup)
        self.folder = made.name
        os.mkdir(os.path.join(self.folder, "store of mine"))
        with open(os.path.join(self.folder, "story.yaml"), "w", encoding="utf-8"):
            pass

    def complete(self, *words):
        """What bash offers for the last word, as readline would hand the words over."""
        name = words[0]
        function = "_" + name.replace("-", "_")
        script = (f"source {shlex.quote(os.path.join(BUILD, 'completions', 'bash', name))} && complete -p {name} >&2 && "
                  f"COMP_WORDS=({shlex.join(words)}) COMP_CWORD={len(words) - 1} && {function} && "
                  'if ((${#COMPREPLY[@]})); then printf "%s\\n" "${COMPREPLY[@]}"; fi')
        done = subprocess.run(["bash", "--norc", "-u", "-c", script], cwd=self.folder, capture_output=True, text=True,
                              check=True)
        self.assertEqual(done.stderr, f"complete -F {function} {name}\n")
        return done.stdout.splitlines()

    def test_subcommands_come_first(self):
        for name, subcommands in SUBCOMMANDS.items():
            self.assertEqual(self.complete(name, ""), subcommands)
        self.assertEqual(self.complete("morvik-device", "fl"), ["fleet"])
        self.assertEqual(self.complete("morvik-service", "e"), ["expect"])

    def test_every_option_of_the_help_is_completed(self):
        for name, subcommands in SUBCOMMANDS.items():
            for subcommand in subcommands:
                with self.subTest(program=name, subcommand=subcommand):
                    help_text = ask(program(name), subcommand, "--help")
                    told = re.findall(r"(?m)^  ((?:-\w,)?--[a-z-]+)", help_text)
                    options = {option for names in told for option in names.split(",")}
                    self.assertGreaterEqual(len(options), 2)
                    self.assertEqual(set(self.complete(name, subcommand, "-")), options | {"--version"})

    def test_options_of_the_default_need_no_subcommand(self):
        self.assertEqual(self.complete("morvik-device", "--st"), ["--store"])
        self.assertEqual(self.complete("morvik-device", "--store", "x", "--log"), ["--log-level"])
        self.assertEqual(self.complete("morvik-service", "--premium-postback", ""), ["yes", "no"])

    def test_listed_values_are_completed(self):
        self.assertEqual(self.complete("morvik-device", "run", "--orientation", ""), ["1", "2", "3", "4"])
        self.assertEqual(self.complete("morvik-device", "run", "--search-ads", "a"), ["absent"])
        self.assertEqual(self.complete("morvik-device", "run", "--search-ads", "=", "n"), ["none"])
        self.assertEqual(self.complete("morvik-device", "run", "--search-ads", "="), ["absent", "none", "error"])
        self.assertEqual(self.complete("morvik-device", "completion", ""), ["bash", "zsh"])
        self.assertEqual(self.complete("morvik-device", "run", "--app-key", ""), [])

    def test_values_with_a_colon_are_completed_after_it(self):
        self.assertEqual(self.complete("morvik-device", "--iad", "det"), ["determine:yes", "determine:no"])
        self.assertEqual(self.complete("morvik-device", "--iad", "determine", ":"), ["yes", "no"])
        self.assertEqual(self.complete("morvik-device", "--iad", "determine", ":", "n"), ["no"])
        self.assertEqual(self.complete("morvik-device", "--iad", "=", "determine", ":", "y"), ["yes"])

    def test_verbs_are_those_that_the_program_lists(self):
        verbs = re.findall(r"(?m)^  (\S+)", ask(program("morvik-device"), "verbs"))
        self.assertIn("wait-delivered", verbs)
        self.assertEqual(self.complete("morvik-device", "verbs", ""), verbs)

    def test_paths_are_completed(self):
        self.assertEqual(self.complete("morvik-device", "simulate", "sto"), ["store of mine", "story.yaml"])
        self.assertEqual(self.complete("morvik-device", "inspect", "sto"), ["store of mine"])
        self.assertEqual(self.complete("morvik-device", "run", "--store", "s"), ["store of mine"])
        self.assertEqual(self.complete("morvik-device", "run", "--script", "=", "story"), ["story.yaml"])
        self.assertEqual(self.complete("morvik-service", "--make-cert", ""), ["store of mine"])

    def test_the_printed_script_is_the_installed_one(self):
        for name in SUBCOMMANDS:
            for shell in ("bash", "zsh"):
                with open(os.path.join(BUILD, "completions", shell, ("_" if shell == "zsh" else "") + name),
                          encoding="utf-8") as file:
                    self.assertEqual(file.read(), ask(program(name), "completion", shell))

    def test_the_script_for_zsh_describes_every_option_and_is_read_by_a_zsh_that_is_there(self):
        zsh = shutil.which("zsh")
        if zsh is None:
            print("There is no zsh on this machine: its script is only compared with the help.")
        for name, subcommands in SUBCOMMANDS.items():
            path = os.path.join(BUILD, "completions", "zsh", "_" + name)
            with open(path, encoding="utf-8") as file:
                script = file.read()
            self.assertTrue(script.startswith(f"#compdef {name}\n"))
            for subcommand in subcommands:
                block = re.search(rf"(?ms)^    {subcommand}\)\n(.*?)^      ;;$", script).group(1)
                told = re.findall(r"(?m)^  ((?:-\w,)?--[a-z-]+)", ask(program(name), subcommand, "--help"))
                for option in (option for names in told for option in names.split(",")):
                    self.assertRegex(block, rf"'\*?{option}=?\[")
            # As arguments of a command, the specifications are words that any shell reads alike.
            self.assertEqual(subprocess.run(["bash", "-n"], input=re.sub(r"(?s)local -a .*?\n  \)\n", "", script),
                                            capture_output=True, text=True, check=False).returncode, 0)
            if zsh is not None:
                self.assertEqual(subprocess.run([zsh, "-n", path], capture_output=True, text=True, check=False).stderr, "")


if __name__ == "__main__":
    unittest.main()
