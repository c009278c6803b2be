"""Runs fleet-hub with a broker, a PostgreSQL and devices of its own, as fleet.py says."""

import os
import re
import signal
import subprocess
import time
import unittest
import urllib.request

import fleet

HUB = fleet.PROGRAMS / "fleet-hub"
HEAD = ["device", "number", "behind", "rows", "lost", "quarantine", "waiting", "refused"]


def readings(*numbers, note=b""):
    """Lines of readings with these values."""
    return b"".join(b"2009-12-31T12:00:00Z hall %d %s\n" % (number, note) for number in numbers)


def run_hub(*arguments, **options):
    """The exit status, what is printed, and what is told."""
    done = subprocess.run([HUB, *map(str, arguments)], text=True, capture_output=True, timeout=60,
                          check=False, **options)
    return done.returncode, done.stdout, done.stderr


class UseTest(unittest.TestCase):
    def assert_wrong_use(self, error, *arguments):
        self.assertEqual(run_hub(*arguments), (2, "", f"fleet-hub: {error} (--help tells more)\n"))

    def test_wrong_use_is_told(self):
        self.assert_wrong_use("A subcommand is required")
        self.assert_wrong_use("--connection is required", "status")
        for name in ("", "a/b", "+", "#"):
            self.assert_wrong_use(f"DEVICE: '{name}' is no name of a device", "admit", "--connection",
                                  "x", name)
        self.assert_wrong_use("NAME is required", "set", "--connection", "x", "device-1")
        self.assert_wrong_use("--web: Value 65536 not in range 0 to 65535", "run", "--connection",
                              "x", "--web", 65536)
        self.assert_wrong_use("--certificate: File does not exist: /none", "run", "--connection",
                              "x", "--certificate", "/none")
        self.assert_wrong_use("--certificate requires --authority", "run", "--connection", "x",
                              "--certificate", __file__, "--key", __file__)

    def test_help_tells_all_commands(self):
        status, output, errors = run_hub("--help")
        self.assertEqual((errors, status), ("", 0))
        for command in ("run", "status", "settings", "set", "admit", "retry", "discard"):
            self.assertRegex(output, rf"\n  {command} ")

    def test_failure_is_told_in_one_line(self):
        for command in (["status"], ["settings", "a"], ["set", "a", "b"], ["admit", "a"],
                        ["retry", "a"], ["discard", "a"]):
            status, output, errors = run_hub(
                *command, env={"FLEET_CONNECTION": "host=/nowhere port=5432"})
            self.assertEqual((status, output), (1, ""))
            self.assertRegex(errors, r'\Afleet-hub: connection to server on socket '
                                     r'"/nowhere/.s.PGSQL.5432" failed: [^\n]*\n\Z')


