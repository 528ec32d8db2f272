"""A desktop session for tests of the status item: a session bus, a display, panels, and an independent D-Bus client that
reads the menu as panels do."""
import collections
import json
import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import unittest

from lab.processes import Process, environment, until
from lab.programs import BUILD, Program

TOOLS = ("dbus-daemon", "Xvfb", "xfce4-panel", "trayer", "xdotool", "import", "convert", "busctl", "gdbus")
ITEM_INTERFACE, MENU_INTERFACE = "org.kde.StatusNotifierItem", "com.canonical.dbusmenu"
WATCHER = "org.kde.StatusNotifierWatcher"
PANEL = """<?xml version="1.0" encoding="UTF-8"?>
<channel name="xfce4-panel" version="1.0">
  <property name="configver" type="int" value="2"/>
  <property name="panels" type="array">
    <value type="int" value="1"/>
    <property name="dark-mode" type="bool" value="{dark}"/>
    <property name="panel-1" type="empty">
      <property name="position" type="string" value="p=2;x=0;y=0"/>
      <property name="length" type="uint" value="20"/>
      <property name="size" type="uint" value="28"/>
      <property name="icon-size" type="uint" value="18"/>
      <property name="plugin-ids" type="array"><value type="int" value="1"/></property>
    </property>
  </property>
  <property name="plugins" type="empty">
    <property name="plugin-1" type="string" value="systray"/>
  </property>
</channel>
"""

MenuLine = collections.namedtuple("MenuLine", "identity title enabled checked shortcut")


def literal(label):
    """The text that a panel shows for a label: one underscore marks the access key, two stand for one."""
    return re.sub(r"_(.?)", r"\1", label, flags=re.DOTALL)


def contrast(lighter, darker):
    """The contrast of two grey values, 0 to 255 (WCAG 2, 1.4.11: an icon needs at least 3)."""
    def luminance(value):
        value /= 255
        return value / 12.92 if value <= 0.04045 else ((value + 0.055) / 1.055) ** 2.4
    low, high = sorted((luminance(lighter), luminance(darker)))
    return (high + 0.05) / (low + 0.05)


