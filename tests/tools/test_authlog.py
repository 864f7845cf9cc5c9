# SPDX-License-Identifier: LGPL-2.1-or-later
"""The authentication log, and what its service hears of user accounts."""
from support import NO_BUS, ToolTest


class AuthenticationLog(ToolTest):
    def test_bytes_go_out_as_they_were_given(self):
        answers = [
            self.json('--yes ' + words)
            for words in ('authlog add 01ff 3c', 'authlog delete 0400', 'authlog clear', 'user update 0x1234 7 0a0b')
        ]
        self.assertEqual([answer['value'] for answer in answers], [4, 4, 3, 1])
        self.assertEqual([(member, args[0]['hex'].rstrip('0')) for member, args in self.calls('AuthLog1')],
                         [('AuthLogAddEntry', '01ff3c'), ('AuthLogDelEntry', '04'), ('AuthLogClear', '434c52aa'),
                          ('UserUpdate', '341207000a0b')])

    def test_a_refusal_is_a_failure(self):
        self.ctl('authlog clear', status=2, text='--yes')
        self.ctl('user update 1 2', status=3, env=NO_BUS)
        for words, code in (('delete 09 00', 0xCB), ('clear 00010203', 0xCC)):
            self.assertEqual(self.json('-y authlog ' + words, status=1)['error']['completion_code'], code)
        self.assertEqual([args[0]['hex'].rstrip('0') for _, args in self.calls('AuthLog1')], ['09', '00010203'])
