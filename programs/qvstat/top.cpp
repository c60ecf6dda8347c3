// SPDX-License-Identifier: Apache-2.0
#include "top.h"

#include "report.h"
#include "sample.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#define NCURSES_NOMACROS // its macros have the names of ordinary functions
#include <curses.h>
#include <string>
#include <unistd.h>

namespace qvstat {
namespace {

// A column by which the screen can be sorted, the largest first.
struct sort_order {
    char key;
    const char *name;
    double (*value)(const process_sample &);
};

constexpr sort_order kOrders[] = {
    {'h', "heap", [](const process_sample &s) { return static_cast<double>(s.heap.bytes); }},
    {'b', "blocks", [](const process_sample &s) { return static_cast<double>(s.heap.blocks); }},
    {'a', "allocations", [](const process_sample &s) { return s.alloc_rate.value_or(0); }},
    {'f', "frees", [](const process_sample &s) { return s.free_rate.value_or(0); }},
    {'o', "objects", [](const process_sample &s) { return static_cast<double>(s.objects()); }},
    {'p', "process", [](const process_sample &s) { return -static_cast<double>(s.process->process()); }},
};

constexpr int kHeadLines = 1;

class top_screen {
public:
    explicit top_screen(SCREEN *screen) : screen_(screen)
    {
        ::cbreak();
        ::noecho();
        ::curs_set(0);
        ::keypad(stdscr, true);
    }
    ~top_screen()
    {
        ::endwin();
        ::delscreen(screen_);
    }
    top_screen(const top_screen &) = delete;
    top_screen &operator=(const top_screen &) = delete;

    void run(double interval)
    {
        auto step = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::duration<double>(interval));
        machine_sample now = read_machine();
        for (;;) {
            sort(&now);
            draw(now);
            auto end = std::chrono::steady_clock::now() + step;
            if (!handle_keys(&now, end))
                return;
            machine_sample before = std::move(now);
            now = read_machine();
            set_rates(&now, before);
        }
    }

private:
    void sort(machine_sample *machine) const
    {
        std::stable_sort(
            machine->processes.begin(), machine->processes.end(),
            [this](const process_sample &a, const process_sample &b) { return order_->value(a) > order_->value(b); });
    }

    void draw(const machine_sample &machine) const
    {
        ::erase();
        std::string head =
            "qvstat: " + std::to_string(machine.processes.size()) + " processes by " + order_->name + "; sort by";
        for (const sort_order &order : kOrders)
            head += std::string(" ") + order.key + ' ' + order.name;
        if (!machine.refused.empty())
            head += "; not readable: " + std::to_string(machine.refused.size());
        ::mvaddnstr(0, 0, (head + "; q quit").c_str(), COLS);
        std::string table = list_text(machine);
        int row = kHeadLines;
        for (std::size_t at = 0; at < table.size() && row < LINES; row++) {
            std::size_t end = table.find('\n', at);
            if (row == kHeadLines)
                ::attron(A_REVERSE);
            ::mvaddnstr(row, 0, table.substr(at, end - at).c_str(), COLS);
            ::attroff(A_REVERSE);
            at = end + 1;
        }
        ::refresh();
    }

    // Until the end of the interval. False when the user quits.
    bool handle_keys(machine_sample *machine, std::chrono::steady_clock::time_point end)
    {
        for (;;) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
            if (left.count() <= 0)
                return true;
            ::timeout(static_cast<int>(left.count()));
            int key = ::getch();
            if (key == 'q')
                return false;
            auto order = std::find_if(std::begin(kOrders), std::end(kOrders),
                                      [key](const sort_order &each) { return each.key == key; });
            if (order != std::end(kOrders))
                order_ = order;
            else if (key != KEY_RESIZE)
                continue;
            sort(machine);
            draw(*machine);
        }
    }

    SCREEN *screen_;
    const sort_order *order_ = &kOrders[0];
};

} // namespace

bool show_top(double interval)
{
    if (::isatty(STDIN_FILENO) == 0 || ::isatty(STDOUT_FILENO) == 0)
        return false;
    SCREEN *screen = ::newterm(nullptr, stdout, stdin);
    if (screen == nullptr)
        return false;
    top_screen(screen).run(interval);
    return true;
}

} // namespace qvstat
