# SPDX-License-Identifier: LGPL-2.1-or-later
"""bdbus-sim as its user meets it: its subcommands, and its services as any D-Bus client sees them."""
import json
import subprocess
import time

from support import SIM, ToolTest, run

PROPERTIES = 'org.freedesktop.DBus.Properties'
GET, SET, GET_ALL = (PROPERTIES + suffix for suffix in ('.Get', '.Set', '.GetAll'))
INTROSPECT = 'org.freedesktop.DBus.Introspectable.Introspect'
CONFIG = 'string:com.brisemont.Config1'
INDEX = (CONFIG, 'string:Generic_Index')
RESET = ('AdvancedBypass', 'SetGlobalReset', 'byte:1')
ON_RESET = {'service': 'AdvancedBypass', 'member': 'SetGlobalReset'}
ON_INDEX = {'service': 'Config1', 'member': 'Generic_Index'}
BUSY = {'error': {'name': 'a.b.Busy', 'message': 'not now'}}
DIE, CODE = {'die': True}, {'completion_code': 1}

STATES = (  # that cannot be, and why
    ('{"config":{"Firmware.Major":4294967296}}', 'Firmware.Major: must be a number'),
    ('{"config":{"X":1}}', 'no such key: "X"'),
    ('{"config":{"Hpm3.Enabled":1}}', 'or false'),
    ('{"config":{"Firmware.Major":null}}', 'needs the key'),
    ('{"bmc"', 'JSON argument'),
    ('{"bmc":{"post":[1,256]}}', '/bmc/post/1'),
    ('{"sel":{"entries":[[1]]}}', '16 elements'),
    ('{"sdr":{"records":{"01":{}}}}', 'no such key'),
    ('[' * 70 + ']' * 70, 'too deep'),
)
FAULTS = (  # that cannot act, and why
    (ON_INDEX, 'no action'),
    (ON_INDEX | {'die': 1}, 'true or false'),
    (ON_INDEX | {'X': 1}, 'such key'),
    (DIE | {'service': 'X'}, 'no such service'),
    (ON_RESET | DIE | {'kind': 'get'}, 'no such member'),
    (ON_INDEX | DIE | {'interface': 'a.b'}, 'no such member'),
    (ON_RESET | DIE | {'kind': 'X'}, '"kind"'),
    (ON_RESET | DIE | {'no_reply': True}, 'more than one'),
    (ON_RESET | DIE | {'skip': -1}, 'number'),
    (ON_RESET | DIE | {'carry_out': True}, 'goes with'),
    (ON_INDEX | CODE, 'a property has no'),
    (CODE | {'service': 'Config1', 'member': 'GetAll'}, 'answers no completion code'),
    (ON_RESET | {'error': {'name': 'Busy'}}, '"name"'),
    (ON_RESET | {'signal': {'member': 'a.b'}}, 'signal'),
    (ON_RESET | {'reply': {'signature': '('}}, 'malform'),
    (ON_RESET | {'reply': {'signature': 'y'}}, 'fit'),
    (ON_INDEX | {'reply': {'signature': 'yy', 'values': [1, 2]}}, 'one value'),
)
ERRORS = (  # of the standard, and what they answer
    ('UnknownMethod', 'X'),
    ('UnknownMethod', PROPERTIES + '.X'),
    ('UnknownInterface', 'a.b.X'),
    ('UnknownProperty', GET, CONFIG, 'string:X'),
    ('UnknownInterface', GET, 'string:a.b', 'string:X'),
    ('UnknownInterface', GET_ALL, 'string:a.b'),
    ('InvalidArgs', GET_ALL),
    ('InvalidArgs', GET, 'string:a'),
    ('PropertyReadOnly', SET, CONFIG + '.Hpm3', 'string:Enabled', 'variant:boolean:true'),
    ('InvalidArgs', SET, *INDEX, 'variant:string:x'),
)


