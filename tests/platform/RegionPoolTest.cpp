// When the memory of a shared region is used again, and when it must not be.
#include "../../platform/linux/AckSequence.h"

#include <sys/stat.h>
#include <unistd.h>

#include "PlatformTest.h"

using namespace nexnipc;

namespace {

constexpr std::size_t kSize = 100000;

struct stat statusOf(const Fd& region) {
    struct stat status {};
    EXPECT_EQ(fstat(region.get(), &status), 0);
    return status;
}

ino_t inodeOf(const Fd& region) { return statusOf(region).st_ino; }

struct Connection final : RegionUser {
    void announce() const noexcept override { ++announced; }
    mutable unsigned announced = 0;
};

// A pool that knows one process, over two connections.
struct World {
    World() { pool.meet(one), pool.meet(one); }

    Fd make(std::size_t size = kSize) { return Fd(pool.make("test", size)); }
    bool share(const Fd& region, std::uint32_t number, const Connection* over, bool toTheOne = true) {
        return pool.share(region.get(), over, number, toTheOne);
    }
    // Over the first connection, or also over the second.
    World& shared(const Fd& region, std::uint32_t number = 7) { return share(region, number, &first), *this; }
    World& sharedAgain(const Fd& region) { return share(region, 8, &second), *this; }
    World& acknowledged(std::uint32_t number = 7) { return pool.acknowledged(&first, number), *this; }
    World& acknowledgedBySecond(std::uint32_t number = 7) { return pool.acknowledged(&second, number), *this; }
    World& parted() { return pool.part(&first), *this; }
    // Makes, shares, is acknowledged, closes.
    ino_t use(std::size_t size = kSize) {
        const Fd region = make(size);
        EXPECT_TRUE(share(region, 1, &first));
        acknowledged(1);
        return inodeOf(region);
    }

    const Peer one{getpid(), getuid()};
    const Peer other{getppid(), getuid()};
    RegionPool pool;
    const Connection first, second;
};

}  // namespace

