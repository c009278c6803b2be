"""Checks the documents against the tree: links, commands, and what they quote from the examples."""

import os
import re
import subprocess
import unittest

import documents

# Commands that are run as they stand there: they are quick and change nothing.
RUN = {"tools/mutation/mutate --file SqlField.cpp --list"}

# The others, and why no test runs them so.
NOT_RUN = {
    "cmake --preset dev && cmake --build --preset dev && ctest --preset dev":
        "runs this test again",
    "script/demo": "builds the project anew, which takes longer than all other tests",
    "script/test": "runs this test again",
    "cmake --preset release -D SQLWRAPPER_SQLITE=sqlcipher": "leaves the tree configured that way",
    "cmake --preset dev && cmake --build --preset dev --target cookbook":
        "the tests of the cookbook run what a build like this made",
    "c++ -std=c++11 settings.cpp $(pkg-config --cflags --libs sqlwrapper)":
        "needs an installed library; the tests of the installation make one and build a program so",
    "cmake --preset dev && cmake --build --preset dev --target SqlTableTest":
        "changes the folder that the tests are run from",
    "LOCPATH=build/dev/tests/locale build/dev/tests/SqlTableTest --gtest_filter='*Backup*'":
        "the program is there only if that folder is the one in use",
    "apt-get update && apt-get install g++ cmake make pkgconf libsqlite3-dev sqlite3":
        "changes the machine",
    "cmake -S sqlwrapper -B sqlwrapper-build -D CMAKE_BUILD_TYPE=Release -D SQLWRAPPER_BUILD_TESTS=OFF -D SQLWRAPPER_BUILD_EXAMPLES=OFF":
        "the tests of the guide run it",
    "cmake --build sqlwrapper-build --parallel 2": "the tests of the guide run it",
    'cmake --install sqlwrapper-build --prefix "$HOME/sqlwrapper-1.0"':
        "the tests of the guide run it",
    "script/sysroot armhf": "fetches packages",
    "cmake --preset armhf && cmake --build --preset armhf --target sqlwrapper":
        "needs a cross compiler; the tests on armhf are built so",
    'cmake -S sqlwrapper -B build-arm --toolchain "$PWD/sdk.cmake" -D CMAKE_BUILD_TYPE=MinSizeRel -D SQLWRAPPER_BUILD_TESTS=OFF -D SQLWRAPPER_BUILD_EXAMPLES=OFF':
        "needs a cross compiler and the root folder of another machine",
    "cmake --build build-arm": "needs what the command before it has made",
    "apt-get install cmake ninja-build python3 pkgconf locales ieee-data g++ libsqlite3-dev libgtest-dev libgmock-dev libcli11-dev libcsv-dev gdb make sqlite3":
        "changes the machine",
    "git clone ADDRESS sqlwrapper && cd sqlwrapper": "the address is the reader's",
    "cmake --preset dev && cmake --build --preset dev --target SqlCommonTest":
        "changes the folder that the tests are run from",
    "ctest --preset dev -R Quot": "the programs are there only if that folder is the one in use",
    "clang-format -i tests/unit/SqlCommonTest.cpp": "changes the sources",
    "script/test && script/test --preset asan && script/lint": "runs this test again",
    "cmake --preset clang": "needs clang; script/lint does it",
    "clangd --compile-commands-dir=build/clang --check=components/sql/sqlwrapper/src/SqlTable.cpp":
        "needs clangd and what the command before it has made",
    'gdb -iex "add-auto-load-safe-path build/dev" --args build/dev/examples/cookbook/catalogue shop.db':
        "waits for somebody to type; the tests of gdb load the library's objects so",
    "cmake --preset armhf -B build/armhf-debug -D CMAKE_BUILD_TYPE=Debug -D SQLWRAPPER_BUILD_TESTS=OFF":
        "needs a cross compiler",
    "cmake --build build/armhf-debug --target cookbook": "needs a cross compiler",
    "qemu-arm -g 1234 -L /usr/arm-linux-gnueabihf -E LD_LIBRARY_PATH=build/sysroot/armhf/usr/lib/arm-linux-gnueabihf build/armhf-debug/examples/cookbook/catalogue shop.db":
        "waits for a debugger",
    'gdb-multiarch -iex "add-auto-load-safe-path build/armhf-debug" build/armhf-debug/examples/cookbook/catalogue':
        "waits for somebody to type",
    "cmake --preset asan && cmake --build --preset asan --target SqlTableTest":
        "changes the folder that the tests are run from",
    "LOCPATH=build/asan/tests/locale build/asan/tests/SqlTableTest":
        "the program is there only if that folder is the one in use",
    "LOCPATH=build/dev/tests/locale valgrind --leak-check=full --soname-synonyms=somalloc=nouserintercepts build/dev/tests/SqlTableTest":
        "the program is there only if that folder is the one in use",
    "pre-commit install": "changes the repository",
    "pre-commit run --all-files": "needs pre-commit and a repository; script/lint checks the same",
    "tools/mutation/mutate": "takes hours",
    "tools/mutation/mutate --resume": "takes hours",
    "tools/mutation/mutate --file SqlField.cpp --lines 60-90": "builds the project many times over",
    "tools/mutation/mutate --sample 100": "builds the project a hundred times",
}


