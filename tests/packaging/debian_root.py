"""The packages in fresh Debian systems: what installing, using, upgrading, removing and purging them
does; and docs/howto/install-on-debian.md, every command of it.

Usage: debian_root.py SOURCE_DIR PACKAGE_DIR [--quick]    as root; --quick leaves out the page
"""

import glob
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

SOURCE_DIR, PACKAGE_DIR = (os.path.abspath(argument) for argument in sys.argv[1:3])
IS_QUICK = "--quick" in sys.argv[3:]
sys.path[:0] = [os.path.join(SOURCE_DIR, "tests/support"), os.path.join(SOURCE_DIR, "tests/docs")]

# pylint: disable=wrong-import-position
import pages  # noqa: E402
import session  # noqa: E402

PAGE = os.path.join(SOURCE_DIR, "docs/howto/install-on-debian.md")
PACKAGES = ("appconfig-doc", "appconfig-service", "appconfig-tools", "libappconfig-dev", "libappconfig1")
# What the page installs for its programs; in the system that it is tried in, it is there already.
FOR_PROGRAMS = ("cmake", "g++", "make", "pkg-config")
ENVIRONMENT = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "HOME": "/root", "LC_ALL": "C.UTF-8",
               "DEBIAN_FRONTEND": "noninteractive"}
INSTALL = "apt-get -q install --yes --no-install-recommends "
SERVE = ("setpriv --reuid appconfig --regid appconfig --clear-groups configsrvd "
         "--definitions /etc/appconfig/definitions.d --store /var/lib/appconfig/store.db "
         "--roles /etc/appconfig/roles.toml --runtime-dir /run/appconfig > service.log 2>&1 &")
DEFINITION = '[variable."room.target"]\ntype = "int"\ndefault = 20\n'
# Belongs to package management, or to what the packages depend on, and stays for others.
OF_OTHERS = ("etc/ld.so.cache", "etc/passwd", "etc/group", "etc/shadow", "etc/gshadow", "etc/subuid", "etc/subgid",
             "etc/.pwd.lock", "root/", "tmp/", "var/cache/", "var/lib/apt/", "var/lib/dpkg/", "var/log/", "proc/")
# A command that downloads and unpacks, or builds everything, takes its time on a busy machine.
session.DEADLINE = 3600


