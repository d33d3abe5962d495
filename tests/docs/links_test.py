"""The links of the installed pages lead somewhere: as `cmake --install` puts them, and as a Debian
package has them, without the files that Debian keeps under names of its own. tests/layout looks at
those of the tree.

Usage: links_test.py SOURCE_DIR BUILD_DIR CMAKE
"""

import glob
import os
import re
import subprocess
import sys
import tempfile
import unittest

SOURCE_DIR, BUILD_DIR, CMAKE = sys.argv[1:4]
DEADLINE = 120


def run(*command):
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=DEADLINE,
                          check=False)
    if done.returncode != 0:
        raise AssertionError(f"{command} ended with {done.returncode}:\n{done.stdout}")


def read(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def links(page):
    prose = re.sub(r"^```.*?^```|`[^`\n]*`", "", read(page), flags=re.M | re.S)
    found = [link.split("#")[0] for link in re.findall(r"\]\(([^)\s]+)\)", prose)]
    return [link for link in found if link and "://" not in link]


class LinksTest(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.root = directory.name
        for component in ("development", "documentation"):
            run(CMAKE, "--install", BUILD_DIR, "--prefix", self.root, "--component", component)
        (readme,) = glob.glob(os.path.join(self.root, "share/doc/*/README.md"))
        self.docs = os.path.dirname(readme)

    def pages(self):
        return sorted(glob.glob(os.path.join(self.docs, "**/*.md"), recursive=True))

    def dead_links(self):
        return [f"{os.path.relpath(page, self.docs)}: {link}" for page in self.pages() for link in links(page)
                if not os.path.exists(os.path.join(os.path.dirname(page), link))]

    def page(self, name):
        return read(os.path.join(self.docs, name))

    def test_every_link_leads_somewhere(self):
        self.assertGreater(len(self.pages()), 20)
        self.assertEqual([], self.dead_links())

    def test_links_between_pages_stay(self):
        self.assertEqual(read(os.path.join(SOURCE_DIR, "docs/concepts.md")), self.page("docs/concepts.md"))
        self.assertIn("[docs/concepts.md](docs/concepts.md)", self.page("README.md"))

    def test_a_link_to_a_header_leads_to_the_installed_one(self):
        self.assertIn("](../../../include/appconfig-1/appconfig/manager/app_cfg_manager.h)", self.page("README.md"))

    def test_a_link_to_what_is_not_installed_is_its_text(self):
        readme = self.page("README.md")
        self.assertIn("CONTRIBUTING.md", readme)
        self.assertNotIn("(CONTRIBUTING.md)", readme)

    def test_programs_on_the_pages_are_untouched(self):
        for page in self.pages():
            name = os.path.relpath(page, self.docs)
            blocks = re.compile(r"^```.*?^```", re.M | re.S)
            self.assertEqual(blocks.findall(read(os.path.join(SOURCE_DIR, name))), blocks.findall(read(page)), name)

    def test_without_the_files_that_debian_takes_away_no_link_leads_to_them(self):
        for name in ("CHANGELOG.md", "LICENSE"):
            os.remove(os.path.join(self.docs, name))
        self.assertNotEqual([], self.dead_links())
        script = os.path.join(self.root, "again.cmake")
        with open(script, "w", encoding="utf-8") as file:
            file.write(f'include("{SOURCE_DIR}/packaging/cmake/installed_links.cmake")\n'
                       f'lead_links("{self.docs}" "{self.root}/include/appconfig-1" "{self.root}/share/appconfig")\n')
        run(CMAKE, "-P", script)
        self.assertEqual([], self.dead_links())


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
