# SPDX-License-Identifier: LGPL-2.1-or-later
"""The event log: read, written, cleared, and what stands in the way of that."""
import json

from support import ToolTest


class EventLog(ToolTest):
    def test_entries_are_decoded(self):
        event = '--sensor-type 8 --sensor 0xf2 --offset 3 --deasserted --time 0x20000000 --data2 7 --generator 0x1234'
        before = self.json('sel list')
        self.assertEqual(self.json('sel add ' + event)['id'], 21)
        self.ctl('sel add 0000 e5 00112233445566778899aabbcc')
        rows = self.json('sel list')
        self.assertEqual(rows[:20], before)
        fields = ('time', 'timestamp', 'sensor_type_name', 'event', 'direction', 'data_hex')
        for row, *expected in (
            (0, None, 4, 'event logging', 'log cleared', 'asserted', '02ffff'),
            (9, '2026-01-01T07:16:00Z', 1767251760, 'temperature', 'upper non-critical going high', 'deasserted',
             '574c4e'),
            (16, '2026-01-01T08:57:00Z', 1767257820, None, 'OEM record 0xc0', None, '010500000000'),
            (20, '1987-01-05T18:48:32Z', 0x20000000, 'power supply', 'input lost', 'deasserted', '0307ff'),
            (21, None, None, None, 'OEM record 0xe5', None, '00112233445566778899aabbcc'),
        ):
            self.assertEqual([rows[row][field] for field in fields], expected)
        self.assertEqual(rows[20]['entry_hex'], '15000200000020' + '3412' + '04' + '08f2ef' + '0307ff')

    def test_it_is_cleared(self):
        self.ctl('sel clear', status=2)
        self.assertEqual((self.json('sel clear --yes'), self.json('sel list')), ({'erased': True}, []))
        self.fault('SystemEventLog1', 'ClearSel', skip=1, completion_code=129)
        self.ctl('sel clear --yes', status=1, text='is being erased')

    def test_what_cannot_be_read_to_its_end_is_shown_so_far(self):
        for fault, text in (({'reply': {'signature': 'yqay', 'values': [0, 2, [9, 0]]}}, 'circle'),
                            ({'completion_code': 197}, '0xc5'), ({'reply': {'signature': '', 'values': []}}, 'parse')):
            for options in '-j', '':
                self.sim('reset')
                self.fault('SystemEventLog1', 'GetSelEntry', skip=2, count=0, **fault)
                shown = self.ctl(f'{options} sel list', status=1, text=text)
                if options:
                    self.assertEqual([row['id'] for row in json.loads(shown)['entries']][:2], [1, 2])
                else:
                    self.assertIn('power supply', shown)
