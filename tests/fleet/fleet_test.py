"""Faults of a fleet: whatever is killed, every reading is at the centre once, and who must not be let in is not.

SQLWRAPPER_TEST_LONG has each fault happen several times, at moments that SEED chooses, if it is set.
"""

import contextlib
import os
import pathlib
import random
import re
import signal
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.request

import fleet
from fleet import wait_until

IS_LONG = "SQLWRAPPER_TEST_LONG" in os.environ
ROUNDS = 20 if IS_LONG else 2
DEVICES = 20 if IS_LONG else 6
SEED = int(os.environ.get("SEED", random.SystemRandom().randrange(1000000) if IS_LONG else 1))


class FleetTest(unittest.TestCase):
    has_standby = False

    def setUp(self):
        self.fleet = fleet.Fleet()
        self.addCleanup(self.fleet.stack.close)
        self.fleet.start(self.has_standby)
        self.random = random.Random(SEED)

    def add_devices(self, count=DEVICES):
        for number in range(count):
            on_arm = fleet.ARM_PROGRAMS is not None and number == 1
            self.fleet.add_device(f"device-{number + 1}", "--group", "3", "--within", "1", simulates=10,
                                  on_arm=on_arm).start()
        self.wait_for_each()

    def wait_for_each(self, seconds=90):
        """Until something new of each device was stored."""
        before = self.fleet.stored()
        wait_until(lambda: all(self.fleet.stored().get(device.name, 0) > before.get(device.name, 0)
                               for device in self.fleet.devices), "each device's readings arrive", seconds)

    def wait_a_moment(self):
        time.sleep(self.random.uniform(0, 1))

    def assert_whole(self):
        """Every reading that a device has is at the centre once, and nothing else is."""
        self.fleet.drain()
        at_centre = self.fleet.rows()
        for device in self.fleet.devices:
            rows = device.rows()
            self.assertGreater(len(rows), 0, device.name)
            self.assertEqual(at_centre.pop(device.name), rows, device.name)
        self.assertEqual(at_centre, {})
        self.assertEqual(self.fleet.ask("select count(*) from fleet.quarantine"), [["0"]])
        self.assertEqual(self.fleet.ask("select count(*) from fleet.device where lost > 0 or refused is not null"),
                         [["0"]])


class KillTest(FleetTest):
    def test_devices_killed_between_write_and_answer(self):
        self.add_devices()
        for _ in range(ROUNDS * 5):
            self.wait_a_moment()
            device = self.random.choice(self.fleet.devices)
            device.kill()
            device.start()
        self.assert_whole()

    def test_hubs_killed_before_and_after_the_commit(self):
        self.add_devices()
        for _ in range(ROUNDS):
            for hub in self.fleet.hubs:
                self.wait_a_moment()
                hub.kill()
                self.wait_a_moment()
                hub.start()
        self.wait_for_each()
        self.assert_whole()

    def test_broker_restarted_with_its_store_and_without(self):
        self.add_devices()
        for number in range(ROUNDS):
            self.wait_a_moment()
            self.fleet.broker.kill()
            if number % 2 == 0:
                self.fleet.broker.forget()
            self.fleet.broker.start()
            self.wait_for_each()
        self.assert_whole()

    def test_connections_to_the_database_are_cut(self):
        self.add_devices()
        for _ in range(ROUNDS * 3):
            self.wait_a_moment()
            self.fleet.ask("select pg_terminate_backend(pid) from pg_stat_activity"
                           " where application_name = 'fleet-hub'")
        self.wait_for_each()
        self.assert_whole()

    def test_centre_that_is_away_is_waited_for(self):
        self.add_devices()
        self.fleet.primary.kill()
        time.sleep(5)
        self.fleet.primary.start()
        self.wait_for_each()
        self.assert_whole()


