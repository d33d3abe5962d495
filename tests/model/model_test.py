"""The page of the model names the code that each step stands for: it has to be there."""

import pathlib
import re
import sys
import unittest

ROW = re.compile(r"^\|[^|]*\| `([^`]+)` \| `([^`]+)` \|$", re.M)


class ModelTest(unittest.TestCase):
    def test_every_place_that_the_page_names_stands_in_its_file(self):
        rows = ROW.findall((ROOT / "docs/model/README.md").read_text())
        self.assertGreater(len(rows), 10)
        for file, place in rows:
            with self.subTest(file=file, place=place):
                self.assertIn(place, (ROOT / file).read_text())


if __name__ == "__main__":
    ROOT = pathlib.Path(sys.argv.pop(1))
    unittest.main()
