#include "tests/tftp/tftp_peer.h"

namespace quarry_test {

namespace {

std::string be16(uint16_t v) {
  return std::string{static_cast<char>(v >> 8), static_cast<char>(v & 0xff)};
}

std::string request(uint16_t opcode, const std::string &name) {
  return be16(opcode) + name + std::string("\0octet\0blksize\0" "1432\0", 20);
}

}  // namespace

std::string rrq(const std::string &name) { return request(1, name); }
std::string wrq(const std::string &name) { return request(2, name); }

std::string data_pkt(uint16_t block, const std::string &payload) {
  return be16(3) + be16(block) + payload;
}

std::string ack_pkt(uint16_t block) { return be16(4) + be16(block); }

std::string oack_pkt(const std::vector<std::pair<std::string, std::string>> &options) {
  std::string pkt = be16(6);
  for (const auto &option : options) {
    pkt += option.first;
    pkt += '\0';
    pkt += option.second;
    pkt += '\0';
  }
  return pkt;
}

std::string error_pkt(uint16_t code, const std::string &text) {
  return be16(5) + be16(code) + text + std::string(1, '\0');
}

std::string blksize_error_pkt() { return error_pkt(8, "err blksize"); }

std::string pattern(size_t n, unsigned seed) {
  std::string out(n, '\0');
  for (size_t i = 0; i < n; ++i) {
    out[i] = static_cast<char>((i * 31 + seed * 7 + (i >> 8)) & 0xff);
  }
  return out;
}

}  // namespace quarry_test
