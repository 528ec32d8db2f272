"""The Debian package: what is in it, and that it works, and goes without a trace, where nothing else is."""
import fcntl
import functools
import gzip
import pathlib
import platform
import re
import shutil
import signal
import subprocess
import unittest

from lab.processes import Process, environment
from lab.programs import BUILD, DEVICE, PROGRAM, ROOT, SystemTest

TOOLS = ("apt-get", "appstreamcli", "debootstrap", "desktop-file-validate", "dpkg-shlibdeps", "lintian")
# Kept between runs: the bare system, and what was downloaded to install the package on it.
BARE_SYSTEM, DOWNLOADS = BUILD / "package-test/bare-system", BUILD / "package-test/downloads"
PREFERENCES = "root/.config/tessary-link/preferences.json"


def run(*command, check=True, timeout=200, **options):
    result = subprocess.run([str(part) for part in command], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, text=True, timeout=timeout,
                            env=environment(DEBIAN_FRONTEND="noninteractive"), **options)
    if check and result.returncode != 0:
        raise AssertionError(f"{command} ended with {result.returncode}:\n{result.stdout[-4000:]}")
    return result.stdout


@functools.cache
def package():
    """Builds the package; answers where it is."""
    with (BUILD / "package.lock").open("w") as lock:  # another process of the tests may be building it
        fcntl.flock(lock, fcntl.LOCK_EX)
        output = run("cmake", "--build", BUILD, "--target", "package")
    return pathlib.Path(re.search(r"package: (\S+\.deb) generated", output)[1])


class CleanSystem:
    """A Debian of this machine's own release with nothing but what each has. It uses the machine's network to install
    packages; programs run on a host of the test's network."""

    def __init__(self, test, host):
        self.root = test.directory / "root"
        self._host = host
        release = platform.freedesktop_os_release()
        if release["ID"] != "debian":
            test.skipTest("needs Debian")
        if not BARE_SYSTEM.exists():
            self._bootstrap(release["VERSION_CODENAME"])
        DOWNLOADS.mkdir(exist_ok=True)
        run("cp", "-a", BARE_SYSTEM, self.root)
        archives = self.root / "var/cache/apt/archives"
        for mount in (["-t", "proc", "none", self.root / "proc"], ["-t", "tmpfs", "none", self.root / "run"],
                      ["--rbind", "/dev", self.root / "dev"], ["--bind", DOWNLOADS, archives]):
            host.run("mount", *map(str, mount))  # they go with the host

    @staticmethod
    def _bootstrap(codename):
        """As this machine installs: from its mirror, with its settings."""
        sources = run("apt-get", "indextargets", "--format", "$(SITE) $(CODENAME)", "Created-By: Packages")
        mirror = next(line.split()[0] for line in sources.splitlines() if line.split()[-1] == codename)
        unfinished = BARE_SYSTEM.with_name("unfinished")
        shutil.rmtree(unfinished, ignore_errors=True)
        unfinished.parent.mkdir(exist_ok=True)
        run("debootstrap", "--variant=minbase", codename, unfinished, mirror)
        settings = run("apt-config", "dump").splitlines()
        (unfinished / "etc/apt/apt.conf.d/90machine").write_text(
            "".join(line + "\n" for line in settings if line.startswith("Acquire::")))
        for path in ("etc/ssl/certs", "etc/resolv.conf"):
            run("cp", "-rL", f"/{path}", (unfinished / path).parent)
        (unfinished / "usr/sbin/policy-rc.d").write_text("#!/bin/sh\nexit 101\n")  # nothing is started
        (unfinished / "usr/sbin/policy-rc.d").chmod(0o755)
        run("chroot", unfinished, "apt-get", "update", "-q")
        unfinished.rename(BARE_SYSTEM)

    def run(self, *command, **options):
        """Runs on the system, and on the machine's network."""
        return run("nsenter", f"--target={self._host.pid}", "--mount", "chroot", self.root, *command, **options)

    def start(self, test, *command, host=None):
        session = environment(HOME="/root", XDG_RUNTIME_DIR="/run")
        return Process(test, ["chroot", self.root, *command], host or self._host, session)

    def install(self, package):
        shutil.copy(package, self.root / "tmp")
        command = ["apt-get", "install", "-qy", "--no-install-recommends", f"/tmp/{package.name}"]
        try:
            self.run(*command)
        except AssertionError:  # the mirror may have newer packages meanwhile
            self.run("apt-get", "update", "-q")
            self.run(*command)
        (self.root / "tmp" / package.name).unlink()

    def paths(self):
        """Every file that is named after the program, but for processes, devices and downloads."""
        found = run("find", self.root, "-xdev", "-iname", "*tessary*")
        return sorted(str(pathlib.Path(path).relative_to(self.root)) for path in found.splitlines())


