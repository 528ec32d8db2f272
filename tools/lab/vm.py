#!/usr/bin/env python3
"""A small virtual machine for tests that need kernel modules or hardware that this machine lacks: Debian's kernel,
emulated by QEMU, with the files of this machine.

    vm.py COMMAND [ARGUMENT]...     runs a command in it as root, in the current directory; exits with its status

The guest's root file system is this machine's with an overlay in memory: the guest may write anywhere, and the host's
files do not change. It has no network except what it creates itself, and its /run and /dev/shm are empty at the start.
The environment variable TESSARY_VM is set in it. The start takes about ten seconds.
"""
import os
import pathlib
import shlex
import shutil
import subprocess
import sys
import tempfile

# The guest's memory. The host allocates a page only when the guest first uses it.
MEGABYTES = 1024
# Needed for the root file system and the ports to the host. All other modules are loaded from the root file system.
MODULES = ("virtio_pci", "virtio_console", "9pnet_virtio", "9p", "overlay")
TOOLS = ("qemu-system-x86_64", "busybox", "setpriv")

# The first process of the guest, in the boot archive.
INIT = """#!/bin/busybox sh
export PATH=/bin
busybox mkdir -p /proc /sys /dev /host /memory /root
busybox mount -t devtmpfs none /dev
busybox mount -t proc none /proc
busybox mount -t sysfs none /sys
for module in {modules}; do busybox insmod /$module || echo "no module $module"; done
busybox mount -t 9p -o trans=virtio,version=9p2000.L,msize=512000,cache=loose,ro host /host
busybox mount -t tmpfs none /memory
busybox mkdir /memory/upper /memory/work
busybox mount -t overlay -o lowerdir=/host,upperdir=/memory/upper,workdir=/memory/work none /root
for directory in dev proc sys; do busybox mount -o move /$directory /root/$directory; done
busybox mkdir -p /root/dev/shm /root/dev/pts
for directory in run dev/shm; do busybox mount -t tmpfs none /root/$directory; done
busybox mount -t devpts none /root/dev/pts
busybox cp /start /root/run/start
exec busybox switch_root /root /bin/sh /run/start
"""

# Its successor, in the root file system. The ports are found by name, because their order may vary.
START = """
export {environment}
for port in /sys/class/virtio-ports/*; do
    device=/dev/${{port##*/}}
    case $(cat "$port/name") in output) output=$device ;; status) status=$device ;; esac
done
ip link set lo up
cd {directory} && {command} >"$output" 2>&1 </dev/null
echo $? >"$status"
sync
busybox poweroff -f
"""


class Unavailable(Exception):
    """This machine lacks a program or a kernel that the virtual machine needs."""


def _kernel():
    """The newest installed Debian kernel, and the folder of its modules."""
    def version(path):
        return [int(part) if part.isdigit() else part for part in path.name.replace("-", ".").split(".")]
    for image in sorted(pathlib.Path("/boot").glob("vmlinuz-*-amd64"), key=version, reverse=True):
        modules = pathlib.Path("/lib/modules", image.name.removeprefix("vmlinuz-"))
        if (modules / "modules.dep").exists():
            return image, modules
    raise Unavailable("no kernel (package linux-image-amd64)")


def _module_files(modules, names):
    """The files of the modules and of their dependencies, in loading order."""
    needs = {}
    for line in (modules / "modules.dep").read_text().splitlines():
        file, _, others = line.partition(":")
        needs[file] = others.split()
    by_name = {pathlib.Path(file).name.split(".")[0].replace("-", "_"): file for file in needs}
    files = []
    for name in names:
        file = by_name.get(name.replace("-", "_"))
        if file:  # otherwise it is built into the kernel
            files += [need for need in [*reversed(needs[file]), file] if need not in files]
    return [modules / file for file in files]


