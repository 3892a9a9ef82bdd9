#include "support/cancellation.h"

#include <pthread.h>

namespace talvek::test {

bool OutlastsCancellation(const std::function<void()> &body) {
    struct Job {
        const std::function<void()> &body;
        bool ended = false;
    } job{body};
    pthread_t thread;
    const auto run = [](void *pJob) -> void * {
        Job &made = *static_cast<Job *>(pJob);
        pthread_cancel(pthread_self());
        made.body();
        made.ended = true;
        pthread_testcancel();
        return nullptr;
    };
    void *result = nullptr;
    return pthread_create(&thread, nullptr, run, &job) == 0 && pthread_join(thread, &result) == 0 &&
           result == PTHREAD_CANCELED && job.ended;
}

}  // namespace talvek::test
