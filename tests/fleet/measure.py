"""How long a day's backlog of some devices takes through one hub and through two, and what a row takes on the
way and at the centre.
"""

import datetime
import re
import subprocess
import time
import urllib.request

import fleet

DEVICES = 20
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


if __name__ == "__main__":
    for count, standby in (1, False), (1, True), (2, True):
        drain(count, standby)
