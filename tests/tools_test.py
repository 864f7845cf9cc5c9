#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-2.1-or-later
"""bdbusctl and bdbus-sim as a person or a script meets them: real programs, a private bus, exit statuses and what is printed.

Usage: tools_test.py BDBUS_SIM BDBUSCTL [unittest options]
"""
import hashlib
import json
import os
import pty
import select
import signal
import struct
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


def hand_made_image(components, device=32):
    """An HPM.1 image from the standard's field table, independent of `image create`: {component: (version, data)}."""
    def checked(data):
        return data + bytes([-sum(data) & 0xFF])
    mask = sum(1 << component for component in components)
    image = checked(b'PICMGFWU' + struct.pack('<BB3sHIBBBBB2s6sH', 0, device, b'\xb3\xa2\0', 0x3412, 0, 0, mask, 0, 0, 0,
                                              b'\1\0', b'\2\0\0\0\0\0', 0))
    for component, (version, data) in components.items():
        image += checked(bytes([2, 1 << component])) + version + b'by hand'.ljust(21, b'\0') + struct.pack('<I', len(data)) + data
    return image + hashlib.md5(image).digest()


class Tools(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)

    def file(self, name, content):
        path = os.path.join(self.folder.name, name)
        with open(path, 'wb') as out:
            out.write(content)
        return path

    def image(self, length=5000, **options):
        version = bytes([2, 1, 0, 0, 0, 0])
        return self.file('image.hpm', hand_made_image({1: (version, version + os.urandom(length))}, **options))

    def assert_status(self, done, status, said=None):
        self.assertEqual(done.returncode, status, done.stdout + done.stderr)
        if said is not None:
            self.assertIn(said, done.stdout + done.stderr)

    def test_a_whole_upgrade_of_an_image_made_by_hand(self):
        done = on_controller('$ctl upgrade run --yes "$1" && $sim received 1 "$2" && $ctl --json=short upgrade versions',
                             self.image(), os.path.join(self.folder.name, 'received'))
        self.assert_status(done, 0)
        with open(os.path.join(self.folder.name, 'image.hpm'), 'rb') as sent, \
                open(os.path.join(self.folder.name, 'received'), 'rb') as received:
            self.assertEqual(received.read(), sent.read()[35 + 34:-16])
        self.assertIn('2.01', next(row for row in json.loads(done.stdout.splitlines()[-1])
                                   if 'BmcFw' in row.values()).values())
        self.assertNotIn('\r', done.stdout)

    def test_an_image_is_made_shown_and_verified(self):
        firmware = self.file('firmware', os.urandom(3000))
        image = os.path.join(self.folder.name, 'made.hpm')
        self.assert_status(run(CTL, 'image', 'create', '-o', image, '--version', '2.10', '-c', f'1={firmware}', '--oem',
                               firmware, '--backup', '1', '-c', f'4={firmware},version=3.7'), 0)
        self.assert_status(run(CTL, 'image', 'verify', image), 0)
        shown = json.loads(run(CTL, '-j', 'image', 'info', image).stdout)
        self.assertIn('3000', json.dumps(shown))
        with open(image, 'rb') as made:
            content = made.read()
        self.assertEqual(hashlib.md5(content[:-16]).digest(), content[-16:])
        self.assertEqual(sum(content[:35 + 3000]) % 256, 0)

    def test_a_damaged_image_is_refused_wherever_it_is_cut(self):
        with open(self.image(length=30), 'rb') as whole:
            content = whole.read()
        for length in list(range(0, 60, 7)) + [len(content) - 17, len(content) - 1]:
            cut = self.file('cut.hpm', content[:length])
            for verb in ('info', 'verify'):
                done = run(CTL, 'image', verb, cut)
                if verb == 'verify' or length < 51:
                    self.assert_status(done, 1, 'bdbusctl: ')
                self.assertIn(done.returncode, (0, 1), done.stderr)

    def test_an_upgrade_that_fails_names_its_stage_and_reason(self):
        done = on_controller('$ctl --json=short upgrade run --yes "$1"', self.image(device=9))
        self.assert_status(done, 1)
        error = json.loads(done.stdout)['error']
        self.assertIn('preparation', error['stage'])
        self.assertIn('device', error['message'].lower())
        self.assert_status(on_controller('$ctl upgrade run --yes --skip-identity "$1"', self.image(device=9)), 0)

        done = on_controller('''$sim fault '{"service":"Upgrade1","member":"UploadFirmwareBlock","skip":1,"completion_code":213}' &&
                             $ctl upgrade run --yes "$1"''', self.image())
        self.assert_status(done, 1, '0xD5')

    def test_nothing_is_written_without_a_yes(self):
        done = on_controller('$ctl upgrade run "$1"; echo "status $?"; $sim calls Upgrade1', self.image())
        self.assert_status(done, 0, 'status 2')
        self.assertNotIn('InitiateUpgradeAction', done.stdout)
        self.assert_status(on_controller('$ctl bypass global-reset 1'), 2)
        self.assert_status(on_controller('$ctl --yes bypass global-reset 1'), 0)

    def test_the_question_and_the_bar_on_a_terminal(self):
        slow = self.file('slow.json', json.dumps({'faults': [
            {'service': 'Upgrade1', 'member': 'UploadFirmwareBlock', 'count': 0, 'delay_ms': 10}]}).encode())
        image = self.image(length=100 * 1530)
        pid, terminal = pty.fork()
        if pid == 0:
            os.execv(SIM, [SIM, 'run', '--scenario', slow, '--', CTL, 'upgrade', 'run', image])
        shown, answered = b'', False
        while select.select([terminal], [], [], 30)[0]:
            try:
                shown += os.read(terminal, 4096)
            except OSError:  # the end, as a terminal has it
                break
            if not answered and b'"yes"' in shown:
                os.write(terminal, b'yes\n')
                answered = True
        else:
            os.kill(pid, signal.SIGTERM)
        self.assertEqual(os.waitpid(pid, 0)[1], 0, shown)
        self.assertTrue(answered)
        self.assertRegex(shown, rb'\r1 BMC FW.*[2-8][0-9] %.*\r')

    def test_status_answers_while_an_upgrade_runs(self):
        done = on_controller('''$sim set '{"target":{"busy_polls":{"finish":2}}}'
            $ctl upgrade run --yes "$1" >/dev/null & run=$!
            until $sim state | grep -q '"in_progress": [1-9]'; do :; done
            $ctl --json=short upgrade status && wait $run''', self.image())
        self.assert_status(done, 0)
        self.assertIn('1', json.dumps(json.loads(done.stdout)))

    def test_json_is_always_valid_and_no_bus_is_status_3(self):
        for words in ('config list', 'config get Firmware.Major', 'upgrade versions', 'upgrade status', 'hpm1 capabilities',
                      'hpm1 components', 'hpm1 status', 'hpm1 self-test', 'hpm1 rollback-status', 'hpm1 properties 1'):
            done = on_controller('for style in short pretty; do $ctl --json=$style $1 || exit; done', words)
            self.assert_status(done, 0)
            first, second = done.stdout.split('\n', 1)
            self.assertEqual(json.loads(first), json.loads(second), words)
            done = run(CTL, '-j', *words.split(), env=NO_BUS)
            self.assert_status(done, 3)
            self.assertIn('message', json.loads(done.stdout)['error'])
        self.assert_status(run(CTL, '-y', 'bypass', 'global-reset', '1', env=NO_BUS), 3, 'bdbusctl: ')

    def test_usage_errors_are_status_2_and_say_so(self):
        for words in ((), ('nothing',), ('config', 'get'), ('config', 'set', 'Generic_Index', 'x', '-y'), ('hpm1', 'properties', '256'),
                      ('bypass', 'global-reset', '256', '-y'), ('--json=xml', 'config', 'list')):
            self.assert_status(run(CTL, *words, env=NO_BUS), 2)

    def test_a_scenario_sets_the_scene(self):
        scenario = self.file('scene.json', json.dumps({
            'state': {'config': {'Firmware.Major': 7}},
            'faults': [{'service': 'Config1', 'member': 'Minor', 'count': 0,
                        'error': {'name': 'org.freedesktop.DBus.Error.AccessDenied', 'message': 'no'}}]}).encode())
        self.assert_status(on_controller('$ctl config get Firmware.Major', scenario=scenario), 0, '7')
        self.assert_status(on_controller('$ctl config get Firmware.Minor', scenario=scenario), 1)
        self.assert_status(on_controller('true', scenario=self.file('bad.json', b'{"state": {"nonsense": 1}}')), 1, 'nonsense')

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
