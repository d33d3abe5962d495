"""The recipes for other build systems agree with what they build: version, licence, options, libraries,
installed files, and what the service is started with. None of those systems is here, so their files are
read by what they are written in: make and sh.

Usage: recipes_test.py SOURCE_DIR BUILD_DIR
"""

import glob
import hashlib
import os
import re
import subprocess
import sys
import tempfile
import unittest

SOURCE_DIR, BUILD_DIR = (os.path.abspath(argument) for argument in sys.argv[1:3])
RECIPES = {"yocto": "yocto/appconfig_0.2.0.bb", "buildroot": "buildroot/appconfig.mk", "openwrt": "openwrt/Makefile"}
SERVICE_SCRIPTS = ("buildroot/S30appconfig", "openwrt/files/appconfig.init")
# What the build looks for, by the names that each system has for it.
LIBRARIES = {
    "Protobuf": {"yocto": "protobuf", "buildroot": "protobuf", "openwrt": "protobuf-lite"},
    "SQLite3": {"yocto": "sqlite3", "buildroot": "sqlite", "openwrt": "libsqlite3"},
    "CLI11": {"yocto": "cli11", "buildroot": "cli11", "openwrt": "cli11"},
    "nlohmann_json": {"yocto": "nlohmann-json", "buildroot": "json-for-modern-cpp", "openwrt": "nlohmannjson"},
    "TOMLPLUSPLUS_INCLUDE_DIR": {"yocto": "tomlplusplus", "buildroot": "-DTOMLPLUSPLUS_INCLUDE_DIR",
                                 "openwrt": "tomlplusplus"},
    "Threads": {"yocto": "", "buildroot": "", "openwrt": ""},
}
# What the systems bring before they read a package's own file.
MAKE_STUBS = {
    "buildroot": "D := /build\nHOST_DIR := /host\nAPPCONFIG_PKGDIR := package/appconfig\ncmake-package = $(info read)\n",
    "openwrt": "TOPDIR := {0}\nINCLUDE_DIR := {0}/include\nPKG_INSTALL_DIR := /install\n"
               "BuildPackage = $(info read $(1))$(info $(Package/$(1)/install))\n",
}


def read(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def recipe(system):
    return read(os.path.join(SOURCE_DIR, "packaging", RECIPES[system]))


class RecipesTest(unittest.TestCase):
    maxDiff = None

    def test_each_is_of_this_version(self):
        version = read(os.path.join(SOURCE_DIR, "VERSION")).strip()
        self.assertIn(f"_{version}.bb", RECIPES["yocto"])
        self.assertIn(f"APPCONFIG_VERSION = {version}\n", recipe("buildroot"))
        self.assertIn(f"PKG_VERSION:={version}\n", recipe("openwrt"))

    def test_the_licence_is_the_one_that_is_there(self):
        with open(os.path.join(SOURCE_DIR, "LICENSE"), "rb") as file:
            self.assertIn("file://LICENSE;md5=" + hashlib.md5(file.read()).hexdigest(), recipe("yocto"))

    def test_each_has_every_library_that_the_build_looks_for(self):
        wanted = set()
        for folder in ("cmake", "base", "platform", "appconfig", "configsrv", "tools"):
            for path in glob.glob(os.path.join(SOURCE_DIR, folder, "**"), recursive=True):
                if path.endswith((".cmake", "CMakeLists.txt")):
                    wanted.update(re.findall(r"^\s*(?:find_package|find_path)\((\w+)", read(path), re.MULTILINE))
        self.assertEqual(set(LIBRARIES), wanted)
        for library, names in LIBRARIES.items():
            for system, name in names.items():
                self.assertRegex(recipe(system), rf"(?<![\w-]){re.escape(name)}(?![\w])", f"{library} in {system}")

    def test_each_option_is_one_that_the_build_has(self):
        known = set(re.findall(r"^(\w+):", read(os.path.join(BUILD_DIR, "CMakeCache.txt")), re.MULTILINE))
        for system in RECIPES:
            options = re.findall(r"-D(\w+)=", recipe(system))
            self.assertIn("APPCONFIG_TESTS", options)
            self.assertEqual([], [option for option in options if option not in known], system)

    def test_make_reads_them(self):
        for system, stubs in MAKE_STUBS.items():
            with tempfile.TemporaryDirectory() as directory:
                os.mkdir(os.path.join(directory, "include"))
                for name in ("rules.mk", "include/package.mk", "include/cmake.mk"):
                    with open(os.path.join(directory, name), "w", encoding="utf-8"):
                        pass
                path = os.path.join(SOURCE_DIR, "packaging", RECIPES[system])
                with open(os.path.join(directory, "Makefile"), "w", encoding="utf-8") as file:
                    file.write(stubs.format(directory) + f"include {path}\nall:\n")
                done = subprocess.run(["make", "--no-print-directory", "--warn-undefined-variables", "-f",
                                       os.path.join(directory, "Makefile"), "all"],
                                      capture_output=True, text=True, check=False)
                self.assertEqual(0, done.returncode, done.stderr)
                self.assertIn("read", done.stdout, system)
                # $(1), where a package goes, is known when it is installed.
                of_recipe = [line for line in done.stderr.splitlines() if path in line and "undefined" in line]
                known = ("INSTALL", "CP", "TARGET_DIR", "APPCONFIG_DL_DIR", "TAR", "STAGING_DIR_HOSTPKG", "1")
                self.assertEqual([], [line for line in of_recipe
                                      if not line.rstrip("'").rsplit("'", 1)[-1].startswith(known)], system)

    def test_what_is_installed_is_there(self):
        with tempfile.TemporaryDirectory() as prefix:
            subprocess.run(["cmake", "--install", BUILD_DIR, "--prefix", prefix], check=True, capture_output=True)
            wanted = re.findall(r"\$\(PKG_INSTALL_DIR\)(\S+)", recipe("openwrt"))
            self.assertIn("/usr/sbin/configsrvd", wanted)
            for path in wanted:
                self.assertNotEqual([], glob.glob(prefix + path.removeprefix("/usr")), path)

    def test_the_service_is_started_with_options_that_it_has(self):
        done = subprocess.run([os.path.join(BUILD_DIR, "bin", "configsrvd"), "--help"],
                              capture_output=True, text=True, check=True)
        for script in SERVICE_SCRIPTS:
            path = os.path.join(SOURCE_DIR, "packaging", script)
            subprocess.run(["sh", "-n", path], check=True)
            options = re.findall(r"--[a-z-]+", read(path))
            self.assertEqual({"--definitions", "--store", "--roles", "--runtime-dir"}, set(options), script)
            for option in options:
                self.assertIn(option, done.stdout, script)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
