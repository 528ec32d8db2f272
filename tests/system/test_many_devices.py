"""Many devices at once."""
import re
import time
import unittest

from lab.programs import MainThreadHold, Program, SystemTest

RUNNING = r"^\[Dialer\] 10\.77\.4\.\d+ running$"


class ManyDevices(SystemTest):
    def stage(self, count):
        return self.network.host(*(f"10.77.4.{number}/24" for number in range(2, 2 + count)))

    def test_acceptances_all_at_once(self):
        """No session may hang because the main thread had not yet stored what the acceptance is compared with."""
        count = 32
        desk = self.network.host("10.77.4.1/24")
        devices = self.device(self.stage(count), "--address", "10.77.4.2", "--count", count, "--play", "nothing")
        devices.wait_for("announced", times=count)
        for repetition in range(20):
            program = Program(self, desk)
            if repetition % 2:
                # In turn before the invitations of most, and between those of the control and of the data ports.
                program.wait_for(r"dialing" if repetition % 4 == 1 else "sent control IN", times=repetition)
                with MainThreadHold(program):
                    time.sleep(0.2)
            program.wait_for(RUNNING, 10, times=count)
            self.assertEqual(len({line for line in program.lines if re.search(RUNNING, line)}), count)
            self.assertEqual(len(program.times("dialing")), count)
            program.terminate()

    def test_announcements_all_at_once(self):
        count = 64
        program = Program(self, self.network.host("10.77.4.1/24"))
        devices = self.device(self.stage(count), "--address", "10.77.4.2", "--count", count, "--play", "nothing")
        announced, _ = devices.wait_for("announced", 20, times=count)
        running, _ = program.wait_for(RUNNING, 20, times=count)
        print(f"\n{count} devices run {running - announced:.2f} s after the last announcement")
        self.assertLess(running - announced, 2)
        self.assertEqual(len(program.times("dialing")), count)


if __name__ == "__main__":
    unittest.main()
