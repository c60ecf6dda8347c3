// SPDX-License-Identifier: Apache-2.0
// root_folder.h - files below a folder that is used as another machine's root.
//
// Every path, "..", and symbolic link is resolved inside the folder, so that an unpacked image reads as it would on its
// own machine and nothing outside it is opened, whatever the log says.
#ifndef QVCRASH_ROOT_FOLDER_H
#define QVCRASH_ROOT_FOLDER_H

#include "base/unique_fd.h"

#include <functional>
#include <string>
#include <string_view>

namespace qvcrash {

class root_folder {
public:
    /** A folder that is used as a root. "/" is this machine. */
    explicit root_folder(std::string path);

    /** False when there is no such folder. */
    bool exists() const { return static_cast<bool>(folder_); }

    const std::string &path() const { return path_; }

    /** Which symbolic links are followed: those that stay inside when the folder is taken for the root, or none. */
    enum class links { inside, none };

    /** Opens a regular file for reading; an empty handle when there is none. */
    qv::base::unique_fd open(std::string_view path, links allowed = links::inside) const;

    /** Where a path of the other machine lies on this one, for messages. */
    std::string display(std::string_view path) const;

    /**
     * Looks for a file by its last component, in breadth, until `accepts` is true for one.
     * @param accepts  is given the path below the root and the open file
     * @return its path below the root, or an empty text. At most 100,000 entries are read.
     */
    std::string find(std::string_view name,
                     const std::function<bool(const std::string &, const qv::base::unique_fd &)> &accepts) const;

private:
    std::string path_;
    qv::base::unique_fd folder_;
};

/** Reads a whole file, at most `limit` bytes of it. False when it cannot be read. */
bool read_all(const qv::base::unique_fd &file, std::size_t limit, std::string *content);

} // namespace qvcrash

#endif
