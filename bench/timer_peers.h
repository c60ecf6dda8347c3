// SPDX-License-Identifier: Apache-2.0
// timer_peers.h - one interface to the timers of other libraries, for comparison with the library's.
//
// A set holds `pending` timers far in the future, numbered from 0, and after them `due` timers that are not started.
// start(i, us) and stop(i) start and stop a timer, run() fires what is due. Containers that are no timers read the
// clock at each start, which a timer needs to compute the expiry.
#ifndef LIBCOMMON_BENCH_TIMER_PEERS_H
#define LIBCOMMON_BENCH_TIMER_PEERS_H

#include "atimer.h"
#include "heap.h"
#include "stimer.h"

#include <benchmark/benchmark.h>
#include <boost/heap/d_ary_heap.hpp>
#include <cstdint>
#include <ctime>
#include <map>
#include <memory>
#include <vector>
#ifdef HAVE_EV
#include <ev.h>
#endif
#ifdef HAVE_EVENT
#include <event2/event.h>
#include <event2/event_struct.h>
#endif
#ifdef HAVE_UV
#include <uv.h>
#endif

namespace bench {

inline unsigned long fired;

inline void count(void *)
{
    fired++;
}

inline std::int64_t now_us()
{
    timespec ts;
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * std::int64_t{1000000} + ts.tv_nsec / 1000;
}

class Ours {
public:
    explicit Ours(std::size_t timers) : timers_(timers)
    {
        stimer_context_init(&context_);
        for (stimer &timer : timers_)
            init_stimer(&timer, &context_, 0, count, nullptr);
    }
    ~Ours() { stimer_context_fini(&context_); }
    void start(std::size_t i, std::int64_t us)
    {
        timers_[i].interval = {us / 1000000, us % 1000000};
        start_stimer(&timers_[i]);
    }
    void stop(std::size_t i) { stop_stimer(&timers_[i]); }
    void run() { process_stimer(&context_); }

private:
    void *context_;
    std::vector<stimer> timers_;
};

class Wheel {
public:
    explicit Wheel(std::size_t timers) : timers_(timers)
    {
        atimer_init(&wheel_, 3, 10);
        for (atimer &timer : timers_)
            init_atimer(&timer, 1, count, nullptr);
    }
    ~Wheel()
    {
        for (int i = 0; i < wheel_.nlevels; i++)
            std::free(wheel_.levels[i].buckets);
        std::free(wheel_.levels);
    }
    // A microsecond is a tick.
    void start(std::size_t i, std::int64_t us)
    {
        timers_[i].expire = static_cast<unsigned>(us);
        start_atimer(&wheel_, &timers_[i]);
    }
    void stop(std::size_t i) { stop_atimer(&timers_[i]); }
    void run() { per_tick_call(&wheel_); }
    atimer_context &wheel() { return wheel_; }

private:
    atimer_context wheel_;
    std::vector<atimer> timers_;
};

// An indexed binary heap.
class Binary {
public:
    explicit Binary(std::size_t timers) : timers_(timers) {}
    void start(std::size_t i, std::int64_t us)
    {
        timers_[i].expire = now_us() + us;
        heap_.push_back(&timers_[i]);
        up(heap_.size() - 1);
    }
    void stop(std::size_t i) { remove(timers_[i].position); }
    void run()
    {
        std::int64_t now = now_us();
        while (!heap_.empty() && heap_[0]->expire <= now) {
            remove(0);
            count(nullptr);
        }
    }

private:
    struct timer {
        std::int64_t expire;
        std::size_t position;
        void *rest[6]; // as large as the library's
    };
    void put(std::size_t at, timer *t) { heap_[at] = t, t->position = at; }
    void up(std::size_t at)
    {
        timer *t = heap_[at];
        for (; at > 0 && t->expire < heap_[(at - 1) / 2]->expire; at = (at - 1) / 2)
            put(at, heap_[(at - 1) / 2]);
        put(at, t);
    }
    void down(std::size_t at)
    {
        timer *t = heap_[at];
        for (std::size_t child; (child = 2 * at + 1) < heap_.size(); at = child) {
            if (child + 1 < heap_.size() && heap_[child + 1]->expire < heap_[child]->expire)
                child++;
            if (t->expire <= heap_[child]->expire)
                break;
            put(at, heap_[child]);
        }
        put(at, t);
    }
    void remove(std::size_t at)
    {
        timer *last = heap_.back();
        heap_.pop_back();
        if (at == heap_.size())
            return;
        put(at, last);
        if (at > 0 && last->expire < heap_[(at - 1) / 2]->expire)
            up(at);
        else
            down(at);
    }
    std::vector<timer> timers_;
    std::vector<timer *> heap_;
};

class BoostHeap {
public:
    explicit BoostHeap(std::size_t timers) : handles_(timers) {}
    void start(std::size_t i, std::int64_t us) { handles_[i] = heap_.push(now_us() + us); }
    void stop(std::size_t i) { heap_.erase(handles_[i]); }
    void run()
    {
        std::int64_t now = now_us();
        while (!heap_.empty() && heap_.top() <= now) {
            heap_.pop();
            count(nullptr);
        }
    }

private:
    using heap = boost::heap::d_ary_heap<std::int64_t, boost::heap::arity<4>, boost::heap::mutable_<true>,
                                         boost::heap::compare<std::greater<>>>;
    heap heap_;
    std::vector<heap::handle_type> handles_;
};

class Multimap {
public:
    explicit Multimap(std::size_t timers) : places_(timers) {}
    void start(std::size_t i, std::int64_t us) { places_[i] = map_.emplace(now_us() + us, i); }
    void stop(std::size_t i) { map_.erase(places_[i]); }
    void run()
    {
        std::int64_t now = now_us();
        while (!map_.empty() && map_.begin()->first <= now) {
            map_.erase(map_.begin());
            count(nullptr);
        }
    }

private:
    std::multimap<std::int64_t, std::size_t> map_;
    std::vector<std::multimap<std::int64_t, std::size_t>::iterator> places_;
};

#ifdef HAVE_EV
class Ev {
public:
    explicit Ev(std::size_t timers) : loop_(ev_loop_new(EVFLAG_AUTO)), timers_(timers)
    {
        for (ev_timer &timer : timers_)
            ev_init(&timer, [](struct ev_loop *, ev_timer *, int) { count(nullptr); });
    }
    ~Ev() { ev_loop_destroy(loop_); }
    void start(std::size_t i, std::int64_t us)
    {
        ev_timer_set(&timers_[i], static_cast<double>(us) * 1e-6, 0.);
        ev_timer_start(loop_, &timers_[i]);
    }
    void stop(std::size_t i) { ev_timer_stop(loop_, &timers_[i]); }
    void run() { ev_run(loop_, EVRUN_NOWAIT); }

private:
    struct ev_loop *loop_;
    std::vector<ev_timer> timers_;
};
#endif

#ifdef HAVE_EVENT
class Event {
public:
    explicit Event(std::size_t timers) : base_(event_base_new()), timers_(timers)
    {
        for (event &timer : timers_)
            evtimer_assign(
                &timer, base_, [](evutil_socket_t, short, void *) { count(nullptr); }, nullptr);
    }
    ~Event()
    {
        for (event &timer : timers_)
            event_del(&timer);
        event_base_free(base_);
    }
    void start(std::size_t i, std::int64_t us)
    {
        timeval tv = {us / 1000000, us % 1000000};
        evtimer_add(&timers_[i], &tv);
    }
    void stop(std::size_t i) { evtimer_del(&timers_[i]); }
    void run() { event_base_loop(base_, EVLOOP_NONBLOCK); }

private:
    event_base *base_;
    std::vector<event> timers_;
};
#endif

#ifdef HAVE_UV
class Uv {
public:
    explicit Uv(std::size_t timers) : timers_(timers)
    {
        uv_loop_init(&loop_);
        for (uv_timer_t &timer : timers_)
            uv_timer_init(&loop_, &timer);
    }
    ~Uv()
    {
        for (uv_timer_t &timer : timers_)
            uv_close(reinterpret_cast<uv_handle_t *>(&timer), nullptr);
        uv_run(&loop_, UV_RUN_DEFAULT);
        uv_loop_close(&loop_);
    }
    void start(std::size_t i, std::int64_t us)
    {
        uv_timer_start(
            &timers_[i], [](uv_timer_t *) { count(nullptr); }, static_cast<std::uint64_t>(us) / 1000, 0);
    }
    void stop(std::size_t i) { uv_timer_stop(&timers_[i]); }
    void run() { uv_run(&loop_, UV_RUN_NOWAIT); }

private:
    uv_loop_t loop_;
    std::vector<uv_timer_t> timers_;
};
#endif

inline constexpr std::size_t kDue = 1000; // at once

// kDue timers besides those pending are started and fire in one call. The time is per timer.
template <typename Timers>
void start_and_fire(benchmark::State &state, Timers &timers, std::size_t pending)
{
    for (auto _ : state) {
        unsigned long before = fired;
        for (std::size_t i = 0; i < kDue; i++)
            timers.start(pending + i, 0);
        while (fired - before < kDue)
            timers.run();
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kDue));
}

// Calls what(name, type), the type as a null pointer, for each installed library.
template <typename What>
void with_each_peer(What what)
{
    what("boost_d_ary_heap", static_cast<BoostHeap *>(nullptr));
    what("multimap", static_cast<Multimap *>(nullptr));
#ifdef HAVE_EV
    what("libev", static_cast<Ev *>(nullptr));
#endif
#ifdef HAVE_EVENT
    what("libevent", static_cast<Event *>(nullptr));
#endif
#ifdef HAVE_UV
    what("libuv", static_cast<Uv *>(nullptr));
#endif
}

} // namespace bench

#endif
