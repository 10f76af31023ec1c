// Certificate times as the phone's screens show them: "Mar  1 00:00:00
// 2014 GMT". UTCTime (RFC 5280 4.1.2.5.1) years below 50 are 20YY.
#include <stdio.h>

#include "cert/cert.h"
#include "core/core.h"

namespace quarry {
namespace cert {

namespace {

constexpr size_t kGeneralizedDigits = 12;  // YYYYMMDDhhmm
constexpr size_t kUtcDigits = 10;          // YYMMDDhhmm
constexpr int kUtcPivot = 50;
constexpr int kMonths = 12;

const char *const kMonthNames[kMonths] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                          "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

bool is_digit(unsigned char c) { return c >= '0' && c <= '9'; }

int two_digits(const unsigned char *p) { return (p[0] - '0') * 10 + (p[1] - '0'); }

}  // namespace

bool time_text(int type, const unsigned char *data, size_t len, char *out, size_t out_len) {
  if (out == nullptr || out_len == 0) return false;
  out[0] = '\0';
  if (data == nullptr) return false;
  size_t digits;
  if (type == V_ASN1_GENERALIZEDTIME) {
    digits = kGeneralizedDigits;
  } else if (type == V_ASN1_UTCTIME) {
    digits = kUtcDigits;
  } else {
    return false;
  }
  if (len < digits) return false;
  for (size_t i = 0; i < digits; ++i) {
    if (!is_digit(data[i])) return false;
  }
  const unsigned char *p = data;
  int year;
  if (type == V_ASN1_GENERALIZEDTIME) {
    year = two_digits(p) * 100 + two_digits(p + 2);
    p += 4;
  } else {
    year = two_digits(p);
    year += year < kUtcPivot ? 2000 : 1900;
    p += 2;
  }
  int month = two_digits(p);
  int day = two_digits(p + 2);
  int hour = two_digits(p + 4);
  int minute = two_digits(p + 6);
  if (month < 1 || month > kMonths) return false;
  int second = 0;
  if (len >= digits + 2 && is_digit(data[digits]) && is_digit(data[digits + 1])) {
    second = two_digits(data + digits);
  }
  const char *zone = data[len - 1] == 'Z' ? " GMT" : "";
  snprintf(out, out_len, "%s %2d %02d:%02d:%02d %d%s", kMonthNames[month - 1], day, hour, minute,
           second, year, zone);
  return true;
}

void asn1_time_text(const ASN1_TIME *t, char *out, size_t out_len) {
  bool ok = t != nullptr && time_text(ASN1_STRING_type(t), ASN1_STRING_get0_data(t),
                                      static_cast<size_t>(ASN1_STRING_length(t)), out, out_len);
  if (!ok) {
    if (out != nullptr && out_len > 0) out[0] = '\0';
    libq_log(kModCommon, kLogError, "Bad time value\n");
  }
}

}  // namespace cert
}  // namespace quarry
