# SPDX-License-Identifier: LGPL-2.1-or-later
"""bdbus-sim run: a command on a private bus, its scenario and its end."""
import json
import os
import signal
import subprocess

from support import CTL, NO_BUS, SIM, ToolTest, run


class Run(ToolTest):
    def test_a_scenario_sets_the_scene(self):
        denied = {'name': 'org.freedesktop.DBus.Error.AccessDenied', 'message': 'no'}
        fault = {'service': 'Config1', 'member': 'Minor', 'count': 0, 'error': denied}
        scenario = {'state': {'config': {'Firmware.Major': 7}}, 'faults': [fault]}
        self.bus = self.start_controller('--scenario', self.file('scene.json', json.dumps(scenario).encode()))
        self.assertEqual(self.ctl('config get Firmware.Major'), '7\n')
        self.ctl('config get Firmware.Minor', status=1)

    def test_a_scenario_that_makes_no_sense_is_refused(self):
        scenario = self.file('bad.json', b'{"state": {"nonsense": 1}}')
        self.assert_status(run(SIM, 'run', '--scenario', scenario, '--', 'true'), 1, 'nonsense')

    def test_the_commands_status_is_handed_out(self):
        for command, status in ((('sh', '-c', 'exit 42'), 42), (('sh', '-c', 'kill -9 $$'), 137),
                                (('/nonexistent/program', ), 127), ((CTL, 'config', 'list'), 0)):
            self.assert_status(run(SIM, 'run', '--', *command), status)
        self.assert_status(run(SIM, 'calls', env=NO_BUS), 3)

    def test_nothing_outlives_it_when_it_is_killed(self):
        command = 'echo $$ $DBUS_SYSTEM_BUS_ADDRESS; exec sleep 60'
        with subprocess.Popen([SIM, 'run', '--', 'sh', '-c', command], stdout=subprocess.PIPE, text=True) as outer:
            process, address = outer.stdout.readline().split()
            reached = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=address)
            self.assert_status(run(SIM, 'calls', env=reached), 0)
            outer.send_signal(signal.SIGKILL)
        self.wait_until(lambda: not os.path.exists(f'/proc/{process}'))
        self.wait_until(lambda: run(SIM, 'calls', env=reached).returncode == 3)
