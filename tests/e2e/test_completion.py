"""The completion scripts in real shells: subcommands, every option of the help, listed values, file names."""

import os
import pty
import re
import select
import shlex
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


class CompletionInBash(unittest.TestCase):
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
        completion = shlex.quote(os.path.join(BUILD, "completions", "bash", name))
        script = (f"source {completion} && complete -p {name} >&2 && "
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


class CompletionInZsh(unittest.TestCase):
    PROMPT = b"ready> "
    COMPLETE = b"\x18"
    # The completion system ends in compadd: this one also writes the words down that it is given and that fit.
    START = """
PS1={prompt}
fpath=({functions} $fpath)
LISTMAX=10000
autoload -Uz compinit
compinit -D -u
compadd() {{
  local -a fitting
  if [[ ${{@[1,(i)(-|--)]}} != *-(O|A|D)\\ * ]]; then
    builtin compadd -O fitting "$@"
    (( $#fitting )) && print -rl -- $fitting >> {offered}
  fi
  builtin compadd "$@"
}}
complete-and-exit() {{ zle complete-word; print -r -- $BUFFER > {line}; exit }}
zle -N complete-and-exit
bindkey '^X' complete-and-exit
"""

    def setUp(self):
        made = tempfile.TemporaryDirectory()
        self.addCleanup(made.cleanup)
        self.folder = os.path.join(made.name, "here")
        os.makedirs(os.path.join(self.folder, "store of mine"))
        with open(os.path.join(self.folder, "story.yaml"), "w", encoding="utf-8"):
            pass
        self.offered = os.path.join(made.name, "offered")
        self.line = os.path.join(made.name, "line")
        self.settings = made.name
        with open(os.path.join(made.name, ".zshrc"), "w", encoding="utf-8") as file:
            file.write(self.START.format(prompt=shlex.quote(self.PROMPT.decode()), line=shlex.quote(self.line),
                                         functions=shlex.quote(os.path.join(BUILD, "completions", "zsh")),
                                         offered=shlex.quote(self.offered)))

    def complete(self, line):
        """The words that zsh offers at the end of this line, and the line afterwards."""
        for path in (self.offered, self.line):
            with open(path, "w", encoding="utf-8"):
                pass
        ours, its = pty.openpty()
        environment = {**os.environ, "ZDOTDIR": self.settings, "TERM": "dumb"}
        with subprocess.Popen(["zsh", "-i"], stdin=its, stdout=its, stderr=its, cwd=self.folder, env=environment,
                              start_new_session=True) as shell:
            os.close(its)
            try:
                self.type(ours, line.encode() + self.COMPLETE)
            finally:
                os.close(ours)
                shell.kill()
        with open(self.offered, encoding="utf-8") as offered, open(self.line, encoding="utf-8") as completed:
            return offered.read().splitlines(), completed.read().rstrip("\n")

    def type(self, terminal, keys):
        """Types the keys at the first prompt, and reads until the shell is gone."""
        shown = b""
        while True:
            if not select.select([terminal], [], [], 60)[0]:
                self.fail(f"zsh does not answer: {shown!r}")
            try:
                part = os.read(terminal, 4096)
            except OSError:
                part = b""
            if not part:
                return
            shown += part
            if keys and self.PROMPT in shown:
                os.write(terminal, keys)
                keys = b""

    def test_subcommands_come_first(self):
        for name, subcommands in SUBCOMMANDS.items():
            self.assertEqual(self.complete(f"{name} "), (subcommands, f"{name} "))
        self.assertEqual(self.complete("morvik-device fl"), (["fleet"], "morvik-device fleet "))

    def test_every_option_of_the_help_is_completed(self):
        for name, subcommands in SUBCOMMANDS.items():
            for subcommand in subcommands:
                with self.subTest(program=name, subcommand=subcommand):
                    told = re.findall(r"(?m)^  ((?:-\w,)?--[a-z-]+)", ask(program(name), subcommand, "--help"))
                    options = {option for names in told for option in names.split(",")}
                    self.assertEqual(set(self.complete(f"{name} {subcommand} -")[0]), options | {"--version"})

    def test_options_of_the_default_need_no_subcommand(self):
        self.assertEqual(self.complete("morvik-device --st"), (["--store"], "morvik-device --store="))

    def test_listed_values_are_completed(self):
        orientations = ["1", "2", "3", "4"]
        self.assertEqual(self.complete("morvik-device run --orientation ")[0], orientations)
        self.assertEqual(self.complete("morvik-device --orientation=")[0], orientations)
        self.assertEqual(self.complete("morvik-device --iad=determine:y"),
                         (["determine:yes"], "morvik-device --iad=determine:yes "))
        self.assertEqual(self.complete("morvik-service --premium-postback ")[0], ["yes", "no"])
        self.assertEqual(self.complete("morvik-device run --app-key ")[0], [])

    def test_verbs_are_completed(self):
        self.assertEqual(self.complete("morvik-device verbs wait-d"),
                         (["wait-delivered"], "morvik-device verbs wait-delivered "))

    def test_paths_are_completed(self):
        self.assertEqual(self.complete("morvik-device simulate story")[1], "morvik-device simulate story.yaml ")
        self.assertEqual(self.complete("morvik-device run --store=s")[1],
                         "morvik-device run --store=store\\ of\\ mine/")
        self.assertEqual(self.complete("morvik-device inspect s")[1], "morvik-device inspect store\\ of\\ mine/")


if __name__ == "__main__":
    unittest.main()
