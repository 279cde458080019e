"""What `cmake --install` delivers, checked as someone outside the tree would use it."""

import glob
import os
import shutil
import subprocess
import tempfile
import unittest

BUILD_DIR = os.environ["USBD_BUILD_DIR"]
SOURCE_DIR = os.environ["USBD_SOURCE_DIR"]
VERSION = os.environ["USBD_VERSION"]
WORK_DIR = os.environ.get("USBD_PACKAGE_WORK_DIR", tempfile.gettempdir())
APP_DIR = os.path.join(os.path.dirname(os.path.abspath(__file__)), "app")
HOST_EXAMPLE_DIR = os.path.join(SOURCE_DIR, "host", "examples")
STAND_INS = ("libostrmsg.so", "libarvohal.so", "libiosconn.so")


def run(*args, env=None, cwd=None, timeout=600):
    result = subprocess.run(args, capture_output=True, text=True, env=env, cwd=cwd, timeout=timeout)
    if result.returncode != 0:
        raise AssertionError(f"{' '.join(args)} failed ({result.returncode}):\n{result.stdout}\n{result.stderr}")
    return result.stdout


def runpath(binary):
    for line in run("readelf", "-d", binary).splitlines():
        if "(RUNPATH)" in line or "(RPATH)" in line:
            return line.split("[", 1)[1].rstrip("]").split(":")
    return []


def stand_ins_under(root):
    return sorted(os.path.relpath(p, root) for name in STAND_INS
                  for p in glob.glob(os.path.join(root, "**", name), recursive=True))


