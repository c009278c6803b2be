"""How long a day's backlog of some devices takes through one hub and through two, and what a row takes on the
way and at the centre.
"""

import datetime
import re
import socket
import ssl
import subprocess
import time
import urllib.request

import fleet

SWARMS = 1000, 10000, 100000  # devices
DEVICES = 20
CONNECTED = 400
READINGS = 3 * 8640  # of a day: three sensors, every ten seconds


def day():
    """Lines for fleet-device."""
    begin = datetime.datetime(2026, 1, 1)
    return "".join(f"{begin + datetime.timedelta(seconds=number // 3 * 10):%Y-%m-%dT%H:%M:%SZ}"
                   f" {('battery', 'garden', 'hall')[number % 3]} {20 + number % 1000 / 100}\n"
                   for number in range(READINGS))


def fill(one):
    """Devices that have recorded a day while the hubs were away."""
    lines = day()
    for number in range(DEVICES):
        device = one.add_device(f"device-{number + 1}", "--group", "30")
        subprocess.run(device.command, input=lines, text=True, check=True, stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL)


def processor_seconds(program):
    """Of a process and its children."""
    total = 0
    for process in [program.process.pid, *map(int, fleet.run("pgrep", "-P", program.process.pid, "-d", " ").split()
                                              if program.name in ("one", "two") else [])]:
        with open(f"/proc/{process}/stat", encoding="ascii") as file:
            fields = file.read().rpartition(")")[2].split()
        total += int(fields[11]) + int(fields[12])
    return total / 100


def resident(program):
    with open(f"/proc/{program.process.pid}/status", encoding="ascii") as file:
        return int(re.search(r"VmRSS:\s+(\d+)", file.read())[1]) / 1024


def metric(one, name):
    with urllib.request.urlopen(f"http://127.0.0.1:{one.web}/metrics") as page:
        return float(re.search(rf"^{name} (\S+)$", page.read().decode(), re.M)[1])


def drain(hubs, has_standby):
    with fleet.Fleet(hubs=hubs) as one:
        one.start_database(has_standby)
        one.broker.start()
        fill(one)
        for hub in one.hubs:
            hub.start()
        time.sleep(2)
        begin = time.monotonic()
        one.drain(600)
        seconds = time.monotonic() - begin
        rows = DEVICES * READINGS
        assert sum(one.stored().values()) == rows
        print(f"{hubs} hub{'s' * (hubs > 1)}, {'with' if has_standby else 'without'} a standby: {rows} rows of"
              f" {DEVICES} devices in {seconds:.1f} s, {rows / seconds:.0f} a second; processor:"
              f" hubs {sum(map(processor_seconds, one.hubs)):.1f} s, broker {processor_seconds(one.broker):.1f} s,"
              f" memory: hub {resident(one.hubs[0]):.1f} MiB, broker {resident(one.broker):.1f} MiB", flush=True)
        if hubs == 1:
            size = int(one.ask("select pg_total_relation_size('data.reading')")[0][0])
            print(f"a row: {metric(one, 'fleet_hub_received_bytes_total') / rows:.1f} bytes of messages,"
                  f" {size / rows:.1f} bytes in PostgreSQL with its index,"
                  f" {one.devices[0].file.stat().st_size / READINGS:.1f} bytes on the device", flush=True)


def text(words):
    return len(words).to_bytes(2, "big") + words.encode()


def packet(kind, *parts):
    body = b"".join(parts)
    length, rest = b"", len(body)
    while not length or rest:
        length += bytes([rest % 128 | (128 if rest > 127 else 0)])
        rest //= 128
    return bytes([kind]) + length + body


def connect(one, name):
    """A device's connection: in a session that is kept, and with its subscriptions."""
    folder = one.certificates.folder
    context = ssl.create_default_context(cafile=folder / "authority.crt")
    context.load_cert_chain(folder / f"{name}.crt", folder / f"{name}.key")
    connection = context.wrap_socket(socket.create_connection(("localhost", one.broker.port)),
                                     server_hostname="localhost")
    connection.sendall(packet(0x10, text("MQTT"), b"\4\0\0\0", text(name)))
    connection.recv(4)
    connection.sendall(packet(0x82, b"\0\1", text(f"fleet/{name}/ack"), b"\1", text(f"fleet/{name}/settings"), b"\1"))
    connection.recv(6)
    return connection


def connect_many():
    with fleet.Fleet(hubs=1) as one:
        one.broker.start()
        names = [f"device-{number}" for number in range(CONNECTED)]
        for name in names:
            one.certificates.of(name)
        first = connect(one, names[0])
        before = resident(one.broker)
        rest = [connect(one, name) for name in names[1:]]
        each = (resident(one.broker) - before) * 1024 / len(rest)
        print(f"{len(rest)} more connected devices: {each:.1f} KiB of the broker's memory each", flush=True)
        for connection in first, *rest:
            connection.close()


def status_seconds(one):
    begin = time.monotonic()
    one.tell("status")
    return time.monotonic() - begin


def swarm(devices, hubs):
    """Each with three sets of ten rows, all at once."""
    with fleet.Fleet(hubs=hubs) as one:
        one.start()
        before = [resident(program) for program in (one.hubs[0], one.broker)]
        told = one.swarm(devices=devices, sets=3, rows=10).strip()
        assert one.ask("select count(*), count(distinct device) from data.reading") \
            == [[str(30 * devices), str(devices)]]
        after = [resident(program) for program in (one.hubs[0], one.broker)]
        print(f"{hubs} hub{'s' * (hubs > 1)}, with a standby: {told}; processor: hubs"
              f" {sum(map(processor_seconds, one.hubs)):.1f} s, broker {processor_seconds(one.broker):.1f} s, memory:"
              f" hub {before[0]:.1f} to {after[0]:.1f} MiB, broker {before[1]:.1f} to {after[1]:.1f} MiB; status"
              f" {status_seconds(one):.1f} s", flush=True)


if __name__ == "__main__":
    for devices in SWARMS:
        for hubs in 1, 2:
            swarm(devices, hubs)
    connect_many()
    for count, standby in (1, False), (1, True), (2, True):
        drain(count, standby)