TEST(RegionPoolTest, OnlyItsOwnAcknowledgementFreesARegionThatIsClosed) {
    const struct {
        const char* name;
        void (*treat)(World& world, Fd& region);
        bool again;
    } cases[] = {
        {"acknowledged", [](World& w, Fd& r) { w.shared(r).acknowledged(); }, true},
        {"acknowledged and still open", [](World& w, Fd& r) { w.shared(r).acknowledged(), r.release(); }, false},
        {"never shared", [](World&, Fd&) {}, false},
        {"not acknowledged", [](World& w, Fd& r) { w.shared(r); }, false},
        {"another number's acknowledgement", [](World& w, Fd& r) { w.shared(r).acknowledged(6); }, false},
        {"another connection's", [](World& w, Fd& r) { w.shared(r).acknowledgedBySecond(); }, false},
        {"after the next share", [](World& w, Fd& r) { w.shared(r).shared(w.make(1), 8).acknowledged(); }, false},
        {"after the connection was given up", [](World& w, Fd& r) { w.shared(r).parted().acknowledged(); }, false},
        {"shared twice", [](World& w, Fd& r) { w.shared(r).sharedAgain(r).acknowledged().acknowledgedBySecond(8); },
         false},
        {"shared as a duplicate", [](World& w, Fd& r) { w.shared(Fd(dup(r.get()))).acknowledged(); }, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        World world;
        Fd region = world.make();
        const ino_t inode = inodeOf(region);
        c.treat(world, region);
        region.reset();
        const Fd next = world.make();
        EXPECT_EQ(inodeOf(next) == inode, c.again);
        EXPECT_EQ(statusOf(next).st_size, static_cast<off_t>(kSize));
    }
}

TEST(RegionPoolTest, NothingIsUsedAgainOnceASecondProcessIsMet) {
    const World sample;
    const struct {
        const char* name;
        Peer peer;
    } cases[] = {
        {"another process", sample.other},
        {"the same number as another user", {sample.one.pid, sample.one.uid + 1}},
        {"one that cannot be identified", {0, sample.one.uid}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        World world;
        const ino_t free = world.use();
        world.use(2 * kSize);
        const Fd used = world.make();
        ASSERT_EQ(inodeOf(used), free);
        const Fd mapped = world.make(3 * kSize);
        EXPECT_FALSE(world.pool.meet(c.peer));
        EXPECT_FALSE(world.pool.meet(world.one)) << "for good";
        EXPECT_FALSE(world.share(used, 5, &world.second, false)) << "holds what the first was sent";
        EXPECT_FALSE(world.share(used, 6, &world.second, false)) << "asked again";
        EXPECT_TRUE(world.share(used, 7, &world.first, true));
        EXPECT_TRUE(world.share(mapped, 8, &world.second, false)) << "nobody has seen it";
        world.pool.acknowledged(&world.second, 8);
        const Fd fresh = world.make(2 * kSize);
        EXPECT_EQ(statusOf(fresh).st_blocks, 0);
    }
}

TEST(RegionPoolTest, ARegionThatIsUsedAgainIsAnnouncedToWhomItWentBefore) {
    World world;
    world.use();
    EXPECT_EQ(world.first.announced, 0U);
    world.use();
    EXPECT_EQ(world.first.announced, 1U);
    world.use(1U << 20);
    world.use(1U << 20);
    EXPECT_EQ(world.first.announced, 1U) << "takes longer to fill than anybody waits for it";
    world.pool.part(&world.first);
    world.make();
    EXPECT_EQ(world.first.announced, 1U) << "is gone";
    EXPECT_EQ(world.second.announced, 0U);
}

TEST(RegionPoolTest, AnAnnouncementIsABareFrameOrNone) {
    PacketSocket near, far;
    ASSERT_EQ(PacketSocket::pair(near, far), 0);
    const Peer self{getpid(), getuid()};
    AckSequence(self, near, false).announce();
    AckSequence(self, near, true).announce();
    FrameHeader frame;
    Fd none;
    EXPECT_EQ(far.receiveInto(frame, nullptr, 0, none, Wait::No), 0);
    EXPECT_EQ(frame.type, FrameType::Announce);
    EXPECT_EQ(far.receiveInto(frame, nullptr, 0, none, Wait::No), -EAGAIN);
}

TEST(RegionPoolTest, LittleIsKeptAndNothingWithoutAConnection) {
    World world;
    const auto holdsOpen = [] {
        std::size_t bytes = 0;
        for (int descriptor = 3; descriptor < 256; ++descriptor) {
            struct stat status {};
            if (fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink == 0)
                bytes += static_cast<std::size_t>(status.st_size);
        }
        return bytes;
    };
    const std::size_t before = holdsOpen();
    for (std::size_t size = kSize; size <= 20 * kSize; size += kSize) world.use(size);
    world.use(5U << 20);
    world.use(5U << 20);
    EXPECT_GT(holdsOpen(), before);
    EXPECT_LE(holdsOpen(), before + (8U << 20));
    world.use(100U << 20);
    EXPECT_LE(holdsOpen(), before + (8U << 20)) << "too big to be kept";
    world.pool.part(&world.first);
    world.pool.part(&world.second);
    EXPECT_EQ(holdsOpen(), before);
    world.use();
    EXPECT_EQ(holdsOpen(), before);
}

#ifndef NIPC_TEST_EMULATOR  // It tells each thread another time at which the process began.
using RegionReuseTest = PlatformTest;

TEST_F(RegionReuseTest, ARegionIsUsedAgainUntilASecondProcessConnects) {
    nipctest::Process sharing({"sharing"});
    const auto next = [&] { return sharing.send("go"), sharing.hear(); };
    EXPECT_EQ(sharing.hear(), "fresh");
    EXPECT_EQ(next(), "again");
    EXPECT_EQ(next(), "again");
    {
        const Client second;
        EXPECT_EQ(next(), "fresh");
    }
    EXPECT_EQ(next(), "fresh");
}
#endif
