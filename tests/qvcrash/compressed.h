// SPDX-License-Identifier: Apache-2.0
// compressed.h - texts compressed in each form that qvcrash reads, without programs that may be missing.
#ifndef LIBCOMMON_TESTS_COMPRESSED_H
#define LIBCOMMON_TESTS_COMPRESSED_H

#include <archive.h>
#include <archive_entry.h>
#include <gtest/gtest.h>
#include <string>

namespace support {

struct compression {
    const char *ending;
    int (*add_filter)(archive *);
};

inline constexpr compression kForms[] = {{".gz", ::archive_write_add_filter_gzip},
                                         {".xz", ::archive_write_add_filter_xz},
                                         {".bz2", ::archive_write_add_filter_bzip2},
                                         {".zst", ::archive_write_add_filter_zstd}};

inline void write_compressed(const std::string &path, const compression &form, const std::string &text)
{
    archive *writer = ::archive_write_new();
    archive_entry *entry = ::archive_entry_new();
    ::archive_entry_set_pathname(entry, "text");
    ::archive_entry_set_filetype(entry, AE_IFREG);
    ASSERT_EQ(ARCHIVE_OK, form.add_filter(writer));
    ::archive_write_set_format_raw(writer);
    ::archive_write_set_bytes_in_last_block(writer, 1); // no padding
    ASSERT_EQ(ARCHIVE_OK, ::archive_write_open_filename(writer, path.c_str()));
    ASSERT_EQ(ARCHIVE_OK, ::archive_write_header(writer, entry));
    ASSERT_EQ(static_cast<la_ssize_t>(text.size()), ::archive_write_data(writer, text.data(), text.size()));
    ASSERT_EQ(ARCHIVE_OK, ::archive_write_close(writer));
    ::archive_entry_free(entry);
    ::archive_write_free(writer);
}

} // namespace support

#endif
