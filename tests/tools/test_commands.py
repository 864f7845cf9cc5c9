# SPDX-License-Identifier: LGPL-2.1-or-later
"""What all families have in common."""
import json

from support import NO_BUS, ToolTest

QUERIES = ('config list', 'config get Firmware.Major', 'upgrade versions', 'upgrade status', 'upgrade flash',
           'hpm1 capabilities', 'hpm1 components', 'hpm1 status', 'hpm1 self-test', 'hpm1 rollback-status',
           'hpm1 properties 1', 'sdr list', 'sdr show 0x1', 'sel list', 'sel info', 'sel alloc', 'raid vd', 'raid pd',
           'raid levels', 'raid vd-info', 'raid min-pd', 'network list', 'network show eth0',
           'network get eth0 IDs.PciVendorId', 'network lldp eth0 on')


class Commands(ToolTest):
    def test_json_is_valid_and_the_same_in_every_style(self):
        for words in QUERIES:
            short, pretty = (self.ctl(f'--json={style} {words}') for style in ('short', 'pretty'))
            self.assertEqual(json.loads(short), json.loads(pretty), words)
            self.assertEqual(short.count('\n'), 1)

    def test_answers_are_named(self):
        for words, text in (('rollback-status', 'Rollback happened: no'), ('self-test', '0x55 (passed)'),
                            ('status', '0x00 (none)'), ('capabilities', 'self-test, automatic-rollback')):
            self.ctl('hpm1 ' + words, text=text)

    def test_no_bus_is_status_3(self):
        for words in QUERIES:
            self.assertIn('message', self.json(words, status=3, env=NO_BUS)['error'], words)
        self.ctl('-y bypass global-reset 1', status=3, text='bdbusctl: ', env=NO_BUS)

    def test_a_change_needs_a_yes(self):
        self.ctl('bypass global-reset 1', status=2)
        self.ctl('--yes bypass global-reset 1')

    def test_wrong_usage_is_status_2_and_says_so(self):
        for words in ('', 'nothing', '--json=xml config list', 'config get', 'config set Generic_Index x',
                      'hpm1 properties 256', '-y bypass global-reset 256', '-y upgrade set-flash fpga 1',
                      '-y upgrade set-version bios 1.x', 'upgrade notify', 'sdr show 65536', 'sdr set-thresholds 1',
                      'sdr set-event 1', 'sdr watch --count 0', 'sel add', 'sel add 00',
                      'sel add --sensor-type 1 ' + '0' * 32, 'raid create', '-y raid delete 256',
                      'raid locate pd blink 1', 'raid locate vd start ' + '1 ' * 65, 'raid vd-info --text ' + 'x' * 17,
                      '-y raid spare add 1 --param1 2', 'network get eth0 TTL', 'network lldp eth0 maybe',
                      '-y authlog add', '-y authlog add 1', '-y authlog add ' + 'ab' * 40, '-y authlog add x1',
                      '-y authlog add 1 2', '-y authlog delete 01', '-y authlog delete 010203', '-y authlog clear 0102',
                      'rstorage gadget halt 1', '-y rstorage gadget stop 1 --flag',
                      'rstorage mount 1 x --password-file -', 'rstorage show 2147483648'):
            self.ctl(words, status=2, text='bdbusctl: ', env=NO_BUS)
