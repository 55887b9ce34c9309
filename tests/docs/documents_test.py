#!/usr/bin/python3
"""The documents refer only to things that exist: links, paths, commands and options, environment variables.

The environment variable DOCKHAND_BUILD_DIR names the build tree.
"""

import functools
import json
import os
import pathlib
import re
import shlex
import subprocess
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))
import sources

SOURCE = sources.ROOT
BUILD = pathlib.Path(os.environ.get("DOCKHAND_BUILD_DIR", SOURCE / "build" / "debug"))
NOT_OURS = {".git", "build", "node_modules", "gen-nodejs", "__pycache__"}


@functools.lru_cache
def files():
    """All files of the repository, as relative paths."""
    found = []
    for folder, folders, names in os.walk(SOURCE):
        folders[:] = sorted(set(folders) - NOT_OURS)
        found += [os.path.relpath(os.path.join(folder, name), SOURCE) for name in names]
    return sorted(found)


def documents():
    """(path, text) of each document."""
    return [(path, (SOURCE / path).read_text()) for path in files() if path.endswith(".md")]


def without_code(text):
    """A document without its code, because code may look like a link."""
    text = re.sub(r"^```.*?^```$", "", text, flags=re.MULTILINE | re.DOTALL)
    return re.sub(r"`[^`]*`", "`code`", text)


def anchor(heading):
    """The anchor of a heading on the usual forges."""
    text = re.sub(r"\[([^]]*)\]\([^)]*\)", r"\1", heading).replace("`", "").lower()
    return re.sub(r"[^\w\- ]", "", text).replace(" ", "-")


def anchors(text):
    text = re.sub(r"^```.*?^```$", "", text, flags=re.MULTILINE | re.DOTALL)
    return {anchor(heading) for heading in re.findall(r"^#+ (.*)$", text, re.MULTILINE)}


def codes(text):
    """The texts in backticks, outside of blocks."""
    text = re.sub(r"^```.*?^```$", "", text, flags=re.MULTILINE | re.DOTALL)
    return [" ".join(code.split()) for code in re.findall(r"`([^`]+)`", text)]


def commands(text):
    """Lines of shell blocks and of indented blocks without prompts, and texts in backticks."""
    blocks = re.findall(r"^```(?:sh|text)\n(.*?)^```$", text, re.MULTILINE | re.DOTALL)
    blocks += re.findall(
        r"^    \S.*$", re.sub(r"^```.*?^```$", "", text, flags=re.MULTILINE | re.DOTALL), re.MULTILINE
    )
    lines = [line.strip() for block in blocks for line in block.splitlines()]
    return [
        part.strip()
        for line in lines + codes(text)
        for part in re.split(r"&&|\||;", re.sub(r"^[#$] ", "", line))
    ]


def words_of(command):
    try:
        return shlex.split(command, comments=True)
    except ValueError:
        return command.split()


def calls_of(program):
    """(document, arguments) of each call of a program."""
    for path, text in documents():
        for command in commands(text):
            words = words_of(command)
            if words[:1] == [program]:
                yield path, words[1:]


@functools.lru_cache
def help_of(*command):
    return subprocess.run(
        [str(BUILD / "bin" / "dockhandctl"), *command, "--help"],
        check=True,
        stdout=subprocess.PIPE,
        text=True,
    ).stdout


class LinksTest(unittest.TestCase):
    def test_links_lead_to_existing_files_and_headings(self):
        texts = dict(documents())
        count = 0
        for path, text in texts.items():
            for target in re.findall(r"\]\(([^)]*)\)", without_code(text)):
                if re.match(r"https?://\S+$", target):
                    continue
                file, _, heading = target.partition("#")
                linked = os.path.normpath(os.path.join(os.path.dirname(path), file)) if file else path
                self.assertTrue((SOURCE / linked).exists(), f"{path}: {target}")
                if heading:
                    self.assertIn(heading, anchors(texts[linked]), f"{path}: {target}")
                count += 1
        self.assertGreater(count, 50)

    def test_every_document_can_be_reached_from_the_readme(self):
        texts = dict(documents())
        reached, waiting = set(), ["README.md"]
        while waiting:
            path = waiting.pop()
            if path in reached or path not in texts:
                continue
            reached.add(path)
            for target in re.findall(r"\]\(([^)#:]+)[^)]*\)", without_code(texts[path])):
                waiting.append(os.path.normpath(os.path.join(os.path.dirname(path), target)))
        self.assertEqual(sorted(set(texts) - reached), [])


