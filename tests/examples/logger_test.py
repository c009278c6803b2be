"""Runs the example program logger, as programs.py says.

What the program prints and stores is compared with what Python makes of the same rows.
"""

import collections
import contextlib
import datetime
import os
import random
import resource
import signal
import sqlite3
import statistics
import time
import unittest
import xml.etree.ElementTree

import programs

DAY = "2009-12-31"
NOON = "2009-12-31T12:00:00Z"
FIRST_VERSION = """
    create table reading (
        id integer primary key not null,
        at integer not null,
        sensor text not null,
        value real not null);
    create index reading_at on reading (at);
    insert into reading values (1, 1262260800, 'hall', 20.5), (2, 1262260801, 'hall', 21.5);
    pragma user_version = 1;
"""


def epoch(text):
    return int(datetime.datetime.fromisoformat(text.replace("Z", "+00:00")).timestamp())


def date_of(seconds):
    return datetime.datetime.fromtimestamp(seconds, datetime.timezone.utc).date().isoformat()


def lines(count, sensor="hall", start=NOON):
    """So many readings, a second apart, with their numbers as values."""
    first = epoch(start)
    return "".join(
        datetime.datetime.fromtimestamp(first + number, datetime.timezone.utc)
        .strftime("%Y-%m-%dT%H:%M:%SZ") + f" {sensor} {number}\n" for number in range(count))


class Test(programs.Test):
    def start(self, *arguments, **options):
        return super().start("logger", *arguments, **options)

    def assert_prints(self, output, *arguments, **options):
        super().assert_ends(self.start(*arguments), 0, output, **options)

    def assert_failure(self, error, *arguments, status=1, **options):
        self.assert_ends(self.start(*arguments), status, "", f"logger: {error}\n", **options)

    def assert_wrong_use(self, error, *arguments):
        self.assert_failure(f"{error} (--help tells more)", *arguments, status=2)

    def readings(self):
        return self.query("select at, sensor, value, note from reading order by id")

    def assert_sound(self):
        self.assertEqual(self.query("pragma integrity_check"), [("ok",)])

    def expected_days(self, rows):
        """What `days` prints of readings."""
        values = collections.defaultdict(list)
        for at, sensor, value, _ in rows:
            values[date_of(at), sensor].append(value)
        return "".join(
            f"{date} {sensor} {len(of):7} {min(of):10.3f} {statistics.fmean(of):10.3f} {max(of):10.3f}\n"
            for (date, sensor), of in sorted(values.items()))


