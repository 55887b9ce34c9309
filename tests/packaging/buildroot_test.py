#!/usr/bin/python3
"""The Buildroot tree without Buildroot: its options, its makefiles with empty macros of Buildroot, and the rules of
check-package.

The environment variable DOCKHAND_BUILD_DIR names the build tree.
"""

import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))

import kconfiglib
from installed import SOURCE, files_in, install, project_version, unknown_cmake_variables

TREE = SOURCE / "packaging" / "buildroot"
PACKAGE = TREE / "package" / "dockhand"
MAKEFILES = [TREE / "external.mk", PACKAGE / "dockhand.mk"]
NEEDS = (
    "BR2_USE_MMU BR2_INSTALL_LIBSTDCPP BR2_TOOLCHAIN_GCC_AT_LEAST_8 BR2_TOOLCHAIN_HAS_THREADS BR2_USE_WCHAR "
    "BR2_PACKAGE_HAS_UDEV"
).split()
IDL = {"/usr/share/dockhand/rpc/corvane_rpc.thrift", "/usr/share/dockhand/rpc/usb_rpc.thrift"}

STAND_INS = """
HOST_DIR = /host
INSTALL = install
RM = rm -f
DOCKHAND_PKGDIR = {package}
qstrip = $(strip $(subst ",,$(1)))
cmake-package =
include {tree}/external.mk
print:
\t@echo '$(strip $($(VARIABLE)))'
run:
\t$($(VARIABLE))
"""


