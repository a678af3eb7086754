// The scheduler: timer order, cancel, one-shot reads and re-arming, events,
// and signals handled inside the loop.
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <string>
#include <vector>

#include "lib/sigevent.h"
#include "lib/thread.h"

namespace {

struct Loop : ::testing::Test {
    thread_master *m = thread_master_create();
    ~Loop() override { thread_master_free(m); }
    void run_for(int ms) {
        for (int waited = 0; waited < ms; waited += 5) {
            thread_run_once(m, 5);
        }
    }
};

std::vector<std::string> fired;

int record(thread *t) {
    fired.emplace_back(THREAD_ARG(t) ? static_cast<const char *>(THREAD_ARG(t)) : "");
    return 0;
}

int on_event_placeholder(thread *) {
    return 0;
}

TEST_F(Loop, TimersFireInExpiryOrderNotInsertionOrder) {
    fired.clear();
    thread_add_timer_msec(m, record, const_cast<char *>("30"), 30);
    thread_add_timer_msec(m, record, const_cast<char *>("10"), 10);
    thread_add_timer_msec(m, record, const_cast<char *>("20"), 20);
    EXPECT_EQ(thread_count(m), 3u);
    run_for(100);
    EXPECT_EQ(fired, (std::vector<std::string>{"10", "20", "30"}));
    EXPECT_EQ(thread_count(m), 0u);
}

TEST_F(Loop, CancelledTimerNeverFires) {
    fired.clear();
    thread *t = thread_add_timer_msec(m, record, const_cast<char *>("x"), 5);
    thread_add_timer_msec(m, record, const_cast<char *>("y"), 10);
    thread_cancel(t);
    thread_cancel(nullptr);  // ignored
    run_for(50);
    EXPECT_EQ(fired, (std::vector<std::string>{"y"}));
}

TEST_F(Loop, TimerTaskNameIsTheFunctionName) {
    thread *t = thread_add_timer(m, record, nullptr, 60);
    ASSERT_NE(t, nullptr);
    EXPECT_STREQ(t->funcname, "record");
    thread_cancel(t);
}

int rearm_after(thread *t) {
    fired.emplace_back(static_cast<const char *>(THREAD_ARG(t)));
    thread_add_timer(t->master, record, const_cast<char *>("again"), 7);
    return 0;
}

TEST_F(Loop, TimersShowTheIntervalTheyWereArmedWith) {
    thread *a = thread_add_timer(m, record, nullptr, 300);
    thread_add_timer_msec(m, record, nullptr, 1500);
    thread_add_event(m, on_event_placeholder, nullptr, 0);
    EXPECT_EQ(thread_timer_intervals(m), (std::vector<long>{1500, 300000}));
    thread_cancel(a);
    EXPECT_EQ(thread_timer_intervals(m), (std::vector<long>{1500}));
    EXPECT_EQ(thread_timer_intervals(nullptr), std::vector<long>{});
}

TEST_F(Loop, FiringTimersByHandRunsThemInTheirOrderWithoutWaiting) {
    fired.clear();
    thread_add_timer(m, record, const_cast<char *>("hour"), 3600);
    thread_add_timer(m, rearm_after, const_cast<char *>("minute"), 60);
    thread_add_timer(m, record, const_cast<char *>("second"), 1);
    thread_add_event(m, on_event_placeholder, nullptr, 0);  // not a timer: stays
    EXPECT_EQ(thread_fire_timers(m), 3);
    EXPECT_EQ(fired, (std::vector<std::string>{"second", "minute", "hour"}));
    // The timer armed by a callback waits for the next call.
    EXPECT_EQ(thread_timer_intervals(m), std::vector<long>{7000});
    EXPECT_EQ(thread_count(m), 2u);
    EXPECT_EQ(thread_fire_timers(m), 1);
    EXPECT_EQ(fired.back(), "again");
    EXPECT_EQ(thread_fire_timers(m), 0);
    EXPECT_EQ(thread_run_once(m, 0), 1);  // the event
    EXPECT_EQ(thread_count(m), 0u);
}

thread *victim = nullptr;
int cancel_victim(thread *) {
    thread_cancel(victim);
    return 0;
}

TEST_F(Loop, ATimerCancelledByAnEarlierOneDoesNotRun) {
    fired.clear();
    thread_add_timer(m, cancel_victim, nullptr, 1);
    victim = thread_add_timer(m, record, const_cast<char *>("victim"), 2);
    EXPECT_EQ(thread_fire_timers(m), 1);
    EXPECT_TRUE(fired.empty());
    EXPECT_EQ(thread_count(m), 0u);
}

int reads = 0;
int rearm = 0;
thread_master *read_master = nullptr;

int on_read(thread *t) {
    char c;
    ++reads;
    if (read(THREAD_FD(t), &c, 1) != 1) {
        return -1;
    }
    if (rearm-- > 0) {
        thread_add_read(read_master, on_read, nullptr, THREAD_FD(t));
    }
    return 0;
}

TEST_F(Loop, ReadTaskFiresOnceUnlessItsCallbackRearms) {
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    read_master = m;
    reads = 0;
    rearm = 0;
    ASSERT_EQ(write(p[1], "ab", 2), 2);
    thread_add_read(m, on_read, nullptr, p[0]);
    run_for(30);
    EXPECT_EQ(reads, 1);  // one byte still waits, but nobody asked again
    rearm = 1;
    thread_add_read(m, on_read, nullptr, p[0]);
    ASSERT_EQ(write(p[1], "c", 1), 1);
    run_for(30);
    EXPECT_EQ(reads, 3);
    EXPECT_EQ(thread_count(m), 0u);
    close(p[0]);
    close(p[1]);
}

TEST_F(Loop, ReadOnInvalidDescriptorIsRefused) {
    EXPECT_EQ(thread_add_read(m, on_read, nullptr, -1), nullptr);
}

int event_val = 0;
int on_event(thread *t) {
    event_val = THREAD_VAL(t);
    return 0;
}

TEST_F(Loop, EventRunsOnNextTurnWithItsValue) {
    event_val = 0;
    thread_add_event(m, on_event, nullptr, 42);
    EXPECT_EQ(event_val, 0);
    EXPECT_EQ(thread_run_once(m, 0), 1);
    EXPECT_EQ(event_val, 42);
}

thread *self_task = nullptr;
int cancel_self(thread *t) {
    thread_cancel(t);  // no effect on a running task
    self_task = t;
    return 0;
}

TEST_F(Loop, CancellingTheRunningTaskIsHarmless) {
    thread_add_event(m, cancel_self, nullptr, 0);
    thread_run_once(m, 0);
    EXPECT_NE(self_task, nullptr);
    EXPECT_EQ(thread_count(m), 0u);
}

int on_break(thread *t) {
    thread_break(t->master);
    return 0;
}

TEST_F(Loop, ThreadMainReturnsAfterBreak) {
    thread_add_timer_msec(m, on_break, nullptr, 5);
    thread *later = thread_add_timer(m, record, nullptr, 3600);
    thread_main(m);
    EXPECT_EQ(thread_count(m), 1u);
    thread_cancel(later);
}

int handled = 0;
void usr2_handler() {
    ++handled;
}

TEST_F(Loop, SignalHandlersRunInsideTheLoop) {
    handled = 0;
    static zsignal_t sigs[] = {{SIGUSR2, usr2_handler, 0}};
    signal_init(m, 1, sigs);
    raise(SIGUSR2);
    EXPECT_EQ(handled, 0);  // only marked so far
    for (int i = 0; i < 1000 && handled == 0; ++i) {
        thread_run_once(m, 10);
    }
    EXPECT_EQ(handled, 1);
    raise(SIGPIPE);  // ignored process-wide
    SUCCEED();
}

int kept_reads = 0;
int cancel_on_read = 0;  // the read whose callback cancels its own task

int on_kept_read(thread *t) {
    char c;
    if (read(THREAD_FD(t), &c, 1) != 1) {
        return -1;
    }
    if (++kept_reads == cancel_on_read) {
        thread_cancel(t);
    }
    return 0;
}

TEST_F(Loop, KeptReadTaskFiresUntilCancelledUnderOneHandle) {
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    kept_reads = 0;
    cancel_on_read = 0;
    thread *t = thread_add_read_repeat(m, on_kept_read, nullptr, p[0]);
    ASSERT_NE(t, nullptr);
    ASSERT_EQ(write(p[1], "abc", 3), 3);
    for (int turn = 1; turn <= 3; ++turn) {
        EXPECT_EQ(thread_run_once(m, 1000), 1);
        EXPECT_EQ(kept_reads, turn);
    }
    EXPECT_EQ(thread_count(m), 1u);       // still armed, the same task
    EXPECT_EQ(thread_run_once(m, 0), 0);  // nothing to read: nothing runs
    ASSERT_EQ(write(p[1], "d", 1), 1);
    EXPECT_EQ(thread_run_once(m, 1000), 1);
    EXPECT_EQ(kept_reads, 4);
    thread_cancel(t);
    EXPECT_EQ(thread_count(m), 0u);
    ASSERT_EQ(write(p[1], "e", 1), 1);
    EXPECT_EQ(thread_run_once(m, 0), 0);
    EXPECT_EQ(kept_reads, 4);
    close(p[0]);
    close(p[1]);
}

TEST_F(Loop, KeptReadTaskCancelledByItsOwnCallbackEndsThen) {
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    kept_reads = 0;
    cancel_on_read = 2;
    thread_add_read_repeat(m, on_kept_read, nullptr, p[0]);
    ASSERT_EQ(write(p[1], "abcd", 4), 4);
    EXPECT_EQ(thread_run_once(m, 1000), 1);
    EXPECT_EQ(thread_run_once(m, 1000), 1);
    EXPECT_EQ(kept_reads, 2);
    EXPECT_EQ(thread_count(m), 0u);
    EXPECT_EQ(thread_run_once(m, 0), 0);  // two bytes wait, nobody reads them
    EXPECT_EQ(kept_reads, 2);
    close(p[0]);
    close(p[1]);
}

TEST_F(Loop, KeptReadOnInvalidDescriptorIsRefused) {
    EXPECT_EQ(thread_add_read_repeat(m, on_kept_read, nullptr, -1), nullptr);
}

std::vector<std::string> order;
void after_callback() {
    order.emplace_back("after");
}
int note_run(thread *t) {
    order.emplace_back(static_cast<const char *>(THREAD_ARG(t)));
    return 0;
}
int note_and_break(thread *t) {
    note_run(t);
    thread_break(t->master);
    return 0;
}

TEST_F(Loop, AfterHookRunsAsTheLoopStartsAndAfterEveryCallback) {
    order.clear();
    thread_set_after_hook(m, after_callback);
    thread_add_event(m, note_run, const_cast<char *>("event"), 0);
    thread_add_timer_msec(m, note_and_break, const_cast<char *>("timer"), 1);
    thread_main(m);
    EXPECT_EQ(order, (std::vector<std::string>{"after", "event", "after", "timer", "after"}));
    thread_set_after_hook(m, nullptr);
    thread_add_event(m, note_run, const_cast<char *>("alone"), 0);
    thread_run_once(m, 0);
    EXPECT_EQ(order.back(), "alone");
}

}  // namespace
