# SPDX-License-Identifier: LGPL-2.1-or-later
"""Image files, which need no bus."""
import hashlib
import os
import pathlib

from support import CTL, NO_BUS, ToolTest, image_by_hand, run


class Image(ToolTest):
    def test_one_is_made_shown_and_verified(self):
        firmware, image = self.file('firmware', os.urandom(3000)), self.path('made.hpm')
        self.ctl('image create --version 2.10 --backup 1 -o', image, '-c', f'1={firmware}', '--oem', firmware, '-c',
                 f'4={firmware},version=3.7', env=NO_BUS)
        self.ctl('image verify', image, env=NO_BUS)
        shown = self.json('image info', image, env=NO_BUS)
        self.assertEqual((shown['version'], shown['oem_bytes'], shown['components']), ('2.10', 3000, [1, 4]))
        self.assertEqual([(record['action'], record['length'], record['version']) for record in shown['records']],
                         [('backup', None, None), ('upload', 3000, '2.10'), ('upload', 3000, '3.07')])
        content = pathlib.Path(image).read_bytes()
        self.assertEqual(hashlib.md5(content[:-16]).digest(), content[-16:])
        self.assertEqual(sum(content[:35 + 3000]) % 256, 0)

    def test_a_damaged_one_is_refused_wherever_it_is_cut(self):
        content = image_by_hand({1: (bytes(6), os.urandom(36))})
        for length in [*range(0, 60, 7), len(content) - 17, len(content) - 1]:
            cut = self.file('cut.hpm', content[:length])
            self.ctl('image verify', cut, status=1, text='bdbusctl: ', env=NO_BUS)
            self.assertIn(run(CTL, 'image', 'info', cut).returncode, (0, 1) if length >= 51 else (1, ))
