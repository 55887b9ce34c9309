"""The virtual machine's kernel: Debian's, from its package, which is not installed."""

import fcntl
import lzma
import os
import re
import shutil
import struct
import subprocess

KERNEL_PACKAGE = "linux-image-amd64"
# Its dependencies with the kernel or modules. Newer releases split the package.
KERNEL_PART = r"Depends: (linux-(?:image|base|binary|modules)-\d\S+)"

# Drivers of hardware that the virtual machine does not have: most of the package.
UNUSED_MODULES = (
    "drivers/gpu drivers/net drivers/media drivers/infiniband drivers/staging drivers/iio sound "
    "net/bluetooth net/wireless net/mac80211"
).split()

# The modules needed before the switch to the host's file system, which has the others.
EARLY_MODULES = ("virtio_pci", "9pnet_virtio", "9p", "overlay")

FOLDER = os.path.dirname(os.path.abspath(__file__))
IN_ROOT = os.path.join(FOLDER, "../../tools/dev/in_root")

# What the guest runs of this folder, besides guest-systemd.
GUEST_FILES = ("agent.py", "caller.py", "guest-setup.sh")

BUSYBOX = ("/usr/bin/busybox", "/bin/busybox")


class Kernel:
    """An unpacked kernel. `root` holds usr/lib/modules and nothing else."""

    def __init__(self, folder):
        self.image = os.path.join(folder, "vmlinux")
        self.initramfs = os.path.join(folder, "initramfs")
        self.root = os.path.join(folder, "root")


def ensure(folder, root="/"):
    """Returns the kernel in `folder`: that of the Debian system at `root`. The first call downloads and unpacks it.

    The environment variable DOCKHAND_VM_KERNEL_DEB names a package to use instead of a download.
    """
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, "lock"), "w", encoding="ascii") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        complete = os.path.join(folder, "kernel")
        if not os.path.isdir(complete):
            partial = os.path.join(folder, "kernel.partial")
            shutil.rmtree(partial, ignore_errors=True)
            os.makedirs(partial)
            given = os.environ.get("DOCKHAND_VM_KERNEL_DEB")
            _unpack([given] if given else _download(partial, root), partial)
            os.rename(partial, complete)
        kernel = Kernel(complete)
        _write_initramfs(kernel, root)
        return kernel


def _download(folder, root):
    """Downloads the packages of the kernel; returns their paths."""
    # A path of the Debian system.
    directory = folder
    prefix = []
    if root != "/":
        directory = "/var/cache/apt/archives"
        prefix = [IN_ROOT, root, directory]
    packages = _parts_of_kernel(prefix)
    if not packages and os.geteuid() == 0:
        _output([*prefix, "apt-get", "-q", "update"])
        packages = _parts_of_kernel(prefix)
    if not packages:
        raise RuntimeError(f"apt knows no {KERNEL_PACKAGE}: apt-get update may help")
    _output([*prefix, "apt-get", "-q", "-o", "APT::Sandbox::User=root", "download", *packages], cwd=folder)
    place = folder if root == "/" else root + directory
    found = [os.path.join(place, name) for name in os.listdir(place) if name.endswith(".deb")]
    return [shutil.move(path, folder) if root != "/" else path for path in found]


def _parts_of_kernel(prefix):
    """Returns the names of the packages with the newest kernel and its modules."""
    parts = []
    asked = [KERNEL_PACKAGE]
    while asked:
        depends = subprocess.run(
            [*prefix, "apt-cache", "depends", "--important", asked.pop()],
            check=False,
            stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL,
            text=True,
        ).stdout
        found = [name for name in re.findall(KERNEL_PART, depends) if name not in parts]
        parts += found
        asked += found
    return parts


def _unpack(packages, folder):
    unpacked = os.path.join(folder, "package")
    os.makedirs(unpacked)
    excluded = [f"--exclude=*/lib/modules/*/kernel/{path}" for path in UNUSED_MODULES]
    for package in packages:
        with subprocess.Popen(["dpkg-deb", "--fsys-tarfile", package], stdout=subprocess.PIPE) as archive:
            subprocess.run(
                ["tar", "-x", "-C", unpacked, "--no-same-owner", *excluded], stdin=archive.stdout, check=True
            )
        if archive.returncode != 0:
            raise RuntimeError(f"{package} cannot be unpacked")
        if os.path.dirname(package) == folder:
            os.remove(package)

    root = os.path.join(folder, "root")
    os.makedirs(os.path.join(root, "usr/lib"))
    places = [os.path.join(unpacked, path) for path in ("usr/lib/modules", "lib/modules")]
    modules = os.path.join(root, "usr/lib/modules")
    os.rename(next(place for place in places if os.path.isdir(place)), modules)
    # Packed modules are slow to load under emulation, and busybox' insmod loads none.
    packed = [os.path.join(place, name) for place, _, names in os.walk(modules) for name in names]
    packed = [path for path in packed if path.endswith(".ko.xz")]
    _output(["xargs", "--null", "--no-run-if-empty", "xz", "--decompress"], input="\0".join(packed))
    # depmod expects lib/modules; in the guest /lib is a link to usr/lib.
    os.symlink("usr/lib", os.path.join(root, "lib"))
    release = os.listdir(modules)[0]
    _output(["depmod", "-b", root, release])
    os.remove(os.path.join(root, "lib"))

    # Newer packages have the kernel beside its modules.
    places = [os.path.join(unpacked, "boot", f"vmlinuz-{release}"), os.path.join(modules, release, "vmlinuz")]
    with open(next(place for place in places if os.path.exists(place)), "rb") as image:
        vmlinux = decompress(image.read())
    with open(os.path.join(folder, "vmlinux"), "wb") as file:
        file.write(vmlinux)
    shutil.rmtree(unpacked)


