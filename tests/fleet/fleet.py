"""A fleet on this machine: broker, PostgreSQL with a synchronous standby, hubs and devices, all on loopback in
one folder, and all gone when it ends.

PROGRAMS is the folder with fleet-device and fleet-hub; ARM_PROGRAMS, if it is set, one with a fleet-device for
armhf, which EMULATOR runs.
"""

import atexit
import contextlib
import os
import pathlib
import signal
import socket
import sqlite3
import subprocess
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
PACKAGING = ROOT / "packaging" / "fleet"
PROGRAMS = pathlib.Path(os.environ["PROGRAMS"])
ARM_PROGRAMS = os.environ.get("ARM_PROGRAMS")
EMULATOR = os.environ.get("EMULATOR", "").split()
POSTGRES = max(pathlib.Path("/usr/lib/postgresql").glob("*/bin"))

# Whatever ends this program, it leaves nothing behind.
for ending in signal.SIGTERM, signal.SIGHUP:
    signal.signal(ending, signal.default_int_handler)


def run(*command, limit=120, **options):
    """What a command prints; an error, with what it has said, if it fails."""
    done = subprocess.run([str(part) for part in command], text=True, capture_output=True, timeout=limit, **options)
    if done.returncode != 0:
        raise RuntimeError(f"{command}: {done.stdout}{done.stderr}")
    return done.stdout


# Of the addresses of localhost libmosquitto tries the first alone, which may be that of IPv6.
FAMILY, LOOPBACK = [(found[0], found[4][0]) for found in socket.getaddrinfo("localhost", 0)][0]


def free_port():
    with socket.socket(FAMILY) as one:
        one.bind((LOOPBACK, 0))
        return one.getsockname()[1]


def wait_until(holds, what, seconds=60):
    """What `holds` returns, once that is something."""
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        if result := holds():
            return result
        time.sleep(0.1)
    raise TimeoutError(f"not within {seconds} s: {what}")


class Program:
    """A process that is started, killed and started again; what it says is in a file."""

    def __init__(self, folder, name, *command):
        self.name = name
        self.log = folder / f"{name}.log"
        self.command = [str(part) for part in command]
        self.process = None
        atexit.register(self.finish)

    def start(self, *more, **options):
        with self.log.open("ab") as log:
            self.process = subprocess.Popen([*self.command, *map(str, more)], stderr=log,
                                            **{"stdin": subprocess.DEVNULL, "stdout": log, **options})
        return self

    def is_running(self):
        return self.process is not None and self.process.poll() is None

    def kill(self):
        """As if its power had failed."""
        self.end(signal.SIGKILL)

    def end(self, number=signal.SIGTERM, seconds=60):
        if self.is_running():
            self.process.send_signal(number)
            self.process.wait(seconds)

    def finish(self):
        with contextlib.suppress(subprocess.TimeoutExpired):
            self.end(seconds=10)
        self.kill()

    def said(self):
        return self.log.read_text() if self.log.exists() else ""


class Certificates:
    """Those of a fleet, made as its owner does."""

    def __init__(self, folder):
        self.folder = folder
        folder.mkdir(exist_ok=True)
        self.make("authority")
        self.make("server", "localhost")

    def make(self, *command, days=None):
        environment = {**os.environ, **({"DAYS": str(days)} if days else {})}
        run(PACKAGING / "certificates", *command, cwd=self.folder, env=environment)

    def of(self, name):
        """Options that have a program be this one."""
        if not (self.folder / f"{name}.crt").exists():
            self.make("client", name)
        return ["--authority", self.folder / "authority.crt", "--certificate", self.folder / f"{name}.crt",
                "--key", self.folder / f"{name}.key"]


class Broker(Program):
    def __init__(self, folder, certificates, hubs):
        self.folder = folder / "broker"
        self.folder.mkdir()
        self.port = free_port()
        rights = (PACKAGING / "acl").read_text()
        for_hub = rights[rights.index("user hub-1"):]
        (self.folder / "acl").write_text(
            rights + "".join("\n" + for_hub.replace("hub-1", hub) for hub in hubs if hub != "hub-1")
            + "\nuser swarm\ntopic write fleet/+/set\ntopic read fleet/+/ack\n")
        for name in "authority.crt", "revoked.crl":
            (self.folder / name).symlink_to(certificates.folder / name)
        for kind in "crt", "key":
            (self.folder / f"broker.{kind}").symlink_to(certificates.folder / f"localhost.{kind}")
        configuration = (PACKAGING / "mosquitto.conf").read_text() \
            .replace("/etc/mosquitto/fleet", str(self.folder)).replace("listener 8883",
                                                                       f"listener {self.port} {LOOPBACK}")
        (self.folder / "fleet.conf").write_text(
            f"{configuration}\npersistence true\npersistence_location {self.folder}/\nautosave_interval 1\n")
        super().__init__(folder, "broker", "/usr/sbin/mosquitto", "-c", self.folder / "fleet.conf")

    def start(self):
        super().start()
        wait_until(self.is_open, "the broker is there")
        return self

    def is_open(self):
        with socket.socket(FAMILY) as one:
            return one.connect_ex((LOOPBACK, self.port)) == 0

    def forget(self):
        """Loses its store, as with another disk."""
        for file in self.folder.glob("mosquitto.db*"):
            file.unlink()

    def options(self):
        return ["--broker", "localhost", "--port", self.port]


