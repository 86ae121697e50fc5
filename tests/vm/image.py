"""The kernel and the root file system of a virtual machine, made from unpacked Debian packages.

The root file system is in memory: busybox, ip, can-utils, mosquitto, every shared library of the packages, and the
kernel's modules. Programs and tests of this project are not in it; the machine mounts the source tree.
"""

import lzma
import pathlib
import re
import stat
import struct
import zlib

import debian

TRIPLETS = {"amd64": "x86_64-linux-gnu", "armhf": "arm-linux-gnueabihf"}
LOADERS = {"amd64": "lib64/ld-linux-x86-64.so.2", "armhf": "lib/ld-linux-armhf.so.3"}
PROGRAMS = ["bin/busybox", "bin/ip", "sbin/tc", "usr/sbin/mosquitto"]
CAN_UTILS = ["isotpsend", "isotprecv", "isotpdump", "candump", "cansend", "cangen", "canfdtest"]

# In the image and loaded by init, with what they depend on; the others are loaded by a plan that wants them.
LOADED = {"amd64": ["virtio_pci"], "armhf": ["virtio_mmio"]}
LOADED_EVERYWHERE = ["9p", "9pnet_virtio", "vcan", "can-raw", "can-isotp"]
MORE_MODULES = ["kvaser_pci", "slcan", "sch_plug", "sch_tbf"]

FILES = {
    "etc/passwd": "root:x:0:0::/root:/bin/sh\nmosquitto:x:100:100::/tmp:/bin/false\nnobody:x:65534:65534::/:/bin/false\n",
    "etc/group": "root:x:0:\nmosquitto:x:100:\nnogroup:x:65534:\n",
    "etc/hosts": "127.0.0.1 localhost\n",
    "etc/nsswitch.conf": "hosts: files\n",
}
FOLDERS = ["proc", "sys", "dev", "tmp", "run", "root", "mod", "out", "usr", "usr/bin", "usr/sbin", "bin", "sbin", "etc"]


def inflated(packed):
    """What the xz stream inside a kernel image holds. Emulated, the kernel's own unpacking takes seconds."""
    for found in re.finditer(b"\xfd7zXZ\x00", packed):
        unpacker = lzma.LZMADecompressor()
        try:
            kernel = unpacker.decompress(packed[found.start():])
        except lzma.LZMAError:
            continue
        if unpacker.eof:
            return kernel
    raise debian.Failure("there is no xz stream in the kernel image; this release packs its kernel in another way")


def uboot_image(kernel):
    """The form in which qemu takes a raw ARM kernel: with a header that tells where it is loaded and entered."""
    load = 0x40208000  # the machine's memory begins at 0x40000000; armmp is linked for 0x208000 after that
    def header(checksum):
        return struct.pack(">IIIIIIIBBBB32s", 0x27051956, checksum, 0, len(kernel), load, load,
                           zlib.crc32(kernel), 5, 2, 2, 0, b"linux")
    return header(zlib.crc32(header(0))) + kernel


class Modules:
    """The kernel package's modules by name, with what each depends on."""

    def __init__(self, kernel):
        self.paths = {path.stem.replace("-", "_"): path for path in kernel.glob("lib/modules/**/*.ko")}

    def contents(self, name):
        """Without the signature at the end: checking it costs 0.1 s a module when it is emulated."""
        data = self.paths[name].read_bytes()
        mark = b"~Module signature appended~\n"
        if data.endswith(mark):
            data = data[:-len(mark)]
            data = data[:-12 - struct.unpack(">I", data[-4:])[0]]
        return data

    def order(self, names):
        """names and all that they need, each after what it needs. What is built into the kernel is no module."""
        done = []
        def visit(name):
            name = name.replace("-", "_")
            if name in done or name not in self.paths:
                return
            told = re.search(rb"\0depends=([^\0]*)\0", b"\0" + self.paths[name].read_bytes())
            for needed in told[1].decode().split(",") if told and told[1] else []:
                visit(needed)
            done.append(name)
        for name in names:
            visit(name)
        return done


