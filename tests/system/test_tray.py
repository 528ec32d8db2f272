"""The icon and the menu in real panels, and as a D-Bus client that is not ours reads them."""
import signal
import subprocess
import unittest

from lab.desktop import Desktop, contrast
from lab.processes import until
from lab.programs import IS_SANITIZED, JackServer, SystemTest

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
        """A device at one of the stage's addresses."""
        return super().device(self.stage, "--name", name, "--address", ADDRESS.format(number), *options)

    def running_program(self):
        program = self.desktop.program()
        program.wait_for("running$")
        return program


class MenuOnTheBus(TrayTest):
    def setUp(self):
        super().setUp()
        self.desktop.xfce_panel()
        self.program = self.desktop.program()
        self.desktop.wait_for_item(20)

    def assertPeers(self, *peers):
        """The menu comes to show these peers and no others."""
        until(lambda: self.desktop.titles()[2:3 + len(peers)] == [*peers, "-"], 15, f"the peers {peers}")

    def assertMenu(self, status, peer, has_event=True):
        """The menu comes to show this status, and its other lines are as they should be."""
        lines = until(lambda: (menu := self.desktop.menu())[0].title == status and menu, 10, f"status {status!r}")
        titles = ["-" if line is None else line.title for line in lines]
        event = [titles[-3], "-"] if has_event else []
        self.assertEqual(titles, [status, "-", peer, *COMMANDS, *event, QUIT])
        if has_event:
            self.assertRegex(event[0], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ ")
        for line in filter(None, lines):
            self.assertEqual(line.enabled, line.title in COMMANDS + [QUIT], line)
            self.assertEqual(line.checked is not None, line.title in ("Auto-connect", "Start at Login"), line)
            self.assertEqual(line.shortcut, [["Control", "Q"]] if line.title == QUIT else None)

    def isChecked(self, title):
        return next(line.checked for line in self.desktop.menu() if line and line.title == title)

    def test_item(self):
        for name, value in (("Id", "TessaryLinkStatusItem"), ("Title", "Tessary Link"), ("Status", "Active"),
                            ("IconName", ""), ("ItemIsMenu", True)):  # no name: the icon is not installed
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

    def test_situations(self):
        self.assertMenu("○ No Tessary on network", "No peers visible", has_event=False)
        leaver = self.device(7, "leaver", "--bye-after", "3")
        self.program.wait_for("running$")
        self.desktop.choose("Auto-connect")
        self.assertMenu("◌ Searching for Tessary…", "○ leaver")
        self.assertFalse(self.isChecked("Auto-connect"))
        self.desktop.choose("Auto-connect")
        self.assertTrue(self.isChecked("Auto-connect"))
        leaver.end()
        self.assertMenu("○ No Tessary on network", "No peers visible")
        self.device(2, "iPad", "--answer-delay", "1000")
        self.assertMenu(f"◐ Connecting to {ADDRESS.format(2)}…", "○ iPad")
        self.assertMenu(f"● Connected: {ADDRESS.format(2)}", "● iPad")
        self.device(3, "alto", "--silent")
        late = self.device(4, "Alpha")
        self.assertPeers("● Alpha", "○ alto", "● iPad")
        late.end()
        self.assertPeers("○ alto", "● iPad")

    def test_names_are_shown_literally(self):
        names = ["A & B && C", "__a_b_&", "Björk 🎹🎛️", "עברית & عربي", "tab\there", "&" + 62 * "x", "_&_&_"]
        for number, name in enumerate(names, 2):
            self.device(number, name)
        self.assertPeers(*("● " + name.replace("\t", " ") for name in sorted(names)))

    def test_commands(self):
        device = self.device(2, "iPad")
        self.program.wait_for("running$")
        self.desktop.choose("Reconnect Now")
        device.wait_for(r"bye from .*\(control\)")
        device.wait_for(" running with", times=2)

        entry = self.desktop.config / "autostart/tessary-link.desktop"
        self.desktop.choose("Start at Login")
        until(entry.exists, 5, "the entry")
        subprocess.run(["desktop-file-validate", entry], check=True)
        self.assertTrue(self.isChecked("Start at Login"))
        with entry.open("a") as file:
            file.write("Hidden=true\n")  # as a desktop's settings do
        self.assertFalse(self.isChecked("Start at Login"))
        for is_on in (True, False):
            self.desktop.choose("Start at Login")
            until(lambda: self.isChecked("Start at Login") == is_on, 5, f"it is {is_on}")

        self.desktop.choose(QUIT)
        self.assertEqual(self.program.wait(), 0)
        self.assertSessionEnds(device, times=2)

    def test_a_panel_that_reads_without_opening(self):
        """Panels cache what they have read, so the program has to send a signal of each change."""
        self.assertEqual(self.desktop.titles()[2], "No peers visible")  # another one, which has closed it again
        signals = self.desktop.monitor()
        self.device(2, "iPad")
        signals.wait_for("LayoutUpdated")
        signals.wait_for(rf"ItemsPropertiesUpdated.*● Connected: {ADDRESS.format(2)}")
        signals.wait_for("ItemsPropertiesUpdated.*● iPad")
        self.assertEqual(self.desktop.titles(opening=False)[:3],
                         [f"● Connected: {ADDRESS.format(2)}", "-", "● iPad"])


class Panels(TrayTest):
    def settled(self, name):
        """The screen once it no longer changes."""
        last = self.desktop.screenshot(name)
        while (now := self.desktop.screenshot(name)).differing(last):
            last = now
        return now

    def assertIconAndMenu(self, name):
        """The panel shows a readable icon of the program, and a click with either button opens the menu."""
        def has_menu():
            bounds = self.desktop.screenshot(f"menu-{name}").differing(icon)
            return bounds and (bounds[2] - bounds[0]) * (bounds[3] - bounds[1]) > 120 * 100
        empty = self.settled(f"panel-{name}")
        program = self.running_program()
        until(lambda: self.desktop.screenshot(f"icon-{name}").differing(empty), 20, "the icon")
        icon = self.settled(f"icon-{name}")
        left, top, right, bottom = icon.differing(empty)
        self.assertGreaterEqual(icon.contrast(left, top, right, bottom), 3, "readable")
        for button in (1, 3):
            self.desktop.click((left + right) // 2, (top + bottom) // 2, button)
            until(has_menu, 10, "a menu")
            self.settled(f"menu-{name}")
            self.desktop.press("Escape")
            until(lambda: not has_menu(), 10, "no menu")
        program.terminate()

    def test_xfce_light_and_dark(self):
        self.desktop.install_icons()  # the symbolic one, which the panel recolours
        self.device(2, "Björk's phone")
        for look in ("light", "dark"):
            with self.subTest(look):
                self.desktop.move_pointer(0, 300)  # on the icon it would bring up the tool tip
                blank = self.settled(f"blank-{look}")
                panel = self.desktop.xfce_panel(dark=look == "dark")
                until(lambda: self.desktop.screenshot(f"panel-{look}").differing(blank), 20, "the panel")
                self.assertIconAndMenu(look)
                panel.end()

    def test_xembed_alone(self):
        self.device(2, "Björk's phone")
        self.desktop.xembed_panel()
        self.assertIconAndMenu("trayer")

    def test_notes_go_on_while_panels_come_and_go(self):
        jack = JackServer(self, self.desk)
        self.desktop.program()
        receiver = jack.receiver()
        self.device(2, "iPad", "--rate", "100")

        def panel_comes():
            panel = self.desktop.xfce_panel()
            until(self.desktop.has_panel, 20, "the panel")
            self.desktop.wait_for_item(6)  # a bus that has ended is looked for every 5 s
            self.assertEqual(self.desktop.titles()[2], "● iPad")
            return panel

        receiver.wait_for_messages(100)
        panel_comes().kill()
        until(lambda: not self.desktop.item(), 10, "no watcher any more")
        panel = panel_comes()
        # Until 10 s after launch the search for a panel that knows XEmbed alone finds this one too.
        receiver.wait_for_messages(1100)
        self.desktop.bus.kill()
        panel.wait()
        receiver.wait_for_messages(len(receiver.messages) + 100)
        self.desktop.start_bus()
        panel_comes()
        receiver.wait_for_messages(len(receiver.messages) + 100)
        self.assertNotes(receiver, len(receiver.messages))


class Endings(TrayTest):
    def test_the_display_server_dies(self):
        device = self.device(2, "iPad")
        program = self.running_program()
        self.desktop.display.kill()
        program.wait()
        self.assertSessionEnds(device)
        program.popen.returncode = 0  # Qt chooses the status

    def test_without_a_display_and_with_a_dead_one(self):
        device = self.device(2, "iPad")
        for times, display in enumerate(({}, {"DISPLAY": ":4711"}), 1):
            with self.subTest(display):
                self.desktop.variables.pop("DISPLAY", None)
                self.desktop.variables.update(display)
                self.running_program().terminate()
                self.assertSessionEnds(device, times)

    def test_a_display_that_answers_late(self):
        """Sessions run meanwhile, and a signal ends the program."""
        self.desktop.display.signal(signal.SIGSTOP)
        device = self.device(2, "iPad")
        self.running_program().terminate()
        self.assertSessionEnds(device)
        self.desktop.program().wait_for("the display does not answer", 15)
        self.desktop.display.signal(signal.SIGCONT)
        self.desktop.xfce_panel()
        self.desktop.wait_for_item()

    @unittest.skipIf(IS_SANITIZED, "a sanitizer needs destructors, and Qt's wait for the bus")
    def test_a_session_bus_that_does_not_answer(self):
        self.desktop.xembed_panel()
        self.desktop.bus.signal(signal.SIGSTOP)
        self.addCleanup(self.desktop.bus.kill)
        device = self.device(2, "iPad")
        program = self.running_program()
        # Later than 10 s after launch, when the program also looks for a panel that knows XEmbed alone.
        self.device(3, "late", "--open-after", "11").wait_for("running with", 20)
        program.terminate()
        self.assertSessionEnds(device)

    def test_a_second_start(self):
        def files():
            return {path: path.stat().st_mtime_ns for path in self.desktop.directory.rglob("*")}
        device = self.device(2, "iPad")
        first = self.running_program()
        until(lambda: first.preferences.get("TessaryLink.trustedPeerIPs.v1"), 5, "the device is remembered")
        before = files()
        second = self.desktop.program()
        self.assertEqual(second.wait(), 0)
        self.assertEqual(second.lines, ["Tessary Link is already running"])
        self.assertEqual(files(), before)
        self.assertFalse(device.times("bye from"))


if __name__ == "__main__":
    unittest.main()
