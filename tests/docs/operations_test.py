#!/usr/bin/python3
"""docs/OPERATIONS.md agrees with the interface and with the daemon's sources."""

import pathlib
import re
import unittest

SOURCE = pathlib.Path(__file__).resolve().parents[2]
LABELS = ["Arguments", "Reply", "Errors", "Lock", "Waits for", "Log"]

# The log lines of a routine that only one operation uses are in that operation's section.
SECTION_OF_ROUTINE = {
    "insertDevice": "CheckForAndUpdateNewDevices",
    "clearAutomounts": "OpenDeviceAt",
    "readdir": "GetFilesByExtension",
    "replayJournal": "RunDiskRepair",
    "repair": "RunDiskRepair",
    "prepareDisk": "PrepareDeviceForPvr",
    "acceptMountError": "Texts for a failed mount",
    "logRpcMessage": "Start and connections",
    "main": "Start and connections",
    "DockhandServer": "Start and connections",
}

LITERAL = r'"(?:\\.|[^"\\])*"'
TOKEN = re.compile(rf"{LITERAL}|\'(?:\\.|[^\'\\])\'|//[^\n]*|.", re.DOTALL)


def read(path):
    return (SOURCE / path).read_text()


def sources():
    return [path.read_text() for path in sorted((SOURCE / "Src" / "Dockhand").glob("*.cpp"))]


def split_outside_parentheses(code, separator):
    """The parts of an expression, up to the parenthesis that closes the one before the code."""
    parts, depth = [""], 0
    for token in TOKEN.findall(code):
        if token.startswith("//"):
            continue
        depth += (token in "([{") - (token in ")]}")
        if depth < 0:
            break
        if depth == 0 and token == separator:
            parts.append("")
        else:
            parts[-1] += token
    return [part.strip() for part in parts]


def calls(code, function):
    """Position and arguments of each call."""
    for found in re.finditer(rf"(?<![\w:]){re.escape(function)}\(", code):
        yield found.start(), split_outside_parentheses(code[found.end() :], ",")


def text_of(pieces):
    """The text that the pieces of an expression form, with <> for values that are not in the source."""
    text = ""
    for piece in pieces:
        if re.fullmatch(rf"(?:{LITERAL}\s*)+", piece):
            text += "".join(literal[1:-1] for literal in re.findall(LITERAL, piece))
        elif piece != "std::hex":
            text += "<>"
    return re.sub(r'\\(["\\])', r"\1", text).rstrip()


def routine_at(code, position):
    """The function at a position: the last one that begins at the left margin before it."""
    return re.findall(r"^\w[^\n;]*?(\w+)\(", code[:position], re.MULTILINE)[-1]


def log_lines_of_the_daemon():
    """(module, number): (level, text, routine) of every call site."""
    lines = {}
    for code in sources():
        for module, log in (("", "usbClientLog"), ("main", "mainLog"), ("server", "serverLog")):
            for position, (level, number, *pieces) in calls(code, log + ".write"):
                # The unmount loop logs for its callers, who pass the number.
                if number != "sourceLine":
                    lines[module, int(number)] = int(level), text_of(pieces), routine_at(code, position)
        for position, (_, number, occasion) in calls(code, "forceUnmount"):
            if number.isdigit():
                lines["", int(number)] = (
                    3,
                    text_of(['"unmounted: "', "node", occasion]),
                    routine_at(code, position),
                )
    return lines


def commands_of_the_daemon():
    commands = {}
    for code in sources():
        for _, (command, number, *_) in calls(code, "executeShellCommand"):
            if number.isdigit():
                commands[int(number)] = text_of(split_outside_parentheses(command, "+"))
    return commands


def failure_texts(table):
    code = read("Src/Dockhand/FailureJudges.cpp")
    rows = re.search(rf"{table}Failures\[\] = {{(.*?)\n}};", code, re.DOTALL)[1]
    texts = {}
    for row in re.findall(r"{(E[A-Z]+.*?)}", rows, re.DOTALL):
        error, text, accepted = split_outside_parentheses(row, ",")
        texts[error] = ("yes" if accepted == "true" else "no", text_of([text]))
    others = re.search(rf"unknown{table.capitalize()}Failure = {{0, ({LITERAL}), false}}", code)[1]
    texts["others"] = ("no", text_of([others]))
    return texts


def signatures_of_the_interface():
    service = read("rpc/usb_rpc.thrift").partition("service usb_rpc_gen_ ")[2]
    code = re.sub(r"/\*.*?\*/", "", service, flags=re.DOTALL)
    signatures = {}
    for result, name, arguments in re.findall(r"(\S+) (\w+)\(([^)]*)\)", code):
        arguments = ", ".join(re.findall(r"\d+: (\w+ \w+)", arguments))
        signatures[name] = f"{result} {name}({arguments})"
    return signatures


