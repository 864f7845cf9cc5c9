#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-2.1-or-later
"""Measure what the library costs and print one table. scripts/bench builds what this runs."""

import argparse
import os
import re
import statistics
import subprocess
import sys
import tempfile
import time
from concurrent.futures import ThreadPoolExecutor
from contextlib import contextmanager
from dataclasses import dataclass, field
from pathlib import Path

import docs
from measure import LIMIT_S, Controller, Simulator, count, count_emulated, run, write_image

# What a budget of 1 leaves to chance: the seeds of sd-bus's hash tables, an allocation that grows.
TOLERANCE = 0.005
# A count that is over its budget is made again, twice at most: the least is what the program needs.
COUNTS = 3


def sel_entries(count):
    """Entries with the IDs from 1 up, for IDs tell where a list has come to."""
    return [[*id.to_bytes(2, 'little'), 2, *bytes(13)] for id in range(1, count + 1)]


# The lists of bdbusctl: the state that has so many items, and two such numbers.
LISTS = {
    'sdr': (lambda count: {'sdr': {'extra_records': count}}, (1000, 10000)),
    'sel': (lambda count: {'sel': {'capacity': 65000, 'entries': sel_entries(count)}}, (1000, 10000)),
    'network': (lambda count: {'network': {'extra_nodes': count}}, (100, 1000)),
}

# Pairs of timed runs.
PAIRS = 9
PAIRS_OF_LISTS = 3

MIB = 1 << 20
IMAGES = {'1': MIB, '16': 16 * MIB, '256': 256 * MIB, 'blocks': 400 * 1530}

PEERS = {'sdbus-cpp': 'sdbus-c++', 'gdbus': 'GDBus', 'libdbus': 'libdbus'}
PEER_ROWS = ('kept-call', 'auth-log', 'property-byte', 'property-bytes', 'bypass')

PROPERTY = ('com.brisemont.Config1', '/com/brisemont/Config1', 'com.brisemont.Config1.Firmware', 'Major')


@dataclass
class Row:
    """A row of the client's own list."""
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
    """A line of the table. Without a bare cost the budget is for the library's cost itself."""
    title: str
    unit: str
    library: float
    bare: float | None = None
    spread: float = 0
    runs: int = 1
    budget: float | None = None
    tolerance: float = 0
    ratio: float | None = None
    peers: dict = field(default_factory=dict)

    def __post_init__(self):
        if self.ratio is None and self.bare:
            self.ratio = self.library / self.bare

    @property
    def verdict(self):
        if not self.budget:
            return 'shown'
        judged = self.library if self.ratio is None else self.ratio
        return 'ok' if judged <= self.budget + self.tolerance else 'over'


