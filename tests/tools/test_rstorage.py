# SPDX-License-Identifier: LGPL-2.1-or-later
"""Remote storage: disks are shown and mounted, and passwords stay where they belong."""
import json

from support import CONTROLS, NO_BUS, ToolTest

SECRET, HOSTILE = 'sesame 🔑', 'a\x1b]0;"\n\x9b\u2028'


class RemoteStorage(ToolTest):
    def set_up_disk(self):
        disk = {'password': SECRET, 'image_name': HOSTILE, 'protocol_type': 7}
        scenario = {'state': {'rstorage': {'disks': {'3': disk}}}}
        self.bus = self.start_controller('--scenario', self.file('disk.json', json.dumps(scenario).encode()))

    def test_a_disk_is_shown_without_its_password(self):
        self.set_up_disk()
        row = self.json('rstorage list')[2]
        self.assertEqual((row, row['image_name'], row['protocol_type']), (self.json('rstorage show 3'), HOSTILE, 7))
        self.assertEqual(self.json('rstorage show 3 --show-password'), row | {'password': SECRET})
        shown = self.ctl('rstorage list') + self.ctl('rstorage show 3')
        self.assertIn('a\\x1b]0;', shown)
        self.assertFalse(set(shown) & CONTROLS)
        for text in shown, json.dumps(row), self.sim('calls'), self.sim('state'):
            self.assertNotIn('sesame', text)

    def test_a_password_comes_from_a_file_or_the_standard_input(self):
        self.set_up_disk()
        mount = 'rstorage mount 3 --password-file'
        self.assertEqual(self.json(mount, self.file('secret', SECRET.encode() + b'\n')), {'result': 0, 'text': HOSTILE})
        self.assertEqual(self.json(mount, '-', input='wrong\n'), {'result': -1, 'text': 'wrong password'})
        self.assertNotIn('sesame', self.sim('calls'))
        for source, text in (('-', 'not a password'), ('/nonexistent', 'No such file')):
            self.ctl(mount, source, status=1, text=text)

    def test_a_state_that_was_saved_keeps_the_password(self):
        self.set_state(rstorage={'disks': {'2': {'password': 'sesame'}}})
        self.sim('set', '@' + self.file('state', self.sim('state').encode()))
        self.assertEqual(self.json('rstorage mount 2 --password-file -', input='sesame\n')['result'], 0)

    def test_answers_are_shown_as_they_came(self):
        self.ctl('rstorage unmount 3', status=2)
        self.set_up_disk()
        self.json('rstorage mount 3 --password-file -', input=SECRET)
        for words, answer in (
            ('gadget start 3 --byte 9 --flag', {'result': 0}),
            ('status 3 1', {'status': 1}),
            ('unmount 3', {'result': -1}),
            ('gadget stop 3', {'result': 0}),
            ('unmount 3', {'result': 0}),
        ):
            self.assertEqual(self.json('-y rstorage ' + words), answer, words)

    def test_what_cannot_be_read_is_a_failure(self):
        self.fault('RStorage1', 'Domain', skip=1, error={'name': 'com.brisemont.Busy', 'message': 'busy'})
        listed = self.json('rstorage list', status=1, text='Domain')
        self.assertEqual([row['disk'] for row in listed['disks']], [1])
        self.ctl('rstorage mount 9', status=1, text='no such disk')
        self.ctl('rstorage list', status=3, env=NO_BUS)