def sections():
    """Title: text, of every section of the third level."""
    parts = re.split(r"^### (.*)\n", read("docs/OPERATIONS.md"), flags=re.MULTILINE)
    return {title: text.partition("\n## ")[0] for title, text in zip(parts[1::2], parts[2::2])}


def quoted_lines(pattern):
    """Title and groups of every matching line in a fenced block."""
    for title, text in sections().items():
        for block in re.findall(r"^```text\n(.*?)^```$", text, re.MULTILINE | re.DOTALL):
            for line in block.splitlines():
                if found := re.fullmatch(pattern, line):
                    yield title, *found.groups()


def without_names(text):
    return re.sub(r"<[^<>]*>", "<>", text)


class OperationsDocumentTest(unittest.TestCase):
    def test_every_operation_has_its_section_with_the_signature_of_the_interface(self):
        documented = {}
        for title, text in sections().items():
            signature = re.search(rf"^`(.* {title}\(.*)`$", text, re.MULTILINE)
            if signature:
                documented[title] = signature[1]
        self.assertEqual(len(documented), 25)
        self.assertEqual(documented, signatures_of_the_interface())

    def test_every_operation_is_in_the_table_in_the_order_of_the_interface(self):
        rows = re.findall(r"^\| \[(\w+)\]\(#(\w+)\) \|", read("docs/OPERATIONS.md"), re.MULTILINE)
        self.assertEqual([name for name, _ in rows], list(signatures_of_the_interface()))
        for name, anchor in rows:
            self.assertEqual(anchor, name.lower())

    def test_every_operation_says_what_its_callers_have_to_know(self):
        for name in signatures_of_the_interface():
            self.assertEqual(
                re.findall(r"^- \*\*(.*?)\*\*:", sections().get(name, ""), re.MULTILINE), LABELS, name
            )

    def test_every_log_line_of_the_daemon_is_quoted_as_it_is_written(self):
        quoted = {}
        for _, module, number, level, text in quoted_lines(r"(?:(main|server) )?(\d+) (\d)  (.*)"):
            self.assertNotIn((module, number), quoted)
            quoted[module or "", int(number)] = int(level), without_names(text)
        written = {key: (level, text) for key, (level, text, _) in log_lines_of_the_daemon().items()}
        self.assertGreater(len(written), 100)
        self.assertEqual(quoted, written)

    def test_log_lines_are_quoted_in_the_section_of_the_operation_that_writes_them(self):
        places = {
            (module or "", int(number)): title
            for title, module, number in quoted_lines(r"(?:(main|server) )?(\d+) \d  .*")
        }
        for key, (_, text, routine) in log_lines_of_the_daemon().items():
            self.assertEqual(places.get(key), SECTION_OF_ROUTINE.get(routine, routine), text)

    def test_commands_of_the_shell_are_quoted_with_their_numbers(self):
        quoted = {
            int(number): without_names(command) for _, number, command in quoted_lines(r"(\d+)  (\D.*)")
        }
        self.assertGreater(len(quoted), 5)
        self.assertEqual(quoted, commands_of_the_daemon())

    def test_texts_for_failed_calls_are_those_of_the_judges(self):
        quoted = {}
        for title, error, accepted, text in quoted_lines(r"(E[A-Z]+|others) +(yes|no)(?: +(.*))?"):
            quoted.setdefault(title, {})[error] = accepted, text or ""
        self.assertEqual(
            quoted,
            {
                "Texts for a failed mkdir": failure_texts("mkdir"),
                "Texts for a failed mount": failure_texts("mount"),
            },
        )

    def test_mount_table_is_that_of_the_daemon(self):
        rows = re.findall(r'{"(.*?)", "(.*?)", (.*?), "(.*?)"}', read("Src/Dockhand/MountTable.h"))
        names = {"MS_NOSUID": "nosuid", "MS_NOEXEC": "noexec", "MS_NOATIME": "noatime", "MS_RDONLY": "ro"}
        expected = []
        for probed, mounted, flags, options in rows:
            flags = [names[flag] for flag in flags.split(" | ") if flag != "MS_MGC_VAL"]
            expected.append([probed, mounted, options, ", ".join(flags)])
        self.assertGreater(len(expected), 0)
        quoted = [
            [cell.strip(" `") for cell in row.strip("|").split("|")]
            for row in re.findall(r"^\| `.*\|$", sections()["The mount table"], re.MULTILINE)
        ]
        self.assertEqual(quoted, expected)


if __name__ == "__main__":
    unittest.main()
