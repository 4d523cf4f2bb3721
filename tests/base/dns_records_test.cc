#include "base/dns_records.h"

#include <gtest/gtest.h>

#include <locale>
#include <string>

namespace {

// "name=ip,ip@timestamp " for each record.
std::string Story(const DnsRecords& records) {
  std::string story;
  for (const auto& [key, record] : records) {
    EXPECT_EQ(key, record.name);
    std::string ips;
    for (const std::string& ip : record.ips) ips += (ips.empty() ? "" : ",") + ip;
    story += record.name + "=" + ips + "@" + std::to_string(record.timestamp) + " ";
  }
  return story;
}

std::string Parsed(const std::string& text) { return Story(ParseDnsRecords(text)); }

// A document with one good record behind the element under test: the rest of the file must survive it.
std::string Document(const std::string& element) {
  return R"({"cache": [)" + element + R"(, {"name": "z", "ips": ["9.9.9.9"], "timestamp": 9}]})";
}

TEST(DnsRecordsTest, ElementsThatAreNoRecordsAreSkipped) {
  const struct {
    std::string element;
    std::string story;
  } cases[] = {
      {R"({"name": "a", "ips": ["1.2.3.4"], "timestamp": 5.9})", "a=1.2.3.4@5 "},
      {R"({"name": "a", "ips": ["1.2.3.4"], "timestamp": 4294967296})", ""},
      {R"({"name": "a", "ips": ["1.2.3.4"], "timestamp": -1})", ""},
      {R"({"name": "a", "ips": ["1.2.3.4"]})", ""},
      {R"({"ips": ["1.2.3.4"], "timestamp": 5})", ""},
      {R"({"name": "a", "ips": ["", 7, null, ["1.1.1.1"], {"x": 1}, "nothing", "1.2.3.4"], "timestamp": 5})",
       "a=1.2.3.4@5 "},
      {R"({"name": "a\u0000b", "ips": ["1.2.3.4"], "timestamp": 5})", std::string("a\0b=1.2.3.4@5 ", 14)},
      {R"({"name": "z", "ips": ["1.2.3.4"], "timestamp": 5})", ""},  // replaced by the later one
      {"/* a remark */ 1", ""},
  };
  for (const auto& c : cases) EXPECT_EQ(Parsed(Document(c.element)), c.story + "z=9.9.9.9@9 ") << c.element;
}

TEST(DnsRecordsTest, DamagedTextHoldsNothing) {
  const std::string whole = Document("1");
  EXPECT_EQ(Parsed(whole.substr(0, whole.size() - 1)), "");
  for (const char* text : {"[]", "7", "\"cache\"", "null", "{}", R"({"cache": {}})", R"({"cache": 1})",
                           R"({"Cache": []})", "\xff\xfe{", "{\"cache\": [\x01]}"}) {
    EXPECT_EQ(Parsed(text), "") << text;
  }
  EXPECT_EQ(Parsed(std::string(5000, '\0')), "");
  EXPECT_EQ(Parsed(std::string(1, '\0') + whole), "");
}

struct GroupsDigits : std::numpunct<char> {
  char do_thousands_sep() const override { return '.'; }
  char do_decimal_point() const override { return ','; }
  std::string do_grouping() const override { return "\3"; }
};

TEST(DnsRecordsTest, FormatAndParseAreInverse) {
  DnsRecords records;
  records["b.example"] = {"b.example", {"192.0.2.1", "2001:db8::1"}, 1700000000};
  records["a \"quoted\"\n\xC3\xA4"] = {"a \"quoted\"\n\xC3\xA4", {"::"}, 0};
  records[""] = {"", {"0.0.0.0"}, 4294967295};
  // The host may have set a locale that groups digits.
  const std::locale before = std::locale::global(std::locale(std::locale::classic(), new GroupsDigits));
  const std::string text = FormatDnsRecords(records);
  const DnsRecords again = ParseDnsRecords(text);
  std::locale::global(before);
  EXPECT_EQ(Story(again), Story(records));
  EXPECT_NE(text.find("\"timestamp\" : 1700000000"), std::string::npos) << text;
  EXPECT_NE(text.find("\n\t"), std::string::npos) << "indented";
  EXPECT_EQ(Parsed(FormatDnsRecords({})), "");
}

}  // namespace