class Install(unittest.TestCase):

    def setUp(self):
        self.tmp = tempfile.mkdtemp(prefix="usbd-package-", dir=WORK_DIR)
        self.addCleanup(shutil.rmtree, self.tmp, True)

    def test_emulated_install_and_an_application_built_against_it(self):
        # Installed programs find their libraries relative to themselves, so the build's own
        # tree installs into any prefix.
        prefix = os.path.join(self.tmp, "prefix")
        run("cmake", "--install", BUILD_DIR, "--prefix", prefix)

        # The stand-ins only in the emulator's private directory, where the daemon finds them.
        found = stand_ins_under(prefix)
        self.assertEqual(len(found), 3, found)
        for path in found:
            self.assertEqual(os.path.basename(os.path.dirname(path)), "usbd-emulator", path)
        daemon = os.path.join(prefix, "sbin", "usbd")
        self.assertTrue(any(p.startswith("$ORIGIN/") and p.endswith("/usbd-emulator") for p in runpath(daemon)))
        self.assertEqual(run(daemon, "--version").strip(), f"usbd {VERSION}")
        self.assertEqual(run(os.path.join(prefix, "bin", "usbdctl"), "--version").strip(), f"usbdctl {VERSION}")

        pc_dir = glob.glob(os.path.join(prefix, "lib*", "**", "pkgconfig"), recursive=True)
        self.assertEqual(len(pc_dir), 1)
        # --define-prefix: the file names the prefix the build was configured with.
        env = dict(os.environ, PKG_CONFIG_PATH=pc_dir[0])
        self.assertEqual(run("pkg-config", "--modversion", "usbd-client", env=env).strip(), VERSION)
        flags = run("pkg-config", "--define-prefix", "--cflags", "--libs", "usbd-client", env=env).split()
        self.assertIn(f"-I{prefix}/include", flags)
        libdir = next(f[2:] for f in flags if f.startswith("-L"))
        app = os.path.join(self.tmp, "app-pkgconfig")
        run("g++", "-std=c++17", "-o", app, os.path.join(APP_DIR, "main.cpp"), *flags, f"-Wl,-rpath,{libdir}")
        self.assertEqual(run(app).strip(), "45")

        app_build = os.path.join(self.tmp, "app-cmake")
        run("cmake", "-S", APP_DIR, "-B", app_build, "-G", "Ninja", f"-DCMAKE_PREFIX_PATH={prefix}")
        run("cmake", "--build", app_build)
        self.assertEqual(run(os.path.join(app_build, "app")).strip(), "45")

        # The Python client installs with pip from the tree and works from there.
        # From a copy: setuptools writes its build files next to the sources.
        source = shutil.copytree(os.path.join(SOURCE_DIR, "python"), os.path.join(self.tmp, "python"))
        site = os.path.join(self.tmp, "site")
        run("/usr/bin/python3", "-m", "pip", "install", "--quiet", "--no-deps", "--no-build-isolation",
            "--no-index", "--disable-pip-version-check", "--target", site, source,
            cwd=self.tmp, env=dict(os.environ, PIP_NO_CACHE_DIR="1"))
        code = "import usbd; print(len(usbd.SendRequest(42).add_memory(b'hello').encode()))"
        self.assertEqual(run("/usr/bin/python3", "-c", code, env=dict(os.environ, PYTHONPATH=site),
                             cwd=self.tmp).strip(), "45")

    def test_a_host_program_built_against_the_installed_library(self):
        prefix = os.path.join(self.tmp, "prefix")
        run("cmake", "--install", BUILD_DIR, "--prefix", prefix)
        libdir = os.path.dirname(glob.glob(os.path.join(prefix, "lib*", "**", "libusbd-host.so"), recursive=True)[0])

        # The file's version and the soname agree: libusbd-host.so.0.x.y has soname .so.0.
        files = sorted(os.path.basename(p) for p in glob.glob(os.path.join(libdir, "libusbd-host.so.*")))
        self.assertEqual(len(files), 2, files)
        self.assertRegex(files[1], r"^libusbd-host\.so\.0\.\d+\.\d+$")
        soname = [line for line in run("readelf", "-d", os.path.join(libdir, files[1])).splitlines() if "SONAME" in line]
        self.assertIn("[libusbd-host.so.0]", soname[0])
        # Only the C interface is exported.
        exported = [line.split()[-1] for line in run("objdump", "-T", os.path.join(libdir, files[1])).splitlines()
                    if " DF .text" in line]
        self.assertTrue(exported)
        self.assertEqual([name for name in exported if not name.startswith("usbd_host_")], [])

        # The example, outside the tree, in C: with pkg-config and with the CMake package. With no
        # device attached it runs and says so.
        env = dict(os.environ, PKG_CONFIG_PATH=os.path.join(libdir, "pkgconfig"))
        self.assertEqual(run("pkg-config", "--modversion", "usbd-host", env=env).strip(), VERSION)
        flags = run("pkg-config", "--define-prefix", "--cflags", "--libs", "usbd-host", env=env).split()
        built = os.path.join(self.tmp, "follow-pkgconfig")
        run("cc", "-std=c99", "-Wall", "-Werror", "-pedantic", "-o", built, os.path.join(HOST_EXAMPLE_DIR, "follow.c"),
            *flags, f"-Wl,-rpath,{libdir}")
        cmake_build = os.path.join(self.tmp, "follow-cmake")
        run("cmake", "-S", HOST_EXAMPLE_DIR, "-B", cmake_build, "-G", "Ninja", f"-DCMAKE_PREFIX_PATH={prefix}")
        run("cmake", "--build", cmake_build)
        for program in (built, os.path.join(cmake_build, "follow")):
            result = subprocess.run([program, "--once"], capture_output=True, text=True, timeout=60)
            self.assertEqual(result.returncode, 1, result.stderr)
            self.assertIn("no device carrying the function", result.stderr)

    def test_device_install_has_no_stand_in(self):
        # A stand-in sysroot: the stand-ins built here play the platform's real libraries, under
        # their names, as a device's sysroot holds them.
        sysroot = os.path.join(self.tmp, "sysroot")
        os.makedirs(os.path.join(sysroot, "lib"))
        for name, folder in (("libostrmsg.so", "messaging"), ("libarvohal.so", "hal"), ("libiosconn.so", "mfi")):
            shutil.copy(os.path.join(BUILD_DIR, "platform", folder, name), os.path.join(sysroot, "lib"))
            shutil.copytree(os.path.join(SOURCE_DIR, "platform", folder, "include"),
                            os.path.join(sysroot, "include"), dirs_exist_ok=True)
        build = os.path.join(self.tmp, "device")
        run("cmake", "-S", SOURCE_DIR, "-B", build, "-G", "Ninja", "-DUSBD_PLATFORM=device",
            "-DUSBD_BUILD_HOST=OFF", f"-DCMAKE_PREFIX_PATH={sysroot}", "-DCMAKE_INSTALL_PREFIX=/usr", "-DCMAKE_BUILD_TYPE=Release")
        run("cmake", "--build", build, "--target", "usbd", "usbdctl", "manpages")
        stage = os.path.join(self.tmp, "stage")
        run("cmake", "--install", build, env=dict(os.environ, DESTDIR=stage))

        self.assertEqual(stand_ins_under(stage), [])
        self.assertEqual(glob.glob(os.path.join(stage, "**", "usbd-emu*"), recursive=True), [])
        for binary in ("usr/sbin/usbd", "usr/bin/usbdctl"):
            self.assertFalse(any("usbd-emulator" in p for p in runpath(os.path.join(stage, binary))), binary)
        self.assertTrue(os.path.isfile(os.path.join(stage, "usr/share/man/man8/usbd.8")))


if __name__ == "__main__":
    unittest.main(verbosity=2)
