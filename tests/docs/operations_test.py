#!/usr/bin/python3
"""docs/OPERATIONS.md agrees with the interface and with the daemon's sources."""

import functools
import pathlib
import re
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))
import sources

LABELS = ["Arguments", "Reply", "Errors", "Lock", "Waits for", "Log"]

# The log lines of a routine that only one operation uses are in that operation's section.
SECTION_OF_ROUTINE = {
    "insert": "CheckForAndUpdateNewDevices",
    "clear": "CheckForAndRemoveMount",
    "lookUp": "getBlkidLookupValue",
    "run": "executeShellCommand",
    "claim": "Files in /tmp",
    "clearAutomounts": "OpenDeviceAt",
    "readdir": "GetFilesByExtension",
    "replayJournal": "RunDiskRepair",
    "rmdir": "The mount policy",
    "repair": "RunDiskRepair",
    "prepareDisk": "PrepareDeviceForPvr",
    "acceptMountError": "Texts for a failed mount",
    "logRpcMessage": "Start and connections",
    "startMountPolicy": "Start and connections",
    "main": "Start and connections",
    "DockhandServer": "Start and connections",
}

MODULES = {"Dockhand.UsbClient": "", "Dockhand.main": "main", "Dockhand.UsbServer": "server"}


def read(path):
    return (sources.ROOT / path).read_text()


def text_of(pieces):
    """The text that the pieces of an expression form, with <> for values that are not in the source."""
    text = ""
    for piece in pieces:
        if all(token.kind == "string" for token in piece):
            text += "".join(token.text[1:-1] for token in piece)
        elif sources.spelling(piece) != "std :: hex":
            text += "<>"
    return re.sub(r'\\(["\\])', r"\1", text).rstrip()


@functools.lru_cache
def sites_of_the_daemon():
    return sources.call_sites(sources.daemon_sources(".cpp"))[0]


def log_lines_of_the_daemon():
    """(module, number): (level, text, routine) of every call site."""
    lines = {}
    for site in sites_of_the_daemon():
        log, _, level = site.callee.partition(".")
        if log in sources.LOGS:
            line = sources.LEVELS[level], text_of(site.arguments[1:])
        elif site.callee == "forceUnmount":
            # It logs this for its callers.
            line = 3, text_of([*map(sources.tokens_of, ['"unmounted: "', "node"]), site.arguments[2]])
        else:
            continue
        lines[MODULES[site.module], site.number] = *line, site.routine
    return lines


def commands_of_the_daemon():
    return {
        site.number: text_of(sources.split(site.arguments[0], "+"))
        for site in sites_of_the_daemon()
        if site.callee == "executeShellCommand"
    }


