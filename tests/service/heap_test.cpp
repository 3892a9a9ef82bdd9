// The static program's heap, here beside the C library's.

#include "service/static/heap.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <random>
#include <thread>
#include <vector>

// While it is set, the kernel has no memory for the code under test.
static bool g_noMemory = false;

// 32-bit programs call the variant with a 64-bit offset.
#define WRAP_MMAP(name)                                                                       \
    extern "C" void *__real_##name(void *at, size_t size, int access, int flags, int fd,      \
                                   off_t offset);                                             \
    extern "C" void *__wrap_##name(void *at, size_t size, int access, int flags, int fd,      \
                                   off_t offset);                                             \
    void *__wrap_##name(void *at, size_t size, int access, int flags, int fd, off_t offset) { \
        if (g_noMemory) {                                                                     \
            errno = ENOMEM;                                                                   \
            return MAP_FAILED;                                                                \
        }                                                                                     \
        return __real_##name(at, size, access, flags, fd, offset);                            \
    }
WRAP_MMAP(mmap)
WRAP_MMAP(mmap64)

namespace {

using namespace talvek::heap;

constexpr size_t kAlignment = alignof(max_align_t);

// Blocks of a test, released at its end.
class Blocks {
  public:
    Blocks() = default;
    ~Blocks() {
        for (void *block : blocks_) {
            Release(block);
        }
    }
    Blocks(const Blocks &) = delete;
    Blocks &operator=(const Blocks &) = delete;

    void *Take(size_t size) {
        void *block = Allocate(size);
        EXPECT_NE(nullptr, block) << size;
        blocks_.push_back(block);
        return block;
    }

