// SPDX-License-Identifier: Apache-2.0
// log_file.h - the logs in one file: a text, a compressed text, or an archive with either.
//
// Every command reads logs through this, so that all of them accept the same forms. Compressed texts are known by their
// first bytes, whatever their names; archives by their names.
#ifndef QVCRASH_LOG_FILE_H
#define QVCRASH_LOG_FILE_H

#include "root_folder.h"

#include <ctime>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace qvcrash {

struct source_log {
    std::string_view name; // its path; for one in an archive the archive's, a colon, and its own
    std::string_view text;
    std::time_t when = 0; // last change
};

/** Whether a name is that of a log, also of a rotated or compressed one. */
bool is_log_name(std::string_view name);

/** Whether a name is that of an archive (tar, plain or compressed, or zip). */
bool is_archive_name(std::string_view name);

// The bytes of one log. Grows up to a limit and keeps its memory for the next log.
class text_buffer {
public:
    explicit text_buffer(std::size_t limit) : limit_(limit) {}

    std::string_view text() const { return {bytes_.get(), used_}; }
    bool is_full() const { return used_ == limit_; }
    void clear() { used_ = 0; }

    /**
     * Appends what `read_some` reads, up to the limit.
     * @param read_some  is given a place and its size; returns a number of bytes, 0 at the end, or less for an error
     * @param expected   the size after which no further call is needed
     * @return false after an error
     */
    bool fill(const std::function<long(char *place, std::size_t size)> &read_some,
              std::size_t expected = static_cast<std::size_t>(-1));

private:
    void grow();

    std::size_t limit_;
    std::size_t used_ = 0;
    std::size_t room_ = 0;
    std::unique_ptr<char[]> bytes_;
};

/** Whether a text is compressed by gzip, xz, bzip2 or zstd. */
bool is_compressed(std::string_view text);

/**
 * Decompresses into a buffer, which then has what could be read.
 * @param is_cut  whether only the beginning of the compressed text is there, which is then no problem
 * @return what is wrong with the compressed text; empty when it is whole
 */
std::string decompress(std::string_view compressed, bool is_cut, text_buffer *text);

// Pipes make a reader of many files wait; one that is given as the only log may be a pipe on purpose.
enum class pipes { refused, read };

class log_file_reader {
public:
    using visitor = std::function<void(const source_log &log)>;

    /** @param max_log_size  how much of each log is read */
    log_file_reader(std::size_t max_log_size, pipes allowed)
        : allowed_(allowed), stored_(max_log_size), plain_(max_log_size)
    {}

    /**
     * Reads each log of a file. Of an archive's members those whose names have no ".log" in them are left out. Logs
     * that could be read in part are visited too.
     * @return why not everything could be read; empty when it could
     */
    std::string read(const std::string &path, const visitor &visit);

private:
    std::string read_archive(int fd, const std::string &path, const visitor &visit);
    std::string visit_stored(std::string_view name, std::time_t when, const visitor &visit);

    pipes allowed_;
    text_buffer stored_; // as the file has it
    text_buffer plain_;  // decompressed
};

} // namespace qvcrash

#endif
