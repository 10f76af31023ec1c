// The time text of the information records.
#include <gtest/gtest.h>

#include <string>

#include "cert/cert.h"
#include "quarry.h"
#include "tests/support/log_capture.h"

namespace {

using quarry::cert::time_text;

std::string text(int type, const std::string &value) {
  char out[64];
  memset(out, 'x', sizeof out);
  bool ok = time_text(type, reinterpret_cast<const unsigned char *>(value.data()), value.size(),
                      out, sizeof out);
  return ok ? std::string(out) : "BAD:" + std::string(out);
}

TEST(CertTimeText, UtcTimeYear49IsIn2049) {
  EXPECT_EQ(text(V_ASN1_UTCTIME, "490101000000Z"), "Jan  1 00:00:00 2049 GMT");
}

TEST(CertTimeText, UtcTimeYear50IsIn1950) {
  EXPECT_EQ(text(V_ASN1_UTCTIME, "500101000000Z"), "Jan  1 00:00:00 1950 GMT");
}

TEST(CertTimeText, GeneralizedTimeHasFourDigitYear) {
  EXPECT_EQ(text(V_ASN1_GENERALIZEDTIME, "20501231235958Z"), "Dec 31 23:59:58 2050 GMT");
}

TEST(CertTimeText, WithoutZoneLetterNoGmt) {
  EXPECT_EQ(text(V_ASN1_UTCTIME, "140301101112"), "Mar  1 10:11:12 2014");
}

TEST(CertTimeText, SecondsNeedTwoDigits) {
  EXPECT_EQ(text(V_ASN1_UTCTIME, "1403011011Z"), "Mar  1 10:11:00 2014 GMT");
  EXPECT_EQ(text(V_ASN1_UTCTIME, "14030110115Z"), "Mar  1 10:11:00 2014 GMT");
  EXPECT_EQ(text(V_ASN1_GENERALIZEDTIME, "201403011011Z"), "Mar  1 10:11:00 2014 GMT");
}

TEST(CertTimeText, ShortOrNonDigitOrBadMonthIsRefusedWithEmptyText) {
  EXPECT_EQ(text(V_ASN1_UTCTIME, "140301101"), "BAD:");
  EXPECT_EQ(text(V_ASN1_GENERALIZEDTIME, "20140301101"), "BAD:");
  EXPECT_EQ(text(V_ASN1_UTCTIME, "14a301101112Z"), "BAD:");
  EXPECT_EQ(text(V_ASN1_UTCTIME, "141301101112Z"), "BAD:");
  EXPECT_EQ(text(V_ASN1_UTCTIME, "140001101112Z"), "BAD:");
  EXPECT_EQ(text(V_ASN1_OCTET_STRING, "140301101112Z"), "BAD:");
}

TEST(CertTimeText, OtherTypeLogsBadTimeValue) {
  dl_config_init();
  {
    quarry_test::LogCapture log;
    ASN1_STRING *s = ASN1_STRING_type_new(V_ASN1_OCTET_STRING);
    ASN1_STRING_set(s, "140301101112Z", -1);
    char out[64] = "junk";
    quarry::cert::asn1_time_text(s, out, sizeof out);
    ASN1_STRING_free(s);
    EXPECT_STREQ(out, "");
    EXPECT_TRUE(log.has(2, 3, "Bad time value\n")) << log.text();
  }
  dl_exit();
}

TEST(CertTimeText, CutToTheRoomGiven) {
  char out[8];
  const std::string v = "490101000000Z";
  EXPECT_TRUE(time_text(V_ASN1_UTCTIME, reinterpret_cast<const unsigned char *>(v.data()),
                        v.size(), out, sizeof out));
  EXPECT_STREQ(out, "Jan  1 ");
}

}  // namespace
