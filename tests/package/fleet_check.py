"""Checks what the package of the fleet brings besides its programs: certificates, the configuration
of the broker and of the database, units. recipes_check.py runs it."""

import pathlib
import re
import signal
import socket
import subprocess
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
FLEET = ROOT / "packaging" / "fleet"


def run(*command, **options):
    return subprocess.run(command, text=True, capture_output=True, timeout=60, **options)


def free_port():
    with socket.socket() as one:
        one.bind(("localhost", 0))
        return one.getsockname()[1]


class FleetBroker(unittest.TestCase):
    """mosquitto with the configuration and the rights of the package, and who is let in."""

    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.folder = pathlib.Path(folder.name)
        cls.make_certificates()
        cls.port = free_port()
        configuration = (FLEET / "mosquitto.conf").read_text() \
            .replace("/etc/mosquitto/fleet", folder.name).replace("8883", str(cls.port))
        # As root it would become a user who cannot read the folder.
        owner = run("id", "-un").stdout.strip()
        (cls.folder / "fleet.conf").write_text(f"{configuration}\nuser {owner}\n")
        cls.broker = subprocess.Popen(["/usr/sbin/mosquitto", "-c", cls.folder / "fleet.conf"],
                                      stderr=subprocess.PIPE, text=True)
        cls.addClassCleanup(cls.stop)
        cls.wait_for(" running")

    @classmethod
    def make_certificates(cls):
        rights = (FLEET / "acl").read_text()
        hub = rights[rights.index("user hub-1"):]
        (cls.folder / "acl").write_text(rights + hub.replace("hub-1", "hub-2"))
        late = cls.folder / "late"
        late.write_text((FLEET / "certificates").read_text()
                        .replace('-days "$days"', "-enddate 20200101000000Z"))
        late.chmod(0o755)
        (cls.folder / "others").mkdir()
        for folder, commands in (".", ("authority", "server localhost", "client hub-1",
                                       "client hub-2", "client device-1", "client device-2",
                                       "client device-3", "client device-4", "revoke device-3")), \
                                ("others", ("authority", "client device-1")):
            for command in commands:
                cls.certify(command, folder=folder)
        cls.certify("client expired", late)
        for kind in "crt", "key":
            (cls.folder / f"broker.{kind}").symlink_to(f"localhost.{kind}")

    @classmethod
    def certify(cls, command, script=FLEET / "certificates", folder="."):
        done = run(script, *command.split(), cwd=cls.folder / folder)
        if (done.returncode, done.stdout, done.stderr) != (0, "", ""):
            raise RuntimeError(f"{command}: {done.stdout}{done.stderr}")

    @classmethod
    def wait_for(cls, words):
        for line in cls.broker.stderr:
            if words in line:
                return
        raise RuntimeError(f"mosquitto has ended: {cls.broker.wait()}")

    @classmethod
    def stop(cls):
        cls.broker.terminate()
        cls.broker.communicate()

    def command(self, program, name, *arguments):
        return [program, "-h", "localhost", "-p", str(self.port), "-V", "5", "-q", "1",
                "--cafile", self.folder / "authority.crt", "--cert", self.folder / f"{name}.crt",
                "--key", self.folder / f"{name}.key", *arguments]

    def publish(self, name, topic):
        return run(*self.command("mosquitto_pub", name, "-t", topic, "-m", "some"))

    def assert_published(self, name, topic):
        done = self.publish(name, topic)
        self.assertEqual((done.returncode, done.stderr), (0, ""))

    def assert_not_published(self, name, topic):
        self.assertIn("Not authorized", self.publish(name, topic).stderr, topic)

    def assert_refused(self, name):
        self.assertNotEqual(self.publish(name, "fleet/device-1/set").returncode, 0)

    def listen(self, name, topic):
        """Waits for one message, once the broker knows."""
        listener = subprocess.Popen(
            ["stdbuf", "-oL", *self.command("mosquitto_sub", name, "-t", topic, "-C", "1", "-W", "20",
                                            "-F", "got %t", "-d")], stdout=subprocess.PIPE, text=True)
        for line in listener.stdout:
            if line.startswith("Subscribed"):
                return listener
        raise RuntimeError(f"{name} could not subscribe to {topic}")

    def test_device_has_its_own_topics_only(self):
        for topic in "set", "applied", "state":
            self.assert_published("device-1", f"fleet/device-1/{topic}")
            self.assert_not_published("device-1", f"fleet/device-2/{topic}")
        for topic in "fleet/device-1/ack", "fleet/device-1/settings", "fleet/hub-1/set", "other":
            self.assert_not_published("device-1", topic)

    def test_hub_answers_every_device(self):
        for topic in "fleet/device-1/ack", "fleet/device-2/settings":
            self.assert_published("hub-1", topic)
        for topic in "fleet/device-1/set", "other":
            self.assert_not_published("hub-1", topic)

    def test_messages_reach_whom_they_are_for(self):
        listeners = {"hub-1": self.listen("hub-1", "$share/hubs/fleet/+/set"),
                     "device-1": self.listen("device-1", "#"),
                     "device-2": self.listen("device-2", "fleet/+/ack")}
        self.assert_published("hub-2", "fleet/device-2/ack")
        self.assert_published("hub-2", "fleet/device-1/ack")
        self.assert_published("device-4", "fleet/device-4/set")
        said = {name: re.findall("^got (.*)", listener.communicate()[0], re.M)
                for name, listener in listeners.items()}
        self.assertEqual(said, {"hub-1": ["fleet/device-4/set"], "device-1": ["fleet/device-1/ack"],
                                "device-2": ["fleet/device-2/ack"]})

    def test_nobody_can_end_the_session_of_another(self):
        listener = self.listen("device-2", "fleet/device-2/ack")
        done = run(*self.command("mosquitto_pub", "device-1", "-i", "device-2", "-t",
                                 "fleet/device-1/set", "-m", "some"))
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.assert_published("hub-2", "fleet/device-2/ack")
        self.assertIn("got fleet/device-2/ack", listener.communicate()[0].splitlines())

    def test_revoked_device_is_refused_after_a_reload(self):
        self.certify("client device-5")
        self.assert_published("device-5", "fleet/device-5/set")
        self.certify("revoke device-5")
        self.broker.send_signal(signal.SIGHUP)
        self.wait_for("Reloading config")
        self.assert_refused("device-5")
        self.assert_published("device-1", "fleet/device-1/set")

    def test_unknown_expired_and_revoked_certificates_are_let_in_nowhere(self):
        for name in "others/device-1", "expired", "device-3", "localhost":
            with self.subTest(name):
                self.assert_refused(name)

    def test_without_a_certificate_nobody_is_let_in(self):
        done = run("mosquitto_pub", "-h", "localhost", "-p", str(self.port), "--cafile",
                   self.folder / "authority.crt", "-u", "hub-1", "-t", "fleet/device-1/ack", "-m", "some")
        self.assertNotEqual(done.returncode, 0)