class TreeTest(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.directory = pathlib.Path(directory.name)


class OptionsTest(TreeTest):
    def setUp(self):
        super().setUp()
        text = (PACKAGE / "Config.in").read_text()
        own = set(re.findall(r"^config (BR2_\w+)", text, re.MULTILINE))
        self.foreign = sorted(set(re.findall(r"BR2_\w+", text)) - own)
        options = "".join(f'config {name}\n\tbool "{name}"\n' for name in self.foreign)
        top = self.directory / "Config.in"
        top.write_text(f'{options}source "$BR2_EXTERNAL_DOCKHAND_PATH/Config.in"\n')
        os.environ["BR2_EXTERNAL_DOCKHAND_PATH"] = str(TREE)
        self.options = kconfiglib.Kconfig(str(top), warn_to_stderr=False)
        self.assertEqual(self.options.warnings, [])

    def value(self, name):
        return self.options.syms[name].str_value

    def choose(self, *names):
        for name in names:
            self.assertTrue(self.options.syms[name].set_value("y"))

    def comments(self):
        """The texts of the comments that the menu shows."""
        return [
            node.prompt[0]
            for node in self.options.node_iter()
            if node.item == kconfiglib.COMMENT and kconfiglib.expr_value(node.prompt[1])
        ]

    def test_package_can_be_chosen_only_with_udev_and_a_suitable_toolchain(self):
        package = self.options.syms["BR2_PACKAGE_DOCKHAND"]
        self.choose(*NEEDS)
        self.assertEqual(package.assignable, (0, 2))
        self.assertEqual(self.comments(), [])
        for name in NEEDS:
            self.options.syms[name].set_value("n")
            self.assertEqual(package.assignable, (), name)
            # Nothing helps a processor without an MMU.
            missing = {"BR2_USE_MMU": [], "BR2_PACKAGE_HAS_UDEV": ["udev /dev management"]}.get(
                name, ["toolchain"]
            )
            self.assertEqual(len(self.comments()), len(missing), name)
            self.assertTrue(all(text in self.comments()[0] for text in missing), name)
            self.options.syms[name].set_value("y")
        self.choose("BR2_STATIC_LIBS")
        self.assertEqual(package.assignable, ())

    def test_package_selects_its_libraries_and_tools(self):
        self.choose(*NEEDS, "BR2_PACKAGE_LIBURCU_ARCH_SUPPORTS", "BR2_PACKAGE_DOCKHAND")
        for name in (
            "BOOST CLI11 JSON_FOR_MODERN_CPP THRIFT UTIL_LINUX UTIL_LINUX_LIBBLKID UTIL_LINUX_LIBMOUNT "
            "UTIL_LINUX_BINARIES XFSPROGS"
        ).split():
            self.assertEqual(self.value(f"BR2_PACKAGE_{name}"), "y", name)
        self.options.syms["BR2_PACKAGE_DOCKHAND_RECORDING"].set_value("n")
        self.assertEqual(self.value("BR2_PACKAGE_XFSPROGS"), "n")

    def test_options_of_systemd_are_offered_with_systemd(self):
        self.choose(*NEEDS, "BR2_PACKAGE_DOCKHAND")
        syslog = self.options.syms["BR2_PACKAGE_DOCKHAND_SYSLOG"]
        self.assertEqual(syslog.assignable, ())
        self.choose("BR2_INIT_SYSTEMD")
        self.assertEqual(syslog.assignable, (0, 2))

    def test_options_in_makefiles_exist(self):
        text = "".join(makefile.read_text() for makefile in MAKEFILES)
        asked = set(re.findall(r"\$\((BR2_(?!EXTERNAL)\w+)\)", text))
        self.assertLessEqual(asked, set(self.options.syms))


class MakefileTest(TreeTest):
    def make(self, target, variable, **settings):
        makefile = self.directory / "Makefile"
        makefile.write_text(STAND_INS.format(tree=TREE, package=PACKAGE))
        settings = dict(
            {
                "BR2_PACKAGE_DOCKHAND_GROUP": '"dockhand"',
                "BR2_EXTERNAL_DOCKHAND_PATH": str(TREE),
                "TARGET_DIR": str(self.directory / "target"),
            },
            **settings,
        )
        return subprocess.run(
            ["make", "--silent", "-f", str(makefile), target, f"VARIABLE={variable}"]
            + [f"{name}={value}" for name, value in settings.items()],
            check=True,
            stdout=subprocess.PIPE,
            text=True,
        ).stdout.strip()

    def target_after(self, *variables, **settings):
        target = self.directory / "target"
        install(target)
        before = set(files_in(target))
        for variable in variables:
            self.make("run", variable, **settings)
        after = set(files_in(target))
        return after - before, before - after

    def test_it_builds_these_sources_in_their_version(self):
        self.assertEqual(self.make("print", "DOCKHAND_VERSION"), project_version())
        self.assertEqual(os.path.normpath(self.make("print", "DOCKHAND_SITE")), str(SOURCE))
        self.assertEqual(self.make("print", "DOCKHAND_SITE_METHOD"), "local")

    def test_options_for_cmake_exist(self):
        options = self.make("print", "DOCKHAND_CONF_OPTS")
        self.assertEqual(unknown_cmake_variables(options), set())
        self.assertIn("-DDOCKHAND_STATIC_THRIFT=OFF", options)
        self.assertEqual(self.make("print", "THRIFT_CONF_OPTS"), "")

    def test_static_libthrift_is_made_and_linked(self):
        choice = {"BR2_PACKAGE_DOCKHAND_STATIC_THRIFT": "y"}
        self.assertIn("-DDOCKHAND_STATIC_THRIFT=ON", self.make("print", "DOCKHAND_CONF_OPTS", **choice))
        self.assertIn("-DBUILD_SHARED_LIBS=OFF", self.make("print", "THRIFT_CONF_OPTS", **choice))

    def test_group_of_the_socket_is_made(self):
        choice = {"BR2_PACKAGE_DOCKHAND_GROUP": '"media"'}
        self.assertIn("-DDOCKHAND_GROUP=media ", self.make("print", "DOCKHAND_CONF_OPTS", **choice))
        fields = self.make("print", "DOCKHAND_USERS", **choice).split(maxsplit=8)
        self.assertEqual(fields[:8], ["-", "-1", "media", "-1", "-", "-", "-", "-"])

    def test_image_without_systemd_gets_the_start_script(self):
        hooks = self.make("print", "DOCKHAND_POST_INSTALL_TARGET_HOOKS").split()
        added, removed = self.target_after("DOCKHAND_INSTALL_INIT_SYSV", *hooks)
        self.assertEqual(added, {"/etc/init.d/S60dockhand"})
        self.assertEqual(
            removed,
            {
                "/usr/lib/systemd/system/dockhand.service",
                "/usr/lib/systemd/system/dockhand-usb@.service",
                "/usr/lib/sysusers.d/dockhand.conf",
                "/usr/lib/tmpfiles.d/dockhand.conf",
            }
            | IDL,
        )
        script = self.directory / "target" / "etc" / "init.d" / "S60dockhand"
        self.assertTrue(os.access(script, os.X_OK))
        self.assertTrue((self.directory / "target" / "usr/share/dockhand/init.d/dockhand").exists())

    def test_image_with_systemd_logs_to_the_chosen_target(self):
        systemd = {"BR2_INIT_SYSTEMD": "y"}
        hooks = self.make("print", "DOCKHAND_POST_INSTALL_TARGET_HOOKS", **systemd).split()
        self.assertEqual(self.make("print", "DOCKHAND_INSTALL_INIT_SYSTEMD", **systemd), "")
        added, removed = self.target_after(
            "DOCKHAND_INSTALL_INIT_SYSTEMD", *hooks, BR2_PACKAGE_DOCKHAND_SYSLOG="y", **systemd
        )
        self.assertEqual((added, removed), ({"/usr/lib/systemd/system/dockhand.service.d/syslog.conf"}, IDL))

    def test_client_library_is_installed_for_other_packages(self):
        self.assertEqual(self.make("print", "DOCKHAND_INSTALL_STAGING"), "YES")


class FormTest(unittest.TestCase):
    """Rules of Buildroot's check-package."""

    def test_files_end_with_one_newline_and_no_line_ends_with_a_blank(self):
        for path in TREE.rglob("*"):
            if path.is_file():
                text = path.read_text()
                self.assertRegex(text, r"[^\n]\n\Z", path)
                self.assertNotRegex(text, r"[ \t]\n", path)
                self.assertNotIn("\n\n\n", text, path)
                self.assertFalse(os.access(path, os.X_OK), path)

    def test_makefile_begins_with_the_name_of_the_package(self):
        header = (PACKAGE / "dockhand.mk").read_text().split("\n")[:6]
        self.assertEqual(header, ["#" * 80, "#", "# dockhand", "#", "#" * 80, ""])

    def test_makefiles_are_indented_with_tabs_where_they_are_indented(self):
        for path in MAKEFILES:
            in_define = continued = False
            for line in path.read_text().splitlines():
                if line.startswith("endef"):
                    in_define = False
                self.assertEqual(line.startswith("\t"), (in_define or continued) and line != "", line)
                self.assertNotRegex(line, r"^\t* |  \\$|\$\{", line)
                in_define = in_define or line.startswith("define ")
                continued = line.endswith("\\")

    def test_variables_of_the_package_have_its_name(self):
        names = re.findall(
            r"^(?:define )?([A-Z0-9_]+)(?: |$)", (PACKAGE / "dockhand.mk").read_text(), re.MULTILINE
        )
        self.assertGreater(len(names), 10)
        self.assertEqual([name for name in names if not name.startswith("DOCKHAND_")], [])

    def test_options_are_written_in_the_order_of_buildroot(self):
        order = {"bool": 1, "string": 1, "default": 2, "depends": 3, "select": 4, "help": 5}
        for path in (TREE / "Config.in", PACKAGE / "Config.in"):
            last = 0
            for line in path.read_text().splitlines():
                if line.startswith("\t  "):
                    self.assertLessEqual(len(line[3:]), 62, line)
                elif line.startswith("\t") and not line.startswith("\t\t"):
                    rank = order[line.split()[0]]
                    self.assertGreaterEqual(rank, last, line)
                    last = rank
                elif not line.startswith("\t"):
                    last = 0

    def test_start_script_has_the_form_of_buildroot(self):
        script = PACKAGE / "S60dockhand"
        self.assertIn('\nDAEMON="dockhand"\n', script.read_text())
        self.assertNotRegex(script.read_text(), r"(?m)^[\t]* ")


if __name__ == "__main__":
    unittest.main()