class Bench:
    def __init__(self, build):
        self.build = build
        self.client = [build / 'bench/bench-client']

    def rows(self):
        for line in run([*self.client, '--list'], None).stdout.splitlines():
            name, title, budget, few, many, per, service, long_running = line.split('\t')
            yield Row(name, title, float(budget), int(few), int(many), int(per), service.split(), long_running == '1')

    def peer(self, name):
        return self.build / f'bench/bench-{name}'

    def command(self, row, side):
        return [self.peer(side), row.name] if side in PEERS else [*self.client, row.name, side]

    def count_part(self, command, row, environment):
        return count([*command, row.few, row.many], environment)

    # ---- instructions

    def count_once(self, row, side):
        with Controller(self.build, row.service) as environment:
            environment['BENCH_LOCKSTEP'] = '1'
            # What is freed is kept by size, so that what the heap went through before does not count.
            environment['GLIBC_TUNABLES'] = 'glibc.malloc.tcache_count=60000'
            costs = self.count_part(self.command(row, side), row, environment)
        times = (row.many - row.few) * row.per
        return {file: cost / times for file, cost in costs.items()}

    def count_row(self, row):
        counts = {'library': [], 'bare': []}
        for _ in range(COUNTS):
            for side, values in counts.items():
                values.append(sum(self.count_once(row, side).values()))
            least = {side: min(values) for side, values in counts.items()}
            result = Result(row.title, 'instr', least['library'], least['bare'], spread_of(counts), len(counts['bare']),
                            row.budget, TOLERANCE if row.budget == 1 else 0)
            if result.verdict != 'over':
                break
        return result

    def count_row_of_peers(self, row):
        result = self.count_row(row)
        if row.name in PEER_ROWS:
            result.peers = {
                peer: sum(self.count_once(row, peer).values()) / result.bare
                for peer in PEERS if self.peer(peer).exists()
            }
        return result

    def count_own(self):
        row = next(row for row in self.rows() if row.name == 'kept-call')
        costs = self.count_once(row, 'library')
        own = sum(cost for file, cost in costs.items() if 'libbdbus.so' in file)
        return Result("thin call: the library's own", 'instr', own, budget=250)

    def count_whole(self, command):
        with Controller(self.build) as environment:
            return sum(count(command, environment, whole=True).values())

    def count_start(self):
        library, bare = (self.count_whole([self.build / f'bench/bench-start-{side}']) for side in ('library', 'bare'))
        return Result('start of a linked program', 'instr', library, bare, budget=1.25)

    # ---- bytes

    def file_size(self):
        with tempfile.NamedTemporaryFile(prefix='bench-') as stripped:
            run(['strip', '-o', stripped.name, self.build / 'src/libbdbus.so.1'], None)
            return Result('library file, stripped', 'bytes', os.stat(stripped.name).st_size, budget=98304)

    def memory(self, row, service, times):
        with Controller(self.build, service) as environment:
            return int(run([*self.client, row, 'library', 0, times], environment).stdout.split()[1])

    def memory_of_records(self):
        small, large = 1000, 21000
        grown = self.memory('sdr-init-100', [f'records={large}'], 1) - self.memory('sdr-init-100', [f'records={small}'],
                                                                                   1)
        return Result('sensors: memory of a record', 'bytes', grown / (large - small), budget=120)

    def memory_of_image(self):
        beyond = self.memory('image-16', [], 1) - (self.build / 'images/16').stat().st_size
        return Result('image of 16 MiB: memory beyond it', 'bytes', beyond, budget=MIB)

    # ---- times

    def time_row(self, row):
        many = row.few + 5 * (row.many - row.few) if row.few else row.many
        times = (many - row.few) * row.per

        def one(side, environment):
            return int(run([*self.command(row, side), row.few, many], environment).stdout.split()[0]) / times / 1000

        sides = ['library', 'bare']
        if row.name in PEER_ROWS:
            sides += [peer for peer in PEERS if self.peer(peer).exists()]
        return self.pairs(row.title, sides, one, row.service)

    def pairs(self, title, sides, one, service=(), budget=None):
        """Time the sides one after another, so often; the ratios are those of each round."""
        rounds = []
        with Controller(self.build, service) as environment:
            for _ in range(PAIRS):
                rounds.append({side: one(side, environment) for side in sides})
        return paired(title, rounds, budget)

    def programs(self):
        name, path, interface, member = PROPERTY
        arguments = [name, path, interface, member]
        get = 'org.freedesktop.DBus.Properties.Get'
        return {
            'library': [self.build / 'tools/bdbusctl/bdbusctl', 'config', 'get', 'Firmware.Major'],
            'bare': ['busctl', '--system', 'get-property', *arguments],
            'gdbus': [
                'gdbus', 'call', '--system', f'--dest={name}', f'--object-path={path}', f'--method={get}', interface,
                member
            ],
            'libdbus': [
                'dbus-send', '--system', '--print-reply', f'--dest={name}', path, get, f'string:{interface}',
                f'string:{member}'
            ],
        }

    def count_programs(self):
        counts = {side: self.count_whole(command) for side, command in self.programs().items()}
        return Result('bdbusctl, and busctl: a property', 'instr', counts['library'], counts['bare'],
                      peers={side: counts[side] / counts['bare']
                             for side in ('gdbus', 'libdbus')})

    def time_programs(self):
        programs = self.programs()

        def one(side, environment):
            return statistics.median(time_program(programs[side], environment) for _ in range(5))

        return self.pairs('bdbusctl, and busctl: a property', programs, one, budget=0.7)

    def time_list(self, family):
        """What an item costs in a list of bdbusctl, and in its library calls: between a short list and a long."""
        state, sizes = LISTS[family]
        programs = {'bare': [self.build / 'bench/bench-lists', family]}
        programs['library'] = [self.build / 'tools/bdbusctl/bdbusctl', family, 'list']
        rounds = []
        with Simulator(self.build, state(sizes[0])) as short, Simulator(self.build, state(sizes[1])) as long:
            for _ in range(PAIRS_OF_LISTS):
                rounds.append({
                    side: (time_program(command, long) - time_program(command, short)) / (sizes[1] - sizes[0])
                    for side, command in programs.items()
                })
        return paired(f'bdbusctl {family} list, and its calls', rounds, budget=1.2)

    def time_start(self):
        def one(side, environment):
            command = [self.build / f'bench/bench-start-{side}']
            return statistics.median(time_program(command, environment) for _ in range(20))

        return self.pairs('start of a linked program', ['library', 'bare'], one)


class EmulatedBench(Bench):
    """Counts a client for 32-bit ARM under QEMU; the service is the one of this machine."""
    def __init__(self, build, client_build, sysroot):
        super().__init__(build)
        plugin = build / 'bench/bench-qemu-count.so'
        self.client = ['qemu-arm', '-L', sysroot, '-plugin', plugin, client_build / 'bench/bench-client']

    def count_part(self, command, row, environment):
        few, many = (count_emulated([*command, row.few, times], environment) for times in (row.few, row.many))
        return {'': many - few}


