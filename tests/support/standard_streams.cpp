// Linked into every test program, whatever starts it: 0, 1 and 2 are open before the first test.

#include <fcntl.h>
#include <unistd.h>

namespace {

__attribute__((constructor)) void OpenStandardStreams() {
    int fd;
    do {
        fd = open("/dev/null", O_RDWR);  // the lowest free number, kept over exec as these are
    } while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0) {
        close(fd);
    }
}

}  // namespace
