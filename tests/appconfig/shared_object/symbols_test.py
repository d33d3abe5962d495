"""What libappconfig.so shows and needs: its symbols are those of a file under review.

Usage: symbols_test.py SOURCE_DIR LIBRARY READELF BYTES_OF_A_POINTER [--write]

--write makes the file say what the library shows.
"""

import os
import re
import subprocess
import sys
import unittest

SOURCE_DIR, LIBRARY, READELF, POINTER_BYTES = sys.argv[1:5]
NODE = "APPCONFIG_1"
# The file of 32-bit devices is one of its own: std::int64_t is another type there.
LIST = os.path.join(SOURCE_DIR, "appconfig/libappconfig.symbols" + {"4": ".armhf", "8": ""}[POINTER_BYTES])
# The library's promise to small devices. ld-linux is where libc keeps what threads need.
NEEDED = {"libprotobuf-lite.so", "libstdc++.so", "libgcc_s.so", "libc.so", "libm.so", "ld-linux"}
HEADER = """\
# Every symbol that libappconfig.so shows to programs. A line that goes away or changes breaks programs
# that are installed; a new line is a promise. tests/appconfig/shared_object compares.
"""


def readelf(*options):
    return subprocess.run([READELF, "--wide", *options, LIBRARY], check=True, capture_output=True, text=True).stdout


def shown():
    """The symbols that the library defines for others, each with its node: (name, node)."""
    for line in readelf("--dyn-syms").splitlines():
        words = line.split()
        is_symbol = len(words) == 8 and words[0].rstrip(":").isdigit() and words[3] != "SECTION"
        if is_symbol and words[6] not in ("UND", "ABS"):
            name, _, node = words[7].partition("@@")
            yield name, node


def listing():
    names = sorted(name for name, _ in shown())
    plain = subprocess.run(["c++filt"], input="\n".join(names), check=True, capture_output=True, text=True).stdout
    return [f"{name}  {meaning}" for name, meaning in zip(names, plain.splitlines())]


def reviewed():
    with open(LIST, encoding="utf-8") as file:
        return [line for line in file.read().splitlines() if not line.startswith("#")]


def write():
    with open(LIST, "w", encoding="utf-8") as file:
        file.write(HEADER + "\n".join(listing()) + "\n")


class SharedObjectTest(unittest.TestCase):
    def test_it_shows_what_was_reviewed_and_nothing_else(self):
        now, then = set(listing()), set(reviewed())
        lines = [f"- {line}" for line in sorted(then - now)] + [f"+ {line}" for line in sorted(now - then)]
        command = " ".join(["python3", os.path.relpath(__file__, SOURCE_DIR), ".", *sys.argv[2:5], "--write"])
        self.assertEqual([], lines, "\n".join([
            "", *lines, "A '-' breaks installed programs and needs a new major version; a '+' is a promise.",
            "Meant so? Accept it with", f"  {command}"]))

    def test_every_symbol_stands_in_a_node(self):
        self.assertEqual([], [name for name, node in shown() if not node.startswith(NODE)])

    def test_nothing_of_the_messages_or_of_other_libraries_is_shown(self):
        """What the file says is under review; this is not."""
        of_others = re.compile(r"(ConfigIF|CommonIF|std|google|sqlite3|CLI)::")
        owner = re.compile(r"^(?:vtable for |typeinfo for |typeinfo name for |.*? )??([\w:]+)")
        for line in listing():
            meaning = line.split("  ", 1)[1]
            self.assertIsNone(of_others.match(owner.match(meaning).group(1)), line)

    def test_its_name_carries_the_version_of_its_interface(self):
        soname = re.search(r"\(SONAME\).*\[(.*)\]", readelf("--dynamic")).group(1)
        self.assertEqual("libappconfig.so." + NODE.rpartition("_")[2], soname)

    def test_it_needs_what_it_promises_and_nothing_else(self):
        needed = re.findall(r"\(NEEDED\).*\[(.*)\]", readelf("--dynamic"))
        self.assertIn("libprotobuf-lite.so", {name.partition(".so")[0] + ".so" for name in needed})
        for name in needed:
            known = name.startswith("ld-linux") or name.partition(".so")[0] + ".so" in NEEDED
            self.assertTrue(known, name)

    def test_it_stays_loaded_because_its_threads_do(self):
        self.assertRegex(readelf("--dynamic"), r"\bNODELETE\b")


if __name__ == "__main__":
    if sys.argv[5:] == ["--write"]:
        write()
    else:
        unittest.main(argv=sys.argv[:1], verbosity=2)
