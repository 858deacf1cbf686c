"""What the programs print about themselves, and the source files that say what they accept."""

import os
import pathlib
import re
import subprocess

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ["KAVEL_BUILD"])


def help_of(program, *words):
    return subprocess.run([BUILD / program, *words, "--help"], check=True, text=True, capture_output=True).stdout


def section(text, title):
    """The lines of a section of the help of a program with commands, which ends with an empty line."""
    found = re.search(rf"^{title}:\n(.*?)(?:\n\n|\Z)", text, re.M | re.S)
    return found[1].splitlines() if found else []


def options(text):
    """The names of each option: [("-h", "--help"), ...]."""
    names = re.compile(r"  (-\S+?)(?:=\S*)?(?: |$)")
    return [tuple(found[1].split(",")) for line in section(text, "Options") if (found := names.match(line))]


def commands(text):
    return [line.split()[0] for line in section(text, "Subcommands")]


def all_commands(program, *words):
    """Every command of a program that does something, as a tuple of words: ("vpn", "init")."""
    below = commands(help_of(program, *words))
    return [leaf for word in below for leaf in all_commands(program, *words, word)] if below else [words]


def options_of(program, *words):
    """The options of a command that the program itself does not have."""
    common = options(help_of(program))
    return [names for names in options(help_of(program, *words)) if names not in common]
