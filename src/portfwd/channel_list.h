// The text form of a channel list: "name=ssh&pro=tcp&addr=127%2E0%2E0%2E1%3A22;" per channel.
#ifndef GX_PORTFWD_CHANNEL_LIST_H
#define GX_PORTFWD_CHANNEL_LIST_H

#include <string>
#include <vector>

struct ChannelRecord {
  std::string name;
  std::string protocol;
  std::string remote_address;  // host:port
};

// Formats the records in their order; an empty list gives an empty text. A value ends at its first NUL byte.
std::string FormatChannelList(const std::vector<ChannelRecord>& records);

// Never fails: a missing or badly escaped value reads as empty. Returns the records in the byte-wise order of
// their texts, whatever their order in `text`.
std::vector<ChannelRecord> ParseChannelList(const std::string& text);

#endif  // GX_PORTFWD_CHANNEL_LIST_H
