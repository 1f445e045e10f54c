#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Holds the man page, the bash completion and the example configuration against the program itself.

Each command, option, environment variable, reason and exit status that `--help` tells is in the man page, and each that
is there is told by `--help`. The completion offers each command and option where it belongs, and nothing else. The
program reads the example without a warning, and the values there are the defaults. The page and the changelog of the
Debian packages tell the program's version.

usage: papers.py SKORRA_NTP_PROGRAM
"""
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

PACKAGING = pathlib.Path(__file__).resolve().parents[2] / "packaging"
PROGRAM = sys.argv.pop(1)


def help_of(command=None):
    words = [PROGRAM] + ([command] if command else []) + ["--help"]
    return subprocess.run(words, check=True, capture_output=True, text=True).stdout


def options_in(text):
    options = text.split("\nOptions:\n")[1].split("\n\n")[0]
    return {name for line in options.splitlines() for name in line.split()[0].split(",")}


def commands():
    return re.findall(r"^  (\w+)", help_of().split("\nSubcommands:\n")[1].split("\n\n")[0], re.MULTILINE)


def sections(text, macro):
    """The text under each heading of a page."""
    parts = re.split(rf'^\.{macro} "?([^"\n]+)"?\n', text, flags=re.MULTILINE)
    return dict(zip(parts[1::2], parts[2::2]))


def page():
    return (PACKAGING / "skorra-ntp.1").read_text().replace("\\-", "-")


def tagged(text):
    """The words in bold of the paragraphs with a tag."""
    tags = re.findall(r"^\.TP\n\.(?:B|BI|BR|I|IR) (.*)$", text, re.MULTILINE)
    return {word for tag in tags for word in re.findall(r'[^\s",]+', tag)}


def completions(*words):
    """What bash offers for the last of the words."""
    script = 'source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); ' \
        '_skorra_ntp skorra-ntp "${!#}" "${COMP_WORDS[COMP_CWORD - 1]}"; printf "%s\\n" "${COMPREPLY[@]}"'
    done = subprocess.run(["bash", "-c", script, "bash", PACKAGING / "skorra-ntp.bash", "skorra-ntp", *words],
                          check=True, capture_output=True, text=True)
    return set(done.stdout.split())


class PapersTest(unittest.TestCase):
    def test_the_help_has_what_is_looked_for(self):
        self.assertIn("sync", commands())
        self.assertIn("--timeout", options_in(help_of("sync")))

    def test_the_page_has_each_command_and_option_and_no_other(self):
        parts = sections(page(), "SH")
        described = sections(parts["COMMANDS"], "SS")
        self.assertEqual(list(described), commands())
        self.assertEqual({word for word in tagged(parts["OPTIONS"]) if word[0] == "-"}, options_in(help_of()))
        for command, text in described.items():
            with self.subTest(command):
                own = options_in(help_of(command)) - {"-h", "--help"}
                self.assertEqual({word for word in tagged(text) if word[0] == "-"}, own)
                synopsis = re.search(rf"\.B skorra-ntp {command}\n((?!\.br).*\n)*", parts["SYNOPSIS"])[0]
                self.assertEqual(set(re.findall(r"--[\w-]+", synopsis)), own)

    def test_the_page_has_each_reason_agreement_and_exit_status(self):
        parts = sections(page(), "SH")
        text = help_of("sync")
        told = re.search(r"why the sync ended as it did:\n((?:  .*\n)+)", text)[1]
        reasons = {word for line in told.splitlines() for word in re.findall(r"\w+", line.strip().split("   ")[0])}
        self.assertGreater(len(reasons), 5)
        told = re.search(r"of the one that answered first:\n((?:  .*\n)+)", text)[1]
        agreements = {line.split()[0] for line in told.splitlines()}
        self.assertEqual(len(agreements), 4)
        self.assertEqual({w for w in tagged(sections(parts["COMMANDS"], "SS")["sync"]) if re.fullmatch("[a-z_]+", w)},
                         reasons | agreements)
        texts = [help_of(), text, help_of("serve"), help_of("demo")]
        status = set()
        for part in texts:
            told = re.split(r"Exit status:", part)[1].split("\n\n")[0]
            status |= set(re.findall(r"(?:^|, |or )\s*(\d+)(?=\s+[a-z])(?! ms)", told, re.MULTILINE))
        self.assertEqual(tagged(parts["EXIT STATUS"]), status)

    def test_the_page_has_each_key_of_the_json(self):
        done = subprocess.run([PROGRAM, "sync", "--json", "--timeout", "0.1", "127.0.0.1:9"], capture_output=True,
                              text=True)
        self.assertEqual(tagged(sections(page(), "SH")["JSON KEYS"]), set(json.loads(done.stdout)))

    def test_the_page_has_each_number_of_an_option(self):
        described = sections(sections(page(), "SH")["COMMANDS"], "SS")
        checked = 0
        for command in commands():
            told = dict(re.findall(r"^  (--[\w-]+) [A-Z]+ +(.*)$", help_of(command), re.MULTILINE))
            paragraphs = dict(re.findall(r"^\.TP\n\.\w+ \"?(--[\w-]+).*\n((?:[^.].*\n)+)", described[command],
                                         re.MULTILINE))
            for option, meaning in told.items():
                numbers = re.findall(r"\b\d[\d.:]*\b", meaning)
                self.assertLessEqual(set(numbers), set(re.findall(r"\b\d[\d.:]*\b", paragraphs[option])), option)
                checked += len(numbers)
        self.assertGreater(checked, 10)

    def test_the_page_tells_of_each_environment_variable_what_the_help_tells(self):
        text = help_of().split("\nEnvironment:\n")[1]
        told = dict(re.findall(r"^  (\w+)\n {6}(.*)$", text, re.MULTILINE))
        # A part of the resolver reads the last one.
        described = sections(page(), "SH")["ENVIRONMENT"]
        self.assertEqual(tagged(described), set(told) | {"HOSTALIASES"})
        paragraphs = dict(re.findall(r"^\.TP\n\.B (\w+)\n((?:[^.].*\n)+)", described, re.MULTILINE))
        for name, meaning in told.items():
            sentence = meaning[0].upper() + meaning[1:] + "."
            self.assertTrue(" ".join(paragraphs[name].split()).startswith(sentence), f"{name}: {sentence}")

    def test_the_page_is_formatted_without_a_warning(self):
        done = subprocess.run(["man", "--warnings", "-E", "UTF-8", "-l", "-Tutf8", "-Z", PACKAGING / "skorra-ntp.1"],
                              check=True, capture_output=True, text=True, env={**os.environ, "LC_ALL": "C.UTF-8"})
        self.assertEqual(done.stderr, "")

    def test_the_completion_offers_each_command_and_option_and_no_other(self):
        self.assertEqual(completions(""), set(commands()) | options_in(help_of()))
        for command in commands():
            with self.subTest(command):
                self.assertEqual(completions(command, "-"), options_in(help_of(command)))

    def test_the_completion_goes_by_the_word_before(self):
        self.assertEqual(completions("sy"), {"sync"})
        self.assertEqual(completions("sync", "--log-level", ""), {"0", "1", "2"})
        for option in options_in(help_of("serve")) - {"-h", "--help"}:
            self.assertEqual(completions("serve", option, "-"), set(), option)

    def warnings_of(self, configuration):
        """What the program says of a configuration file, before it finds that the server cannot be one."""
        with tempfile.NamedTemporaryFile("w", suffix=".toml") as file:
            file.write(configuration)
            file.flush()
            done = subprocess.run([PROGRAM, "sync", "not:an:address"], check=False, capture_output=True, text=True,
                                  env={"SKORRA_NTP_CONFIG": file.name, "PATH": "/usr/bin:/bin"})
        self.assertEqual(done.returncode, 64, done.stderr)
        return [line for line in done.stderr.splitlines() if "warning" in line]

    def test_the_example_has_each_key_and_is_read_without_a_warning(self):
        example = (PACKAGING / "skorra-ntp.toml").read_text()
        self.assertEqual(self.warnings_of(example), [])
        every_key = re.sub(r"^# (\w+ = )", r"\1", example, flags=re.MULTILINE)
        self.assertEqual(self.warnings_of(every_key), [])
        keys = re.findall(r"^(\w+) = ", every_key, re.MULTILINE)
        told = re.findall(r"the known keys are (.*)$", self.warnings_of("[ntp]\nno_such_key = 1\n")[0])
        self.assertEqual(", ".join(f"ntp.{key}" for key in keys), told[0])

    def test_the_example_holds_the_defaults(self):
        told = dict(re.findall(r"^  SKORRA_NTP_(\w+)\n.*default (\w+)\)$", help_of(), re.MULTILINE))
        self.assertEqual(told.pop("DEFAULT_DOMAIN"), "none")  # a comment in the example
        example = (PACKAGING / "skorra-ntp.toml").read_text()
        values = dict(re.findall(r'^(\w+) = "?(.*?)"?$', example, re.MULTILINE))
        self.assertGreater(len(values), 4)
        self.assertEqual({name.upper(): value for name, value in values.items()}, told)

    def test_the_version_is_the_same_everywhere(self):
        told = subprocess.run([PROGRAM, "--version"], check=True, capture_output=True, text=True).stdout.split()[1]
        self.assertEqual(re.search(r'^\.TH .*"skorra NTP (\S+)"', page(), re.MULTILINE)[1], told)
        changelog = (PACKAGING / "debian/changelog").read_text()
        self.assertEqual(re.match(r"skorra-ntp \((\S+)\) ", changelog)[1], told)


if __name__ == "__main__":
    unittest.main()
