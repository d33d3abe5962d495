"""Cuts the power of a disk with a real file system and a store on it, and looks what is left.

For each file system: a store lives on it (disk_life), while what the file system writes to its disk is
recorded below it (recording_disk, on which a loop device stands). Then the disk is made as it may be
after a loss of power, again and again: at every flush and at random places between two, with all that
was flushed and any part of what was written since. Each is mounted, which lets the file system recover,
and the store on it opened: it has to hold exactly what it acknowledged, or one commit more, and to go on.

Ends with the line "power-cut: N cuts, N wrong". Exit codes: 0 all is well; 1 something was lost, mixed
or could not be mounted; 2 usage; 77 this system cannot do it, and why.
"""

import argparse
import collections
import os
import random
import shutil
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import disk_log  # noqa: E402

CANNOT = 77
PATIENCE = 60  # seconds, for any one command
COMMITS = 150
WRONG_TOLD = 5

FileSystem = collections.namedtuple("FileSystem", "type tool make megabytes check options")

# The smallest that each makes itself. Without a journal, a check comes before the mount after a loss of
# power, as a device's start has it.
FILE_SYSTEMS = {
    "ext4": FileSystem("ext4", "mkfs.ext4", ["-q", "-F"], 16, None, ""),
    "ext4-without-journal": FileSystem("ext4", "mkfs.ext4", ["-q", "-F", "-O", "^has_journal"], 16,
                                       ["e2fsck", "-f", "-y"], ""),
    "xfs": FileSystem("xfs", "mkfs.xfs", ["-q", "-f"], 300, None, ""),
    "btrfs": FileSystem("btrfs", "mkfs.btrfs", ["-q", "-f"], 128, None, ""),
    "f2fs": FileSystem("f2fs", "mkfs.f2fs", ["-q", "-f"], 64, None, ""),
}


class Cannot(Exception):
    """This system lacks something; no finding."""


class Wrong(Exception):
    """A finding."""


def run(*command):
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          timeout=PATIENCE, check=False)


def must(*command):
    done = run(*command)
    if done.returncode != 0:
        raise Cannot(f"{' '.join(command)}: {done.stdout.strip()}")


def wait_until(what, condition):
    end = time.monotonic() + PATIENCE
    while not condition():
        if time.monotonic() > end:
            raise Cannot(f"waited for {what} for {PATIENCE} s")
        time.sleep(0.005)


def known_to_kernel(file_system):
    def listed():
        with open("/proc/filesystems", encoding="ascii") as file:
            return any(line.split()[-1] == file_system.type for line in file)
    if not listed():
        run("modprobe", "-q", file_system.type) if shutil.which("modprobe") else None
    return listed()


def why_not(file_system):
    """Why this system cannot try that file system; None when it can."""
    if not known_to_kernel(file_system):
        return f"this kernel has no {file_system.type}"
    if shutil.which(file_system.tool) is None:
        return f"{file_system.tool} is not installed"
    return None


def check_system():
    if os.geteuid() != 0:
        raise Cannot("only root can mount; run it as root")
    for path in ("/dev/fuse", "/dev/loop-control"):
        if not os.path.exists(path):
            raise Cannot(f"there is no {path}")


