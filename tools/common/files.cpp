// SPDX-License-Identifier: LGPL-2.1-or-later
// Whole files, read in large pieces and written beside their place first.
#include "common/files.hpp"

#include "common/descriptor.hpp"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>

namespace bdbus_tools
{

namespace
{

constexpr size_t piece_bytes = size_t{256} * 1024;

void write_all(const descriptor &file, std::string_view content, const std::string &path)
{
    while (!content.empty()) {
        const ssize_t count = check_errno(write(file.get(), content.data(), content.size()), path);
        content.remove_prefix(static_cast<size_t>(count));
    }
}

/** A file under a name of its own, which goes unless it was given its final one. */
class temporary_file
{
public:
    explicit temporary_file(const std::string &path)
        : path_(path), name_(path + ".XXXXXX"), file_(check_errno(mkostemp(name_.data(), O_CLOEXEC), path))
    {
    }
    ~temporary_file()
    {
        if (!name_.empty()) {
            unlink(name_.c_str());
        }
    }
    temporary_file(const temporary_file &) = delete;
    temporary_file &operator=(const temporary_file &) = delete;

    void write(std::string_view content) const
    {
        const mode_t mask = umask(0);
        umask(mask);
        check_errno(fchmod(file_.get(), 0666 & ~mask), path_);
        write_all(file_, content, path_);
        check_errno(fsync(file_.get()), path_);
    }

    void take_place()
    {
        check_errno(rename(name_.c_str(), path_.c_str()), path_);
        name_.clear();
    }

private:
    const std::string &path_;
    std::string name_;
    descriptor file_;
};

} // namespace

std::string read_file(const std::string &path, size_t limit)
{
    const descriptor file(check_errno(open(path.c_str(), O_RDONLY | O_CLOEXEC), path));
    std::string content;
    ssize_t count = 1;
    while (count > 0 && content.size() <= limit) {
        const size_t filled = content.size();
        content.resize(filled + std::min(limit - filled, piece_bytes - 1) + 1);
        count = check_errno(read(file.get(), content.data() + filled, content.size() - filled), path);
        content.resize(filled + static_cast<size_t>(count));
    }
    return content;
}

void write_file(const std::string &path, std::string_view content)
{
    struct stat status = {};
    if (stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
        return write_all(descriptor(check_errno(open(path.c_str(), O_WRONLY | O_CLOEXEC), path)), content, path);
    }
    temporary_file file(path);
    file.write(content);
    file.take_place();
}

} // namespace bdbus_tools
