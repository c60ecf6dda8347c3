// SPDX-License-Identifier: Apache-2.0
#include "details.h"

#include "text_scanner.h"

namespace qvcrash {
namespace {

constexpr std::string_view kBegin = "Details ";
constexpr std::string_view kEnd = "Details end";
constexpr std::size_t kMaxEntries = 20000; // of any list: logs are hostile input

template <typename List, typename Entry>
void append(List *list, Entry &&entry)
{
    if (list->size() < kMaxEntries)
        list->push_back(std::forward<Entry>(entry));
}

template <typename Number>
void read_into(text_scanner *text, std::optional<Number> *to, int base = 10)
{
    Number value;
    if (text->number(&value, base))
        *to = value;
}

class details_reader {
public:
    explicit details_reader(log_extent extent) : extent_(extent) {}

    log_details take() { return std::move(details_); }

    void read(std::string_view line)
    {
        text_scanner text(line);
        if (!read_for_signature(text) && extent_ == log_extent::everything && !read_other(text) &&
            !read_thread_line(line))
            append(&details_.lines, std::string(line));
    }

private:
    bool read_for_signature(text_scanner text)
    {
        if (text.skip("abort  : "))
            details_.abort_message = text.rest();
        else if (text.skip("cache  : "))
            read_misuse(text);
        else if (text.skip("module : "))
            read_module(text, false);
        else if (text.skip("gone   : "))
            read_module(text, true);
        else if (text.skip("found  : "))
            read_found(text, &details_.found);
        else if (text.skip("self   : "))
            read_self(text);
        else if (text.skip("note   : "))
            read_note(text);
        else
            return false;
        return true;
    }

    bool read_other(text_scanner text)
    {
        if (text.skip("signal : "))
            read_signal(text);
        else if (text.skip("time   : "))
            read_into(&text, &details_.time);
        else if (text.skip("arg0   : "))
            read_into(&text, &details_.first_argument, 16);
        else if (text.skip("range  : "))
            read_range(text);
        else if (text.skip("exe    : "))
            details_.program = text.rest();
        else if (text.skip("stack  : "))
            append(&details_.stack, std::string(text.rest()));
        else if (text.skip("code   : "))
            append(&details_.code_bytes, std::string(text.rest()));
        else if (text.skip("deadlock: "))
            append(&details_.deadlocks, std::string(text.rest()));
        else
            return false;
        return true;
    }

    void read_signal(text_scanner text)
    {
        int number;
        if (!text.number(&number))
            return;
        text.skip(" code ");
        read_into(&text, &details_.code);
        if (text.skip(" from pid ")) {
            read_into(&text, &details_.sender);
            text.skip(" uid ");
            read_into(&text, &details_.sender_uid);
        } else if (text.skip(" address ")) {
            read_into(&text, &details_.address, 16);
        }
    }

    void read_self(text_scanner text)
    {
        text.skip("pid ");
        read_into(&text, &details_.pid);
        text.skip(" tid ");
        read_into(&text, &details_.tid);
        if (text.skip(" name "))
            details_.thread_name = text.rest();
    }

    void read_note(text_scanner text)
    {
        int thread;
        if (text.number(&thread) && text.skip(" "))
            append(&details_.notes, std::pair(thread, std::string(text.rest())));
    }

    void read_misuse(text_scanner text)
    {
        cache_misuse misuse;
        if (!text.skip("code ") || !text.number(&misuse.code) || !text.skip(" object ") ||
            !text.number(&misuse.object, 16) || !text.skip(" guard ") || !text.number(&misuse.guard, 16) ||
            !text.skip(" name "))
            return;
        misuse.cache = text.rest();
        details_.misuse = std::move(misuse);
    }

    void read_range(text_scanner text)
    {
        std::uint64_t start, end;
        if (!text.number(&start, 16) || !text.number(&end, 16) || start >= end)
            return;
        details_.stack_start = start;
        details_.stack_end = end;
    }

