"""A staged installation is complete, and every file passes the validator of its kind."""

import configparser
import gzip
import os
import pathlib
import re
import shutil
import struct
import subprocess
import tempfile
import unittest
import xml.etree.ElementTree as ElementTree

CMAKE = os.environ["CMAKE_COMMAND"]
BUILD = os.environ["VELANTRIX_BUILD"]
SOURCE = pathlib.Path(os.environ["VELANTRIX_SOURCE"])
PORTS = {"59010", "59011"}

WEB_PORT = "59080"
PROGRAMS = ("VelantrixServer", "velantrix-listen", "velantrix-web")

SERVER_OPTIONS = ["-nogui", "-verbose", "-p", "-b", "-platform"]


def run(*command, **options):
    return subprocess.run(command, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          **options)


def stage(folder, prefix=None):
    command = [CMAKE, "--install", BUILD] + (["--prefix", prefix] if prefix else [])
    result = run(*command, env={**os.environ, "DESTDIR": folder})
    if result.returncode != 0:
        raise AssertionError(result.stdout)


class InstalledFiles(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.stage = tempfile.mkdtemp(prefix="velantrix-install-")
        cls.addClassCleanup(shutil.rmtree, cls.stage)
        stage(cls.stage, "/usr")
        cls.usr = pathlib.Path(cls.stage, "usr")

    def check(self, *command, **options):
        """Runs a validator, which must be installed, and wants it content."""
        self.assertIsNotNone(shutil.which(command[0]), f"{command[0]} is not installed")
        result = run(*map(str, command), **options)
        self.assertEqual(result.returncode, 0, result.stdout)
        return result.stdout

    def manual(self, name):
        packed = self.usr / "share/man/man1" / f"{name}.1.gz"
        return gzip.decompress(packed.read_bytes()).decode()

    def test_the_programs_are_installed_and_executable(self):
        for name in PROGRAMS:
            self.assertTrue(os.access(self.usr / "bin" / name, os.X_OK), name)

    def test_nothing_is_installed_outside_the_standard_folders(self):
        expected = re.compile(
            r"usr/bin/|usr/share/(applications|metainfo|man/man1|doc|bash-completion/completions"
            r"|zsh|icons/hicolor|lintian/overrides)/|usr/lib/(systemd/user|firewalld/services)/"
            r"|(usr/|usr/local/)?etc/ufw/applications\.d/")
        for path in pathlib.Path(self.stage).rglob("*"):
            if path.is_file():
                self.assertRegex(str(path.relative_to(self.stage)), expected)

    def test_desktop_entry_is_valid_and_starts_the_installed_program(self):
        entry = self.usr / "share/applications/example.velantrix.server.desktop"
        self.assertEqual(self.check("desktop-file-validate", entry), "")
        parser = configparser.ConfigParser(interpolation=None)
        parser.optionxform = str
        parser.read(entry)
        self.assertTrue((self.usr / "bin" / parser["Desktop Entry"]["Exec"]).exists())
        icon = parser["Desktop Entry"]["Icon"]
        self.assertTrue((self.usr / f"share/icons/hicolor/scalable/apps/{icon}.svg").exists())

    def test_software_centre_description_is_valid_and_names_the_desktop_entry(self):
        info = self.usr / "share/metainfo/example.velantrix.server.metainfo.xml"
        self.check("appstreamcli", "validate", "--no-net", info)
        root = ElementTree.parse(info).getroot()
        entry = root.find("launchable").text
        self.assertTrue((self.usr / "share/applications" / entry).exists())
        version = re.search(r"project\(VelantrixServer VERSION (\d+\.\d+)",
                            (SOURCE / "CMakeLists.txt").read_text()).group(1)
        self.assertEqual(root.find("releases/release").get("version"), version)

    def test_icons_have_the_size_of_their_folder_and_show_something(self):
        icons = sorted((self.usr / "share/icons/hicolor").glob("*/apps/*.png"))
        sizes = [int(icon.parts[-3].split("x")[0]) for icon in icons]
        self.assertEqual(sorted(sizes), [16, 22, 24, 32, 48, 64, 128, 256, 512])
        for icon, size in zip(icons, sizes):
            data = icon.read_bytes()
            self.assertEqual(data[:8], b"\x89PNG\r\n\x1a\n")
            self.assertEqual(struct.unpack(">IIBB", data[16:26]), (size, size, 8, 6))
            self.assertGreater(len(data), size * 4)

    def test_manual_pages_are_clean(self):
        for name in PROGRAMS:
            result = run("mandoc", "-T", "lint", "-W", "style", input=self.manual(name))
            complaints = [line for line in result.stdout.splitlines()
                          if "referenced manual not found" not in line  # Depends on the machine.
                          and "mandoc.db" not in line]
            self.assertEqual(complaints, [])

    def test_manual_pages_have_every_section_that_a_user_looks_for(self):
        for name in PROGRAMS:
            for section in ("OPTIONS", "NETWORK PORTS", "ENVIRONMENT", "FILES", "EXIT STATUS",
                            "EXAMPLES", "TROUBLESHOOTING"):
                self.assertIn(f"\n.Sh {section}\n", self.manual(name), name)

    def test_server_manual_shows_how_to_stream_what_the_computer_plays(self):
        # As the user reads it: nothing of it may be taken for a variable of the build.
        text = run("mandoc", "-T", "ascii", input=self.manual("VelantrixServer")).stdout
        setup = (SOURCE / "docs/setup.md").read_text()
        for command in ("PULSE_SOURCE=@DEFAULT_MONITOR@ VelantrixServer -nogui",
                        "PIPEWIRE_ALSA='{ stream.capture.sink=true }' VelantrixServer -nogui"):
            self.assertIn(command, text)
            self.assertIn(command, setup)

    def test_server_manual_and_completions_name_every_option(self):
        scan = (SOURCE / "app/base/command_line.cpp").read_text()
        options = set(re.findall(r'"(-[a-z]+)"', scan))
        self.assertEqual(options, set(SERVER_OPTIONS))
        for text in (self.manual("VelantrixServer"),):
            for option in options:
                self.assertRegex(text, rf"\.It Fl {option[1:]}\b")
        for completion in ("bash-completion/completions/VelantrixServer",
                           "zsh/*/_VelantrixServer"):
            path, = self.usr.glob(f"share/{completion}")
            for option in options:
                self.assertRegex(path.read_text(), rf"[ '\"(]{option}\b")

    def test_server_manual_names_every_variable_of_its_own(self):
        variables = set()
        for folder in ("app", "audio", "stream", "discovery", "gui", "update"):
            for source in (SOURCE / folder).glob("*.cpp"):
                variables |= set(re.findall(r'(?:getenv|qgetenv|qEnvironmentVariable\w*)\('
                                            r'"([A-Z_]+)"', source.read_text()))
        self.assertIn("VELANTRIX_SERVER_PORT", variables)
        for variable in variables:
            self.assertIn(variable, self.manual("VelantrixServer"))

    def test_manuals_and_completions_of_the_clients_name_every_option(self):
        for program, one in (("velantrix-listen", "rate"), ("velantrix-web", "icecast")):
            with self.subTest(program):
                summary = run(self.usr / "bin" / program, "--help").stdout
                options = set(re.findall(r"(?<![\w-])--([a-z][a-z-]*)", summary))
                self.assertIn(one, options)
                documented = {option for line in re.findall(r"\.It (Fl .*)", self.manual(program))
                              for option in re.findall(r"Fl (?:h , )?-([a-z][a-z-]*)", line)}
                self.assertEqual(documented, options)
                for completion in (f"bash-completion/completions/{program}",
                                   f"zsh/*/_{program}"):
                    path, = self.usr.glob(f"share/{completion}")
                    for option in options:
                        self.assertRegex(path.read_text(), rf"--{option}\b", option)

    def test_listening_client_manual_explains_every_member_of_the_statistics(self):
        members = re.findall(r'[.]add\("(\w+)"', (SOURCE / "listen/console/statistics.cpp").read_text())
        self.assertIn("packets", members)
        explained = set(re.findall(r"\w+", "\n".join(
            re.findall(r"^\.It Va (.*)$", self.manual("velantrix-listen"), re.MULTILINE))))
        self.assertEqual(set(members), explained)

    def test_completions_parse(self):
        for path in self.usr.glob("share/bash-completion/completions/*"):
            self.check("bash", "-n", path)
        for path in self.usr.glob("share/zsh/*/_*"):
            self.check("zsh", "-n", path)

    def complete(self, program, *words):
        script = self.usr / "share/bash-completion/completions" / program
        ask = (f'source "{script}"; COMP_WORDS=({program} "$@"); COMP_CWORD=$#; '
               f'$(complete -p {program} | sed "s/.*-F \\([^ ]*\\).*/\\1/"); '
               'printf "%s\\n" "${COMPREPLY[@]}"')
        return self.check("bash", "--norc", "-c", ask, "complete", *words).split()

    def test_bash_completes_options_and_values(self):
        self.assertEqual(set(self.complete("VelantrixServer", "-")), set(SERVER_OPTIONS))
        self.assertEqual(self.complete("VelantrixServer", "-platform", "x"), ["xcb"])
        self.assertEqual(self.complete("velantrix-listen", "--rate", "2"), ["20", "256"])
        self.assertIn("--best-effort", self.complete("velantrix-listen", "--be"))
        self.assertEqual(self.complete("velantrix-web", "--ic"), ["--icecast"])

    def test_service_units_are_valid_and_start_the_installed_programs(self):
        for name, words in (("velantrix-server", "VelantrixServer -nogui"),
                            ("velantrix-web", r"velantrix-web \$VELANTRIX_WEB_OPTIONS")):
            with self.subTest(name):
                text = (self.usr / f"lib/systemd/user/{name}.service").read_text()
                program, = re.findall(rf"^ExecStart=(\S+/bin/){words}$", text, re.MULTILINE)
                # The verifier wants to see the program where the unit names it.
                copy = pathlib.Path(self.stage, f"{name}.service")
                copy.write_text(text.replace(program, str(self.usr / "bin") + "/"))
                self.addCleanup(copy.unlink)
                complaints = self.check("systemd-analyze", "--user", "--man=no", "verify", copy,
                                        env={**os.environ, "XDG_RUNTIME_DIR": self.stage})
                self.assertNotIn("velantrix", complaints)

    def test_the_units_are_hardened_and_the_second_starts_after_the_first(self):
        server = (self.usr / "lib/systemd/user/velantrix-server.service").read_text()
        web = (self.usr / "lib/systemd/user/velantrix-web.service").read_text()
        self.assertIn("\nAfter=velantrix-server.service\n", web)
        for line in re.findall(r"^(?:NoNew|Lock|Memory|Restrict|SystemCall|UMask).*$", server,
                               re.MULTILINE):
            self.assertIn(f"\n{line}\n", web)

    def test_service_unit_leaves_capture_multicast_and_scheduling_usable(self):
        text = (self.usr / "lib/systemd/user/velantrix-server.service").read_text()
        self.assertIn("\nRestart=on-failure\n", text)
        for needed in ("AF_UNIX", "AF_INET", "AF_NETLINK"):
            self.assertRegex(text, rf"\nRestrictAddressFamilies=.*\b{needed}\b")
        for harmful in ("RestrictRealtime=", "PrivateDevices=", "PrivateNetwork=",
                        "ProtectHome=", "IPAddressDeny=", "Type=notify"):
            self.assertNotIn("\n" + harmful, text)

    def test_firewall_profiles_open_the_ports_of_their_program(self):
        for name, title, expected, protocol in (
                ("velantrix-server", "Velantrix Server", PORTS, "udp"),
                ("velantrix-web", "Velantrix Web", {WEB_PORT}, "tcp")):
            service = ElementTree.parse(self.usr / f"lib/firewalld/services/{name}.xml")
            opened = {(port.get("protocol"), port.get("port")) for port in service.iter("port")}
            self.assertEqual(opened, {(protocol, port) for port in expected})

            profile, = pathlib.Path(self.stage).glob(f"**/ufw/applications.d/{name}")
            parser = configparser.ConfigParser()
            parser.read(profile)
            ports, opened = parser[title]["ports"].split("/")
            self.assertEqual((set(ports.split(",")), opened), (expected, protocol))

    def test_documents_are_installed(self):
        documents = self.usr / "share/doc"
        for name in ("velantrix-server/README.md", "velantrix-server/SECURITY.md",
                     "velantrix-server/changelog.gz", "velantrix-listen/changelog.gz",
                     "velantrix-web/changelog.gz"):
            self.assertTrue((documents / name).exists(), name)


if __name__ == "__main__":
    unittest.main()
