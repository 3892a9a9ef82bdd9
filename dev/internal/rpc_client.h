#ifndef TALVEK_DEV_INTERNAL_RPC_CLIENT_H
#define TALVEK_DEV_INTERNAL_RPC_CLIENT_H

#include <netinet/in.h>
#include <stdint.h>

// What is used of the ONC RPC client library, which is looked up at run time and so has no header
// at build time. The records are as every descendant of the Sun sources has them, up to the last
// member used; RpcLibrary.RecordsAreLaidOutAsTheInstalledHeadersSay holds them against libtirpc's.

namespace talvek::rpc {

struct Client;

// The library takes a timeval by value, whose fields have 32 or 64 bits in a 32-bit library,
// depending on how that was built. Small numbers in this form read the same as either on a
// little-endian machine, in memory and where arguments are passed at the end.
struct Timeout {
    int64_t seconds;
    int64_t microseconds;
};

using XdrProc = int (*)(void *pXdrs, void *pObject);

struct CallError {
    int status;
    union {
        int error;         // errno
        uint32_t pair[2];  // of other kinds of failure
    };
};

struct CreateError {
    int status;
    CallError cause;
};

struct ClientOps {
    int (*call)(Client *, unsigned long procedure, XdrProc encode, void *pArguments, XdrProc decode,
                void *pResult, Timeout timeout);
    void (*abort)(Client *);
    void (*getError)(Client *, CallError *);
    int (*freeResult)(Client *, XdrProc, void *);
    void (*destroy)(Client *);
    int (*control)(Client *, unsigned request, void *);
};

struct Auth;

struct OpaqueAuth {
    int flavor;
    char *base;
    unsigned length;
};

struct AuthOps {
    void (*nextVerifier)(Auth *);
    int (*marshal)(Auth *, void *);
    int (*validate)(Auth *, OpaqueAuth *);
    int (*refresh)(Auth *, void *);
    void (*destroy)(Auth *);
};

struct Auth {
    OpaqueAuth credential;
    OpaqueAuth verifier;
    union {
        uint32_t words[2];
        char bytes[8];
    } key;
    AuthOps *ops;
};

struct Client {
    Auth *auth;
    ClientOps *ops;
};

// clnt_stat
inline constexpr int kSuccess = 0;
inline constexpr int kTimedOut = 5;
inline constexpr int kSystemError = 12;
inline constexpr int kPortmapperFailure = 14;
inline constexpr int kNotRegistered = 15;
// requests of clnt_control
inline constexpr unsigned kSetTimeout = 1;
inline constexpr unsigned kSetRetryTimeout = 4;
inline constexpr unsigned kGetId = 10;  // transaction id, into an unsigned long set to 0
inline constexpr unsigned kSetId = 11;

// Arguments of the portmapper's GETPORT (RFC 1833, 3).
struct PortQuery {
    unsigned long program;
    unsigned long version;
    unsigned long protocol;
    unsigned long port;
};

// The functions, from the C library when it has them, else from libtirpc.
class Library {
  public:
    // False when there is none; `*ppReason` then says why.
    bool Load(const char **ppReason);

    Client *(*createTcp)(sockaddr_in *, unsigned long program, unsigned long version, int *pSocket,
                         unsigned sendSize, unsigned receiveSize);
    void *createUdp;  // clntudp_create; called through CreateUdp
    Auth *(*createUnixAuth)();
    int (*xdrString)(void *pXdrs, char **ppText, unsigned size);
    int (*xdrPortQuery)(void *pXdrs, void *pQuery);
    int (*xdrUnsignedLong)(void *pXdrs, void *pNumber);
    CreateError *(*createError)();
    void (*printCreateError)(const char *);
    void (*printCallError)(Client *, const char *);

    // clntudp_create with the repeat interval set.
    Client *CreateUdp(sockaddr_in *pServer, unsigned long program, unsigned long version,
                      Timeout interval, int *pSocket) const;
};

}  // namespace talvek::rpc

#endif
