"""The binaries on their own: their hardening, and the options of the command line."""
import os
import subprocess
import tempfile
import unittest

from lab.programs import BUILD, DEVICE, DISCOVERY, IS_SANITIZED, PROGRAM


def readelf(binary, *options):
    return subprocess.run(["readelf", "--wide", *options, str(binary)], check=True, capture_output=True,
                          text=True).stdout


class Hardening(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cache = (BUILD / "CMakeCache.txt").read_text()
        if IS_SANITIZED or "CMAKE_BUILD_TYPE:STRING=Debug" in cache:
            raise unittest.SkipTest("this build is for finding faults, not for users")

    def test_binaries(self):
        self.assertNotIn("avahi", readelf(PROGRAM, "-d"), "strangers' datagrams are read by another process")
        for binary in (PROGRAM, DISCOVERY, DEVICE):
            with self.subTest(binary.name):
                header, program, dynamic = (readelf(binary, option) for option in ("-h", "-l", "-d"))
                self.assertRegex(header, r"Type: +DYN .*Position-Independent Executable")
                self.assertRegex(dynamic, r"FLAGS_1.*\bNOW\b.*\bPIE\b")
                self.assertIn("GNU_RELRO", program)
                self.assertRegex(program, r"GNU_STACK.* RW +0x")
                self.assertNotRegex(program, r"LOAD.* RWE ")
                symbols = readelf(binary, "--dyn-syms")
                self.assertRegex(symbols, r"UND __stack_chk_fail\b", "stack protector")
                if binary is not DISCOVERY:  # there the compiler knows every size
                    self.assertRegex(symbols, r"UND __(read|recv|memcpy|poll|snprintf|vsnprintf|fprintf|memset)_chk\b",
                                     "fortified functions")
                self.assertRegex(readelf(binary, "--syms"), r"\b_ZSt21__glibcxx_assert_fail", "checked containers")


class Options(unittest.TestCase):
    def test_tessary_link(self):
        for arguments, status, output, error in (
                (["--help"], 0, r"Usage: tessary-link.*--help.*--version.*", ""),
                (["--version"], 0, r"tessary-link \d+\.\d+\.\d+\n", ""),
                (["--versio"], 2, "", r'tessary-link: .*"--versio".*\n'),
                (["-platform", "offscreen"], 2, "", r'tessary-link: .*"-platform".*\n'),
                (["a\nb"], 2, "", r'tessary-link: .*"a\\nb".*\n'),
                ([""], 2, "", r'tessary-link: .*"".*\n')):
            with self.subTest(arguments), tempfile.TemporaryDirectory() as folder:
                ended = subprocess.run([PROGRAM, *arguments], capture_output=True, text=True, timeout=10,
                                       env={"HOME": folder, "XDG_RUNTIME_DIR": folder})
                self.assertEqual(ended.returncode, status)
                self.assertRegex(ended.stdout, f"(?s)^{output}$")
                self.assertRegex(ended.stderr, f"^{error}$")
                self.assertEqual(os.listdir(folder), [], "nothing was begun, not even the lock")


if __name__ == "__main__":
    unittest.main()