class RecordTest(Test):
    def test_readings_are_stored_in_their_order(self):
        given = (f"{NOON} hall 21.5\n2009-12-31T13:00:00+01:00 cellar -2e1 door open\n"
                 f"{NOON} it's 0\n")
        self.assert_prints("3 stored, 0 lost\n", "record", "a.db", given=given)
        noon = epoch(NOON)
        self.assertEqual(self.readings(), [(noon, "hall", 21.5, None),
                                           (noon, "cellar", -20.0, "door open"),
                                           (noon, "it's", 0.0, None)])
        self.assertEqual(self.query("pragma user_version"), [(2,)])
        self.assertEqual(self.query("pragma journal_mode"), [("wal",)])

    def test_what_is_no_reading_is_told_and_left_out(self):
        wrong = ["", "hall 21.5", "yesterday hall 21.5", f"{NOON} hall", f"{NOON} hall warm"]
        told = "".join(f"logger: left out what is no reading: {line}\n" for line in wrong)
        self.assert_ends(self.start("record", "a.db"), 0, "1 stored, 0 lost\n", told,
                         "\n".join([*wrong, f"{NOON} hall 1"]))

    def test_group_is_committed_when_it_is_full(self):
        with self.start("record", "a.db", "--group", "10", "--within", "1000",
                        "--acknowledge") as program:
            program.stdin.write(lines(25))
            program.stdin.flush()
            self.assertEqual([program.stdout.readline() for _ in range(2)], ["10\n", "20\n"])
            self.assertEqual(len(self.readings()), 20)
            output, errors = program.communicate()
        self.assertEqual((output, errors, program.returncode),
                         ("25\n25 stored, 0 lost\n", "", 0))

    def test_group_is_committed_when_its_time_is_over(self):
        with self.start("record", "a.db", "--within", "1", "--acknowledge") as program:
            program.stdin.write(lines(3))
            program.stdin.flush()
            self.assertEqual(program.stdout.readline(), "3\n")
            program.communicate()

    def test_signal_ends_it_as_the_end_of_the_input_does(self):
        for name in (signal.SIGINT, signal.SIGTERM):
            with self.start("record", "a.db", "--group", "2", "--within", "1000",
                            "--acknowledge") as program:
                program.stdin.write(lines(3))
                program.stdin.flush()
                program.stdout.readline()
                program.send_signal(name)
                self.assertEqual(program.stdout.read(), "3\n3 stored, 0 lost\n")
            self.assertEqual(program.returncode, 0)

    def test_line_that_a_signal_cuts_off_is_no_reading(self):
        with self.start("record", "a.db", "--group", "1", "--acknowledge") as program:
            program.stdin.write(lines(1) + f"{NOON} hall 2")
            program.stdin.flush()
            self.assertEqual(program.stdout.readline(), "1\n")
            program.send_signal(signal.SIGTERM)
            self.assertEqual(program.stdout.read(), "1 stored, 0 lost\n")

    def test_last_line_needs_no_end(self):
        self.assert_prints("1 stored, 0 lost\n", "record", "a.db", given=f"{NOON} hall 2")

    def test_kill_at_any_moment_costs_no_reading_that_was_acknowledged(self):
        generator = random.Random(1)
        stored = 0
        for _ in range(20):
            with self.start("record", "a.db", "--group", "7", "--acknowledge") as program:
                wanted = generator.randrange(5)
                with contextlib.suppress(BrokenPipeError):
                    program.stdin.write(lines(500))
                    program.stdin.flush()
                told = [program.stdout.readline() for _ in range(wanted)]
                time.sleep(generator.random() / 200)
                program.kill()
                told += program.stdout.read().splitlines(keepends=True)
            whole = [line for line in told if line.endswith("\n") and "stored" not in line]
            acknowledged = int(whole[-1]) if whole else 0
            values = [row[2] for row in self.readings()][stored:] \
                if os.path.exists(self.folder / "a.db") and self.has_table() else []
            self.assertEqual(values, list(range(len(values))))
            self.assertGreaterEqual(len(values), acknowledged)
            self.assertIn(len(values) % 7, (0, 500 % 7))
            stored += len(values)
        self.assertGreater(stored, 0)
        self.assert_sound()

    def has_table(self):
        return self.query("select count(*) from sqlite_master where name = 'reading'") == [(1,)]

    def test_full_disk_loses_what_it_says(self):
        self.assert_prints("1000 stored, 0 lost\n", "record", "a.db", given=lines(1000))
        size = os.path.getsize(self.folder / "a.db")
        limits = {"restore_signals": False,
                  "preexec_fn": lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (size, size))}
        with self.start("record", "a.db", **limits) as program:
            output, errors = program.communicate(lines(5000))
        self.assertEqual(program.returncode, 1)
        self.assertIn("logger: cannot store a reading: ", errors)
        self.assertLess(len(errors.splitlines()), 20)
        stored, lost = (int(word) for word in output.split() if word.isdigit())
        self.assertEqual(stored + lost, 5000)
        self.assertEqual(len(self.readings()), 1000 + stored)
        self.assert_sound()

    def test_old_readings_become_statistics(self):
        days = ["2009-12-30", "2009-12-31", "2010-01-01", "2010-01-02"]
        given = "".join(lines(100, start=f"{day}T10:00:00Z") for day in days)
        self.assert_prints("400 stored, 0 lost\n", "record", "a.db", "--keep", "2", given=given)
        self.assertEqual({date_of(row[0]) for row in self.readings()}, set(days[2:]))
        self.assertEqual(self.query("select date from day order by date"),
                         [(day,) for day in days[:2]])
        self.assert_prints("".join(f"{day} hall     100      0.000     49.500     99.000\n"
                                   for day in days), "days", "a.db")


