// SPDX-License-Identifier: LGPL-2.1-or-later
// What the agent keeps for the life of the process, shared by all contexts: one upgrade at a time.
#pragma once

#include <bdbus/upgrade_agent.h>

#include <atomic>
#include <cstdint>

namespace bdbus
{

inline constexpr uint32_t version_bytes = 6; // major, minor, four auxiliary bytes

/** A component as the target check found it. */
struct upgrade_agent_component {
    uint8_t component_id;
    uint8_t current_version[version_bytes];
    uint8_t rollback_version[version_bytes]; // 0xFF without rollback support, zero when it could not be read
    uint8_t deferred_version[version_bytes]; // the same for deferred activation
    uint8_t image_version[version_bytes];    // of the image's upload record, set by the pre-upgrade check
    uint8_t rollback_supported;              // the bits of the general property byte as they stand there
    uint8_t activation_followup;
    uint8_t deferred_supported;
    char description[BDBUS_HPM1_PROPERTY_MAX]; // always terminated
};

/** Bits of the general property byte, the first data byte of a component's general properties. */
inline constexpr uint8_t property_rollback = 0x02;
inline constexpr uint8_t property_preparation = 0x04;
inline constexpr uint8_t property_deferred = 0x10;
inline constexpr uint8_t property_followup = 0x20;

extern upgrade_agent_component component_table[BDBUS_UPGRADE_AGENT_COMPONENTS];

/** Stage and percentage, for any thread to read. */
struct agent_status {
    std::atomic<uint8_t> stage;
    std::atomic<uint8_t> progress;
};
extern agent_status current_status;

} // namespace bdbus
