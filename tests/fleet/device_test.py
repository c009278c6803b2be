"""Runs fleet-device with a broker and without, as fleet.py says."""

import pathlib
import tempfile
import types
import unittest

import fleet


class DeviceTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.certificates = fleet.Certificates(self.folder / "certificates")
        self.broker = fleet.Broker(self.folder, self.certificates, [])
        self.addCleanup(self.broker.kill)
        self.device = fleet.Device(types.SimpleNamespace(
            folder=self.folder, broker=self.broker, certificates=self.certificates), "device-1")
        self.addCleanup(self.device.kill)

    def assert_tells(self, *lines):
        """Of the broker, the reasons for its absence apart: those depend on when it is looked at."""
        pattern = "".join(rf"fleet-device: the broker is {line}\n" for line in lines)
        fleet.wait_until(lambda: self.device.said().count("\n") >= len(lines), lines)
        self.assertRegex(self.device.said(), rf"\A{pattern}\Z")

    def test_tells_once_that_the_broker_is_away_and_that_it_is_back(self):
        away = "away: no connection to localhost: (Connection refused|The connection was lost.)"
        self.device.start()
        self.assert_tells(away)
        self.broker.start()
        self.assert_tells(away, "connected")
        self.broker.kill()
        self.assert_tells(away, "connected", away)
        self.device.end()
        self.assertGreater(len(self.device.rows()), 0)

    def test_tells_nothing_of_a_broker_that_is_there(self):
        self.broker.start()
        self.device.start()
        fleet.wait_until(lambda: "as device-1" in self.broker.said(), "the device is there")
        self.device.end()
        self.assertRegex(self.device.said(), r"\A\d+ stored, 0 lost\n\Z")

    def test_tells_that_its_certificate_is_revoked(self):
        self.certificates.make("revoke", "device-1")
        self.broker.start()
        self.device.start()
        self.assert_tells("away: no connection to localhost: (A TLS error occurred|The connection was lost).")


if __name__ == "__main__":
    unittest.main()
