#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-2.1-or-later
"""bdbus-sim as its user meets it: its subcommands, and its services as any D-Bus client sees them.

Usage: test_simulator.py BDBUS_SIM [unittest options]
"""
import json
import os
import subprocess
import sys
import time
import unittest

SIM = os.path.abspath(sys.argv[1] if __name__ == '__main__' else os.environ['BDBUS_SIM'])
PROPERTIES = 'org.freedesktop.DBus.Properties'
INTROSPECT = 'org.freedesktop.DBus.Introspectable.Introspect'
INDEX = ('string:com.brisemont.Config1', 'string:Generic_Index')
RESET = ('AdvancedBypass', 'SetGlobalReset', 'byte:1')
ON_RESET = {'service': 'AdvancedBypass', 'member': 'SetGlobalReset'}
ON_INDEX = {'service': 'Config1', 'member': 'Generic_Index'}
BUSY = {'error': {'name': 'a.b.Busy', 'message': 'not now'}}


class Simulator(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        controller = subprocess.Popen([SIM, 'run', '--', 'sh', '-c', 'echo $DBUS_SYSTEM_BUS_ADDRESS; exec cat'],
                                      text=True, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        cls.addClassCleanup(controller.communicate, timeout=60)
        cls.environment = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=controller.stdout.readline().strip())

    def setUp(self):
        self.sim('reset')

    def sim(self, *words, status=0, stdin=''):
        """What a subcommand prints, or the line on stderr of one that fails."""
        done = subprocess.run([SIM, *words], input=stdin, capture_output=True, text=True, timeout=60,
                              env=self.environment)
        self.assertEqual(done.returncode, status, words + (done.stdout, done.stderr))
        return done.stderr if status else done.stdout

    def fault(self, calls, **action):
        self.sim('fault', json.dumps(dict(calls, **action)))

    def calls(self, *service):
        return [(call['kind'], call['member'], call['args']) for call in json.loads(self.sim('calls', *service))]

    def client(self, service, member, *arguments, path=None, timeout=60):
        """A D-Bus client that calls a member, of the service's own interface unless the name has another."""
        member = member if '.' in member else f'com.brisemont.{service}.{member}'
        command = [
            'dbus-send', '--system', '--print-reply', f'--dest=com.brisemont.{service}',
            f'--reply-timeout={timeout * 1000:.0f}', path or f'/com/brisemont/{service}', member, *arguments
        ]
        return subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                env=self.environment)

    def answer(self, *call, **options):
        """The values that answer a call, in dbus-send's words, or the error."""
        values, error = self.client(*call, **options).communicate(timeout=120)
        return ' '.join(error.split() or values.split('\n', 1)[1].split())

    def index(self, *words):
        return self.answer('Config1', PROPERTIES + '.Get', *(words or INDEX)).removeprefix('variant ')

    def set_index(self, value):
        return self.answer('Config1', PROPERTIES + '.Set', *INDEX, 'variant:' + value)

    def eventually(self, condition):
        deadline = time.monotonic() + 60
        while not condition():
            self.assertLess(time.monotonic(), deadline)

    def monitored(self, action, last):
        """The messages on the bus while the action runs, up to one with the text `last`."""
        command = ['dbus-monitor', '--system']
        with subprocess.Popen(command, stdout=subprocess.PIPE, text=True, env=self.environment) as monitor:
            self.addCleanup(monitor.kill)
            next(line for line in monitor.stdout if 'NameLost' in line)  # from now on it is a monitor
            action()
            seen = ''
            while last not in seen:
                seen += next(monitor.stdout)
            monitor.kill()
        return ' '.join(seen.split())

    def test_a_state_that_cannot_be_is_refused(self):
        before = self.sim('state')
        for patch, reason in (('{"config":{"Firmware.Major":4294967296}}', 'Firmware.Major: must be a number'),
                              ('{"config":{"X":1}}', 'no such key: "X"'), ('{"config":{"Hpm3.Enabled":1}}', 'or false'),
                              ('{"config":{"Firmware.Major":null}}', 'needs the key'), ('{"bmc"', 'JSON argument'),
                              ('{"bmc":{"post":[1,256]}}', '/bmc/post/1'), ('{"sel":{"entries":[[1]]}}', '16 elements'),
                              ('{"sdr":{"records":{"01":{}}}}', 'no such key'), ('[' * 70 + ']' * 70, 'too deep')):
            with self.subTest(patch=patch):
                self.assertIn(reason, self.sim('set', patch, status=1))
        self.assertEqual(self.sim('state'), before)

    def test_a_fault_that_cannot_act_is_refused(self):
        die, code = {'die': True}, {'completion_code': 1}
        for calls, action, reason in ((ON_INDEX, {}, 'no action'), (ON_INDEX, {'die': 1}, 'true or false'),
                                      (ON_INDEX, {'X': 1}, 'such key'), (dict(die, service='X'), {}, 'no such service'),
                                      (dict(die, kind='get'), ON_RESET,
                                       'no such member'), (dict(die, interface='a.b'), ON_INDEX,
                                                           'no such member'), (dict(die, kind='X'), ON_RESET, '"kind"'),
                                      (dict(die, no_reply=True), ON_RESET,
                                       'more than one'), (dict(die, skip=-1), ON_RESET,
                                                          'number'), (dict(die, carry_out=True), ON_RESET, 'goes with'),
                                      (code, ON_INDEX,
                                       'a property has no'), (dict(code, member='GetAll'), {'service': 'Config1'},
                                                              'answers no completion code'),
                                      (ON_RESET, {'error':
                                                  {'name':
                                                   'Busy'}}, '"name"'), (ON_RESET, {'signal': {'member':
                                                                                               'a.b'}}, 'signal'),
                                      (ON_RESET, {'reply': {'signature': '('}},
                                       'malform'), (ON_RESET, {'reply': {'signature': 'y'}},
                                                    'fit'), (ON_INDEX, {'reply': {'signature': 'yy', 'values':
                                                                                  [1, 2]}}, 'one value')):
            with self.subTest(calls=calls, action=action):
                self.assertIn(reason, self.sim('fault', json.dumps(dict(calls, **action)), status=1))
        self.assertEqual((self.index(), self.answer(*RESET)), ('uint32 0', 'int32 0'))

    def test_words_and_scenarios_that_make_no_sense_are_refused(self):
        for words, status in (('x', 2), ('set', 2), ('received 8 x', 2), ('run --', 2), ('--scenario', 2),
                              ('stop X', 1), ('set @/x', 1), ('received 1 /x/x', 1), ('emit {"service":"X"}', 1)):
            with self.subTest(words=words):
                self.assertTrue(self.sim(*words.split(), status=status))
        for scenario, reason in (('{"x":{}}', 'such key'), ('{"faults":{}}', 'array'), ('{"faults":[{}]}', 'action')):
            words = ('run', '--scenario', '/dev/stdin', '--', 'true')
            self.assertIn(reason, self.sim(*words, status=1, stdin=scenario))

    def test_what_is_not_there_has_the_standards_error(self):
        get, set_, get_all = (PROPERTIES + suffix for suffix in ('.Get', '.Set', '.GetAll'))
        for error, member, *arguments in (('UnknownMethod', 'X'), ('UnknownMethod', PROPERTIES + '.X'),
                                          ('UnknownInterface', 'a.b.X'), ('UnknownProperty', get, INDEX[0], 'string:X'),
                                          ('UnknownInterface', get, 'string:a.b', 'string:X'), ('UnknownInterface',
                                                                                                get_all, 'string:a.b'),
                                          ('InvalidArgs', get_all), ('InvalidArgs', get, 'string:a'),
                                          ('PropertyReadOnly', set_, INDEX[0] + '.Hpm3', 'string:Enabled',
                                           'variant:boolean:true'), ('InvalidArgs', set_, *INDEX, 'variant:string:x')):
            with self.subTest(member=member, arguments=arguments):
                self.assertIn(f'org.freedesktop.DBus.Error.{error}: ', self.answer('Config1', member, *arguments))
        for member, *arguments in (('X', ), (get, *INDEX), (get_all, 'string:'), (INTROSPECT, )):
            self.assertIn('Error.UnknownObject: ', self.answer('Config1', member, *arguments, path='/x'))

    def test_every_object_has_the_standards_methods(self):
        def names(interface):
            all_ = self.answer('Config1', PROPERTIES + '.GetAll', 'string:' + interface)
            return [entry.split('"')[0] for entry in all_.split('dict entry( string "')[1:]]

        self.assertEqual(names('com.brisemont.Config1.Firmware'), ['Aux', 'Has_Signature', 'Major', 'Minor'])
        self.assertEqual((len(names('')), names(PROPERTIES)), (14, []))  # two have the same name
        self.assertEqual(self.answer('Bmc1', 'org.freedesktop.DBus.Peer.Ping'), '')
        self.assertIn('<node name="eth0"/>', self.answer('Network.Host1', INTROSPECT, path='/com/brisemont/network'))
        self.assertIn('<property name="BmcPost" type="ay" access="read"/>', self.answer('Bmc1', INTROSPECT))

    def test_containers_go_both_ways(self):
        self.answer('Config1', 'X', 'dict:string:byte:b,7,a,5', 'dict:byte:string:1,x', 'array:byte:1,255',
                    'variant:byte:3')
        self.assertEqual(
            self.calls('Config1')[0][2],
            [{'a': 5, 'b': 7}, [[1, 'x']], {'length': 2, 'hex': '01ff'}, {'signature': 'y', 'value': 3}])
        values = [{'k': {'signature': 'u', 'value': 5}}, [[1, ['x', 'y']]], [True, 0.5], [1, 2]]
        self.fault(ON_RESET, reply={'signature': 'a{sv}a{yas}(bd)ay', 'values': values})
        self.assertEqual(
            self.answer(*RESET), 'array [ dict entry( string "k" variant uint32 5 ) ] '
            'array [ dict entry( byte 1 array [ string "x" string "y" ] ) ] '
            'struct { boolean true double 0.5 } array of bytes [ 01 02 ]')

    def test_a_fault_changes_one_reply(self):
        caps = ('Upgrade1', 'GetTargetUpgradeCaps', 'byte:0')
        limits = ' '.join(f'byte {value}' for value in (0, 0, 3, 12, 12, 12, 12, 127))
        version = ('Upgrade1', 'GetComponentProps', 'byte:0', 'byte:1', 'byte:1')
        for call, normal, action, changed in ((caps, 'byte 0 ' + limits, BUSY, 'Error a.b.Busy: not now'),
                                              (caps, 'byte 0 ' + limits,
                                               {'reply': {'signature': 's', 'values': ['odd']}
                                                }, 'string "odd"'), (caps, 'byte 0 ' + limits, {'truncate':
                                                                                                2}, 'byte 0 byte 0'),
                                              (caps, 'byte 0 ' + limits, {'completion_code':
                                                                          213}, 'byte 213' + ' byte 0' * 8),
                                              (caps, 'byte 0 ' + limits, {'completion_code': 213, 'carry_out':
                                                                          True}, 'byte 213 ' + limits),
                                              (version, 'byte 0 byte 0 array of bytes [ 01 05 00 00 00 00 ]',
                                               {'oversize':
                                                7}, 'byte 0 byte 0 array of bytes [ 01 05 00 00 00 00 a5 ]')):
            with self.subTest(action=action):
                self.fault({'service': call[0], 'member': call[1]}, **action)
                self.assertEqual([self.answer(*call), self.answer(*call)], [changed, normal])

    def test_only_a_call_that_is_carried_out_has_an_effect(self):
        for action, kept in ((BUSY, 0), ({'completion_code': 1}, 0), ({'completion_code': 1, 'carry_out': True}, 1)):
            self.fault(ON_RESET, **action)
            self.answer(*RESET)
            self.assertEqual(json.loads(self.sim('state'))['bypass']['global_reset'], kept)

    def test_a_fault_tells_reads_writes_and_interfaces_apart(self):
        self.fault(ON_INDEX, kind='set', **BUSY)
        self.assertEqual((self.index(), self.set_index('uint32:5')), ('uint32 0', 'Error a.b.Busy: not now'))
        self.assertEqual((self.set_index('uint32:6'), self.index()), ('', 'uint32 6'))
        self.fault({'service': 'Config1', 'member': 'Enabled', 'interface': 'com.brisemont.Config1.Hpm3'}, **BUSY)
        self.assertEqual([self.index(INDEX[0] + group, 'string:Enabled') for group in ('.Hpm2', '.Hpm3', '.Hpm3')],
                         ['boolean true', 'Error a.b.Busy: not now', 'boolean false'])

    def test_skip_and_count_choose_the_calls(self):
        self.fault(ON_INDEX, skip=1, count=2, error={'name': 'a.b.First'})
        self.fault(ON_INDEX, count=0, error={'name': 'a.b.Second'})
        seen = [self.index().split('.')[-1] for _ in range(5)]
        self.assertEqual(seen, ['Second', 'First', 'First', 'Second', 'Second'])
        self.sim('clear-faults')
        self.assertEqual(self.index(), 'uint32 0')

    def test_a_call_is_not_answered_or_late_and_holds_up_no_other(self):
        self.fault(ON_RESET, no_reply=True)
        self.assertIn('Error.NoReply', self.answer(*RESET, timeout=0.2))
        self.fault(ON_RESET, delay_ms=300)
        began = time.monotonic()
        self.assertEqual(self.answer(*RESET), 'int32 0')
        self.assertGreaterEqual(time.monotonic() - began, 0.3)
        self.sim('clear-calls')
        self.fault(ON_RESET, delay_ms=3_600_000)
        waiting = self.client(*RESET, timeout=3600)
        self.eventually(lambda: self.calls('AdvancedBypass'))
        self.assertEqual((self.answer(*RESET), waiting.poll()), ('int32 0', None))
        self.sim('stop', 'AdvancedBypass')
        self.assertIn('Error.NoReply', waiting.communicate(timeout=60)[1])

    def test_a_service_dies_or_stops_and_comes_back(self):
        for options, back in (({'return_after_ms': 1}, None), ({}, ('start', 'Config1')), ({}, ('reset', ))):
            self.fault(ON_INDEX, die=True, **options)
            self.assertIn('Error.NoReply', self.index())
            if back:
                self.assertIn('Error.ServiceUnknown', self.index())
                self.sim(*back)
            self.eventually(lambda: self.index() == 'uint32 0')
        for verb, answer in (('stop', 'ServiceUnknown'), ('stop', 'ServiceUnknown'), ('start', '0'), ('start', '0')):
            self.sim(verb, 'Config1')
            self.assertIn(answer, self.index())

    def test_a_signal_comes_with_a_reply(self):
        self.fault(ON_RESET, signal={'member': 'Sent', 'signature': 'sq', 'args': ['text', 7]})
        self.assertRegex(self.monitored(lambda: self.answer(*RESET), 'int32 0'),
                         '=SetGlobalReset.*=Sent string "text" uint16 7 method return')

    def test_calls_are_listed_until_they_are_cleared(self):
        self.answer('AuthLog1', 'AuthLogDelEntry', 'array:byte:' + ','.join(['7'] * 70))
        self.assertEqual((self.set_index('uint32:5'), self.index()), ('', 'uint32 5'))
        subprocess.run(['dbus-send', '--system', '/com/brisemont/Upgrade1', 'com.brisemont.Upgrade1.BmcSensorsReady'],
                       check=True, env=self.environment)
        self.eventually(lambda: self.calls('Upgrade1'))
        self.assertEqual(self.calls(), [('call', 'AuthLogDelEntry', [{'length': 70, 'hex': '07' * 64}]),
                                        ('set', 'Generic_Index', [5]), ('get', 'Generic_Index', []),
                                        ('signal', 'BmcSensorsReady', [])])
        self.sim('clear-calls')
        self.assertEqual(self.calls(), [])

    def test_reset_goes_back_to_the_scenario(self):
        scenario = {
            'state': {'config': {'Generic_Index': 3}, 'target': {'components': {'6': None}}}, 'faults':
            [{'service': 'Network1', 'member': 'SetHostname', 'count': 0, **BUSY}]
        }
        script = """look() {
                        "$0" calls; "$0" state | grep -Ec 'name": "(BmcUboot|Cpld)"|Generic_Index": 3'
                        dbus-send --system --print-reply --dest=$1 /com/brisemont/Network1 $1.SetHostname string:x 2>&1
                    }
                    look $1; "$0" set '{"config":{"Generic_Index":4},"target":{"components":{"0":null}}}'
                    "$0" clear-faults; "$0" stop Network1; "$0" reset; look $1; true"""
        words = ('run', '--scenario', '/dev/stdin', '--', 'sh', '-c', script, SIM, 'com.brisemont.Network1')
        seen = ' '.join(self.sim(*words, stdin=json.dumps(scenario)).split())
        self.assertEqual(seen, ' '.join(['[] 2 Error a.b.Busy: not now'] * 2))


if __name__ == '__main__':
    unittest.main(argv=[sys.argv[0], *sys.argv[2:]])
