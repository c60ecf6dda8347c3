// SPDX-License-Identifier: Apache-2.0
#include "bundle.h"

#include "crash_log.h"
#include "log_file.h"
#include "module_file.h"
#include "root_folder.h"

#include <algorithm>
#include <archive.h>
#include <archive_entry.h>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

using namespace qv;

namespace qvcrash {
namespace {

using json = nlohmann::ordered_json;

constexpr char kFormat[] = "qvcrash-bundle-1";
constexpr std::size_t kMaxFileSize = 64 << 20;
constexpr off_t kConsoleTail = 256 << 10;
constexpr const char *kLogFolders[] = {"/etc/core", "/tmp/dump", "/flash/core"};
// Not the environment, which may hold secrets.
constexpr const char *kProcessFiles[] = {"maps", "limits", "status", "cmdline", "stat", "io", "wchan"};

std::string folder_of(const std::string &path)
{
    std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

std::string last_component(const std::string &path)
{
    return path.substr(path.rfind('/') + 1);
}

std::string time_text(const char *form)
{
    std::time_t now = std::time(nullptr);
    std::tm utc;
    char text[64];
    ::gmtime_r(&now, &utc);
    return std::string(text, std::strftime(text, sizeof text, form, &utc));
}

std::vector<std::string> names_in(const std::string &folder)
{
    std::vector<std::string> names;
    std::unique_ptr<DIR, int (*)(DIR *)> stream(::opendir(folder.c_str()), ::closedir);
    while (const dirent *entry = stream != nullptr ? ::readdir(stream.get()) : nullptr)
        names.emplace_back(entry->d_name);
    std::sort(names.begin(), names.end());
    return names;
}

class bundle_maker {
public:
    bool choose_process(int id)
    {
        std::string name;
        if (!read(root_folder("/proc/" + std::to_string(id)), "comm", &name)) {
            problem("there is no process " + std::to_string(id));
            return false;
        }
        id_ = id;
        process_ = name.substr(0, name.find('\n'));
        return true;
    }

    bool choose_log(const std::string &path)
    {
        std::string text;
        if (!read(root_folder(folder_of(path)), last_component(path), &text)) {
            problem(path + " cannot be read, or leads out of its folder");
            return false;
        }
        std::optional<crash_log> log = parse_stored(text, path);
        if (!log)
            return false;
        if (log->kind == log_kind::unknown) {
            problem(path + " is no log");
            return false;
        }
        id_ = log->details && log->details->pid ? log->details->pid : log->id;
        process_ = log->process;
        note_modules(*log);
        add("logs/" + last_component(path), std::move(text));
        return true;
    }

    void collect()
    {
        for (const char *folder : kLogFolders)
            collect_logs(folder);
        collect_console();
        if (!id_)
            return;
        add_file(root_folder("/etc"), "mtrace" + std::to_string(*id_) + ".log", "traces/", links::none);
        collect_process();
    }

    std::string default_name() const
    {
        std::string name = (process_.empty() ? "process" : process_) + (id_ ? std::to_string(*id_) : "");
        std::replace(name.begin(), name.end(), '/', '_');
        return name + '-' + time_text("%Y%m%dT%H%M%SZ") + ".tar.zst";
    }

    void write(const std::string &path)
    {
        add("modules.txt", modules_text());
        add("manifest.json", manifest().dump(2, ' ', false, json::error_handler_t::replace) + '\n');
        base::unique_fd file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
        if (!file || !write_archive(file.get())) {
            problem(path + ": " + std::strerror(errno));
            return;
        }
        result_.path = path;
    }

    void problem(std::string text) { result_.problems.push_back(std::move(text)); }
    bundle_result take() { return std::move(result_); }

private:
    using links = root_folder::links;

    bool read(const root_folder &folder, const std::string &name, std::string *text, links allowed = links::inside)
    {
        base::unique_fd file = folder.open(name, allowed);
        return file && read_all(file, kMaxFileSize, text);
    }

    void add(const std::string &name, std::string content) { members_.emplace(name, std::move(content)); }

    // Missing files are not worth a word; refused ones are.
    void add_file(const root_folder &folder, const std::string &name, const std::string &where, links allowed)
    {
        std::string text, path = folder.display(name);
        struct stat status;
        if (read(folder, name, &text, allowed))
            add(where + name, std::move(text));
        else if (::lstat(path.c_str(), &status) == 0)
            problem(path + " cannot be read, or is a link that leads out of its folder");
    }

    // Nothing, with a problem noted, for a compressed log of which nothing can be read.
    std::optional<crash_log> parse_stored(std::string_view stored, const std::string &path)
    {
        if (!is_compressed(stored))
            return parse_crash_log(stored, path);
        text_buffer plain(kMaxFileSize);
        std::string trouble = decompress(stored, stored.size() == kMaxFileSize, &plain);
        if (!trouble.empty())
            problem(path + ' ' + trouble);
        return plain.text().empty() ? std::nullopt : std::optional(parse_crash_log(plain.text(), path));
    }

    void note_modules(const crash_log &log)
    {
        if (!log.details)
            return;
        for (const detailed_module &module : log.details->modules)
            modules_.emplace(module.path, module.build_id);
    }

    // Names begin with the process's name and id, which run together.
    void collect_logs(const std::string &path)
    {
        root_folder folder(path);
        std::string start = process_ + (id_ ? std::to_string(*id_) : "") + '.';
        for (const std::string &name : names_in(path)) {
            bool is_wanted = id_ && !process_.empty() && name.starts_with(start) && !members_.contains("logs/" + name);
            std::string text;
            if (is_wanted && read(folder, name, &text)) {
                if (std::optional<crash_log> log = parse_stored(text, path + '/' + name))
                    note_modules(*log);
                add("logs/" + name, std::move(text)); // as it is, compressed or not
            } else if (is_wanted) {
                problem(path + '/' + name + " cannot be read, or is a link that leads out of its folder");
            }
        }
    }

    void collect_console()
    {
        base::unique_fd file = root_folder("/etc").open("consolelog", links::none);
        struct stat status;
        std::string text;
        if (!file || ::fstat(file.get(), &status) != 0)
            return;
        ::lseek(file.get(), std::max<off_t>(0, status.st_size - kConsoleTail), SEEK_SET);
        if (read_all(file, kConsoleTail, &text))
            add("console.txt", std::move(text));
    }

    // The id may belong to another process by now.
    void collect_process()
    {
        root_folder folder("/proc/" + std::to_string(*id_));
        std::string name;
        if (!read(folder, "comm", &name) || name != process_ + '\n')
            return;
        for (const char *file : kProcessFiles)
            add_file(folder, file, "process/", links::none);
        collect_modules();
    }

    // "START-END PERMISSIONS OFFSET DEVICE INODE PATH"
    void collect_modules()
    {
        root_folder root("/proc/" + std::to_string(*id_) + "/root");
        auto maps = members_.find("process/maps");
        std::string_view rest = maps != members_.end() ? std::string_view(maps->second) : std::string_view();
        while (!rest.empty()) {
            std::string_view line = rest.substr(0, rest.find('\n'));
            rest.remove_prefix(std::min(line.size() + 1, rest.size()));
            std::size_t slash = line.find('/');
            if (slash == std::string_view::npos || line.find(" r-xp ") == std::string_view::npos)
                continue;
            std::string path(line.substr(slash));
            base::unique_fd file = root.open(path);
            modules_.emplace(path, file ? build_id_of(file) : std::string());
        }
    }

    std::string modules_text() const
    {
        std::string text;
        for (const auto &[path, id] : modules_)
            text += (id.empty() ? "-" : id) + ' ' + path + '\n';
        return text;
    }

    json manifest() const
    {
        utsname system = {};
        ::uname(&system);
        json object = {{"format", kFormat},
                       {"process", process_},
                       {"id", id_ ? json(*id_) : json()},
                       {"made", time_text("%Y-%m-%dT%H:%M:%SZ")},
                       {"node", system.nodename},
                       {"kernel", std::string(system.release) + ' ' + system.machine},
                       {"files", json::array()},
                       {"problems", result_.problems}};
        for (const auto &[name, content] : members_)
            object["files"].push_back({{"name", name}, {"size", content.size()}});
        return object;
    }

    bool write_archive(int fd)
    {
        std::unique_ptr<archive, decltype(&::archive_write_free)> writer(::archive_write_new(), ::archive_write_free);
        bool is_good = ::archive_write_add_filter_zstd(writer.get()) == ARCHIVE_OK &&
                       ::archive_write_set_format_pax_restricted(writer.get()) == ARCHIVE_OK &&
                       ::archive_write_open_fd(writer.get(), fd) == ARCHIVE_OK;
        for (const auto &[name, content] : members_)
            is_good = is_good && write_member(writer.get(), name, content);
        if (!is_good || ::archive_write_close(writer.get()) != ARCHIVE_OK) {
            errno = ::archive_errno(writer.get());
            return false;
        }
        return true;
    }

    bool write_member(archive *writer, const std::string &name, const std::string &content)
    {
        std::unique_ptr<archive_entry, decltype(&::archive_entry_free)> entry(::archive_entry_new(),
                                                                              ::archive_entry_free);
        ::archive_entry_set_pathname(entry.get(), name.c_str());
        ::archive_entry_set_size(entry.get(), static_cast<la_int64_t>(content.size()));
        ::archive_entry_set_filetype(entry.get(), AE_IFREG);
        ::archive_entry_set_perm(entry.get(), 0600);
        ::archive_entry_set_mtime(entry.get(), std::time(nullptr), 0);
        result_.files.push_back(name);
        return ::archive_write_header(writer, entry.get()) == ARCHIVE_OK &&
               ::archive_write_data(writer, content.data(), content.size()) == static_cast<la_ssize_t>(content.size());
    }

    std::string process_;
    std::optional<int> id_;
    std::map<std::string, std::string> members_; // by name, in the order in which the archive has them
    std::map<std::string, std::string> modules_; // path to build id
    bundle_result result_;
};

std::optional<int> process_id(const std::string &text)
{
    bool is_number = !text.empty() && text.size() < 10 && text.find_first_not_of("0123456789") == std::string::npos;
    return is_number ? std::optional<int>(std::stoi(text)) : std::nullopt;
}

} // namespace

bundle_result write_bundle(const std::string &subject, const std::string &output)
{
    bundle_maker maker;
    std::optional<int> id = process_id(subject);
    if (id ? maker.choose_process(*id) : maker.choose_log(subject)) {
        maker.collect();
        maker.write(output.empty() ? maker.default_name() : output);
    }
    return maker.take();
}

} // namespace qvcrash