class Archive:
    """A cpio archive in the form that the kernel unpacks; everything in it belongs to root."""

    def __init__(self):
        self.parts = []
        self.made = set()

    def add(self, path, mode, data=b""):
        name = path.encode() + b"\0"
        fields = [len(self.made) + 1, mode, 0, 0, 1, 0, len(data), 0, 0, 0, 0, len(name), 0]
        head = b"070701" + b"".join(b"%08X" % field for field in fields) + name
        self.parts += [head, b"\0" * (-len(head) % 4), data, b"\0" * (-len(data) % 4)]
        self.made.add(path)

    def folder(self, path):
        parent = str(pathlib.PurePosixPath(path).parent)
        if path in (".", "") or path in self.made:
            return
        self.folder(parent)
        self.add(path, stat.S_IFDIR | 0o755)

    def file(self, path, data, mode=0o644):
        self.folder(str(pathlib.PurePosixPath(path).parent))
        self.add(path, stat.S_IFREG | mode, data)

    def link(self, path, target):
        self.folder(str(pathlib.PurePosixPath(path).parent))
        self.add(path, stat.S_IFLNK | 0o777, target.encode())

    def packed(self):
        self.add("TRAILER!!!", 0)
        return b"".join(self.parts)


def add_libraries(archive, packages):
    triplet = TRIPLETS[packages.architecture]
    for folder in (f"lib/{triplet}", f"usr/lib/{triplet}"):
        for path in sorted((packages.sysroot / folder).glob("*.so*")):
            target = f"{folder}/{path.name}"
            if path.is_symlink():
                archive.link(target, str(path.readlink()))
            elif path.read_bytes()[:4] == b"\x7fELF": # and no linker script
                archive.file(target, path.read_bytes(), 0o755)
    loader = LOADERS[packages.architecture]
    archive.file(loader, (packages.sysroot / loader).resolve().read_bytes(), 0o755)


def replace(path, data):
    """Whole or not at all, whatever happens meanwhile."""
    other = path.with_suffix(".new")
    other.write_bytes(data)
    other.replace(path)


def root_files(packages):
    archive = Archive()
    for folder in FOLDERS:
        archive.folder(folder)
    for path, text in FILES.items():
        archive.file(path, text.encode())
    for path in PROGRAMS + [f"usr/bin/{name}" for name in CAN_UTILS]:
        archive.file(path, (packages.sysroot / path).read_bytes(), 0o755)
    archive.link("bin/sh", "busybox")
    add_libraries(archive, packages)

    modules = Modules(packages.kernel)
    loaded = modules.order([*LOADED[packages.architecture], *LOADED_EVERYWHERE])
    for name in modules.order([*loaded, *MORE_MODULES]):
        archive.file(f"mod/{name}.ko", modules.contents(name))
    archive.file("mod/order", "".join(f"{name}\n" for name in loaded).encode())
    archive.file("init", (pathlib.Path(__file__).parent / "guest/init").read_bytes(), 0o755)
    return archive.packed()


def make(packages):
    """The paths of kernel and root file system; made anew when this file, init or the packages are newer."""
    made = debian.MADE / packages.architecture
    made.mkdir(parents=True, exist_ok=True)
    kernel, root = made / "vmlinux", made / "root.cpio"
    folder = pathlib.Path(__file__).parent
    newest = max(path.stat().st_mtime for path in (folder / "image.py", folder / "guest/init", packages.folder / "done"))
    if root.exists() and root.stat().st_mtime >= newest:
        return kernel, root
    images = list(packages.kernel.glob("boot/vmlinuz-*"))
    raw = inflated(images[0].read_bytes())
    replace(kernel, uboot_image(raw) if packages.architecture == "armhf" else raw)
    replace(root, root_files(packages))
    return kernel, root