class Server(Program):
    """A server of PostgreSQL: a primary, or a standby of one."""

    # Two processors have to do for everything, and what is tried is no power cut.
    SETTINGS = """
listen_addresses = ''
fsync = off
dynamic_shared_memory_type = mmap
wal_log_hints = on
wal_keep_size = 512MB
max_connections = 50
shared_buffers = 64MB
"""

    def __init__(self, folder, name):
        self.folder = folder / name
        super().__init__(folder, name, POSTGRES / "postgres", "-D", self.folder, "-k", folder)
        self.sockets = folder
        self.port = free_port()

    def create(self, standby):
        """A primary, whose commits wait for the standby."""
        run(POSTGRES / "initdb", "-D", self.folder, "-U", "fleet", "-A", "trust", "-E", "UTF8", "--locale=C",
            "--no-sync")
        with (self.folder / "postgresql.conf").open("a") as configuration:
            configuration.write(f"{self.SETTINGS}synchronous_standby_names = '{standby}'\n")

    def copy(self, primary):
        """A standby of the primary."""
        run(POSTGRES / "pg_basebackup", "-D", self.folder, "-R", "-c", "fast", "-d",
            f"{primary.connection()} application_name={self.name}")
        with (self.folder / "postgresql.auto.conf").open("a") as configuration:
            configuration.write("synchronous_standby_names = ''\n")

    def follow(self, primary):
        """After it was the primary: a standby of the new one, which has to say first that it is."""
        primary.ask("checkpoint", "postgres")
        run(POSTGRES / "pg_rewind", "-D", self.folder, "--source-server", f"{primary.connection()} dbname=postgres")
        (self.folder / "standby.signal").touch()
        with (self.folder / "postgresql.auto.conf").open("a") as configuration:
            configuration.write(f"primary_conninfo = '{primary.connection()} application_name={self.name}'\n"
                                "synchronous_standby_names = ''\n")

    def start(self):
        super().start("-p", self.port)
        wait_until(lambda: self.is_ready() or not self.is_running(), f"{self.name} is there")
        if not self.is_running():
            raise RuntimeError(self.said())
        return self

    def is_ready(self):
        return subprocess.run([POSTGRES / "pg_isready", "-q", "-U", "fleet", "-h", self.sockets, "-p", str(self.port)],
                              check=False).returncode == 0

    def kill(self):
        """With all its processes, of which the first may not clean up."""
        if not self.is_running():
            return
        children = run("pgrep", "-P", self.process.pid).split()
        super().kill()
        for child in children:
            with contextlib.suppress(ProcessLookupError):
                os.kill(int(child), signal.SIGKILL)

    def end(self, number=signal.SIGINT, seconds=60):
        super().end(number, seconds)

    def finish(self):
        super().finish()
        self.remove_shared_memory()

    def shared_memory(self):
        """The number of a piece by which it knows whether it runs: what was killed has left it."""
        with contextlib.suppress(FileNotFoundError, IndexError):
            return (self.folder / "postmaster.pid").read_text().splitlines()[6].split()[1]
        return None

    def remove_shared_memory(self):
        if piece := self.shared_memory():
            subprocess.run(["ipcrm", "-m", piece], stderr=subprocess.DEVNULL, check=False)

    def promote(self):
        run(POSTGRES / "pg_ctl", "promote", "-w", "-D", self.folder)

    def connection(self):
        return f"host={self.sockets} port={self.port} user=fleet"

    def ask(self, sql, database="fleet"):
        """Rows, each a list of texts."""
        told = run(POSTGRES / "psql", "-X", "-q", "-A", "-t", "-F", "\t", "-c", sql, "-d",
                   f"{self.connection()} dbname={database}")
        return [line.split("\t") for line in told.splitlines()]

    def wait_for_standby(self, name):
        wait_until(lambda: self.ask("select 1 from pg_stat_replication where sync_state = 'sync'"
                                    f" and application_name = '{name}'"), f"{name} follows")