class SimulateTest(Test):
    def setUp(self):
        super().setUp()
        self.assert_prints(f"25920 readings of 1 days from {DAY}\n", "simulate", "a.db", DAY)

    def test_day_is_stored(self):
        rows = self.readings()
        self.assertEqual(len(rows), 3 * 8640)
        self.assertEqual({row[0] for row in rows},
                         set(range(epoch(DAY + "T00:00:00Z"), epoch("2010-01-01T00:00:00Z"), 10)))
        self.assertEqual({row[1] for row in rows}, {"battery", "garden", "hall"})

    def test_days_are_those_of_the_readings(self):
        self.assert_prints("25920 readings of 1 days from 2010-01-01\n", "simulate", "a.db",
                           "2010-01-01")
        expected = self.expected_days(self.readings())
        self.assert_prints(expected, "days", "a.db")
        self.assert_prints("25920 readings removed\n", "tidy", "a.db", "--keep", "1")
        self.assert_prints(expected, "days", "a.db")
        self.assertEqual(len(self.readings()), 25920)

    def test_chart_has_the_mean_of_each_hour(self):
        values = collections.defaultdict(list)
        for at, sensor, value, _ in self.readings():
            if sensor == "garden":
                values[at % 86400 // 3600].append(value)
        means = {hour: statistics.fmean(of) for hour, of in values.items()}
        least, most = min(means.values()), max(means.values())
        bars = {hour: int((mean - least) / (most - least) * 50 + 0.5)
                for hour, mean in means.items()}
        self.assert_prints("".join(f"{hour:02}:00 {means[hour]:9.3f} {'#' * bars[hour]}\n"
                                   for hour in sorted(means)), "chart", "a.db", DAY, "garden")

    def test_chart_is_drawn(self):
        status, output, errors = self.run_program("chart", "a.db", DAY, "garden", "--svg")
        self.assertEqual((errors, status), ("", 0))
        image = xml.etree.ElementTree.fromstring(output)
        self.assertEqual(image.tag, "{http://www.w3.org/2000/svg}svg")
        self.assertIn("garden, 2009-12-31", "".join(image.itertext()))

    def test_what_is_not_there_is_told(self):
        self.assert_failure("a.db: no readings of attic on 2009-12-31", "chart", "a.db", DAY,
                            "attic", status=3)
        self.assert_failure("a.db: no readings of hall on 2010-01-01", "chart", "a.db",
                            "2010-01-01", "hall", status=3)

    def test_stopped_one_stores_no_part_of_a_day(self):
        with self.start("simulate", "a.db", "2010-01-01", "--every", "1") as program:
            time.sleep(0.05)
            program.send_signal(signal.SIGINT)
            _, errors = program.communicate()
        count = self.query("select count(*) from reading")[0][0] - 25920
        self.assertIn((count, program.returncode), ((0, 1), (259200, 0), (0, -signal.SIGINT)))
        self.assertEqual(errors, "logger: a.db: cannot store readings: interrupted\n"
                         if program.returncode == 1 else "")


class VersionTest(Test):
    def test_first_version_is_brought_up_to_date(self):
        self.make(FIRST_VERSION)
        self.assert_prints("1 stored, 0 lost\n", "record", "a.db", given=f"{NOON} hall 1 new\n")
        self.assertEqual(self.readings(), [(1262260800, "hall", 20.5, None),
                                           (1262260801, "hall", 21.5, None),
                                           (epoch(NOON), "hall", 1.0, "new")])
        self.assertEqual(self.query("pragma user_version"), [(2,)])

    def test_file_of_a_newer_program_is_left_alone(self):
        self.make(FIRST_VERSION + "pragma user_version = 3;")
        self.assert_failure("a.db: cannot bring up to date: the file has version 3, the program "
                            "those up to 2", "days", "a.db")

    def test_what_is_no_database_is_left_alone(self):
        self.write("a.db", "This is no database.\n" * 100)
        self.assert_failure("a.db: cannot set up: journal_mode = wal: file is not a database", "days", "a.db")
        self.assert_failure("none.db: cannot open: unable to open database file", "days", "none.db")


class UseTest(Test):
    def test_wrong_use_is_told(self):
        self.assert_wrong_use("A subcommand is required")
        self.assert_wrong_use("DATABASE is required", "days")
        self.assert_wrong_use("DATE: 'today' is no date such as 2009-12-31", "simulate", "a.db",
                              "today")
        self.assert_wrong_use("--group: Value 0 not in range 1 to 1000000", "record", "a.db",
                              "--group", "0")

    def test_help_tells_all_commands(self):
        status, output, errors = self.run_program("--help")
        self.assertEqual((errors, status), ("", 0))
        for command in ("record", "simulate", "days", "tidy", "chart"):
            self.assertRegex(output, rf"\n  {command} ")


if __name__ == "__main__":
    unittest.main()