class Trial:
    """One file system: its disk, what was recorded of it, and its cuts."""

    def __init__(self, name, options, directory):
        self.name = name
        self.kind = FILE_SYSTEMS[name]
        self.options = options
        self.random = random.Random(f"{options.seed} {name}")
        self.directory = os.path.join(directory, name)
        os.mkdir(self.directory)
        for folder in ("served", "mounted"):
            os.mkdir(self.path(folder))

    def path(self, name):
        return os.path.join(self.directory, name)

    def store(self):
        # The store makes the directories.
        return self.path("mounted/var/lib/appconfig/store.db")

    # --- Recording ---

    def make(self):
        with open(self.path("new"), "wb") as image:
            image.truncate(self.kind.megabytes << 20)
        must(self.kind.tool, *self.kind.make, self.path("new"))
        shutil.copyfile(self.path("new"), self.path("image"))

    def record(self):
        """What the disk was told while the store lived, and the entry that its life began with."""
        self.make()
        server = subprocess.Popen([self.options.disk, self.path("image"), self.path("record"),
                                   self.path("served")])
        try:
            wait_until("the recorded disk", lambda: os.path.exists(self.path("served/disk"))
                       or server.poll() is not None)
            start = self.live()
        finally:
            run("umount", self.path("served"))
            try:
                server.wait(timeout=PATIENCE)
            except subprocess.TimeoutExpired:
                server.kill()
        return disk_log.read(self.path("record")), start

    def live(self):
        self.mount(self.path("served/disk"))
        try:
            start = len(disk_log.read(self.path("record")))
            life = run(self.options.life, "live", self.store(), self.path("served/mark"),
                       str(self.options.commits))
        finally:
            self.unmount()
        if life.returncode != 0:
            raise Wrong(f"the store did not live to its end: {life.stdout.strip()}")
        return start

    def mount(self, image):
        options = "loop" + self.kind.options
        done = run("mount", "-t", self.kind.type, "-o", options, image, self.path("mounted"))
        if done.returncode != 0:
            raise Wrong(f"cannot be mounted: {done.stdout.strip()}")

    def unmount(self):
        must("umount", self.path("mounted"))

    # --- Cutting ---

    def cut_all(self, entries, start):
        """Number of cuts, and what was wrong with some of them."""
        places = disk_log.cuts(entries, start, self.options.cuts, self.random)
        wrong = []
        flushed = 0
        with open(self.path("new"), "r+b", buffering=0) as image:
            for place in places:
                until = disk_log.last_flush(entries, place)
                disk_log.apply(image, entries[flushed:until])
                flushed = until
                try:
                    self.cut(entries, until, place)
                except Wrong as finding:
                    wrong.append(f"{self.name}, cut before entry {place} of {len(entries)}: {finding}")
        return len(places), wrong

    def cut(self, entries, flushed, place):
        must("cp", "--sparse=always", self.path("new"), self.path("cut"))
        with open(self.path("cut"), "r+b", buffering=0) as image:
            disk_log.apply(image, disk_log.some_of(entries[flushed:place], self.random))
        self.check()
        self.mount(self.path("cut"))
        try:
            judged = run(self.options.life, "judge", self.store(),
                         str(disk_log.said(entries, place, "acknowledged")),
                         str(disk_log.said(entries, place, "told")))
        finally:
            self.unmount()
        if judged.returncode != 0:
            raise Wrong(judged.stdout.strip() or f"disk_life ended with {judged.returncode}")

    def check(self):
        if self.kind.check is None:
            return
        done = run(*self.kind.check, self.path("cut"))
        if done.returncode & ~3:  # 1 and 2: errors that were mended
            raise Wrong(f"{' '.join(self.kind.check)} cannot mend it: {done.stdout.strip()}")

    def run(self):
        entries, start = self.record()
        cuts, wrong = self.cut_all(entries, start)
        flushes = sum(entry.kind == "f" for entry in entries[start:])
        print(f"{self.name}: {self.options.commits} commits, {flushes} flushes, {cuts} cuts, "
              f"{len(wrong)} wrong", flush=True)
        for line in wrong[:WRONG_TOLD]:
            print(f"  {line}", flush=True)
        return cuts, len(wrong)


def parse_options():
    parser = argparse.ArgumentParser(prog="scripts/power-cut", description=__doc__.split("\n\n")[0])
    parser.add_argument("--disk", required=True, help=argparse.SUPPRESS)
    parser.add_argument("--life", required=True, help=argparse.SUPPRESS)
    add = parser.add_argument
    add("--file-system", action="append", choices=FILE_SYSTEMS, help="one of them; all")
    add("--commits", type=int, default=COMMITS, help="of the store's life: %(default)s")
    add("--cuts", type=int, default=0, help="so many for each, at random; without it every one")
    add("--seed", type=int, help="where else is cut, and what the disk keeps; else another each time")
    options = parser.parse_args()
    if options.seed is None:
        options.seed = random.SystemRandom().randrange(1 << 30)
    return options


def main():
    options = parse_options()
    print(f"power-cut: seed {options.seed}", flush=True)
    cuts = wrong = 0
    try:
        check_system()
        with tempfile.TemporaryDirectory(prefix="appconfig-cut.") as directory:
            for name in options.file_system or FILE_SYSTEMS:
                reason = why_not(FILE_SYSTEMS[name])
                if reason:
                    print(f"{name}: left out, for {reason}")
                    continue
                try:
                    more_cuts, more_wrong = Trial(name, options, directory).run()
                except Wrong as finding:
                    more_cuts, more_wrong = 0, 1
                    print(f"{name}: {finding}")
                cuts += more_cuts
                wrong += more_wrong
    except Cannot as reason:
        print(f"power-cut: cannot be tried here: {reason}")
        return CANNOT
    print(f"power-cut: {cuts} cuts, {wrong} wrong")
    if wrong:
        return 1
    return 0 if cuts else CANNOT


if __name__ == "__main__":
    sys.exit(main())