class DebianRootTest(unittest.TestCase):
    def make_root(self, *packages):
        directory = tempfile.mkdtemp(prefix="root.", dir=os.path.join(SOURCE_DIR, "build"))
        self.addCleanup(shutil.rmtree, directory)
        self.root = os.path.join(directory, "root")
        done = subprocess.run([os.path.join(SOURCE_DIR, "scripts/debian-root"), self.root, *packages],
                              capture_output=True, text=True, check=False)
        self.assertEqual(0, done.returncode, done.stderr)
        shutil.copy("/etc/resolv.conf", self.path("/etc/resolv.conf"))
        for package in glob.glob(os.path.join(PACKAGE_DIR, "*.deb")):
            if "-dbgsym_" not in package:
                shutil.copy(package, self.path("/root"))
        self.shell = session.Shell(SOURCE_DIR, ENVIRONMENT, (
            "unshare", "--mount", "--pid", "--fork", "--kill-child", f"--root={self.root}", "--wd=/root",
            "--mount-proc"))
        self.addCleanup(self.shell.close)

    def path(self, path):
        return self.root + path

    def write(self, path, text):
        os.makedirs(os.path.dirname(self.path(path)), exist_ok=True)
        with open(self.path(path), "w", encoding="utf-8") as file:
            file.write(text)

    def prints(self, command):
        return self.shell.print_of_once(command)

    def run_well(self, command):
        """What it prints, when it ends well."""
        printed = self.prints(command)
        self.assertEqual("0", self.prints("echo $?"), f"{command}\n{printed}")
        return printed

    def waits_for(self, command, expected):
        """A command that only reads a file is repeated until it prints this."""
        self.assertEqual(expected, self.shell.print_of(session.Step(command, expected, 0)))

    def owned_by_packages(self):
        """What the installed packages brought: what ours depend on is left for others."""
        found = set()
        for listing in glob.glob(self.path("/var/lib/dpkg/info/*.list")):
            with open(listing, encoding="utf-8") as file:
                # /bin, /lib and /sbin are below /usr by another name.
                found.update(re.sub(r"^/(bin|lib|lib64|sbin)/", r"/usr/\1/", line.rstrip("\n"))[1:] for line in file)
        return found

    def files(self):
        """Files and directories, but those that package management keeps for itself."""
        found = set()
        for place, directories, names in os.walk(self.root):
            for name in directories + names:
                path = os.path.relpath(os.path.join(place, name), self.root)
                if not path.startswith(OF_OTHERS):
                    found.add(path)
        return found

    def owned(self, package):
        return set(self.run_well(f"dpkg -L {package}").splitlines())

    def test_the_life_of_the_packages(self):
        self.make_root()
        self.run_well("apt-get -q update")
        before = self.files()
        self.run_well(INSTALL + "./*.deb")

        with self.subTest("every file is where it should be, and each belongs to one package"):
            self.assertIn("/usr/sbin/configsrvd", self.owned("appconfig-service"))
            self.assertIn("/usr/bin/appcfg", self.owned("appconfig-tools"))
            self.assertEqual("", self.run_well("dpkg --verify " + " ".join(PACKAGES)))
            self.assertEqual("appconfig-service: /etc/appconfig/roles.toml",
                             self.run_well("dpkg -S /etc/appconfig/roles.toml"))
        with self.subTest("the pages lead to the headers, which another package brings"):
            page = "/usr/share/doc/appconfig-doc/docs/howto/be-told.md"
            found = self.run_well(f"cat {page}")
            targets = re.findall(r"\]\((\S+\.h)\)", found)
            self.assertNotEqual([], targets)
            for target in targets:
                self.run_well(f"test -e {os.path.normpath(os.path.join(os.path.dirname(page), target))}")
        with self.subTest("the library is known to the linker without being asked"):
            self.assertIn("libappconfig.so.1", self.run_well("ldconfig -p"))
        with self.subTest("user and directories are there"):
            self.assertEqual("appconfig 700", self.run_well("stat -c '%U %a' /var/lib/appconfig"))
            self.assertEqual("appconfig 755", self.run_well("stat -c '%U %a' /run/appconfig"))
        with self.subTest("the units are switched on for the next start"):
            self.assertTrue(os.path.islink(self.path("/etc/systemd/system/sockets.target.wants/appconfig.socket")))

        self.write("/etc/appconfig/definitions.d/a.toml", DEFINITION)
        self.serve()
        self.run_well("appcfg set room.target 25")
        with self.subTest("what changes is told"):
            self.prints("appcfg watch > watch.log &")
            self.waits_for("cat watch.log", "room.target = 25")
            self.run_well("appcfg set room.target 26")
            self.waits_for("cat watch.log", "room.target = 25\nroom.target = 26")

        with self.subTest("another user is told apart by the kernel"):
            nobody = "setpriv --reuid 65534 --regid 65534 --clear-groups env APPCONFIG_RUNTIME_DIR=/run/appconfig "
            self.assertEqual("26", self.run_well(nobody + "appcfg get room.target"))
            self.prints(nobody + "appcfg --role service set room.target 27")
            self.assertEqual("4", self.prints("echo $?"))

        with self.subTest("values and settings survive an upgrade, and a removal without a purge"):
            self.prints("echo '# mine' >> /etc/appconfig/roles.toml")
            self.run_well(INSTALL + "--reinstall ./*.deb")
            self.stop()
            self.run_well("apt-get -q remove --yes " + " ".join(PACKAGES))
            self.assertFalse(os.path.exists(self.path("/usr/sbin/configsrvd")))
            self.assertTrue(os.path.exists(self.path("/var/lib/appconfig/store.db")))
            self.run_well(INSTALL + "./*.deb")
            self.assertIn("# mine", self.run_well("tail -n 1 /etc/appconfig/roles.toml"))
            self.serve()
            self.assertEqual("26", self.run_well("appcfg get room.target"))
            self.stop()

        with self.subTest("a purge leaves nothing, but for the user"):
            os.remove(self.path("/etc/appconfig/definitions.d/a.toml"))
            self.run_well("apt-get -q purge --yes " + " ".join(PACKAGES))
            self.assertEqual(set(), self.files() - before - self.owned_by_packages())
            self.assertEqual(set(), before - self.files())
            self.assertIn("appconfig:", self.run_well("getent passwd appconfig"))

    @unittest.skipIf(IS_QUICK, "the source package was left out, as wished")
    def test_the_source_package_makes_the_same_packages(self):
        with open(os.path.join(SOURCE_DIR, "packaging/debian/source-control"), encoding="utf-8") as file:
            needed = re.search(r"^Build-Depends:(.*)", file.read(), re.DOTALL | re.MULTILINE).group(1)
        self.make_root("build-essential", *re.findall(r"[a-z][a-z0-9+-]+(?=[ ,\n]|$)", needed))
        for path in glob.glob(os.path.join(PACKAGE_DIR, "appconfig_*")):
            shutil.copy(path, self.path("/root"))
        self.run_well("mkdir made && mv *.deb made && dpkg-source --extract appconfig_*.dsc tree > /dev/null")
        self.run_well("cd tree && dpkg-buildpackage -us -uc -b > ../build.log 2>&1; cd ..")
        for path in glob.glob(os.path.join(PACKAGE_DIR, "*.deb")):
            name = os.path.basename(path)
            self.assertTrue(os.path.exists(self.path(f"/root/{name}")), name + "\n" + self.prints("tail -n 30 build.log"))
            if "-dbgsym_" not in name:
                # What they hold; the compiler of the root may be a later one.
                self.assertEqual(self.run_well(f"dpkg-deb -c made/{name} | sed 's/.* \\.//' | sort"),
                                 self.run_well(f"dpkg-deb -c {name} | sed 's/.* \\.//' | sort"))

    def test_definitions_of_an_administrator_survive_a_purge(self):
        self.make_root()
        self.run_well("apt-get -q update")
        self.run_well(INSTALL + "./appconfig-service_*.deb")
        self.write("/etc/appconfig/definitions.d/a.toml", DEFINITION)
        self.run_well("apt-get -q purge --yes appconfig-service")
        self.assertTrue(os.path.exists(self.path("/etc/appconfig/definitions.d/a.toml")))
        self.assertFalse(os.path.exists(self.path("/var/lib/appconfig")))

    def serve(self):
        self.prints(SERVE)
        self.waits_for("grep ready service.log", "ready: 1 variable at /run/appconfig/ConfigSrvc")

    def stop(self):
        self.prints("kill $(jobs -p); wait")

    @unittest.skipIf(IS_QUICK, "the page was left out, as wished")
    def test_the_page(self):
        self.make_root(*FOR_PROGRAMS)
        for block in pages.blocks(PAGE):
            if block.language == "cpp":
                self.write(f"/root/{block.words[0]}.cpp", block.text)
            elif block.language in ("toml", "cmake"):
                self.write(f"/root/{block.words[0]}", block.text)
        commands = [step for block in pages.blocks(PAGE) if block.language == "sh"
                    for step in session.steps(block.text, block.line)]
        self.assertIn(INSTALL + "g++ cmake make pkg-config > apt.log 2>&1", [step.command for step in commands])
        for step, after in zip(commands, commands[1:] + [None]):
            printed = self.shell.print_of(step)
            # A command that is shown to print nothing ends well, unless the page asks how it ended.
            if not step.expected and not (after and after.command == "echo $?"):
                self.assertEqual("0", self.prints("code=$?; echo $code; (exit $code)"), step.command + "\n" + printed)
            self.assertTrue(step.is_shown_by(printed),
                            f"{PAGE}:{step.line}: {step.command}\nshows\n{step.expected}\nbut prints\n{printed}")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
