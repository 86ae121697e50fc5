"""One boot of a virtual machine under qemu: emulated in software whatever the host can do, so that it is the same
everywhere. The guest mounts the source tree, builds included, read-only under its own path, and a folder of results."""

import selectors
import shutil
import subprocess
import threading
import time

import debian

EMULATORS = {"amd64": "qemu-system-x86_64", "armhf": "qemu-system-arm"}
EMULATOR_PACKAGES = {"qemu-system-x86_64": "qemu-system-x86", "qemu-system-arm": "qemu-system-arm"}
# A stock kernel hangs under kvm where kvm is itself emulated, so it is not used even if it is there.
BOARDS = {"amd64": ["-machine", "q35", "-cpu", "max", "-nodefaults"],
          "armhf": ["-machine", "virt,highmem=off", "-cpu", "cortex-a15"]}
SHARES = {"amd64": "virtio-9p-pci", "armhf": "virtio-9p-device"}
CONSOLES = {"amd64": "console=ttyS0 nokaslr", "armhf": "console=ttyAMA0"}
# With this the guest's clock counts instructions and skips idle time: timers are exact whatever the host is doing.
VIRTUAL_TIME = ["-icount", "shift=1,sleep=off"]


def option(path):
    """A path inside one of the emulator's options, which commas separate."""
    return str(path).replace(",", ",,")


def command(architecture, images, out, plan):
    kernel, root = images
    device = SHARES[architecture]
    return [EMULATORS[architecture], *BOARDS[architecture], "-accel", "tcg", "-smp", "1", "-m", str(plan.memory_mb),
            "-nic", "none", "-display", "none", "-monitor", "none", "-serial", "stdio", "-no-reboot",
            "-kernel", str(kernel), "-initrd", str(root),
            "-append", f"{CONSOLES[architecture]} quiet panic=-1 cryptomgr.notests",
            "-fsdev", f"local,id=out,path={option(out)},security_model=none",
            "-device", f"{device},fsdev=out,mount_tag=out",
            "-fsdev", f"local,id=source,path={option(debian.SOURCE)},security_model=none,readonly=on,multidevs=remap",
            "-device", f"{device},fsdev=source,mount_tag=source",
            *(VIRTUAL_TIME if plan.virtual_time else []), *plan.devices]


SILENCE = 30  # seconds after which a line says that the machine is at work


running = []  # every emulator that has not ended; those left are ended by stop_all
ending = threading.Event()  # no other is started after it
starting = threading.Lock()


def show(process, end, log, name):
    """Prints the guest's lines with the seconds since it was switched on; False when it takes too long."""
    began = time.monotonic()
    def tell(text):
        print(f"{name} {time.monotonic() - began:6.1f}  {text}", flush=True)
    with selectors.DefaultSelector() as selector:
        selector.register(process.stdout, selectors.EVENT_READ)
        while True:
            left = end - time.monotonic()
            if left <= 0:
                return False
            if not selector.select(min(left, SILENCE)):
                tell("...")
                continue
            line = process.stdout.readline()
            if not line:
                return True
            text = line.decode(errors="replace").rstrip()
            log.write(text + "\n")
            tell(text)


def stop(process):
    process.terminate()
    try:
        process.wait(5)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()


def start(arguments):
    """Unbuffered: what select does not see in a buffer would wait there. A group of its own: Ctrl-C comes to us."""
    with starting:
        if ending.is_set():
            return None
        running.append(subprocess.Popen(arguments, stdin=subprocess.DEVNULL, bufsize=0, stdout=subprocess.PIPE,
                                        stderr=subprocess.STDOUT, start_new_session=True))
        return running[-1]


def stop_all():
    with starting:
        ending.set()
    for process in list(running):
        stop(process)


def run(architecture, images, build, plan):
    """Boots, plays the plan, and returns an empty text, or what went wrong."""
    out = debian.MADE / "out" / f"{architecture}-{plan.name}"
    shutil.rmtree(out, ignore_errors=True)
    out.mkdir(parents=True)
    (out / "plan").write_text(
        f"SOURCE='{debian.SOURCE}'\nBUILD='{build}'\nSCRIPT='{plan.script}'\nARGUMENTS='{' '.join(plan.tests or plan.arguments)}'\n")
    with open(out / "console", "w", buffering=1) as log:
        process = start(command(architecture, images, out, plan))
        if process is None:
            return "not started"
        try:
            in_time = show(process, time.monotonic() + plan.seconds, log, f"{architecture} {plan.name:11}")
        finally:
            stop(process)
            running.remove(process)
    status = out / "status"
    if not in_time:
        return f"not done after {plan.seconds} s"
    if not status.exists():
        return f"the machine ended without a status; its console is in {out / 'console'}"
    code = status.read_text().strip()
    return "" if code == "0" else f"status {code}; results are in {out}"
