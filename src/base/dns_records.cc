#include "base/dns_records.h"

#include <json/json.h>

#include <limits>
#include <memory>
#include <optional>
#include <utility>

#include "base/socket_address.h"

namespace {

// Returns null when `text` is not JSON.
Json::Value ParseJson(const std::string& text) {
  Json::CharReaderBuilder builder;
  builder["collectComments"] = false;  // comments are allowed and dropped
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value root;
  try {
    if (reader->parse(text.data(), text.data() + text.size(), &root, nullptr)) return root;
  } catch (const Json::Exception&) {
    // The text nests deeper than the reader's limit.
  }
  return {};
}

std::optional<std::uint32_t> ReadTimestamp(const Json::Value& value) {
  if (!value.isNumeric()) return {};
  const double seconds = value.asDouble();
  if (!(seconds >= 0 && seconds <= std::numeric_limits<std::uint32_t>::max())) return {};
  return static_cast<std::uint32_t>(seconds);
}

std::vector<std::string> ReadAddresses(const Json::Value& values) {
  std::vector<std::string> ips;
  if (!values.isArray()) return ips;
  for (const Json::Value& value : values) {
    gxbase::IPAddress ip;
    if (value.isString() && gxbase::IPFromString(value.asString(), &ip)) ips.push_back(value.asString());
  }
  return ips;
}

std::optional<DnsRecord> ReadRecord(const Json::Value& element) {
  if (!element.isObject() || !element["name"].isString()) return {};
  const std::optional<std::uint32_t> timestamp = ReadTimestamp(element["timestamp"]);
  if (!timestamp) return {};
  DnsRecord record{element["name"].asString(), ReadAddresses(element["ips"]), *timestamp};
  if (record.ips.empty()) return {};
  return record;
}

Json::Value WriteRecord(const DnsRecord& record) {
  Json::Value element;
  element["name"] = record.name;
  for (const std::string& ip : record.ips) element["ips"].append(ip);
  element["timestamp"] = Json::UInt{record.timestamp};
  return element;
}

}  // namespace

DnsRecords ParseDnsRecords(const std::string& text) {
  DnsRecords records;
  const Json::Value root = ParseJson(text);
  if (!root.isObject() || !root["cache"].isArray()) return records;
  for (const Json::Value& element : root["cache"]) {
    if (std::optional<DnsRecord> record = ReadRecord(element)) records[record->name] = std::move(*record);
  }
  return records;
}

std::string FormatDnsRecords(const DnsRecords& records) {
  Json::Value root;
  Json::Value& cache = root["cache"] = Json::Value(Json::arrayValue);
  for (const auto& [name, record] : records) cache.append(WriteRecord(record));
  return root.toStyledString();
}