class PathsTest(unittest.TestCase):
    def test_paths_of_the_repository_exist(self):
        top = {path.split("/")[0] for path in files()}
        count = 0
        for path, text in documents():
            for code in codes(text):
                if (
                    re.fullmatch(r"[\w.@*-]+(/[\w.@*-]+)*/?", code)
                    and "/" in code
                    and code.split("/")[0] in top
                ):
                    # The log calls modules by the former names of their sources.
                    found = list(SOURCE.glob(code.rstrip("/"))) or list(SOURCE.glob(code + ".cpp"))
                    self.assertTrue(found, f"{path}: {code}")
                    count += 1
        self.assertGreater(count, 40)

    def test_names_of_sources_are_names_of_files(self):
        names = {pathlib.PurePath(path).name for path in files()}
        count = 0
        for path, text in documents():
            for code in codes(text):
                if re.fullmatch(r"[\w-]+\.(cpp|h|py|mk|\*)", code):
                    stem = code.removesuffix("*")
                    self.assertTrue(any(name.startswith(stem) for name in names), f"{path}: {code}")
                    count += 1
        self.assertGreater(count, 20)

    def test_map_of_the_sources_is_complete(self):
        listed = [code for code in codes((SOURCE / "docs" / "ARCHITECTURE.md").read_text())]
        for path in files():
            name = pathlib.PurePath(path).name
            if path.startswith("Src/Dockhand/") and name.endswith((".cpp", ".h")):
                stem = name.rsplit(".")[0]
                self.assertTrue({name, stem + ".*"} & set(listed), name)
        split = {"Src", "tests", "tools"}
        folders = {path.split("/")[0] for path in files() if "/" in path} - split - {".ci", "docs"}
        folders |= {
            "/".join(path.split("/")[:2])
            for path in files()
            if path.split("/")[0] in split and path.count("/") > 1
        }
        for folder in folders:
            self.assertIn(folder + "/", listed)


class CommandsTest(unittest.TestCase):
    def test_checks_of_the_test_command_exist(self):
        output = subprocess.run(
            [str(SOURCE / "test"), "help"], check=True, stdout=subprocess.PIPE, text=True
        ).stdout
        known = set(re.findall(r"^  (\w+)(?: |$)", output, re.MULTILINE)) | {"all", "help", "NAME..."}
        calls = list(calls_of("./test"))
        self.assertGreater(len(calls), 10)
        listed = re.search(r"--release ((?:\w+, )+\w+) or\s+(\w+)", output)
        releases = [*listed[1].split(", "), listed[2]]
        for path, arguments in calls:
            while "--release" in arguments:
                place = arguments.index("--release")
                self.assertIn("".join(arguments[place + 1 : place + 2]), ["", *releases], path)
                del arguments[place : place + 2]
            self.assertLessEqual(set(arguments), known, path)

    def test_number_of_operations_is_that_of_the_interface(self):
        number = len(sources.signatures_of_the_interface())
        found = 0
        for path in files():
            if path.endswith((".md", ".svg", ".thrift", ".h", ".1", ".8")) and path != "CHANGELOG.md":
                for stated in re.findall(r"(?<![\d,])(\d\d+) operations\b", (SOURCE / path).read_text()):
                    found += 1
                    self.assertEqual(int(stated), number, path)
        self.assertGreater(found, 0)

    def test_presets_exist(self):
        presets = json.loads((SOURCE / "CMakePresets.json").read_text())
        known = {preset["name"] for preset in presets["configurePresets"] if not preset.get("hidden")}
        calls = [(path, arguments) for path, arguments in calls_of("cmake") if "--preset" in arguments]
        self.assertGreater(len(calls), 3)
        for path, arguments in calls:
            self.assertIn(arguments[arguments.index("--preset") + 1], known, path)
        self.assertLessEqual(known, set(codes((SOURCE / "README.md").read_text())))

    def test_commands_of_the_client_exist_with_their_options(self):
        known = set(re.findall(r"^  ([a-z-]+) ", re.split("(?i)subcommands:", help_of())[-1], re.MULTILINE))
        calls = [(path, arguments) for path, arguments in calls_of("dockhandctl") if arguments]
        self.assertGreater(len(calls), 10)
        operations = re.findall(r"^  ([A-Z]\w+)", help_of("call"), re.MULTILINE) + ["OPERATION"]
        for path, arguments in calls:
            options = [word.partition("=")[0] for word in arguments if word.startswith("--")]
            names = [word for word in arguments if not word.startswith("-")]
            if names:
                self.assertIn(names[0], known, path)
            text = help_of(*names[:1]) + help_of()
            for option in options:
                self.assertRegex(text, rf"(?m)[ ,]{option}\b", f"{path}: {arguments}")
            if names[:1] == ["call"]:
                self.assertLessEqual(set(names[1:2]), set(operations), path)

    def test_client_calls_every_operation_of_the_interface(self):
        expected = []
        for name, signature in sources.signatures_of_the_interface().items():
            arguments = re.findall(r"(\w+) (\w+)[,)]", signature)
            expected.append(" ".join([name, *(f"{argument}:{kind}" for kind, argument in arguments)]))
        self.assertEqual(re.findall(r"^  ([A-Z]\w+.*)$", help_of("call"), re.MULTILINE), expected)

    def test_scripts_take_the_options(self):
        for script in (
            "./try fuzz/run bench/compare tests/vm/run tests/examples/build "
            "packaging/debian/build packaging/cross/sizes packaging/cross/sysroot"
        ).split():
            self.assertTrue(os.access(SOURCE / script, os.X_OK), script)
            for path, arguments in calls_of(script):
                text = (SOURCE / script).read_text()
                for option in (word for word in arguments if word.startswith("-")):
                    self.assertIn(f"{option}", text, f"{path}: {script} {option}")

    def test_cmake_variables_exist(self):
        cmake = "".join((SOURCE / path).read_text() for path in files() if path.endswith("CMakeLists.txt"))
        count = 0
        for path, text in documents():
            for variable in re.findall(r"-D(DOCKHAND_\w+)", text):
                self.assertRegex(cmake, rf"(option|set)\({variable}\b", path)
                count += 1
        self.assertGreater(count, 2)

    def test_test_programs_and_their_suites_exist(self):
        cmake = "".join((SOURCE / path).read_text() for path in files() if path.endswith("CMakeLists.txt"))
        tests = "".join((SOURCE / path).read_text() for path in files() if path.endswith("Test.cpp"))
        for path, text in documents():
            for program, suite in re.findall(r"build/\w+/bin/(\w+)(?: --gtest_filter=.(\w+))?", text):
                self.assertRegex(cmake, rf"add_executable\({program}\b", path)
                self.assertRegex(tests, rf"\({suite}", path)

    def test_environment_variables_are_read_somewhere(self):
        sources = "".join(
            (SOURCE / path).read_text(errors="replace")
            for path in files()
            if path.endswith((".cpp", ".h", ".py", ".sh", ".txt")) or "." not in os.path.basename(path)
        )
        count = 0
        for path, text in documents():
            for variable in re.findall(r"\b(?:TLOG|RAVEL|DOCKHAND|PRIVATE_ROOT)_[A-Z_]+[A-Z]\b", text):
                self.assertRegex(sources, rf"\b{variable}\b", path)
                count += 1
        self.assertGreater(count, 5)

    def test_table_in_the_session_has_the_headings_of_the_client(self):
        headings = re.search(
            r"Table table\({(.*?)}\)", (SOURCE / "tools/dockhandctl/Reading.cpp").read_text()
        )[1]
        expected = " ".join(re.findall(r'"(.*?)"', headings))
        tables = re.findall(r"^NO .*$", (SOURCE / "README.md").read_text(), re.MULTILINE)
        self.assertGreater(len(tables), 0)
        for table in tables:
            self.assertEqual(" ".join(table.split()), expected)


