// SPDX-License-Identifier: LGPL-2.1-or-later
// Every text that the library prints on stderr, once. A line is "TEXT: REASON", or "TEXT NAME: REASON" for a property.
#pragma once

namespace bdbus
{

inline constexpr const char *connect_text = "Failed to connect to system bus";

/** What a family prints when one of the steps of a call fails; a step without a text fails in silence. */
struct call_texts {
    const char *issue = nullptr;  // the one-step call, with the text of the D-Bus error
    const char *create = nullptr; // a built request: the message, its plain values, its byte array
    const char *append = nullptr;
    const char *append_array = nullptr;
    const char *send = nullptr;     // a built request's call, with the errno text; without one, as the one-step call
    const char *parse = nullptr;    // the reply's values
    const char *array = nullptr;    // the reply's byte array
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

/** Print the one line of a failed step. */
void complain(const char *text, const char *reason);

/** The same, for a step on a named thing. */
void complain(const char *text, const char *name, const char *reason);

} // namespace bdbus
