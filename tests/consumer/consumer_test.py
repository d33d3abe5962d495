"""What `cmake --install` puts where, and applications built against it, beside the installed service.

Usage: consumer_test.py SOURCE_DIR BUILD_DIR INSTALL_PREFIX CMAKE CXX CXX_FLAGS
"""

import glob
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

SOURCE_DIR, BUILD_DIR = (os.path.abspath(argument) for argument in sys.argv[1:3])
INSTALL_PREFIX, CMAKE, CXX, CXX_FLAGS = sys.argv[3:7]
HERE = os.path.dirname(os.path.abspath(__file__))
DEADLINE = 120
with open(os.path.join(SOURCE_DIR, "VERSION"), encoding="utf-8") as version_file:
    VERSION = version_file.read().strip()
MINOR_VERSION = VERSION.rsplit(".", 1)[0]
DEFINITION = '[variable."room.target"]\ntype = "int"\ndefault = 20\nmax = 30\n'
# What applications and message layers of a device's own include; what that brings along is installed
# as well, and nothing else.
ENTRIES = ("appconfig/manager/app_cfg_manager.h", "appconfig/manager/fresh_read.h",
           "appconfig/manager/reading.h",
           "appconfig/registry/registration.h", "appconfig/registry/subscription.h",
           "appconfig/registry/consumer_config_handler.h",
           "appconfig/registry/provider_config_handler.h",
           "platform/messaging/endpoint.h", "platform/messaging/msg.h", "platform/messaging/pb_utils.h",
           "platform/messaging/registration_refusals.h")


def run(*command, code=0, **options):
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          timeout=DEADLINE, check=False, **options)
    if done.returncode != code:
        raise AssertionError(f"{command} ended with {done.returncode}, not {code}:\n{done.stdout}")
    return done.stdout


def files_below(directory):
    return sorted(os.path.relpath(os.path.join(place, name), directory)
                  for place, _, names in os.walk(directory) for name in names)


def find_one(directory, name):
    (found,) = glob.glob(os.path.join(directory, "**", name), recursive=True)
    return found


def included_from(entries):
    found, queue = set(), list(entries)
    while queue:
        path = queue.pop()
        if path not in found:
            found.add(path)
            with open(os.path.join(SOURCE_DIR, path), encoding="utf-8") as file:
                queue += re.findall(r'^#include "([^"]+)"', file.read(), re.M)
    return found


class InstallTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        directory = tempfile.TemporaryDirectory()
        cls.addClassCleanup(directory.cleanup)
        cls.directory = directory.name
        installed = os.path.join(cls.directory, "first")
        run(CMAKE, "--install", BUILD_DIR, "--prefix", installed)
        # Nothing in it may know where it was put.
        cls.prefix = os.path.join(cls.directory, "moved", "there")
        shutil.copytree(installed, cls.prefix, symlinks=True)
        shutil.rmtree(installed)
        cls.so_dir = os.path.dirname(find_one(cls.prefix, "libappconfig.so"))

    def setUp(self):
        directory = tempfile.TemporaryDirectory(dir=self.directory)
        self.addCleanup(directory.cleanup)
        self.place = directory.name
        self.environment = {**os.environ, "APPCONFIG_RUNTIME_DIR": os.path.join(self.place, "run")}

    def installed(self, path):
        return os.path.join(self.prefix, path)

    def start_service(self):
        definitions = os.path.join(self.place, "definitions.d")
        os.mkdir(definitions)
        with open(os.path.join(definitions, "room.toml"), "w", encoding="utf-8") as file:
            file.write(DEFINITION)
        service = subprocess.Popen(
            [self.installed("sbin/configsrvd"), "--definitions", definitions, "--store",
             os.path.join(self.place, "store")], env=self.environment, stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL, text=True)
        self.addCleanup(self.stop, service)
        self.assertIn("ready: 1 variable", service.stdout.readline())

    @staticmethod
    def stop(process):
        process.terminate()
        process.communicate(timeout=DEADLINE)

    def configure_consumer(self, prefix, *arguments, code=0):
        build = os.path.join(self.place, "build")
        output = run(CMAKE, "-S", os.path.join(HERE, "with_cmake"), "-B", build, f"-DCMAKE_PREFIX_PATH={prefix}",
                     f"-DCMAKE_CXX_COMPILER={CXX}", f"-DCMAKE_CXX_FLAGS={CXX_FLAGS}",
                     f"-DWANTED_VERSION={MINOR_VERSION}", *arguments, code=code)
        return build, output

    def pkg_config(self, so_dir, *arguments):
        environment = {**os.environ, "PKG_CONFIG_PATH": os.path.join(so_dir, "pkgconfig")}
        return run("pkg-config", *arguments, "appconfig", env=environment).split()

    def build_with_pkg_config(self, so_dir, name):
        program = os.path.join(self.place, name)
        flags = self.pkg_config(so_dir, "--cflags", "--libs")
        run(CXX, "-std=c++17", *CXX_FLAGS.split(), "-o", program,
            os.path.join(HERE, "with_pkg_config", f"{name}.cpp"), *flags, "-pthread")
        return program

    def expect_at_a_change(self, line, program, so_dir):
        told = subprocess.Popen([program], env={**self.environment, "LD_LIBRARY_PATH": so_dir},
                                stdout=subprocess.PIPE, text=True)
        self.addCleanup(self.stop, told)
        self.assertEqual("ready\n", told.stdout.readline())
        run(self.installed("bin/appcfg"), "set", "room.target", "25", env=self.environment)
        self.assertEqual((line, 0), (told.communicate(timeout=DEADLINE)[0], told.returncode))

    def test_the_headers_are_those_of_applications_and_no_others(self):
        headers = os.path.join(self.prefix, "include", "appconfig-1")
        self.assertEqual(sorted(included_from(ENTRIES)), files_below(headers))
        self.assertEqual(["appconfig-1"], os.listdir(os.path.join(self.prefix, "include")))

    def test_a_program_finds_it_by_cmake_and_runs(self):
        build, _ = self.configure_consumer(self.prefix)
        run(CMAKE, "--build", build)
        self.start_service()
        self.assertEqual("room.target is 21\n", run(os.path.join(build, "consumer"), env=self.environment))

    def test_another_minor_version_is_not_taken_for_this_one(self):
        _, output = self.configure_consumer(self.prefix, "-DWANTED_VERSION=0.99", code=1)
        self.assertIn("0.99", output)

    def test_a_program_finds_it_by_pkg_config_and_is_told_of_a_change(self):
        program = self.build_with_pkg_config(self.so_dir, "told")
        self.start_service()
        self.expect_at_a_change("told: room.target = 25\n", program, self.so_dir)

    def test_a_program_takes_messages_by_the_headers_for_a_message_layer_of_its_own(self):
        program = self.build_with_pkg_config(self.so_dir, "receiver")
        self.start_service()
        self.expect_at_a_change("received: 0x1A0143 from ConfigSrvc\n", program, self.so_dir)

    def test_below_a_destdir_it_is_whole_as_well(self):
        root = os.path.join(self.place, "root")
        run(CMAKE, "--install", BUILD_DIR, env={**os.environ, "DESTDIR": root})
        self.assertEqual(files_below(self.prefix), files_below(root + INSTALL_PREFIX))
        so_dir = os.path.dirname(find_one(root, "libappconfig.so"))
        program = self.build_with_pkg_config(so_dir, "told")
        self.start_service()
        self.expect_at_a_change("told: room.target = 25\n", program, so_dir)

    def test_pkg_config_knows_the_version_and_where_it_is_now(self):
        self.assertEqual([VERSION], self.pkg_config(self.so_dir, "--modversion"))
        for word in self.pkg_config(self.so_dir, "--variable=includedir"):
            self.assertEqual(os.path.join(self.prefix, "include", "appconfig-1"), os.path.realpath(word))

    def test_no_file_knows_where_it_was_made(self):
        for path in files_below(self.prefix):
            with open(os.path.join(self.prefix, path), "rb") as file:
                text = file.read()
            for place in (SOURCE_DIR, BUILD_DIR, self.directory):
                self.assertFalse(place.encode() in text, f"{path} holds the path {place}")

    def test_the_rest_is_in_its_place(self):
        files = files_below(self.prefix)
        for path in ("bin/appcfg", "sbin/configsrvd", "lib/systemd/system/appconfig.service",
                     "lib/systemd/system/appconfig.socket", "lib/sysusers.d/appconfig.conf",
                     "lib/tmpfiles.d/appconfig.conf", "etc/appconfig/roles.toml", "share/man/man1/appcfg.1",
                     "share/man/man3/libappconfig.3", "share/man/man5/appconfig-definitions.5",
                     "share/man/man5/appconfig-roles.5", "share/man/man8/configsrvd.8",
                     "share/appconfig/platform/schema/config_if.proto",
                     "share/appconfig/platform/schema/common_if.proto",
                     "share/doc/appconfig/docs/README.md", "share/doc/appconfig/examples/gateway/gateway_app.cpp"):
            self.assertIn(path, files)
        self.assertTrue(os.path.isdir(os.path.join(self.prefix, "etc/appconfig/definitions.d")))

    def test_the_documents_lead_to_each_other(self):
        documents = os.path.join(self.prefix, "share/doc/appconfig/docs")
        for path in files_below(documents):
            if not path.endswith(".md"):
                continue
            with open(os.path.join(documents, path), encoding="utf-8") as file:
                prose = re.sub(r"^```.*?^```|`[^`\n]*`", "", file.read(), flags=re.M | re.S)
            for link in re.findall(r"\]\(([^)#\s]+\.md)", prose):
                if "://" not in link:
                    target = os.path.join(documents, os.path.dirname(path), link)
                    self.assertTrue(os.path.exists(target), f"{path}: {link}")

    def test_the_completion_of_bash_is_loaded_by_its_name(self):
        script = f"source '{self.installed('share/bash-completion/completions/appcfg')}' && complete -p appcfg"
        self.assertEqual("complete -F _appcfg appcfg\n", run("bash", "--norc", "-c", script))

    @unittest.skipUnless(shutil.which("fish"), "fish is not installed")
    def test_the_completion_of_fish_is_loaded_by_its_name(self):
        script = (f"set fish_complete_path '{os.path.dirname(self.installed('share/fish/vendor_completions.d/appcfg.fish'))}';"
                  f"set PATH '{self.prefix}/bin' $PATH; complete -C 'appcfg is-def'")
        self.assertEqual("is-default\n", run("fish", "--no-config", "-c", script, env=self.environment))

    @unittest.skipUnless(shutil.which("zsh"), "zsh is not installed")
    def test_the_completion_of_zsh_answers_the_first_time(self):
        """Loaded by zsh itself, the file's text is the first call of the function."""
        script = (f"fpath=('{self.installed('share/zsh/site-functions')}'); autoload -Uz _appcfg; path=('{self.prefix}/bin' $path);"
                  "compadd() { print -r -- \"$@\" }; words=(appcfg is-def); CURRENT=2; _appcfg")
        self.assertEqual("-U -a answers\n", run("zsh", "-fc", script, env=self.environment))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
