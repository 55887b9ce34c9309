"""The virtual machine's kernel: Debian's, from its package, which is not installed."""

import fcntl
import lzma
import os
import re
import shutil
import struct
import subprocess

KERNEL_PACKAGE = "linux-image-amd64"

# Drivers of hardware that the virtual machine does not have: most of the package.
UNUSED_MODULES = (
    "drivers/gpu drivers/net drivers/media drivers/infiniband drivers/staging drivers/iio sound "
    "net/bluetooth net/wireless net/mac80211"
).split()

# The modules needed before the switch to the host's file system, which has the others.
EARLY_MODULES = ("virtio_pci", "9pnet_virtio", "9p", "overlay")


class Kernel:
    """An unpacked kernel. `root` holds usr/lib/modules and nothing else."""

    def __init__(self, folder):
        self.image = os.path.join(folder, "vmlinux")
        self.initramfs = os.path.join(folder, "initramfs")
        self.root = os.path.join(folder, "root")


def ensure(folder, init_script):
    """Returns the kernel in `folder`. The first call downloads and unpacks it.

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
            package = _package(partial)
            _unpack(package, partial)
            if os.path.dirname(package) == partial:
                os.remove(package)
            os.rename(partial, complete)
        kernel = Kernel(complete)
        _write_initramfs(kernel, init_script)
        return kernel


def _package(folder):
    given = os.environ.get("DOCKHAND_VM_KERNEL_DEB")
    if given:
        return given
    versioned = _versioned_package()
    if not versioned and os.geteuid() == 0:
        _output(["apt-get", "-q", "update"])
        versioned = _versioned_package()
    if not versioned:
        raise RuntimeError(f"apt knows no {KERNEL_PACKAGE} of Linux 6.1: apt-get update may help")
    _output(["apt-get", "-q", "-o", "APT::Sandbox::User=root", "download", versioned], cwd=folder)
    return next(os.path.join(folder, name) for name in os.listdir(folder) if name.endswith(".deb"))


def _versioned_package():
    depends = subprocess.run(
        ["apt-cache", "depends", "--no-recommends", "--no-suggests", KERNEL_PACKAGE],
        check=False,
        stdout=subprocess.PIPE,
        stderr=subprocess.DEVNULL,
        text=True,
    ).stdout
    found = re.search(r"Depends: (linux-image-6\.1\.\S+)", depends)
    return found[1] if found else ""


def _unpack(package, folder):
    unpacked = os.path.join(folder, "package")
    os.makedirs(unpacked)
    excluded = [f"--exclude=./lib/modules/*/kernel/{path}" for path in UNUSED_MODULES]
    with subprocess.Popen(["dpkg-deb", "--fsys-tarfile", package], stdout=subprocess.PIPE) as archive:
        subprocess.run(
            ["tar", "-x", "-C", unpacked, "--no-same-owner", *excluded, "./boot", "./lib/modules"],
            stdin=archive.stdout,
            check=True,
        )
    if archive.returncode != 0:
        raise RuntimeError(f"{package} cannot be unpacked")

    root = os.path.join(folder, "root")
    os.makedirs(os.path.join(root, "usr/lib"))
    os.rename(os.path.join(unpacked, "lib/modules"), os.path.join(root, "usr/lib/modules"))
    # depmod expects lib/modules; in the guest /lib is a link to usr/lib.
    os.symlink("usr/lib", os.path.join(root, "lib"))
    release = os.listdir(os.path.join(root, "usr/lib/modules"))[0]
    subprocess.run(["depmod", "-b", root, release], check=True)
    os.remove(os.path.join(root, "lib"))

    with open(os.path.join(unpacked, "boot", f"vmlinuz-{release}"), "rb") as image:
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


def _write_initramfs(kernel, init_script):
    modules = os.path.join(kernel.root, "usr/lib/modules")
    modules = os.path.join(modules, os.listdir(modules)[0])
    busybox = shutil.which("busybox", path=os.environ.get("PATH", "") + ":/bin:/usr/bin")
    if not busybox:
        raise RuntimeError("busybox (package busybox-static) is missing")

    files = {"bin/busybox": (busybox, 0o755), "init": (init_script, 0o755)}
    order = []
    for path in _with_dependencies(modules, EARLY_MODULES):
        name = os.path.basename(path)
        order.append(name)
        files[f"modules/{name}"] = (os.path.join(modules, path), 0o644)

    partial = kernel.initramfs + ".partial"
    with open(partial, "wb") as archive:
        for folder in ("bin", "modules", "dev", "proc", "sys", "host", "kernel", "upper", "root"):
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
    paths = {os.path.basename(path)[: -len(".ko")].replace("-", "_"): path for path in needs}
    ordered = []
    for name in names:
        path = paths[name]
        # modules.dep lists the module to load first last.
        for needed in [*reversed(needs[path]), path]:
            if needed not in ordered:
                ordered.append(needed)
    return ordered


def _cpio_entry(name, mode, content):
    encoded = name.encode() + b"\0"
    fields = (0, mode, 0, 0, 1, 0, len(content), 0, 0, 0, 0, len(encoded), 0)
    header = b"070701" + b"".join(b"%08X" % field for field in fields) + encoded
    return header + bytes(-len(header) % 4) + content + bytes(-len(content) % 4)


def _output(command, cwd=None):
    done = subprocess.run(
        command, cwd=cwd, check=False, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True
    )
    if done.returncode != 0:
        raise RuntimeError(f"{' '.join(command)}: status {done.returncode}\n{done.stdout}")
    return done.stdout
