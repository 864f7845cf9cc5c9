// SPDX-License-Identifier: LGPL-2.1-or-later
// The upgrade agent on hostile images and a hostile target: all its stages, on an image and on answers to its commands
// that are both the fuzzer's. An input is a count, so many bytes to answer with in turn, and the image.
#include <bdbus/config.h>
#include <bdbus/upgrade_agent.h>

#include <sys/mman.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <span>
#include <string>

static std::span<const uint8_t> answers;
static size_t answered;

static uint8_t next_answer()
{
    return answers.empty() ? 0 : answers[answered++ % answers.size()];
}

/** Answer a command: its completion code, most often a good one, or that it failed. */
static int32_t answer(uint8_t &completion_code)
{
    const uint8_t kind = next_answer();
    completion_code = (kind & 1) == 0 ? 0 : next_answer();
    return kind == 0xFF ? -EIO : 1;
}

// The target's commands.

int32_t bdbus_hpm1_target_upgrade_caps(bdbus_hpm1_target_caps_rec *rec)
{
    rec->global_capabilities = next_answer();
    rec->upgrade_timeout = next_answer();
    rec->self_test_timeout = next_answer();
    rec->rollback_timeout = next_answer();
    rec->components_present = next_answer();
    return answer(rec->completion_code);
}

int32_t bdbus_hpm1_component_props(bdbus_hpm1_component_props_rec *rec)
{
    for (uint8_t &byte : rec->data) {
        byte = next_answer();
    }
    return answer(rec->completion_code);
}

int32_t bdbus_hpm1_get_upgrade_status(bdbus_hpm1_upgrade_status_rec *rec)
{
    rec->last_completion_code = next_answer();
    return answer(rec->completion_code);
}

int32_t bdbus_hpm1_query_self_test_results(bdbus_hpm1_self_test_rec *rec)
{
    rec->result1 = next_answer();
    rec->result2 = next_answer();
    return answer(rec->completion_code);
}

int32_t bdbus_hpm1_query_rollback_status(bdbus_hpm1_rollback_status_rec *rec)
{
    rec->rollback_status = next_answer();
    return answer(rec->completion_code);
}

int32_t bdbus_hpm1_upload_fw_block(bdbus_hpm1_upload_block_rec *rec)
{
    if (rec->length > sizeof(rec->data)) {
        abort(); // a block that the room cannot hold
    }
    return answer(rec->completion_code);
}

int32_t bdbus_hpm1_abort_fw_upgrade(bdbus_hpm1_basic_rec *rec)
{
    return answer(rec->completion_code);
}

int32_t bdbus_hpm1_init_upgrade_action(bdbus_hpm1_upgrade_action_rec *rec)
{
    return answer(rec->completion_code);
}

int32_t bdbus_hpm1_finish_fw_upload(bdbus_hpm1_finish_upload_rec *rec)
{
    return answer(rec->completion_code);
}

int32_t bdbus_hpm1_activate_fw(bdbus_hpm1_basic_rec *rec)
{
    return answer(rec->completion_code);
}

int32_t bdbus_hpm1_init_manual_rollback(bdbus_hpm1_basic_rec *rec)
{
    return answer(rec->completion_code);
}

// The controller's identity and firmware version.

int32_t bdbus_config_get_unsigned(const char * /*key*/, uint32_t *value)
{
    *value = next_answer();
    return next_answer() == 0xFF ? BDBUS_CONFIG_ERRNO | EIO : BDBUS_CONFIG_OK;
}

// The C library's clock, where a sleep takes no time, and its log, where a text is only formatted.

static time_t now;

extern "C" time_t time(time_t *out) noexcept
{
    if (out != nullptr) {
        *out = now;
    }
    return now;
}

extern "C" int nanosleep(const timespec *duration, timespec * /*remaining*/)
{
    now += duration->tv_sec + 1;
    return 0;
}

extern "C" void syslog(int /*priority*/, const char *format, ...)
{
    char line[4096];
    va_list values;
    va_start(values, format);
    vsnprintf(line, sizeof(line), format, values);
    va_end(values);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const int file = memfd_create("image", MFD_CLOEXEC);
    static const std::string path = "/proc/self/fd/" + std::to_string(file);
    const size_t count = size == 0 ? 0 : std::min<size_t>(data[0], size - 1);
    answers = {data + 1, count};
    answered = 0;
    if (size == 0 || ftruncate(file, 0) != 0 || pwrite(file, data + 1 + count, size - 1 - count, 0) < 0) {
        return -1;
    }

    bdbus_upgrade_agent_context *context = bdbus_upgrade_agent_initialization(path.c_str());
    if (context != nullptr) {
        context->options = next_answer();
        bdbus_upgrade_agent_validate_image_integrity(context);
        bdbus_upgrade_agent_get_hpm1_header(context);
        bdbus_upgrade_agent_get_brs_header(context);
        bdbus_upgrade_agent_target_check();
        bdbus_upgrade_agent_preparation_stage(context);
        bdbus_upgrade_agent_pre_upgrade_check(context);
        bdbus_upgrade_agent_upgrade_stage(context);
        bdbus_upgrade_agent_activation_stage(context);
        bdbus_upgrade_agent_abort();
        bdbus_upgrade_agent_end(context);
    }
    return 0;
}
