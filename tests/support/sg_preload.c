/* Loaded into a program of sg3-utils, replaces the drive of its descriptor: every SG_IO
 * request is answered with the bytes of the file that SG_PRELOAD_REPLY names. */

#include <errno.h>
#include <fcntl.h>
#include <scsi/sg.h>
#include <stdarg.h>
#include <stdlib.h>
#include <unistd.h>

int ioctl(int fd, unsigned long request, ...);

int ioctl(int fd, unsigned long request, ...) {
    (void)fd;
    va_list list;
    va_start(list, request);
    void *arg = va_arg(list, void *);
    va_end(list);
    if (request == SG_GET_VERSION_NUM) {
        *(int *)arg = 30536;
        return 0;
    }
    const char *path = getenv("SG_PRELOAD_REPLY");
    if (request != SG_IO || path == NULL) {
        errno = ENOTTY;
        return -1;
    }
    sg_io_hdr_t *hdr = arg;
    const int reply = open(path, O_RDONLY | O_CLOEXEC);
    const ssize_t count = reply < 0 ? -1 : read(reply, hdr->dxferp, hdr->dxfer_len);
    close(reply);
    hdr->resid = (int)hdr->dxfer_len - (int)(count < 0 ? 0 : count);
    hdr->sb_len_wr = 0;
    hdr->status = 0;
    hdr->masked_status = 0;
    hdr->host_status = 0;
    hdr->driver_status = 0;
    hdr->info = 0;
    return 0;
}
