#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Holds the man page, the bash completion and the example configuration against the program itself.

Each command, option, environment variable, reason and exit status that `--help` tells is in the man page, and each that
is there is told by `--help`. The completion offers each command and option where it belongs, and nothing else. The
program reads the example without a warning, and the values there are the defaults. The page and the changelog of the
Debian packages tell the program's version.

usage: papers.py SKORRA_NTP_PROGRAM
"""
import os
import pathlib
import re
import subprocess
import sys
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

    def test_the_page_has_each_reason_and_exit_status(self):
        parts = sections(page(), "SH")
        text = help_of("sync")
        told = re.search(r"why the sync ended as it did:\n((?:  .*\n)+)", text)[1]
        reasons = {word for line in told.splitlines() for word in re.findall(r"\w+", line.strip().split("   ")[0])}
        self.assertGreater(len(reasons), 5)
        self.assertEqual({w for w in tagged(sections(parts["COMMANDS"], "SS")["sync"]) if re.fullmatch("[a-z_]+", w)},
                         reasons)
        texts = [help_of(), text, help_of("serve"), help_of("demo")]
        status = set()
        for part in texts:
            told = re.split(r"Exit status:", part)[1].split("\n\n")[0]
            status |= set(re.findall(r"(?:^|, |or )\s*(\d+)(?=\s+[a-z])(?! ms)", told, re.MULTILINE))
        self.assertEqual(tagged(parts["EXIT STATUS"]), status)

    def test_the_page_has_each_environment_variable_with_its_default(self):
        text = help_of().split("\nEnvironment:\n")[1]
        told = dict(re.findall(r"^  (\w+)\n {6}(.*)$", text, re.MULTILINE))
        # A part of the resolver reads the last one.
        described = sections(page(), "SH")["ENVIRONMENT"]
        self.assertEqual(tagged(described), set(told) | {"HOSTALIASES"})
        paragraphs = dict(re.findall(r"^\.TP\n\.B (\w+)\n((?:[^.].*\n)+)", described, re.MULTILINE))
        for name, meaning in told.items():
            if default := re.search(r"default (\w+)\)$", meaning):
                self.assertRegex(paragraphs[name], rf"\b{default[1]} when not\s+set\b", name)

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

    def test_the_example_is_read_without_a_warning_and_holds_the_defaults(self):
        example = PACKAGING / "skorra-ntp.toml"
        environment = {"SKORRA_NTP_CONFIG": str(example), "PATH": "/usr/bin:/bin"}
        done = subprocess.run([PROGRAM, "sync", "not:an:address"], env=environment, capture_output=True, text=True,
                              check=False)
        self.assertNotIn("warning", done.stderr + done.stdout)
        told = dict(re.findall(r"^  SKORRA_NTP_(\w+)\n.*default (\w+)\)$", help_of(), re.MULTILINE))
        told.pop("DEFAULT_DOMAIN")
        values = dict(re.findall(r"^(\w+) = (\d+)$", example.read_text(), re.MULTILINE))
        self.assertEqual({name.upper(): value for name, value in values.items()}, told)

    def test_the_version_is_the_same_everywhere(self):
        told = subprocess.run([PROGRAM, "--version"], check=True, capture_output=True, text=True).stdout.split()[1]
        self.assertEqual(re.search(r'^\.TH .*"skorra NTP (\S+)"', page(), re.MULTILINE)[1], told)
        changelog = (PACKAGING / "debian/changelog").read_text()
        self.assertEqual(re.match(r"skorra-ntp \((\S+)\) ", changelog)[1], told)


if __name__ == "__main__":
    unittest.main()
