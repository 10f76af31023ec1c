// Reading a name server's reply (RFC 1035 4.1: header, question, answer
// and authority sections) into the answer record. Every read goes through
// one DnsCursor over the received bytes.
#include <string.h>
#include <strings.h>

#include "net/dns_context.h"
#include "net/dns_cursor.h"
#include "net/dns_message.h"

namespace quarry {

namespace {

constexpr uint16_t kFlagResponse = 0x8000;
constexpr uint16_t kFlagTruncated = 0x0200;
constexpr uint16_t kRcodeMask = 0x000F;
constexpr uint32_t kAnswerTaken = 1;
// Room for a name read as text: 255 bytes and the terminator.
constexpr size_t kNameRoom = 256;
// A PTR name goes over the count and addresses: at most 255 bytes there.
constexpr size_t kPtrRoom = 255;
constexpr size_t kTypeClassLen = 4;
// An SOA record's numbers before the last one: serial, refresh, retry,
// expire.
constexpr int kSoaLeadingNumbers = 4;

struct Header {
  uint16_t id, flags, qdcount, ancount, nscount, arcount;
};

struct Record {
  uint16_t type, rclass;
  uint32_t ttl;
  uint16_t rdlength;
  size_t rdata;  // where its data starts
};

bool read_header(DnsCursor *c, Header *h) {
  return c->u16(&h->id) && c->u16(&h->flags) && c->u16(&h->qdcount) && c->u16(&h->ancount) &&
         c->u16(&h->nscount) && c->u16(&h->arcount);
}

// Owner name (dropped), type, class, TTL and data length; the data must
// lie inside the message.
bool read_record_head(DnsCursor *c, Record *r) {
  char owner[kNameRoom];
  if (!c->name(owner, sizeof(owner)) || !c->u16(&r->type) || !c->u16(&r->rclass) ||
      !c->u32(&r->ttl) || !c->u16(&r->rdlength)) {
    return false;
  }
  r->rdata = c->pos();
  return c->left() >= r->rdlength;
}

int not_match() {
  libq_log(kModCommon, kLogError, "dns reply not match\n");
  return -1;
}

// Some question must be the one asked, compared without regard to case.
int check_questions(DnsCursor *c, uint16_t qdcount, const char *name) {
  if (qdcount == 0) return not_match();
  bool matched = false;
  for (uint16_t i = 0; i < qdcount; ++i) {
    char qname[kNameRoom];
    if (!c->name(qname, sizeof(qname)) || !c->skip(kTypeClassLen)) return -1;
    if (strcasecmp(qname, name) == 0) matched = true;
  }
  return matched ? 0 : not_match();
}

// Copies the addresses of one A or AAAA record, up to the record's cap.
bool take_addresses(DnsCursor *c, const Record &r, size_t addr_len, dns_answer *answer) {
  uint32_t room = kDnsMaxAddrs - answer->count;
  uint32_t n = static_cast<uint32_t>(r.rdlength / addr_len);
  if (n > room) n = room;
  if (!c->bytes(answer->addr + answer->count * addr_len, n * addr_len)) return false;
  answer->count += n;
  answer->flags |= kAnswerTaken;
  return true;
}

int data_length_error() {
  libq_log(kModCommon, kLogError, "dns reply datalength error\n");
  return -1;
}

// Reads one answer record. Returns 0 to go on, 1 when the answer is
// complete, -1 when the reply is unusable.
int read_answer(DnsCursor *c, int type, dns_answer *answer) {
  Record r;
  if (!read_record_head(c, &r)) return -1;
  answer->ttl = r.ttl;
  const bool in = r.rclass == kDnsClassIn;
  int step = 0;
  if (in && r.type == kDnsTypeA && type == kDnsTypeA) {
    if (r.rdlength % kDnsIpv4Len != 0) return data_length_error();
    if (!take_addresses(c, r, kDnsIpv4Len, answer)) return -1;
    if (answer->count >= kDnsMaxAddrs) step = 1;
  } else if (in && r.type == kDnsTypeAAAA && type == kDnsTypeAAAA) {
    if (r.rdlength % kDnsIpv6Len != 0) return -1;
    if (!take_addresses(c, r, kDnsIpv6Len, answer)) return -1;
    if (answer->count >= kDnsMaxAddrs) step = 1;
  } else if (in && r.type == kDnsTypePtr && type == kDnsTypePtr) {
    // The name text goes over the count and the addresses.
    char *text = reinterpret_cast<char *>(&answer->count);
    if (!c->name(text, kPtrRoom)) return data_length_error();
    answer->flags |= kAnswerTaken;
    step = 1;
  } else if (r.type == kDnsTypeCname && type == kDnsTypeCname) {
    char target[kNameRoom];
    if (!c->name(target, sizeof(target))) {
      libq_log(kModCommon, kLogError, "dns cname error\n");
      return -1;
    }
  }
  // Whatever the record held, the next one starts after its data.
  if (!c->seek(r.rdata + r.rdlength)) return -1;
  return step;
}

// Reads the authority records of an answer without data; an SOA record
// gives its minimum TTL.
int read_authority(DnsCursor *c, uint16_t nscount, dns_answer *answer) {
  for (uint16_t i = 0; i < nscount; ++i) {
    Record r;
    if (!read_record_head(c, &r)) return -1;
    if (r.type == kDnsTypeSoa && r.rclass == kDnsClassIn) {
      char mname[kNameRoom];
      char rname[kNameRoom];
      uint32_t number = 0;
      if (!c->name(mname, sizeof(mname)) || !c->name(rname, sizeof(rname))) return -1;
      for (int n = 0; n < kSoaLeadingNumbers; ++n) {
        if (!c->u32(&number)) return -1;
      }
      if (!c->u32(&answer->ttl)) return -1;
    }
    if (!c->seek(r.rdata + r.rdlength)) return -1;
  }
  return kDnsNoData;
}

}  // namespace

int dns_read_reply(const uint8_t *msg, size_t len, uint16_t id, const char *name, int type,
                   dns_answer *answer) {
  DnsCursor c(msg, len);
  Header h;
  if (len < kDnsHeaderLen || !read_header(&c, &h)) return -1;
  // A server error, a refusal or a name that does not exist count as no
  // answer from this server, as does a truncated reply.
  if (h.id != id || (h.flags & kFlagResponse) == 0 || (h.flags & kFlagTruncated) != 0 ||
      (h.flags & kRcodeMask) != 0) {
    return -1;
  }
  if (check_questions(&c, h.qdcount, name) != 0) return -1;

  for (uint16_t i = 0; i < h.ancount; ++i) {
    int step = read_answer(&c, type, answer);
    if (step < 0) return -1;
    if (step > 0) break;
  }
  if ((answer->flags & kAnswerTaken) != 0) return 0;
  return read_authority(&c, h.nscount, answer);
}

}  // namespace quarry