def failure_texts(table):
    code = read("Src/Dockhand/FailureJudges.cpp")
    rows = re.search(rf"{table}Failures\[\] = {{(.*?)\n}};", code, re.DOTALL)[1]
    texts = {}
    for row in re.findall(r"{(E[A-Z]+.*?)}", rows, re.DOTALL):
        (error,), text, (accepted,) = sources.split(sources.tokens_of(row), ",")
        texts[error.text] = ("yes" if accepted.text == "true" else "no", text_of([text]))
    others = re.search(rf'unknown{table.capitalize()}Failure = {{0, ("[^"]*"), false}}', code)[1]
    texts["others"] = ("no", text_of([sources.tokens_of(others)]))
    return texts


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
        self.assertGreater(len(documented), 0)
        self.assertEqual(documented, sources.signatures_of_the_interface())

    def test_every_operation_is_in_the_table_in_the_order_of_the_interface(self):
        rows = re.findall(r"^\| \[(\w+)\]\(#(\w+)\) \|", read("docs/OPERATIONS.md"), re.MULTILINE)
        self.assertEqual([name for name, _ in rows], list(sources.signatures_of_the_interface()))
        for name, anchor in rows:
            self.assertEqual(anchor, name.lower())

    def test_every_operation_says_what_its_callers_have_to_know(self):
        for name in sources.signatures_of_the_interface():
            self.assertEqual(
                re.findall(r"^- \*\*(.*?)\*\*:", sections().get(name, ""), re.MULTILINE), LABELS, name
            )

    def test_every_operation_is_defined_in_the_file_that_its_declaration_names(self):
        declarations = read("Src/Dockhand/DockhandClient.h").partition("  // HotPlug.cpp\n")
        files, name_of_file = {}, ""
        for line in (declarations[1] + declarations[2]).splitlines():
            if comment := re.fullmatch(r"  // (\w+\.cpp)", line):
                name_of_file = comment[1]
            elif declared := re.match(r"  \S+ (\w+)\(", line):
                files[declared[1]] = name_of_file
        for name in sources.signatures_of_the_interface():
            self.assertIn(name, files)
            self.assertIn(f" DockhandClient::{name}(", read(f"Src/Dockhand/{files[name]}"), name)

    def test_every_operation_has_its_tests(self):
        for name in sources.signatures_of_the_interface():
            self.assertIn(f"usb->{name}(", read("tests/rpc/ServiceTest.cpp"))
            self.assertTrue(
                (sources.ROOT / "fuzz/corpus/rpc_front" / name).exists(), f"no call of {name} to fuzz"
            )
            # The notifications wait for observers without the lock, and take no number.
            if not name.startswith("NotifyUsb"):
                self.assertRegex(read("tests/unit/EveryOperationTest.cpp"), rf"\b{name}\b")

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
        names = {"MS_NOSUID": "nosuid", "MS_NOEXEC": "noexec", "MS_NOATIME": "noatime", "MS_RDONLY": "ro"}
        expected = []
        for probed, mounted, flags, options in sources.rows_of_the_mount_table():
            flags = [names[flag] for flag in flags.split(" | ") if flag != "MS_MGC_VAL"]
            expected.append([probed, mounted, options, ", ".join(flags)])
        self.assertGreater(len(expected), 0)
        quoted = [
            [cell.strip(" `") for cell in row.strip("|").split("|")]
            for row in re.findall(r"^\| `.*\|$", sections()["The mount table"], re.MULTILINE)
        ]
        self.assertEqual(quoted, expected)

    def test_file_systems_of_the_mount_table_are_listed_wherever_file_systems_are(self):
        names = sources.file_systems()
        for path, sentence in (
            ("Src/Dockhand/dockhand.8", r"File systems are ([^.]*?), with the mount options"),
            ("rpc/usb_rpc.thrift", r"File systems: ([^.]*)\."),
        ):
            listed = re.search(sentence, re.sub(r"\s+(\* )?", " ", read(path)))[1]
            self.assertEqual(re.split(r", | and ", listed), names, path)
        options = {}
        for _, name, _, option in sources.rows_of_the_mount_table():
            if option and name not in options.setdefault(option, []):
                options[option].append(name)
        page = " ".join(read("Src/Dockhand/dockhand.8").split())
        sentence = re.search(r"with the mount options ([^.]*)\.", page)[1]
        listed = re.findall(r"([\w=]+) \((.*?)\)", sentence)
        self.assertEqual({option: users.split(", ") for option, users in listed}, options)
        kernel = read("docs/INTEGRATION.md").partition("\n## 3. ")[2].partition("\n## ")[0]
        for name in names:
            self.assertIn(f"CONFIG_{name.upper()}_FS", kernel)

    def test_every_file_system_of_the_mount_table_has_its_tests(self):
        for name in sources.file_systems():
            for path in ("tests/vm/test_disks.py", "tests/vm/test_file_systems.py"):
                self.assertIn(f"def test_{name}_", read(path), path)
            self.assertIn(f'"{name}"', read("tests/system/DamagedDisksTest.cpp"))
            # The kernel refuses every mount of hfs: see tests/vm/test_disks.py.
            if name != "hfs":
                self.assertIn(f'"{name}"', read("tests/system/FileSystemsTest.cpp"))


if __name__ == "__main__":
    unittest.main()
