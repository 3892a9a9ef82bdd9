// Small file-system operations: directories, links, moves, line-wise editing, growing buffers.

#include "common/file.h"

#include <unistd.h>

int COM_CloseFd(int *pFd) {
    if (pFd == nullptr || *pFd < 0) {
        return -1;
    }
    const int result = close(*pFd);
    *pFd = -1;
    return result;
}