class Package(SystemTest):
    def setUp(self):
        super().setUp()
        if missing := [tool for tool in TOOLS if not shutil.which(tool)]:
            self.skipTest("missing: " + ", ".join(missing))
        self.package = package()
        self.content = self.directory / "content"
        run("dpkg-deb", "-x", self.package, self.content)

    def files(self, folder):
        return {str(path.relative_to(folder)) for path in folder.rglob("*") if not path.is_dir()}

    def test_content(self):
        self.assertNotRegex(run("lintian", "--fail-on", "error", "--profile", "debian", self.package), "(?m)^[EW]:")
        usr = self.content / "usr"
        run("desktop-file-validate", usr / "share/applications/tessary-link.desktop")
        run("appstreamcli", "validate", "--no-net", "--pedantic", *(usr / "share/metainfo").iterdir())

        # Each icon has the size that its folder promises.
        icons = usr / "share/icons/hicolor"
        for path in icons.glob("*x*/apps/tessary-link.png"):
            size = int(path.read_bytes()[16:20].hex(), 16)
            self.assertEqual(f"{size}x{size}", path.parent.parent.name)
        folders = {path.name for path in icons.iterdir()}
        self.assertTrue({"16x16", "48x48", "256x256", "scalable", "symbolic"} <= folders, folders)

        # An installation without a package has the same, but what only packages have.
        run("cmake", "--install", BUILD, "--prefix", self.directory / "usr")
        self.assertEqual(self.files(usr) - self.files(self.directory / "usr"),
                         {f"share/doc/tessary-link/{name}" for name in ("changelog.Debian.gz", "copyright")})

    def test_version(self):
        """All say the version and the date of the newest release in the changelog."""
        released = re.findall(r"^## (\d\S*) \((\d{4}-\d\d-\d\d)\)$", (ROOT / "CHANGELOG.md").read_text(), re.M)
        expected, date = released[0]
        self.assertEqual(run(PROGRAM, "--version"), f"tessary-link {expected}\n")
        self.assertTrue(run("dpkg-deb", "-f", self.package, "Version").startswith(expected + "-"))
        share = self.content / "usr/share"
        metadata = next((share / "metainfo").iterdir()).read_text()
        self.assertIn(f'<release version="{expected}" date="{date}"/>', metadata)
        for name in ("tessary-link", "tessary-device"):
            page = gzip.decompress((share / f"man/man1/{name}.1.gz").read_bytes()).decode()
            self.assertIn(f'"Tessary Link {expected}"', page)
            self.assertIn(f".Dd {date}", page)

    def test_manual_page_has_every_option(self):
        for program in (PROGRAM, DEVICE):
            page = gzip.decompress((self.content / f"usr/share/man/man1/{program.name}.1.gz").read_bytes()).decode()
            told = re.findall(r"^\.It Fl -(\S+)", page, re.M)
            self.assertEqual(sorted(told), sorted(re.findall(r"^  --(\S+)", run(program, "--help"), re.M)))

    def test_on_a_clean_system(self):
        desk, stage = self.network.host("10.77.0.1/24"), self.network.host("10.77.0.2/24")
        system = CleanSystem(self, desk)
        self.assertEqual(system.paths(), [])
        system.install(self.package)
        program = system.start(self, "/usr/bin/tessary-link")
        device = system.start(self, "/usr/bin/tessary-device", "--name", "Device", host=stage)
        program.wait_for(r"^\[Dialer\] 10\.77\.0\.2 running$", 20)
        device.wait_for("running with")
        program.signal(signal.SIGTERM)
        self.assertEqual(program.wait(), 0)
        device.wait_for(r"bye from .*\(data\)")
        device.signal(signal.SIGTERM)
        self.assertEqual(device.wait(), 0)

        installed = {line[1:] for line in system.run("dpkg", "-L", "tessary-link").splitlines()}
        self.assertTrue(self.files(self.content) <= installed)
        system.run("apt-get", "purge", "-qy", "tessary-link")
        self.assertEqual(system.paths(), [str(pathlib.Path(PREFERENCES).parent)])
        self.assertTrue((system.root / PREFERENCES).exists())
        left = {path for path in installed - {"."} if (system.root / path).exists()}
        system.run("dpkg", "-S", *(f"/{path}" for path in left))  # what is left is some other package's


if __name__ == "__main__":
    unittest.main()
