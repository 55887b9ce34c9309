#!/usr/bin/python3
"""The line numbers of the log: readers of the log tell call sites by them, so no two sites of a module share one."""

import collections
import pathlib
import re
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))
import sources

FILES = sources.daemon_sources(".cpp", ".h")


def shared_numbers(sites):
    return [name for name, count in collections.Counter(map(str, sites)).items() if count > 1]


def descending_numbers(sites, exceptions=()):
    """Numbers that are lower than the one before them in the same function."""
    checked = [site for site in sites if site.number not in exceptions]
    return [
        str(site)
        for previous, site in zip(checked, checked[1:])
        if (previous.file, previous.function) == (site.file, site.function) and previous.number > site.number
    ]


class LineNumbersTest(unittest.TestCase):
    def setUp(self):
        self.sites, unreadable = sources.call_sites(FILES)
        self.assertEqual(unreadable, [])

    def test_no_two_call_sites_of_a_module_share_a_number(self):
        self.assertEqual(shared_numbers(self.sites), [])

    def test_numbers_ascend_within_each_function(self):
        # The refusals of a repair keep the numbers of their former places.
        self.assertEqual(descending_numbers(self.sites, {1255, 1260}), [])

    def test_numbers_are_found_at_every_call_site(self):
        counts = collections.Counter(site.callee.partition(".")[0] for site in self.sites)
        for callee, least in (
            ("usbClientLog", 102),
            ("mainLog", 2),
            ("serverLog", 4),
            ("forceUnmount", 3),
            ("executeShellCommand", 6),
        ):
            self.assertGreaterEqual(counts[callee], least, callee)
        contexts = {str(site) for site in self.sites if site.callee == "TlogContext::GetLogContext"}
        self.assertEqual(contexts, {"Dockhand.main 10", "Dockhand.UsbClient 18", "Dockhand.UsbServer 5"})

    def test_only_the_log_itself_and_the_unmount_loop_pass_a_number_on(self):
        # So no call site hides behind a variable.
        passed_on, declared = collections.Counter(), 0
        for name, code in FILES:
            text = sources.spelling(sources.tokens_of(code))
            declared += text.count("int sourceLine ,")
            passed_on[name] += len(re.findall(r"(?<!int )\bsourceLine ,", text))
        self.assertEqual(declared, 11)
        self.assertEqual(+passed_on, {"ModuleLog.h": 5, "PvrPreparation.cpp": 1, "Shell.cpp": 1})

    def test_numbers_are_given_in_no_other_way(self):
        for name, code in FILES:
            text = sources.spelling(sources.tokens_of(code))
            self.assertEqual("TlogPrintf (" in text, name == "ModuleLog.h", name)
            if name != "ModuleLog.h":
                self.assertNotRegex(text, r"[Ll]og (\.|->) write \(", name)
            for log, level in re.findall(r"(\S+) (?:\.|->) (trace|notice|warning|error) \(", text):
                self.assertIn(f"{log}.{level}", sources.CALLEES, name)


class ReadingTest(unittest.TestCase):
    def test_calls_of_every_form_are_read(self):
        code = r"""
void f() {
  usbClientLog.trace(10, "a");  // usbClientLog.trace(11, no);
  /* mainLog.error(12) */ usbClientLog.notice(
                     20, wanted(2, 'x', ")"), "b");
  forceUnmount("a, 13" + node('(', "\",14"), 30, "");
}
int g(int a) {
  return executeShellCommand("x, y" + at[f(a, 1)], 15, true);
}
int executeShellCommand(const std::string& command, int sourceLine, bool always);
"""
        sites, unreadable = sources.call_sites([("Sample.cpp", code)])
        self.assertEqual(
            [(site.callee, site.number, site.function, site.routine) for site in sites],
            [
                ("usbClientLog.trace", 10, 0, "f"),
                ("usbClientLog.notice", 20, 0, "f"),
                ("forceUnmount", 30, 0, "f"),
                ("executeShellCommand", 15, 1, "g"),
            ],
        )
        self.assertEqual(unreadable, [])

    def test_shared_descending_and_unreadable_numbers_are_reported(self):
        first = "void f() {\n  usbClientLog.trace(10);\n  forceUnmount(node, 9, 0);\n  usbClientLog.trace(line);\n}\n"
        second = "void g() {\n  mainLog.error(9);\n  executeShellCommand(command, 10, true);\n}\n"
        sites, unreadable = sources.call_sites([("A.cpp", first), ("B.cpp", second)])
        self.assertEqual(shared_numbers(sites), ["Dockhand.UsbClient 10"])
        self.assertEqual(descending_numbers(sites), ["Dockhand.UsbClient 9"])
        self.assertEqual(descending_numbers(sites, {9}), [])
        self.assertEqual(unreadable, ["A.cpp: usbClientLog.trace(...line"])


if __name__ == "__main__":
    unittest.main()
