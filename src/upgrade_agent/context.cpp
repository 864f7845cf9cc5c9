// SPDX-License-Identifier: LGPL-2.1-or-later
// A context's life: the file comes in whole, and goes with the context. The agent's status starts and ends with it.
#include "bus/guard.hpp"
#include "upgrade_agent/state.hpp"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace bdbus
{

namespace
{

void set_status(uint8_t stage, uint8_t progress)
{
    current_status.stage.store(stage, std::memory_order_relaxed);
    current_status.progress.store(progress, std::memory_order_relaxed);
}

void log_short_read(const char *path, int64_t size, size_t got)
{
    syslog(LOG_ERR, "SW image %s read fail (size %d / return %d)\n", path, static_cast<int>(size),
           static_cast<int>(got));
}

/** Open for reading without ever waiting, as opening a pipe would. What cannot be sought, such as that, ends there. */
FILE *open_image(const char *path)
{
    const int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return nullptr;
    }
    fcntl(fd, F_SETFL, 0); // from here on it may wait
    FILE *file = fdopen(fd, "rb");
    if (file == nullptr) {
        close(fd);
    }
    return file;
}

/** Read an open file whole into the context. @return whether it was; else a line is logged. */
bool read_image(FILE *file, const char *path, bdbus_upgrade_agent_context &context)
{
    if (fseeko(file, 0, SEEK_END) != 0) {
        syslog(LOG_ERR, "SW image %s fseek fail at address 0\n", path);
        return false;
    }
    const int64_t size = ftello(file);
    if (size <= 0 || size > UINT32_MAX) {
        log_short_read(path, size, 0);
        return false;
    }
    context.image_size = static_cast<uint32_t>(size);
    context.image_data = static_cast<uint8_t *>(malloc(context.image_size));
    if (context.image_data == nullptr) {
        syslog(LOG_ERR, "SW image data buffer allocation fail\n");
        return false;
    }
    rewind(file);
    const size_t got = fread(context.image_data, 1, context.image_size, file);
    if (got != context.image_size) {
        log_short_read(path, size, got);
        return false;
    }
    return true;
}

bool load_image(const char *path, bdbus_upgrade_agent_context &context)
{
    FILE *file = open_image(path);
    if (file == nullptr) {
        syslog(LOG_ERR, "SW image file %s open fail\n", path);
        return false;
    }
    const bool loaded = read_image(file, path, context);
    fclose(file);
    return loaded;
}

void free_context(bdbus_upgrade_agent_context *context)
{
    free(context->image_data);
    free(context);
}

} // namespace

} // namespace bdbus

bdbus_upgrade_agent_context *bdbus_upgrade_agent_initialization(const char *path)
{
    const bdbus::uncancelled guard;
    bdbus::set_status(BDBUS_UPGRADE_AGENT_STAGE_IDLE, 0);
    auto *context = static_cast<bdbus_upgrade_agent_context *>(calloc(1, sizeof(bdbus_upgrade_agent_context)));
    if (context == nullptr) {
        syslog(LOG_ERR, "bdbus upgrade agent memory allocation fail\n");
        return nullptr;
    }
    if (path == nullptr) {
        syslog(LOG_ERR, "bdbus upgrade agent: file not found\n");
        return context;
    }
    if (!bdbus::load_image(path, *context)) {
        bdbus::free_context(context);
        syslog(LOG_ERR, "bdbus upgrade agent: file data read fail\n");
        return nullptr;
    }
    return context;
}

void bdbus_upgrade_agent_end(bdbus_upgrade_agent_context *context)
{
    if (context != nullptr) {
        bdbus::free_context(context);
    }
    bdbus::set_status(BDBUS_UPGRADE_AGENT_STAGE_IDLE, 0);
}

void bdbus_upgrade_agent_get_upgrade_stage_status(uint8_t *stage, uint8_t *progress)
{
    if (stage != nullptr) {
        *stage = bdbus::current_status.stage.load(std::memory_order_relaxed);
    }
    if (progress != nullptr) {
        *progress = bdbus::current_status.progress.load(std::memory_order_relaxed);
    }
}
