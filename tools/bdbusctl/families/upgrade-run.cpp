// SPDX-License-Identifier: LGPL-2.1-or-later
// Whole upgrades: the stages of the upgrade agent one after the other, the upload on a thread of its own.
#include "families/upgrade-run.hpp"

#include "families/config-status.hpp"
#include "families/target.hpp"
#include "frame/held-signals.hpp"
#include "frame/progress.hpp"
#include "frame/report.hpp"
#include "frame/text.hpp"
#include "names/hpm1-image.hpp"
#include "names/hpm1-names.hpp"

#include <bdbus/config.h>
#include <bdbus/upgrade_agent.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <memory>
#include <optional>
#include <span>
#include <thread>

namespace bdbusctl
{

namespace
{

using context = bdbus_upgrade_agent_context;
using steady = std::chrono::steady_clock;

/** A call on a thread of its own, which can be left behind: the upload of a block has no time limit. */
class background_call
{
public:
    explicit background_call(std::function<int32_t()> call)
    {
        std::thread([call = std::move(call), state = state_] {
            state->result = call();
            state->finished.store(true, std::memory_order_release);
        }).detach();
    }

    bool finished() const { return state_->finished.load(std::memory_order_acquire); }
    int32_t result() const { return state_->result; }

private:
    struct shared_state {
        std::atomic<bool> finished{false};
        int32_t result = 0;
    };
    std::shared_ptr<shared_state> state_ = std::make_shared<shared_state>();
};

/**
 * The image's actions, carried out so that they can be canceled. To the upgrade stage an aborted finish looks like one
 * that ended well, and it would go on to the next component. So it gets one record at a time, with the image's header
 * put right before it, over what was carried out already.
 */
class cancellable_upload
{
public:
    cancellable_upload(const context &whole, const std::vector<hpm1_image::record> &records)
        : part_(whole), image_(whole.image_data, whole.image_size)
    {
        for (const auto &record : records) {
            offsets_.push_back(record.offset);
        }
        const bytes header = image_.first(offsets_.empty() ? 0 : offsets_.front());
        header_.assign(header.begin(), header.end());
        offsets_.push_back(image_.size() - hpm1_image::digest_bytes);
    }

    /** The result of the first stage that failed, or 0. The image's header is back in its place then. */
    int32_t carry_out()
    {
        int32_t result = 0;
        for (size_t index = 0; index + 1 < offsets_.size() && result == 0 && !canceled_; index++) {
            const bytes part =
                image_.subspan(offsets_[index] - header_.size(),
                               header_.size() + offsets_[index + 1] - offsets_[index] + hpm1_image::digest_bytes);
            std::copy(header_.begin(), header_.end(), part.begin());
            part_.image_data = part.data();
            part_.image_size = static_cast<uint32_t>(part.size());
            result = bdbus_upgrade_agent_upgrade_stage(&part_);
        }
        std::copy(header_.begin(), header_.end(), image_.begin());
        return result;
    }

    /** No further record is begun. Any thread may call it. */
    void cancel() { canceled_ = true; }

    /** The component that is being uploaded, or was last. Any thread may ask. */
    uint8_t component() const { return __atomic_load_n(&part_.component_id, __ATOMIC_RELAXED); }

private:
    using bytes = std::span<uint8_t>;

    context part_;
    bytes image_;
    std::vector<uint8_t> header_;
    std::vector<size_t> offsets_; // of the records, and where they end
    std::atomic<bool> canceled_{false};
};

/**
 * Stops the upgrade on the target. A command that was just being sent may get there after it, so the abort is
 * repeated until the upload has ended.
 */
class target_abort
{
public:
    bool requested() const { return since_.has_value(); }
    bool running() const { return call_ && !call_->finished(); }
    bool succeeded() const { return call_ && call_->finished() && call_->result() == 0; }
    bool hopeless() const { return requested() && (impatient_ || steady::now() - *since_ > patience); }

    void request()
    {
        impatient_ = requested();
        if (!requested()) {
            since_ = steady::now();
        }
    }

    void proceed(bool upload_finished)
    {
        if (!requested() || running() || (call_ && (upload_finished || steady::now() - called_ < interval))) {
            return;
        }
        called_ = steady::now();
        call_.emplace(bdbus_upgrade_agent_abort);
    }

private:
    static constexpr std::chrono::seconds patience{20};
    static constexpr std::chrono::seconds interval{1};

    std::optional<steady::time_point> since_;
    steady::time_point called_;
    std::optional<background_call> call_;
    bool impatient_ = false;
};

struct planned_component {
    uint8_t id = 0;
    bool upgrade = false;
    std::string description;
    hpm1_version from{};
    hpm1_version to{};
    uint32_t bytes = 0;
    std::optional<hpm1_version> now;

