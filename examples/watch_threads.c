/* A program whose threads register themselves, and a process that watches it: the watcher's log, on
 * standard error, says when the program is stopped, a zombie or gone.
 *
 *   watch_threads -t 1 recorder exporter     two threads, checked every second
 *
 * The threads work until standard input ends. To see a warning, stop the program from another
 * terminal: kill -STOP <its process id>. Writes /var/run/<name>.thread.pid for each thread.
 */

#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <talvek/common/COMMON.h>
#include <unistd.h>

#include "facts.h"

enum { MAX_THREADS = 16, BUFFER = 65536 };

static void *Work(void *pName) {
    COM_LogThread(pName);
    void *pBuffer = malloc(BUFFER);
    COM_LogThreadMemUsage(pBuffer != NULL ? BUFFER : 0);
    return pBuffer; /* the work of a real thread is here */
}

/* The copy of the registry in the forked child knows the program. */
static pid_t StartWatcher(int period) {
    const pid_t program = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
        if (COM_CreateThreadWatchdog(period) != 0) {
            _exit(1);
        }
        while (getppid() == program) {
            sleep((unsigned)period);
        }
        sleep((unsigned)period + 1); /* time for the report that the program is gone */
        COM_DestroyThreadWatchdog();
        _exit(0);
    }
    return pid;
}

int main(int argc, char *argv[]) {
    int period = 5;
    while (FactsOption(argc, argv, "t:", "[-t seconds] <thread>...") != -1) {
        period = (int)FactsArgument(optarg, 1, 3600);
    }
    const int count = argc - optind;
    if (count < 1 || count > MAX_THREADS) {
        FactsWrongUse();
    }

    COM_LogThread("main");
    const pid_t watcher = StartWatcher(period);
    if (watcher < 0) {
        perror("fork");
        return 1;
    }
    FactsNumber("process", getpid(), NULL);
    FactsNumber("watcher", watcher, NULL);
    FactsNumber("period", period, "seconds");

    pthread_t threads[MAX_THREADS];
    int started = 0;
    while (started < count &&
           pthread_create(&threads[started], NULL, Work, argv[optind + started]) == 0) {
        ++started;
    }
    FactsList("threads");
    for (int i = 0; i < started; ++i) {
        void *pBuffer = NULL;
        pthread_join(threads[i], &pBuffer);
        free(pBuffer);
        FactsItem();
        FactsText("name", argv[optind + i]);
    }
    FactsListEnd();
    COM_ShowThread();

    while (getchar() != EOF) {
    }
    kill(watcher, SIGTERM);
    waitpid(watcher, NULL, 0);
    return FactsEnd(started == count ? 0 : 1);
}
