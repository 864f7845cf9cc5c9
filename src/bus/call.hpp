// SPDX-License-Identifier: LGPL-2.1-or-later
// The call frame: the steps of one bus call, in the order in which a family writes them down. A step after a failed
// step does nothing, the first failure's code is the result, and it prints one line. Reply and request are released on
// every path, then the lock; then the line is printed.
#pragma once

#include "bus/connection.hpp"
#include "bus/message.hpp"
#include "bus/report.hpp"
#include "bus/texts.hpp"

#include <systemd/sd-bus.h>

#include <cstddef>

namespace bdbus
{

class call_frame
{
public:
    /**
     * @param report prints the line of a step that fails; it outlives the call's lock.
     * @param acquired the result of having got the connection: a negative one is this call's first failure.
     */
    call_frame(failure_report &report, const service &peer, const call_texts &texts, sd_bus *bus, int32_t acquired)
        : report_(report), peer_(peer), texts_(texts), bus_(bus), result_(acquired)
    {
    }
    ~call_frame()
    {
        if (request_ != nullptr) {
            sd_bus_message_unref(request_);
        }
        if (reply_ != nullptr) {
            sd_bus_message_unref(reply_);
        }
    }
    call_frame(const call_frame &) = delete;
    call_frame &operator=(const call_frame &) = delete;

    [[nodiscard]] int32_t result() const { return result_; }
    [[nodiscard]] bool failed() const { return result_ < 0; }

    /** Have the call fail for a reason of the family's own, unless it has failed already. */
    void fail(int32_t code) { result_ = failed() ? result_ : code; }

    /** Call a method in one step. */
    template <signature Sig, typename... Values>
    void invoke(const char *member, Values... values)
    {
        static_assert(fits<Sig, Values...>(), "the values do not match the signature that they are sent under");
        if (!failed()) {
            finish_call(sd_bus_call_method(bus_, peer_.name, peer_.path, peer_.interface, member, report_.error(),
                                           &reply_, sizeof(Sig.text) > 1 ? Sig.text : nullptr, values...));
        }
    }

    /** The same with an array of bytes. */
    void invoke_bytes(const char *member, const uint8_t *bytes, std::size_t count);

    /** Build a request: create(), then the values and bytes in order, then send(). */
    void create(const char *member);

    template <signature Sig, typename... Values>
    void append(Values... values)
    {
        static_assert(fits<Sig, Values...>(), "the values do not match the signature that they are sent under");
        const void *const places[] = {place_of(values)...};
        append_listed(Sig.text, places);
    }

    /** Append an array: the first elements of what the caller has. */
    template <typename Element>
    void append_array(const Element *elements, uint32_t count)
    {
        append_raw(code_of<Element>(), elements, count * sizeof(Element));
    }

    void append_bytes(const uint8_t *data, uint32_t length) { append_array(data, length); }

    void send(uint64_t timeout_us);
    static constexpr uint64_t default_timeout = 0; // sd-bus's own
    static constexpr uint64_t no_timeout = UINT64_MAX;

    /** Read values of the reply. Those before one that cannot be read are written. @return this call's result. */
    template <signature Sig, typename... Values>
    int32_t read(Values *...values)
    {
        static_assert(fits<Sig, Values...>(), "the outputs do not match the signature that they are read under");
        void *const outputs[] = {values...};
        return read_listed(Sig.text, outputs);
    }

    /**
     * Read a byte array of the reply: as many bytes as there is room for, the rest of a shorter array's room left as it
     * was.
     *
     * @param length receives the array's whole length; may be null.
     * @return this call's result.
     */
    int32_t read_bytes(uint8_t *out, uint32_t room, uint32_t *length = nullptr);

    /** Read a byte array of the reply that must have this length. @return its bytes, the reply's own, or null. */
    const uint8_t *read_exactly(uint32_t length) { return failed() ? nullptr : bdbus::read_exactly(reply_, length); }

    /** Read an array of the reply into a record's column: as many elements as fit; a shorter one leaves the rest. */
    template <typename Element, size_t Capacity>
    void read_column(Element (&column)[Capacity])
    {
        read_raw(code_of<Element>(), column, sizeof(column));
    }

    /** Ask for an array property; read_bytes() follows. */
    void get_property(const char *name, const char *type);

    /** Read a property of a basic type. @return this call's result. */
    template <signature Type, typename Value>
    int32_t get_basic_property(const char *name, Value *value)
    {
        static_assert(fits<Type, Value>() && sizeof(Type.text) == 2, "the output does not match the property's type");
        if (!failed()) {
            finish_property(sd_bus_get_property_trivial(bus_, peer_.name, peer_.path, peer_.interface, name, nullptr,
                                                        Type.text[0], value),
                            name);
        }
        return result_;
    }

    /** Read a text property into a new allocation, the caller's to free. @return this call's result. */
    int32_t get_string_property(const char *name, char **text);

    /** Set a property of a basic type. @return this call's result. */
    template <signature Type, typename Value>
    int32_t set_property(const char *name, Value value)
    {
        static_assert(fits<Type, Value>(), "the value does not match the property's type");
        if (!failed()) {
            finish_property(
                sd_bus_set_property(bus_, peer_.name, peer_.path, peer_.interface, name, nullptr, Type.text, value),
                name);
        }
        return result_;
    }

private:
    /** Where sd-bus takes a value from: a text is its own place. */
    template <typename Value>
    static const void *place_of(const Value &value)
    {
        if constexpr (std::is_same_v<Value, const char *>) {
            return value;
        } else {
            return &value;
        }
    }

    /** One by one: that spares sd-bus to read the signature and the varargs, a tenth of a small call's cost. */
    void append_listed(const char *codes, const void *const *places);
    int32_t read_listed(const char *codes, void *const *outputs);

    void append_raw(char code, const void *data, size_t bytes);

    /** @return the array's elements, the reply's own, and its length in bytes. */
    const void *read_array(char code, size_t &bytes);

    /** Copy as much of an array as there is room for. @return its whole length in bytes. */
    size_t read_raw(char code, void *out, size_t room);

    void finish_step(int result, const char *text);
    void finish_call(int result);
    void finish_property(int result, const char *name);

    failure_report &report_;
    const service &peer_;
    const call_texts &texts_;
    sd_bus *bus_;
    int32_t result_;
    sd_bus_message *request_ = nullptr;
    sd_bus_message *reply_ = nullptr;
};

/**
 * A call over a module's connection. Its bases are destroyed from the last to the first: reply and request, which
 * belong to the connection; then the hold on it; then the line is printed.
 */
template <typename Hold>
class module_call : call_report, Hold, public call_frame
{
public:
    [[gnu::noinline]] module_call(const service &peer, const call_texts &texts)
        : call_frame(static_cast<call_report &>(*this), peer, texts, Hold::bus(), Hold::acquired())
    {
    }
    [[gnu::noinline]] ~module_call() = default; // once for a family and not in each call: a third of the library's size
    module_call(const module_call &) = delete;
    module_call &operator=(const module_call &) = delete;

    [[nodiscard]] bool has_connection() const { return Hold::acquired() >= 0; }

    /** Let others have the connection before the end; the reply stays readable. */
    void release() { Hold::release(); }
};

} // namespace bdbus