class PackagesTest(unittest.TestCase):
    def test_tables_of_packages_are_the_lists_of_the_scripts(self):
        def column(page, heading):
            """The names in the last column of the section's first table, by the text of its first column."""
            section = (SOURCE / "docs" / page).read_text().partition(f"\n## {heading}\n")[2]
            rows = section.partition("\n|")[2].partition("\n\n")[0].splitlines()
            cells = [row.strip("| ").split(" | ") for row in rows[2:]]
            return {row[0]: set(codes(row[-1])) for row in cells}

        daemon = set().union(*column("INTEGRATION.md", "1. Packages").values())
        rows = column("PACKAGING.md", "What a build needs")
        processors = {row.rpartition(" ")[2]: names for row, names in rows.items() if row.startswith("for ")}
        common = processors.pop("processor")
        expected = {"build": daemon, "debian": daemon | rows["the Debian packages"], "cross": common}
        expected.update((processor, common | names) for processor, names in processors.items())
        script = (
            ". tools/dev/packages.sh; for name; do declare -n list=${name}_packages; echo ${list[*]}; done"
        )
        lists = subprocess.run(
            ["bash", "-c", script, "bash", *expected],
            cwd=SOURCE,
            check=True,
            stdout=subprocess.PIPE,
            text=True,
        ).stdout.splitlines()
        self.assertEqual(expected, {name: set(list.split()) for name, list in zip(expected, lists)})
        toolchains = (SOURCE / "packaging" / "cross").glob("*.cmake")
        self.assertEqual(set(processors), {path.stem for path in toolchains} - {"sysroot"})


class FormTest(unittest.TestCase):
    def test_lines_have_at_most_120_columns(self):
        for path, text in documents():
            for number, line in enumerate(text.splitlines(), 1):
                self.assertLessEqual(len(line), 120, f"{path}:{number}")

    def test_files_end_with_one_newline_and_lines_have_no_blanks_at_their_ends(self):
        for path, text in documents():
            self.assertRegex(text, r"[^\n]\n\Z", path)
            self.assertNotRegex(text, r"[ \t]\n", path)


if __name__ == "__main__":
    unittest.main()