class Simulator(ToolTest):
    def refusal(self, *words, status=1, stdin=''):
        """The line on stderr of a subcommand that fails."""
        done = run(SIM, *words, input=stdin, env=self.bus)
        self.assert_status(done, status)
        return done.stderr

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
        return subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, env=self.bus)

    def answer(self, *call, **options):
        """The values that answer a call, in dbus-send's words, or the error."""
        values, error = self.client(*call, **options).communicate(timeout=120)
        return ' '.join(error.split() or values.split('\n', 1)[1].split())

    def index(self, *words):
        return self.answer('Config1', PROPERTIES + '.Get', *(words or INDEX)).removeprefix('variant ')

    def set_index(self, value):
        return self.answer('Config1', PROPERTIES + '.Set', *INDEX, 'variant:' + value)

    def monitored(self, action, last):
        """The messages on the bus while the action runs, up to one with the text `last`."""
        command = ['dbus-monitor', '--system']
        with subprocess.Popen(command, stdout=subprocess.PIPE, text=True, env=self.bus) as monitor:
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
        for patch, reason in STATES:
            self.assertIn(reason, self.refusal('set', patch))
        self.assertEqual(self.sim('state'), before)

    def test_services_find_what_the_state_was_set_to(self):
        entry, sdr, login = [3, 2, 2] + [1] * 13, {'sdr': [0] * 64}, [0] * 39
        state = {'sel': {'entries': [entry]}, 'sdr': {'records': {'25': sdr}}, 'authlog': {'entries': {'900': login}}}
        self.sim('set', json.dumps(state))
        event = ('SystemEventLog1', 'GetSelEntry', 'uint16:0', 'uint16:515', 'byte:0', 'byte:255')
        record = ('SensorDataRepository1', 'GetSdr', 'uint16:23')
        addition = ('AuthLog1', 'AuthLogAddEntry', 'array:byte:' + ','.join('0' * 64))
        for call, answer in ((event, 65535), (record, 25), (addition, 901)):
            with self.subTest(call=call):
                self.assertIn(f'byte 0 uint16 {answer}', self.answer(*call))

    def test_a_fault_that_cannot_act_is_refused(self):
        for fault, reason in FAULTS:
            self.assertIn(reason, self.refusal('fault', json.dumps(fault)))
        self.assertEqual((self.index(), self.answer(*RESET)), ('uint32 0', 'int32 0'))

    def test_words_and_scenarios_that_make_no_sense_are_refused(self):
        for words in 'x', 'set', 'received 8 x', 'run --', '--scenario':
            self.assertTrue(self.refusal(*words.split(), status=2), words)
        for words in 'stop X', 'set @/x', 'received 1 /x/x', 'emit {"service":"X"}':
            self.assertTrue(self.refusal(*words.split()), words)
        for scenario, reason in (('{"x":{}}', 'such key'), ('{"faults":{}}', 'array'), ('{"faults":[{}]}', 'action')):
            words = ('run', '--scenario', '/dev/stdin', '--', 'true')
            self.assertIn(reason, self.refusal(*words, stdin=scenario))

    def test_what_is_not_there_has_the_standards_error(self):
        for error, *call in ERRORS:
            self.assertIn(f'org.freedesktop.DBus.Error.{error}: ', self.answer('Config1', *call), call)
        for call in ('X', ), (GET, *INDEX), (GET_ALL, 'string:'), (INTROSPECT, ):
            self.assertIn('Error.UnknownObject: ', self.answer('Config1', *call, path='/x'))

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
        version = ('Upgrade1', 'GetComponentProps', 'byte:0', 'byte:1', 'byte:1')
        limits = ' '.join(f'byte {value}' for value in (0, 0, 3, 12, 12, 12, 12, 127))
        for call, action, changed in (
            (caps, BUSY, 'Error a.b.Busy: not now'),
            (caps, {'reply': {'signature': 's', 'values': ['odd']}}, 'string "odd"'),
            (caps, {'truncate': 2}, 'byte 0 byte 0'),
            (caps, {'completion_code': 213}, 'byte 213' + ' byte 0' * 8),
            (caps, {'completion_code': 213, 'carry_out': True}, 'byte 213 ' + limits),
            (version, {'oversize': 7}, 'byte 0 byte 0 array of bytes [ 01 05 00 00 00 00 a5 ]'),
        ):
            normal = {caps: 'byte 0 ' + limits, version: 'byte 0 byte 0 array of bytes [ 01 05 00 00 00 00 ]'}[call]
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
        self.wait_until(lambda: self.calls('AdvancedBypass'))
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
            self.wait_until(lambda: self.index() == 'uint32 0')
        for verb, answer in ('stop', 'ServiceUnknown'), ('stop', 'ServiceUnknown'), ('start', '0'), ('start', '0'):
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
                       check=True, env=self.bus)
        self.wait_until(lambda: self.calls('Upgrade1'))
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
        words = (SIM, 'run', '--scenario', '/dev/stdin', '--', 'sh', '-c', script, SIM, 'com.brisemont.Network1')
        seen = ' '.join(run(*words, input=json.dumps(scenario)).stdout.split())
        self.assertEqual(seen, ' '.join(['[] 2 Error a.b.Busy: not now'] * 2))
