# SPDX-License-Identifier: LGPL-2.1-or-later
"""RAID: drives are made, shown, located and deleted."""
from support import CONTROLS, ToolTest


class Raid(ToolTest):
    def answers(self, *commands):
        return [self.json('--yes raid ' + words)['answer'] for words in commands]

    def test_a_virtual_drive_is_made_and_shown(self):
        created = self.json('raid create -y --param1 1 --size 100 --option9 7 267 268 --text', 'boot "1"')
        self.assertEqual(created, {'answer': 0})
        info = self.json('raid vd-info --text', 'boot "1"')
        self.assertEqual((info['size'], info['param1'], info['option9'], info['pd_ids']), (100, 1, 7, [267, 268]))
        self.assertEqual(self.json('raid max-size --param1 1 267 268'), {'max_size': 3814697 - 100, 'status': 0})
        self.assertEqual([drive['id'] for drive in self.json('raid vd --brief')['drives']], [0, 1, 2, 3])
        self.assertEqual([row['column3'] for row in self.json('raid groups')['groups']], [0, 1, 2, 3])
        self.assertNotEqual(self.json('raid oob-state --param -1 --text other')['status'], 0)

    def test_drives_are_located(self):
        self.assertEqual(self.answers('locate pd start 257=9 258', 'locate vd start 2=4', 'locate pd stop 258'),
                         [0, 0, 0])
        raid = self.state()['raid']
        self.assertEqual(raid['virtual_drives']['2']['locate'], 4)
        self.assertEqual([raid['physical_drives'][drive].get('locate') for drive in ('257', '258')], [9, None])

    def test_hot_spares_come_and_go(self):
        in_use, removed = self.answers('spare add 257', 'spare remove 265 --dedicated')
        self.assertTrue(in_use != 0 and removed == 0)
        self.assertEqual([drive['id'] for drive in self.json('raid unconfigured')['drives']], [265, 267, 268])
        self.assertEqual([row['id'] for row in self.json('raid spares')['drives']], [266])

    def test_nothing_is_deleted_without_a_yes(self):
        for words in 'clear', 'create 267', 'delete 0':
            self.ctl('raid ' + words, status=2)
        self.assertEqual(self.calls('RAIDMgmt'), [])
        self.assertEqual(self.answers('delete 0 2', 'clear'), [0, 0])
        self.assertEqual(self.json('raid vd'), {'count': 0, 'status': 0, 'drives': []})

    def test_replies_that_fail_are_failures(self):
        self.fault('RAIDMgmt', 'GetDriveGroupList', truncate=3)
        self.assertIn('array item', self.json('raid groups', status=1)['error']['reason'])
        self.fault('RAIDMgmt', 'GetMinPdNeeded', error={'name': 'a.b', 'message': '\x1b[2J"\n'})
        shown = self.ctl('-j raid min-pd', status=1, text='[2J\\"')
        self.assertFalse(set(shown) & CONTROLS)