def time_program(command, environment):
    """Microseconds of a whole program."""
    began = time.perf_counter()
    subprocess.run([str(part) for part in command], env=environment, check=True, timeout=LIMIT_S,
                   stdout=subprocess.DEVNULL)
    return (time.perf_counter() - began) * 1e6


def paired(title, rounds, budget=None):
    """Of times that were taken one after another in each round: medians, and the median of each round's ratio."""
    ratios = {side: [r[side] / r['bare'] for r in rounds] for side in rounds[0]}
    low, middle, high = statistics.quantiles(ratios['library'])
    peers = {side: statistics.median(values) for side, values in ratios.items() if side in PEERS}
    return Result(title, 'us', statistics.median(r['library'] for r in rounds),
                  statistics.median(r['bare'] for r in rounds), (high - low) / middle, len(rounds), budget,
                  ratio=middle, peers=peers)


def spread_of(counts):
    return max(max(values) / min(values) - 1 for values in counts.values())


def measure_quick(bench, rows):
    """Instructions and bytes alone, two at a time: other work on the machine does not change them."""
    with ThreadPoolExecutor(2) as pool:
        counted = [pool.submit(bench.count_row, row) for row in rows]
        return [one.result() for one in counted]


@contextmanager
def one_processor():
    everywhere = os.sched_getaffinity(0)
    os.sched_setaffinity(0, {min(everywhere)})
    yield
    os.sched_setaffinity(0, everywhere)


def measure_full(bench, rows):
    with ThreadPoolExecutor(2) as pool:
        counted = list(pool.map(bench.count_row_of_peers, rows))
    with one_processor():
        timed = [bench.time_row(row) for row in rows]
    return [result for pair in zip(counted, timed) for result in pair]


def measure_programs(bench):
    with one_processor():
        return [bench.time_start(), bench.count_programs(), bench.time_programs(), *map(bench.time_list, LISTS)]


def number(value, digits=0):
    return '-' if value is None else f'{value:,.{digits}f}'


def cost(value, unit):
    return number(value, 0 if unit != 'us' else 1 if value >= 10 else 3)


def cells(result, peers):
    bare = '-' if result.bare is None else cost(result.bare, result.unit)
    spread = f'{result.spread:.1%}' if result.runs > 1 else '-'
    shown = [result.title, result.unit, cost(result.library, result.unit), bare, spread, str(result.runs)]
    shown += [number(result.ratio, 3), budget_text(result), result.verdict]
    return shown + [number(result.peers.get(peer), 2) for peer in peers]


def budget_text(result):
    if not result.budget:
        return '-'
    if result.ratio is None:
        return number(result.budget)
    return f'{result.budget:.2f}' + (' +0.5%' if result.tolerance else '')


def table(results, peers):
    head = ['case', 'unit', 'library', 'bare sd-bus', 'spread', 'runs', 'ratio', 'budget', 'verdict']
    return [head + [PEERS[peer] for peer in peers], *(cells(result, peers) for result in results)]


def print_table(lines):
    widths = [max(len(line[column]) for line in lines) for column in range(len(lines[0]))]
    for line in lines:
        print('  '.join(
            text.ljust(width) if column < 2 else text.rjust(width)
            for column, (text, width) in enumerate(zip(line, widths))))


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument('build', type=Path)
    parser.add_argument('--quick', action='store_true')
    parser.add_argument('--rows', default='', help='a regular expression for the names of the rows')
    parser.add_argument('--write-docs', action='store_true')
    parser.add_argument('--arm', nargs=2, type=Path, metavar=('BUILD', 'SYSROOT'), help='count a build for ARM')
    options = parser.parse_args()
    bench = EmulatedBench(options.build, *options.arm) if options.arm else Bench(options.build)
    images = options.build / 'images'
    images.mkdir(exist_ok=True)
    for name, length in IMAGES.items():
        if not (images / name).exists() and not (options.quick and name == '256'):
            write_image(images / name, length)

    rows = [row for row in bench.rows() if re.search(options.rows, row.name)]
    if options.quick or options.arm:
        results = measure_quick(bench, [row for row in rows if not row.long_running])
    else:
        results = measure_full(bench, rows)
    if not options.rows and not options.arm:
        results += [
            bench.count_own(),
            bench.count_start(),
            bench.file_size(),
            bench.memory_of_records(),
            bench.memory_of_image()
        ]
    if not options.rows and not options.arm and not options.quick:
        results += measure_programs(bench)
    peers = [peer for peer in PEERS if any(peer in result.peers for result in results)]
    lines = table(results, peers)
    print_table(lines)
    if options.write_docs:
        docs.write(lines, results, {peer: PEERS[peer] for peer in peers})
    return 1 if any(result.verdict == 'over' for result in results) else 0


if __name__ == '__main__':
    sys.exit(main())