class MomentTest(FleetTest):
    """What is killed at a moment that is made to last."""

    has_standby = True

    @contextlib.contextmanager
    def nothing_committed(self):
        """Has hubs wait in the middle of a transaction."""
        server = self.fleet.primary
        with subprocess.Popen([fleet.POSTGRES / "psql", "-X", "-q", "-d", f"{server.connection()} dbname=fleet"],
                              stdin=subprocess.PIPE, text=True) as other:
            other.stdin.write("begin;lock table data.reading in share mode;\n")
            other.stdin.flush()
            self.wait_until_hubs_wait("wait_event_type = 'Lock'")
            yield

    def wait_until_hubs_wait(self, what):
        wait_until(lambda: self.fleet.ask("select 1 from pg_stat_activity where application_name = 'fleet-hub'"
                                          f" and {what}"), f"a hub waits: {what}")

    def kill_hubs(self):
        for hub in self.fleet.hubs:
            hub.kill()

    def test_hubs_killed_before_their_commit(self):
        self.add_devices(2)
        with self.nothing_committed():
            before = self.fleet.stored()
            self.kill_hubs()
            self.fleet.ask("select pg_terminate_backend(pid) from pg_stat_activity"
                           " where application_name = 'fleet-hub'")
        self.assertEqual(self.fleet.stored(), before)
        for hub in self.fleet.hubs:
            hub.start()
        self.wait_for_each()
        self.assert_whole()

    def test_hub_killed_between_its_commit_and_its_answer(self):
        self.add_devices(2)
        before = self.fleet.stored()
        self.fleet.standby.kill()
        self.wait_until_hubs_wait("wait_event = 'SyncRep'")
        self.kill_hubs()
        self.fleet.standby.start()
        wait_until(lambda: self.fleet.stored() != before, "what nobody has acknowledged is there")
        self.fleet.hubs[0].start()
        wait_until(lambda: self.repeated() > 0, "it comes again")
        self.wait_for_each()
        self.assert_whole()

    def repeated(self):
        with contextlib.suppress(OSError), urllib.request.urlopen(
                f"http://127.0.0.1:{self.fleet.web}/metrics") as page:
            return int(re.search(r"^fleet_hub_sets_repeated_total (\d+)$", page.read().decode(), re.M)[1])
        return 0

    def test_device_killed_between_its_write_and_its_set(self):
        self.add_devices(1)
        device = self.fleet.devices[0]
        self.fleet.broker.kill()
        before = len(device.rows())
        wait_until(lambda: len(device.rows()) > before, "it goes on writing")
        device.kill()
        self.assertGreater(len(device.rows()), len(self.fleet.rows()["device-1"]))
        self.fleet.broker.start()
        self.assert_whole()

    def test_device_killed_between_its_set_and_the_answer(self):
        self.add_devices(1)
        device = self.fleet.devices[0]
        with self.nothing_committed():
            before = self.fleet.stored()
            device.kill()
        wait_until(lambda: self.fleet.stored() != before, "its set is stored")
        device.start()
        self.wait_for_each()
        self.assert_whole()


