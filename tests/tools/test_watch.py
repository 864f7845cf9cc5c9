# SPDX-License-Identifier: LGPL-2.1-or-later
"""Verbs that follow what happens, and how they end."""
import json
import os
import select
import signal
import subprocess

from support import SIM, ToolTest

NOTICES = {
    'sdr': '{"service":"SensorDataRepository1","member":"ReadingSet","signature":"sqy","args":[":1.99",1,77]}',
    'sel': '{"service":"SystemEventLog1","member":"SelFull"}',
    'upgrade': '{"service":"Upgrade1","member":"UbootEnvDefaults"}',
}
SERVICES = 'SensorDataRepository1', 'SystemEventLog1', 'Upgrade1'


class Watch(ToolTest):
    def start_watches(self):
        """One of each family, which has shown something."""
        watches = {family: self.start(f'-j {family} watch') for family in NOTICES}
        for family, watch in watches.items():
            while not select.select([watch.stdout], [], [], 0.05)[0]:
                self.sim('emit', NOTICES[family])
        return watches.values()

    def assert_all_end(self, watches, status, text):
        for watch in watches:
            shown, errors = watch.communicate(timeout=60)
            self.assertEqual(watch.returncode, status, errors)
            self.assertIn(text, json.loads(shown.splitlines()[-1])['error']['message'])

    def test_readings_are_shown_as_they_are_set(self):
        self.set_state(sdr={'moving_ms': 20})
        lines = [json.loads(line) for line in self.ctl('--json=pretty sdr watch --count 3').splitlines()]
        self.assertEqual([(line['announced'], line['state']) for line in lines], [(True, 'ok')] * 3)
        rows = []
        self.wait_until(lambda: rows.extend(self.json('sdr list --wait 1')) or any(row['announced'] for row in rows))
        self.assertEqual({(row['announced'], row['state'])
                          for row in rows} | {(False, None)}, {(True, 'ok'), (False, None)})

    def test_notices_of_the_log_are_shown(self):
        self.set_state(sel={'capacity': 2})
        watch = self.start('-j sel watch --count 6')
        while watch.poll() is None:
            for words in 'clear -y', 'add --sensor-type 1', 'add --sensor-type 1':
                self.ctl('sel ' + words)
        lines = [json.loads(line) for line in watch.communicate()[0].splitlines()]
        self.assertEqual({line['notice'] for line in lines}, {'cleared', 'almost-full', 'full'})

    def test_a_signal_ends_it_well(self):
        for watch in self.start_watches():
            watch.terminate()
            self.assertEqual(watch.wait(60), 0)

    def test_it_fails_when_the_service_goes(self):
        watches = self.start_watches()
        for service in SERVICES:
            self.sim('stop', service)
        self.assert_all_end(watches, 1, 'is not on the bus')
        self.ctl('sel watch', status=1, text='is not on the bus')

    def test_it_fails_when_the_bus_goes(self):
        command = 'read pid rest </proc/$PPID/task/$PPID/children; echo $pid $DBUS_SYSTEM_BUS_ADDRESS; exec sleep 600'
        outer = subprocess.Popen([SIM, 'run', '--', 'sh', '-c', command], stdout=subprocess.PIPE,
                                 stderr=subprocess.DEVNULL, text=True)
        self.addCleanup(outer.communicate)
        self.addCleanup(outer.kill)
        daemon, address = outer.stdout.readline().split()
        self.bus = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=address)
        watches = self.start_watches()
        os.kill(int(daemon), signal.SIGKILL)
        self.assert_all_end(watches, 3, 'bus was lost')
