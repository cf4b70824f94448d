"""The built executables are hardened: read from the files themselves."""

import os
import subprocess
import unittest

PROGRAMS = [os.environ["VELANTRIX_SERVER"], os.environ["VELANTRIX_LISTEN"],
            os.environ["VELANTRIX_WEB"]]
OPTIMISED = os.environ["VELANTRIX_BUILD_TYPE"] not in ("", "Debug")


def readelf(option, program):
    return subprocess.run(["readelf", "-W", option, program], check=True, text=True,
                          stdout=subprocess.PIPE).stdout


class Hardening(unittest.TestCase):
    def test_programs_are_position_independent(self):
        for program in PROGRAMS:
            with self.subTest(program):
                self.assertIn("DYN (Position-Independent Executable file)",
                              readelf("-h", program))

    def test_stack_is_not_executable(self):
        for program in PROGRAMS:
            with self.subTest(program):
                stack = [line for line in readelf("-l", program).splitlines()
                         if "GNU_STACK" in line]
                self.assertEqual(len(stack), 1)
                self.assertEqual(stack[0].split()[-2], "RW", stack[0])

    def test_no_segment_is_writable_and_executable(self):
        for program in PROGRAMS:
            with self.subTest(program):
                for line in readelf("-l", program).splitlines():
                    self.assertNotIn("RWE", line)

    def test_relocations_become_read_only_before_the_program_runs(self):
        for program in PROGRAMS:
            with self.subTest(program):
                self.assertIn("GNU_RELRO", readelf("-l", program))
                dynamic = readelf("-d", program)
                self.assertIn("BIND_NOW", dynamic)
                self.assertRegex(dynamic, r"FLAGS_1.*\bNOW\b")

    def test_stack_protector_is_in_use(self):
        for program in PROGRAMS:
            with self.subTest(program):
                self.assertIn("__stack_chk_fail", readelf("--dyn-syms", program))

    @unittest.skipIf(not OPTIMISED, "fortified calls need an optimised build")
    def test_library_calls_are_fortified(self):
        for program in PROGRAMS:
            with self.subTest(program):
                self.assertRegex(readelf("--dyn-syms", program), r"__\w+_chk\b(?<!stack_chk)")

    def test_no_search_path_is_built_in_but_what_the_build_folder_needs(self):
        for program in PROGRAMS:
            with self.subTest(program):
                self.assertNotRegex(readelf("-d", program), r"\((RPATH|RUNPATH)\)")


if __name__ == "__main__":
    unittest.main()
