#!/usr/bin/python3
"""The Yocto layer without bitbake: its syntax, and its recipe against the files that CMake installs.

The environment variable DOCKHAND_BUILD_DIR names the build tree.
"""

import fnmatch
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import types
import unittest

sys.path[:0] = map(str, pathlib.Path(__file__).resolve().parents[:2])

import sources
from installed import SOURCE, files_in, install, project_version, unknown_cmake_variables

LAYER = SOURCE / "packaging" / "yocto"
RECIPE = LAYER / "recipes-core" / "dockhand" / "dockhand_0.1.0.bb"

# Values of bitbake.conf of OpenEmbedded-Core.
DEFAULTS = {
    "PN": "dockhand",
    "bindir": "/usr/bin",
    "sbindir": "/usr/sbin",
    "libdir": "/usr/lib",
    "includedir": "/usr/include",
    "datadir": "/usr/share",
    "docdir": "/usr/share/doc",
    "mandir": "/usr/share/man",
    "sysconfdir": "/etc",
    "nonarch_libdir": "/usr/lib",
    "systemd_system_unitdir": "${nonarch_base_libdir}/systemd/system",
    "STAGING_BINDIR_NATIVE": "/native/bin",
    "PACKAGES": "dockhand-staticdev dockhand-dev dockhand-doc dockhand dockhand-bash-completion",
    "FILES:dockhand": "${bindir}/* ${sbindir}/* ${sysconfdir} ${nonarch_base_libdir}/udev ${datadir}/dockhand",
    "FILES:dockhand-staticdev": "${libdir}/*.a",
    "FILES:dockhand-dev": "${includedir} ${libdir}/cmake ${libdir}/pkgconfig ${datadir}/cmake",
    "FILES:dockhand-doc": "${docdir} ${mandir}/man[1-9]/*",
    "FILES:dockhand-bash-completion": "${datadir}/bash-completion",
}


class Metadata:
    """A recipe or a configuration file. Reads only the part of bitbake's language that our files use."""

    def __init__(self, path, **settings):
        self.values = dict(DEFAULTS, THISDIR=str(path.parent), **settings)
        self.functions = {}
        self.inherited = []
        lines = iter(path.read_text().splitlines())
        for line in lines:
            if found := re.fullmatch(r"(\S+)\(\) {", line):
                self.functions[found[1]] = "\n".join(iter(lines.__next__, "}"))
                continue
            while line.endswith("\\"):
                line = line[:-1] + next(lines)
            if found := re.fullmatch(r"inherit (.*)", line):
                self.inherited += found[1].split()
            elif found := re.fullmatch(r'([\w:${}\[\]-]+) (=|\?=|\?\?=|\+=|=\+|\.=) "(.*)"', line):
                self.assign(self.expand(found[1]), found[2], found[3])
            elif line and not line.startswith("#"):
                raise ValueError(f"{path.name}: not understood: {line}")

    def assign(self, name, operator, value):
        old = self.values.get(name)
        if operator in ("?=", "??=") and old is not None:
            return
        joined = {"+=": f'{old or ""} {value}', "=+": f'{value} {old or ""}', ".=": f'{old or ""}{value}'}
        self.values[name] = joined.get(operator, value)

    def expand(self, text):
        while found := re.search(r"\${([\w:-]+)}", text):
            text = text.replace(found[0], self.values[found[1]])
        utils = types.SimpleNamespace(
            contains=lambda name, item, yes, no, d: yes if item in self[name].split() else no
        )
        names = {
            "os": os,
            "d": types.SimpleNamespace(getVar=lambda name: self[name]),
            "bb": types.SimpleNamespace(utils=utils),
        }
        return re.sub(r'\${@(.*?)}(?=[\s"/;]|$)', lambda found: eval(found[1], names), text)

    def __getitem__(self, name):
        return self.expand(self.values[name])


def recipe(features, merged_usr=True, options=""):
    return Metadata(
        RECIPE,
        DISTRO_FEATURES=features,
        PACKAGECONFIG=options,
        nonarch_base_libdir="/usr/lib" if merged_usr else "/lib",
    )


class LayerTest(unittest.TestCase):
    def test_layer_finds_its_recipe(self):
        layer = Metadata(LAYER / "conf" / "layer.conf", LAYERDIR=str(LAYER))
        self.assertEqual(layer["BBFILE_COLLECTIONS"].split(), ["dockhand"])
        self.assertTrue(re.match(layer["BBFILE_PATTERN_dockhand"], str(RECIPE)))
        found = [
            path
            for pattern in layer["BBFILES"].split()
            for path in LAYER.glob(os.path.relpath(pattern, LAYER))
        ]
        self.assertEqual(found, [RECIPE])

    def test_layer_is_for_all_series_since_the_first_with_a_new_enough_cmake(self):
        layer = Metadata(LAYER / "conf" / "layer.conf", LAYERDIR=str(LAYER))
        series = "scarthgap styhead walnascar whinlatter wrynose"
        self.assertEqual(layer["LAYERSERIES_COMPAT_dockhand"], series)

    def test_recipe_has_the_version_of_the_project_and_builds_these_sources(self):
        self.assertEqual(RECIPE.stem, f"dockhand_{project_version()}")
        self.assertEqual(recipe("systemd")["EXTERNALSRC"], str(SOURCE))

    def test_options_for_cmake_exist(self):
        metadata = recipe("systemd")
        options = metadata["EXTRA_OECMAKE"] + metadata["PACKAGECONFIG[static-thrift]"]
        self.assertIn("-DDOCKHAND_STATIC_THRIFT=ON", options)
        self.assertEqual(unknown_cmake_variables(options), set())

    def test_group_of_the_socket_is_made(self):
        metadata = recipe("systemd")
        self.assertEqual(metadata["USERADD_PACKAGES"], "dockhand")
        self.assertEqual(metadata["GROUPADD_PARAM:dockhand"], "--system dockhand")
        self.assertIn("-DDOCKHAND_GROUP=dockhand ", metadata["EXTRA_OECMAKE"])

    def test_modules_of_the_mounted_file_systems_are_recommended(self):
        modules = recipe("systemd")["RRECOMMENDS:dockhand"].split()
        for name in sources.file_systems():
            # The driver of ext4 mounts ext3.
            self.assertIn("kernel-module-" + name.replace("ext3", "ext4"), modules)

    def test_tools_of_the_start_script_come_only_with_it(self):
        self.assertNotIn("util-linux-flock", recipe("systemd")["RDEPENDS:dockhand"].split())
        self.assertIn("util-linux-flock", recipe("sysvinit")["RDEPENDS:dockhand"].split())


