#include "portfwd/channel_list.h"

#include "portfwd/url_code.h"
#include "portfwd/value_separater.h"

std::string FormatChannelList(const std::vector<ChannelRecord>& records) {
  std::string text;
  for (const ChannelRecord& record : records) {
    text += "name=" + url_encode(record.name);
    text += "&pro=" + url_encode(record.protocol);
    text += "&addr=" + url_encode(record.remote_address) + ";";
  }
  return text;
}

std::vector<ChannelRecord> ParseChannelList(const std::string& text) {
  // NUL never occurs in the text, so each record becomes a key as a whole.
  const CValueSeparater_T<char> list(text.c_str(), ';', '\0');
  std::vector<ChannelRecord> records;
  for (const std::string& item : list.Items()) {
    const CValueSeparater_T<char> record(item.c_str(), '&', '=');
    records.push_back(
        {url_decode(record.Value("name")), url_decode(record.Value("pro")), url_decode(record.Value("addr"))});
  }
  return records;
}
