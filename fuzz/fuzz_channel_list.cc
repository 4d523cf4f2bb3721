// Percent coding and the text of the channel list: any text can be read, and written text reads back unchanged.
#include <algorithm>

#include "check.h"
#include "portfwd/channel_list.h"
#include "portfwd/url_code.h"

namespace {

bool Equal(const ChannelRecord& a, const ChannelRecord& b) {
  return a.name == b.name && a.protocol == b.protocol && a.remote_address == b.remote_address;
}

void CheckPercentCoding(const std::string& text) {
  const std::string encoded = url_encode(text);
  Check(url_decode(encoded) == text.c_str());
  Check(std::all_of(encoded.begin(), encoded.end(),
                    [](char c) { return c == '%' || (c > ' ' && c != '&' && c != '=' && c != ';' && c > 0); }));
  Check(url_decode(text).size() <= text.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = Text(data, size);
  CheckPercentCoding(text);
  for (ChannelRecord record : ParseChannelList(text)) {
    // Only the bytes before a NUL are sent.
    for (std::string* field : {&record.name, &record.protocol, &record.remote_address}) *field = field->c_str();
    const auto again = ParseChannelList(FormatChannelList({record}));
    Check(again.size() == 1 && Equal(again[0], record));
  }
  // Reading sorts the records by their texts, so only the second round trip keeps the order.
  const std::string first = FormatChannelList(ParseChannelList(text));
  const std::string second = FormatChannelList(ParseChannelList(first));
  Check(second.size() == first.size() && FormatChannelList(ParseChannelList(second)) == second);
  return 0;
}
