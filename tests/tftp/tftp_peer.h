// The TFTP tests' peer, the loopback UDP peer of tests/peer whose
// conversation a test writes as a function run on the peer's own thread,
// and the packets of RFC 1350 and RFC 2347 spelled out as bytes.
#ifndef QUARRY_TESTS_TFTP_TFTP_PEER_H
#define QUARRY_TESTS_TFTP_TFTP_PEER_H

#include <stdint.h>

#include <string>
#include <utility>
#include <vector>

#include "tests/peer/scripted_peer.h"

namespace quarry_test {

// The scripted UDP peer: a test writes the conversation as a function run
// on the peer's own thread.
using TftpPeer = UdpPeer;

// Packets, big-endian fields.
std::string rrq(const std::string &name);
std::string wrq(const std::string &name);
std::string data_pkt(uint16_t block, const std::string &payload);
std::string ack_pkt(uint16_t block);
std::string oack_pkt(const std::vector<std::pair<std::string, std::string>> &options);
std::string error_pkt(uint16_t code, const std::string &text);
// The option-refusing ERROR the client sends: code 8, "err blksize".
std::string blksize_error_pkt();

// |n| bytes of a repeating, position-dependent pattern.
std::string pattern(size_t n, unsigned seed = 0);

}  // namespace quarry_test

#endif  // QUARRY_TESTS_TFTP_TFTP_PEER_H
