"""The files that CMake installs, for the tests of the recipes."""

import os
import pathlib
import re
import subprocess

# The Debian packages.
NAMES = ("dockhand", "dockhand-client", "dockhand-dbg", "dockhand-idl", "libdockhand-client-dev")
SOURCE = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("DOCKHAND_BUILD_DIR", SOURCE / "build" / "debug"))


def install(destination):
    """Installs into a folder, with the prefix /usr."""
    subprocess.run(
        ["cmake", "--install", str(BUILD), "--prefix", "/usr"],
        check=True,
        stdout=subprocess.DEVNULL,
        env=dict(os.environ, DESTDIR=str(destination)),
    )


def files_in(folder):
    """Returns the installed files as absolute paths of the image."""
    return sorted(
        "/" + str(path.relative_to(folder)) for path in pathlib.Path(folder).rglob("*") if not path.is_dir()
    )


def project_version():
    return re.search(r"project\(dockhand VERSION (\S+)", (SOURCE / "CMakeLists.txt").read_text())[1]


def unknown_cmake_variables(options):
    """Returns the variables of -D options that no CMake file of ours reads from the cache."""
    text = "".join(
        path.read_text() for path in (SOURCE / "CMakeLists.txt", SOURCE / "integration" / "CMakeLists.txt")
    )
    known = re.findall(r"option\((\w+)|set\((\w+) [^)]* CACHE |find_program\((\w+)", text)
    return set(re.findall(r"-D(\w+)=", options)) - {name for names in known for name in names}
