// SPDX-License-Identifier: LGPL-2.1-or-later
/*
 * An HPM.1 upgrade target: components that are backed up, prepared, uploaded, activated and rolled back.
 *
 * The state's sections "target" and "upgrade" say what components there are and how they behave. The upload and the
 * command that are under way are kept here.
 */
#pragma once

#include "frame/event.hpp"
#include "frame/json.hpp"
#include "frame/state.hpp"

#include <array>
#include <functional>
#include <optional>
#include <string>
#include <utility>

namespace bdbus_sim
{

class hpm1_target
{
public:
    static constexpr uint8_t components_max = 8;
    static constexpr size_t version_size = 6;

    /** Completion codes of HPM.1 and IPMI. */
    enum code : uint8_t {
        ok = 0x00,
        in_progress = 0x80,
        invalid_component = 0x81, // of an action
        size_differs = 0x81,      // of a finish
        wrong_block = 0x82,
        data_invalid = 0x82, // of a finish
        timed_out = 0xC3,
        out_of_space = 0xC4,
        length_invalid = 0xC7,
        invalid_field = 0xCC,
        not_in_this_state = 0xD5,
    };

    /** Events in the life of a component. */
    enum class component_event {
        received, // and found to be in order
        signature_bad,
        upload_failed,
        upload_timed_out,
        aborted,
        activating,
        activated,
        deferred, // activated as far as possible without a restart
        activation_failed,
        rolling_back,
        rolled_back,
        restarted,
    };
    using listener = std::function<void(component_event event, const json &component)>;

    struct property_answer {
        uint8_t code;
        json bytes = json::array();
    };

    struct status_answer {
        uint8_t command;
        uint8_t last_code;
    };

    hpm1_target(state_document &state, event_loop &loop);

    void reset();

    /** The action is called for each event, as it happens. */
    void on_event(listener action) { listener_ = std::move(action); }

    uint8_t components_present() const;
    property_answer component_property(uint8_t id, uint8_t selector);
    uint8_t initiate(uint8_t components, uint8_t action);
    uint8_t upload(uint8_t number, uint32_t length, const byte_vector &block);
    uint8_t finish(uint8_t id, uint32_t image_length);
    uint8_t activate();
    uint8_t roll_back();
    uint8_t abort();
    status_answer status();

    /** What the component received in its last upload. */
    const byte_vector &received(uint8_t id) const;

private:
    /** The numbers of the commands that may take long. */
    enum command : uint8_t {
        none = 0,
        initiate_action = 0x31,
        upload_block = 0x32,
        finish_upload = 0x33,
        activation = 0x35
    };

    /**
     * A command that was answered with "in progress". It ends when the time is up and the polls have come, and has its
     * effect then.
     */
    struct long_command {
        bool time_is_up;
        uint32_t polls;
        std::function<void()> effect;
        timer_ptr due;
    };

    /** An upload under way. */
    struct transfer {
        uint8_t component;
        uint64_t blocks = 0; // taken; their number goes on counting modulo 256
        byte_vector last_block{};
    };

    uint8_t perform(command number, const std::string &kind, std::function<void()> effect);
    void complete_if_due();
    void fail(command number, uint8_t answer);
    bool busy();

    void begin_upload(uint8_t id);
    void take_block(const byte_vector &block);
    bool is_resent(uint8_t number, const byte_vector &block) const;
    uint8_t refuse(component_event event, uint8_t answer);
    void back_up(uint8_t components);
    void activate_components();
    void activate_component(uint8_t id);
    void run_version(uint8_t id, const json &version);
    json image_version(uint8_t id) const;

    bool present(uint8_t id) const;
    const json &component(uint8_t id) const;
    void set_component(uint8_t id, const std::string &key, json value);
    bool has_general(uint8_t id, uint8_t bit) const;
    bool all_have(uint8_t components, uint8_t bit) const;
    void set_progress(bool upgrading);
    void announce(component_event event, uint8_t id) const;
    void announce_all(component_event event, uint8_t components) const;

    state_document &state_;
    event_loop &loop_;
    listener listener_;

    std::optional<long_command> running_;
    command last_command_ = none;
    uint8_t last_code_ = ok;

    std::optional<transfer> transfer_;
    std::array<byte_vector, components_max> received_;
    uint8_t finished_ = 0;  // mask of the components that wait for activation
    uint8_t activated_ = 0; // mask of those that were activated last
};

} // namespace bdbus_sim
