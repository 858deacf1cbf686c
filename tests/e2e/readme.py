"""The blocks of README.md that say what a newcomer types and sees.

A fenced block whose first line is "```console NAME" can be run. In it
- a line that begins with "# " is typed, as root, in the top folder of the source tree; the lines after it that begin with
  "> " continue it;
- the lines up to the next typed line are what it prints, on standard output and standard error, word for word;
- a line "..." stands for any lines;
- in the table of `vqctl status` the columns PID, UPTIME and MEMORY vary: any value of the same form will do, and the
  number of blanks between columns does not count. This is the only rule for what varies.

The command of the block "start-by-hand" stays in the foreground.
"""

import dataclasses
import pathlib
import re

README = pathlib.Path(__file__).resolve().parents[2] / "README.md"
ANY_LINES = "..."
VARIABLE = {"PID": r"\d+", "UPTIME": r"\d+s|\d+m\d\ds|\d+h\d\dm|\d+d\d\dh", "MEMORY": r"\d+B|\d+\.\d[KMGTPE]"}


@dataclasses.dataclass
class Command:
    typed: str  # without prompts; more than one line if a here-document belongs to it
    expected: list[str] = dataclasses.field(default_factory=list)  # lines of output


def parse(text):
    """The runnable blocks of a Markdown text by name, each a list of Command, in the order of the text."""
    blocks = {}
    for name, body in re.findall(r"^```console *(\S*)\n(.*?)^```$", text, re.M | re.S):
        assert name and name not in blocks, f"a block has no name of its own: {name!r}"
        commands = blocks[name] = []
        for line in body.splitlines():
            if line.startswith("# "):
                commands.append(Command(line[2:]))
            elif line.startswith("> "):
                assert not commands[-1].expected, line
                commands[-1].typed += "\n" + line[2:]
            else:
                commands[-1].expected.append(line)
        assert commands, name
    return blocks


def blocks():
    """The runnable blocks of README.md."""
    return parse(README.read_text())


def without_what_varies(lines):
    """Lines of output in which each variable value of a status table is replaced by the name of its column."""
    result, columns = [], None
    for line in lines:
        words = line.split()
        if words[:2] == ["VPN", "NAMESPACE"]:
            columns = words
        elif columns and len(words) != len(columns):
            columns = None
        if columns:
            words = [column if re.fullmatch(VARIABLE.get(column, r"(?!)"), word) else word
                     for word, column in zip(words, columns)]
            line = " ".join(words)
        result.append(line)
    return result


def is_as_expected(command, output):
    """Whether the output of a command, standard output and standard error in one text, is the expected one."""
    lines = "".join(line + "\n" for line in without_what_varies(output.splitlines()))
    pattern = "".join("(?:.*\n)*" if line == ANY_LINES else re.escape(line) + "\n"
                      for line in without_what_varies(command.expected))
    return re.fullmatch(pattern, lines) is not None


def run_block(commands, run):
    """Runs the commands of a block. `run(typed)` executes one in a shell and returns its whole output."""
    for command in commands:
        output = run(command.typed)
        assert is_as_expected(command, output), \
            f"# {command.typed}\nexpected:\n" + "\n".join(command.expected) + f"\ngot:\n{output}"
