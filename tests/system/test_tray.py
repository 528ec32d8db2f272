"""The icon and the menu, in panels that are not ours and through a client that is not ours."""
import pathlib
import signal
import subprocess
import time
import unittest

from lab.desktop import Desktop, contrast
from lab.processes import until
from lab.programs import JackServer, SystemTest

ADDRESS = "10.78.0.{}"
COMMANDS = ["-", "Auto-connect", "Reconnect Now", "-", "Start at Login", "-"]
QUIT = "Quit Tessary Link"


class TrayTest(SystemTest):
    def setUp(self):
        super().setUp()
        self.desk = self.network.host(ADDRESS.format(1) + "/24")
        self.stage = self.network.host(*(ADDRESS.format(number) + "/24" for number in range(2, 9)))
        self.desktop = Desktop(self, self.desk).start_bus().start_display()

    def device(self, number, name, *options):
        """A device at one of the stage's addresses; it plays nothing unless told."""
        options = options if "--play" in options else ("--play", "nothing", *options)
        return super().device(self.stage, "--name", name, "--address", ADDRESS.format(number), *options)

    def assertMenu(self, status, peers, has_event):
        """The whole menu, line by line."""
        def shown():
            return self.desktop.menu()
        lines = until(lambda: (menu := shown()) and menu[0].title == status and menu, 10, f"status {status!r}")
        titles = ["-" if line is None else line.title for line in lines]
        event = titles[-3] if has_event else None
        self.assertEqual(titles, [status, "-", *peers, *COMMANDS, *([event, "-"] if has_event else []), QUIT])
        if has_event:
            self.assertRegex(event, r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ ")
        for line in filter(None, lines):
            self.assertEqual(line.enabled, line.title in COMMANDS + [QUIT], line)
            self.assertEqual(line.checked is not None, line.title in ("Auto-connect", "Start at Login"), line)
            self.assertEqual(line.shortcut, [["Control", "Q"]] if line.title == QUIT else None)
        return lines

    def isChecked(self, title):
        return next(line.checked for line in self.desktop.menu() if line and line.title == title)


class MenuOnTheBus(TrayTest):
    def setUp(self):
        super().setUp()
        self.desktop.xfce_panel()
        self.program = self.desktop.program()
        self.desktop.wait_for_item(20)

    def test_item(self):
        for name, value in (("Id", "TessaryLinkStatusItem"), ("Title", "Tessary Link"), ("Status", "Active")):
            self.assertEqual(self.desktop.item_property(name), value)
        pixmaps = self.desktop.item_property("IconPixmap")
        self.assertLess({16, 22, 32, 64}, {width for width, height, _ in pixmaps if width == height})
        for width, height, bytes_ in pixmaps:
            # The solid part of the filled cell, ARGB: readable on white and on a dark panel's grey.
            place = 4 * (int(7.5 / 18 * height) * width + int(13.3 / 18 * width))
            alpha, *tone = bytes_[place:place + 4]
            self.assertGreater(alpha, 200)
            self.assertEqual(len(set(tone)), 1)
            for ground in (0xFF, 0x35):
                self.assertGreater(contrast(tone[0], ground), 3)
        self.assertEqual(self.desktop.item_property("IconName"), "", "no name without the icon")
        self.assertTrue(self.desktop.item_property("ItemIsMenu"))

    def test_situations(self):
        self.assertMenu("○ No Tessary on network", ["No peers visible"], False)

        # Seen, and nobody dials it any more.
        leaver = self.device(7, "leaver", "--bye-after", "3")
        self.program.wait_for("running$")
        self.desktop.choose("Auto-connect")
        self.assertMenu("◌ Searching for Tessary…", ["○ leaver"], True)
        self.desktop.choose("Auto-connect")
        leaver.end()
        self.assertMenu("○ No Tessary on network", ["No peers visible"], True)

        self.device(2, "iPad", "--answer-delay", "1000")
        self.assertMenu(f"◐ Connecting to {ADDRESS.format(2)}…", ["○ iPad"], True)
        self.assertMenu(f"● Connected: {ADDRESS.format(2)}", ["● iPad"], True)

        # One that is seen and never answers, and two whose names sort around the others.
        self.device(3, "alto", "--silent")
        self.device(4, "Alpha")
        self.device(5, "beta")
        peers = ["● Alpha", "○ alto", "● beta", "● iPad"]
        until(lambda: self.desktop.titles()[2:6] == peers, 15, f"{peers}, but {self.desktop.titles()}")
        self.assertMenu(f"● Connected: {ADDRESS.format(2)}", peers, True)

        self.desktop.choose("Auto-connect")
        until(lambda: not self.isChecked("Auto-connect"), 5, "it is off")
        late = self.device(6, "late")
        until(lambda: self.desktop.titles()[2:7] == [*peers, "○ late"], 15, "seen, but not dialled")
        self.desktop.choose("Auto-connect")
        until(lambda: self.desktop.titles()[2:7] == [*peers, "● late"], 10, "connected at once")
        self.assertTrue(self.isChecked("Auto-connect"))
        late.end()
        until(lambda: self.desktop.titles()[2:7] == [*peers, "-"], 10, "gone")

        self.program.terminate()

    def test_names_are_shown_literally(self):
        names = ["A & B && C", "__a_b_&", "Björk 🎹🎛️", "עברית & عربي", "tab\there", "x" * 63, "_&_&_"]
        for number, name in enumerate(names, 2):
            self.device(number, name)
        expected = {"● " + name.replace("\t", " ") for name in names}
        try:
            until(lambda: set(self.desktop.titles()[2:2 + len(names)]) == expected, 20, "the names")
        except AssertionError:
            self.assertEqual(set(self.desktop.titles()[2:2 + len(names)]), expected)

    def test_commands(self):
        device = self.device(2, "iPad")
        self.program.wait_for("running$")
        entry = self.desktop.config / "autostart/tessary-link.desktop"

        self.desktop.choose("Reconnect Now")
        device.wait_for(r"bye from .*\(control\)")
        device.wait_for(" running with", times=2)
        self.assertMenu(f"● Connected: {ADDRESS.format(2)}", ["● iPad"], True)

        self.assertFalse(self.isChecked("Start at Login"))
        self.desktop.choose("Start at Login")
        until(entry.exists, 5, "the entry")
        subprocess.run(["desktop-file-validate", entry], check=True)
        self.assertTrue(self.isChecked("Start at Login"))
        with entry.open("a") as file:
            file.write("Hidden=true\n")  # by hand, or in the desktop's settings
        self.assertFalse(self.isChecked("Start at Login"))
        self.desktop.choose("Start at Login")
        until(lambda: self.isChecked("Start at Login"), 5, "it is on again")
        entry.unlink()
        self.assertFalse(self.isChecked("Start at Login"))
        self.desktop.choose("Start at Login")
        until(lambda: self.isChecked("Start at Login"), 5, "it is on again")
        self.desktop.choose("Start at Login")
        until(lambda: not entry.exists() or "Hidden=true" in entry.read_text(), 5, "it is gone or hidden")
        self.assertFalse(self.isChecked("Start at Login"))

        self.desktop.choose(QUIT)
        self.assertEqual(self.program.wait(), 0)
        device.wait_for(r"bye from .*\(control\)", times=2)
        device.wait_for(r"bye from .*\(data\)", times=2)

    def test_a_panel_that_never_asks_and_one_that_never_closes(self):
        self.assertEqual(self.desktop.titles(opening=False)[2], "No peers visible")
        # Panels keep what they have read, so the program has to tell them of what changes: of lines and of their texts.
        told = self.desktop.monitor()
        first = self.device(2, "iPad")
        told.wait_for("LayoutUpdated")
        told.wait_for(rf"ItemsPropertiesUpdated.*● Connected: {ADDRESS.format(2)}")
        told.wait_for("ItemsPropertiesUpdated.*● iPad")
        until(lambda: self.desktop.titles(opening=False)[:3] ==
              [f"● Connected: {ADDRESS.format(2)}", "-", "● iPad"], 10, "current without being asked")

        self.desktop.about_to_show()
        shown, signals = self.desktop.titles(opening=False), len(told.times("Updated"))
        first.end()
        self.program.wait_for(f"peer {ADDRESS.format(2)} gone")
        self.assertEqual(self.desktop.titles(opening=False), shown, "it is open")
        self.assertEqual(len(told.times("Updated")), signals, "it is open")
        self.desktop.menu_event("closed")
        told.wait_for("ItemsPropertiesUpdated.*No peers visible")
        self.assertEqual(self.desktop.titles(opening=False)[2], "No peers visible")

        self.desktop.about_to_show()  # and it is never closed
        self.device(3, "Phone")
        self.program.wait_for(f"{ADDRESS.format(3)} running$")
        self.desktop.about_to_show()
        self.assertEqual(self.desktop.titles(opening=False)[2], "● Phone")


class Panels(TrayTest):
    def assertPlaysOn(self, receiver, happening):
        """Nothing is missing of what a device plays while something happens to the desktop."""
        before = len(receiver.messages)
        happening()
        receiver.wait_for_messages(before + 200)
        self.assertNotes(receiver, len(receiver.messages))

    def icon_bounds(self, before, name):
        """Where the icon has come up since the screenshot `before`; waits for it."""
        return until(lambda: self.desktop.screenshot(name).differing(before), 20, "the icon")

    def test_xfce_light_and_dark(self):
        self.desktop.install_icons()  # the symbolic one, which the panel recolours
        for look in ("light", "dark"):
            with self.subTest(look):
                self.desktop.run("xdotool", "mousemove", "0", "300")  # on the icon it would bring up the tool tip
                blank = self.settled(f"blank-{look}")
                panel = self.desktop.xfce_panel(dark=look == "dark")
                until(lambda: (now := self.desktop.screenshot(f"panel-{look}")).differing(blank), 20, "the panel")
                empty = self.settled(f"panel-{look}")
                program = self.desktop.program()
                left, top, right, bottom = self.icon_bounds(empty, f"icon-{look}")
                icon = self.settled(f"icon-{look}")
                left, top, right, bottom = icon.differing(empty)
                self.assertGreaterEqual(icon.contrast(left, top, right, bottom), 3, "readable")
                x, y = (left + right) // 2, (top + bottom) // 2

                devices = []
                for situation, more in (("none", []), ("one", [(2, "iPad")]),
                                        ("three", [(3, "Stage left & right", "--silent"), (4, "Björk's phone")])):
                    devices += [self.device(*arguments) for arguments in more]
                    if more:
                        program.wait_for(ADDRESS.format(more[-1][0]) + " running$")
                    closed = self.settled(f"closed-{look}")
                    # GTK gives a menu that has grown its new size when it opens for the second time.
                    for button in (1, 3):
                        self.desktop.click(x, y, button)
                        until(lambda: self.is_menu(self.desktop.screenshot("opening"), closed), 10, "a menu")
                        self.settled(f"menu-{situation}-{look}")
                        self.desktop.press("Escape")
                        until(lambda: not self.is_menu(self.desktop.screenshot("closing"), closed), 10, "it has closed")
                program.terminate()
                for process in (*devices, panel):
                    process.end()

    def is_menu(self, shot, closed):
        bounds = shot.differing(closed)
        return bounds and (bounds[2] - bounds[0]) * (bounds[3] - bounds[1]) > 120 * 100

    def settled(self, name):
        """The screen once it stays the same."""
        last = self.desktop.screenshot(name)
        while (now := self.desktop.screenshot(name)).differing(last):
            last = now
        return now

    def test_xembed_alone(self):
        self.desktop.xembed_panel()
        empty = self.settled("trayer-empty")
        program = self.desktop.program()
        began = time.monotonic()
        bounds = until(lambda: self.desktop.screenshot("trayer").differing(empty), 20, "the icon")
        self.assertLess(time.monotonic() - began, 13)
        closed = self.settled("trayer")
        self.assertGreaterEqual(closed.contrast(*closed.differing(empty)), 3, "readable")
        x, y = (bounds[0] + bounds[2]) // 2, (bounds[1] + bounds[3]) // 2
        for button in (1, 3):
            self.desktop.click(x, y, button)
            until(lambda: self.is_menu(self.desktop.screenshot(f"trayer-menu-{button}"), closed), 10, "a menu")
            self.desktop.press("Escape")
            until(lambda: not self.is_menu(self.desktop.screenshot("closing"), closed), 10, "it has closed")
        program.terminate()

    def test_panels_come_and_go_and_the_notes_go_on(self):
        jack = JackServer(self, self.desk)
        program = self.desktop.program()
        receiver = jack.receiver()
        # It waits for the receiver, which is connected before the first device appears.
        self.device(2, "iPad", "--play", "scale", "--rate", "100")
        receiver.wait_for_messages(500, 20)  # 5 seconds after the launch there is still no panel

        def panel_comes():
            self.panel = self.desktop.xfce_panel()
            self.desktop.wait_for_item(20)

        def panel_is_killed():
            self.panel.kill()
            until(lambda: not self.desktop._item(), 10, "no watcher any more")
            self.panel = self.desktop.xfce_panel()
            self.desktop.wait_for_item(20)
            self.assertEqual(self.desktop.titles()[2], "● iPad")

        def bus_is_killed():
            self.desktop.bus.kill()
            self.panel.wait()

        def bus_comes_back():
            self.desktop.start_bus()
            self.desktop.xfce_panel()
            self.desktop.wait_for_item(20)
            self.assertEqual(self.desktop.titles()[2], "● iPad")

        for happening in (panel_comes, panel_is_killed, bus_is_killed, bus_comes_back):
            with self.subTest(happening.__name__):
                self.assertPlaysOn(receiver, happening)
        program.terminate()

    def test_a_panel_of_ours_comes_within_two_seconds(self):
        program = self.desktop.program()
        self.device(2, "iPad")
        program.wait_for("running$")
        self.desktop.xfce_panel()
        until(lambda: self.watcher_is_there(), 20, "the watcher")
        began = time.monotonic()
        self.desktop.wait_for_item(5)
        self.assertLess(time.monotonic() - began, 2)
        program.terminate()

    def watcher_is_there(self):
        try:
            return self.desktop._busctl("get-property", "org.kde.StatusNotifierWatcher", "/StatusNotifierWatcher",
                                        "org.kde.StatusNotifierWatcher", "IsStatusNotifierHostRegistered")
        except LookupError:
            return False


class Endings(TrayTest):
    def test_the_display_server_dies(self):
        device = self.device(2, "iPad")
        program = self.desktop.program()
        program.wait_for("running$")
        self.desktop.display.kill()
        program.wait()
        for port in ("control", "data"):
            device.wait_for(rf"bye from .*\({port}\)")
        program.popen.returncode = 0  # which Qt chooses, and is of no interest here

    def test_without_a_display_and_with_a_dead_one(self):
        for display in (None, ":4711"):
            with self.subTest(display):
                self.desktop.variables.pop("DISPLAY", None)
                if display:
                    self.desktop.variables["DISPLAY"] = display
                device = self.device(2, "iPad")
                program = self.desktop.program()
                program.wait_for("running$")
                program.terminate()
                for port in ("control", "data"):
                    device.wait_for(rf"bye from .*\({port}\)")
                device.end()

    def test_a_display_that_answers_late(self):
        """The devices play meanwhile, and the program ends when it is told to."""
        self.desktop.display.signal(signal.SIGSTOP)
        self.addCleanup(self.desktop.display.signal, signal.SIGCONT)
        device = self.device(2, "iPad")
        program = self.desktop.program()
        program.wait_for("running$")
        program.terminate()
        device.wait_for(r"bye from .*\(data\)")
        program = self.desktop.program()
        program.wait_for("the display does not answer", 15)
        self.desktop.display.signal(signal.SIGCONT)
        self.desktop.xfce_panel()
        self.desktop.wait_for_item()

    def test_a_session_bus_that_does_not_answer(self):
        self.desktop.xembed_panel()
        self.desktop.bus.signal(signal.SIGSTOP)
        self.addCleanup(self.desktop.bus.signal, signal.SIGCONT)
        device = self.device(2, "iPad")
        program = self.desktop.program()
        began = time.monotonic()
        program.wait_for("running$")
        # Past the moment at which a panel that knows XEmbed alone would do.
        self.device(3, "late", "--open-after", "11").wait_for("running with", 20)
        self.assertGreater(time.monotonic() - began, 10)
        program.terminate()
        device.wait_for(r"bye from .*\(data\)")

    def test_a_second_start(self):
        device = self.device(2, "iPad")
        first = self.desktop.program()
        first.wait_for("running$")
        until((self.desktop.config / "tessary-link/preferences.json").exists, 5, "the device is remembered")
        until(lambda: first.preferences.get("TessaryLink.trustedPeerIPs.v1"), 5, "the device is remembered")
        state = self.files()
        for _ in range(2):
            second = self.desktop.program()
            self.assertEqual(second.wait(), 0)
            self.assertEqual(second.lines, ["Tessary Link is already running"])
        self.assertEqual(self.files(), state)
        self.assertFalse(device.times("bye from"))

        first.kill()
        first.popen.returncode = 0  # killed by us
        third = self.desktop.program()
        third.wait_for("running$")
        third.terminate()

    def files(self):
        return {path: (path.stat().st_mtime_ns, path.stat().st_size)
                for path in pathlib.Path(self.desktop.directory).rglob("*") if path.is_file()}


if __name__ == "__main__":
    unittest.main()
