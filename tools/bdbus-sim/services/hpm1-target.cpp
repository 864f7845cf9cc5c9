// SPDX-License-Identifier: LGPL-2.1-or-later
// The HPM.1 upgrade target: what each command does and answers.
#include "services/hpm1-target.hpp"

#include <bit>
#include <stdexcept>
#include <string>
#include <utility>

namespace bdbus_sim
{

namespace
{

constexpr size_t description_size = 12;
constexpr size_t image_bytes_max = 64U << 20;

/** The bits of a component's general property byte. */
enum general_bit : uint8_t {
    rollback_support = 0x02,
    preparation_support = 0x04,
    deferred_activation = 0x10,
    activation_followup = 0x20
};

enum selector : uint8_t {
    general = 0,
    current_version = 1,
    description = 2,
    rollback_version = 3,
    deferred_version = 4
};

enum action : uint8_t { backup = 0, prepare = 1, upload_for_upgrade = 2 };

template <typename Visit>
void for_each_component(uint8_t mask, Visit visit)
{
    for (uint8_t id = 0; id < hpm1_target::components_max; id++) {
        if ((mask >> id & 1) != 0) {
            visit(id);
        }
    }
}

json padded_description(const json &component)
{
    json bytes = json::array();
    for (char character : component["description"].get_ref<const std::string &>()) {
        bytes.push_back(static_cast<uint8_t>(character));
    }
    while (bytes.size() < description_size) {
        bytes.push_back(0);
    }
    return bytes;
}

json version(std::initializer_list<int> bytes)
{
    json full(bytes);
    while (full.size() < hpm1_target::version_size) {
        full.push_back(0);
    }
    return full;
}

json component_defaults(const char *name, const char *text, std::initializer_list<int> current,
                        std::initializer_list<int> backup_copy = {})
{
    bool has_backup = backup_copy.size() > 0;
    return {{"name", name},
            {"description", text},
            {"general", preparation_support | activation_followup | (has_backup ? rollback_support : 0)},
            {"version", version(current)},
            {"rollback_version", version(backup_copy)},
            {"deferred_version", version({})}};
}

json default_components()
{
    return {
        {"0", component_defaults("BmcUboot", "U-Boot", {1, 1}, {1, 0})},
        {"1", component_defaults("BmcFw", "BMC FW", {1, 5}, {1, 4})},
        {"2", component_defaults("BmcConf", "BMC config", {1, 0})},
        {"3", component_defaults("Fpga", "FPGA", {2, 3}, {2, 1})},
        {"4", component_defaults("Bios", "BIOS", {3, 12}, {3, 10})},
        {"5", component_defaults("Nvram", "NVRAM", {1, 2})},
        {"6", component_defaults("Cpld", "CPLD", {0, 9}, {0, 8})},
    };
}

/** Every component may be taken away, and the eighth may be added. */
json components_shape()
{
    json component = {{"name", "s64"}, {"description", "s11"}, {"general", "y"}};
    for (const char *key : {"version", "rollback_version", "deferred_version"}) {
        component[key] = "6y";
    }
    json shape;
    for (int id = 0; id < hpm1_target::components_max; id++) {
        shape[std::to_string(id) + "?"] = component;
    }
    return shape;
}

void add_target_section(state_document &state)
{
    json defaults = {{"hpm_version", 0},   {"global_capabilities", 3},
                     {"max_block", 1530},  {"over_length_code", hpm1_target::length_invalid},
                     {"long_result", 0},   {"rollback_status", 0},
                     {"rollback_code", 0}, {"bad_signatures", 0}};
    json shape = {{"hpm_version", "y"}, {"global_capabilities", "y"}, {"max_block", "u"},     {"over_length_code", "y"},
                  {"long_result", "y"}, {"rollback_status", "y"},     {"rollback_code", "y"}, {"bad_signatures", "y"}};
    for (const char *limit : {"upgrade_timeout", "self_test_timeout", "rollback_timeout", "inaccessibility_timeout"}) {
        defaults[limit] = 12; // in units of 5 seconds
        shape[limit] = "y";
    }
    for (const char *command : {"backup", "prepare", "upload", "finish", "activate", "block"}) {
        for (const char *delay : {"busy_ms", "busy_polls"}) {
            defaults[delay][command] = 0;
            shape[delay][command] = "u";
        }
    }
    defaults["components"] = default_components();
    shape["components"] = components_shape();
    state.add_section("target", defaults, shape);
}

} // namespace

hpm1_target::hpm1_target(state_document &state, event_loop &loop) : state_(state), loop_(loop)
{
    add_target_section(state);
}

void hpm1_target::reset()
{
    running_.reset();
    last_command_ = none;
    last_code_ = ok;
    transfer_.reset();
    received_.fill({});
    finished_ = activated_ = 0;
}

// ---- components

bool hpm1_target::present(uint8_t id) const
{
    return state_.at("/target/components").contains(std::to_string(id));
}

const json &hpm1_target::component(uint8_t id) const
{
    return state_.at("/target/components/" + std::to_string(id));
}

void hpm1_target::set_component(uint8_t id, const std::string &key, json value)
{
    state_.set("/target/components/" + std::to_string(id) + "/" + key, std::move(value));
}

bool hpm1_target::has_general(uint8_t id, uint8_t bit) const
{
    return present(id) && (component(id)["general"].get<uint8_t>() & bit) != 0;
}

bool hpm1_target::all_have(uint8_t components, uint8_t bit) const
{
    bool all = true;
    for_each_component(components, [&](uint8_t id) { all = all && has_general(id, bit); });
    return all;
}

void hpm1_target::announce(component_event event, uint8_t id) const
{
    if (listener_ && present(id)) {
        listener_(event, component(id));
    }
}

void hpm1_target::announce_all(component_event event, uint8_t components) const
{
    for_each_component(components, [&](uint8_t id) { announce(event, id); });
}

uint8_t hpm1_target::components_present() const
{
    unsigned mask = 0;
    for (uint8_t id = 0; id < components_max; id++) {
        mask |= present(id) ? 1U << id : 0U;
    }
    return static_cast<uint8_t>(mask);
}

hpm1_target::property_answer hpm1_target::component_property(uint8_t id, uint8_t selector)
{
    complete_if_due();
    if (!present(id)) {
        return {invalid_field};
    }
    switch (selector) {
    case general:
        return {ok, {component(id)["general"], 0}};
    case current_version:
        return {ok, component(id)["version"]};
    case description:
        return {ok, padded_description(component(id))};
    case rollback_version:
        return has_general(id, rollback_support) ? property_answer{ok, component(id)["rollback_version"]}
                                                 : property_answer{not_in_this_state};
    case deferred_version:
        return has_general(id, deferred_activation) ? property_answer{ok, component(id)["deferred_version"]}
                                                    : property_answer{not_in_this_state};
    default:
        return {invalid_field};
    }
}

// ---- long-duration commands

uint8_t hpm1_target::perform(command number, const std::string &kind, std::function<void()> effect)
{
    std::chrono::milliseconds busy_time(state_.get<uint32_t>("/target/busy_ms/" + kind));
    auto polls = state_.get<uint32_t>("/target/busy_polls/" + kind);
    if (busy_time.count() == 0 && polls == 0) {
        effect();
        return ok;
    }
    last_command_ = number;
    auto time_is_up = [this] {
        running_->time_is_up = true;
        complete_if_due();
    };
    running_ = long_command{false, polls, std::move(effect), loop_.after(busy_time, time_is_up)};
    return in_progress;
}

void hpm1_target::complete_if_due()
{
    if (!running_ || running_->polls > 0 || !running_->time_is_up) {
        return;
    }
    auto done = std::move(*running_);
    running_.reset();
    last_code_ = state_.get<uint8_t>("/target/long_result");
    if (last_code_ == ok) {
        done.effect();
    } else {
        fail(last_command_, last_code_);
    }
}

void hpm1_target::fail(command number, uint8_t answer)
{
    if (number == activation) {
        announce_all(component_event::activation_failed, finished_);
    } else if (number != initiate_action) {
        refuse(answer == timed_out ? component_event::upload_timed_out : component_event::upload_failed, answer);
    }
}

bool hpm1_target::busy()
{
    complete_if_due();
    return running_.has_value();
}

hpm1_target::status_answer hpm1_target::status()
{
    if (!busy()) {
        return {last_command_, last_code_};
    }
    if (running_->polls > 0) {
        running_->polls--;
    }
    return {last_command_, in_progress};
}

// ---- actions

void hpm1_target::set_progress(bool upgrading)
{
    state_.set("/upgrade/in_progress", upgrading ? 1 : 0);
    if (!upgrading) {
        state_.set("/upgrade/component_id", 0);
    }
}

uint8_t hpm1_target::initiate(uint8_t components, uint8_t action)
{
    if (busy()) {
        return not_in_this_state;
    }
    if (components == 0 || (components & ~components_present()) != 0) {
        return invalid_component;
    }

    switch (action) {
    case backup:
        if (!all_have(components, rollback_support)) {
            return invalid_component;
        }
        set_progress(true);
        return perform(initiate_action, "backup", [this, components] { back_up(components); });
    case prepare:
        if (!all_have(components, preparation_support)) {
            return invalid_component;
        }
        set_progress(true);
        return perform(initiate_action, "prepare", [] {});
    case upload_for_upgrade:
        if (!std::has_single_bit(components)) {
            return invalid_field;
        }
        set_progress(true);
        return perform(initiate_action, "upload",
                       [this, id = std::countr_zero(components)] { begin_upload(static_cast<uint8_t>(id)); });
    default:
        return invalid_field;
    }
}

void hpm1_target::back_up(uint8_t components)
{
    for_each_component(components, [&](uint8_t id) {
        if (present(id)) {
            set_component(id, "rollback_version", component(id)["version"]);
        }
    });
}

void hpm1_target::begin_upload(uint8_t id)
{
    transfer_ = transfer{id};
    received_[id].clear();
    finished_ &= static_cast<uint8_t>(~(1U << id));
    state_.set("/upgrade/component_id", id);
}

uint8_t hpm1_target::upload(uint8_t number, uint32_t length, const byte_vector &block)
{
    if (busy() || !transfer_) {
        return not_in_this_state;
    }
    if (length != block.size()) {
        return length_invalid;
    }
    if (length > state_.get<uint32_t>("/target/max_block")) {
        return state_.get<uint8_t>("/target/over_length_code");
    }
    if (number != static_cast<uint8_t>(transfer_->blocks)) {
        return is_resent(number, block) ? ok : wrong_block;
    }
    if (received_[transfer_->component].size() + length > image_bytes_max) {
        return refuse(component_event::upload_failed, out_of_space);
    }
    return perform(upload_block, "block", [this, block] { take_block(block); });
}

void hpm1_target::take_block(const byte_vector &block)
{
    byte_vector &image = received_[transfer_->component];
    image.insert(image.end(), block.begin(), block.end());
    transfer_->last_block = block;
    transfer_->blocks++;
}

/** The last block once more, because its answer got lost. It is not stored twice. */
bool hpm1_target::is_resent(uint8_t number, const byte_vector &block) const
{
    return transfer_->blocks > 0 && number == static_cast<uint8_t>(transfer_->blocks - 1) &&
           block == transfer_->last_block;
}

uint8_t hpm1_target::finish(uint8_t id, uint32_t image_length)
{
    if (busy() || !transfer_) {
        return not_in_this_state;
    }
    if (id != transfer_->component || image_length != received_[id].size()) {
        return refuse(component_event::upload_failed, size_differs);
    }
    if ((state_.get<uint8_t>("/target/bad_signatures") >> id & 1) != 0) {
        return refuse(component_event::signature_bad, data_invalid);
    }
    return perform(finish_upload, "finish", [this, id] {
        transfer_.reset();
        finished_ |= static_cast<uint8_t>(1U << id);
        announce(component_event::received, id);
    });
}

/** Announces what happened to the component that is being uploaded, and passes the answer on. */
uint8_t hpm1_target::refuse(component_event event, uint8_t answer)
{
    if (transfer_) {
        announce(event, transfer_->component);
    }
    return answer;
}

// ---- activation and rollback

uint8_t hpm1_target::activate()
{
    if (busy() || transfer_ || finished_ == 0) {
        return not_in_this_state;
    }
    announce_all(component_event::activating, finished_);
    return perform(activation, "activate", [this] { activate_components(); });
}

void hpm1_target::activate_components()
{
    activated_ = 0;
    for_each_component(finished_ & components_present(), [this](uint8_t id) { activate_component(id); });
    finished_ = 0;
    set_progress(false);
    announce_all(component_event::restarted, activated_);
}

/**
 * The running version becomes the one to roll back to. With deferred activation the image waits for a restart, which
 * is not simulated.
 */
void hpm1_target::activate_component(uint8_t id)
{
    json next = image_version(id);
    if (has_general(id, deferred_activation)) {
        set_component(id, "deferred_version", next);
        return announce(component_event::deferred, id);
    }
    set_component(id, "rollback_version", component(id)["version"]);
    run_version(id, next);
    activated_ |= static_cast<uint8_t>(1U << id);
    announce(component_event::activated, id);
}

/** An image begins with its version. An image too short for one counts as the next minor version. */
json hpm1_target::image_version(uint8_t id) const
{
    const byte_vector &image = received_[id];
    if (image.size() >= version_size) {
        return std::vector<uint8_t>(image.begin(), image.begin() + version_size);
    }
    json version = component(id)["version"];
    version[1] = static_cast<uint8_t>(version[1].get<uint8_t>() + 1);
    return version;
}

uint8_t hpm1_target::roll_back()
{
    if (busy()) {
        return not_in_this_state;
    }
    uint8_t rolled_back = 0;
    for_each_component(activated_, [&](uint8_t id) {
        if (!has_general(id, rollback_support)) {
            return;
        }
        announce(component_event::rolling_back, id);
        json given_up = component(id)["version"];
        run_version(id, json(component(id)["rollback_version"]));
        set_component(id, "rollback_version", given_up);
        rolled_back |= static_cast<uint8_t>(1U << id);
        announce(component_event::rolled_back, id);
    });
    if (rolled_back == 0) {
        return not_in_this_state;
    }
    state_.set("/target/rollback_status", rolled_back);
    announce_all(component_event::restarted, rolled_back);
    return ok;
}

/** The controller's own firmware shows its version in the configuration too. */
void hpm1_target::run_version(uint8_t id, const json &version)
{
    set_component(id, "version", version);
    if (component(id)["name"] != "BmcFw") {
        return;
    }
    state_.set("/config/Firmware.Major", version[0]);
    state_.set("/config/Firmware.Minor", version[1]);
}

uint8_t hpm1_target::abort()
{
    unsigned given_up = finished_ | (transfer_ ? 1U << transfer_->component : 0U);
    for_each_component(static_cast<uint8_t>(given_up), [this](uint8_t id) { received_[id].clear(); });
    running_.reset();
    transfer_.reset();
    finished_ = 0;
    set_progress(false);
    announce_all(component_event::aborted, static_cast<uint8_t>(given_up));
    return ok;
}

const byte_vector &hpm1_target::received(uint8_t id) const
{
    if (id >= components_max) {
        throw std::invalid_argument("no such component: " + std::to_string(id));
    }
    return received_[id];
}

} // namespace bdbus_sim
