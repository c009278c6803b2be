"""Fifty devices, two hubs, a broker and a PostgreSQL with its standby, of which one each is killed; at the end it
is shown that every reading of every device is at the centre once.
"""

import hashlib
import sys
import time

import fleet

DEVICES = 50
ON_ARM = 3


class Story:
    def __init__(self):
        self.begin = time.monotonic()

    def tell(self, text):
        print(f"{time.monotonic() - self.begin:5.1f} s  {text}", flush=True)


def checksum(rows):
    return hashlib.sha256(repr(sorted(rows.items())).encode()).hexdigest()


def grow(one, seconds=60):
    """Waits until the hub has stored something new of every device."""
    before = one.stored()
    fleet.wait_until(lambda: all(one.stored()[device.name] > before[device.name] for device in one.devices),
                     "each device's readings arrive", seconds)
    return sum(one.stored().values())


def add_devices(one, story):
    for number in range(DEVICES):
        on_arm = fleet.ARM_PROGRAMS is not None and number < ON_ARM
        one.add_device(f"device-{number + 1}", "--group", "5", "--within", "1", simulates=2, on_arm=on_arm).start()
    fleet.wait_until(lambda: len(one.stored()) == DEVICES, "every device has sent something")
    arm = f", {ON_ARM} of them programs for ARM under an emulator" if fleet.ARM_PROGRAMS else ""
    story.tell(f"{DEVICES} devices send readings{arm}, each with a certificate of its own: "
               f"{sum(one.stored().values())} rows at the centre")


def kill_one_of_each(one, story):
    one.devices[-1].kill()
    one.devices[-1].start()
    story.tell(f"a device was killed, and started again: {grow(one)} rows")
    one.hubs[0].kill()
    story.tell(f"a hub was killed, the other goes on: {grow(one)} rows")
    one.hubs[0].start()
    one.broker.kill()
    one.broker.start()
    story.tell(f"the broker was killed, and started again: {grow(one)} rows")
    one.primary.kill()
    one.standby.promote()
    story.tell(f"the primary was killed, the standby is promoted: {grow(one, 90)} rows")


def change_setting(one, story):
    one.tell("set", "device-1", "group", "2")
    fleet.wait_until(lambda: one.ask("select 1 from fleet.outgoing where applied_at is not null"),
                     "the device has applied it")
    story.tell("a setting that was changed at the centre has reached its device, which says so")


def compare(one, story):
    one.drain()
    story.tell("all devices have sent the rest, and ended")
    on_devices = {device.name: device.rows() for device in one.devices}
    at_centre = one.rows()
    count = sum(map(len, on_devices.values()))
    print(f"\non the devices  {checksum(on_devices)}  {count} readings")
    print(f"at the centre   {checksum(at_centre)}  {sum(map(len, at_centre.values()))} rows\n")
    if at_centre != on_devices:
        sys.exit("They are not the same.")
    print("Every reading of every device is at the centre once.")


def main():
    story = Story()
    with fleet.Fleet() as one:
        one.start()
        story.tell("broker, PostgreSQL with a synchronous standby and two hubs are up")
        add_devices(one, story)
        kill_one_of_each(one, story)
        change_setting(one, story)
        print("\n" + "\n".join(one.tell("status").splitlines()[:6]) + "\n...\n")
        compare(one, story)


if __name__ == "__main__":
    main()
