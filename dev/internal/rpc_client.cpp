// Looks the ONC RPC client functions up where they are.

#include "dev/internal/rpc_client.h"

#include <dlfcn.h>

namespace talvek::rpc {
namespace {

constexpr const char *kLibrary = "libtirpc.so.3";

template <typename Function>
bool Find(void *pHandle, const char *pName, Function &function) {
    function = reinterpret_cast<Function>(dlsym(pHandle, pName));
    return function != nullptr;
}

}  // namespace

bool Library::Load(const char **ppReason) {
    // A C library that has the calls is asked through RTLD_DEFAULT, which is a null handle. That of
    // libtirpc stays open: it keeps records for each thread that has called it.
    void *pHandle = RTLD_DEFAULT;
    const bool inProcess = dlsym(RTLD_DEFAULT, "clnttcp_create") != nullptr;
    if (!inProcess) {
        pHandle = dlopen(kLibrary, RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    }
    const bool loaded =
        (inProcess || pHandle != nullptr) && Find(pHandle, "clnttcp_create", createTcp) &&
        Find(pHandle, "clntudp_create", createUdp) &&
        Find(pHandle, "authunix_create_default", createUnixAuth) &&
        Find(pHandle, "xdr_string", xdrString) && Find(pHandle, "xdr_pmap", xdrPortQuery) &&
        Find(pHandle, "xdr_u_long", xdrUnsignedLong) &&
        (Find(pHandle, "__rpc_createerr", createError) ||
         Find(pHandle, "__rpc_thread_createerr", createError)) &&
        Find(pHandle, "clnt_pcreateerror", printCreateError) &&
        Find(pHandle, "clnt_perror", printCallError);
    if (!loaded) {
        const char *pReason = dlerror();
        *ppReason = pReason != nullptr ? pReason : kLibrary;
    }
    return loaded;
}

Client *Library::CreateUdp(sockaddr_in *pServer, unsigned long program, unsigned long version,
                           Timeout interval, int *pSocket) const {
    Client *client;
    if constexpr (sizeof(long) == 8) {
        using Create =
            Client *(*)(sockaddr_in *, unsigned long, unsigned long, Timeout, int *pSocket);
        client = reinterpret_cast<Create>(createUdp)(pServer, program, version, interval, pSocket);
    } else {
        // Here the interval stands ahead of the socket's address, which so has its place behind two
        // words (one of them in a register) or behind four aligned ones (all on the stack). Both
        // places are filled; the interval that arrives in the second case is set right below.
        using Create =
            Client *(*)(sockaddr_in *, unsigned long, unsigned long, uint32_t seconds,
                        uint32_t microseconds, int *pSocket, uint32_t, uint32_t, int *pSameSocket);
        client = reinterpret_cast<Create>(createUdp)(pServer, program, version,
                                                     static_cast<uint32_t>(interval.seconds), 0,
                                                     pSocket, 0, 0, pSocket);
    }
    if (client != nullptr) {
        client->ops->control(client, kSetRetryTimeout, &interval);
    }
    return client;
}

}  // namespace talvek::rpc
