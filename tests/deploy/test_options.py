"""Every option and command a tool states in its --help is offered by its bash completion and named
in its man page: three descriptions of one command line that drift apart unless checked."""

import os
import re
import shlex
import subprocess
import unittest

SOURCE_DIR = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))
BUILD_DIR = os.environ.get("USBD_BUILD_DIR", os.path.join(SOURCE_DIR, "build"))
COMPLETIONS = os.path.join(SOURCE_DIR, "deploy", "bash-completion")
MAN = os.path.join(SOURCE_DIR, "docs", "man")
BASH_COMPLETION = "/usr/share/bash-completion/bash_completion"


def tool(name):
    """How to run the tool: the built program (or its launcher in a cross build), or the script."""
    if name == "usbd-gadget":
        return [os.path.join(SOURCE_DIR, "deploy", "gadget", "usbd-gadget")]
    return [os.environ.get(f"USBD_TOOL_{name.upper().replace('-', '_')}", os.path.join(BUILD_DIR, name))]


def help_text(name, *args):
    result = subprocess.run(tool(name) + list(args) + ["--help"], capture_output=True, text=True, timeout=30)
    return result.stdout + result.stderr


def listed_options(text):
    """The options of the lines that list options: lines whose first character is "-", up to the
    gap before their description."""
    options = set()
    for line in text.splitlines():
        if line.lstrip().startswith("-"):
            head = re.split(r"\s{2,}", line.strip())[0]
            options.update(re.findall(r"(?<![\w-])--?[A-Za-z][\w-]*", head))
    return options


def emuctl_commands(text):
    """usbd-emuctl lists commands with their options inline: "  stall | release [--ep epN]"."""
    commands = {}
    for line in text.splitlines():
        if not re.match(r"^  [a-z]", line):
            continue
        synopsis = re.split(r"\s{2,}", line.strip())[0]
        options = set(re.findall(r"--[\w-]+", synopsis))
        for alternative in synopsis.split(" | "):
            commands[alternative.split()[0]] = options
    return commands


def complete(name, *words):
    """What bash completion offers for the command line `name words...`, completing the last word."""
    script = os.path.join(COMPLETIONS, name)
    with open(script) as f:
        function = re.search(r"complete -F (\w+) ", f.read()).group(1)
    line = [name, *words]
    program = "\n".join([
        f"source {BASH_COMPLETION}",
        f"source {shlex.quote(script)}",
        f"COMP_WORDS=({' '.join(shlex.quote(w) for w in line)})",
        f"COMP_CWORD={len(line) - 1}",
        f"COMP_LINE={shlex.quote(' '.join(line))}",
        "COMP_POINT=${#COMP_LINE}",
        f"{function} {name} {shlex.quote(line[-1])} {shlex.quote(line[-2])}",
        "printf '%s\\n' \"${COMPREPLY[@]}\"",
    ])
    result = subprocess.run(["bash", "-c", program], capture_output=True, text=True, timeout=30)
    return set(result.stdout.split())


def man_page(name):
    for section in (1, 8):
        path = os.path.join(MAN, f"{name}.{section}.md")
        if os.path.exists(path):
            with open(path) as f:
                return f.read()
    raise AssertionError(f"no man page for {name}")


def man_names(page):
    return set(re.findall(r"\*\*(--?[A-Za-z][\w-]*)\*\*", page))


class EveryOptionEverywhere(unittest.TestCase):

    def setUp(self):
        if not os.path.exists(BASH_COMPLETION):
            self.skipTest("bash-completion is not installed (scripts/install-deps installs it)")

    def check(self, name, words, options):
        offered = complete(name, *words, "-")
        self.assertEqual(options - offered, set(), f"{name} {' '.join(words)}: options not completed")
        self.assertEqual(options - man_names(man_page(name)), set(), f"{name}: options not in its man page")

    def test_the_daemon(self):
        self.check("usbd", [], listed_options(help_text("usbd")))

    def test_usbdctl(self):
        main = help_text("usbdctl")
        commands = re.findall(r"^  ([a-z][\w-]+)  ", main.split("Commands:")[1].split("\n\n")[0], re.M)
        self.assertIn("send-file", commands)
        self.assertTrue(set(commands) <= complete("usbdctl", ""))
        self.check("usbdctl", [], listed_options(main))
        for command in commands:
            with self.subTest(command):
                self.check("usbdctl", [command], listed_options(help_text("usbdctl", command)))

    def test_usbd_host(self):
        main = help_text("usbd-host")
        commands = re.findall(r"^  ([a-z]+)  ", main.split("Commands:")[1].split("\n\n")[0], re.M)
        self.assertEqual(set(commands), {"list", "receive", "send"})
        self.assertTrue(set(commands) <= complete("usbd-host", ""))
        self.check("usbd-host", [], listed_options(main))
        for command in commands:
            with self.subTest(command):
                self.check("usbd-host", [command], listed_options(help_text("usbd-host", command)))

    def test_usbd_gadget(self):
        text = help_text("usbd-gadget")
        commands = set(re.search(r"\[OPTIONS\] ([\w|-]+)", text).group(1).split("|"))
        self.assertIn("host-rule", commands)
        self.assertEqual(commands - complete("usbd-gadget", ""), set())
        self.assertEqual(commands - set(re.findall(r"\*\*([a-z-]+)\*\*", man_page("usbd-gadget"))), set())
        self.check("usbd-gadget", [], listed_options(text))

    def test_the_emulator(self):
        if not os.path.exists(tool("usbd-emu")[0]):
            self.skipTest("the emulator is not built")
        self.check("usbd-emu", [], listed_options(help_text("usbd-emu")))
        text = help_text("usbd-emuctl")
        commands = emuctl_commands(text)
        self.assertIn("ios-capture-off", commands)
        self.assertEqual(set(commands) - complete("usbd-emuctl", ""), set())
        self.assertEqual(set(commands) - set(re.findall(r"\*\*([a-z0-9-]+)\*\*", man_page("usbd-emuctl"))), set())
        self.check("usbd-emuctl", [], set(re.findall(r"--[\w-]+", text.splitlines()[0])))
        for command, options in commands.items():
            if options:
                with self.subTest(command):
                    self.check("usbd-emuctl", [command], options)


if __name__ == "__main__":
    unittest.main()
