# SPDX-License-Identifier: LGPL-2.1-or-later
"""How one run is measured: on a bus of its own, by instructions or by time."""

import hashlib
import json
import os
import re
import subprocess
import tempfile
from collections import Counter
from pathlib import Path

# A run that takes longer has hung.
LIMIT_S = 300

# Keeps the client's reads in step, which is no part of the client.
LOCKSTEP = 'libbench-lockstep'

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


def write_image(path, length):
    """An HPM.1 image: a header, one upload record of so many bytes for component 1, the digest of both."""
    header = bytearray(34)
    header[:8] = b'PICMGFWU'
    header[20] = 0x02
    header.append(-sum(header) & 0xFF)
    record = bytes([2, 0x02, 0xFC]) + bytes(27) + length.to_bytes(4, 'little')
    image = bytes(header) + record + bytes(range(256)) * (length // 256) + bytes(length % 256)
    path.write_bytes(image + hashlib.md5(image).digest())


class Controller:
    """A bus of its own with the service on it, and the environment of a client."""
    def __init__(self, build, arguments=()):
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


class Simulator:
    """A simulated controller that starts with this state, and the environment of a client."""
    def __init__(self, build, state):
        self.command = [build / 'tools/bdbus-sim/bdbus-sim', 'run']
        self.state = state

    def __enter__(self):
        with tempfile.NamedTemporaryFile('w', suffix='.json') as scenario:
            json.dump({'state': self.state}, scenario)
            scenario.flush()
            command = [
                *self.command, '--scenario', scenario.name, '--', 'sh', '-c',
                'echo "$DBUS_SYSTEM_BUS_ADDRESS"; read -r end'
            ]
            self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
            return dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=self.process.stdout.readline().strip())

    def __exit__(self, *_):
        self.process.communicate('\n', timeout=LIMIT_S)


def run(command, environment):
    result = subprocess.run([str(part) for part in command], env=environment, capture_output=True, text=True,
                            timeout=LIMIT_S)
    if result.returncode:
        raise RuntimeError(f'{command}: {result.stdout}{result.stderr}')
    return result


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
    del costs[next((name for name in costs if LOCKSTEP in name), '')]
    return costs


def count(command, environment, whole=False):
    """The instructions in user space of a program's measured part or of the whole, all threads' together, by object."""
    with tempfile.TemporaryDirectory(prefix='bench-') as directory:
        run([
            'valgrind', '--tool=callgrind', '--dump-before=measured_part', f'--callgrind-out-file={directory}/out',
            *command
        ], environment)
        return parse_costs(Path(directory, 'out' if whole else 'out.2').read_text())


def count_emulated(command, environment):
    """The instructions of a whole program under the emulator with its plug-in, which the command begins with."""
    return int(re.search(r'executed (\d+)', run(command, environment).stderr)[1])
