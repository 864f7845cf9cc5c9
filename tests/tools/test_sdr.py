# SPDX-License-Identifier: LGPL-2.1-or-later
"""Sensors: decoded from their records, changed, added and deleted."""
from support import CONTROLS, NO_BUS, ToolTest, sensor_by_hand

NAME = 'aéb?c'  # of a record made by hand
RECORDS = {  # reading and unit, or None and the text of the raw one; then the name
    sensor_by_hand(119, m=8, exponents=0xD0): (0.952, 'V', NAME),
    sensor_by_hand(2, m=-300, b=5, exponents=0xF2): (-10, 'V', NAME),
    sensor_by_hand(5, m=1, b=-512, exponents=0x1E): (-1.2, 'V', NAME),
    sensor_by_hand(0xF0, units=0x80, m=2): (-32, 'V', NAME),
    sensor_by_hand(0xF0, units=0x40): (-15, 'V', NAME),
    sensor_by_hand(50, units=0x01): (50, '% V', NAME),
    sensor_by_hand(7, units=0x18): (7, 'V/s', NAME),
    sensor_by_hand(4, linearization=7): (0.25, 'V', NAME),
    sensor_by_hand(16, linearization=10): (4, 'V', NAME),
    sensor_by_hand(0, linearization=7): (None, 'V', NAME),  # 1/0
    sensor_by_hand(9, linearization=0x70): (None, 'V', NAME),
    sensor_by_hand(9, units=0xC0): (None, 'V', NAME),
    sensor_by_hand(9, record_type=0xC0): (None, None, ''),
    sensor_by_hand(1, name=b'\x84\x29\xdc\xa6'): (1, 'V', 'IPMI'),
    sensor_by_hand(1, name=b'\x46\x12\xab\xc9'): (1, 'V', '12 -.9'),
    sensor_by_hand(1, name=b'\xdf' + b'x' * 40): (1, 'V', 'x' * 16),
    sensor_by_hand(1, name=b'\x9f' + b'\xff' * 40): (1, 'V', '_' * 21),
    b'\xff' * 64: (None, None, ''),
}
CHANGES = (  # what is said, what is sent, and what is shown then
    ('set-reading 1 44.4', 'SetReading', [1, 84], 'state', 'upper critical'),
    ('set-reading 1 -10', 'SetReading', [1, 30], 'state', 'lower non-recoverable'),
    ('set-reading 1 --raw 0x51', 'SetReading', [1, 0x51], 'reading', 41),
    ('set-reading 1 20', 'SetReading', [1, 60], 'announced', True),
    ('set-hysteresis 54 0.12 0.06', 'SetHysteresis', [54, 2, 1], 'hysteresis_positive', 0.12),
    ('set-event 1 --flags 0', 'SetEvent', [1, 0, 0x7A95, 0x7A95], 'enable_flags', 0),
    ('set-event 1 --status --assertions 0x80', 'SetEventStatus', [1, 0, 0x80, 0], 'status_assertions_names',
     ['upper non-critical going high']),
    ('delete 1', 'DeleteSdr', [1], 'name', 'Inlet Temp'),
)


class Sensors(ToolTest):
    def test_records_are_decoded_whatever_they_hold(self):
        added = [self.json('sdr add', self.file('sensor.sdr', sdr))['id'] for sdr in RECORDS]
        listed = {row['id']: row for row in self.json('sdr list')}
        self.assertEqual(len(listed), 117 + len(RECORDS))
        for identifier, (sdr, expected) in zip(added, RECORDS.items()):
            row = listed[identifier]
            self.assertEqual((row['reading'], row['unit'], row['name']), expected, sdr.hex())
            self.assertEqual((row['reading_raw'], row['announced'], row['state']), (sdr[31], False, None))
        self.assertEqual(self.json('sdr show 130')['record_type'], 0xC0)
        self.assertEqual(self.json('sdr show 135')['sdr_hex'], '8700' + 'ff' * 62)
        self.assertFalse(set(self.ctl('sdr show 135') + self.ctl('sdr list')) & CONTROLS)

    def test_nominal_readings_are_explained(self):
        remark = 'nominal ones until the service announces others'
        row = '54 +12V voltage 12.06 V 11.40 11.04 10.80 12.60 12.96 13.20 -'
        self.assertIn(row, ' '.join(self.ctl('sdr list', text=remark).split()))
        self.ctl('sdr show 54', text=remark)
        self.assertNotIn(remark, self.ctl('-q sdr show 54'))

    def test_a_record_has_64_bytes(self):
        for length in 0, 63, 65:
            self.ctl('sdr add -', input='x' * length, status=1, text='64 bytes', env=NO_BUS)

    def test_one_is_changed(self):
        for words, member, args, field, value in CHANGES:
            with self.subTest(words):
                self.sim('reset')
                self.assertEqual(self.json('--yes sdr ' + words)[field], value)
                self.assertEqual([sent for called, sent in self.calls('SensorDataRepository1') if called == member],
                                 [args])

    def test_a_threshold_that_is_set_counts_from_then_on(self):
        shown = self.json('sdr set-thresholds 3 --upper-critical 86 --lower-noncritical 4')
        self.assertEqual((shown['lower_noncritical'], shown['upper_critical'], shown['lower_critical']), (4, 86, None))
        sent = next(args for member, args in self.calls('SensorDataRepository1') if member == 'SetThresholds')
        self.assertEqual(sent[1]['hex'], '390400005056' + '5a')

    def test_what_cannot_be_done_is_a_failure(self):
        for words, status, text in (('show 999', 1, 'no such sensor'), ('set-reading 1 216', 2, 'VALUE: '),
                                    ('delete 1', 2, '--yes')):
            self.ctl('sdr ' + words, status=status, text=text)
        self.fault('SensorDataRepository1', 'GetSdr', skip=2, error={'name': 'com.brisemont.Busy', 'message': 'busy'})
        self.assertEqual([row['id'] for row in self.json('sdr list', status=1, text='busy')['sensors']], [1, 2])
