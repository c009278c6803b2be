"""Checks the documents against the tree: links, names, and what they quote from the examples."""

import re
import unittest

import documents


def slug(heading):
    """What a heading is linked by."""
    return re.sub(r"[^\w\- ]", "", heading.lower()).strip().replace(" ", "-")


class NameTest(unittest.TestCase):
    def test_programs_and_presets_exist(self):
        presets = set(re.findall(r'"name": "([^"]+)"', documents.text("CMakePresets.json")))
        for file in documents.FILES:
            commands = "".join(documents.blocks(file, "sh"))
            with self.subTest(file):
                for program in re.findall(r"\b(?:script|tools)/[\w/.-]*\w", documents.text(file)):
                    self.assertTrue((documents.ROOT / program).exists(), program)
                self.assertEqual(set(re.findall(r"--preset ([\w-]+)", commands)) - presets, set())

    def test_settings_exist(self):
        settings = documents.text("CMakeLists.txt") + documents.text("cmake/arm.cmake")
        for file in documents.FILES:
            for name in re.findall(r"-D ?(SQLWRAPPER_\w+)=", documents.text(file)):
                self.assertRegex(settings, rf"(option|set)\({name}\b", file)


class LinkTest(unittest.TestCase):
    def test_local_links_lead_somewhere(self):
        for file in documents.FILES:
            for target in re.findall(r"\]\(([^)]+)\)", documents.prose(file)):
                if not target.startswith(("http://", "https://")):
                    with self.subTest(file, target=target):
                        self.assert_leads_somewhere(file, target)

    def assert_leads_somewhere(self, file, target):
        path, _, anchor = target.partition("#")
        place = (documents.ROOT / file).parent / path if path else documents.ROOT / file
        self.assertTrue(place.exists())
        if anchor:
            headings = re.findall(r"^#+ (.*)$", place.read_text(encoding="utf-8"), re.MULTILINE)
            self.assertIn(anchor, [slug(heading) for heading in headings])


class CookbookTest(unittest.TestCase):
    """Each section of docs/cookbook.md names a program and quotes it."""

    SECTIONS = re.findall(r"^## (.*)\n\n\[.*?\]\(\.\./(.*?)\):(.*(?:\n(?!## ).*)*)",
                          documents.text("docs/cookbook.md"), re.MULTILINE)

    def test_each_section_quotes_its_program(self):
        for heading, path, section in self.SECTIONS:
            blocks = re.findall(r"^```cpp\n(.*?)^```$", section, re.MULTILINE | re.DOTALL)
            self.assertGreater(len(blocks), 0, heading)
            for block in blocks:
                with self.subTest(heading, block=block):
                    self.assertTrue(documents.is_part_of(block, documents.text(path)), path)

    def test_there_is_a_section_for_each_program(self):
        programs = [path for path in documents.examples() if path.startswith("examples/cookbook/")]
        self.assertEqual(sorted(path for _, path, _ in self.SECTIONS), programs)


if __name__ == "__main__":
    unittest.main()
