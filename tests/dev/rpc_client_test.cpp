// Holds the records declared for the RPC library against its own headers.

#include "dev/internal/rpc_client.h"

#include <gtest/gtest.h>

#if __has_include(<rpc/rpc.h>)
#include <rpc/rpc.h>

#include <rpc/pmap_prot.h>
#undef rpc_createerr  // a macro over the record of that name
#define HAVE_RPC_HEADERS 1
#endif

namespace {

#ifdef HAVE_RPC_HEADERS

namespace rpc = talvek::rpc;

TEST(RpcLibrary, RecordsAreLaidOutAsTheInstalledHeadersSay) {
    EXPECT_EQ(offsetof(CLIENT, cl_auth), offsetof(rpc::Client, auth));
    EXPECT_EQ(offsetof(CLIENT, cl_ops), offsetof(rpc::Client, ops));
    using Operations = CLIENT::clnt_ops;
    EXPECT_EQ(offsetof(Operations, cl_call), offsetof(rpc::ClientOps, call));
    EXPECT_EQ(offsetof(Operations, cl_abort), offsetof(rpc::ClientOps, abort));
    EXPECT_EQ(offsetof(Operations, cl_geterr), offsetof(rpc::ClientOps, getError));
    EXPECT_EQ(offsetof(Operations, cl_freeres), offsetof(rpc::ClientOps, freeResult));
    EXPECT_EQ(offsetof(Operations, cl_destroy), offsetof(rpc::ClientOps, destroy));
    EXPECT_EQ(offsetof(Operations, cl_control), offsetof(rpc::ClientOps, control));
    EXPECT_EQ(offsetof(AUTH, ah_ops), offsetof(rpc::Auth, ops));
    using AuthOperations = AUTH::auth_ops;
    EXPECT_EQ(offsetof(AuthOperations, ah_destroy), offsetof(rpc::AuthOps, destroy));
    EXPECT_EQ(sizeof(struct rpc_createerr), sizeof(rpc::CreateError));
    EXPECT_EQ(offsetof(struct rpc_createerr, cf_error), offsetof(rpc::CreateError, cause));
    EXPECT_EQ(sizeof(struct rpc_err), sizeof(rpc::CallError));
    EXPECT_EQ(offsetof(struct rpc_err, ru), offsetof(rpc::CallError, error));
    EXPECT_EQ(sizeof(struct pmap), sizeof(rpc::PortQuery));
    EXPECT_EQ(offsetof(struct pmap, pm_port), offsetof(rpc::PortQuery, port));
    EXPECT_EQ(sizeof(long) == 8 ? sizeof(struct timeval) : sizeof(rpc::Timeout),
              sizeof(rpc::Timeout));
}

TEST(RpcLibrary, NumbersAreThoseOfTheInstalledHeaders) {
    EXPECT_EQ(RPC_SUCCESS, rpc::kSuccess);
    EXPECT_EQ(RPC_TIMEDOUT, rpc::kTimedOut);
    EXPECT_EQ(RPC_SYSTEMERROR, rpc::kSystemError);
    EXPECT_EQ(RPC_PMAPFAILURE, rpc::kPortmapperFailure);
    EXPECT_EQ(RPC_PROGNOTREGISTERED, rpc::kNotRegistered);
    EXPECT_EQ(CLSET_TIMEOUT, static_cast<int>(rpc::kSetTimeout));
    EXPECT_EQ(CLSET_RETRY_TIMEOUT, static_cast<int>(rpc::kSetRetryTimeout));
    EXPECT_EQ(CLGET_XID, static_cast<int>(rpc::kGetId));
    EXPECT_EQ(CLSET_XID, static_cast<int>(rpc::kSetId));
}

#else

TEST(RpcLibrary, RecordsAreLaidOutAsTheInstalledHeadersSay) {
    GTEST_SKIP() << "no headers of the RPC library for this processor";
}

#endif

}  // namespace
