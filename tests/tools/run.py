#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-2.1-or-later
"""bdbusctl and bdbus-sim as a person or a script meets them: real programs, private buses, exit statuses and output.

Usage: run.py BDBUS_SIM BDBUSCTL [test_SUBJECT...] [unittest options]
"""
import os
import sys
import unittest

os.environ['BDBUS_SIM'], os.environ['BDBUSCTL'] = map(os.path.abspath, sys.argv[1:3])
folder = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, folder)
suites = [] if any(word.startswith('test_')
                   for word in sys.argv[3:]) else sorted(name[:-3] for name in os.listdir(folder)
                                                         if name.startswith('test_') and name.endswith('.py'))
unittest.main(module=None, argv=[sys.argv[0], *sys.argv[3:], *suites])
