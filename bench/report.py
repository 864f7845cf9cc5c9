#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-2.1-or-later
"""Measure every row of the benchmarks and print one table. scripts/bench builds what this runs."""

import argparse
import hashlib
import os
import re
import subprocess
import sys
import tempfile
from collections import Counter
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from pathlib import Path

# What is left of chance in an instruction count: the seeds of sd-bus's hash tables, say.
TOLERANCE = 0.005
# A row that is over is counted again so often; the least count is what the program needs.
ATTEMPTS = int(os.environ.get('BENCH_ATTEMPTS', 3))

MIB = 1 << 20
IMAGES = {'1': MIB, '16': 16 * MIB, 'blocks': 400 * 1530}

LOCKSTEP = 'libbench-lockstep'

# A run that takes longer has hung.
LIMIT_S = 300

BUS_CONFIG = """<busconfig>
  <listen>unix:path={socket}</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
"""


@dataclass
class Row:
    name: str
    title: str
    budget: float
    few: int
    many: int
    per: int
    service: list
    long_running: bool


@dataclass
class Result:
    title: str
    unit: str
    library: float
    bare: float
    spread: float
    runs: int
    budget: float
    tolerance: float = 0

    @property
    def ratio(self):
        return self.library / self.bare

    @property
    def verdict(self):
        if not self.budget:
            return 'shown'
        return 'ok' if self.ratio <= self.budget + self.tolerance else 'over'


def write_image(path, length):
    """An HPM.1 image: a header, one upload record of so many bytes for component 1, the digest of both."""
    header = bytearray(34)
    header[:8] = b'PICMGFWU'
    header[20] = 0x02
    header.append(-sum(header) & 0xFF)
    record = bytes([2, 0x02, 0xFC]) + bytes(27) + length.to_bytes(4, 'little')
    image = bytes(header) + record + bytes(range(256)) * (length // 256) + bytes(length % 256)
    path.write_bytes(image + hashlib.md5(image).digest())


def write_images(directory, sizes):
    directory.mkdir(exist_ok=True)
    for name, length in sizes.items():
        if not Path(directory, name).exists():
            write_image(Path(directory, name), length)


class Controller:
    """A bus of its own with the service on it, for one run of the client."""
    def __init__(self, build, arguments):
        self.build = build
        self.arguments = arguments
        self.processes = []

    def __enter__(self):
        self.directory = tempfile.TemporaryDirectory(prefix='bench-')
        socket = Path(self.directory.name, 'bus')
        config = Path(self.directory.name, 'bus.conf')
        config.write_text(BUS_CONFIG.format(socket=socket))
        self.environment = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=f'unix:path={socket}', LD_BIND_NOW='1',
                                BENCH_IMAGES=str(self.build / 'images'))
        self.start(['dbus-daemon', f'--config-file={config}', '--nofork', '--print-address'])
        self.start([self.build / 'bench/bench-service', *self.arguments])
        return self.environment

    def start(self, command):
        log = Path(self.directory.name, 'log')
        with log.open('a') as errors:
            process = subprocess.Popen(command, env=self.environment, stdout=subprocess.PIPE, stderr=errors)
        self.processes.append(process)
        if not process.stdout.readline():
            raise RuntimeError(f'{command[0]} does not start: {log.read_text()}')

    def __exit__(self, *_):
        for process in reversed(self.processes):
            process.terminate()
            process.wait()
            process.stdout.close()
        self.directory.cleanup()


def parse_costs(profile):
    """Sum up a profile's own costs by object file, in callgrind's format."""
    names = {}
    costs = Counter()
    inclusive = False
    current = ''
    for line in profile.splitlines():
        if match := re.match(r'ob=\((\d+)\)(?: (.*))?', line):
            current = names.setdefault(match[1], match[2])
        elif match := re.match(r'cob=\((\d+)\) (.*)', line):
            names.setdefault(match[1], match[2])
        elif line.startswith('calls='):
            inclusive = True
        elif match := re.match(r'[+*-]?\d* ?(\d+)$', line):
            if not inclusive:
                costs[current] += int(match[1])
            inclusive = False
    return costs


class Callgrind:
    """Counts instructions in user space, all threads' together, by Valgrind's callgrind."""
    def __init__(self, build):
        self.build = build

    def run(self, command, service=()):
        """The counts between one call of measured_part() and the next, by the file that they are made in."""
        with Controller(self.build, service) as environment, tempfile.TemporaryDirectory() as directory:
            environment['BENCH_LOCKSTEP'] = '1'
            result = subprocess.run([
                'valgrind', '--tool=callgrind', '--dump-before=measured_part', f'--callgrind-out-file={directory}/out',
                *map(str, command)
            ], env=environment, capture_output=True, text=True, timeout=LIMIT_S)
            if result.returncode:
                raise RuntimeError(f'{command}: {result.stderr}')
            return parse_costs(Path(directory, 'out.2').read_text())

    def slope(self, row, side):
        client = [self.build / 'bench/bench-client', row.name, side, row.few, row.many]
        costs = self.run(client, row.service)
        counted = sum(cost for file, cost in costs.items() if LOCKSTEP not in file)
        return counted / (row.many - row.few) / row.per

    def measure(self, row):
        counts = {'library': [], 'bare': []}
        for _ in range(ATTEMPTS):
            for side, values in counts.items():
                values.append(self.slope(row, side))
            result = self.result(row, counts)
            if result.verdict != 'over':
                break
        return result

    @staticmethod
    def result(row, counts):
        least = {side: min(values) for side, values in counts.items()}
        spread = max(max(values) / least[side] - 1 for side, values in counts.items())
        return Result(row.title, 'instr', least['library'], least['bare'], spread, len(counts['bare']), row.budget,
                      TOLERANCE if row.budget == 1 else 0)


def read_rows(client):
    lines = subprocess.run([client, '--list'], check=True, capture_output=True, text=True).stdout.splitlines()
    for line in lines:
        name, title, budget, few, many, per, service, long_running = line.split('\t')
        yield Row(name, title, float(budget), int(few), int(many), int(per), service.split(), long_running == '1')


def print_table(results):
    print(
        f'{"case":34} {"":6} {"library":>12} {"bare sd-bus":>12} {"spread":>7} {"runs":>4} {"ratio":>7} {"budget":>7}')
    for r in results:
        budget = f'{r.budget:7.3g}' if r.budget else f'{"-":>7}'
        print(f'{r.title:34} {r.unit:6} {r.library:12,.0f} {r.bare:12,.0f} {r.spread:7.2%} {r.runs:4} {r.ratio:7.4f} '
              f'{budget} {r.verdict}')


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument('build', type=Path)
    parser.add_argument('--quick', action='store_true')
    parser.add_argument('--rows', default='', help='a regular expression for the names of the rows')
    parser.add_argument('--write-docs', action='store_true')
    options = parser.parse_args()

    rows = [row for row in read_rows(options.build / 'bench/bench-client') if re.search(options.rows, row.name)]
    rows = [row for row in rows if not (options.quick and row.long_running)]
    write_images(options.build / 'images', IMAGES)
    counter = Callgrind(options.build)
    with ThreadPoolExecutor(2) as pool:
        results = list(pool.map(counter.measure, rows))
    print_table(results)
    return 1 if any(result.verdict == 'over' for result in results) else 0


if __name__ == '__main__':
    sys.exit(main())
