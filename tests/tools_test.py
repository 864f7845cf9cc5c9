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


def hand_made_sensor(reading, name=b'\xc5a\xe9b\x1bc', m=1, b=0, exponents=0, units=0, linearization=0, record_type=1):
    """A full sensor record from the standard's field table; `name` begins with its type and length."""
    sdr = bytearray(64)
    sdr[2:4] = 0x51, record_type
    sdr[10], sdr[12], sdr[13], sdr[20], sdr[21] = 3, 2, 1, units, 4  # scanned voltage in V, threshold events
    sdr[23], sdr[24], sdr[25], sdr[26], sdr[27] = linearization, m & 0xFF, m >> 2 & 0xC0, b & 0xFF, b >> 2 & 0xC0
    sdr[29], sdr[31], sdr[47:47 + len(name)] = exponents, reading, name
    return bytes(sdr[:64])


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
        try:
            pid, terminal = pty.fork()
        except OSError as error:
            self.skipTest(f'there are no terminals here: {error}')
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

    def test_an_upgrade_that_is_interrupted_writes_no_further_component(self):
        firmware, received = self.file('firmware', os.urandom(3000)), os.path.join(self.folder.name, 'received')
        done = on_controller('''$ctl -q image create -o "$1.hpm" --backup 1,3 --prepare 1,3 -c "1=$1" -c "3=$1" --oem "$1"
            $ctl -qy upgrade run "$1.hpm" && $sim received 3 "$2" || exit
            $sim calls; $sim clear-calls; $sim set '{"target":{"busy_polls":{"finish":1000000}}}'
            $ctl -jy upgrade run "$1.hpm" --force & run=$!
            until $sim calls Upgrade1 | grep -q FinishFirmwareUpload; do :; done
            kill -TERM $run; wait $run; echo $?; $sim calls''', firmware, received)
        self.assert_status(done, 0)
        with open(firmware, 'rb') as sent, open(received, 'rb') as got:
            self.assertEqual(got.read(), sent.read())
        calls, rest = done.stdout.split('\n]\n', 1)
        document, status, rest = rest.split('\n', 2)
        self.assertIn('was aborted on the target', json.loads(document)['error']['message'])
        self.assertEqual(status, '1')

        def written(calls):
            return [call['args'][1:] if call['member'] == 'InitiateUpgradeAction' else call['member'] for call in json.loads(calls)
                    if call['member'] in ('InitiateUpgradeAction', 'UploadFirmwareBlock', 'FinishFirmwareUpload', 'ActivateFirmware')]
        upload = ['UploadFirmwareBlock', 'UploadFirmwareBlock', 'FinishFirmwareUpload']
        self.assertEqual(written(calls + ']'), [[10, 0], [10, 1], [2, 2], *upload, [8, 2], *upload, 'ActivateFirmware'])
        self.assertEqual(written(rest), [[10, 0], [10, 1], [2, 2], *upload])

    def test_drives_are_made_shown_located_and_deleted(self):
        done = on_controller("""
            $ctl -j raid create -y --param1 1 --size 100 --text 'boot "1"' --option9 7 267 268
            $ctl -j raid vd-info --text 'boot "1"'; $ctl -j raid max-size --param1 1 267 268; $ctl -j raid vd --brief
            $ctl -j raid locate pd start 257=9 258; $ctl -j raid locate vd start 3=4; $ctl -j raid locate pd stop 258
            $ctl -j raid spare add 257 -y; $ctl -j raid spare remove 265 --dedicated -y; $ctl -j raid unconfigured
            $ctl -j raid oob-state --param -1 --text other; $ctl -j raid groups; $ctl -j raid spares
            $sim state | tr -d ' \n'; echo; $ctl -j raid delete -y 0 3; $ctl -j raid clear -y; $ctl -j raid vd""")
        (created, info, room, drives, *located, in_use, removed, free, oob, groups, spares, state, deleted, cleared,
         none) = [json.loads(line) for line in done.stdout.splitlines()]
        self.assertEqual([created, *located, removed, deleted, cleared], [{'answer': 0}] * 7)
        self.assertEqual((info['size'], info['param1'], info['option9'], info['pd_ids']), (100, 1, 7, [267, 268]))
        self.assertEqual(room, {'max_size': 3814697 - 100, 'status': 0})
        self.assertEqual([drive['id'] for drive in drives['drives']], [0, 1, 2, 3])
        self.assertNotEqual(in_use['answer'], 0)
        self.assertEqual([drive['id'] for drive in free['drives']], [265])
        self.assertNotEqual(oob['status'], 0)
        self.assertEqual([row['column3'] for row in groups['groups']], [0, 1, 2, 3])
        self.assertEqual([row['id'] for row in spares['drives']], [266])
        raid = state['raid']
        self.assertEqual(raid['virtual_drives']['3']['locate'], 4)
        self.assertEqual([raid['physical_drives'][drive].get('locate') for drive in ('257', '258')], [9, None])
        self.assertEqual(none, {'count': 0, 'status': 0, 'drives': []})

        done = on_controller("""$ctl raid clear; echo $?; $ctl raid create 267; echo $?
            $sim fault '{"service":"RAIDMgmt","member":"GetDriveGroupList","truncate":3}'; $ctl -j raid groups; echo $?
            $sim fault '{"service":"RAIDMgmt","member":"GetMinPdNeeded",
                         "error":{"name":"a.b","message":"\\u001b[2J\\"\\n"}}'; $ctl -j raid min-pd; echo $?; $sim calls""")
        said = done.stdout.splitlines()
        self.assertEqual(said[:2] + said[3:6:2], ['2', '2', '1', '1'])
        self.assertIn('array item', json.loads(said[2])['error']['reason'])
        self.assertNotIn('\x1b', done.stdout + done.stderr)
        self.assertIn('[2J"', json.loads(said[4])['error']['message'])
        self.assertNotIn('ClearConfiguration', done.stdout)
        for words in (('create',), ('delete', '256', '-y'), ('locate', 'pd', 'blink', '1'), ('vd-info', '--text', 'x' * 17),
                      ('spare', 'add', '1', '--param1', '2', '-y'), ('locate', 'vd', 'start', *map(str, range(65)))):
            self.assert_status(run(CTL, 'raid', *words, env=NO_BUS), 2, 'bdbusctl: ')

    def test_the_notices_of_an_upgrade_are_seen_beside_it(self):
        seen = os.path.join(self.folder.name, 'seen')
        done = on_controller('''$ctl -j upgrade watch >"$2" & watch=$!
            until $sim emit '{"service":"Upgrade1","member":"UbootEnvDefaults"}' && [ -s "$2" ]; do sleep 0.05; done
            $ctl -q --yes upgrade run "$1" && $sim emit '{"service":"Upgrade1","member":"BiosUpdateFail"}' || exit
            until grep -q BiosUpdateFail "$2"; do sleep 0.05; done; kill -TERM $watch; wait $watch''', self.image(), seen)
        self.assert_status(done, 0)
        with open(seen) as lines:
            notices = [(line['notice'], line['version']) for line in map(json.loads, lines)]
        self.assertEqual([notice for notice in notices if notice[0] != 'UbootEnvDefaults'],
                         [('BmcSignVerifyPass', None), ('BmcUpdateSucceed', None), ('BmcVersion', '2.01'), ('BmcChange', None),
                          ('BmcReset', None), ('BiosUpdateFail', None)])

    def test_flashes_versions_and_modes_are_told_and_kept(self):
        done = on_controller('''$ctl upgrade set-flash bios 1; $ctl -jy upgrade set-flash bios 1; $ctl -j upgrade flash
            $ctl -jy upgrade set-flash bmc 9; $ctl -jy upgrade set-version nvram 4.12.00beef; $ctl -jy upgrade factory-mode 7
            for notice in sensors-ready fpga-change bios-change nvram-change; do $ctl -j upgrade notify $notice || exit; done
            $ctl upgrade versions; $sim state''')
        self.assert_status(done, 0, 'add --yes')
        *answers, rest = done.stdout.split('\n', 9)
        self.assertEqual([json.loads(answer) for answer in answers],
                         [{'result': 0}, [{'flash': 'bmc', 'selected': 0}, {'flash': 'bios', 'selected': 1}], {'result': 204},
                          {'result': 0}, {'result': 0}] + [{'sent': name} for name in
                                                           ('sensors-ready', 'fpga-change', 'bios-change', 'nvram-change')])
        self.assertIn('4.12.00beef00', rest)
        state = json.loads(rest[rest.index('{'):])['upgrade']
        self.assertEqual((state['factory_mode'], set(state['notices'].values())), (7, {1}))

    def test_json_is_always_valid_and_no_bus_is_status_3(self):
        for words in ('config list', 'config get Firmware.Major', 'upgrade versions', 'upgrade status', 'hpm1 capabilities',
                      'hpm1 components', 'hpm1 status', 'hpm1 self-test', 'hpm1 rollback-status', 'hpm1 properties 1',
                      'sdr list', 'sdr show 0x1', 'sel list', 'sel info', 'sel alloc', 'raid vd', 'raid pd', 'raid levels',
                      'raid vd-info', 'raid min-pd', 'network list', 'network show eth0', 'network get eth0 IDs.PciVendorId',
                      'network lldp eth0 on', 'upgrade flash'):
            done = on_controller('for style in short pretty; do $ctl --json=$style $1 || exit; done', words)
            self.assert_status(done, 0)
            first, second = done.stdout.split('\n', 1)
            self.assertEqual(json.loads(first), json.loads(second), words)
            done = run(CTL, '-j', *words.split(), env=NO_BUS)
            self.assert_status(done, 3)
            self.assertIn('message', json.loads(done.stdout)['error'])
        self.assert_status(run(CTL, '-y', 'bypass', 'global-reset', '1', env=NO_BUS), 3, 'bdbusctl: ')

    def test_network_nodes_and_what_their_neighbors_say(self):
        done = on_controller("""$sim set '{"network": {"nodes": {"eth1": {"LLDP.Neighbor":
            {"SysName": "evil\\u001b[2J\\n\\u009b2J", "PortIDSubtype": 9}}}}}'
            $ctl network list && $ctl network show eth1 && $ctl network get eth1 LLDP.Neighbor.SysName &&
            $ctl network lldp eth0 off && $ctl network hostname lab-3 && $sim state | grep hostname &&
            $ctl network list --json=short && $ctl network show eth1 --json=short""")
        self.assert_status(done, 0)
        self.assertFalse(set(done.stdout) & set('\x1b\x9b'))
        *shown, listed, one = done.stdout.splitlines()
        self.assertEqual(json.loads(one), json.loads(listed)[1])
        self.assertEqual(json.loads(one)['sys_name'], 'evil\x1b[2J\n\x9b2J')
        self.assertEqual([node['lldp_enabled'] for node in json.loads(listed)], [False, True, False, False])
        for line in ('eth2 down off  yes       14e4:165f 14e4:1990 -', 'Port ID type:     9', 'off', 'lab-3',
                     '    "hostname": "lab-3",'):
            self.assertTrue(any(line in given for given in shown), line)
        for words, status in (('show eth9', 1), ('get eth9 Status.LinkStatus', 1), ('lldp eth9 on', 1), ('get eth0 TTL', 2),
                              ('get eth0 LLDP.Neighbor.TTL --type u', 1), ('lldp eth0 maybe', 2)):
            self.assert_status(on_controller(f'$ctl network {words}'), status, 'bdbusctl: ')

    def test_usage_errors_are_status_2_and_say_so(self):
        for words in ((), ('nothing',), ('config', 'get'), ('config', 'set', 'Generic_Index', 'x', '-y'), ('hpm1', 'properties', '256'),
                      ('bypass', 'global-reset', '256', '-y'), ('--json=xml', 'config', 'list'), ('sdr', 'show', '65536'), ('sdr', 'set-thresholds', '1'), ('sdr', 'set-event', '1'),
                      ('sdr', 'watch', '--count', '0'), ('upgrade', 'set-flash', 'fpga', '1', '-y'), ('upgrade', 'set-version', 'bios', '1.x', '-y'), ('upgrade', 'notify'), ('sel', 'add'), ('sel', 'add', '00'), ('sel', 'add', '--sensor-type', '1', '0' * 32)):
            self.assert_status(run(CTL, *words, env=NO_BUS), 2)

    def test_sensors_are_decoded_whatever_their_records_hold(self):
        records = {  # reading and unit, or None and the text of the raw one; then the name
            hand_made_sensor(119, m=8, exponents=0xD0): (0.952, 'V', 'aéb?c'),
            hand_made_sensor(2, m=-300, b=5, exponents=0xF2): (-10, 'V', 'aéb?c'),
            hand_made_sensor(5, m=1, b=-512, exponents=0x1E): (-1.2, 'V', 'aéb?c'),
            hand_made_sensor(0xF0, units=0x80, m=2): (-32, 'V', 'aéb?c'),
            hand_made_sensor(0xF0, units=0x40): (-15, 'V', 'aéb?c'),
            hand_made_sensor(50, units=0x01): (50, '% V', 'aéb?c'),
            hand_made_sensor(7, units=0x18): (7, 'V/s', 'aéb?c'),
            hand_made_sensor(4, linearization=7): (0.25, 'V', 'aéb?c'),
            hand_made_sensor(16, linearization=10): (4, 'V', 'aéb?c'),
            hand_made_sensor(0, linearization=7): (None, 'V', 'aéb?c'),  # 1/0
            hand_made_sensor(9, linearization=0x70): (None, 'V', 'aéb?c'),
            hand_made_sensor(9, units=0xC0): (None, 'V', 'aéb?c'),
            hand_made_sensor(9, record_type=0xC0): (None, None, ''),
            hand_made_sensor(1, name=b'\x84\x29\xdc\xa6'): (1, 'V', 'IPMI'),
            hand_made_sensor(1, name=b'\x46\x12\xab\xc9'): (1, 'V', '12 -.9'),
            hand_made_sensor(1, name=b'\xdf' + b'x' * 40): (1, 'V', 'x' * 16),
            hand_made_sensor(1, name=b'\x9f' + b'\xff' * 40): (1, 'V', '_' * 21),
            b'\xff' * 64: (None, None, ''),
        }
        paths = [self.file(f'{index}.sdr', sdr) for index, sdr in enumerate(records)]
        done = on_controller('''for file; do $ctl -j sdr add "$file" || exit; done; $ctl -j sdr list
                             $ctl -j sdr show 130 && $ctl -j sdr show 135 && $ctl sdr show 135 && $ctl -q sdr show 135 && $ctl sdr list''', *paths)
        self.assert_status(done, 0)
        *added, listed, other, nonsense = [json.loads(line) for line in done.stdout.splitlines()[:len(paths) + 3]]
        shown = {row['id']: row for row in listed}
        self.assertEqual(len(shown), 117 + len(paths))
        for (sdr, expected), answer in zip(records.items(), added):
            row = shown[answer['id']]
            self.assertEqual((row['reading'], row['unit'], row['name']), expected, sdr.hex())
            self.assertEqual((row['reading_raw'], row['announced'], row['state']), (sdr[31], False, None))
        self.assertEqual((other['record_type'], nonsense['sdr_hex']), (0xC0, '8700' + 'ff' * 62))
        self.assertFalse(set(done.stdout) & set(map(chr, [*range(10), *range(11, 32), *range(0x7F, 0xA0)])))
        self.assertIn('54 +12V voltage 12.06 V 11.40 11.04 10.80 12.60 12.96 13.20 -', ' '.join(done.stdout.split()))
        self.assertEqual(done.stdout.count('nominal ones until the service announces others'), 2)
        for wrong in (b'', b'x' * 63, b'x' * 65):
            done = run(CTL, 'sdr', 'add', '-', input=wrong.decode(), env=NO_BUS)
            self.assert_status(done, 1, '64 bytes')

    def test_a_sensor_is_changed(self):
        def last_call(words, member):
            done = on_controller('$ctl -j --yes $1 | tail -1 && $sim calls SensorDataRepository1', 'sdr ' + words)
            self.assert_status(done, 0)
            shown, calls = done.stdout.split('\n', 1)
            return json.loads(shown), [call['args'] for call in json.loads(calls) if call['member'] == member]
        for words, member, args, field, value in (
                ('set-reading 1 44.4', 'SetReading', [1, 84], 'state', 'upper critical'),
                ('set-reading 1 -10', 'SetReading', [1, 30], 'state', 'lower non-recoverable'),
                ('set-reading 1 --raw 0x51', 'SetReading', [1, 0x51], 'reading', 41),
                ('set-reading 1 20', 'SetReading', [1, 60], 'announced', True),
                ('set-hysteresis 54 0.12 0.06', 'SetHysteresis', [54, 2, 1], 'hysteresis_positive', 0.12),
                ('set-event 1 --flags 0', 'SetEvent', [1, 0, 0x7A95, 0x7A95], 'enable_flags', 0),
                ('set-event 1 --status --assertions 0x80', 'SetEventStatus', [1, 0, 0x80, 0], 'status_assertions_names',
                 ['upper non-critical going high']),
                ('delete 1', 'DeleteSdr', [1], 'name', 'Inlet Temp')):
            shown, calls = last_call(words, member)
            self.assertEqual((calls, shown[field]), ([args], value), words)
        shown, calls = last_call('set-thresholds 3 --upper-critical 86 --lower-noncritical 4', 'SetThresholds')
        self.assertEqual((shown['lower_noncritical'], shown['upper_critical'], shown['lower_critical']), (4, 86, None))
        self.assertEqual(calls[0][1]['hex'], '390400005056' + '5a')
        for words, status, said in (('sdr show 999', 1, 'no such sensor'), ('sdr set-reading 1 216', 2, 'VALUE: '),
                                    ('sdr delete 1', 2, '--yes')):
            self.assert_status(on_controller('$ctl $1', words), status, said)
        fault = '{"service":"SensorDataRepository1","member":"GetSdr","skip":2,"error":{"name":"com.brisemont.Busy","message":"busy"}}'
        done = on_controller('$sim fault "$1"; $ctl -j sdr list', fault)
        self.assert_status(done, 1, 'busy')
        self.assertEqual([row['id'] for row in json.loads(done.stdout)['sensors']], [1, 2])

    def test_watching_shows_readings_and_notices_until_told_to_end(self):
        done = on_controller('''$sim set '{"sdr":{"moving_ms":20}}'; $ctl --json=pretty sdr watch --count 3
            until $ctl -j sdr list --wait 1 | grep '"announced":true'; do :; done
            $ctl sdr watch >"$1" & until [ -s "$1" ]; do sleep 0.02; done; kill -TERM $!; wait $! || exit
            $ctl -j sel watch --count 6 & watch=$!; $sim set '{"sel":{"capacity":2}}'
            while kill -0 $watch 2>/dev/null; do
                $ctl -y sel clear; $ctl sel add --sensor-type 1; $ctl sel add --sensor-type 1; done >/dev/null
            wait $watch''', os.path.join(self.folder.name, 'seen'))
        self.assert_status(done, 0)
        lines = [json.loads(line) for line in done.stdout.splitlines()]
        self.assertEqual([(line['announced'], line['state']) for line in lines[:3]], [(True, 'ok')] * 3)
        self.assertLessEqual({(row['announced'], row['state']) for row in lines[3]}, {(True, 'ok'), (False, None)})
        self.assertEqual({line['notice'] for line in lines[4:]}, {'cleared', 'almost-full', 'full'})

    def test_watching_fails_when_the_service_or_the_bus_goes(self):
        notices = {'sdr': '"SensorDataRepository1","member":"ReadingSet","signature":"sqy","args":[":1.99",1,77]',
                   'sel': '"SystemEventLog1","member":"SelFull"', 'upgrade': '"Upgrade1","member":"UbootEnvDefaults"'}
        command = 'read daemon rest </proc/$PPID/task/$PPID/children; echo $daemon $DBUS_SYSTEM_BUS_ADDRESS; exec sleep 600'
        outer = subprocess.Popen([SIM, 'run', '--', 'sh', '-c', command], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        self.addCleanup(outer.communicate)
        self.addCleanup(outer.kill)
        daemon, address = outer.stdout.readline().split()
        reached = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=address)

        def assert_all_end(end, status, said):
            watching = {family: subprocess.Popen([CTL, '-j', family, 'watch'], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                                 text=True, env=reached) for family in notices}
            for family, watch in watching.items():
                self.addCleanup(watch.kill)
                while not select.select([watch.stdout], [], [], 0.05)[0]:
                    run(SIM, 'emit', '{"service":%s}' % notices[family], env=reached)
            end()
            for watch in watching.values():
                shown, errors = watch.communicate(timeout=60)
                self.assertEqual(watch.returncode, status, errors)
                self.assertIn(said, json.loads(shown.splitlines()[-1])['error']['message'])

        services = [notice.split('"')[1] for notice in notices.values()]
        assert_all_end(lambda: [run(SIM, 'stop', service, env=reached) for service in services], 1, 'is not on the bus')
        self.assert_status(run(CTL, 'sel', 'watch', env=reached), 1, 'is not on the bus')
        for service in services:
            self.assert_status(run(SIM, 'start', service, env=reached), 0)
        assert_all_end(lambda: os.kill(int(daemon), signal.SIGKILL), 3, 'bus was lost')

    def test_the_event_log_is_read_written_and_cleared(self):
        event = '--sensor-type 8 --sensor 0xf2 --offset 3 --deasserted --time 0x20000000 --data2 7 --generator 0x1234'
        done = on_controller('''$ctl -j sel list; $ctl -j sel add $1; $ctl sel add 0000 e5 00112233445566778899aabbcc
                             $ctl -j sel list; $ctl -j --yes sel clear; $ctl -j sel list; $ctl sel clear''', event)
        self.assert_status(done, 2)
        before, added, _, after, cleared, empty = done.stdout.splitlines()[:6]
        rows = json.loads(after)
        self.assertEqual((rows[:20], json.loads(added)['id'], json.loads(cleared), json.loads(empty)),
                         (json.loads(before), 21, {'erased': True}, []))
        fields = ('time', 'timestamp', 'sensor_type_name', 'event', 'direction', 'data_hex')
        for row, expected in (
                (rows[0], (None, 4, 'event logging', 'log cleared', 'asserted', '02ffff')),
                (rows[9], ('2026-01-01T07:16:00Z', 1767251760, 'temperature', 'upper non-critical going high', 'deasserted', '574c4e')),
                (rows[16], ('2026-01-01T08:57:00Z', 1767257820, None, 'OEM record 0xc0', None, '010500000000')),
                (rows[20], ('1987-01-05T18:48:32Z', 0x20000000, 'power supply', 'input lost', 'deasserted', '0307ff')),
                (rows[21], (None, None, None, 'OEM record 0xe5', None, '00112233445566778899aabbcc'))):
            self.assertEqual(tuple(row[field] for field in fields), expected)
        self.assertEqual(rows[20]['entry_hex'], '15000200000020' + '3412' + '04' + '08f2ef' + '0307ff')

    def test_a_log_that_cannot_be_read_to_its_end_is_shown_so_far(self):
        for reply, said in (('"reply":{"signature":"yqay","values":[0,2,[9,0]]}', 'circle'), ('"completion_code":197', '0xc5'),
                            ('"reply":{"signature":"","values":[]}', 'parse')):
            fault = '{"service":"SystemEventLog1","member":"GetSelEntry","skip":2,"count":0,%s}' % reply
            done = on_controller('$sim fault "$1"; $ctl -j sel list; $sim reset; $sim fault "$1"; $ctl sel list', fault)
            self.assert_status(done, 1, said)
            document, table = done.stdout.split('\n', 1)
            self.assertEqual([row['id'] for row in json.loads(document)['entries']][:2], [1, 2])
            self.assertIn('power supply', table)
        fault = '{"service":"SystemEventLog1","member":"ClearSel","skip":1,"completion_code":129}'
        self.assert_status(on_controller('$sim fault "$1"; $ctl -y sel clear', fault), 1, 'is being erased')

    def test_the_authentication_log_and_user_updates(self):
        done = on_controller('''for words; do $ctl -j $words; done; $sim calls AuthLog1; $ctl authlog clear''', 'authlog add 01ff 3c',
                             'authlog delete 0400 -y', 'authlog delete 04 00 -y', '-y authlog clear', '-y authlog clear 00010203',
                             'user update 0x1234 7 0a0b')
        self.assert_status(done, 2, '--yes')
        shown, calls = done.stdout.split('[', 1)
        answers = [json.loads(line) for line in shown.splitlines()]
        self.assertEqual([answer.get('value') for answer in answers], [4, 4, None, 3, None, 1])
        self.assertEqual([answers[2]['error']['completion_code'], answers[4]['error']['completion_code']], [0xCB, 0xCC])
        self.assertEqual([(call['member'], call['args'][0]['hex'].rstrip('0')) for call in json.loads('[' + calls)],
                         [('AuthLogAddEntry', '01ff3c'), ('AuthLogDelEntry', '04'), ('AuthLogDelEntry', '04'),
                          ('AuthLogClear', '434c52aa'), ('AuthLogClear', '00010203'), ('UserUpdate', '341207000a0b')])
        for words in ('add', 'add 1', 'add ' + 'ab' * 40, 'delete 01', 'delete 010203', 'clear 0102', 'add x1', 'add 1 2'):
            self.assert_status(run(CTL, '-y', 'authlog', *words.split(), env=NO_BUS), 2)
        self.assert_status(run(CTL, 'user', 'update', '1', '2', env=NO_BUS), 3)

    def test_remote_storage_is_shown_and_mounted_without_telling_the_password(self):
        secret, hostile = 'sesame 🔑', 'a\x1b]0;"\n\x9b\u2028'
        scene = self.file('disk.json', json.dumps({'state': {'rstorage': {'disks': {
            '3': {'password': secret, 'image_name': hostile, 'protocol_type': 7}}}}}).encode())
        done = on_controller('''$ctl -j rstorage list; $ctl -j rstorage show 3; $ctl -j rstorage show 3 --show-password
            $ctl -j rstorage mount 3 --password-file "$1"; echo wrong | $ctl -j rstorage mount 3 --password-file -
            $ctl -j rstorage gadget start 3 --byte 9 --flag; $ctl -j rstorage status 3 1; $ctl -j -y rstorage unmount 3
            $ctl -j -y rstorage gadget stop 3; $ctl -j -y rstorage unmount 3; $ctl rstorage unmount 3; echo $?
            $sim calls RStorage1; $sim state; $ctl rstorage list; $ctl rstorage show 3''',
                             self.file('secret', secret.encode() + b'\n'), scenario=scene)
        self.assert_status(done, 0)
        listed, shown, told, mounted, wrong, *others, rest = done.stdout.split('\n', 11)
        row = {row['disk']: row for row in json.loads(listed)}[3]
        self.assertEqual((row, row['image_name'], row['protocol_type']), (json.loads(shown), hostile, 7))
        self.assertEqual(dict(row, password=secret), json.loads(told))
        self.assertEqual([json.loads(line) for line in (mounted, wrong)],
                         [{'result': 0, 'text': hostile}, {'result': -1, 'text': 'wrong password'}])
        self.assertEqual(others, ['{"result":0}', '{"status":1}', '{"result":-1}', '{"result":0}', '{"result":0}', '2'])
        self.assertNotIn('sesame', listed + shown + rest)
        tables = rest[rest.index('DISK '):]
        self.assertIn('a\\x1b]0;', tables)
        self.assertFalse(set(tables) & set(map(chr, [*range(10), *range(11, 32), *range(0x7F, 0xA0)])))

        fault = '{"service":"RStorage1","member":"Domain","skip":1,"error":{"name":"com.brisemont.Busy","message":"busy"}}'
        done = on_controller('$sim fault "$1"; $ctl -j rstorage list', fault)
        self.assert_status(done, 1, 'Domain')
        self.assertEqual([row['disk'] for row in json.loads(done.stdout)['disks']], [1])
        self.assert_status(on_controller('$ctl rstorage mount 9'), 1, 'no such disk')
        self.assert_status(on_controller('$ctl rstorage mount 2 --password-file - </dev/null'), 1, 'not a password')
        done = on_controller('''$sim set '{"rstorage":{"disks":{"2":{"password":"sesame"}}}}' && $sim state >"$1" && $sim set "@$1" &&
                             echo sesame | $ctl -j rstorage mount 2 --password-file -''', self.file('state', b''))
        self.assertEqual(json.loads(done.stdout)['result'], 0)
        self.assert_status(run(CTL, 'rstorage', 'list', env=NO_BUS), 3)
        for words in ('gadget halt 1', 'gadget stop 1 --flag', 'mount 1 x --password-file -', 'show 2147483648'):
            self.assert_status(run(CTL, '-y', 'rstorage', *words.split(), env=NO_BUS), 2)

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
