#include "support/stack_use.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>

namespace talvek::test {
namespace {

constexpr uint8_t kPattern = 0x5A;

// A stack above a page that cannot be touched.
class GuardedStack {
  public:
    explicit GuardedStack(size_t size)
        : page_(static_cast<size_t>(sysconf(_SC_PAGESIZE))),
          size_((size + page_ - 1) / page_ * page_),
          map_(mmap(nullptr, page_ + size_, PROT_READ | PROT_WRITE,
                    MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0)) {
        EXPECT_NE(MAP_FAILED, map_);
        EXPECT_EQ(0, mprotect(map_, page_, PROT_NONE));
    }
    ~GuardedStack() { munmap(map_, page_ + size_); }
    GuardedStack(const GuardedStack &) = delete;
    GuardedStack &operator=(const GuardedStack &) = delete;

    [[nodiscard]] uint8_t *bottom() const { return static_cast<uint8_t *>(map_) + page_; }
    [[nodiscard]] size_t size() const { return size_; }

  private:
    size_t page_;
    size_t size_;
    void *map_;
};

struct Job {
    const std::function<void()> &body;
    const uint8_t *start = nullptr;  // where the stack ended when the body began
};

void *Run(void *pArg) {
    Job &job = *static_cast<Job *>(pArg);
    job.start = static_cast<const uint8_t *>(__builtin_frame_address(0));
    job.body();
    return nullptr;
}

void RunIn(const GuardedStack &stack, Job &job) {
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    ASSERT_EQ(0, pthread_attr_setstack(&attr, stack.bottom(), stack.size()));
    pthread_t thread;
    ASSERT_EQ(0, pthread_create(&thread, &attr, Run, &job));
    pthread_attr_destroy(&attr);
    ASSERT_EQ(0, pthread_join(thread, nullptr));
}

}  // namespace

size_t StackUse(const std::function<void()> &body) {
    const GuardedStack stack{size_t{1} << 20};
    memset(stack.bottom(), kPattern, stack.size());
    Job job{body};
    RunIn(stack, job);
    const uint8_t *lowest = std::find_if(stack.bottom(), stack.bottom() + stack.size(),
                                         [](uint8_t byte) { return byte != kPattern; });
    return static_cast<size_t>(job.start - lowest);
}

void RunOnStack(size_t size, const std::function<void()> &body) {
    const GuardedStack stack{size};
    Job job{body};
    RunIn(stack, job);
}

}  // namespace talvek::test
