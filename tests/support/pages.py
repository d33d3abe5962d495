"""Code blocks of the project's pages, and the C++ programs among them.

A block's first line may say more than its language; a reader of the page does not see it:

    ```cpp set-target                    a whole program of that name; without a name it is the
                                         page's, "readme_program" of README.md
    ```cpp from examples/a/main.cpp      a piece of that file, which is compiled elsewhere
    ```toml definitions.d/heating.toml   a file of that name
    ```sh                                a shell session
    ```sh debian                         a shell session for a bare Debian system, which
                                         `scripts/package --test` goes through
    ```cmake CMakeLists.txt              a file of that name, for such a session

Usage: pages.py PAGE DIR    writes each whole program to DIR/NAME.cpp and prints the names, as CMake
                            wants a list
"""

import os
import re
import sys
from typing import NamedTuple


class Block(NamedTuple):
    language: str
    words: list  # what follows the language
    text: str
    line: int  # of the page, where the text begins

    @property
    def is_quoted(self):
        return self.words[:1] == ["from"]

    @property
    def is_for_debian(self):
        return self.language == "cmake" or self.words == ["debian"]


def blocks(page):
    """All blocks of the page in their order, of every language and of none."""
    found, opened, lines = [], None, []
    with open(page, encoding="utf-8") as file:
        for number, line in enumerate(file, 1):
            fence = re.match(r"```(.*)", line)
            if opened is None and fence:
                opened, lines = (fence.group(1).split(), number + 1), []
            elif fence:
                words, first = opened
                found.append(Block(words[0] if words else "", words[1:], "".join(lines), first))
                opened = None
            else:
                lines.append(line)
    if opened is not None:
        raise ValueError(f"{page}:{opened[1]}: the block never ends")
    return found


def programs(page):
    """The whole C++ programs of the page, by name."""
    default = os.path.basename(page).rsplit(".", 1)[0].lower().replace("-", "_") + "_program"
    found = {}
    for block in blocks(page):
        if block.language != "cpp" or block.is_quoted:
            continue
        name = block.words[0] if block.words else default
        if name in found:
            raise ValueError(f"{page}:{block.line}: a second program {name}")
        if "int main(" not in block.text:
            raise ValueError(f"{page}:{block.line}: no whole program, and nothing that is quoted")
        found[name] = block.text
    return found


def _write_if_changed(path, text):
    """A file that stays as it is, is not compiled again."""
    if os.path.exists(path):
        with open(path, encoding="utf-8") as file:
            if file.read() == text:
                return
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)


def _main(page, directory):
    found = programs(page)
    os.makedirs(directory, exist_ok=True)
    for name, text in found.items():
        _write_if_changed(os.path.join(directory, name + ".cpp"), text)
    print(";".join(found))


if __name__ == "__main__":
    _main(*sys.argv[1:3])
