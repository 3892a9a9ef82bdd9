#ifndef TALVEK_DEV_INTERNAL_RPC_SOCKET_H
#define TALVEK_DEV_INTERNAL_RPC_SOCKET_H

#include <netinet/in.h>

#include "base/unique_fd.h"

// Sockets to RPC servers on which every wait has an end. The RPC library would wait for minutes to
// be connected, and over TCP for its time-out anew with each byte that comes.

namespace talvek::rpc {

// How long a connection and an answer are waited for.
inline constexpr int kAnswerSeconds = 3;

// A socket on a port below 1024 where that is allowed: mount daemons ask for one.
UniqueFd OpenSocket(int type);

// A connected socket. Empty with errno set when there is none in time.
UniqueFd ConnectTcp(const sockaddr_in &server);

// Receives the answer to the one call made on a connection and gives it to be read once more, under
// the descriptor of the connection, from a stream that ends behind it. What is written to that
// stream goes nowhere.
class AnswerRelay {
  public:
    // False with errno set when there is no stream to be had.
    bool Open();
    explicit operator bool() const { return static_cast<bool>(writer_); }

    // Waits for the whole answer and puts the stream in the connection's place; false when the time
    // is over before, or the place cannot be taken. A connection that breaks, or brings more than
    // an answer can hold, ends the stream there.
    bool Await(int connection);

  private:
    UniqueFd reader_;
    UniqueFd writer_;
};

}  // namespace talvek::rpc

#endif