def commands():
    """The commands of all documents, each without its comment."""
    lines = [line for file in documents.FILES for block in documents.blocks(file, "sh")
             for line in block.splitlines()]
    return [command for command in (re.sub(r"(^|  +)#.*", "", line) for line in lines) if command]


def slug(heading):
    """What a heading is linked by."""
    return re.sub(r"[^\w\- ]", "", heading.lower()).strip().replace(" ", "-")


class CommandTest(unittest.TestCase):
    def test_commands_that_can_be_run_succeed(self):
        for command in sorted(RUN):
            with self.subTest(command):
                done = subprocess.run(["sh", "-c", command], cwd=documents.ROOT, check=False,
                                      stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
                self.assertEqual((done.returncode, done.stderr), (0, b""))

    def test_every_command_is_run_or_has_a_reason(self):
        self.assertEqual(set(commands()), RUN | set(NOT_RUN))

    def test_packages_to_install_are_those_of_the_tests(self):
        script = documents.text("script/test")
        packages = [name for pattern in (r"^packages=\((.*)\)", r"\*\) packages\+=\((.*)\) ;;")
                    for name in re.search(pattern, script, re.MULTILINE).group(1).split()]
        command, = [line for block in documents.blocks("CONTRIBUTING.md", "sh")
                    for line in block.splitlines() if line.startswith("apt-get ")]
        self.assertEqual(command.split()[2:], packages)

    def test_programs_and_presets_exist(self):
        presets = set(re.findall(r'"name": "([^"]+)"', documents.text("CMakePresets.json")))
        for command in commands():
            with self.subTest(command):
                for program in re.findall(r"(?:^|&& )((?:script|tools)/[\w/-]+)", command):
                    self.assertTrue(os.access(documents.ROOT / program, os.X_OK), program)
                self.assertEqual(set(re.findall(r"--preset ([\w-]+)", command)) - presets, set())

    def test_settings_exist(self):
        settings = documents.text("CMakeLists.txt")
        for file in documents.FILES:
            for name in re.findall(r"-D ?(SQLWRAPPER_\w+)=", documents.text(file)):
                self.assertRegex(settings, rf"(option|set)\({name}\b", file)

    def test_blocks_have_a_language_that_is_checked(self):
        for file in documents.FILES:
            fences = re.findall(r"^ *```(.*)$", documents.text(file), re.MULTILINE)
            self.assertLessEqual(set(fences), {"", "cmake", "console", "cpp", "sh", "text"}, file)
            self.assertEqual(set(fences[1::2]), {""} if fences else set(), file)


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
    """docs/cookbook.md quotes the programs that its table names."""

    FILE = "docs/cookbook.md"

    def sections(self):
        """The texts of the sections, by their headings."""
        parts = re.split(r"^## (.*)\n", documents.text(self.FILE), flags=re.MULTILINE)[1:]
        return dict(zip(parts[::2], parts[1::2]))

    def rows(self):
        return re.findall(r"^\| \[(.*)\]\(#.*\) \| \[(.*)\]\(\.\./(.*)\) \|$",
                          documents.text(self.FILE), re.MULTILINE)

    def test_each_section_quotes_its_program(self):
        for heading, name, path in self.rows():
            blocks = re.findall(r"^```cpp\n(.*?)^```$", self.sections()[heading],
                                re.MULTILINE | re.DOTALL)
            self.assertGreater(len(blocks), 0, heading)
            for block in blocks:
                with self.subTest(heading, block=block):
                    self.assertTrue(documents.is_part_of(block, documents.text(path)), name)

    def test_table_has_all_sections_and_all_programs(self):
        self.assertEqual([row[0] for row in self.rows()], list(self.sections()))
        programs = [path for path in documents.examples() if path.startswith("examples/cookbook/")]
        self.assertEqual(sorted(row[2] for row in self.rows()), programs)


if __name__ == "__main__":
    unittest.main()