class HubTest(unittest.TestCase):
    maxDiff = 10000

    @classmethod
    def setUpClass(cls):
        cls.fleet = fleet.Fleet(hubs=1, keep=())
        cls.addClassCleanup(cls.fleet.__exit__)
        cls.fleet.start(has_standby=False)
        cls.hub = cls.fleet.hubs[0]
        fleet.wait_until(lambda: "the broker is connected" in cls.hub.said(), "the hub is there", 20)

    def command(self, name, *arguments):
        return run_hub(name, "--connection", self.fleet.connection(), *arguments)

    def assert_prints(self, output, *command, status=0):
        self.assertEqual(self.command(*command), (status, output, ""))

    def status_of(self, device):
        """Number, rows, lost, quarantine, waiting and why it is refused, as the table has them."""
        code, output, told = self.command("status")
        head, *lines = output.splitlines()
        self.assertEqual((code, told, head.split()), (0, "", HEAD))
        for line in lines:
            name, number, behind, *counts, refused = line.split(maxsplit=7)
            if name == device:
                self.assertRegex(behind, r"^(\d+|-)$")
                return [int(number), *map(int, counts), refused]
        return None

    def wait_for_status(self, device, *expected):
        fleet.wait_until(lambda: self.status_of(device) == list(expected),
                         f"{list(expected)}, not {self.status_of(device)}", 20)

    def wait_for_line(self, pattern):
        fleet.wait_until(lambda: re.search(f"^fleet-hub: {pattern}$", self.hub.said(), re.MULTILINE),
                         pattern, 20)

    def get(self, path):
        with urllib.request.urlopen(f"http://127.0.0.1:{self.fleet.web}/{path}") as response:
            return response.read().decode("utf-8")

    def metric(self, name):
        return float(re.search(rf"^{name} (.*)$", self.get("metrics"), re.MULTILINE)[1])

    def send(self, name, lines=b""):
        """A device that sends these readings until it has an answer for all."""
        device = self.fleet.own(fleet.Device(self.fleet, name))
        given = self.fleet.folder / f"{name}.in"
        given.write_bytes(lines)
        with given.open("rb") as stream:
            device.start("--until-sent", stdin=stream)
        return device

    def assert_ends(self, device):
        self.assertEqual(device.process.wait(20), 0, device.said())

    def values(self, device):
        return [row[0] for row in self.fleet.ask(
            f"select value from data.reading where device = '{device}' order by id")]

    def test_what_devices_send_is_stored_and_shown(self):
        stored = self.metric("fleet_hub_rows_stored_total")
        self.assert_ends(self.send("shown", readings(1, 2, 3)))
        self.assertEqual(self.values("shown"), ["1", "2", "3"])
        number, rows, *others = self.status_of("shown")
        self.assertEqual((rows, *others), (3, 0, 0, 0, "-"))
        self.assertGreaterEqual(number, 1)
        self.assertEqual(self.metric("fleet_hub_rows_stored_total"), stored + 3)
        self.assertEqual(self.metric("fleet_hub_broker_up"), 1)
        self.assertGreaterEqual(self.metric("fleet_hub_batch_seconds_count"), 1)
        fleet.wait_until(lambda: '{"device":"shown",' in self.get("status.json"), "device", 20)
        self.assertTrue(self.get("").startswith("<!DOCTYPE html>\n"))

    def test_settings_reach_their_device(self):
        self.assert_prints("", "settings", "set", status=3)
        self.assert_prints("", "set", "set", "group", "20")
        self.assert_prints("", "set", "set", "note", "two\nlines\x1b[2J")
        self.assert_prints("group 20\nnote two lines [2J\n", "settings", "set")
        self.wait_for_status("set", 0, 0, 0, 0, 2, "-")
        fleet.wait_until(lambda: self.metric("fleet_hub_settings_sent_total") > 0,
                         "sent while nobody was there", 20)
        device = self.fleet.own(fleet.Device(self.fleet, "set")).start("--simulate", "1")
        fleet.wait_until(lambda: self.status_of("set")[4] == 0, "settings applied", 20)
        self.assert_prints("", "set", "set", "note")
        self.assert_prints("group 20\n", "settings", "set")
        fleet.wait_until(lambda: self.status_of("set")[4] == 0, "settings applied", 20)
        device.end()
        fleet.wait_until(lambda: self.metric("fleet_settings_waiting") == 0, "hub has looked", 20)

    def test_what_cannot_be_stored_is_kept_until_it_is_discarded(self):
        self.assert_prints("none discarded\n", "discard", "odd", status=3)
        for lines in (readings(1), readings(2, note=b"\xff"), readings(3)):
            self.assert_ends(self.send("odd", lines))
        self.assertEqual(self.values("odd"), ["1", "3"])
        self.assertEqual(self.status_of("odd")[1:], [2, 0, 1, 0, "-"])
        fleet.wait_until(lambda: '"quarantined":1,"reason":"table \'reading\', '
                         in self.get("status.json?find=odd"), "hub has looked", 20)
        self.assert_prints("0 stored\n", "retry", "odd")
        self.assert_prints("1 discarded\n", "discard", "odd")
        self.assert_prints("none discarded\n", "discard", "odd", status=3)
        self.assertEqual(self.status_of("odd")[1:], [2, 0, 0, 0, "-"])

    def test_device_whose_file_was_lost_is_refused_until_it_is_admitted(self):
        self.assertEqual(self.command("admit", "lost"),
                         (1, "", "fleet-hub: no set of 'lost' was refused\n"))
        device = self.send("lost", readings(1))
        self.assert_ends(device)
        for file in self.fleet.folder.glob("lost.db*"):
            file.unlink()
        device = self.send("lost", readings(7))
        self.wait_for_line("lost: its set is refused: .*")
        fleet.wait_until(lambda: "the hub refuses" in device.said(), "device knows", 20)
        device.kill()
        self.assertNotEqual(self.status_of("lost")[5], "-")
        self.assert_prints("", "admit", "lost")
        self.assert_ends(self.send("lost"))
        self.assertEqual(self.status_of("lost")[2:], [0, 1, 0, "-"]) # a key that there is already

    def test_messages_of_nobody_are_counted(self):
        unreadable = self.metric("fleet_hub_messages_unreadable_total")
        credentials = self.fleet.certificates.of("odd")[1::2]
        options = [word for pair in zip(("--cafile", "--cert", "--key"), credentials) for word in pair]
        for topic in ("set", "applied"):
            fleet.run("mosquitto_pub", "-h", "localhost", "-p", self.fleet.broker.port, *options,
                      "-q", "1", "-t", f"fleet/odd/{topic}", "-m", "abc")
        fleet.wait_until(lambda: self.metric("fleet_hub_messages_unreadable_total") == unreadable + 2,
                         "messages", 20)

    def test_hub_waits_for_its_centre(self):
        self.fleet.primary.end()
        self.wait_for_line("the centre does not store: .*")
        self.assertEqual(self.metric("fleet_hub_centre_up"), 0)
        device = self.send("patient", readings(1, 2))
        time.sleep(0.5)
        self.assertIsNone(device.process.poll())
        self.fleet.primary.start()
        self.wait_for_line("the centre is back")
        self.assert_ends(device)
        self.assertEqual(self.values("patient"), ["1", "2"])
        self.assertEqual(self.metric("fleet_hub_centre_up"), 1)

    def test_hub_waits_for_its_broker(self):
        self.fleet.broker.kill()
        self.wait_for_line("the broker is away: .*")
        self.assertEqual(self.metric("fleet_hub_broker_up"), 0)
        before = self.processor_time()
        time.sleep(2)
        self.assertLess(self.processor_time() - before, 0.2)
        device = self.send("steady", readings(1, 2))
        self.fleet.broker.start()
        self.assert_ends(device)
        self.assertEqual(self.values("steady"), ["1", "2"])
        self.assertEqual(self.metric("fleet_hub_broker_up"), 1)

    def processor_time(self):
        with open(f"/proc/{self.hub.process.pid}/stat", encoding="ascii") as file:
            return sum(map(int, file.read().split()[13:15])) / os.sysconf("SC_CLK_TCK")

    def test_port_of_another_is_told(self):
        self.assertEqual(
            self.command("run", "--web", self.fleet.web),
            (1, "", f"fleet-hub: cannot listen at 127.0.0.1 port {self.fleet.web}\n"))

    def test_signal_ends_it(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            start = time.monotonic()
            self.hub.end(number)
            self.assertLess(time.monotonic() - start, 2)
            self.assertEqual(self.hub.process.returncode, 0)
            self.hub.start()
            fleet.wait_until(self.is_up, "the hub is there", 20)

    def is_up(self):
        try:
            return self.metric("fleet_hub_broker_up") == 1
        except OSError:
            return False


if __name__ == "__main__":
    unittest.main()