def decompress(bz_image):
    """Returns the ELF kernel inside a bzImage. Decompressing it here saves four seconds of emulation."""
    if bz_image[0x202:0x206] != b"HdrS":
        raise RuntimeError("not a bzImage")
    setup_sectors = bz_image[0x1F1] or 4
    payload_offset, payload_length = struct.unpack_from("<II", bz_image, 0x248)
    start = (setup_sectors + 1) * 512 + payload_offset
    payload = bz_image[start : start + payload_length]
    return lzma.LZMADecompressor().decompress(payload)


def _write_initramfs(kernel, root):
    modules = os.path.join(kernel.root, "usr/lib/modules")
    modules = os.path.join(modules, os.listdir(modules)[0])
    busybox = next((path for path in BUSYBOX if os.path.exists(root + path)), "")
    if not busybox:
        raise RuntimeError(f"busybox (package busybox-static) is missing in {root}")

    files = {"bin/busybox": (root + busybox, 0o755), "init": (os.path.join(FOLDER, "guest-init.sh"), 0o755)}
    order = []
    for path in _with_dependencies(modules, EARLY_MODULES):
        name = os.path.basename(path)
        order.append(name)
        files[f"modules/{name}"] = (os.path.join(modules, path), 0o644)
    folders = ["bin", "modules", "dev", "proc", "sys", "host", "kernel", "upper", "root", "vm"]
    for name in GUEST_FILES:
        files[f"vm/{name}"] = (os.path.join(FOLDER, name), 0o755)
    for place, _, names in os.walk(os.path.join(FOLDER, "guest-systemd")):
        target = os.path.join("vm", os.path.relpath(place, FOLDER))
        folders.append(target)
        files.update({f"{target}/{name}": (os.path.join(place, name), 0o644) for name in names})

    partial = kernel.initramfs + ".partial"
    with open(partial, "wb") as archive:
        for folder in folders:
            archive.write(_cpio_entry(folder, 0o040755, b""))
        for name, (source, mode) in files.items():
            with open(source, "rb") as file:
                archive.write(_cpio_entry(name, 0o100000 | mode, file.read()))
        archive.write(_cpio_entry("modules/order", 0o100644, "".join(name + "\n" for name in order).encode()))
        archive.write(_cpio_entry("TRAILER!!!", 0, b""))
    os.rename(partial, kernel.initramfs)


def _with_dependencies(modules, names):
    """Returns the paths of the modules, each after those that it needs."""
    needs = {}
    with open(os.path.join(modules, "modules.dep"), encoding="ascii") as file:
        for line in file:
            path, _, rest = line.partition(":")
            needs[path] = rest.split()
    paths = {_module_name(path): path for path in needs}
    with open(os.path.join(modules, "modules.builtin"), encoding="ascii") as file:
        builtin = {_module_name(line.strip()) for line in file}
    ordered = []
    for name in names:
        if name in builtin:
            continue
        path = paths[name]
        # modules.dep lists the module to load first last.
        for needed in [*reversed(needs[path]), path]:
            if needed not in ordered:
                ordered.append(needed)
    return ordered


def _module_name(path):
    return os.path.basename(path)[: -len(".ko")].replace("-", "_")


def _cpio_entry(name, mode, content):
    encoded = name.encode() + b"\0"
    fields = (0, mode, 0, 0, 1, 0, len(content), 0, 0, 0, 0, len(encoded), 0)
    header = b"070701" + b"".join(b"%08X" % field for field in fields) + encoded
    return header + bytes(-len(header) % 4) + content + bytes(-len(content) % 4)


def _output(command, cwd=None, input=None):
    done = subprocess.run(
        command,
        cwd=cwd,
        input=input,
        check=False,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
    )
    if done.returncode != 0:
        raise RuntimeError(f"{' '.join(command)}: status {done.returncode}\n{done.stdout}")
    return done.stdout
