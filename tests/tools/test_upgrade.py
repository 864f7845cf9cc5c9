# SPDX-License-Identifier: LGPL-2.1-or-later
"""Whole upgrades, what is seen of them meanwhile, and what the upgrade service can be told."""
import json
import os
import pathlib
import pty
import re
import select
import signal

from support import CTL, SIM, ToolTest, image_by_hand

VERSION = bytes([2, 1, 0, 0, 0, 0])
UPLOAD = ['UploadFirmwareBlock', 'UploadFirmwareBlock', 'FinishFirmwareUpload']  # of 3000 bytes


class Upgrade(ToolTest):
    def image(self, length=5000, **header):
        self.firmware = VERSION + os.urandom(length)
        return self.file('image.hpm', image_by_hand({1: (VERSION, self.firmware)}, **header))

    def image_of_two(self):
        self.firmware = os.urandom(3000)
        firmware, image = self.file('firmware', self.firmware), self.path('two.hpm')
        self.ctl('-q image create --backup 1,3 --prepare 1,3', '-c', f'1={firmware}', '-c', f'3={firmware}', '--oem',
                 firmware, '-o', image)
        return image

    def received(self, component):
        self.sim('received', str(component), self.path('received'))
        return pathlib.Path(self.path('received')).read_bytes()

    def written(self):
        """What changes the target; the actions as components and kind."""
        members = ('InitiateUpgradeAction', 'ActivateFirmware', *UPLOAD)
        return [
            args[1:] if member == members[0] else member for member, args in self.calls('Upgrade1') if member in members
        ]

    def test_an_image_made_by_hand_is_written_and_runs(self):
        shown = self.ctl('upgrade run --yes', self.image())
        self.assertEqual(self.received(1), self.firmware)
        running = {row['component']: row['version'] for row in self.json('upgrade versions')}
        self.assertEqual(running['BmcFw'], '2.01')
        self.assertNotIn('\r', shown)

    def test_a_failure_names_its_stage_and_reason(self):
        error = self.json('upgrade run --yes', self.image(device=9), status=1)['error']
        self.assertEqual((error['stage'], error['reason']), ('preparation', 'Invalid device ID'))
        self.ctl('upgrade run --yes --skip-identity', self.image(device=9))
        self.fault('Upgrade1', 'UploadFirmwareBlock', skip=1, completion_code=213)
        self.ctl('upgrade run --yes', self.image(), status=1, text='0xD5')

    def test_a_rollback_is_a_failure_with_its_reasons_alone(self):
        self.set_state(target={'rollback_status': 2})
        self.fault('Upgrade1', 'ActivateFirmware', completion_code=213)
        failed = self.json('-v upgrade run --yes', self.image(), status=1, text='Getting rollback status...')
        self.assertEqual(failed['error']['reason'],
                         'FW activation fail, completion code 0xD5; Rollback occurred on component mask: 0x02')

    def test_lines_of_the_log_that_belie_their_priority_are_known(self):
        root = pathlib.Path(__file__).parents[2]
        known = re.findall(r'\{"(.+?)", (true|false)\}', (root / 'tools/bdbusctl/frame/capture.cpp').read_text())
        sources = ''.join(path.read_text() for path in (root / 'src').rglob('*.cpp'))
        lines = re.findall(r'syslog\(LOG_(\w+), "(%s(?= fail \(return %d\), last)|)(.*?)\\n"(?:,\s*"(\w+)")?', sources)
        self.assertEqual(len(lines), sources.count('syslog('))
        belying = []
        for priority, _, text, name in lines:
            fault = not text.endswith('...') if priority == 'ERR' else re.match('(?!No ).*(error|fail|occurred)', text)
            if bool(fault) != (priority == 'ERR'):
                belying.append((name + text, bool(fault)))
        self.assertEqual(len(belying), len(known))
        for text, fault in belying:
            self.assertEqual([value for beginning, value in known if text.startswith(beginning)], [str(fault).lower()],
                             text)

    def test_nothing_is_written_without_a_yes(self):
        self.ctl('upgrade run', self.image(), status=2)
        self.assertEqual(self.written(), [])

    def test_the_question_and_the_bar_on_a_terminal(self):
        slow = {'service': 'Upgrade1', 'member': 'UploadFirmwareBlock', 'count': 0, 'delay_ms': 10}
        scenario = self.file('slow.json', json.dumps({'faults': [slow]}).encode())
        image = self.image(length=100 * 1530)
        try:
            pid, terminal = pty.fork()
        except OSError as error:
            self.skipTest(f'there are no terminals here: {error}')
        if pid == 0:
            os.execv(SIM, [SIM, 'run', '--scenario', scenario, '--', CTL, 'upgrade', 'run', image])
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

    def test_its_status_is_there_while_it_runs(self):
        self.set_state(target={'busy_polls': {'finish': 2}})
        upgrade = self.start('-q upgrade run --yes', self.image())
        self.wait_until(lambda: self.json('upgrade status')['component_name'] == 'BMC FW')
        upgrade.communicate(timeout=60)
        self.assertEqual((upgrade.returncode, self.json('upgrade status')['in_progress']), (0, False))

    def test_the_images_actions_are_carried_out_in_order(self):
        self.ctl('-q upgrade run --yes', self.image_of_two())
        self.assertEqual(self.received(3), self.firmware)
        self.assertEqual(self.written(), [[10, 0], [10, 1], [2, 2], *UPLOAD, [8, 2], *UPLOAD, 'ActivateFirmware'])

    def test_no_further_component_is_written_after_an_interruption(self):
        self.set_state(target={'busy_polls': {'finish': 1000000}})
        upgrade = self.start('-j upgrade run --yes', self.image_of_two())
        self.wait_until(lambda: UPLOAD[-1] in self.written())
        upgrade.terminate()
        document, _ = upgrade.communicate(timeout=60)
        self.assertEqual(upgrade.returncode, 1)
        self.assertIn('was aborted on the target', json.loads(document)['error']['message'])
        self.assertEqual(self.written(), [[10, 0], [10, 1], [2, 2], *UPLOAD])

    def test_its_notices_are_seen_beside_it(self):
        watch = self.start('-j upgrade watch')
        while not select.select([watch.stdout], [], [], 0.05)[0]:
            self.sim('emit', '{"service":"Upgrade1","member":"UbootEnvDefaults"}')
        self.ctl('-q upgrade run --yes', self.image())
        self.sim('emit', '{"service":"Upgrade1","member":"BiosUpdateFail"}')
        notices = []
        while ('BiosUpdateFail', None) not in notices:
            line = json.loads(watch.stdout.readline())
            notices.append((line['notice'], line['version']))
        watch.terminate()
        self.assertEqual(watch.wait(60), 0)
        self.assertEqual([notice for notice in notices if notice[0] != 'UbootEnvDefaults'],
                         [('BmcSignVerifyPass', None), ('BmcUpdateSucceed', None), ('BmcVersion', '2.01'),
                          ('BmcChange', None), ('BmcReset', None), ('BiosUpdateFail', None)])

    def test_flashes_versions_and_modes_reach_the_service(self):
        self.ctl('upgrade set-flash bios 1', status=2, text='add --yes')
        for words, result in (('set-flash bios 1', 0), ('set-flash bmc 9', 204), ('set-version nvram 4.12.00beef', 0),
                              ('factory-mode 7', 0)):
            self.assertEqual(self.json('--yes upgrade ' + words), {'result': result}, words)
        self.assertEqual(self.json('upgrade flash'),
                         [{'flash': 'bmc', 'selected': 0}, {'flash': 'bios', 'selected': 1}])
        self.ctl('upgrade versions', text='4.12.00beef00')
        self.assertEqual(self.state()['upgrade']['factory_mode'], 7)

    def test_notices_reach_the_service(self):
        for notice in ('sensors-ready', 'fpga-change', 'bios-change', 'nvram-change'):
            self.assertEqual(self.json('upgrade notify ' + notice), {'sent': notice})
        self.assertEqual(set(self.state()['upgrade']['notices'].values()), {1})
