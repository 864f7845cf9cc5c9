// SPDX-License-Identifier: LGPL-2.1-or-later
// Every text that the library prints on stderr, once. A line is "TEXT: REASON", or "TEXT NAME: REASON" for a property.
#pragma once

namespace bdbus
{

inline constexpr const char *connect_text = "Failed to connect to system bus";

/** What a family prints when one of the steps of a call fails; a step without a text fails in silence. */
struct call_texts {
    const char *issue = nullptr;  // the one-step call, with the text of the D-Bus error
    const char *create = nullptr; // a built request: the message, its plain values, its arrays
    const char *append = nullptr;
    const char *append_array = nullptr;
    const char *send = nullptr;     // a built request's call, with the errno text; without one, as the one-step call
    const char *parse = nullptr;    // the reply's values
    const char *array = nullptr;    // the reply's arrays
    const char *property = nullptr; // a property read; the property's name follows
};

/** The set that most families use. */
inline constexpr call_texts plain_texts = {
    .issue = "Failed to issue method call",
    .create = "Failed to create new method call",
    .append = "Failed to append bus message",
    .append_array = "Failed to append bus message array",
    .send = "Failed bus call",
    .parse = "Failed to parse response message",
    .array = "Failed to read array message",
    .property = "Failed to get property",
};

/** RAID management: the set of its queries and of the operations that are called in one step. */
inline constexpr call_texts raid_texts = {
    .issue = plain_texts.issue,
    .create = "Failed to create bus message",
    .append = "Failed to append to bus message element",
    .append_array = "Failed to append to bus message array",
    .send = "Failed to bus call",
    .parse = plain_texts.parse,
    .array = "Failed to parse response message array item",
};

/** RAID management: the set of the operations that are built. */
inline constexpr call_texts raid_request_texts = {
    .create = raid_texts.create,
    .append = raid_texts.append,
    .append_array = raid_texts.append_array,
    .send = raid_texts.send,
    .parse = "Failed to read message",
};

/** The same for a signal that is sent. */
struct signal_texts {
    const char *create = nullptr;
    const char *send = nullptr;
};

inline constexpr signal_texts notice_texts = {
    .create = "Failed to create signal message",
    .send = "Failed to queue signal for transfer",
};

inline constexpr signal_texts change_handle_texts = {.create = "Failed to send signal"};

/** Of a family that prints nothing: its callers have the result. */
inline constexpr call_texts silent_texts = {};

/** Remote storage: the set of a mount. */
inline constexpr call_texts mount_texts = {
    .issue = "failed to issue method call",
    .parse = "failed to parse response message",
};

} // namespace bdbus
