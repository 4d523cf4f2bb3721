// The text form of a channel list: "name=ssh&pro=tcp&addr=127%2E0%2E0%2E1%3A22;" for each channel.
#ifndef GX_PORTFWD_CHANNEL_LIST_H
#define GX_PORTFWD_CHANNEL_LIST_H

#include <string>
#include <vector>

struct ChannelRecord {
  std::string name;
  std::string protocol;
  std::string remote_address;  // host:port
};

// The records in their order; the empty list is the empty text. A value ends at its first NUL byte.
std::string FormatChannelList(const std::vector<ChannelRecord>& records);

// Never fails: a value that is missing or badly escaped reads as empty. The records come in the byte-wise order
// of their texts, whatever order they were sent in.
std::vector<ChannelRecord> ParseChannelList(const std::string& text);

#endif  // GX_PORTFWD_CHANNEL_LIST_H
