// DNS messages of the own resolver (RFC 1035 4.1): the query it sends and
// the reading of the reply into an answer record.
#ifndef QUARRY_NET_DNS_MESSAGE_H
#define QUARRY_NET_DNS_MESSAGE_H

#include <stddef.h>
#include <stdint.h>

#include "net/net.h"

namespace quarry {

// Room for one message sent or received over UDP.
constexpr size_t kDnsMessageRoom = 1500;
// Identifier, flags and the four section counts.
constexpr size_t kDnsHeaderLen = 12;

// Writes the query for |name|, |type| and |qclass| with identifier |id|
// and recursion desired into |buf| (|room| bytes). Returns its length, or
// 0 after logging when the name cannot be encoded (longer than 255 bytes,
// a label longer than 63) or does not fit.
size_t dns_build_query(uint8_t *buf, size_t room, uint16_t id, const char *name, int type,
                       int qclass);

// Reads the reply |msg| (|len| bytes) to the query for |name| and |type|
// with identifier |id| into |answer|, which the caller has cleared.
// Returns 0 when an answer was taken, kDnsNoData when the server answered
// without one, -1 when the reply is unusable.
int dns_read_reply(const uint8_t *msg, size_t len, uint16_t id, const char *name, int type,
                   dns_answer *answer);

}  // namespace quarry

#endif  // QUARRY_NET_DNS_MESSAGE_H