class Device(Program):
    """What it has sent and what not is in its file."""

    def __init__(self, fleet, name, *options, simulates=5, on_arm=False):
        self.simulates = simulates  # readings a second
        self.file = fleet.folder / f"{name}.db"
        program = [*EMULATOR, f"{ARM_PROGRAMS}/fleet-device"] if on_arm else [PROGRAMS / "fleet-device"]
        super().__init__(fleet.folder, name, *program, "run", self.file, "--name", name, *fleet.broker.options(),
                         *fleet.certificates.of(name), *options)

    def start(self, *more, **options):
        return super().start(*(more or ("--simulate", self.simulates)), **options)

    def drain(self):
        """Sends all that there is, and ends."""
        self.start("--until-sent")

    def rows(self):
        with contextlib.closing(sqlite3.connect(self.file)) as file:
            return file.execute("select id, at, sensor, value, note from reading order by id").fetchall()


class Fleet:
    """Everything, started, in a folder of its own."""

    def __init__(self, hubs=2, keep=("reading",)):
        self.stack = contextlib.ExitStack()
        self.folder = pathlib.Path(self.stack.enter_context(tempfile.TemporaryDirectory(prefix="fleet-")))
        self.programs = []
        self.stack.callback(self.end_all)
        self.certificates = Certificates(self.folder / "certificates")
        self.primary = self.own(Server(self.folder, "one"))
        self.standby = self.own(Server(self.folder, "two"))
        names = [f"hub-{number + 1}" for number in range(hubs)]
        self.broker = self.own(Broker(self.folder, self.certificates, names))
        self.keep = keep
        self.web = free_port()
        self.hubs = [self.own(self.make_hub(name)) for name in names]
        self.devices = []

    def __enter__(self):
        return self

    def __exit__(self, *failure):
        self.stack.close()

    def own(self, program):
        self.programs.append(program)
        return program

    def end_all(self):
        for program in reversed(self.programs):
            program.finish()

    def connection(self):
        """Of whichever server can be written to."""
        servers = self.primary, self.standby
        return (f"host={','.join(str(self.folder) for _ in servers)} port={','.join(str(one.port) for one in servers)}"
                " user=fleet dbname=fleet target_session_attrs=read-write connect_timeout=5")

    def make_hub(self, name):
        keep = [option for table in self.keep for option in ("--keep", table)]
        web = ["--web", self.web] if name == "hub-1" else []
        return Program(self.folder, name, PROGRAMS / "fleet-hub", "run", "--connection", self.connection(), "--name",
                       name, *self.broker.options(), *self.certificates.of(name), *keep, *web)

    def start_database(self, has_standby=True):
        self.primary.create("two" if has_standby else "")
        self.primary.start()
        run(POSTGRES / "createdb", "-h", self.folder, "-p", self.primary.port, "-U", "fleet", "fleet",
            env={**os.environ, "PGOPTIONS": "-c synchronous_commit=local"})
        if has_standby:
            self.standby.copy(self.primary)
            self.standby.start()
            self.primary.wait_for_standby("two")

    def start(self, has_standby=True):
        self.start_database(has_standby)
        self.broker.start()
        for hub in self.hubs:
            hub.start()
        return self

    def add_device(self, name, *options, **more):
        device = self.own(Device(self, name, *options, **more))
        self.devices.append(device)
        return device

    def swarm(self, **options):
        """What fleet-swarm prints, once everything that its devices have is stored."""
        command = [PROGRAMS / "fleet-swarm", *self.broker.options(), *self.certificates.of("swarm")]
        for name, value in options.items():
            command += [f"--{name}", value]
        return run(*command, limit=1800)

    def server(self):
        """The one that can be written to."""
        return next(server for server in (self.primary, self.standby)
                    if server.is_running() and server.ask("select pg_is_in_recovery()", "postgres") == [["f"]])

    def ask(self, sql):
        return self.server().ask(sql)

    def tell(self, *command):
        """What fleet-hub prints."""
        return run(PROGRAMS / "fleet-hub", command[0], "--connection", self.connection(), *command[1:])

    def stored(self):
        """How many readings there are of each device."""
        return {name: int(count) for name, count in
                self.ask("select device, count(*) from data.reading group by 1")} \
            if self.ask("select to_regclass('data.reading') is not null") == [["t"]] else {}

    def rows(self):
        """The readings of each device, as the devices have them."""
        rows = {}
        for device, key, at, sensor, value, note in self.ask(
                "select device, id, extract(epoch from at)::bigint, sensor, value, coalesce('=' || note, '')"
                " from data.reading order by device, id"):
            rows.setdefault(device, []).append((int(key), int(at), sensor, float(value), note[1:] if note else None))
        return rows

    def drain(self, seconds=180):
        """Has every device send what it has yet to, and end."""
        for device in self.devices:
            device.end()
        for device in self.devices:
            device.drain()
        for device in self.devices:
            wait_until(lambda: not device.is_running(), f"{device.name} has sent everything", seconds)