class Desktop:
    """A desktop session of one user on a host."""

    def __init__(self, test, host):
        if missing := [tool for tool in TOOLS if not shutil.which(tool)]:
            raise unittest.SkipTest("missing: " + ", ".join(missing))
        self._test, self.host = test, host
        self.directory = pathlib.Path(tempfile.mkdtemp(dir=test.directory))
        runtime = self.directory / "run"
        runtime.mkdir(mode=0o700)
        self.config = self.directory / "config"
        self.data = self.directory / "data"
        self.variables = {"HOME": str(self.directory), "XDG_CONFIG_HOME": str(self.config),
                          "XDG_DATA_HOME": str(self.data), "XDG_RUNTIME_DIR": str(runtime),
                          "XDG_CURRENT_DESKTOP": "XFCE"}
        self.bus = self.display = None

    def start_bus(self):
        address = f"unix:path={self.directory}/bus"
        self.bus = self.process("dbus-daemon", "--session", "--nofork", "--print-address=1", f"--address={address}")
        self.bus.wait_for("unix:")
        self.variables["DBUS_SESSION_BUS_ADDRESS"] = address
        return self

    def start_display(self):
        # By default Xvfb resets when its last client disconnects, and loses clients that connect at that moment.
        self.display = self.process("Xvfb", "-displayfd", "1", "-noreset", "-screen", "0", "480x320x24",
                                    "-nolisten", "tcp")
        self.variables["DISPLAY"] = ":" + self.display.wait_for(r"^(\d+)$")[1][1]
        return self

    def install_icons(self):
        """Installs the icons of the package for this user only."""
        shutil.copytree(BUILD / "packaging/icons/hicolor", self.data / "icons/hicolor")

    def process(self, *command, **more):
        return Process(self._test, command, self.host, environment(**self.variables, **more))

    def run(self, *command):
        return subprocess.run(self.host.enter + [*command], check=True, env=environment(**self.variables),
                              stdout=subprocess.PIPE, text=True, timeout=10).stdout

    def program(self, **more):
        return Program(self._test, self.host, config=self.config, variables=self.variables | more)

    def xfce_panel(self, dark=False):
        channels = self.config / "xfce4/xfconf/xfce-perchannel-xml"
        channels.mkdir(parents=True, exist_ok=True)
        (channels / "xfce4-panel.xml").write_text(PANEL.format(dark="true" if dark else "false"))
        return self.process("xfce4-panel", "--disable-wm-check", GTK_THEME="Adwaita:dark" if dark else "Adwaita")

    def xembed_panel(self):
        return self.process("trayer", "--edge", "top", "--align", "left", "--widthtype", "request", "--height", "28",
                            "--transparent", "false")

    # D-Bus, as panels use it

    def _busctl(self, *arguments):
        command = ["busctl", f"--address={self.variables['DBUS_SESSION_BUS_ADDRESS']}", "--json=short", "--", *arguments]
        result = subprocess.run(self.host.enter + command, env=environment(**self.variables), capture_output=True,
                                text=True, timeout=10)
        if result.returncode != 0:
            raise LookupError(result.stderr.strip())
        return json.loads(result.stdout)["data"] if result.stdout.strip() else None

    def item(self):
        """Bus name and path of the program's item, as registered with the watcher."""
        try:
            items = self._busctl("get-property", WATCHER, "/StatusNotifierWatcher", WATCHER,
                                 "RegisteredStatusNotifierItems")
        except LookupError:
            return None
        return (items[0][:items[0].index("/")], items[0][items[0].index("/"):]) if items else None

    def has_panel(self):
        """Whether a panel that shows such items has registered with the watcher."""
        try:
            return self._busctl("get-property", WATCHER, "/StatusNotifierWatcher", WATCHER,
                                "IsStatusNotifierHostRegistered")
        except LookupError:
            return False

    def wait_for_item(self, timeout=10):
        return until(self.item, timeout, "the item is registered")

    def item_property(self, name):
        service, path = self.wait_for_item()
        return self._busctl("get-property", service, path, ITEM_INTERFACE, name)

    def _menu(self, method, *arguments):
        service, _ = self.wait_for_item()
        return self._busctl("call", service, self.item_property("Menu"), MENU_INTERFACE, method, *arguments)

    def menu(self, opening=True):
        """The lines as a panel reads them, None for a separator. With `opening`, calls AboutToShow first, as most panels do."""
        if opening:
            self._menu("AboutToShow", "i", "0")
        _, (_, _, lines) = self._menu("GetLayout", "iias", "0", "-1", "0")
        found = []
        for line in lines:
            identity, properties, _ = line["data"]
            values = {key: value["data"] for key, value in properties.items()}
            if not values.get("visible", True):
                continue
            if values.get("type") == "separator":
                found.append(None)
                continue
            checked = bool(values["toggle-state"]) if values.get("toggle-type") == "checkmark" else None
            found.append(MenuLine(identity, literal(values["label"]), values.get("enabled", True), checked,
                                  values.get("shortcut")))
        if opening:
            self._menu("Event", "isvu", "0", "closed", "i", "0", "0")
        return found

    def titles(self, opening=True):
        return ["-" if line is None else line.title for line in self.menu(opening)]

    def choose(self, title):
        line = next(line for line in self.menu() if line and line.title == title)
        assert line.enabled, title
        self._menu("Event", "isvu", str(line.identity), "clicked", "i", "0", "0")

    def monitor(self):
        """A process that prints the signals of the program's item and menu, one per line."""
        service, _ = self.wait_for_item()
        process = self.process("gdbus", "monitor", "--session", "--dest", service)
        process.wait_for("is owned by")
        return process

    # Screen and input

    def screenshot(self, name):
        """Takes a screenshot; also copies it to the folder in TESSARY_SCREENSHOTS, if set."""
        path = self.directory / f"{name}.png"
        self.run("import", "-silent", "-window", "root", str(path))
        if folder := os.environ.get("TESSARY_SCREENSHOTS"):
            pathlib.Path(folder).mkdir(parents=True, exist_ok=True)
            shutil.copy(path, folder)
        return Screenshot(path)

    def move_pointer(self, x, y):
        self.run("xdotool", "mousemove", str(x), str(y))

    def click(self, x, y, button):
        self.move_pointer(x, y)
        self.run("xdotool", "click", str(button))

    def press(self, key):
        self.run("xdotool", "key", key)


class Screenshot:
    def __init__(self, path):
        size = subprocess.run(["identify", "-format", "%w %h", path], check=True, stdout=subprocess.PIPE).stdout
        self.width, self.height = map(int, size.split())
        pixels = subprocess.run(["convert", path, "-depth", "8", "gray:-"], check=True, stdout=subprocess.PIPE).stdout
        self.rows = [pixels[y * self.width:(y + 1) * self.width] for y in range(self.height)]

    def differing(self, other):
        """The bounds of the differing pixels: left, top, right, bottom; None without a difference."""
        rows = [y for y in range(self.height) if self.rows[y] != other.rows[y]]
        if not rows:
            return None
        columns = [x for x in range(self.width) if any(self.rows[y][x] != other.rows[y][x] for y in rows)]
        return columns[0], rows[0], columns[-1] + 1, rows[-1] + 1

    def contrast(self, left, top, right, bottom):
        """The contrast of the lightest and the darkest pixel in the given bounds."""
        values = [value for y in range(top, bottom) for value in self.rows[y][left:right]]
        return contrast(max(values), min(values))