  private:
    std::vector<void *> blocks_;
};

// The first block, when nothing is in use.
const void *const g_first = [] {
    void *first = Allocate(1);
    Release(first);
    return first;
}();

// Whether a block lies in the heap's own memory and not in a mapping.
bool IsInHeap(const void *block) {
    const auto begin = reinterpret_cast<uintptr_t>(g_first);
    const auto at = reinterpret_cast<uintptr_t>(block);
    return at >= begin && at < begin + kSize;
}

// Runs `body`, which uses the heap up, in a process of its own. A failure in it fails the test.
void InAChild(void (*body)()) {
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        body();
        fflush(nullptr);
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
}

TEST(Heap, BlocksAreAlignedAndApart) {
    Blocks blocks;
    std::vector<std::pair<char *, size_t>> taken;
    for (size_t size = 0; size < 100; ++size) {
        auto *block = static_cast<char *>(blocks.Take(size));
        EXPECT_EQ(0U, reinterpret_cast<uintptr_t>(block) % kAlignment) << size;
        EXPECT_LE(size, SizeOf(block));
        memset(block, static_cast<int>(size), SizeOf(block));
        taken.emplace_back(block, SizeOf(block));
    }
    for (size_t size = 0; size < taken.size(); ++size) {
        const auto [block, length] = taken[size];
        EXPECT_EQ(static_cast<ptrdiff_t>(length), std::count(block, block + length, char(size)));
    }
}

TEST(Heap, AReleasedBlockIsUsedAgain) {
    void *first = Allocate(100);
    Blocks blocks;
    blocks.Take(100);
    Release(first);
    EXPECT_EQ(first, blocks.Take(90)) << "of the same power of two";
}

// A log line, an environment string, a package: what the service allocates again and again.
TEST(Heap, RepeatedUseTakesNoMore) {
    for (const size_t size : {size_t{256}, size_t{40}, size_t{1153}, size_t{1}}) {
        void *first = Allocate(size);
        Release(first);
        for (int i = 0; i < 1000; ++i) {
            void *next = Allocate(size);
            ASSERT_EQ(first, next) << size;
            Release(next);
        }
    }
}

TEST(Heap, WhatDoesNotFitHasAMappingOfItsOwn) {
    Blocks blocks;
    EXPECT_TRUE(IsInHeap(blocks.Take(kLargest - kAlignment))) << "the largest of the heap";
    EXPECT_FALSE(IsInHeap(blocks.Take(kLargest - kAlignment + 1)));
    auto *large = static_cast<char *>(Allocate(kSize));
    ASSERT_NE(nullptr, large);
    EXPECT_FALSE(IsInHeap(large));
    EXPECT_EQ(0U, reinterpret_cast<uintptr_t>(large) % kAlignment);
    EXPECT_LE(kSize, SizeOf(large));
    memset(large, 'x', kSize);
    auto *larger = static_cast<char *>(Resize(large, 100 * kSize));
    ASSERT_NE(nullptr, larger);
    EXPECT_EQ(static_cast<ptrdiff_t>(kSize), std::count(larger, larger + kSize, 'x'));
    // The middle of the mapping, at the start of a page.
    char *inside = larger + 50 * kSize;
    inside -= reinterpret_cast<uintptr_t>(inside) % static_cast<uintptr_t>(getpagesize());
    unsigned char resident = 0;
    EXPECT_EQ(0, mincore(inside, 1, &resident)) << "mapped";
    Release(larger);
    EXPECT_EQ(-1, mincore(inside, 1, &resident)) << "not mapped any more";
    EXPECT_EQ(ENOMEM, errno);
}

TEST(Heap, RefusesMoreThanThereCanBe) {
    for (const size_t size :
         {SIZE_MAX, SIZE_MAX - 1, size_t{PTRDIFF_MAX} + 1, size_t{PTRDIFF_MAX}}) {
        errno = 0;
        EXPECT_EQ(nullptr, Allocate(size)) << size;
        EXPECT_EQ(ENOMEM, errno) << size;
    }
    errno = 0;
    EXPECT_EQ(nullptr, AllocateZeroed(SIZE_MAX / 2, 3));
    EXPECT_EQ(ENOMEM, errno);
}

TEST(Heap, ZeroedBlocksAreZeroWhereOthersWere) {
    void *used = Allocate(300);
    memset(used, 0xFF, 300);
    Release(used);
    auto *block = static_cast<char *>(AllocateZeroed(30, 10));
    EXPECT_EQ(used, block);
    EXPECT_EQ(300, std::count(block, block + 300, '\0'));
    Release(block);
}

TEST(Heap, ResizeKeepsTheContent) {
    auto *block = static_cast<char *>(Resize(nullptr, 10));
    memcpy(block, "123456789", 10);
    EXPECT_EQ(block, Resize(block, 3)) << "a smaller one stays where it is";
    EXPECT_EQ(block, Resize(block, SizeOf(block))) << "and one of its size";
    auto *larger = static_cast<char *>(Resize(block, 5000));
    EXPECT_STREQ("123456789", larger);
    Blocks blocks;
    EXPECT_EQ(block, blocks.Take(10)) << "the smaller one is free again";
    errno = 0;
    EXPECT_EQ(nullptr, Resize(larger, SIZE_MAX));
    EXPECT_EQ(ENOMEM, errno);
    EXPECT_STREQ("123456789", larger) << "unchanged when there is no memory";
    Release(larger);
}

TEST(Heap, NothingIsNoBlock) {
    Release(nullptr);
    EXPECT_EQ(0U, SizeOf(nullptr));
}

// Allocates, resizes and releases at random. After every step each block must still have its own
// bytes.
void Churn(unsigned seed, int steps) {
    struct Taken {
        unsigned char *bytes;
        size_t size;
        unsigned char mark;
    };
    std::mt19937 random{seed};
    std::vector<Taken> taken;
    const auto intact = [](const Taken &block) {
        return std::count(block.bytes, block.bytes + block.size, block.mark) ==
               static_cast<ptrdiff_t>(block.size);
    };
    for (int step = 0; step < steps; ++step) {
        const size_t size = random() % 10 == 0 ? random() % (2 * kSize) : random() % 400;
        if (taken.size() < 40 && random() % 2 == 0) {
            const auto mark = static_cast<unsigned char>(random());
            taken.push_back({static_cast<unsigned char *>(Allocate(size)), size, mark});
            ASSERT_NE(nullptr, taken.back().bytes);
            memset(taken.back().bytes, mark, size);
        } else if (!taken.empty()) {
            Taken &chosen = taken[random() % taken.size()];
            ASSERT_TRUE(intact(chosen)) << "step " << step;
            if (random() % 2 == 0) {
                chosen.bytes = static_cast<unsigned char *>(Resize(chosen.bytes, size));
                chosen.size = std::min(chosen.size, size);
                ASSERT_TRUE(intact(chosen)) << "step " << step;
                memset(chosen.bytes, chosen.mark, size);
                chosen.size = size;
            } else {
                Release(chosen.bytes);
                chosen = taken.back();
                taken.pop_back();
            }
        }
    }
    for (const Taken &block : taken) {
        EXPECT_TRUE(intact(block));
        Release(block.bytes);
    }
}

TEST(Heap, BlocksKeepTheirBytes) {
    InAChild([] { Churn(1, 20000); });
}

TEST(Heap, ThreadsShareIt) {
    InAChild([] {
        std::thread other{[] { Churn(2, 5000); }};
        Churn(3, 5000);
        other.join();
    });
}

TEST(HeapDeathTest, OnlyABlockInUseCanBeReleased) {
    EXPECT_EXIT(
        {
            void *block = Allocate(100);
            Release(block);
            Release(block);
        },
        ::testing::KilledBySignal(SIGABRT), "");
    EXPECT_EXIT(
        {
            alignas(max_align_t) char other[64] = {};
            Release(other + 32);
        },
        ::testing::KilledBySignal(SIGABRT), "");
}

// Whether an allocation returns null, with ENOMEM.
template <typename Body>
bool HasNoMemory(Body body) {
    errno = 0;
    return body() == nullptr && errno == ENOMEM;
}

TEST(Heap, FailsWhenTheKernelHasNoMemory) {
    InAChild([] {
        g_noMemory = true;
        EXPECT_TRUE(HasNoMemory([] { return Allocate(kSize); }));
        EXPECT_TRUE(HasNoMemory([] { return AllocateZeroed(1, kSize); }));
        // What the heap has is still handed out.
        EXPECT_NE(nullptr, Allocate(1200));
        EXPECT_TRUE(HasNoMemory([] {
            void *block;
            do {
                block = Allocate(1200);
            } while (block != nullptr);
            return block;
        }));
        g_noMemory = false;
        EXPECT_NE(nullptr, Allocate(1200));
    });
}

// Later blocks lie in mapped memory, many in one mapping.
TEST(Heap, GoesOnWhenItIsUsedUp) {
    InAChild([] {
        Blocks blocks;
        for (size_t taken = 0; taken < kSize; taken += 2048) {
            memset(blocks.Take(1200), 'x', 1200);
        }
        const auto *last = static_cast<char *>(blocks.Take(1200));
        EXPECT_FALSE(IsInHeap(last));
        const auto *next = static_cast<char *>(blocks.Take(1200));
        EXPECT_EQ(last + 2048, next);
    });
}

}  // namespace
