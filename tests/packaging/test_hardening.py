"""The built executables are hardened: read from the files themselves."""

import os
import subprocess
import unittest

PROGRAMS = [os.environ["VELANTRIX_SERVER"], os.environ["VELANTRIX_LISTEN"],
            os.environ["VELANTRIX_WEB"]]
OPTIMISED = os.environ["VELANTRIX_BUILD_TYPE"] not in ("", "Debug")


class Hardening(unittest.TestCase):
    def each(self, option):
        """Yields what readelf says of each program."""
        for program in PROGRAMS:
            yield subprocess.run(["readelf", "-W", option, program], check=True, text=True,
                                 stdout=subprocess.PIPE).stdout

    def test_programs_are_position_independent(self):
        for header in self.each("-h"):
            self.assertIn("DYN (Position-Independent Executable file)", header)

    def test_stack_is_not_executable_and_no_segment_is_writable_besides(self):
        for segments in self.each("-l"):
            self.assertRegex(segments, r"GNU_STACK +(0x\w+ +){5}RW +0x")
            self.assertNotIn("RWE", segments)

    def test_relocations_become_read_only_before_the_program_runs(self):
        for segments in self.each("-l"):
            self.assertIn("GNU_RELRO", segments)
        for dynamic in self.each("-d"):
            self.assertIn("BIND_NOW", dynamic)
            self.assertRegex(dynamic, r"FLAGS_1.*\bNOW\b")

    def test_stack_protector_is_in_use(self):
        for symbols in self.each("--dyn-syms"):
            self.assertIn("__stack_chk_fail", symbols)

    @unittest.skipIf(not OPTIMISED, "fortified calls need an optimised build")
    def test_library_calls_are_fortified(self):
        for symbols in self.each("--dyn-syms"):
            self.assertRegex(symbols, r"__\w+_chk\b(?<!stack_chk)")

    def test_no_search_path_is_built_in_but_what_the_build_folder_needs(self):
        for dynamic in self.each("-d"):
            self.assertNotRegex(dynamic, r"\((RPATH|RUNPATH)\)")


if __name__ == "__main__":
    unittest.main()
