# SPDX-License-Identifier: LGPL-2.1-or-later
"""bdbus-sim run: a command on a private bus, and its end."""
import os
import signal
import subprocess

from support import CTL, NO_BUS, SIM, ToolTest, run


class Run(ToolTest):
    def test_the_commands_status_is_handed_out(self):
        for status, *command in ((42, 'sh', '-c', 'exit 42'), (137, 'sh', '-c', 'kill -9 $$'),
                                 (127, '/nonexistent/program'), (0, CTL, 'config', 'list')):
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