    void read_module(text_scanner text, bool is_gone)
    {
        detailed_module module;
        if (!text.number(&module.bias, 16) || !text.number(&module.end, 16))
            return;
        module.build_id = text.word();
        // Logs are hostile: the id becomes a path.
        if (module.build_id.find_first_not_of("0123456789abcdef") != std::string::npos)
            module.build_id.clear();
        if (!text.skip(" "))
            return;
        module.path = text.rest();
        module.is_gone = is_gone;
        append(&details_.modules, std::move(module));
    }

    static void read_found(text_scanner text, std::vector<found_word> *found)
    {
        found_word word;
        if (text.number(&word.place, 16) && text.number(&word.address, 16))
            append(found, word);
    }

    // A thread's line, and the lines about it, which begin with a blank.
    bool read_thread_line(std::string_view line)
    {
        text_scanner text(line);
        if (text.skip("thread : "))
            return read_thread(text);
        if (details_.threads.empty())
            return false;
        detailed_thread &thread = details_.threads.back();
        if (text.skip(" call  : ")) {
            read_into(&text, &thread.system_call);
        } else if (text.skip(" waits : ")) {
            read_into(&text, &thread.waits_at, 16);
            text.skip(" holds ");
            text.number(&thread.wait_value, 16);
            if (text.skip(" owner "))
                read_into(&text, &thread.owner);
        } else if (text.skip(" at    : sp ") || text.skip(" walk  : sp ")) {
            read_into(&text, &thread.sp, 16);
            text.skip(" pc ");
            read_into(&text, &thread.pc, 16);
        } else if (text.skip(" found : ")) {
            read_found(text, &thread.found);
        } else if (text.skip(" walk  : none, ")) {
            thread.walk_problem = text.rest();
        } else if (text.skip(" frame : ")) {
            read_found(text, &thread.walk);
        } else {
            return false;
        }
        return true;
    }

    bool read_thread(text_scanner text)
    {
        detailed_thread thread;
        if (!text.number(&thread.id))
            return false;
        std::string_view state = text.word();
        if (!state.empty())
            thread.state = state.front();
        text.skip(" ");
        thread.name = text.rest();
        append(&details_.threads, std::move(thread));
        return true;
    }

    log_extent extent_;
    log_details details_;
};

// How much of what follows whole details is the rest of an older log's: up to its own last line, of which the new
// details may have left only the end.
std::size_t size_of_older_rest(std::string_view text)
{
    std::string_view rest = text, first = next_line(rest);
    if (!first.empty() && kEnd.ends_with(first))
        return text.size() - rest.size();
    while (!rest.empty()) {
        if (next_line(rest) == kEnd)
            return text.size() - rest.size();
    }
    return 0;
}

} // namespace

std::string_view without_deleted_mark(std::string_view path)
{
    constexpr std::string_view kMark = " (deleted)";
    if (path.ends_with(kMark))
        path.remove_suffix(kMark.size());
    return path;
}

std::optional<log_details> take_details(std::string *text, std::string *tail, log_extent extent)
{
    std::size_t begin = text->starts_with(kBegin) ? 0 : text->find("\nDetails ");
    if (begin == std::string::npos)
        return {};
    begin += begin != 0 || text->front() == '\n' ? 1 : 0;
    std::string_view rest = std::string_view(*text).substr(begin);
    text_scanner title(next_line(rest));
    int version;
    if (!title.skip(kBegin) || !title.number(&version) || title.rest() != ":")
        return {};
    details_reader reader(extent);
    bool is_complete = false;
    while (!rest.empty() && !is_complete) {
        std::string_view line = next_line(rest);
        if (line == kEnd)
            is_complete = true;
        else
            reader.read(line);
    }
    log_details details = reader.take();
    details.version = version;
    details.is_complete = is_complete;
    std::size_t older = is_complete ? size_of_older_rest(rest) : 0;
    std::string after(rest.substr(older));
    tail->insert(0, rest.substr(0, older));
    text->erase(begin);
    text->append(after);
    return details;
}

} // namespace qvcrash