def _archive(files):
    """A boot archive (cpio, format newc) of {path: (mode, contents)}."""
    archive = b""
    for number, (path, (mode, contents)) in enumerate([*files.items(), ("TRAILER!!!", (0, b""))], 1):
        name = path.encode() + b"\0"
        fields = (number, mode, 0, 0, 1, 0, len(contents), 0, 0, 0, 0, len(name), 0)
        archive += b"070701" + b"".join(b"%08x" % field for field in fields) + name
        archive += bytes(-len(archive) % 4) + contents
        archive += bytes(-len(archive) % 4)
    return archive


def run(command, timeout, environment=None, directory=None, output=None):
    """Boots the machine, runs the command, and returns its exit status.

    The command's output goes to the file object `output` (default: standard output) while it runs. Raises `Unavailable`
    if the machine cannot be started here, and AssertionError, with the kernel's console output, if it runs for more than
    `timeout` seconds or ends without a status.
    """
    if missing := [tool for tool in TOOLS if not shutil.which(tool)]:
        raise Unavailable("missing: " + ", ".join(missing))
    kernel, modules = _kernel()
    module_files = _module_files(modules, MODULES)
    variables = {"TESSARY_VM": "1", "PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "HOME": "/root", "LC_ALL": "C.UTF-8",
                 "PYTHONPATH": os.environ.get("PYTHONPATH", ""), **(environment or {})}
    start = START.format(command=shlex.join(map(str, command)), directory=shlex.quote(str(directory or os.getcwd())),
                         environment=" ".join(f"{key}={shlex.quote(value)}" for key, value in variables.items()))
    executable, plain, folder = 0o100755, 0o100644, 0o040755
    files = {"bin": (folder, b""), "bin/busybox": (executable, pathlib.Path(shutil.which("busybox")).read_bytes()),
             "init": (executable, INIT.format(modules=" ".join(file.name for file in module_files)).encode()),
             "start": (plain, start.encode())}
    files |= {file.name: (plain, file.read_bytes()) for file in module_files}

    with tempfile.TemporaryDirectory(prefix="tessary-vm-") as temporary:
        here = pathlib.Path(temporary)
        (here / "initrd").write_bytes(_archive(files))
        qemu = ["qemu-system-x86_64", "-accel", "tcg,thread=multi", "-machine", "pc", "-cpu", "Nehalem", "-smp", "2",
                "-m", str(MEGABYTES), "-nodefaults", "-no-user-config", "-display", "none", "-no-reboot",
                "-kernel", kernel, "-initrd", here / "initrd",
                "-append", "console=ttyS0 loglevel=4 panic=-1 mitigations=off nokaslr rdinit=/init",
                "-serial", f"file:{here / 'console'}",
                "-virtfs", "local,path=/,mount_tag=host,security_model=none,readonly=on,multidevs=remap",
                "-device", "virtio-serial",
                "-chardev", "stdio,id=output,signal=off", "-device", "virtserialport,chardev=output,name=output",
                "-chardev", f"file,id=status,path={here / 'status'}",
                "-device", "virtserialport,chardev=status,name=status"]
        # Keep QEMU's standard input open: at its end QEMU closes the port, and the guest's output would be lost.
        machine = subprocess.Popen(["setpriv", "--pdeathsig", "KILL", *map(str, qemu)], stdin=subprocess.PIPE,
                                   stdout=output or sys.stdout)
        ended = "ended"
        try:
            machine.wait(timeout)
        except subprocess.TimeoutExpired:
            ended = f"was not through after {timeout} s"
        finally:
            machine.kill()
            machine.wait()
            machine.stdin.close()
        status = (here / "status").read_text().strip() if (here / "status").exists() else ""
        if status:
            return int(status)
        said = (here / "console").read_text(errors="replace") if (here / "console").exists() else ""
        raise AssertionError(f"the virtual machine {ended} without a status; its kernel said:\n{said[-4000:]}")


if __name__ == "__main__":
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    sys.exit(run(sys.argv[1:], timeout=3600))
