# SPDX-License-Identifier: LGPL-2.1-or-later
"""Network nodes and what their neighbors say."""
from support import CONTROLS, ToolTest


class Network(ToolTest):
    def test_what_a_neighbor_says_is_shown_and_does_no_harm(self):
        self.set_state(
            network={'nodes': {'eth1': {'LLDP.Neighbor': {'SysName': 'evil\x1b[2J\n\x9b2J', 'PortIDSubtype': 9}}}})
        listed = self.json('network list')
        self.assertEqual((listed[1]['sys_name'], self.json('network show eth1')), ('evil\x1b[2J\n\x9b2J', listed[1]))
        shown = [self.ctl('network ' + words) for words in ('list', 'show eth1', 'get eth1 LLDP.Neighbor.SysName')]
        self.assertFalse(set(''.join(shown)) & CONTROLS)
        self.assertIn('eth2 down off  yes       14e4:165f 14e4:1990 -', shown[0])
        self.assertIn('Port ID type:     9\n', shown[1])

    def test_settings_reach_the_service(self):
        self.assertEqual(self.ctl('network lldp eth0 off'), 'off\n')
        self.assertEqual([node['lldp_enabled'] for node in self.json('network list')], [False, True, False, False])
        self.assertEqual(self.ctl('network hostname lab-3'), 'lab-3\n')
        self.assertEqual(self.state()['network']['hostname'], 'lab-3')

    def test_what_is_not_there_is_a_failure(self):
        for words in ('show eth9', 'get eth9 Status.LinkStatus', 'lldp eth9 on', 'get eth0 LLDP.Neighbor.TTL --type u'):
            self.ctl('network ' + words, status=1, text='bdbusctl: ')