class FleetDatabase(unittest.TestCase):
    SCRIPT = """
        set session authorization fleet_hub;
        create schema data;
        create table data.reading (device text, value real);
        insert into data.reading values ('device-1', 21.5);
        set session authorization fleet_reader;
        select * from data.reading;
        insert into data.reading values ('device-1', 0);
        create schema other;
        create table public.other ();
    """

    def test_hub_makes_tables_that_readers_can_only_read(self):
        with tempfile.NamedTemporaryFile("w", suffix=".sql") as script:
            script.write(self.SCRIPT)
            script.flush()
            done = run("pg_virtualenv", "sh", "-c", 'psql -qv ON_ERROR_STOP=1 -f "$0" && '
                       'psql -qtA -d fleet -f "$1"', FLEET / "database.sql", script.name)
        self.assertEqual(done.stdout.splitlines()[1:-1], ["device-1|21.5"])
        self.assertEqual(re.findall("ERROR:  .*", done.stderr), [
            "ERROR:  permission denied for table reading",
            "ERROR:  permission denied for database fleet",
            "ERROR:  permission denied for schema public"])


class FleetUnits(unittest.TestCase):
    UNITS = sorted(path.name for path in FLEET.glob("fleet-*.s*"))

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        for name in self.UNITS:
            text = re.sub("/usr/bin/fleet-[a-z]+", "/usr/bin/true", (FLEET / name).read_text())
            (self.folder / name).write_text(text)

    def test_systemd_finds_nothing_wrong(self):
        self.assertEqual(self.UNITS,
                         ["fleet-device.service", "fleet-device.socket", "fleet-hub.service"])
        done = run("systemd-analyze", "verify", "--man=no", *self.UNITS, cwd=self.folder)
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "", ""))

    def test_may_do_little(self):
        for name in self.UNITS:
            if name.endswith(".service"):
                done = run("systemd-analyze", "security", "--offline=yes", "--threshold=15", name,
                           cwd=self.folder)
                self.assertEqual(done.returncode, 0, done.stdout)

    def test_have_the_settings_that_they_name(self):
        for name in "device", "hub":
            used = re.findall(r"\$\{?([A-Z]+)", (FLEET / f"fleet-{name}.service").read_text())
            given = re.findall(r"^([A-Z]+)=", (FLEET / f"{name}.env").read_text(), re.M)
            self.assertEqual(used, given)
