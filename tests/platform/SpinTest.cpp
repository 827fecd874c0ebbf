// When a thread looks for the next message before it sleeps, and when it had better not.
#include "../../platform/linux/Spin.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>

using nexnipc::Spin;
using namespace std::chrono_literals;

TEST(SpinTest, WhatDoesNotPayIsTriedEverMoreSeldomUntilItPays) {
    Spin spin(1us);
    unsigned tried = 0;
    for (unsigned wait = 0; wait < 5000; ++wait) {
        bool looked = false;
        EXPECT_FALSE(spin.finds([&looked] { return looked = true, false; }));
        tried += looked ? 1 : 0;
    }
    EXPECT_GE(tried, 5U);
    EXPECT_LE(tried, 15U);
    unsigned waits = 1;
    while (waits < 5000 && !spin.finds([] { return true; })) ++waits;
    EXPECT_LE(waits, 1025U);
    for (unsigned wait = 0; wait < 10; ++wait) EXPECT_TRUE(spin.finds([] { return true; }));
    EXPECT_FALSE(Spin(0us).finds([] { return true; })) << "switched off";
}

namespace {

// How many look at the same time, each from within the look of another.
long lookers(long most) {
    long inner = 0;
    const bool tried = Spin(1us).finds([&] { return inner = most > 1 ? lookers(most - 1) : 0, true; });
    return tried ? inner + 1 : 0;
}

}  // namespace

TEST(SpinTest, AProcessorIsLeftToTheOtherSide) {
    const long processors = sysconf(_SC_NPROCESSORS_ONLN);
    EXPECT_EQ(lookers(processors + 2), std::max(processors - 1, 1L));
    EXPECT_EQ(lookers(1), 1) << "and given back";
    cpu_set_t usual;
    ASSERT_EQ(sched_getaffinity(0, sizeof usual, &usual), 0);
    EXPECT_EQ(nexnipc::canRunApart(getpid()), CPU_COUNT(&usual) > 1);
    cpu_set_t one;
    CPU_ZERO(&one);
    for (int cpu = 0; cpu < CPU_SETSIZE && CPU_COUNT(&one) == 0; ++cpu) {
        if (CPU_ISSET(cpu, &usual)) CPU_SET(cpu, &one);
    }
    ASSERT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
    EXPECT_FALSE(nexnipc::canRunApart(getpid()));
    EXPECT_EQ(sched_setaffinity(0, sizeof usual, &usual), 0);
}
