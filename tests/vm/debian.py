"""Debian packages of either architecture, unpacked into a folder and installed nowhere.

A private root for apt resolves and downloads from the machine's own package sources; `dpkg -x` unpacks. Neither needs
to be root, and the machine's own packages stay as they are: a foreign architecture is not added to them.

They lie under one folder, the cache: $QUILLET_VM_CACHE, which source trees may share, or build-vm/ in the source tree.
What is there is used again without a look at the network; remove the folder to have newer packages.
"""

import fcntl
import os
import pathlib
import shutil
import subprocess
import sys

SOURCE = pathlib.Path(__file__).resolve().parents[2]
MADE = SOURCE / "build-vm"  # images and results: this tree's own

# What the virtual machines run, then what the cross build compiles and links against.
PACKAGES = """busybox-static can-utils iproute2 mosquitto libjson-c5 libmosquitto1 libssl3 libstdc++6 libasan8 libubsan1
libc6-dev libjson-c-dev libmosquitto-dev mosquitto-dev libssl-dev libgtest-dev libgmock-dev uthash-dev
libcli11-dev""".split()
KERNELS = {"amd64": "linux-image-amd64", "armhf": "linux-image-armmp"}
MORE = {"amd64": ["libtsan2"], "armhf": []}
# The armhf index of the security suite has been seen not to match its Release file; updates hold what matters here.
SUITES = {"amd64": ("", "-updates", "-security"), "armhf": ("", "-updates")}


class Failure(Exception):
    """What went wrong, in a line for the user."""


def need(programs):
    """programs: {program: package}. All that are missing are named at once."""
    missing = sorted({package for program, package in programs.items() if shutil.which(program) is None})
    if missing:
        raise Failure(f"missing: {' '.join(missing)}; run packaging/install-deps.sh --vm")


def cache():
    return pathlib.Path(os.environ.get("QUILLET_VM_CACHE") or MADE).resolve()


def release():
    lines = pathlib.Path("/etc/os-release").read_text().splitlines()
    told = dict(line.split("=", 1) for line in lines if "=" in line)
    if told.get("ID", "").strip('"') != "debian":
        raise Failure("this needs Debian's apt and package sources; this machine has another system")
    return told["VERSION_CODENAME"].strip('"')


def call(arguments, **more):
    done = subprocess.run([str(argument) for argument in arguments], text=True, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, check=False, **more)
    if done.returncode != 0:
        raise Failure(f"{' '.join(map(str, arguments))} failed:\n{done.stdout[-2000:]}")
    return done.stdout


class Debian:
    """The packages of one architecture: `sysroot`, their files, and `kernel`, the kernel package's."""

    def __init__(self, architecture):
        self.architecture = architecture
        self.folder = cache() / architecture
        self.sysroot = self.folder / "sysroot"
        self.kernel = self.folder / "kernel"
        self.apt = self.folder / "apt"
        self.names = [*PACKAGES, *MORE[architecture], KERNELS[architecture]]

    def fetch(self):
        """Downloads and unpacks, unless that is done already."""
        self.folder.mkdir(parents=True, exist_ok=True)
        with open(self.folder / "lock", "w") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            done = self.folder / "done"
            wanted = f"{release()}: {' '.join(self.names)}\n"
            if done.exists() and done.read_text() == wanted:
                return
            done.unlink(missing_ok=True)
            print(f"packages: {self.architecture} into {self.folder}", file=sys.stderr, flush=True)
            self._download()
            self._unpack()
            done.write_text(wanted)

    def _download(self):
        for folder in ("state/lists/partial", "cache/archives/partial"):
            (self.apt / folder).mkdir(parents=True, exist_ok=True)
        (self.apt / "status").write_text("")
        self._write_sources()
        self._write_settings()
        environment = {**os.environ, "APT_CONFIG": str(self.apt / "apt.conf"), "DEBIAN_FRONTEND": "noninteractive"}
        call(["apt-get", "-q", "update"], env=environment)
        names = [name for name in self.names if name not in KERNELS.values()]
        call(["apt-get", "-q", "install", "-y", "--download-only", *names], env=environment)
        self._download_kernel(environment)

    def _sources(self, *options):
        """The addresses and suites that the machine's apt has lists of."""
        suites = {release() + suffix for suffix in SUITES[self.architecture]}
        told = call(["apt-get", *options, "indextargets", "--format", "$(REPO_URI) $(RELEASE)"])
        rows = {tuple(line.split()) for line in told.splitlines()}
        return sorted(row for row in rows if len(row) == 2 and row[1] in suites)

    def _sources_looked_up(self):
        """The same for a machine that has thrown its lists away, as images of machines often have."""
        lists = self.apt / "machine-lists"
        (lists / "partial").mkdir(parents=True, exist_ok=True)
        options = ("-o", f"Dir::State::lists={lists}", "-o", "Debug::NoLocking=1", "-o", "APT::Sandbox::User=")
        call(["apt-get", "-q", *options, "update"])
        return self._sources(*options)

    def _write_sources(self):
        """The machine's own sources, for this architecture."""
        rows = self._sources() or self._sources_looked_up()
        if not rows:
            raise Failure(f"apt-get knows no sources of {release()}; set this machine's package sources right")
        keys = "/usr/share/keyrings/debian-archive-keyring.gpg"
        lines = [f"deb [signed-by={keys}] {address} {suite} main\n" for address, suite in rows]
        (self.apt / "sources.list").write_text("".join(lines))

    def _write_settings(self):
        root, architecture = self.apt, self.architecture
        (root / "apt.conf").write_text(
            f'APT::Architecture "{architecture}"; APT::Architectures {{ "{architecture}"; }};\n'
            'APT::Install-Recommends "0"; APT::Sandbox::User ""; Debug::NoLocking "1"; Acquire::Retries "3";\n'
            f'Dir::State "{root}/state"; Dir::State::status "{root}/status"; Dir::Cache "{root}/cache";\n'
            f'Dir::Etc::sourcelist "{root}/sources.list"; Dir::Etc::sourceparts "-";\n'
            f'Dir::Etc::preferencesparts "{root}/none";\n')

    def _download_kernel(self, environment):
        """The one package that the kernel's name stands for, without what it would have an installation do."""
        told = call(["apt-cache", "depends", KERNELS[self.architecture]], env=environment)
        name = next(line.split()[-1] for line in told.splitlines() if "Depends: linux-image" in line)
        folder = self.folder / "kernel-deb"
        shutil.rmtree(folder, ignore_errors=True)
        folder.mkdir()
        call(["apt-get", "-q", "download", name.split(":")[0]], env=environment, cwd=folder)

    def _unpack(self):
        for target, debs in ((self.sysroot, self.apt / "cache/archives"), (self.kernel, self.folder / "kernel-deb")):
            shutil.rmtree(target, ignore_errors=True)
            target.mkdir()
            for deb in sorted(debs.glob("*.deb")):
                call(["dpkg", "-x", deb, target])
