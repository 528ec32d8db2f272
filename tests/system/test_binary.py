"""What the compiler and the linker were asked to do against whoever finds a fault in the program."""
import subprocess
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


if __name__ == "__main__":
    unittest.main()
