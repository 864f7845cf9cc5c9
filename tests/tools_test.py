#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-2.1-or-later
"""bdbus-sim as a person or a script meets it: real programs, a private bus, exit statuses and what is printed.

Usage: tools_test.py BDBUS_SIM BDBUSCTL [unittest options]
"""
import json
import os
import signal
import subprocess
import sys
import tempfile
import time
import unittest

SIM, CTL = sys.argv[1:3]
NO_BUS = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS='unix:path=/nonexistent/bus')


def run(*command, **options):
    return subprocess.run(command, capture_output=True, text=True, timeout=60, **options)


def on_controller(script, *arguments, scenario=None):
    """Run a shell script on a simulated controller, with $sim and $ctl."""
    options = ['--scenario', scenario] if scenario else []
    return run(SIM, 'run', *options, '--', 'sh', '-c', script, 'sh', *arguments, env=dict(os.environ, sim=SIM, ctl=CTL),
               stdin=subprocess.DEVNULL)


class Simulator(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)

    def file(self, name, content):
        path = os.path.join(self.folder.name, name)
        with open(path, 'wb') as out:
            out.write(content)
        return path

    def assert_status(self, done, status, said=None):
        self.assertEqual(done.returncode, status, done.stdout + done.stderr)
        if said is not None:
            self.assertIn(said, done.stdout + done.stderr)

    def test_a_scenario_sets_the_scene(self):
        scenario = self.file(
            'scene.json',
            json.dumps({
                'state': {'config': {'Firmware.Major': 7}}, 'faults': [{
                    'service': 'Config1', 'member': 'Minor', 'count': 0, 'error':
                    {'name': 'org.freedesktop.DBus.Error.AccessDenied', 'message': 'no'}
                }]
            }).encode())
        self.assert_status(on_controller('$ctl config get Firmware.Major', scenario=scenario), 0, '7')
        self.assert_status(on_controller('$ctl config get Firmware.Minor', scenario=scenario), 1)
        self.assert_status(on_controller('true', scenario=self.file('bad.json', b'{"state": {"nonsense": 1}}')), 1,
                           'nonsense')

    def test_the_simulator_hands_its_commands_status_out(self):
        self.assert_status(on_controller('exit 42'), 42)
        self.assert_status(on_controller('kill -9 $$'), 137)
        self.assert_status(run(SIM, 'run', '--', '/nonexistent/program'), 127)
        self.assert_status(run(SIM, 'calls', env=NO_BUS), 3)

    def test_nothing_outlives_a_simulator_that_is_killed(self):
        outer = subprocess.Popen([SIM, 'run', '--', 'sh', '-c', 'echo $$ $DBUS_SYSTEM_BUS_ADDRESS; exec sleep 60'],
                                 stdout=subprocess.PIPE, text=True)
        with outer:
            command, address = outer.stdout.readline().split()
            reached = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=address)
            self.assert_status(run(SIM, 'calls', env=reached), 0)
            outer.send_signal(signal.SIGKILL)
        deadline = time.monotonic() + 10
        while os.path.exists(f'/proc/{command}') or run(SIM, 'calls', env=reached).returncode != 3:
            self.assertLess(time.monotonic(), deadline)


if __name__ == '__main__':
    unittest.main(argv=[sys.argv[0], *sys.argv[3:]])