class StandbyTest(FleetTest):
    has_standby = True

    def test_standby_takes_over_and_the_old_primary_follows_it(self):
        self.add_devices()
        old, new = self.fleet.primary, self.fleet.standby
        for _ in range(ROUNDS // 2):
            self.wait_a_moment()
            old.kill()
            new.promote()
            self.wait_for_each()
            old.start()  # to recover, and to be stopped in good order
            old.end()
            old.follow(new)
            old.start()
            wait_until(lambda: new.ask("select 1 from pg_stat_replication", "postgres"), "the old primary follows")
            new.ask(f"alter system set synchronous_standby_names = '{old.name}'", "postgres")
            new.ask("select pg_reload_conf()", "postgres")
            new.wait_for_standby(old.name)
            old, new = new, old
        self.wait_for_each()
        self.assert_whole()

    def test_old_primary_that_comes_back_by_itself_acknowledges_nothing(self):
        self.add_devices(2)
        old, new = self.fleet.primary, self.fleet.standby
        old.kill()
        new.promote()
        self.wait_for_each()
        old.start()
        self.fleet.hubs[0].kill()  # it would find the old one first
        self.fleet.hubs[0].start()
        time.sleep(3)
        old.kill()
        self.wait_for_each()
        self.assert_whole()

    def test_without_the_standby_nothing_is_acknowledged(self):
        self.add_devices(2)
        self.fleet.standby.kill()
        time.sleep(1)
        before = self.acknowledged()
        time.sleep(3)
        self.assertEqual(self.acknowledged(), before)
        self.fleet.standby.start()
        self.wait_for_each()
        self.assert_whole()

    def acknowledged(self):
        """How many answers the hubs have given."""
        with urllib.request.urlopen(f"http://127.0.0.1:{self.fleet.web}/metrics") as page:
            return re.search(r"^fleet_hub_sets_stored_total (\d+)$", page.read().decode(), re.M)[1]


class DeviceTest(FleetTest):
    def test_clocks_do_not_matter(self):
        self.fleet.add_device("device-1", simulates=0)
        device = self.fleet.devices[0]
        for time_told in "1970-01-01T00:00:00Z", "2038-01-19T03:14:08Z", "2001-01-01T00:00:00Z":
            self.feed(device, f"{time_told} hall 1\n")
        self.assertEqual([row[1] for row in self.fleet.rows()["device-1"]], [0, 2147483648, 978307200])
        self.assert_whole()

    def feed(self, device, lines):
        done = subprocess.run([*device.command, "--until-sent"], input=lines, text=True, capture_output=True,
                              timeout=60, check=True)
        self.assertEqual(done.stderr, "")

    def test_second_device_of_a_name_is_told_and_stores_nothing(self):
        self.add_devices(1)
        first = self.fleet.devices[0]
        first.end()
        first.drain()
        wait_until(lambda: not first.is_running(), "the first has sent everything")
        rows = self.fleet.rows()["device-1"]
        first.file.rename(self.fleet.folder / "first.db")
        first.start()
        wait_until(lambda: "another device has its name" in first.said(), "the second is refused")
        self.assertRegex(first.said(), r"fleet-device: the hub refuses commit \d+: the device went back to 0 \(restored"
                                       r" from a backup\), or another device has its name\n")
        status = self.fleet.tell("status")
        self.assertIn("the device went back to 0 (restored from a backup), or another device has its name", status)
        self.assertEqual(self.fleet.rows()["device-1"], rows)
        first.kill()

    def test_of_two_devices_of_a_name_one_stores(self):
        self.add_devices(1)
        first = self.fleet.devices[0]
        second = self.fleet.own(fleet.Device(self.fleet, "device-1", "--group", "3", "--within", "1", simulates=10))
        second.file = self.fleet.folder / "second.db"
        second.command[second.command.index(str(first.file))] = str(second.file)
        second.start()  # the broker ends the session of one of them, again and again
        wait_until(lambda: "another device has its name" in second.said(), "the second is refused")
        second.kill()
        self.wait_for_each()
        first.end()
        first.drain()
        wait_until(lambda: not first.is_running(), "the first has sent everything")
        self.assertEqual(self.fleet.rows(), {"device-1": first.rows()})

    def test_restored_device_goes_on_once_it_is_admitted(self):
        self.add_devices(1)
        device = self.fleet.devices[0]
        device.end()
        copy = device.file.read_bytes()
        device.start()
        for _ in range(3):  # sets that the copy has not sent
            self.wait_for_each()
        device.end()
        for rest in self.fleet.folder.glob("device-1.db-*"):
            rest.unlink()
        device.file.write_bytes(copy)
        device.start()
        wait_until(lambda: "another device has its name" in device.said(), "it is refused")
        before = self.fleet.ask("select number from fleet.device")
        self.fleet.tell("admit", "device-1")
        device.end()
        device.start()
        wait_until(lambda: self.fleet.ask("select number from fleet.device") != before, "it goes on")

    def test_full_disk_of_a_device_is_told_and_passes(self):
        device = self.fleet.add_device("device-1", "--group", "3", "--within", "1", simulates=50)
        device.start()
        limit = ["prlimit", "--pid", str(device.process.pid)]
        self.wait_for_each()
        fleet.run(*limit, "--fsize=4096:unlimited")
        wait_until(lambda: "cannot store readings" in device.said(), "the device says so")
        fleet.run(*limit, "--fsize=unlimited:unlimited")
        self.wait_for_each()
        self.assert_whole()

    def test_readings_are_removed_once_the_centre_has_them(self):
        device = self.fleet.add_device("device-1", "--group", "1", "--keep", "1", simulates=2)
        self.feed(device, "2001-01-01T00:00:00Z hall 1\n")
        device.start()
        wait_until(lambda: device.rows() and device.rows()[0][0] > 1, "the old one is removed")
        self.wait_for_each()
        device.end()
        device.drain()
        wait_until(lambda: not device.is_running(), "it has sent everything")
        self.assertEqual(self.fleet.rows(), {"device-1": [(1, 978307200, "hall", 1.0, None), *device.rows()]})
        self.assertEqual(self.fleet.ask("select count(*) from fleet.quarantine"), [["0"]])

    def test_setting_reaches_a_device_that_was_away(self):
        self.add_devices(1)
        device = self.fleet.devices[0]
        device.kill()
        self.fleet.tell("set", "device-1", "group", "7")
        self.fleet.tell("set", "device-1", "note", "some text")
        device.start()
        wait_until(lambda: self.fleet.ask("select count(*) from fleet.outgoing where applied_at is not null")
                   == [["2"]], "it has applied both")
        device.end()
        told = fleet.run(fleet.PROGRAMS / "fleet-device", "status", device.file)
        self.assertEqual(told.splitlines()[1:], ["group 7", "note some text"])


class SwarmTest(FleetTest):
    """Many devices of one program."""

    def test_every_row_of_a_swarm_is_stored_once(self):
        told = self.fleet.swarm(devices=300, sets=3, rows=5)
        self.assertRegex(told, r"\A900 sets, 4500 rows of 300 devices in ")
        self.fleet.hubs[0].kill()
        told = self.fleet.swarm(first=301, devices=200, sets=3, rows=5)
        self.assertRegex(told, r"\A600 sets, 3000 rows of 200 devices in ")
        self.assertEqual(self.fleet.ask("select count(*), count(distinct device), min(rows), max(rows), min(sum), max(sum)"
                                        " from (select device, count(*) as rows, sum(id) from data.reading group by 1) a"),
                         [["500", "500", "15", "15", "120", "120"]])
        self.assertEqual(self.fleet.ask("select count(*) from fleet.quarantine"), [["0"]])


class EndTest(unittest.TestCase):
    def test_nothing_is_left_of_a_run_that_is_interrupted(self):
        for number in signal.SIGINT, signal.SIGTERM, signal.SIGHUP:
            with tempfile.TemporaryDirectory() as folder:
                test = subprocess.Popen(
                    [sys.executable, "-B", __file__, "KillTest.test_centre_that_is_away_is_waited_for"],
                    env={**os.environ, "TMPDIR": folder}, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
                wait_until(lambda: list(pathlib.Path(folder).glob("*/device-1.db")), "a device is there")
                test.send_signal(number)
                self.assertNotEqual(test.wait(60), 0)
                self.assertEqual(os.listdir(folder), [])
                self.assertEqual(subprocess.run(["pgrep", "-f", folder], check=False).returncode, 1)

    def test_nothing_is_left_of_a_server_that_was_killed(self):
        with fleet.Fleet() as one:
            one.start_database(has_standby=False)
            one.primary.kill()
            piece = one.primary.shared_memory()
            self.assertIn(piece, self.shared_memory())
        self.assertNotIn(piece, self.shared_memory())

    @staticmethod
    def shared_memory():
        return [line.split()[1] for line in pathlib.Path("/proc/sysvipc/shm").read_text().splitlines()]


class CertificateTest(FleetTest):
    """Whom the broker lets in at all is tried with its configuration; here, that nothing gets through."""

    def assert_not_let_in(self, name, certificate_of):
        device = self.fleet.add_device(name, simulates=20)
        start = device.command.index("--authority")
        device.command[start:start + 6] = [str(part) for part in certificate_of]
        device.start()
        time.sleep(3)
        device.kill()
        self.assertNotIn(name, self.fleet.stored())
        self.fleet.devices.remove(device)

    def test_who_is_not_to_be_let_in_is_not(self):
        self.add_devices(1)
        certificates = self.fleet.certificates
        certificates.of("revoked")
        certificates.make("revoke", "revoked")
        self.fleet.broker.process.send_signal(1)  # it reads the list again
        time.sleep(1)
        others = fleet.Certificates(self.fleet.folder / "others")
        unknown = others.of("device-2")
        unknown[1] = certificates.folder / "authority.crt"  # so that it believes the broker
        self.assert_not_let_in("device-2", unknown)
        self.assert_not_let_in("revoked", certificates.of("revoked"))
        self.assert_not_let_in("device-3", certificates.of("device-1"))
        self.wait_for_each()


if __name__ == "__main__":
    if IS_LONG:
        print(f"SEED={SEED}", flush=True)
    result = unittest.main(exit=False, verbosity=2).result
    failed = len(result.failures) + len(result.errors)
    # With those of the programs that ran before.
    passed = result.testsRun - failed + int(os.environ.get("PASSED", 0))
    failed += int(os.environ.get("FAILED", 0))
    print(f"{passed} passed, {failed} failed")
    sys.exit(failed > 0)