    std::string name() const { return format("%u %s", id, description.c_str()); }
};

class upgrade
{
public:
    upgrade(const session &run, const upgrade_request &request) : run_(run), request_(request) {}

    void perform();

private:
    void check();
    void plan();
    void upload();
    std::vector<component_upload> planned_uploads() const;
    static void check_abort(const target_abort &abort, const outcome &seen);
    void activate();
    void read_new_versions();
    void show_nothing_to_upgrade() const;
    void show_result();

    void enter_stage(const char *name) { stage_ = name; }
    void stage(const char *name, const std::function<int32_t()> &work);
    void check_result(const outcome &seen);
    failure stage_failure(const outcome &seen) const;
    failure abandon();
    bool anything_to_upgrade() const { return context_->upgrade_mask != 0; }
    report component_report() const;
    json document(const char *result) const;

    struct context_end {
        void operator()(context *ended) const { bdbus_upgrade_agent_end(ended); }
    };

    const session &run_;
    const upgrade_request &request_;
    std::unique_ptr<context, context_end> context_;
    const char *stage_ = "";
    json stages_ = json::array();
    std::vector<hpm1_image::record> records_;
    std::vector<planned_component> components_;
};

void upgrade::perform()
{
    try {
        check();
        plan();
        if (!anything_to_upgrade()) {
            return show_nothing_to_upgrade();
        }
        enter_stage("confirmation");
        run_.confirm("This writes new firmware to the controller.");
        upload();
        activate();
        read_new_versions();
        show_result();
    } catch (failure &error) {
        error.error["stage"] = stage_;
        error.document = document("failed");
        throw;
    }
}

void upgrade::show_nothing_to_upgrade() const
{
    run_.remark("Nothing to upgrade: the controller holds these versions already.");
    if (run_.wants_json()) {
        run_.print(document("nothing-to-upgrade"));
    }
}

void upgrade::check()
{
    stage("initialization", [this] {
        context_.reset(bdbus_upgrade_agent_initialization(request_.image.c_str()));
        return context_ != nullptr ? 0 : -1;
    });
    context_->options = static_cast<uint8_t>((run_.verbose ? BDBUS_UPGRADE_AGENT_VERBOSE : 0) |
                                             (request_.force ? BDBUS_UPGRADE_AGENT_FORCE : 0) |
                                             (request_.skip_identity ? BDBUS_UPGRADE_AGENT_SKIP_IDENTITY : 0));
    stage("integrity check", [this] { return bdbus_upgrade_agent_validate_image_integrity(context_.get()); });
    // With the verbose option it logs what the image is.
    run_.observe([this] { return bdbus_upgrade_agent_get_hpm1_header(context_.get()) != nullptr ? 0 : -1; });
    stage("target check", bdbus_upgrade_agent_target_check);
    stage("preparation", [this] { return bdbus_upgrade_agent_preparation_stage(context_.get()); });
    stage("pre-upgrade check", [this] { return bdbus_upgrade_agent_pre_upgrade_check(context_.get()); });
}

void upgrade::plan()
{
    enter_stage("plan");
    records_ = hpm1_image::read({context_->image_data, context_->image_size}).records;
    for (const auto &record : records_) {
        if (!record.is_upload()) {
            continue;
        }
        planned_component component;
        component.id = record.component();
        component.upgrade = (context_->upgrade_mask >> component.id & 1) != 0;
        component.description = require_property(run_, component.id, BDBUS_HPM1_PROPERTY_DESCRIPTION).text();
        component.from = require_property(run_, component.id, BDBUS_HPM1_PROPERTY_CURRENT_VERSION).version();
        component.to = record.firmware;
        component.bytes = record.length;
        components_.push_back(std::move(component));
    }
    if (!run_.wants_json() && !(run_.quiet && run_.yes)) {
        component_report().show();
    }
}

void upgrade::upload()
{
    enter_stage("upload");
    const held_signals signals;
    const capture running;
    progress shown(run_, planned_uploads());
    target_abort abort;
    const auto uploaded = std::make_shared<cancellable_upload>(*context_, records_);
    const background_call job([uploaded] { return uploaded->carry_out(); });
    while ((!job.finished() || abort.running()) && !abort.hopeless()) {
        constexpr std::chrono::milliseconds redraw{50};
        if (signals.wait(redraw)) {
            uploaded->cancel();
            abort.request();
        }
        abort.proceed(job.finished());
        uint8_t percent = 0;
        bdbus_upgrade_agent_get_upgrade_stage_status(nullptr, &percent);
        if (!job.finished()) {
            shown.update(uploaded->component(), percent);
        }
    }
    shown.end(job.finished() && job.result() == 0 && !abort.requested());
    const outcome seen{job.finished() ? job.result() : 0, capture::end()};
    run_.show_details(seen);
    if (!job.finished() || abort.running()) {
        throw abandon();
    }
    check_abort(abort, seen);
    check_result(seen);
    context_->component_id = uploaded->component(); // the activation stage asks for it
}

std::vector<component_upload> upgrade::planned_uploads() const
{
    std::vector<component_upload> uploads;
    for (const auto &component : components_) {
        if (component.upgrade) {
            uploads.push_back({component.id, component.name(), component.bytes});
        }
    }
    return uploads;
}

void upgrade::check_abort(const target_abort &abort, const outcome &seen)
{
    if (abort.succeeded()) {
        throw failure("interrupted; the upgrade was aborted on the target");
    }
    if (abort.requested()) {
        throw failure("interrupted; aborting the upgrade on the target failed: " + join(seen.faults(), "; "));
    }
}

/** The threads still use the context, so it stays. */
failure upgrade::abandon()
{
    static_cast<void>(context_.release());
    return failure("interrupted, but the target does not answer: its upgrade was not aborted");
}

void upgrade::activate()
{
    enter_stage("activation");
    run_.remark("Activating...");
    const outcome seen = run_.observe([this] { return bdbus_upgrade_agent_activation_stage(context_.get()); });
    // A rollback is no failure of the stage, but the new firmware does not run.
    if (seen.result == 0 && !seen.faults().empty()) {
        throw failed_with("activation did not succeed", join(seen.faults(), "; "));
    }
    check_result(seen);
}

void upgrade::read_new_versions()
{
    enter_stage("new versions");
    for (auto &component : components_) {
        try {
            component.now = require_property(run_, component.id, BDBUS_HPM1_PROPERTY_CURRENT_VERSION).version();
        } catch (const failure &error) {
            run_.warn(error.what());
        }
    }
}

void upgrade::show_result()
{
    if (run_.wants_json()) {
        run_.print(document("upgraded"));
        return;
    }
    if (!run_.quiet) {
        component_report().show();
    }
    run_.remark("Done.");
}

void upgrade::stage(const char *name, const std::function<int32_t()> &work)
{
    enter_stage(name);
    check_result(run_.observe(work));
}

void upgrade::check_result(const outcome &seen)
{
    stages_.push_back({{"stage", stage_}, {"result", seen.result}});
    if (seen.result != 0) {
        throw stage_failure(seen);
    }
}

failure upgrade::stage_failure(const outcome &seen) const
{
    std::string reason = join(seen.faults(), "; ");
    const bool of_config = reason.empty() && seen.result > 0;
    if (of_config) {
        reason = "controller identity: " + config_status_text(seen.result);
    }
    const bool no_bus = seen.bus_unreachable() || (of_config && seen.result == BDBUS_CONFIG_NO_BUS);
    failure error = failed_with(format("%s failed (%d)", stage_, seen.result), reason,
                                no_bus ? exit_status::no_bus : exit_status::failed);
    error.error["result"] = seen.result;
    return error;
}

report upgrade::component_report() const
{
    const bool activated =
        std::any_of(components_.begin(), components_.end(), [](const auto &each) { return each.now; });
    report table(run_, {{"id", "ID", true},
                        {"description", "DESCRIPTION"},
                        {"from", "FROM"},
                        {"from_hex"},
                        {"to", "TO"},
                        {"to_hex"},
                        {"bytes", "BYTES", true},
                        {"upgrade", "UPGRADE"},
                        {"now", activated ? "NOW" : nullptr},
                        {"now_hex"}});
    for (const auto &each : components_) {
        table.add({each.id, each.description, version_cell(each.from), version_hex_cell(each.from),
                   version_cell(each.to), version_hex_cell(each.to), each.bytes, each.upgrade,
                   each.now ? version_cell(*each.now) : cell::none(),
                   each.now ? version_hex_cell(*each.now) : cell::none()});
    }
    return table;
}

json upgrade::document(const char *result) const
{
    return {{"result", result},
            {"image", request_.image},
            {"stages", stages_},
            {"components", component_report().to_json()}};
}

} // namespace

void run_upgrade(const session &run, const upgrade_request &request)
{
    // A reader that leaves must not end the program in the middle of an upload.
    signal(SIGPIPE, SIG_IGN);
    upgrade(run, request).perform();
}

} // namespace bdbusctl