class PackagesTest(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.image = pathlib.Path(directory.name, "image")
        install(self.image)

    def package(self, metadata):
        """Runs the recipe's installation and returns the files of each package."""
        metadata.values["D"] = str(self.image)
        script = metadata.expand(metadata.functions["do_install:append"])
        subprocess.run(["sh", "-eu"], input=script, text=True, check=True)
        # Done by the class systemd.
        features = metadata["DISTRO_FEATURES"].split()
        unwanted = []
        if "systemd" not in features:
            unwanted.append(metadata["systemd_system_unitdir"])
        elif "sysvinit" not in features:
            unwanted.append("/etc/init.d")
        for folder in unwanted:
            subprocess.run(["rm", "-r", f"{self.image}{folder}"], check=True)

        contents = {}
        for file in files_in(self.image):
            for package in metadata["PACKAGES"].split():
                patterns = metadata["FILES:" + package].split()
                if any(
                    fnmatch.fnmatch(file, pattern) or file.startswith(pattern + "/") for pattern in patterns
                ):
                    contents.setdefault(package, []).append(file)
                    break
            else:
                self.fail(f"{file} is in no package")
        return contents

    def assert_packages(self, contents):
        self.assertEqual(
            set(contents),
            {
                "dockhand",
                "dockhand-client",
                "dockhand-idl",
                "dockhand-dev",
                "dockhand-staticdev",
                "dockhand-doc",
                "dockhand-bash-completion",
            },
        )
        self.assertEqual(contents["dockhand-client"], ["/usr/bin/dockhandctl"])
        self.assertIn("dockhand-idl", recipe("systemd")["RDEPENDS:dockhand-dev"].split())
        self.assertEqual(
            contents["dockhand-idl"],
            ["/usr/share/dockhand/rpc/corvane_rpc.thrift", "/usr/share/dockhand/rpc/usb_rpc.thrift"],
        )
        self.assertIn("/usr/share/doc/dockhand/OPERATIONS.md", contents["dockhand-doc"])
        self.assertIn("/usr/share/man/man8/dockhand.8", contents["dockhand-doc"])
        self.assertIn("/usr/sbin/dockhand", contents["dockhand"])
        self.assertIn("/usr/lib/dockhand/tools/mkfs.xfs", contents["dockhand"])

    def test_image_with_systemd_gets_the_units(self):
        contents = self.package(recipe("systemd usrmerge"))
        self.assert_packages(contents)
        for file in (
            "systemd/system/dockhand.service",
            "systemd/system/dockhand-usb@.service",
            "udev/rules.d/60-dockhand.rules",
            "sysusers.d/dockhand.conf",
            "tmpfiles.d/dockhand.conf",
            "sysctl.d/60-dockhand.conf",
        ):
            self.assertIn("/usr/lib/" + file, contents["dockhand"])
        self.assertEqual(
            [file for file in contents["dockhand"] if "init.d" in file or "service.d" in file], []
        )

    def test_image_with_sysvinit_gets_the_start_script(self):
        metadata = recipe("sysvinit", merged_usr=False)
        contents = self.package(metadata)
        self.assert_packages(contents)
        self.assertIn("/etc/init.d/" + metadata["INITSCRIPT_NAME"], contents["dockhand"])
        self.assertIn("/lib/udev/rules.d/60-dockhand.rules", contents["dockhand"])
        self.assertEqual([file for file in contents["dockhand"] if "systemd" in file], [])

    def test_units_are_where_systemd_looks_when_usr_is_not_merged(self):
        metadata = recipe("systemd sysvinit", merged_usr=False)
        contents = self.package(metadata)
        self.assert_packages(contents)
        for unit in metadata["SYSTEMD_SERVICE:dockhand"].split():
            self.assertIn("/lib/systemd/system/" + unit, contents["dockhand"])

    def test_option_syslog_changes_where_the_unit_logs(self):
        contents = self.package(recipe("systemd usrmerge", options="syslog"))
        drop_in = "/usr/lib/systemd/system/dockhand.service.d/syslog.conf"
        self.assertIn(drop_in, contents["dockhand"])
        self.assertEqual(
            pathlib.Path(f"{self.image}{drop_in}").read_text(), "[Service]\nEnvironment=TLOG_TARGET=syslog\n"
        )


if __name__ == "__main__":
    unittest.main()
