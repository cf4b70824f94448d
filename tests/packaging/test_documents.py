"""What the documents refer to exists: files, scripts, options, ports."""

import os
import pathlib
import re
import subprocess
import unittest

SOURCE = pathlib.Path(os.environ["VELANTRIX_SOURCE"])
PROGRAMS = ["app", "audio", "discovery", "gui", "listen", "stream", "update", "web"]
DOCUMENTS = [*SOURCE.glob("*.md"), *SOURCE.glob("docs/*.md"), SOURCE / "bench/figures/README.md"]


class Documents(unittest.TestCase):
    def each(self, expression):
        """Yields (document, match) over all documents."""
        for document in DOCUMENTS:
            for match in re.finditer(expression, document.read_text()):
                yield document, match

    def test_all_expected_documents_are_there(self):
        for name in ("README.md", "CONTRIBUTING.md", "CHANGELOG.md", "SECURITY.md", "LICENSE",
                     "docs/architecture.md", "docs/protocol.md", "docs/performance.md",
                     "docs/web.md", "docs/scale.md"):
            self.assertTrue((SOURCE / name).exists(), name)

    def test_links_lead_to_files(self):
        for document, link in self.each(r"\]\(([^)#]+)(#[^)]*)?\)"):
            if "://" not in link[1]:
                self.assertTrue((document.parent / link[1]).exists(),
                                f"{document.name}: {link[1]}")

    def test_scripts_exist_and_are_executable(self):
        for document, script in self.each(r"(?<![\w/.])((?:scripts|\.ci|packaging)/[\w./-]+\w)"):
            path = SOURCE / script[1]
            self.assertTrue(path.exists(), f"{document.name}: {script[1]}")
            if script[1].startswith(("scripts/", ".ci/")) and path.is_file() and not path.suffix:
                self.assertTrue(os.access(path, os.X_OK), script[1])

    def test_paths_in_backticks_exist(self):
        folders = "bench|tests|docs|cmake|app|stream|listen|web"
        found = 0
        for document, path in self.each(rf"`((?:{folders})/[^`\s]*)`"):
            if re.search(r"[*?<{]", path[1]):
                continue
            found += 1
            self.assertTrue((SOURCE / path[1]).exists(), f"{document.name}: {path[1]}")
        self.assertGreater(found, 0)

    def test_build_options_and_presets_exist(self):
        cmake = "\n".join(path.read_text() for path in
                          [SOURCE / "CMakeLists.txt", *SOURCE.glob("*/CMakeLists.txt")])
        for document, option in self.each(r"-D(VELANTRIX_\w+)="):
            self.assertRegex(cmake, rf"(option|set)\({option[1]}\b", document.name)
        presets = (SOURCE / "CMakePresets.json").read_text()
        for document, preset in self.each(r"--preset (\w[\w-]*)"):
            self.assertIn(f'"name": "{preset[1]}"', presets, document.name)

    def test_options_of_the_clients_exist(self):
        for name, variable in (("listen", "VELANTRIX_LISTEN"), ("web", "VELANTRIX_WEB")):
            summary = subprocess.run([os.environ[variable], "--help"], check=True, text=True,
                                     stdout=subprocess.PIPE).stdout
            for document, line in self.each(rf"(?m)^ *velantrix-{name}\b[^|#\n]*"):
                for option in re.findall(r"--[a-z-]+", line[0]):
                    self.assertRegex(summary, rf"{option}\b", f"{document.name}: {line[0]}")

    def test_commands_can_be_parsed_by_a_shell(self):
        for document, block in self.each(r"(?s)```sh\n(.*?)```"):
            result = subprocess.run(["bash", "-n"], input=block[1], text=True, stderr=subprocess.PIPE,
                                    check=False)
            self.assertEqual(result.stderr, "", f"{document.name}: {block[1]}")

    def test_packages_for_arm64_are_those_of_the_script(self):
        document, script = (set(re.findall(r"[\w.+-]+-dev:arm64", (SOURCE / path).read_text()))
                            for path in ("docs/arm64.md", "scripts/build-arm64"))
        self.assertEqual(document, script)

    def test_options_of_the_server_exist(self):
        code = (SOURCE / "app/base/command_line.cpp").read_text()
        for document, line in self.each(r"VelantrixServer((?: +-[a-z]+(?: [\w.]+)?)+)"):
            for option in re.findall(r" (-[a-z]+)", line[1]):
                self.assertIn(f'"{option}"', code, f"{document.name}: {line[0]}")

    def test_options_of_the_scripts_exist(self):
        for document, line in self.each(r"((?:scripts|bench)/[\w/-]+)((?: +--[a-z]+)+)"):
            for option in line[2].split():
                self.assertIn(option, (SOURCE / line[1]).read_text(), f"{document.name}: {line[0]}")

    def test_units_and_firewall_profiles_exist(self):
        for document, line in self.each(r"systemctl --user [a-z]+(?: --now)?((?:\s+velantrix-[a-z]+)+)"):
            for unit in line[1].split():
                self.assertTrue((SOURCE / f"packaging/systemd/{unit}.service.in").exists(),
                                f"{document.name}: {line[0]}")
        profiles = "".join(path.read_text() for path in SOURCE.glob("packaging/firewall/*.ufw"))
        for document, line in self.each(r'ufw allow "([^"]+)"'):
            self.assertIn(f"[{line[1]}]", profiles, document.name)
        for document, line in self.each(r"--add-service=(\S+)"):
            self.assertTrue((SOURCE / f"packaging/firewall/{line[1]}.xml").exists(), document.name)

    def test_messages_in_quotes_are_printed_by_a_program(self):
        code = "\n".join(path.read_text() for folder in PROGRAMS
                         for path in (SOURCE / folder).rglob("*.cpp"))
        texts = [re.sub(r'"\s*"', "", text) for text in re.findall(r'"(?:[^"\\\n]|\\.|"\s*")*"', code)]
        patterns = [re.sub(r"%[-.*\d]*l*[a-z]", ".+", re.escape(text[1:-1].replace("\\n", "")))
                    for text in texts]
        found = 0
        for document, quote in self.each(r'"([A-Z][^"`\n]{12,})"'):
            if document.name in ("CONTRIBUTING.md", "CHANGELOG.md"):
                continue
            found += 1
            self.assertTrue(any(quote[1] in text for text in texts) or
                            any(re.fullmatch(pattern, quote[1]) for pattern in patterns),
                            f"{document.name}: {quote[1]}")
        self.assertGreater(found, 5)

    def test_ports_are_those_of_the_sources(self):
        wire = (SOURCE / "stream/wire_format.h").read_text()
        ports = set(re.findall(r"_PORT = (\d+);", wire))
        self.assertEqual(len(ports), 2)
        ports |= set(re.findall(r" port = (\d+);", (SOURCE / "web/options.h").read_text()))
        self.assertEqual(len(ports), 3)
        for name in ("docs/setup.md", "SECURITY.md"):
            self.assertEqual(set(re.findall(r"\b59\d\d\d\b", (SOURCE / name).read_text())), ports)


if __name__ == "__main__":
    unittest.main()
