# SPDX-License-Identifier: LGPL-2.1-or-later
"""What the tests of both programs share: running them, a simulated controller for each test, files made by hand."""
import functools
import hashlib
import json
import os
import struct
import subprocess
import tempfile
import time
import unittest

SIM, CTL = os.environ['BDBUS_SIM'], os.environ['BDBUSCTL']
NO_BUS = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS='unix:path=/nonexistent/bus')
CONTROLS = set(map(chr, [*range(10), *range(11, 32), *range(0x7F, 0xA0)]))  # all but the line's end


def run(*command, **options):
    return subprocess.run(command, capture_output=True, text=True, timeout=60, **options)


def checked(data):
    return data + bytes([-sum(data) & 0xFF])


def image_by_hand(components, device=32):
    """An HPM.1 image of {component: (version, data)}, independent of `image create`."""
    mask = sum(1 << component for component in components)
    content = checked(b'PICMGFWU' + struct.pack('<BB3sHIBBBBB2s6sH', 0, device, b'\xb3\xa2\0', 0x3412, 0, 0, mask, 0, 0,
                                                0, b'\1\0', b'\2\0\0\0\0\0', 0))
    for component, (version, data) in components.items():
        content += checked(bytes([2, 1 << component])) + version + b'by hand'.ljust(21, b'\0')
        content += struct.pack('<I', len(data)) + data
    return content + hashlib.md5(content).digest()


def sensor_by_hand(reading, name=b'\xc5a\xe9b\x1bc', m=1, b=0, exponents=0, units=0, linearization=0, record_type=1):
    """A full sensor record; `name` begins with its type and length."""
    sdr = bytearray(64)
    sdr[2:4] = 0x51, record_type
    sdr[10], sdr[12], sdr[13], sdr[20], sdr[21] = 3, 2, 1, units, 4  # scanned voltage in V, threshold events
    sdr[23], sdr[24], sdr[25], sdr[26], sdr[27] = linearization, m & 0xFF, m >> 2 & 0xC0, b & 0xFF, b >> 2 & 0xC0
    sdr[29], sdr[31], sdr[47:47 + len(name)] = exponents, reading, name
    return bytes(sdr[:64])


class ToolTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name

    def path(self, name):
        return os.path.join(self.folder, name)

    def file(self, name, content):
        with open(self.path(name), 'wb') as out:
            out.write(content)
        return self.path(name)

    @functools.cached_property
    def bus(self):
        """The environment of programs on this test's controller."""
        return self.start_controller()

    def start_controller(self, *options):
        command = ('sh', '-c', 'echo $DBUS_SYSTEM_BUS_ADDRESS; exec cat')
        process = subprocess.Popen([SIM, 'run', *options, '--', *command], stdin=subprocess.PIPE,
                                   stdout=subprocess.PIPE, text=True)
        self.addCleanup(process.communicate)  # the end of its input is the end of cat
        return dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=process.stdout.readline().strip())

    def assert_status(self, done, status, text=''):
        self.assertEqual(done.returncode, status, done.stdout + done.stderr)
        self.assertIn(text, done.stdout + done.stderr)

    def ctl(self, words, *arguments, status=0, text='', **options):
        """What bdbusctl prints; it must end with the status, and the text must be among its output and errors."""
        options = {'env': None, 'input': ''} | options
        options['env'] = options['env'] or self.bus
        done = run(CTL, *words.split(), *arguments, **options)
        self.assert_status(done, status, text)
        return done.stdout

    def json(self, words, *arguments, **options):
        return json.loads(self.ctl('-j ' + words, *arguments, **options))

    def start(self, words, *arguments):
        process = subprocess.Popen([CTL, *words.split(), *arguments], env=self.bus, text=True, stdin=subprocess.DEVNULL,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.addCleanup(process.communicate)
        self.addCleanup(process.kill)
        return process

    def wait_until(self, condition):
        deadline = time.monotonic() + 60
        while not condition():
            self.assertLess(time.monotonic(), deadline)

    def sim(self, *command):
        done = run(SIM, *command, env=self.bus)
        self.assert_status(done, 0)
        return done.stdout

    def fault(self, service, member, **fields):
        self.sim('fault', json.dumps({'service': service, 'member': member, **fields}))

    def set_state(self, **state):
        self.sim('set', json.dumps(state))

    def state(self):
        return json.loads(self.sim('state'))

    def calls(self, service):
        return [(call['member'], call['args']) for call in json.loads(self.sim('calls', service))]
