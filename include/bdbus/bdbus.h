/* SPDX-License-Identifier: LGPL-2.1-or-later */
/**
 * @file bdbus.h
 * Every family of the library at once.
 */
#ifndef BDBUS_BDBUS_H
#define BDBUS_BDBUS_H

#include <bdbus/abp.h>
#include <bdbus/config.h>
#include <bdbus/hpm1.h>
#include <bdbus/network.h>
#include <bdbus/rstorage.h>
#include <bdbus/sdr.h>
#include <bdbus/sel.h>
#include <bdbus/storectrl.h>
#include <bdbus/upgrade.h>
#include <bdbus/upgrade_agent.h>
#include <bdbus/user.h>

#endif
