#ifndef TALVEK_FUZZ_SUPPORT_NETWORK_H
#define TALVEK_FUZZ_SUPPORT_NETWORK_H

#include <netinet/in.h>
#include <stdint.h>

#include <deque>
#include <vector>

#include "fuzz/support/input.h"

namespace talvek::fuzz {

// One end of a connection whose other end has sent pieces and will send no more. A read gives the
// bytes of one piece, as from a peer that pauses after each.
class Peer {
  public:
    Peer();
    ~Peer();
    Peer(const Peer &) = delete;
    Peer &operator=(const Peer &) = delete;

    // False when the connection cannot hold more.
    bool Send(Bytes piece);
    // No more pieces follow.
    void EndSending();
    // What the code under test has sent, one element for each of its writes.
    std::vector<std::vector<uint8_t>> Received();

    // The descriptor for the code under test, which closes it.
    int TakeFd();
    // The next socket that the code under test makes and connects is this connection.
    void OfferToConnect();

  private:
    int own_;
    int other_;
};

// The internet that the code under test sees while this object lives: every send succeeds, and the
// pieces are received in their order. A wait for input that has no piece returns at once, and the
// program's clock moves on by its whole time.
class Internet {
  public:
    // Alters a piece before it is received; `sent` is the last message. NULL changes nothing.
    using Alter = void (*)(std::vector<uint8_t> &piece, Bytes sent);

    explicit Internet(Alter alter = nullptr);
    ~Internet();
    Internet(const Internet &) = delete;
    Internet &operator=(const Internet &) = delete;

    // The pieces of the input, each after its length of two bytes. From 0xFF00 on it is no length:
    // the receive fails.
    void Receive(Input &in);

    struct Piece {
        std::vector<uint8_t> bytes;
        int error;  // errno of a receive that fails, or 0
    };
    std::deque<Piece> pieces;
    std::vector<uint8_t> sent;  // the last message
    int sends = 0;
    int64_t now = int64_t{1000000000} * 1000;  // ns
    int64_t waited = 0;                        // ns

    // For the calls that are caught.
    Piece Next();

  private:
    Alter alter_;
};

}  // namespace talvek::fuzz

#endif
